/*
 * Content library internals: the SQLite authorizer that strict confinement
 * puts on a connection while a request statement is prepared.
 *
 * It lets the statement read and write only its own table. Refused: any other
 * table (sqlite_master / sqlite_schema and the temporary schema included),
 * ATTACH and DETACH, PRAGMA, schema changes, and every function that is not
 * an ordinary value function (load_extension, fts3_tokenizer and the like).
 * Statements that the schema's triggers run are allowed, because the schema
 * is the service's own. SQLite consults an authorizer only while preparing.
 */
#ifndef TILVANE_CONTENT_STATEMENT_AUTHORIZER_H
#define TILVANE_CONTENT_STATEMENT_AUTHORIZER_H

#include <string>

#include <sqlite3.h>

namespace tilvane {
namespace content {

class ScopedStatementAuthorizer
{
public:
    /* Installs the authorizer on `db` for statements confined to `table`;
     * removes it again at destruction. */
    ScopedStatementAuthorizer(sqlite3* db, std::string table);
    ~ScopedStatementAuthorizer();
    ScopedStatementAuthorizer(const ScopedStatementAuthorizer&) = delete;
    ScopedStatementAuthorizer& operator=(const ScopedStatementAuthorizer&) = delete;

    /* The first refusal, as "<action> <object>", or "" when nothing was refused. */
    const std::string& Refusal() const { return m_refusal; }

    static int AuthorizeCB(void* userData, int action, const char* first, const char* second, const char* database,
                           const char* trigger);

private:
    int Authorize(int action, const char* first, const char* second, const char* trigger);
    int Refuse(const char* what, const char* object);

    sqlite3* m_db;
    std::string m_table;
    std::string m_refusal;
};

}  // namespace content
}  // namespace tilvane

#endif
