#include "ContentDbConnection.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include <bundle.h>
#include <confinement_policy.h>
#include "host_control/base.h"

#include "content/background_check.h"
#include "content/clean_close.h"
#include "content/content_log.h"
#include "content/database.h"
#include "content/outer_transaction.h"
#include "content/sqlite_statement_cursor.h"
#include "content/statement_budget.h"
#include "content/statement_authorizer.h"
#include "content/statement_cache.h"
#include "confinement/request_confinement.h"
#include "base/request_report.h"

using tilvane::content::Database;
using tilvane::content::QuoteIdentifier;
using tilvane::content::StatementLease;

namespace {

/* A request statement on `table`. While strict confinement has a request in
 * progress, the statement is prepared under the authorizer that keeps it to
 * its own table, and is cached apart from statements prepared without it. */
int AcquireRequestStatement(Database& database, sqlite3* handle, const std::string& table, const std::string& sql,
                            StatementLease& lease)
{
    tilvane::host::confinement::RequestContext* request = tilvane::host::confinement::CurrentRequest();
    if (request == nullptr) {
        return database.Statements().Acquire(handle, sql, lease);
    }
    tilvane::content::ScopedStatementAuthorizer authorizer(database, table);
    const std::string key = "\x01confined:" + table + "\x01" + sql;
    /* A statement kept under the key passed both checks when it was prepared. */
    const int rc = database.Statements().Holds(key) || authorizer.CheckText(sql)
                       ? database.Statements().Acquire(handle, sql, key, lease)
                       : SQLITE_AUTH;
    if (!authorizer.Refusal().empty()) {
        CONTENT_LOGE("statement on %s refused by the authorizer: %s", table.c_str(), authorizer.Refusal().c_str());
        confinement_policy_refuse(CONFINEMENT_RULE_STATEMENT, authorizer.Refusal().c_str());
    }
    return rc;
}

std::string JoinPath(const std::string& directory, const std::string& fileName)
{
    if (directory.empty() || directory.back() == '/') {
        return directory + fileName;
    }
    return directory + "/" + fileName;
}

/* A bundle's entries as pointers into the bundle itself: valid while the
 * bundle is not changed, which holds for the length of one request. */
using Values = std::vector<std::pair<const char*, const char*>>;

void CollectEntry(const char* key, const char* value, void* data)
{
    auto* values = static_cast<Values*>(data);
    values->emplace_back(key != nullptr ? key : "", value != nullptr ? value : "");
}

Values CollectValues(bundle* b)
{
    Values values;
    values.reserve(static_cast<size_t>(bundle_get_count(b)));
    bundle_iterate(b, CollectEntry, &values);
    return values;
}

int BindText(sqlite3_stmt* statement, int index, const std::string& text)
{
    return sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

/* The value stays in the bundle until the statement's lease is returned, which
 * clears the bindings, so SQLite need not copy it. */
int BindBundleValue(sqlite3_stmt* statement, int index, const char* value)
{
    return sqlite3_bind_text(statement, index, value, -1, SQLITE_STATIC);
}

/* Appends the `length` bytes of `name` between double quotes, its own double
 * quotes doubled, after `separator` unless that is 0. A name without quotes
 * (the usual one) costs one append and one copy. */
void AppendQuotedBytes(std::string& sql, const char* name, size_t length, char separator)
{
    const size_t lead = separator != 0 ? 1 : 0;
    const size_t at = sql.size();
    if (std::memchr(name, '"', length) == nullptr) {
        sql.append(lead + length + 2, '"');
        if (lead != 0) {
            sql[at] = separator;
        }
        std::memcpy(&sql[at + lead + 1], name, length);
        return;
    }
    if (lead != 0) {
        sql.push_back(separator);
    }
    sql.push_back('"');
    for (size_t i = 0; i < length; ++i) {
        if (name[i] == '"') {
            sql.push_back('"');
        }
        sql.push_back(name[i]);
    }
    sql.push_back('"');
}

void AppendQuotedIdentifier(std::string& sql, const char* name, char separator = 0)
{
    AppendQuotedBytes(sql, name, std::strlen(name), separator);
}

/* Appends `count` placeholders separated by commas: "?,?,?". */
void AppendPlaceholders(std::string& sql, size_t count)
{
    if (count == 0) {
        return;
    }
    const size_t at = sql.size();
    sql.append(2 * count - 1, ',');
    for (size_t i = 0; i < count; ++i) {
        sql[at + 2 * i] = '?';
    }
}

bool SameFile(const std::string& a, const std::string& b)
{
    if (a == b) {
        return true;
    }
    struct stat sa;
    struct stat sb;
    if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) {
        return false;
    }
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

/* Whether a use of the database takes part in the thread's outer transaction
 * (content/outer_transaction.h): every statement does; reading the last row
 * id, ending a level of the caller's own and the foreign-key switch do not. */
enum class Join { Outer, No };

/* Thin guard: the database, locked, or nothing when the connection is closed
 * (or, inside an outer transaction, when the database cannot join it). */
class LockedDatabase
{
public:
    explicit LockedDatabase(std::shared_ptr<Database> database, Join join = Join::Outer)
        : m_pDatabase(std::move(database)), m_lock(m_pDatabase ? std::unique_lock<std::recursive_mutex>(m_pDatabase->Mutex())
                                                                : std::unique_lock<std::recursive_mutex>())
    {
        tilvane::content::OuterTransaction* outer = tilvane::content::OuterTransaction::Current();
        if (join == Join::Outer && outer != nullptr && m_pDatabase != nullptr && !outer->Join(m_pDatabase)) {
            m_lock = std::unique_lock<std::recursive_mutex>();
            m_pDatabase.reset();
        }
    }
    explicit operator bool() const { return m_pDatabase != nullptr && m_pDatabase->Handle() != nullptr; }
    Database* operator->() const { return m_pDatabase.get(); }
    const std::shared_ptr<Database>& shared() const { return m_pDatabase; }
    sqlite3* handle() const { return m_pDatabase->Handle(); }

private:
    std::shared_ptr<Database> m_pDatabase;
    std::unique_lock<std::recursive_mutex> m_lock;
};

/* A statement failed: SQLite's message for the request's reply, and the
 * budget it ran past when it ran past one. */
void RecordFailure(const LockedDatabase& db)
{
    tilvane::host::RecordStatementError(sqlite3_extended_errcode(db.handle()), db->ErrorMessage());
    tilvane::content::NoteStatementFailure(db.handle());
}

/* Binds `args` as text from parameter `index` on; `what` names the statement
 * ("update of", "delete from") in the failure line. */
int BindWhereArgs(const LockedDatabase& db, sqlite3_stmt* statement, int index, const std::vector<std::string>& args,
                  const char* what, const std::string& table)
{
    for (const auto& arg : args) {
        int rc = BindText(statement, index++, arg);
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("%s %s: binding where argument %d: %s (%d)", what, table.c_str(), index - 1,
                         db->ErrorMessage(), rc);
            return rc;
        }
    }
    return SQLITE_OK;
}

/* Runs a statement that returns no rows; `what` names it in the failure line. */
/* Runs a statement that returns no rows; a failure keeps SQLite's message for
 * the request's reply, a success the number of rows it changed. */
int StepToDone(const LockedDatabase& db, sqlite3_stmt* statement, const char* what, const std::string& table)
{
    int rc = sqlite3_step(statement);
    if (rc != SQLITE_DONE) {
        RecordFailure(db);
        CONTENT_LOGE("%s %s: %s (%d)", what, table.c_str(), db->ErrorMessage(), rc);
        return rc == SQLITE_ROW ? SQLITE_MISUSE : rc;
    }
    tilvane::host::RecordChangedRows(sqlite3_changes(db.handle()));
    return CContentDbConnection::CONNECTION_OK;
}

/* SELECT projection (every column when empty) FROM table [WHERE] [ORDER BY] [LIMIT]. */
std::string SelectSql(const std::string& table, const std::vector<std::string>& projection, const std::string& where,
                      const std::string& orderBy, const std::string& limit)
{
    // One allocation: the level query and the filters run it on every request.
    size_t size = 32 + 2 * table.size() + where.size() + orderBy.size() + limit.size();
    for (const std::string& column : projection) {
        size += column.size() + 2;
    }
    std::string sql;
    sql.reserve(size);
    sql += "SELECT ";
    if (projection.empty()) {
        sql += '*';
    }
    for (size_t i = 0; i < projection.size(); ++i) {
        if (i > 0) {
            sql += ", ";
        }
        sql += projection[i];
    }
    sql += " FROM ";
    AppendQuotedBytes(sql, table.data(), table.size(), 0);
    const std::pair<const char*, const std::string*> clauses[] = {
        {" WHERE ", &where}, {" ORDER BY ", &orderBy}, {" LIMIT ", &limit}};
    for (const auto& clause : clauses) {
        if (!clause.second->empty()) {
            sql += clause.first;
            sql += *clause.second;
        }
    }
    return sql;
}

std::string UpdateSql(const std::string& table, const Values& entries, const std::string& where)
{
    std::string sql = "UPDATE " + QuoteIdentifier(table) + " SET ";
    for (size_t i = 0; i < entries.size(); ++i) {
        AppendQuotedIdentifier(sql, entries[i].first, i > 0 ? ',' : 0);
        sql += "=?";
    }
    if (!where.empty()) {
        sql += " WHERE " + where;
    }
    return sql;
}

std::string BuildInsertSql(const std::string& table, const Values& entries)
{
    std::string sql;
    sql.reserve(64 + table.size() + entries.size() * 32);
    sql += "INSERT INTO ";
    sql += QuoteIdentifier(table);
    if (entries.empty()) {
        sql += " DEFAULT VALUES";
        return sql;
    }
    sql += " (";
    for (size_t i = 0; i < entries.size(); ++i) {
        AppendQuotedIdentifier(sql, entries[i].first, i > 0 ? ',' : 0);
    }
    sql += ") VALUES (";
    AppendPlaceholders(sql, entries.size());
    sql += ')';
    return sql;
}

bool SameInsertShape(const Database::InsertText& last, const std::string& table, const Values& entries)
{
    if (last.sql.empty() || last.table != table || last.columns.size() != entries.size()) {
        return false;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        if (std::strcmp(last.columns[i].c_str(), entries[i].first) != 0) {
            return false;
        }
    }
    return true;
}

/* The insert statement's text for `entries` on `table`, under the database's
 * lock: the last one built when the table and the column names (in their
 * order) are the same, else built now and kept in its place. */
const std::string& InsertSql(Database& database, const std::string& table, const Values& entries)
{
    Database::InsertText& last = database.m_lastInsert;
    if (!SameInsertShape(last, table, entries)) {
        last.sql = BuildInsertSql(table, entries);
        last.table = table;
        last.columns.clear();
        for (const auto& entry : entries) {
            last.columns.emplace_back(entry.first);
        }
    }
    return last.sql;
}

/* A level of the connection's own transaction inside an outer transaction
 * (content/outer_transaction.h): the savepoint of that depth. */
std::string SavepointName(int depth)
{
    return "tilvane_level_" + std::to_string(depth);
}

int BeginSavepoint(Database& database, const std::string& path)
{
    std::string error;
    const int rc = database.ExecPrepared("SAVEPOINT " + SavepointName(database.m_nTransactionDepth), &error);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("savepoint on %s: %s (%d)", path.c_str(), error.c_str(), rc);
        return rc;
    }
    ++database.m_nTransactionDepth;
    return CContentDbConnection::CONNECTION_OK;
}

/* Keeps (RELEASE) or undoes (ROLLBACK TO, then RELEASE) the innermost level:
 * the outer transaction goes on either way. */
int EndSavepoint(Database& database, bool commit, const std::string& path)
{
    const std::string name = SavepointName(--database.m_nTransactionDepth);
    std::string error;
    int rc = commit ? SQLITE_OK : database.ExecPrepared("ROLLBACK TO " + name, &error);
    if (rc == SQLITE_OK) {
        rc = database.ExecPrepared("RELEASE " + name, &error);
    }
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("end of savepoint on %s: %s (%d)", path.c_str(), error.c_str(), rc);
    }
    return rc;
}

/* How a request is named in its failure injection and its log lines. */
struct RequestWords
{
    const char* function; /* for ShouldFail */
    const char* verb;     /* "insert" */
    const char* phrase;   /* "insert into" */
};

constexpr RequestWords kInsertWords{"CContentDbConnection::InsertRequest", "insert", "insert into"};
constexpr RequestWords kUpdateWords{"CContentDbConnection::UpdateRequest", "update", "update of"};
constexpr RequestWords kDeleteWords{"CContentDbConnection::DeleteRequest", "delete", "delete from"};
constexpr RequestWords kSelectWords{"CContentDbConnection::SelectRequest", "select", "select from"};

/* True (and logged) when a test made this request fail. */
bool FailsOnPurpose(const RequestWords& words, const std::string& table)
{
    if (!tilvane::host::ShouldFail(words.function)) {
        return false;
    }
    CONTENT_LOGE("%s %s failed on purpose", words.phrase, table.c_str());
    return true;
}

/* True (and logged) when `missing` names an argument the request lacks. */
bool LacksArgument(const RequestWords& words, const char* missing)
{
    if (missing == nullptr) {
        return false;
    }
    CONTENT_LOGE("%s: %s", words.verb, missing);
    return true;
}

/* True (and logged) when the connection is closed. */
bool NotOpen(const LockedDatabase& db, const RequestWords& words, const std::string& table, const std::string& path)
{
    if (db) {
        return false;
    }
    CONTENT_LOGE("%s %s: %s is not open", words.phrase, table.c_str(), path.c_str());
    return true;
}

}  // namespace

CContentDbConnection::CContentDbConnection(std::string directory, std::string fileName)
    : m_strPath(JoinPath(directory, fileName))
{
}

CContentDbConnection::~CContentDbConnection()
{
    Close();
}

bool CContentDbConnection::OpenOperation()
{
    if (tilvane::host::ShouldFail("CContentDbConnection::OpenOperation")) {
        CONTENT_LOGE("open of %s failed on purpose", m_strPath.c_str());
        return false;
    }
    Close();

    int rc = SQLITE_OK;
    std::shared_ptr<Database> database = Database::Open(m_strPath, rc);
    if (!database) {
        return false;
    }
    // Held from here on, also when the file turns out not to be a database, so
    // that the owner can check it and delete it.
    std::atomic_store(&m_pDatabase, database);

    rc = database->Configure();
    if (rc != SQLITE_OK) {
        return false;
    }
    return true;
}

bool CContentDbConnection::IsOpen() const
{
    std::shared_ptr<Database> database = std::atomic_load(&m_pDatabase);
    return database && database->Handle() != nullptr;
}

void CContentDbConnection::Close()
{
    // Cursors made on this connection hold the Database too; the handle closes
    // when the last of them is gone.
    std::shared_ptr<Database> database = std::atomic_exchange(&m_pDatabase, std::shared_ptr<Database>());
    if (database) {
        std::lock_guard<std::recursive_mutex> lock(database->Mutex());
        if (database->m_nTransactionDepth > 0) {
            CONTENT_LOGW("%s closed with %d open transaction level(s)", m_strPath.c_str(),
                         database->m_nTransactionDepth);
        }
    }
}

sqlite3* CContentDbConnection::GetHandle() const
{
    std::shared_ptr<Database> database = std::atomic_load(&m_pDatabase);
    return database ? database->Handle() : nullptr;
}

int CContentDbConnection::ExcuteSQL(const std::string& sql, std::string& errorMessage)
{
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (!db) {
        errorMessage = "database is not open";
        CONTENT_LOGE("cannot run SQL on %s: not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    int rc = db->Exec(sql, &errorMessage);
    if (rc != SQLITE_OK) {
        tilvane::host::RecordStatementError(rc, errorMessage.c_str());
        tilvane::content::NoteStatementFailure(db.handle());
        CONTENT_LOGE("SQL on %s failed: %s (%d)", m_strPath.c_str(), errorMessage.c_str(), rc);
    }
    return rc;
}

int CContentDbConnection::SetForeignKeyConstraintsEnabled(bool enabled)
{
    LockedDatabase db(std::atomic_load(&m_pDatabase), Join::No);
    if (!db) {
        CONTENT_LOGE("cannot set foreign keys on %s: not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    std::string error;
    int rc = db->Exec(enabled ? "PRAGMA foreign_keys=ON" : "PRAGMA foreign_keys=OFF", &error);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("foreign keys on %s: %s (%d)", m_strPath.c_str(), error.c_str(), rc);
        return rc;
    }
    // SQLite ignores the pragma inside a transaction; say so instead of
    // pretending that it took effect.
    int64_t state = -1;
    rc = db->QueryInt("PRAGMA foreign_keys", state);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("foreign keys on %s: %s (%d)", m_strPath.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    if ((state != 0) != enabled) {
        CONTENT_LOGE("foreign keys on %s cannot change inside a transaction", m_strPath.c_str());
        return SQLITE_MISUSE;
    }
    return SQLITE_OK;
}

int CContentDbConnection::InsertRequest(const std::string& table, bundle* values)
{
    if (FailsOnPurpose(kInsertWords, table)) {
        return SQLITE_ERROR;
    }
    if (LacksArgument(kInsertWords, table.empty() ? "no table" : values == nullptr ? "no values" : nullptr)) {
        return CONNECTION_ERROR_INVALID_ARGUMENT;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (NotOpen(db, kInsertWords, table, m_strPath)) {
        return CONNECTION_ERROR_NOT_OPEN;
    }

    Values entries = CollectValues(values);
    const std::string& sql = InsertSql(*db.shared(), table, entries);
    StatementLease statement;
    int rc = AcquireRequestStatement(*db.shared(), db.handle(), table, sql, statement);
    if (rc != SQLITE_OK) {
        RecordFailure(db);
        CONTENT_LOGE("insert into %s: %s (%d)", table.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        rc = BindBundleValue(statement.get(), static_cast<int>(i + 1), entries[i].second);
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("insert into %s: binding %s: %s (%d)", table.c_str(), entries[i].first,
                         db->ErrorMessage(), rc);
            return rc;
        }
    }
    return StepToDone(db, statement.get(), "insert into", table);
}

int64_t CContentDbConnection::GetLastInsertRowID()
{
    LockedDatabase db(std::atomic_load(&m_pDatabase), Join::No);
    if (!db) {
        return -1;
    }
    return sqlite3_last_insert_rowid(db.handle());
}

int CContentDbConnection::GetChangedRowCount()
{
    LockedDatabase db(std::atomic_load(&m_pDatabase), Join::No);
    if (!db) {
        return 0;
    }
    return sqlite3_changes(db.handle());
}

int CContentDbConnection::UpdateRequest(const std::string& table, bundle* values, const std::string& where,
                                        std::vector<std::string> whereArgs)
{
    if (FailsOnPurpose(kUpdateWords, table)) {
        return SQLITE_ERROR;
    }
    if (LacksArgument(kUpdateWords, table.empty() ? "no table" : values == nullptr ? "no values" : nullptr)) {
        return CONNECTION_ERROR_INVALID_ARGUMENT;
    }
    Values entries = CollectValues(values);
    if (entries.empty()) {
        CONTENT_LOGE("update of %s: no values to set", table.c_str());
        return CONNECTION_ERROR_INVALID_ARGUMENT;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (NotOpen(db, kUpdateWords, table, m_strPath)) {
        return CONNECTION_ERROR_NOT_OPEN;
    }

    StatementLease statement;
    int rc = AcquireRequestStatement(*db.shared(), db.handle(), table, UpdateSql(table, entries, where), statement);
    if (rc != SQLITE_OK) {
        RecordFailure(db);
        CONTENT_LOGE("update of %s: %s (%d)", table.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    int index = 1;
    for (const auto& entry : entries) {
        rc = BindBundleValue(statement.get(), index++, entry.second);
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("update of %s: binding %s: %s (%d)", table.c_str(), entry.first, db->ErrorMessage(),
                         rc);
            return rc;
        }
    }
    rc = BindWhereArgs(db, statement.get(), index, whereArgs, "update of", table);
    if (rc != SQLITE_OK) {
        return rc;
    }
    return StepToDone(db, statement.get(), "update of", table);
}

int CContentDbConnection::DeleteRequest(const std::string& table, const std::string& where,
                                        const std::vector<std::string>& whereArgs)
{
    if (FailsOnPurpose(kDeleteWords, table)) {
        return SQLITE_ERROR;
    }
    if (LacksArgument(kDeleteWords, table.empty() ? "no table" : nullptr)) {
        return CONNECTION_ERROR_INVALID_ARGUMENT;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (NotOpen(db, kDeleteWords, table, m_strPath)) {
        return CONNECTION_ERROR_NOT_OPEN;
    }

    std::string sql = "DELETE FROM " + QuoteIdentifier(table);
    if (!where.empty()) {
        sql += " WHERE " + where;
    }
    StatementLease statement;
    int rc = AcquireRequestStatement(*db.shared(), db.handle(), table, sql, statement);
    if (rc != SQLITE_OK) {
        RecordFailure(db);
        CONTENT_LOGE("delete from %s: %s (%d)", table.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    rc = BindWhereArgs(db, statement.get(), 1, whereArgs, "delete from", table);
    if (rc != SQLITE_OK) {
        return rc;
    }
    return StepToDone(db, statement.get(), "delete from", table);
}

std::shared_ptr<ISQLiteCursor> CContentDbConnection::SelectRequest(const std::string& table,
                                                                   std::vector<std::string>& projection,
                                                                   const std::string& where,
                                                                   const std::string& orderBy)
{
    return SelectRequest(table, projection, where, std::vector<std::string>(), orderBy, std::string());
}

std::shared_ptr<ISQLiteCursor> CContentDbConnection::SelectRequest(const std::string& table,
                                                                   std::vector<std::string>& projection,
                                                                   const std::string& where,
                                                                   const std::vector<std::string>& whereArgs,
                                                                   const std::string& orderBy,
                                                                   const std::string& limit)
{
    if (FailsOnPurpose(kSelectWords, table) || LacksArgument(kSelectWords, table.empty() ? "no table" : nullptr)) {
        return nullptr;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (NotOpen(db, kSelectWords, table, m_strPath)) {
        return nullptr;
    }

    StatementLease statement;
    int rc = AcquireRequestStatement(*db.shared(), db.handle(), table,
                                     SelectSql(table, projection, where, orderBy, limit), statement);
    if (rc != SQLITE_OK) {
        RecordFailure(db);
        CONTENT_LOGE("select from %s: %s (%d)", table.c_str(), db->ErrorMessage(), rc);
        return nullptr;
    }
    if (BindWhereArgs(db, statement.get(), 1, whereArgs, "select from", table) != SQLITE_OK) {
        return nullptr;
    }
    return std::make_shared<CSQLiteStatementCursor>(db.shared(), std::move(statement));
}

int CContentDbConnection::BeginTransaction()
{
    if (tilvane::host::ShouldFail("CContentDbConnection::BeginTransaction")) {
        CONTENT_LOGE("transaction on %s failed on purpose", m_strPath.c_str());
        return SQLITE_ERROR;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (!db) {
        CONTENT_LOGE("transaction: %s is not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    if (db->m_bInOuterTransaction) {
        return BeginSavepoint(*db.shared(), m_strPath);
    }
    if (db->m_nTransactionDepth == 0) {
        std::string error;
        int rc = db->ExecPrepared("BEGIN IMMEDIATE", &error);
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("begin on %s: %s (%d)", m_strPath.c_str(), error.c_str(), rc);
            return rc;
        }
        db->m_bTransactionFailed = false;
    }
    ++db->m_nTransactionDepth;
    return CONNECTION_OK;
}

int CContentDbConnection::EndTransaction(bool commit)
{
    LockedDatabase db(std::atomic_load(&m_pDatabase), Join::No);
    if (!db) {
        CONTENT_LOGE("end of transaction: %s is not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    if (db->m_nTransactionDepth <= (db->m_bInOuterTransaction ? 1 : 0)) {
        CONTENT_LOGE("end of transaction on %s without a begin", m_strPath.c_str());
        return SQLITE_MISUSE;
    }
    if (db->m_bInOuterTransaction) {
        return EndSavepoint(*db.shared(), commit, m_strPath);
    }
    if (!commit) {
        db->m_bTransactionFailed = true;
    }
    if (--db->m_nTransactionDepth > 0) {
        return CONNECTION_OK;
    }

    const bool rollback = db->m_bTransactionFailed;
    db->m_bTransactionFailed = false;
    std::string error;
    if (!rollback) {
        int rc = db->ExecPrepared("COMMIT", &error);
        if (rc == SQLITE_OK) {
            return CONNECTION_OK;
        }
        CONTENT_LOGE("commit on %s: %s (%d); rolling back", m_strPath.c_str(), error.c_str(), rc);
        if (sqlite3_get_autocommit(db.handle()) == 0) {
            db->ExecPrepared("ROLLBACK", nullptr);
        }
        return rc;
    }

    if (sqlite3_get_autocommit(db.handle()) != 0) {
        // SQLite already rolled back on its own (after a full disk, for one).
        return commit ? SQLITE_ABORT : CONNECTION_OK;
    }
    int rc = db->ExecPrepared("ROLLBACK", &error);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("rollback on %s: %s (%d)", m_strPath.c_str(), error.c_str(), rc);
        return rc;
    }
    if (commit) {
        // The outermost level asked for a commit, but an inner level failed.
        CONTENT_LOGI("transaction on %s rolled back: an inner level ended without commit", m_strPath.c_str());
        return SQLITE_ABORT;
    }
    return CONNECTION_OK;
}

bool CContentDbConnection::InTransaction() const
{
    std::shared_ptr<Database> database = std::atomic_load(&m_pDatabase);
    if (!database) {
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(database->Mutex());
    return database->m_nTransactionDepth > 0;
}

int CContentDbConnection::QueryIntegers(const std::string& sql, const std::vector<std::string>& args,
                                        std::vector<int64_t>& row)
{
    row.clear();
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (!db) {
        CONTENT_LOGE("query on %s: not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    StatementLease lease;
    int rc = db->Statements().Acquire(db.handle(), sql, lease);
    if (rc != SQLITE_OK) {
        RecordFailure(db);
        CONTENT_LOGE("prepare on %s: %s (%d)", m_strPath.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    rc = BindWhereArgs(db, lease.get(), 1, args, "query of", m_strPath);
    if (rc != SQLITE_OK) {
        return rc;
    }
    rc = sqlite3_step(lease.get());
    if (rc == SQLITE_ROW) {
        for (int i = 0; i < sqlite3_column_count(lease.get()); ++i) {
            row.push_back(sqlite3_column_int64(lease.get(), i));
        }
        return CONNECTION_OK;
    }
    if (rc != SQLITE_DONE) {
        RecordFailure(db);
        CONTENT_LOGE("query on %s: %s (%d)", m_strPath.c_str(), db->ErrorMessage(), rc);
        return rc;
    }
    return CONNECTION_OK;
}

int CContentDbConnection::PrepareCMD(const std::string& sql, sqlite3_stmt** statement, const char** tail,
                                     std::string& errorMessage)
{
    if (statement != nullptr) {
        *statement = nullptr;
    }
    LockedDatabase db(std::atomic_load(&m_pDatabase));
    if (!db) {
        errorMessage = "database is not open";
        CONTENT_LOGE("prepare on %s: not open", m_strPath.c_str());
        return CONNECTION_ERROR_NOT_OPEN;
    }
    if (statement == nullptr) {
        errorMessage = "no statement to fill";
        return CONNECTION_ERROR_INVALID_ARGUMENT;
    }
    /* Under strict confinement, the statement of a request keeps to the
     * request's own table. */
    tilvane::host::confinement::RequestContext* request = tilvane::host::confinement::CurrentRequest();
    std::unique_ptr<tilvane::content::ScopedStatementAuthorizer> authorizer;
    if (request != nullptr) {
        authorizer.reset(new tilvane::content::ScopedStatementAuthorizer(*db.shared(), request->table));
    }
    const bool textRefused = authorizer && !authorizer->CheckText(sql);
    int rc = textRefused ? SQLITE_AUTH
                         : tilvane::content::PrepareStatement(db.handle(), sql.c_str(),
                                                              static_cast<int>(sql.size() + 1), statement, tail);
    if (authorizer && !authorizer->Refusal().empty()) {
        confinement_policy_refuse(CONFINEMENT_RULE_STATEMENT, authorizer->Refusal().c_str());
    }
    authorizer.reset();
    if (rc != SQLITE_OK) {
        errorMessage = textRefused ? sqlite3_errstr(SQLITE_AUTH) : db->ErrorMessage();
        tilvane::host::RecordStatementError(rc, errorMessage.c_str());
        tilvane::content::NoteStatementFailure(db.handle());
        CONTENT_LOGE("prepare on %s: %s (%d)", m_strPath.c_str(), errorMessage.c_str(), rc);
        return rc;
    }
    errorMessage.clear();
    return CONNECTION_OK;
}

bool CContentDbConnection::DeleteDatabase(const std::string& directory, const std::string& fileName)
{
    const std::string path = JoinPath(directory, fileName);
    // A check in the background would judge the file that is going away.
    tilvane::content::StopBackgroundCheck(path);
    if (SameFile(path, m_strPath)) {
        tilvane::content::StopBackgroundCheck(m_strPath);
        tilvane::content::SetFullCheckOwed(m_strPath, false);
        Close();
    }
    tilvane::content::SetFullCheckOwed(path, false);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        const std::string file = path + suffix;
        if (unlink(file.c_str()) != 0 && errno != ENOENT) {
            CONTENT_LOGE("cannot remove %s: %s", file.c_str(), strerror(errno));
        }
    }
    struct stat info;
    if (stat(path.c_str(), &info) == 0) {
        return false;
    }
    CONTENT_LOGI("database deleted: %s", path.c_str());
    return true;
}
