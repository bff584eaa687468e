#include "content/database.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

#include "config/platform_files.h"
#include "content/background_check.h"
#include "content/clean_close.h"
#include "content/content_log.h"
#include "content/statement_budget.h"

namespace tilvane {
namespace content {
namespace {

/* SQLite's default: a checkpoint once the log holds this many frames. */
constexpr int kCheckpointFrames = 1000;

/* Every Database alive, for ReleaseCachedMemoryOfAll. */
struct OpenDatabases
{
    std::mutex mutex;
    std::set<Database*> all;
};

OpenDatabases& TheOpenDatabases()
{
    static OpenDatabases* open = new OpenDatabases();
    return *open;
}

/* SQLite's own checkpoint after a commit (as its default hook: once the log
 * holds kCheckpointFrames), held off while a check runs in the background:
 * its read transaction, as long as the check (minutes at idle priority under
 * load), keeps the log from being started afresh, and every commit would run
 * a checkpoint that walks the whole, growing log to no avail (a write took
 * 5x as long after 5,000 of them). The first commit after the check ends
 * checkpoints the log. */
int CheckpointWhenDueCB(void* /*data*/, sqlite3* db, const char* name, int frames)
{
    if (frames >= kCheckpointFrames && RunningBackgroundChecks() == 0) {
        sqlite3_wal_checkpoint(db, name);
    }
    return SQLITE_OK;
}

}  // namespace

std::shared_ptr<Database> Database::Open(const std::string& path, int& rc)
{
    ConsumeCleanCloseRecord(path);
    // Made with the platform's file mode before SQLite opens it: SQLite
    // gives the journal and WAL files the database's own mode.
    if (!path.empty() && path[0] != ':' && path.compare(0, 5, "file:") != 0 &&
        !tilvane::host::files::CreateFile(path)) {
        CONTENT_LOGD("cannot create %s with the platform's file mode: %s", path.c_str(), strerror(errno));
    }
    sqlite3* raw = nullptr;
    // No mutex of SQLite's own on the connection: every use of the handle is
    // under this Database's mutex already, and SQLite's would be taken again
    // on every step and every column read.
    rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                         nullptr);
    SQLiteHandle handle(raw);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("cannot open %s: %s (%d)", path.c_str(), raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc),
                     rc);
        return nullptr;
    }
    if (!handle) {
        rc = SQLITE_NOMEM;
        CONTENT_LOGE("cannot open %s: out of memory", path.c_str());
        return nullptr;
    }
    return std::shared_ptr<Database>(new Database(path, std::move(handle)));
}

Database::Database(std::string path, SQLiteHandle handle) : m_strPath(std::move(path)), m_handle(std::move(handle))
{
    OpenDatabases& open = TheOpenDatabases();
    std::lock_guard<std::mutex> lock(open.mutex);
    open.all.insert(this);
}

void Database::ReleaseCachedMemoryOfAll()
{
    OpenDatabases& open = TheOpenDatabases();
    std::lock_guard<std::mutex> lock(open.mutex);
    for (Database* database : open.all) {
        // A database in use is left alone: no waiting under the list's lock.
        std::unique_lock<std::recursive_mutex> own(database->m_mutex, std::try_to_lock);
        if (own.owns_lock() && database->m_handle) {
            // The statements kept for bulks are prepared again by the next
            // request; idle, they only hold memory.
            database->m_statements.Clear();
            database->m_lastInsert = InsertText();
            sqlite3_db_release_memory(database->m_handle.get());
        }
    }
}

void Database::ForEachOpenHandle(const std::function<void(sqlite3*)>& use)
{
    OpenDatabases& open = TheOpenDatabases();
    std::lock_guard<std::mutex> lock(open.mutex);
    for (Database* database : open.all) {
        std::lock_guard<std::recursive_mutex> own(database->m_mutex);
        if (database->m_handle) {
            use(database->m_handle.get());
        }
    }
}

Database::~Database()
{
    {
        OpenDatabases& open = TheOpenDatabases();
        std::lock_guard<std::mutex> lock(open.mutex);
        open.all.erase(this);
    }
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_nTransactionDepth > 0 && m_handle && sqlite3_get_autocommit(m_handle.get()) == 0) {
        CONTENT_LOGW("closing %s inside a transaction; it is rolled back", m_strPath.c_str());
    }
    m_statements.Clear();
    if (m_handle) {
        // close_v2: a statement that a caller prepared with PrepareCMD and has not
        // finalised yet keeps the handle alive until it is finalised.
        int rc = sqlite3_close_v2(m_handle.release());
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("closing %s failed (%d)", m_strPath.c_str(), rc);
        } else {
            WriteCleanCloseRecord(m_strPath);
        }
    }
}

int Database::Configure()
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    sqlite3* db = m_handle.get();
    int rc = sqlite3_busy_timeout(db, kBusyTimeoutMs);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("busy timeout on %s: %s (%d)", m_strPath.c_str(), sqlite3_errmsg(db), rc);
        return rc;
    }
    rc = ApplyStatementBudgets(db);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("statement budgets on %s: %s (%d)", m_strPath.c_str(), sqlite3_errmsg(db), rc);
        return rc;
    }

    // Reading the schema makes SQLite parse the file header and the schema
    // table: a file that is not a database fails here.
    int64_t objects = 0;
    rc = QueryInt("SELECT count(*) FROM sqlite_master", objects);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("%s cannot be read as a database: %s (%d)", m_strPath.c_str(), sqlite3_errmsg(db), rc);
        return rc;
    }

    std::vector<std::string> mode;
    rc = QueryTexts("PRAGMA journal_mode=WAL", mode);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("WAL journal on %s: %s (%d)", m_strPath.c_str(), sqlite3_errmsg(db), rc);
        return rc;
    }
    if (mode.empty() || (mode[0] != "wal" && mode[0] != "WAL")) {
        CONTENT_LOGW("%s keeps journal mode %s", m_strPath.c_str(), mode.empty() ? "?" : mode[0].c_str());
    }

    sqlite3_wal_hook(db, CheckpointWhenDueCB, nullptr);

    std::string error;
    rc = Exec("PRAGMA synchronous=NORMAL", &error);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("synchronous mode on %s: %s (%d)", m_strPath.c_str(), error.c_str(), rc);
        return rc;
    }
    return SQLITE_OK;
}

const std::vector<ForeignKeyLink>& Database::ForeignKeys()
{
    if (!m_bForeignKeysRead) {
        m_foreignKeys = ReadForeignKeyLinks(m_handle.get());
        m_bForeignKeysRead = true;
    }
    return m_foreignKeys;
}

void Database::SetActiveAuthorizer(ScopedStatementAuthorizer* pAuthorizer)
{
    if (pAuthorizer != nullptr && !m_bAuthorizerInstalled) {
        sqlite3_set_authorizer(m_handle.get(), AuthorizeCB, this);
        m_bAuthorizerInstalled = true;
    }
    m_pActiveAuthorizer = pAuthorizer;
}

int Database::AuthorizeCB(void* userData, int action, const char* first, const char* second,
                          const char* /*database*/, const char* trigger)
{
    Database* self = static_cast<Database*>(userData);
    return self->m_pActiveAuthorizer != nullptr ? self->m_pActiveAuthorizer->Authorize(action, first, second, trigger)
                                                : SQLITE_OK;
}

int Database::Exec(const std::string& sql, std::string* errorMessage)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (errorMessage != nullptr) {
        errorMessage->clear();
    }
    char* message = nullptr;
    int rc = sqlite3_exec(m_handle.get(), sql.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK && errorMessage != nullptr) {
        *errorMessage = message != nullptr ? message : sqlite3_errstr(rc);
    }
    sqlite3_free(message);
    return rc;
}

int Database::ExecPrepared(const std::string& sql, std::string* errorMessage)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (errorMessage != nullptr) {
        errorMessage->clear();
    }
    StatementLease lease;
    int rc = m_statements.Acquire(m_handle.get(), sql, lease);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(lease.get());
        rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
    }
    if (rc != SQLITE_OK && errorMessage != nullptr) {
        *errorMessage = sqlite3_errmsg(m_handle.get());
    }
    return rc;
}

int Database::QueryInt(const std::string& sql, int64_t& value)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    StatementHandle statement;
    int rc = PrepareStatement(m_handle.get(), sql, statement);
    if (rc != SQLITE_OK) {
        return rc;
    }
    rc = sqlite3_step(statement.get());
    if (rc == SQLITE_ROW) {
        value = sqlite3_column_int64(statement.get(), 0);
        return SQLITE_OK;
    }
    if (rc == SQLITE_DONE) {
        value = 0;
        return SQLITE_OK;
    }
    return rc;
}

int Database::QueryTexts(const std::string& sql, std::vector<std::string>& values)
{
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    values.clear();
    StatementHandle statement;
    int rc = PrepareStatement(m_handle.get(), sql, statement);
    if (rc != SQLITE_OK) {
        return rc;
    }
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement.get(), 0);
        int bytes = sqlite3_column_bytes(statement.get(), 0);
        values.emplace_back(text != nullptr ? std::string(reinterpret_cast<const char*>(text), bytes) : std::string());
    }
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

const char* Database::ErrorMessage() const
{
    return m_handle ? sqlite3_errmsg(m_handle.get()) : "database is not open";
}

std::string QuoteIdentifier(const std::string& name)
{
    std::string quoted;
    quoted.reserve(name.size() + 2);
    quoted.push_back('"');
    for (char c : name) {
        if (c == '"') {
            quoted.push_back('"');
        }
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

}  // namespace content
}  // namespace tilvane
