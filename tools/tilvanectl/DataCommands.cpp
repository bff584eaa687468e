/*
 * tilvanectl data: insert, select, update, delete and look up row ids in the
 * service's tables through either request interface, as the tool's application id.
 */
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <map>
#include <string>
#include <vector>

#include <tilvane_client.h>

#include "BulkParts.h"
#include "Commands.h"
#include "DataRequests.h"
#include "Json.h"
#include "TextWidth.h"
#include "JsonLines.h"
#include "TilesModel.h"

namespace tilvanectl {
namespace {

using tilvane::client::Cell;
using tilvane::client::Result;
using tilvane::client::Values;

struct Options {
    std::string command;
    std::string table;
    std::string interface = "content";
    std::string provider;
    std::string where;
    bool hasWhere = false;
    std::vector<std::string> whereArgs;
    std::string order;
    std::string limit;
    std::string columns;
    std::string bulkFile;
    bool json = false;
    bool all = false;
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

/* A JSON Lines file: one flat object of string or number values per line. */
bool ReadBulk(const std::string& path, std::vector<Values>& rows)
{
    std::ifstream file(path);
    if (!file) {
        std::cerr << "tilvanectl data: cannot read " << path << "\n";
        return false;
    }
    std::string error;
    if (!ReadJsonLines(file, path, rows, error)) {
        std::cerr << "tilvanectl data: " << error << "\n";
        return false;
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

void PrintRows(const tilvane::client::RowSet& rows, bool json)
{
    if (json) {
        std::cout << "[";
        for (size_t r = 0; r < rows.rows.size(); ++r) {
            std::cout << (r == 0 ? "\n  {" : ",\n  {");
            for (size_t c = 0; c < rows.columns.size(); ++c) {
                const Cell& cell = rows.rows[r][c];
                std::cout << (c == 0 ? "" : ", ") << JsonQuote(rows.columns[c]) << ": ";
                if (cell.type == Cell::Type::Null) {
                    std::cout << "null";
                } else if (cell.type == Cell::Type::Integer || cell.type == Cell::Type::Real) {
                    std::cout << CellText(cell);
                } else {
                    std::cout << JsonQuote(CellText(cell));
                }
            }
            std::cout << "}";
        }
        std::cout << (rows.rows.empty() ? "]\n" : "\n]\n");
        return;
    }
    std::vector<std::vector<std::string>> texts;
    for (const auto& row : rows.rows) {
        std::vector<std::string> cells;
        for (const Cell& cell : row) {
            cells.push_back(CellText(cell));
        }
        texts.push_back(std::move(cells));
    }
    std::cout << FormatTable(rows.columns, texts);
    std::cout << "(" << rows.rows.size() << (rows.rows.size() == 1 ? " row)\n" : " rows)\n");
}

int Refused(const Options& options, const Result& result)
{
    return ReportFailure("data " + options.command, result);
}

std::string Changed(const char* verb, const Result& result)
{
    if (result.changedRows < 0) {
        return verb;
    }
    return std::string(verb) + " " + CountOf(result.changedRows, "row", "rows");
}

/* A section without its launcher entry is stored, but neither the launcher
 * nor its author ever reads it back. */
void WarnAboutLooseSection(const Options& o, const Values& values)
{
    if (o.table != "sections") {
        return;
    }
    for (const auto& entry : values) {
        if (entry.first == TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID) {
            return;
        }
    }
    std::cerr << "tilvanectl data insert: warning: no " << TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID
              << " given: this section belongs to no launcher entry, so neither the launcher nor its author "
                 "will read it (tilvanectl publish sets it)\n";
}

/* ---- the commands ----------------------------------------------------------- */

/* The two clients a command may use, and the URI of its table. */
struct Requester {
    explicit Requester(const Options& options)
        : o(options), dataControl(options.interface == "data-control"), uri(options.provider + "/" + options.table),
          dc(options.provider)
    {
    }
    const Options& o;
    const bool dataControl;
    const std::string uri;
    tilvane::client::DataControlClient dc;
    tilvane::client::ContentClient content;
};

/* The rows of the bulk file; false when it cannot be read. */
bool BulkRows(const Options& o, std::vector<Values>& rows)
{
    return ReadBulk(o.bulkFile, rows);
}

/* The parts of a file over one request's limits, one bulk each, in order;
 * the first that fails ends it, and what was stored is said. */
int InsertInParts(Requester& r, const std::vector<Values>& rows, const std::vector<BulkPart>& parts)
{
    Result result;
    size_t inserted = 0;
    size_t failed = parts.size();
    {
        Progress progress(rows.size(), parts.size());
        for (size_t p = 0; p < parts.size() && failed == parts.size(); ++p) {
            const auto first = rows.begin() + static_cast<std::ptrdiff_t>(parts[p].first);
            result = r.content.BulkInsert(r.uri, std::vector<Values>(first, first + static_cast<std::ptrdiff_t>(
                                                                                          parts[p].count)));
            if (!result.Ok()) {
                failed = p;
                break;
            }
            inserted += parts[p].count;
            progress.Done(inserted, p + 1);
        }
    }
    if (failed < parts.size()) {
        std::cerr << "tilvanectl data insert: part " << failed + 1 << " of " << parts.size() << " (rows "
                  << parts[failed].first + 1 << "-" << parts[failed].first + parts[failed].count
                  << ") was not inserted: " << tilvane::client::Explain(result) << "; "
                  << (inserted == 0 ? std::string("nothing was inserted")
                                    : "rows 1-" + std::to_string(inserted) + " were, the rest was not")
                  << "\n";
        return EXIT_FAILED;
    }
    std::cout << "inserted " << CountOf(static_cast<long long>(rows.size()), "row", "rows") << " in "
              << parts.size() << " parts, last row id " << result.rowId << "\n";
    return EXIT_OK;
}

int RunBulkInsert(Requester& r)
{
    std::vector<Values> rows;
    if (!BulkRows(r.o, rows)) {
        return EXIT_FAILED;
    }
    for (const Values& row : rows) {
        WarnAboutLooseSection(r.o, row);
    }
    std::vector<BulkPart> parts;
    std::string error;
    if (!SplitIntoParts(rows, parts, error)) {
        std::cerr << "tilvanectl data insert: " << r.o.bulkFile << ": " << error << "; nothing was inserted\n";
        return EXIT_FAILED;
    }
    if (parts.size() > 1) {
        return InsertInParts(r, rows, parts);
    }
    Result result = r.content.BulkInsert(r.uri, rows);
    if (!result.Ok()) {
        return Refused(r.o, result);
    }
    std::cout << "inserted " << CountOf(static_cast<long long>(rows.size()), "row", "rows") << ", last row id "
              << result.rowId << "\n";
    return EXIT_OK;
}

int RunInsert(Requester& r)
{
    if (!r.o.bulkFile.empty()) {
        return RunBulkInsert(r);
    }
    Result result = r.dataControl ? r.dc.Insert(r.o.table, r.o.values) : r.content.Insert(r.uri, r.o.values);
    if (SyncMarkSent(result)) {
        std::cout << "sync end mark sent\n";
        return EXIT_OK;
    }
    if (!result.Ok()) {
        return Refused(r.o, result);
    }
    WarnAboutLooseSection(r.o, r.o.values);
    std::cout << "inserted row " << result.rowId << "\n";
    return EXIT_OK;
}

int RunSelect(Requester& r)
{
    const Options& o = r.o;
    const std::vector<std::string> columns = SplitColumns(o.columns);
    Result result = r.dataControl ? r.dc.Select(o.table, columns, o.where, o.order)
                                  : r.content.Select(r.uri, columns, o.where, o.whereArgs, o.order, o.limit);
    if (!result.Ok()) {
        return Refused(o, result);
    }
    PrintRows(result.rows, o.json);
    return EXIT_OK;
}

int RunBulkUpdate(Requester& r)
{
    std::vector<Values> rows;
    if (!BulkRows(r.o, rows)) {
        return EXIT_FAILED;
    }
    Result result = r.content.BulkUpdate(r.uri, rows);
    if (!result.Ok()) {
        return Refused(r.o, result);
    }
    std::cout << Changed("updated", result) << " ("
              << CountOf(static_cast<long long>(rows.size()), "row sent", "rows sent") << ")\n";
    return EXIT_OK;
}

int RunUpdate(Requester& r)
{
    if (!r.o.bulkFile.empty()) {
        return RunBulkUpdate(r);
    }
    const Options& o = r.o;
    Result result = r.dataControl ? r.dc.Update(o.table, o.values, o.where)
                                  : r.content.Update(r.uri, o.values, o.where, o.whereArgs);
    if (!result.Ok()) {
        return Refused(o, result);
    }
    std::cout << Changed("updated", result) << "\n";
    return EXIT_OK;
}

int RunDelete(Requester& r)
{
    const Options& o = r.o;
    Result result = r.dataControl ? r.dc.Delete(o.table, o.where) : r.content.Delete(r.uri, o.where, o.whereArgs);
    if (!result.Ok()) {
        return Refused(o, result);
    }
    std::cout << Changed("deleted", result) << "\n";
    return EXIT_OK;
}

int RunIds(Requester& r)
{
    Result result = r.content.GetRowIds(r.uri, r.o.where, r.o.whereArgs);
    if (!result.Ok()) {
        return Refused(r.o, result);
    }
    for (int64_t id : result.rowIds) {
        std::cout << id << "\n";
    }
    return EXIT_OK;
}

/* The data commands by name. */
const std::map<std::string, int (*)(Requester&)>& DataCommandTable()
{
    static const std::map<std::string, int (*)(Requester&)> commands = {
        {"insert", RunInsert}, {"select", RunSelect}, {"update", RunUpdate}, {"delete", RunDelete}, {"ids", RunIds},
    };
    return commands;
}

int Run(const Options& o)
{
    Requester requester(o);
    return DataCommandTable().at(o.command)(requester);
}

}  // namespace

std::string DefaultProviderId()
{
    const char* provider = std::getenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    return provider != nullptr && *provider != '\0' ? provider : TilesModel::PROVIDER_ID;
}

bool SyncMarkSent(const Result& result)
{
    return result.message == "sync end mark sent" &&
           (result.outcome == tilvane::client::Outcome::Answered ||
            result.outcome == tilvane::client::Outcome::NoResult);
}

int ReportFailure(const std::string& what, const Result& result)
{
    std::cerr << "tilvanectl " << what << ": " << tilvane::client::Explain(result) << "\n";
    return EXIT_FAILED;
}

std::string CountOf(long long count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

void PrintDataHelp()
{
    std::cout << "Usage: tilvanectl [--app-id ID] data COMMAND TABLE [OPTIONS]\n"
                 "TABLE is accelerators, sections or tiles (columns: docs/schema.md).\n"
                 "\n"
                 "Commands:\n"
                 "  insert TABLE key=value...          insert one row (a tiles_sync_event=sync_end row\n"
                 "                                     sends the sync end mark instead)\n"
                 "  insert TABLE --bulk FILE           insert the rows of a JSON Lines file (content); a file\n"
                 "                                     over one request's limits goes in parts of at most\n"
                 "                                     4,096 rows and 16 MiB, each stored whole\n"
                 "  select TABLE [--columns a,b] [--where W [--arg V]...] [--order O] [--limit N] [--json]\n"
                 "  update TABLE --where W [--arg V]... key=value...\n"
                 "                                     change the rows W selects; prints how many changed\n"
                 "  update TABLE --bulk FILE           rows naming their row in bulk_update_row_id_key\n"
                 "  delete TABLE --where W [--arg V]...\n"
                 "  delete TABLE --all                 delete every row this application may delete\n"
                 "  ids TABLE [--where W [--arg V]...] row ids (content)\n"
                 "\n"
                 "Options (--name VALUE or --name=VALUE):\n"
                 "  --interface data-control|content   the request interface (default content)\n"
                 "  --provider ID    default $TILVANE_DATA_CONTROL_PROVIDER_ID, else the service's\n"
                 "  --where W        an SQL condition; each ? in it takes the next --arg (content)\n"
                 "  --arg V          a value for a ? of --where, sent as a bound value (repeatable)\n"
                 "  --limit N        select at most N rows (content)\n"
                 "  --json           select: print a JSON array of objects\n";
}

namespace {

/* Takes one option word (and its value) into `o`; "" when taken, else the
 * mistake. `i` moves past a value. */
std::string TakeOption(const std::vector<std::string>& args, size_t& i, Options& o)
{
    const std::string& word = args[i];
    auto value = [&](std::string& out) {
        if (i + 1 >= args.size()) {
            return false;
        }
        out = args[++i];
        return true;
    };
    bool ok = true;
    if (word == "--interface") {
        ok = value(o.interface);
    } else if (word == "--road") {
        std::cerr << "tilvanectl data: --road is deprecated, use --interface\n";
        ok = value(o.interface);
    } else if (word == "--provider") {
        ok = value(o.provider);
    } else if (word == "--where") {
        ok = value(o.where);
        o.hasWhere = true;
    } else if (word == "--arg") {
        std::string arg;
        ok = value(arg);
        o.whereArgs.push_back(arg);
    } else if (word == "--order") {
        ok = value(o.order);
    } else if (word == "--limit") {
        ok = value(o.limit);
        if (ok && (o.limit.empty() || o.limit.find_first_not_of("0123456789") != std::string::npos)) {
            return "--limit takes a number of rows";
        }
    } else if (word == "--columns") {
        ok = value(o.columns);
    } else if (word == "--bulk") {
        ok = value(o.bulkFile);
    } else if (word == "--json") {
        o.json = true;
    } else if (word == "--all") {
        o.all = true;
    } else {
        return "unknown option " + word;
    }
    return ok ? "" : word + " needs a value";
}

/* The command, table and key=value words; "" or the mistake. */
std::string TakeWords(const std::vector<std::string>& words, Options& o)
{
    if (words.empty()) {
        return "no command";
    }
    o.command = words[0];
    if (DataCommandTable().count(o.command) == 0) {
        return "unknown command " + o.command;
    }
    if (words.size() < 2 || !ValidTable(words[1])) {
        return "TABLE must be accelerators, sections or tiles";
    }
    o.table = words[1];
    for (size_t i = 2; i < words.size(); ++i) {
        const size_t equals = words[i].find('=');
        if (equals == std::string::npos || equals == 0) {
            return "expected key=value, got " + words[i];
        }
        o.values.emplace_back(words[i].substr(0, equals), words[i].substr(equals + 1));
    }
    return "";
}

/* What a bulk may not be combined with; "" or the mistake. */
std::string BulkMistake(const Options& o, bool content)
{
    if (o.command != "insert" && o.command != "update") {
        return "--bulk is for insert and update";
    }
    if (!content) {
        return "--bulk works on the content interface only";
    }
    if (!o.values.empty()) {
        return "--bulk takes its rows from the file, not key=value words";
    }
    return "";
}

/* The rules a whole command line must keep; "" or the first one it breaks. */
std::string CommandLineMistake(const Options& o)
{
    if (o.interface != "content" && o.interface != "data-control") {
        return "--interface must be data-control or content";
    }
    const bool content = o.interface == "content";
    const bool bulk = !o.bulkFile.empty();
    const bool writes = o.command == "insert" || o.command == "update";
    const std::vector<std::pair<bool, std::string>> rules = {
        {bulk, BulkMistake(o, content)},
        {writes && !bulk && o.values.empty(), o.command + " needs key=value words"},
        {o.command == "update" && !bulk && o.where.empty(), "update needs --where (use --where '1 = 1' for every row)"},
        {!writes && !o.values.empty(), o.command + " takes no key=value words"},
        {o.command == "ids" && !content, "ids works on the content interface only"},
        {!o.whereArgs.empty() && !content, "--arg works on the content interface only"},
        {!o.whereArgs.empty() && !o.hasWhere, "--arg gives values to the ? of --where"},
        {!o.limit.empty() && (o.command != "select" || !content), "--limit is for select on the content interface"},
        {o.all && o.command != "delete", "--all is for delete"},
        {o.command == "delete" && o.hasWhere && o.all, "delete takes --where or --all, not both"},
        {o.command == "delete" && !o.hasWhere && !o.all,
         "delete needs --where W, or --all to delete every row this application may delete"},
    };
    for (const auto& rule : rules) {
        if (rule.first && !rule.second.empty()) {
            return rule.second;
        }
    }
    return "";
}

}  // namespace

int RunDataCommand(const std::vector<std::string>& args)
{
    Options o;
    o.provider = DefaultProviderId();
    std::vector<std::string> words;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i].size() > 1 && args[i][0] == '-') {
            const std::string mistake = TakeOption(args, i, o);
            if (!mistake.empty()) {
                return Usage(mistake);
            }
        } else {
            words.push_back(args[i]);
        }
    }
    std::string mistake = TakeWords(words, o);
    if (mistake.empty()) {
        mistake = CommandLineMistake(o);
    }
    return mistake.empty() ? Run(o) : Usage(mistake);
}

}  // namespace tilvanectl
