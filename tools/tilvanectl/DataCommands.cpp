/*
 * tilvanectl data: insert, select, update, delete and look up row ids in the
 * service's tables through either request interface, as the tool's application id.
 */
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <tilvane_client.h>

#include "Commands.h"
#include "TilesModel.h"

namespace tilvanectl {
namespace {

using tilvane::client::Cell;
using tilvane::client::Result;
using tilvane::client::Values;

struct Options {
    std::string command;
    std::string table;
    std::string road = "content";
    std::string provider;
    std::string where;
    std::string order;
    std::string columns;
    std::string bulkFile;
    bool json = false;
    Values values;
};

int Usage(const std::string& message)
{
    std::cerr << "tilvanectl data: " << message << " (see tilvanectl data --help)\n";
    return EXIT_USAGE;
}

bool ValidTable(const std::string& table)
{
    return table == "accelerators" || table == "sections" || table == "tiles";
}

std::vector<std::string> SplitColumns(const std::string& text)
{
    std::vector<std::string> columns;
    std::stringstream stream(text);
    std::string column;
    while (std::getline(stream, column, ',')) {
        if (!column.empty()) {
            columns.push_back(column);
        }
    }
    return columns;
}

/* ---- JSON Lines: one flat object of string or number values per line ------- */

class JsonLine {
public:
    explicit JsonLine(const std::string& text) : m_text(text) {}

    bool Parse(Values& values, std::string& error)
    {
        SkipBlanks();
        if (!Take('{')) {
            error = "expected '{'";
            return false;
        }
        SkipBlanks();
        if (Take('}')) {
            return AtEnd(error);
        }
        for (;;) {
            std::string key;
            std::string value;
            SkipBlanks();
            if (!String(key, error)) {
                return false;
            }
            SkipBlanks();
            if (!Take(':')) {
                error = "expected ':' after \"" + key + "\"";
                return false;
            }
            SkipBlanks();
            if (Peek() == '"') {
                if (!String(value, error)) {
                    return false;
                }
            } else if (!Number(value)) {
                error = "the value of \"" + key + "\" is neither a string nor a number";
                return false;
            }
            values.emplace_back(key, value);
            SkipBlanks();
            if (Take(',')) {
                continue;
            }
            if (Take('}')) {
                return AtEnd(error);
            }
            error = "expected ',' or '}'";
            return false;
        }
    }

private:
    char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
    bool Take(char c)
    {
        if (Peek() != c) {
            return false;
        }
        ++m_at;
        return true;
    }
    void SkipBlanks()
    {
        while (m_at < m_text.size() && (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\r')) {
            ++m_at;
        }
    }
    bool AtEnd(std::string& error)
    {
        SkipBlanks();
        if (m_at != m_text.size()) {
            error = "text after the object";
            return false;
        }
        return true;
    }
    static void PutUtf8(unsigned code, std::string& out)
    {
        if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    bool Hex4(unsigned& code)
    {
        if (m_at + 4 > m_text.size()) {
            return false;
        }
        code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_text[m_at++];
            code <<= 4;
            if (c >= '0' && c <= '9') {
                code |= static_cast<unsigned>(c - '0');
            } else if (c >= 'a' && c <= 'f') {
                code |= static_cast<unsigned>(c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                code |= static_cast<unsigned>(c - 'A' + 10);
            } else {
                return false;
            }
        }
        return true;
    }
    bool String(std::string& out, std::string& error)
    {
        if (!Take('"')) {
            error = "expected a string";
            return false;
        }
        while (m_at < m_text.size()) {
            const char c = m_text[m_at++];
            if (c == '"') {
                return true;
            }
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            const char escaped = Peek();
            ++m_at;
            switch (escaped) {
            case '"': out.push_back('"'); break;
            case '\\': out.push_back('\\'); break;
            case '/': out.push_back('/'); break;
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'n': out.push_back('\n'); break;
            case 'r': out.push_back('\r'); break;
            case 't': out.push_back('\t'); break;
            case 'u': {
                unsigned code = 0;
                if (!Hex4(code)) {
                    error = "bad \\u escape";
                    return false;
                }
                if (code >= 0xD800 && code < 0xDC00 && m_text.compare(m_at, 2, "\\u") == 0) {
                    m_at += 2;
                    unsigned low = 0;
                    if (!Hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                        error = "bad surrogate pair";
                        return false;
                    }
                    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                }
                PutUtf8(code, out);
                break;
            }
            default:
                error = "bad escape";
                return false;
            }
        }
        error = "unterminated string";
        return false;
    }
    bool Number(std::string& out)
    {
        const size_t start = m_at;
        while (m_at < m_text.size() && std::string("+-0123456789.eE").find(m_text[m_at]) != std::string::npos) {
            ++m_at;
        }
        out = m_text.substr(start, m_at - start);
        if (out.empty()) {
            return false;
        }
        char* end = nullptr;
        std::strtod(out.c_str(), &end);
        return end != nullptr && *end == '\0';
    }

    const std::string& m_text;
    size_t m_at = 0;
};

bool ReadBulk(const std::string& path, std::vector<Values>& rows)
{
    std::ifstream file(path);
    if (!file) {
        std::cerr << "tilvanectl data: cannot read " << path << "\n";
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        Values values;
        std::string error;
        if (!JsonLine(line).Parse(values, error)) {
            std::cerr << "tilvanectl data: " << path << ":" << number << ": " << error << "\n";
            return false;
        }
        rows.push_back(values);
    }
    return true;
}

/* ---- printing ------------------------------------------------------------------ */

std::string CellText(const Cell& cell)
{
    static const char kHex[] = "0123456789abcdef";
    switch (cell.type) {
    case Cell::Type::Null:
        return "NULL";
    case Cell::Type::Integer:
        return std::to_string(cell.integer);
    case Cell::Type::Real: {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%.17g", cell.real);
        return buffer;
    }
    case Cell::Type::Text:
        return cell.text;
    case Cell::Type::Blob: {
        std::string text = "x'";
        for (unsigned char byte : cell.blob) {
            text.push_back(kHex[byte >> 4]);
            text.push_back(kHex[byte & 0xF]);
        }
        return text + "'";
    }
    }
    return "";
}

std::string JsonString(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
            out += buffer;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out + "\"";
}

void PrintRows(const tilvane::client::RowSet& rows, bool json)
{
    if (json) {
        std::cout << "[";
        for (size_t r = 0; r < rows.rows.size(); ++r) {
            std::cout << (r == 0 ? "\n  {" : ",\n  {");
            for (size_t c = 0; c < rows.columns.size(); ++c) {
                const Cell& cell = rows.rows[r][c];
                std::cout << (c == 0 ? "" : ", ") << JsonString(rows.columns[c]) << ": ";
                if (cell.type == Cell::Type::Null) {
                    std::cout << "null";
                } else if (cell.type == Cell::Type::Integer || cell.type == Cell::Type::Real) {
                    std::cout << CellText(cell);
                } else {
                    std::cout << JsonString(CellText(cell));
                }
            }
            std::cout << "}";
        }
        std::cout << (rows.rows.empty() ? "]\n" : "\n]\n");
        return;
    }
    std::vector<size_t> widths;
    for (const std::string& column : rows.columns) {
        widths.push_back(column.size());
    }
    for (const auto& row : rows.rows) {
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            widths[c] = std::max(widths[c], CellText(row[c]).size());
        }
    }
    auto printLine = [&](const std::vector<std::string>& cells) {
        std::string line;
        for (size_t c = 0; c < cells.size(); ++c) {
            line += cells[c];
            if (c + 1 < cells.size()) {
                line += std::string(widths[c] - cells[c].size() + 2, ' ');
            }
        }
        std::cout << line << "\n";
    };
    printLine(rows.columns);
    for (const auto& row : rows.rows) {
        std::vector<std::string> cells;
        for (const Cell& cell : row) {
            cells.push_back(CellText(cell));
        }
        printLine(cells);
    }
    std::cout << "(" << rows.rows.size() << (rows.rows.size() == 1 ? " row)\n" : " rows)\n");
}

int Refused(const Options& options, const Result& result)
{
    std::cerr << "tilvanectl data " << options.command << ": " << tilvane::client::Describe(result) << "\n";
    return EXIT_FAILED;
}

/* ---- the commands ----------------------------------------------------------- */

/* The two clients a command may use, and the URI of its table. */
struct Requester {
    explicit Requester(const Options& o)
        : options(o), dataControl(o.road == "data-control"), uri(o.provider + "/" + o.table), dc(o.provider)
    {
    }

    const Options& options;
    const bool dataControl;
    const std::string uri;
    tilvane::client::DataControlClient dc;
    tilvane::client::ContentClient content;
};

/* The rows of the bulk file, written with `write`; `done` says how many. */
int RunBulk(Requester& r, const std::function<Result(const std::vector<Values>&)>& write, const char* done)
{
    std::vector<Values> rows;
    if (!ReadBulk(r.options.bulkFile, rows)) {
        return EXIT_FAILED;
    }
    Result result = write(rows);
    if (!result.Ok()) {
        return Refused(r.options, result);
    }
    std::cout << done << " " << rows.size() << " rows";
    if (std::string(done) == "inserted") {
        std::cout << ", last row id " << result.rowId;
    }
    std::cout << "\n";
    return EXIT_OK;
}

int RunInsert(Requester& r)
{
    const Options& o = r.options;
    if (!o.bulkFile.empty()) {
        return RunBulk(r, [&](const std::vector<Values>& rows) { return r.content.BulkInsert(r.uri, rows); },
                       "inserted");
    }
    Result result = r.dataControl ? r.dc.Insert(o.table, o.values) : r.content.Insert(r.uri, o.values);
    if (!result.Ok()) {
        return Refused(o, result);
    }
    std::cout << "inserted row " << result.rowId << "\n";
    return EXIT_OK;
}

int RunSelect(Requester& r)
{
    const Options& o = r.options;
    const std::vector<std::string> columns = SplitColumns(o.columns);
    Result result = r.dataControl ? r.dc.Select(o.table, columns, o.where, o.order)
                                  : r.content.Select(r.uri, columns, o.where, {}, o.order, "");
    if (!result.Ok()) {
        return Refused(o, result);
    }
    PrintRows(result.rows, o.json);
    return EXIT_OK;
}

int RunUpdate(Requester& r)
{
    const Options& o = r.options;
    if (!o.bulkFile.empty()) {
        return RunBulk(r, [&](const std::vector<Values>& rows) { return r.content.BulkUpdate(r.uri, rows); },
                       "updated");
    }
    Result result =
        r.dataControl ? r.dc.Update(o.table, o.values, o.where) : r.content.Update(r.uri, o.values, o.where, {});
    if (!result.Ok()) {
        return Refused(o, result);
    }
    std::cout << "updated\n";
    return EXIT_OK;
}

int RunDelete(Requester& r)
{
    const Options& o = r.options;
    Result result = r.dataControl ? r.dc.Delete(o.table, o.where) : r.content.Delete(r.uri, o.where, {});
    if (!result.Ok()) {
        return Refused(o, result);
    }
    std::cout << "deleted\n";
    return EXIT_OK;
}

int RunIds(Requester& r)
{
    Result result = r.content.GetRowIds(r.uri, r.options.where, {});
    if (!result.Ok()) {
        return Refused(r.options, result);
    }
    for (int64_t id : result.rowIds) {
        std::cout << id << "\n";
    }
    return EXIT_OK;
}

int Run(const Options& o)
{
    const std::map<std::string, int (*)(Requester&)> commands = {
        {"insert", RunInsert}, {"select", RunSelect}, {"update", RunUpdate}, {"delete", RunDelete}, {"ids", RunIds},
    };
    Requester requester(o);
    return commands.at(o.command)(requester);
}

/* Reads the options; the other words go to `words`. EXIT_OK or a usage failure. */
int ReadArguments(const std::vector<std::string>& args, Options& o, std::vector<std::string>& words)
{
    const std::map<std::string, std::string Options::*> valued = {
        {"--road", &Options::road},       {"--provider", &Options::provider}, {"--where", &Options::where},
        {"--order", &Options::order},     {"--columns", &Options::columns},   {"--bulk", &Options::bulkFile},
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        auto option = valued.find(word);
        if (option != valued.end()) {
            if (i + 1 >= args.size()) {
                return Usage(word + " needs a value");
            }
            o.*(option->second) = args[++i];
        } else if (word == "--json") {
            o.json = true;
        } else if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            return Usage("unknown option " + word);
        } else {
            words.push_back(word);
        }
    }
    return EXIT_OK;
}

/* The command, the table and the key=value words. EXIT_OK or a usage failure. */
int TakeWords(const std::vector<std::string>& words, Options& o)
{
    if (words.empty()) {
        return Usage("no command");
    }
    o.command = words[0];
    if (o.command != "insert" && o.command != "select" && o.command != "update" && o.command != "delete" &&
        o.command != "ids") {
        return Usage("unknown command " + o.command);
    }
    if (words.size() < 2 || !ValidTable(words[1])) {
        return Usage("TABLE must be accelerators, sections or tiles");
    }
    o.table = words[1];
    if (o.road != "content" && o.road != "data-control") {
        return Usage("--road must be data-control or content");
    }
    for (size_t i = 2; i < words.size(); ++i) {
        const size_t equals = words[i].find('=');
        if (equals == std::string::npos || equals == 0) {
            return Usage("expected key=value, got " + words[i]);
        }
        o.values.emplace_back(words[i].substr(0, equals), words[i].substr(equals + 1));
    }
    return EXIT_OK;
}

/* Whether the command, the interface and the rows go together. EXIT_OK or a usage failure. */
int CheckCombination(const Options& o)
{
    const bool bulk = !o.bulkFile.empty();
    if (bulk && (o.command != "insert" && o.command != "update")) {
        return Usage("--bulk is for insert and update");
    }
    if (bulk && o.road != "content") {
        return Usage("--bulk works on the content road only");
    }
    if (bulk && !o.values.empty()) {
        return Usage("--bulk takes its rows from the file, not key=value words");
    }
    if ((o.command == "insert" || o.command == "update") && !bulk && o.values.empty()) {
        return Usage(o.command + " needs key=value words");
    }
    if (o.command == "update" && !bulk && o.where.empty()) {
        return Usage("update needs --where (use --where '1 = 1' for every row)");
    }
    if ((o.command == "select" || o.command == "delete" || o.command == "ids") && !o.values.empty()) {
        return Usage(o.command + " takes no key=value words");
    }
    if (o.command == "ids" && o.road != "content") {
        return Usage("ids works on the content road only");
    }
    return EXIT_OK;
}

}  // namespace

void PrintDataHelp()
{
    std::cout << "Usage: tilvanectl [--app-id ID] data COMMAND TABLE [OPTIONS]\n"
                 "TABLE is accelerators, sections or tiles.\n"
                 "  insert TABLE key=value...                  insert one row\n"
                 "  insert TABLE --bulk FILE                   insert the rows of a JSON Lines file (content road)\n"
                 "  select TABLE [--columns a,b] [--where W] [--order O] [--json]\n"
                 "  update TABLE --where W key=value...        change the rows W selects\n"
                 "  update TABLE --bulk FILE                   rows naming their row in bulk_update_row_id_key\n"
                 "  delete TABLE [--where W]\n"
                 "  ids TABLE [--where W]                      row ids (content road)\n"
                 "Options: --road data-control|content (default content),\n"
                 "         --provider ID (default $TILVANE_DATA_CONTROL_PROVIDER_ID, else the service's)\n";
}

int RunDataCommand(const std::vector<std::string>& args)
{
    Options o;
    const char* provider = std::getenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    o.provider = provider != nullptr && *provider != '\0' ? provider : TilesModel::PROVIDER_ID;
    std::vector<std::string> words;
    int checked = ReadArguments(args, o, words);
    if (checked == EXIT_OK) {
        checked = TakeWords(words, o);
    }
    if (checked == EXIT_OK) {
        checked = CheckCombination(o);
    }
    return checked == EXIT_OK ? Run(o) : checked;
}

}  // namespace tilvanectl
