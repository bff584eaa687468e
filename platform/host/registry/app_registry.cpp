/*
 * The application registry on the host: installed packages, their
 * applications, each application's metadata and the web-application store's
 * list, in one SQLite file under the platform's database directory.
 *
 * The file runs in WAL mode with a busy timeout, so several processes (the
 * service, tilvanectl, tests) read and write it at once. Every change opens
 * its own connection and transaction; lookups share one connection per
 * thread (LookupConnection below). Nothing read is cached: a change made by
 * another process is seen by the next call.
 */
#include "registry/app_registry.h"

#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "registry/bus_policy.h"
#include "identity/identity_mode.h"
#include "host_control/identity.h"
#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "config/config_keys.h"
#include "config/shared_database_file.h"
#include "dlog.h"
#include "qeb_app_list.h"
#include "tzplatform_config.h"

#define REGISTRY_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)
#define REGISTRY_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace registry {
namespace {

const char kRegistryFile[] = ".tilvane-app-registry.db";

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS packages ("
    "  seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  package_id TEXT NOT NULL UNIQUE,"
    "  user_id INTEGER);"
    "CREATE TABLE IF NOT EXISTS applications ("
    "  app_id TEXT PRIMARY KEY,"
    "  package_id TEXT NOT NULL REFERENCES packages(package_id) ON DELETE CASCADE,"
    "  position INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS applications_package ON applications(package_id);"
    "CREATE TABLE IF NOT EXISTS metadata ("
    "  app_id TEXT NOT NULL REFERENCES applications(app_id) ON DELETE CASCADE,"
    "  position INTEGER NOT NULL,"
    "  key TEXT NOT NULL,"
    "  value TEXT NOT NULL,"
    "  PRIMARY KEY (app_id, key));"
    "CREATE TABLE IF NOT EXISTS web_apps ("
    "  package_id TEXT PRIMARY KEY REFERENCES packages(package_id) ON DELETE CASCADE,"
    "  web_app_id TEXT NOT NULL);";

/* getpwent walks one list per process. */
std::mutex& AccountListMutex()
{
    static std::mutex* mutex = new std::mutex();
    return *mutex;
}

/* One connection to the registry file, with the schema in place. */
class Connection : public SharedDatabaseFile
{
public:
    Connection() : SharedDatabaseFile(kRegistryFile, kSchema, "app registry") { AddUserColumn(); }

private:
    /* A registry written before packages had users gets the column. */
    void AddUserColumn()
    {
        sqlite3_stmt* probe = nullptr;
        if (Handle() == nullptr) {
            return;
        }
        const bool present = sqlite3_prepare_v2(Handle(), "SELECT user_id FROM packages LIMIT 0", -1, &probe,
                                                nullptr) == SQLITE_OK;
        sqlite3_finalize(probe);
        if (!present) {
            Exec("ALTER TABLE packages ADD COLUMN user_id INTEGER");
        }
    }
};

/* What tells a kept connection that it no longer reaches the registry: the
 * file it opened (replaced or removed when the platform's root is) and the
 * resets of the control API. */
struct FileIdentity {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t resets = 0;

    bool operator==(const FileIdentity& other) const
    {
        return path == other.path && device == other.device && inode == other.inode && resets == other.resets;
    }
};

std::atomic<uint64_t> g_resets{0};

void ForgetKeptConnections()
{
    ++g_resets;
}

const ResetHook kForgetKeptConnections(4, ForgetKeptConnections);

/* The registry file as it is now; an empty path when it is not there. */
FileIdentity CurrentRegistryFile()
{
    FileIdentity identity;
    const char* directory = tzplatform_getenv(TZ_SYS_DB);
    struct stat status;
    if (directory == nullptr) {
        return identity;
    }
    const std::string path = std::string(directory) + "/" + kRegistryFile;
    if (stat(path.c_str(), &status) != 0) {
        return identity;
    }
    identity.path = path;
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.resets = g_resets.load();
    return identity;
}

/* The connection a lookup uses. Opening the file and running its schema cost
 * several times the lookup itself, and the verified mode looks a caller's
 * user up on every request, so each thread keeps one connection for its
 * lookups. It holds no transaction between lookups (another process's change
 * is seen by the next one, as with a connection of its own); it is opened
 * again when the file it reached was replaced or removed, or after a reset.
 * A lookup made while the thread's kept connection is lent out opens its own. */
class LookupConnection
{
public:
    LookupConnection()
    {
        Kept& kept = TheKept();
        const FileIdentity now = CurrentRegistryFile();
        if (kept.owner != getpid()) {
            /* A connection is never used across fork(): the child leaves the
             * parent's alone, neither using nor closing it (closing could
             * disturb the parent's locks). */
            static auto* leftToTheParent = new std::vector<std::unique_ptr<Connection>>();
            if (kept.connection) {
                leftToTheParent->push_back(std::move(kept.connection));
            }
            kept.owner = getpid();
        }
        if (kept.lent || now.path.empty()) {
            m_own.reset(new Connection());
            m_connection = m_own.get();
            return;
        }
        if (!kept.connection || !kept.connection->IsOpen() || !(kept.file == now)) {
            kept.connection.reset(new Connection());
            kept.connection->Exec(("PRAGMA cache_size = " + std::to_string(kKeptCachePages)).c_str());
            kept.file = now;
        }
        kept.lent = true;
        m_connection = kept.connection.get();
    }

    /* The pages a kept connection may cache: SQLite sets aside room for 20
     * pages (80 KiB) on a connection's first read unless its cache is
     * smaller, and a lookup reads three or four pages of the small file. */
    static constexpr int kKeptCachePages = 8;

    ~LookupConnection()
    {
        if (!m_own) {
            TheKept().lent = false;
        }
    }

    LookupConnection(const LookupConnection&) = delete;
    LookupConnection& operator=(const LookupConnection&) = delete;

    Connection& Get() { return *m_connection; }

    /* Closes this thread's kept connection unless it is lent out now (or
     * was opened by the parent of a forked process). */
    static void CloseKept()
    {
        Kept& kept = TheKept();
        if (!kept.lent && kept.owner == getpid()) {
            kept.connection.reset();
        }
    }

private:
    struct Kept {
        std::unique_ptr<Connection> connection;
        FileIdentity file;
        bool lent = false;
        pid_t owner = 0;
    };

    static Kept& TheKept()
    {
        thread_local Kept kept;
        return kept;
    }

    std::unique_ptr<Connection> m_own;
    Connection* m_connection = nullptr;
};

/* A prepared statement with bound texts, finalised on destruction. */
class Statement
{
public:
    Statement(Connection& connection, const char* sql) : m_db(connection.Handle())
    {
        if (sqlite3_prepare_v2(m_db, sql, -1, &m_statement, nullptr) != SQLITE_OK) {
            REGISTRY_LOGE("app registry: %s", sqlite3_errmsg(m_db));
            m_statement = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool IsValid() const { return m_statement != nullptr; }

    Statement& Bind(int index, const std::string& text)
    {
        if (m_statement != nullptr) {
            sqlite3_bind_text(m_statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
        return *this;
    }
    Statement& Bind(int index, int64_t value)
    {
        if (m_statement != nullptr) {
            sqlite3_bind_int64(m_statement, index, value);
        }
        return *this;
    }

    /* SQLITE_ROW, SQLITE_DONE or an error code (logged). */
    int Step()
    {
        if (m_statement == nullptr) {
            return SQLITE_ERROR;
        }
        int rc = sqlite3_step(m_statement);
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            REGISTRY_LOGE("app registry: %s", sqlite3_errmsg(m_db));
        }
        return rc;
    }
    int64_t Int(int column, int64_t nullValue) const
    {
        return sqlite3_column_type(m_statement, column) == SQLITE_NULL ? nullValue
                                                                       : sqlite3_column_int64(m_statement, column);
    }
    std::string Text(int column) const
    {
        const unsigned char* text = sqlite3_column_text(m_statement, column);
        return text != nullptr ? std::string(reinterpret_cast<const char*>(text),
                                             static_cast<size_t>(sqlite3_column_bytes(m_statement, column)))
                               : std::string();
    }

private:
    sqlite3* m_db;
    sqlite3_stmt* m_statement = nullptr;
};

/* A transaction that rolls back unless committed. Reads take one as well, so
 * that what they return is one consistent state of the file. */
class Transaction
{
public:
    Transaction(Connection& connection, bool write) : m_connection(connection)
    {
        m_active = m_connection.Exec(write ? "BEGIN IMMEDIATE" : "BEGIN");
    }
    ~Transaction()
    {
        if (m_active) {
            m_connection.Exec("ROLLBACK");
        }
    }
    bool IsActive() const { return m_active; }
    bool Commit()
    {
        if (!m_active) {
            return false;
        }
        m_active = false;
        return m_connection.Exec("COMMIT");
    }

private:
    Connection& m_connection;
    bool m_active;
};

void SetError(std::string* error, const std::string& text)
{
    if (error != nullptr) {
        *error = text;
    }
}

bool FitsStoreRecord(const std::string& text)
{
    return text.size() <= static_cast<size_t>(QEB_APP_RECORD_TEXT_MAX) && text.find('\0') == std::string::npos;
}

/* The rule that a collision of ids breaks, as refusals give it. */
const char kCollisionRule[] =
    "an id may not equal a platform id, the service's id or any id of another package, whatever the case";

/* The ids a package takes on the bus: its own and its applications', with
 * what each is called in a refusal. */
std::vector<std::pair<std::string, std::string>> IdsOf(const RegisteredPackage& package)
{
    std::vector<std::pair<std::string, std::string>> ids = {{"package id", package.packageId}};
    for (const RegisteredApplication& app : package.applications) {
        ids.emplace_back("application id", app.appId);
    }
    return ids;
}

/* In the verified identity mode, ids and the user follow the platform's rules. */
bool ValidateIdentity(const RegisteredPackage& package, std::string* error)
{
    if (identity::CurrentMode() != identity::Mode::Verified) {
        return true;
    }
    std::string rule;
    for (const auto& [kind, id] : IdsOf(package)) {
        if (!IsValidPlatformId(id, &rule)) {
            SetError(error, "the " + kind + " '" + id + "' is refused: " + rule);
            return false;
        }
        std::string platformId;
        if (identity::IsLikePlatformId(id, platformId)) {
            SetError(error, "the " + kind + " '" + id + "' is one of the platform's own ids ('" + platformId +
                                "'): " + kCollisionRule);
            return false;
        }
    }
    if (package.userId >= 0 && identity::IsPlatformUser(static_cast<uid_t>(package.userId))) {
        SetError(error, "user " + std::to_string(package.userId) + " is a platform user, not an application's");
        return false;
    }
    return true;
}

/* Checks a package before anything is written; the reason goes to `error`. */
bool ValidatePackage(const RegisteredPackage& package, std::string* error)
{
    if (package.packageId.empty()) {
        SetError(error, "the package id is empty");
        return false;
    }
    if (!ValidateIdentity(package, error)) {
        return false;
    }
    if (package.userId > static_cast<int64_t>(0xFFFFFFFEll)) {
        SetError(error, "user " + std::to_string(package.userId) + " is not a user id");
        return false;
    }
    if (!FitsStoreRecord(package.packageId)) {
        SetError(error, "the package id is longer than 1023 bytes or holds a NUL");
        return false;
    }
    if (!FitsStoreRecord(package.webAppId)) {
        SetError(error, "the web application id is longer than 1023 bytes or holds a NUL");
        return false;
    }
    std::set<std::string> appIds;
    for (const RegisteredApplication& app : package.applications) {
        if (app.appId.empty()) {
            SetError(error, "an application id is empty");
            return false;
        }
        if (!appIds.insert(app.appId).second) {
            SetError(error, "the application id '" + app.appId + "' is given twice");
            return false;
        }
        std::set<std::string> keys;
        for (const auto& entry : app.metadata) {
            if (entry.first.empty()) {
                SetError(error, "a metadata key of '" + app.appId + "' is empty");
                return false;
            }
            if (!keys.insert(entry.first).second) {
                SetError(error, "the metadata key '" + entry.first + "' of '" + app.appId + "' is given twice");
                return false;
            }
        }
    }
    return true;
}

/* Whether `uid` has an account: the bus daemon closes the connections of a
 * user it cannot look up, so only such a user can ever run an application. */
bool HasAccount(int64_t uid)
{
    struct passwd entry;
    struct passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    return getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
}

/* The users of accounts in [first, last], in ascending order. */
std::vector<int64_t> AccountsInRange(int64_t first, int64_t last)
{
    std::vector<int64_t> uids;
    struct passwd entry;
    struct passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    std::lock_guard<std::mutex> lock(AccountListMutex());
    setpwent();
    while (getpwent_r(&entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        if (found->pw_uid >= first && found->pw_uid <= last) {
            uids.push_back(found->pw_uid);
        }
    }
    endpwent();
    std::sort(uids.begin(), uids.end());
    uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
    return uids;
}

/* Whether the registry binds `uid` to a package other than `packageId`: the
 * package's id in `owner`. */
bool UserIsTaken(Connection& connection, int64_t uid, const std::string& packageId, std::string& owner)
{
    Statement taken(connection, "SELECT package_id FROM packages WHERE user_id = ? AND package_id <> ?");
    taken.Bind(1, uid).Bind(2, packageId);
    if (taken.Step() != SQLITE_ROW) {
        return false;
    }
    owner = taken.Text(0);
    return true;
}

/* In the verified mode only users with an account are bound; the development
 * mode runs every process as one user and looks at none. */
bool AccountsMatter()
{
    return identity::CurrentMode() == identity::Mode::Verified;
}

/* The lowest user of [first, last] that may be allocated (an account, when
 * accounts matter, neither a platform user nor another package's); -1 when none. */
int64_t FreeUserInRange(Connection& connection, const std::string& packageId, int64_t first, int64_t last)
{
    std::vector<int64_t> candidates;
    if (AccountsMatter()) {
        candidates = AccountsInRange(first, last);
    } else {
        Statement used(connection, "SELECT user_id FROM packages WHERE user_id BETWEEN ? AND ? ORDER BY user_id");
        used.Bind(1, first).Bind(2, last);
        int64_t candidate = first;
        while (used.Step() == SQLITE_ROW && used.Int(0, -1) <= candidate) {
            candidate = std::max(candidate, used.Int(0, -1) + 1);
        }
        return candidate <= last && candidate >= 0 ? candidate : -1;
    }
    std::string owner;
    for (int64_t uid : candidates) {
        if (!identity::IsPlatformUser(static_cast<uid_t>(uid)) && !UserIsTaken(connection, uid, packageId, owner)) {
            return uid;
        }
    }
    return -1;
}

std::string NoFreeUserText(int64_t first, int64_t last)
{
    const std::string range = std::to_string(first) + ".." + std::to_string(last);
    if (!AccountsMatter()) {
        return "no free user is left in " + range;
    }
    return "no free user account is left in " + range +
           ": create an account for the package in that range (for example: useradd --system --uid " +
           std::to_string(first) + " app" + std::to_string(first) +
           "), or set [identity] first-app-user and last-app-user to a range of existing accounts, or give the "
           "manifest a 'user' line that names an existing user";
}

/* The package's user: the one asked for (refused when another package has
 * it, or, when accounts matter, when it has no account), else the one it had
 * (while it still has an account), else the lowest free one of the
 * configured range. */
bool ChooseUser(Connection& connection, const std::string& packageId, int64_t& userId, std::string* error)
{
    std::string owner;
    if (userId >= 0) {
        if (UserIsTaken(connection, userId, packageId, owner)) {
            SetError(error, "user " + std::to_string(userId) + " belongs to the package '" + owner + "'");
            return false;
        }
        if (AccountsMatter() && !HasAccount(userId)) {
            SetError(error, "user " + std::to_string(userId) +
                                " has no account on this system, and the bus closes the connections of a user it "
                                "cannot look up: create the account, or name an existing user in the manifest's "
                                "'user' line");
            return false;
        }
        return true;
    }
    Statement previous(connection, "SELECT user_id FROM packages WHERE package_id = ? AND user_id IS NOT NULL");
    previous.Bind(1, packageId);
    if (previous.Step() == SQLITE_ROW && (!AccountsMatter() || HasAccount(previous.Int(0, -1)))) {
        userId = previous.Int(0, -1);
        return true;
    }
    const int64_t first = config::IntegerSetting("identity", "first-app-user");
    const int64_t last = config::IntegerSetting("identity", "last-app-user");
    userId = FreeUserInRange(connection, packageId, first, last);
    if (userId < 0) {
        SetError(error, NoFreeUserText(first, last));
        return false;
    }
    return true;
}

}  // namespace

Result ReadPackages(std::vector<RegisteredPackage>& packages)
{
    packages.clear();
    Connection connection;
    if (!connection.IsOpen()) {
        return Result::Failed;
    }
    Transaction transaction(connection, false);
    Statement listPackages(connection,
                           "SELECT p.package_id, COALESCE(w.web_app_id, ''), p.user_id FROM packages p "
                           "LEFT JOIN web_apps w ON w.package_id = p.package_id ORDER BY p.seq");
    if (!transaction.IsActive() || !listPackages.IsValid()) {
        return Result::Failed;
    }
    int rc;
    while ((rc = listPackages.Step()) == SQLITE_ROW) {
        RegisteredPackage package{listPackages.Text(0), {}, listPackages.Text(1)};
        package.userId = listPackages.Int(2, -1);
        packages.push_back(std::move(package));
    }
    if (rc != SQLITE_DONE) {
        packages.clear();
        return Result::Failed;
    }
    for (RegisteredPackage& package : packages) {
        Statement apps(connection, "SELECT app_id FROM applications WHERE package_id = ? ORDER BY position");
        apps.Bind(1, package.packageId);
        while ((rc = apps.Step()) == SQLITE_ROW) {
            package.applications.push_back(RegisteredApplication{apps.Text(0), {}});
        }
        if (rc != SQLITE_DONE) {
            packages.clear();
            return Result::Failed;
        }
        for (RegisteredApplication& app : package.applications) {
            Statement metadata(connection, "SELECT key, value FROM metadata WHERE app_id = ? ORDER BY position");
            metadata.Bind(1, app.appId);
            while ((rc = metadata.Step()) == SQLITE_ROW) {
                app.metadata.emplace_back(metadata.Text(0), metadata.Text(1));
            }
            if (rc != SQLITE_DONE) {
                packages.clear();
                return Result::Failed;
            }
        }
    }
    return Result::Ok;
}

Result FindPackageOfApp(const std::string& appId, std::string& packageId)
{
    LookupConnection lookup;
    Connection& connection = lookup.Get();
    if (!connection.IsOpen()) {
        return Result::Failed;
    }
    Statement find(connection, "SELECT package_id FROM applications WHERE app_id = ?");
    find.Bind(1, appId);
    int rc = find.Step();
    if (rc == SQLITE_ROW) {
        packageId = find.Text(0);
        return Result::Ok;
    }
    return rc == SQLITE_DONE ? Result::NotFound : Result::Failed;
}

Result ReadApplication(const std::string& appId, std::string& packageId,
                       std::vector<std::pair<std::string, std::string>>& metadata)
{
    metadata.clear();
    LookupConnection lookup;
    Connection& connection = lookup.Get();
    if (!connection.IsOpen()) {
        return Result::Failed;
    }
    Transaction transaction(connection, false);
    Statement find(connection, "SELECT package_id FROM applications WHERE app_id = ?");
    Statement entries(connection, "SELECT key, value FROM metadata WHERE app_id = ? ORDER BY position");
    if (!transaction.IsActive() || !find.IsValid() || !entries.IsValid()) {
        return Result::Failed;
    }
    find.Bind(1, appId);
    int rc = find.Step();
    if (rc != SQLITE_ROW) {
        return rc == SQLITE_DONE ? Result::NotFound : Result::Failed;
    }
    packageId = find.Text(0);
    entries.Bind(1, appId);
    while ((rc = entries.Step()) == SQLITE_ROW) {
        metadata.emplace_back(entries.Text(0), entries.Text(1));
    }
    if (rc != SQLITE_DONE) {
        metadata.clear();
        return Result::Failed;
    }
    return Result::Ok;
}

Result FindUserOfId(const std::string& id, int64_t& userId)
{
    LookupConnection lookup;
    Connection& connection = lookup.Get();
    if (!connection.IsOpen()) {
        return Result::Failed;
    }
    Statement find(connection,
                   "SELECT p.user_id FROM packages p WHERE p.package_id = "
                   "COALESCE((SELECT a.package_id FROM applications a WHERE a.app_id = ?1), ?1)");
    find.Bind(1, id);
    const int rc = find.Step();
    if (rc == SQLITE_ROW) {
        userId = find.Int(0, -1);
        return Result::Ok;
    }
    return rc == SQLITE_DONE ? Result::NotFound : Result::Failed;
}

Result ReadWebApps(std::vector<std::pair<std::string, std::string>>& webAppIdAndPackage)
{
    webAppIdAndPackage.clear();
    Connection connection;
    if (!connection.IsOpen()) {
        return Result::Failed;
    }
    Statement list(connection,
                   "SELECT w.web_app_id, w.package_id FROM web_apps w "
                   "JOIN packages p ON p.package_id = w.package_id ORDER BY p.seq");
    int rc;
    while ((rc = list.Step()) == SQLITE_ROW) {
        webAppIdAndPackage.emplace_back(list.Text(0), list.Text(1));
    }
    if (rc != SQLITE_DONE) {
        webAppIdAndPackage.clear();
        return Result::Failed;
    }
    return Result::Ok;
}

/* An application id may belong to one package only: false (with the reason)
 * when one of the package's is another package's. */
bool ApplicationsAreFree(Connection& connection, const RegisteredPackage& package, std::string* error)
{
    for (const RegisteredApplication& app : package.applications) {
        Statement owner(connection, "SELECT package_id FROM applications WHERE app_id = ? AND package_id <> ?");
        owner.Bind(1, app.appId).Bind(2, package.packageId);
        int rc = owner.Step();
        if (rc == SQLITE_ROW) {
            SetError(error, "the application id '" + app.appId + "' belongs to the package '" + owner.Text(0) + "'");
            return false;
        }
        if (rc != SQLITE_DONE) {
            SetError(error, "the application registry cannot be read");
            return false;
        }
    }
    return true;
}

/* In the verified identity mode no id of the package may equal, case
 * ignored, an id of another package (its package id or an application id):
 * the bus policy could then grant one user another's names. */
bool IdsAreFree(Connection& connection, const RegisteredPackage& package, std::string* error)
{
    if (identity::CurrentMode() != identity::Mode::Verified) {
        return true;
    }
    for (const auto& [kind, id] : IdsOf(package)) {
        Statement taken(connection,
                        "SELECT package_id, 'the package' FROM packages WHERE package_id = ?1 COLLATE NOCASE "
                        "AND package_id <> ?2 UNION ALL "
                        "SELECT package_id, 'application ''' || app_id || ''' of the package' FROM applications "
                        "WHERE app_id = ?1 COLLATE NOCASE AND package_id <> ?2 LIMIT 1");
        taken.Bind(1, id).Bind(2, package.packageId);
        const int rc = taken.Step();
        if (rc == SQLITE_ROW) {
            SetError(error, "the " + kind + " '" + id + "' is " + taken.Text(1) + " '" + taken.Text(0) + "': " +
                                kCollisionRule);
            return false;
        }
        if (rc != SQLITE_DONE) {
            SetError(error, "the application registry cannot be read");
            return false;
        }
    }
    return true;
}

/* Writes the application and its metadata in declaration order. */
bool WriteApplication(Connection& connection, const std::string& packageId, const RegisteredApplication& app,
                      int64_t appPosition)
{
    Statement addApp(connection, "INSERT INTO applications (app_id, package_id, position) VALUES (?, ?, ?)");
    addApp.Bind(1, app.appId).Bind(2, packageId).Bind(3, appPosition);
    bool ok = addApp.Step() == SQLITE_DONE;
    int64_t position = 0;
    for (const auto& entry : app.metadata) {
        if (!ok) {
            break;
        }
        Statement addEntry(connection, "INSERT INTO metadata (app_id, position, key, value) VALUES (?, ?, ?, ?)");
        addEntry.Bind(1, app.appId).Bind(2, position++).Bind(3, entry.first).Bind(4, entry.second);
        ok = addEntry.Step() == SQLITE_DONE;
    }
    return ok;
}

/* Installing again replaces the package and everything under it. */
bool WritePackage(Connection& connection, const RegisteredPackage& package, int64_t userId)
{
    Statement remove(connection, "DELETE FROM packages WHERE package_id = ?");
    remove.Bind(1, package.packageId);
    bool ok = remove.Step() == SQLITE_DONE;

    Statement addPackage(connection, "INSERT INTO packages (package_id, user_id) VALUES (?, ?)");
    addPackage.Bind(1, package.packageId).Bind(2, userId);
    ok = ok && addPackage.Step() == SQLITE_DONE;

    int64_t appPosition = 0;
    for (const RegisteredApplication& app : package.applications) {
        if (!ok) {
            break;
        }
        ok = WriteApplication(connection, package.packageId, app, appPosition++);
    }
    if (ok && !package.webAppId.empty()) {
        Statement addWebApp(connection, "INSERT INTO web_apps (package_id, web_app_id) VALUES (?, ?)");
        addWebApp.Bind(1, package.packageId).Bind(2, package.webAppId);
        ok = addWebApp.Step() == SQLITE_DONE;
    }
    return ok;
}

void CloseThisThreadsLookupConnection()
{
    LookupConnection::CloseKept();
}

}  // namespace registry

bool InstallPackage(const RegisteredPackage& package, std::string* error)
{
    using namespace registry;
    if (!ValidatePackage(package, error)) {
        return false;
    }
    Connection connection;
    if (!connection.IsOpen()) {
        SetError(error, "the application registry cannot be opened");
        return false;
    }
    Transaction transaction(connection, true);
    if (!transaction.IsActive()) {
        SetError(error, "the application registry is busy or cannot be written");
        return false;
    }
    if (!ApplicationsAreFree(connection, package, error) || !IdsAreFree(connection, package, error)) {
        return false;
    }
    int64_t userId = package.userId;
    if (!ChooseUser(connection, package.packageId, userId, error)) {
        return false;
    }
    bool ok = WritePackage(connection, package, userId);
    if (!ok || !transaction.Commit()) {
        SetError(error, "the application registry cannot be written");
        return false;
    }
    REGISTRY_LOGD("app registry: installed %s (%zu applications, user %lld)", package.packageId.c_str(),
                  package.applications.size(), static_cast<long long>(userId));
    UpdateBusPolicy();
    return true;
}

bool RemovePackage(const std::string& packageId, std::string* error)
{
    using namespace registry;
    Connection connection;
    if (!connection.IsOpen()) {
        SetError(error, "the application registry cannot be opened");
        return false;
    }
    Statement remove(connection, "DELETE FROM packages WHERE package_id = ?");
    remove.Bind(1, packageId);
    if (remove.Step() != SQLITE_DONE) {
        SetError(error, "the application registry cannot be written");
        return false;
    }
    if (sqlite3_changes(connection.Handle()) == 0) {
        SetError(error, "no package '" + packageId + "' is installed");
        return false;
    }
    REGISTRY_LOGD("app registry: removed %s", packageId.c_str());
    UpdateBusPolicy();
    return true;
}

bool ReadInstalledPackages(std::vector<RegisteredPackage>& packages)
{
    return registry::ReadPackages(packages) == registry::Result::Ok;
}

std::vector<RegisteredPackage> ListPackages()
{
    std::vector<RegisteredPackage> packages;
    registry::ReadPackages(packages);
    return packages;
}

}  // namespace host
}  // namespace tilvane
