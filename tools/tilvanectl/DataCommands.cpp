/*
 * tilvanectl data: insert, select, update, delete and look up row ids in the
 * service's tables through either request road, as the tool's application id.
 */
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <tilvane_client.h>

#include "Commands.h"
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

int Run(const Options& o)
{
    const bool dataControl = o.road == "data-control";
    const std::string uri = o.provider + "/" + o.table;
    tilvane::client::DataControlClient dc(o.provider);
    tilvane::client::ContentClient content;

    if (o.command == "insert") {
        if (!o.bulkFile.empty()) {
            std::vector<Values> rows;
            if (!ReadBulk(o.bulkFile, rows)) {
                return EXIT_FAILED;
            }
            Result result = content.BulkInsert(uri, rows);
            if (!result.Ok()) {
                return Refused(o, result);
            }
            std::cout << "inserted " << rows.size() << " rows, last row id " << result.rowId << "\n";
            return EXIT_OK;
        }
        Result result = dataControl ? dc.Insert(o.table, o.values) : content.Insert(uri, o.values);
        if (!result.Ok()) {
            return Refused(o, result);
        }
        std::cout << "inserted row " << result.rowId << "\n";
        return EXIT_OK;
    }
    if (o.command == "select") {
        const std::vector<std::string> columns = SplitColumns(o.columns);
        Result result = dataControl ? dc.Select(o.table, columns, o.where, o.order)
                                    : content.Select(uri, columns, o.where, {}, o.order, "");
        if (!result.Ok()) {
            return Refused(o, result);
        }
        PrintRows(result.rows, o.json);
        return EXIT_OK;
    }
    if (o.command == "update") {
        if (!o.bulkFile.empty()) {
            std::vector<Values> rows;
            if (!ReadBulk(o.bulkFile, rows)) {
                return EXIT_FAILED;
            }
            Result result = content.BulkUpdate(uri, rows);
            if (!result.Ok()) {
                return Refused(o, result);
            }
            std::cout << "updated " << rows.size() << " rows\n";
            return EXIT_OK;
        }
        Result result = dataControl ? dc.Update(o.table, o.values, o.where) : content.Update(uri, o.values, o.where, {});
        if (!result.Ok()) {
            return Refused(o, result);
        }
        std::cout << "updated\n";
        return EXIT_OK;
    }
    if (o.command == "delete") {
        Result result = dataControl ? dc.Delete(o.table, o.where) : content.Delete(uri, o.where, {});
        if (!result.Ok()) {
            return Refused(o, result);
        }
        std::cout << "deleted\n";
        return EXIT_OK;
    }
    /* ids */
    Result result = content.GetRowIds(uri, o.where, {});
    if (!result.Ok()) {
        return Refused(o, result);
    }
    for (int64_t id : result.rowIds) {
        std::cout << id << "\n";
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
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) {
                return false;
            }
            out = args[++i];
            return true;
        };
        bool ok = true;
        if (word == "--road") {
            ok = value(o.road);
        } else if (word == "--provider") {
            ok = value(o.provider);
        } else if (word == "--where") {
            ok = value(o.where);
        } else if (word == "--order") {
            ok = value(o.order);
        } else if (word == "--columns") {
            ok = value(o.columns);
        } else if (word == "--bulk") {
            ok = value(o.bulkFile);
        } else if (word == "--json") {
            o.json = true;
        } else if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            return Usage("unknown option " + word);
        } else {
            words.push_back(word);
        }
        if (!ok) {
            return Usage(word + " needs a value");
        }
    }
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
    return Run(o);
}

}  // namespace tilvanectl
