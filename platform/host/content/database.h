/*
 * Content library internals: one open SQLite handle and what lives with it.
 *
 * A Database is shared: the connection that opened it holds it, and so does
 * every cursor made on it, so that a cursor can still step after the
 * connection has been closed or destroyed. The handle is closed (with
 * sqlite3_close_v2) when the last holder lets go.
 *
 * Everything here is guarded by Mutex(); it is recursive because a cursor may
 * step between other calls on the same thread.
 */
#ifndef TILVANE_CONTENT_DATABASE_H
#define TILVANE_CONTENT_DATABASE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "content/statement_authorizer.h"
#include "content/statement_cache.h"

namespace tilvane {
namespace content {

using SQLiteHandle = std::unique_ptr<sqlite3, SQLiteFree<sqlite3, sqlite3_close_v2>>;

class Database
{
public:
    static constexpr int kBusyTimeoutMs = 5000;

    /* Opens (creating when missing) the file at `path` for reading and
     * writing. Null with `rc` set when SQLite gives no usable handle. The
     * handle is not checked or configured yet: see Configure. */
    static std::shared_ptr<Database> Open(const std::string& path, int& rc);

    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /* Busy timeout and the statement budgets (statement_budget.h), then a
     * read of the schema (which fails for a file that is not a database),
     * then WAL journal and synchronous NORMAL. */
    int Configure();

    sqlite3* Handle() const { return m_handle.get(); }
    const std::string& Path() const { return m_strPath; }
    std::recursive_mutex& Mutex() const { return m_mutex; }
    StatementCache& Statements() { return m_statements; }

    /* Runs statements without results; the message goes to `errorMessage`. */
    int Exec(const std::string& sql, std::string* errorMessage = nullptr);
    /* Runs one statement without results, kept prepared in the statement
     * cache: for the few that run on every request (BEGIN, COMMIT, ROLLBACK). */
    int ExecPrepared(const std::string& sql, std::string* errorMessage = nullptr);
    /* The integer in the first column of the first row of `sql`. */
    int QueryInt(const std::string& sql, int64_t& value);
    /* The first column of every row of `sql`, as text. */
    int QueryTexts(const std::string& sql, std::vector<std::string>& values);

    const char* ErrorMessage() const;

    /* The schema's foreign keys, read at the first call (the service sets its
     * schema up before it serves requests). Under the mutex. */
    const std::vector<ForeignKeyLink>& ForeignKeys();
    /* The confinement of the statements prepared now, or null for none; the
     * first non-null one installs the database's SQLite authorizer. */
    void SetActiveAuthorizer(ScopedStatementAuthorizer* pAuthorizer);
    /* Frees what is cached for every open database that no thread is using
     * (SQLite's page cache, the statements kept for reuse): the service calls
     * it when it falls idle. */
    static void ReleaseCachedMemoryOfAll();
    /* Runs `use` on the handle of every open database, under its mutex. */
    static void ForEachOpenHandle(const std::function<void(sqlite3*)>& use);

    /* Nesting of CContentDbConnection's transactions. */
    int m_nTransactionDepth = 0;
    bool m_bTransactionFailed = false;
    /* True while an OuterTransaction holds this database's transaction (it is
     * level 1): the connections' own levels above it are savepoints. */
    bool m_bInOuterTransaction = false;

    /* The text of the last insert statement built, with the table and the
     * columns it was built for: the inserts of one shape (an application's
     * rows, a bulk) use it again instead of quoting every name again. Only
     * names, never values or anything read from the database. */
    struct InsertText
    {
        std::string table;
        std::vector<std::string> columns;
        std::string sql;
    };
    InsertText m_lastInsert;

private:
    Database(std::string path, SQLiteHandle handle);

    std::string m_strPath;
    mutable std::recursive_mutex m_mutex;
    SQLiteHandle m_handle;
    // Declared after the handle: statements are finalised before it closes.
    StatementCache m_statements;
    static int AuthorizeCB(void* userData, int action, const char* first, const char* second,
                           const char* database, const char* trigger);

    bool m_bForeignKeysRead = false;
    bool m_bAuthorizerInstalled = false;
    ScopedStatementAuthorizer* m_pActiveAuthorizer = nullptr;
    std::vector<ForeignKeyLink> m_foreignKeys;
};

/* "name" with inner double quotes doubled: an SQL identifier. */
std::string QuoteIdentifier(const std::string& name);

}  // namespace content
}  // namespace tilvane

#endif
