/*
 * Content library: one connection to an SQLite database file.
 *
 * Values always travel as bound parameters, never pasted into SQL text. Table
 * names are quoted; projection entries and where clauses are the caller's SQL
 * and are used as given. Statements built from a bundle are prepared once and
 * reused. Every operation reports failure through its result (0 or true for
 * success) and writes SQLite's message to the log.
 *
 * A connection is safe to use from several threads; its operations are
 * serialised.
 */
#ifndef TILVANE_CONTENT_DB_CONNECTION_H
#define TILVANE_CONTENT_DB_CONNECTION_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"

struct sqlite3;
struct sqlite3_stmt;
typedef struct _bundle_t bundle;

namespace tilvane {
namespace content {
class Database;
}
}

class CContentDbConnection
{
public:
    /* Results other than 0 are SQLite result codes, or one of these. */
    enum
    {
        CONNECTION_OK = 0,
        CONNECTION_ERROR_NOT_OPEN = -1,      /* no open database */
        CONNECTION_ERROR_INVALID_ARGUMENT = -2 /* a null bundle, an empty table name, no values to set */
    };

    /* The database file is `directory` followed by `fileName`; a "/" is put
     * between them when `directory` does not end with one. Nothing is opened yet. */
    CContentDbConnection(std::string directory, std::string fileName);
    virtual ~CContentDbConnection();

    CContentDbConnection(const CContentDbConnection&) = delete;
    CContentDbConnection& operator=(const CContentDbConnection&) = delete;

    /* Opens (creating when missing) the file, with a busy timeout, WAL journal
     * and synchronous NORMAL. True when the database is open and readable; a
     * file that is not a database leaves the handle open (so that it can be
     * deleted) and returns false. */
    bool OpenOperation();
    bool IsOpen() const;
    void Close();
    const std::string& GetPath() const { return m_strPath; }

    /* Runs one or more statements without results. */
    int ExcuteSQL(const std::string& sql, std::string& errorMessage);
    int SetForeignKeyConstraintsEnabled(bool enabled);

    /* INSERT INTO table (keys of values) VALUES (bound values). An empty bundle
     * inserts a row of defaults. */
    int InsertRequest(const std::string& table, bundle* values);
    int64_t GetLastInsertRowID();
    /* Rows changed by the last insert, update or delete on this connection. */
    int GetChangedRowCount();

    /* UPDATE table SET key = bound value ... [WHERE where]; the where arguments
     * bind after the values. Matching no row is success. */
    int UpdateRequest(const std::string& table, bundle* values, const std::string& where,
                      std::vector<std::string> whereArgs);
    /* DELETE FROM table [WHERE where]. */
    int DeleteRequest(const std::string& table, const std::string& where,
                      const std::vector<std::string>& whereArgs);

    /* SELECT projection FROM table [WHERE where] [ORDER BY orderBy]. An empty
     * projection selects every column. Null when the statement cannot be
     * prepared or the database is not open. */
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table, std::vector<std::string>& projection,
                                                 const std::string& where, const std::string& orderBy);
    /* The same with bound where arguments, an ORDER BY and a LIMIT text (each
     * omitted when empty). */
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table, std::vector<std::string>& projection,
                                                 const std::string& where, const std::vector<std::string>& whereArgs,
                                                 const std::string& orderBy, const std::string& limit);

    /* Transactions nest: only the outermost pair begins and ends the SQLite
     * transaction, and it commits only when no inner level ended with false. */
    int BeginTransaction();
    int EndTransaction(bool commit);
    bool InTransaction() const;

    /* Runs one of the service's own statements (fixed text, never a client's)
     * with `args` bound as text, and reads the integers of its first row into
     * `row` (empty when there is no row). The statement is kept prepared; it
     * is not a request statement, so no request confinement applies to it. */
    int QueryIntegers(const std::string& sql, const std::vector<std::string>& args, std::vector<int64_t>& row);

    /* Prepares `sql` on this connection; the caller finalises the statement
     * with sqlite3_finalize. */
    int PrepareCMD(const std::string& sql, sqlite3_stmt** statement, const char** tail, std::string& errorMessage);

    /* Closes this connection if it is on that file, then removes the file and
     * its journal, WAL and shared-memory files. True when the database file is gone. */
    bool DeleteDatabase(const std::string& directory, const std::string& fileName);

    /* The SQLite handle, for the library's own checks; null when not open. */
    sqlite3* GetHandle() const;

private:
    std::string m_strPath;
    std::shared_ptr<tilvane::content::Database> m_pDatabase;
};

#endif
