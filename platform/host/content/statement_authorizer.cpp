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

/* The functions a confined statement may call: each computes a value from
 * its arguments alone (the row's own values) and makes it no longer than a
 * small multiple of them. Not here, among others: functions that make values
 * of a length the caller chooses (randomblob, zeroblob, printf, format, char,
 * replace, concat), aggregates (which need a subquery to reach other rows),
 * random, and everything that reaches beyond values (load_extension, ...). */
const char* const kValueFunctions[] = {
    "abs",     "coalesce", "date",   "datetime", "glob",   "hex",       "ifnull",       "iif",      "instr",
    "julianday", "length", "like",   "likelihood", "likely", "lower",   "ltrim",        "max",      "min",
    "nullif",  "octet_length", "quote", "round",  "rtrim",  "sign",      "strftime",     "substr",   "substring",
    "time",    "trim",     "typeof", "unicode",  "unixepoch", "unlikely", "upper",
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

/* Skips a quoted text or name that starts at `i` (its quote doubled inside
 * it stands for itself); the index after it. */
size_t SkipQuoted(const std::string& sql, size_t i, char close)
{
    for (++i; i < sql.size(); ++i) {
        if (sql[i] == close) {
            if (close != ']' && i + 1 < sql.size() && sql[i + 1] == close) {
                ++i;
                continue;
            }
            return i + 1;
        }
    }
    return sql.size();
}

/* Skips a comment that starts at `i`, or returns `i` when none does. */
size_t SkipComment(const std::string& sql, size_t i)
{
    if (sql.compare(i, 2, "--") == 0) {
        const size_t end = sql.find('\n', i);
        return end == std::string::npos ? sql.size() : end + 1;
    }
    if (sql.compare(i, 2, "/*") == 0) {
        const size_t end = sql.find("*/", i + 2);
        return end == std::string::npos ? sql.size() : end + 2;
    }
    return i;
}

bool IsWordByte(char c)
{
    const unsigned char byte = static_cast<unsigned char>(c);
    return std::isalnum(byte) || c == '_' || c == '$' || byte >= 0x80;
}

}  // namespace

SqlKeywords CountKeywords(const std::string& sql)
{
    SqlKeywords found;
    bool first = true;
    for (size_t i = 0; i < sql.size();) {
        const char c = sql[i];
        const size_t afterComment = SkipComment(sql, i);
        if (afterComment != i) {
            i = afterComment;
        } else if (c == '\'' || c == '"' || c == '`' || c == '[') {
            i = SkipQuoted(sql, i, c == '[' ? ']' : c);
            first = false;
        } else if (IsWordByte(c)) {
            size_t end = i;
            while (end < sql.size() && IsWordByte(sql[end])) {
                ++end;
            }
            const std::string word = sql.substr(i, end - i);
            const bool select = strcasecmp(word.c_str(), "select") == 0;
            found.firstIsSelect = found.firstIsSelect || (first && select);
            found.select += select ? 1 : 0;
            found.with += strcasecmp(word.c_str(), "with") == 0 ? 1 : 0;
            first = false;
            i = end;
        } else {
            first = first && std::isspace(static_cast<unsigned char>(c));
            ++i;
        }
    }
    return found;
}

namespace {

std::string ValueFunctionList()
{
    std::string list;
    for (const char* name : kValueFunctions) {
        list += (list.empty() ? "" : ", ") + std::string(name);
    }
    return list;
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
        m_refusal = "the statement may use only table " + m_table + ", not " + what + " " + (object != nullptr ? object : "");
    }
    return SQLITE_DENY;
}

int ScopedStatementAuthorizer::RefuseReach(const std::string& reason)
{
    if (m_refusal.empty()) {
        m_refusal = "the statement may reach only the request's own rows: " + reason;
    }
    return SQLITE_DENY;
}

bool ScopedStatementAuthorizer::CheckText(const std::string& sql)
{
    const SqlKeywords keywords = CountKeywords(sql);
    const int ownSelects = keywords.firstIsSelect ? 1 : 0;
    if (keywords.with > 0) {
        RefuseReach("a common table expression (WITH) is refused");
        return false;
    }
    if (keywords.select > ownSelects) {
        RefuseReach("a subquery (a SELECT inside the statement) is refused");
        return false;
    }
    return true;
}

int ScopedStatementAuthorizer::Authorize(int action, const char* first, const char* second, const char* /*view*/)
{
    /* The last argument names the trigger or view an access comes from; a
     * common table expression names itself there too, so it is not trusted
     * (the schema has no triggers of its own). */
    LearnCascade();
    if (m_statementKind < 0) {
        m_statementKind = action; /* SQLite names the statement's kind first */
    }
    const bool writing =
        m_statementKind == SQLITE_INSERT || m_statementKind == SQLITE_UPDATE || m_statementKind == SQLITE_DELETE;
    switch (action) {
    case SQLITE_SELECT:
        /* The statement's own select is the first thing SQLite reports of it;
         * any other is a subquery (or a common table expression), which would
         * read rows that the request's row filter does not confine. */
        if (m_statementKind == SQLITE_SELECT && !m_sawOwnSelect) {
            m_sawOwnSelect = true;
            return SQLITE_OK;
        }
        return RefuseReach("a subquery (a SELECT inside the statement) is refused");
    case SQLITE_RECURSIVE:
        return RefuseReach("a common table expression (WITH) is refused");
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
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
        return IsValueFunction(second)
                   ? SQLITE_OK
                   : RefuseReach("function " + std::string(second != nullptr ? second : "") +
                                 " is not one of the value functions a statement may call (" + ValueFunctionList() +
                                 ")");
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
