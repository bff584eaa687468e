/*
 * The strict-confinement authorizer of request statements (statement_authorizer.h).
 */
#include "content/statement_authorizer.h"

#include <strings.h>

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

}  // namespace

ScopedStatementAuthorizer::ScopedStatementAuthorizer(sqlite3* db, std::string table)
    : m_db(db), m_table(std::move(table))
{
    sqlite3_set_authorizer(m_db, AuthorizeCB, this);
}

ScopedStatementAuthorizer::~ScopedStatementAuthorizer()
{
    sqlite3_set_authorizer(m_db, nullptr, nullptr);
}

int ScopedStatementAuthorizer::AuthorizeCB(void* userData, int action, const char* first, const char* second,
                                           const char* /*database*/, const char* trigger)
{
    return static_cast<ScopedStatementAuthorizer*>(userData)->Authorize(action, first, second, trigger);
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
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT:
    case SQLITE_RECURSIVE:
        return SQLITE_OK;
    case SQLITE_READ:
        /* A column of a subquery's result has no table. */
        if (first == nullptr || *first == '\0' || SameTable(m_table, first)) {
            return SQLITE_OK;
        }
        return Refuse("reading table", first);
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
        return SameTable(m_table, first) ? SQLITE_OK : Refuse("writing table", first);
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
