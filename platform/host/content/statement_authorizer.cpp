/*
 * The strict-confinement authorizer of request statements (statement_authorizer.h).
 */
#include "content/statement_authorizer.h"

#include "content/database.h"

#include <strings.h>

#include <cctype>
#include <cstring>
#include <utility>

namespace tilvane {
namespace content {
namespace {

/* Functions that compute a value from their arguments and nothing else. */
const char* const kValueFunctions[] = {
    "abs",      "avg",        "char",       "coalesce", "count",     "date",       "datetime", "glob",
    "group_concat", "hex",    "ifnull",     "iif",      "instr",     "julianday",  "length",   "like",
    "likelihood", "likely",   "lower",      "ltrim",    "max",       "min",        "nullif",   "printf",
    "format",   "quote",      "replace",    "round",    "rtrim",     "sign",       "strftime", "substr",
    "substring", "sum",       "time",       "total",    "trim",      "typeof",     "unicode",  "unixepoch",
    "unlikely", "upper",      "zeroblob",   "random",   "randomblob", "concat",    "concat_ws", "octet_length",
};

bool IsValueFunction(const char* name)
{
    if (name == nullptr) {
        return false;
    }
    for (const char* known : kValueFunctions) {
        if (strcasecmp(known, name) == 0) {
            return true;
        }
    }
    return false;
}

bool SameTable(const std::string& table, const char* name)
{
    return name != nullptr && strcasecmp(table.c_str(), name) == 0;
}

std::string Lower(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string ColumnText(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace

std::vector<ForeignKeyLink> ReadForeignKeyLinks(sqlite3* db)
{
    std::vector<ForeignKeyLink> links;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT m.name, p.\"from\", p.\"table\", p.\"to\" FROM sqlite_master AS m "
                           "JOIN pragma_foreign_key_list(m.name) AS p WHERE m.type = 'table'",
                           -1, &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);
        return links;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        links.push_back({ColumnText(statement, 0), ColumnText(statement, 1), ColumnText(statement, 2),
                         ColumnText(statement, 3)});
    }
    sqlite3_finalize(statement);
    return links;
}

ScopedStatementAuthorizer::ScopedStatementAuthorizer(Database& database, std::string table)
    : m_database(database), m_table(std::move(table)), m_pLinks(&database.ForeignKeys())
{
    /* The links are read before this confinement is active: reading them
     * prepares statements of its own. */
    m_database.SetActiveAuthorizer(this);
}

ScopedStatementAuthorizer::~ScopedStatementAuthorizer()
{
    m_database.SetActiveAuthorizer(nullptr);
}

void ScopedStatementAuthorizer::LearnCascade()
{
    if (!m_cascade.empty()) {
        return;
    }
    m_cascade.insert(Lower(m_table));
    for (bool grew = true; grew;) {
        grew = false;
        for (const ForeignKeyLink& link : *m_pLinks) {
            if (m_cascade.count(Lower(link.parent)) != 0 && m_cascade.insert(Lower(link.child)).second) {
                grew = true;
            }
        }
    }
}

bool ScopedStatementAuthorizer::IsCascadeTable(const char* table) const
{
    return table != nullptr && m_cascade.count(Lower(table)) != 0;
}

bool ScopedStatementAuthorizer::IsKeyColumn(const char* table, const char* column) const
{
    if (table == nullptr || column == nullptr) {
        return false;
    }
    for (const ForeignKeyLink& link : *m_pLinks) {
        if (!IsCascadeTable(link.child.c_str())) {
            continue;
        }
        if (strcasecmp(link.child.c_str(), table) == 0 && strcasecmp(link.childColumn.c_str(), column) == 0) {
            return true;
        }
        if (strcasecmp(link.parent.c_str(), table) == 0 &&
            (link.parentColumn.empty() || strcasecmp(link.parentColumn.c_str(), column) == 0)) {
            return true;
        }
    }
    return false;
}

int ScopedStatementAuthorizer::Refuse(const char* what, const char* object)
{
    if (m_refusal.empty()) {
        m_refusal = std::string(what) + " " + (object != nullptr ? object : "");
    }
    return SQLITE_DENY;
}

int ScopedStatementAuthorizer::Authorize(int action, const char* first, const char* second, const char* trigger)
{
    if (trigger != nullptr) {
        return SQLITE_OK; /* the schema's own trigger */
    }
    LearnCascade();
    if (m_statementKind < 0) {
        m_statementKind = action; /* SQLite names the statement's kind first */
    }
    const bool writing =
        m_statementKind == SQLITE_INSERT || m_statementKind == SQLITE_UPDATE || m_statementKind == SQLITE_DELETE;
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
    case SQLITE_RECURSIVE:
        return SQLITE_OK;
    case SQLITE_READ:
        /* A column of a subquery's result has no table. */
        if (first == nullptr || *first == '\0' || SameTable(m_table, first) ||
            (writing && IsKeyColumn(first, second))) {
            return SQLITE_OK;
        }
        return Refuse("reading table", first);
    case SQLITE_INSERT:
        return SameTable(m_table, first) ? SQLITE_OK : Refuse("writing table", first);
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
        return IsCascadeTable(first) ? SQLITE_OK : Refuse("writing table", first);
    case SQLITE_FUNCTION:
        return IsValueFunction(second) ? SQLITE_OK : Refuse("function", second);
    case SQLITE_PRAGMA:
        return Refuse("pragma", first);
    case SQLITE_ATTACH:
        return Refuse("attach", first);
    case SQLITE_DETACH:
        return Refuse("detach", first);
    default:
        return Refuse("statement kind", std::to_string(action).c_str());
    }
}

}  // namespace content
}  // namespace tilvane
