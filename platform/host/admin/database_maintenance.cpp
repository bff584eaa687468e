/*
 * Backup, restore and check of the tiles database (database_maintenance.h).
 */
#include "admin/database_maintenance.h"

#include <errno.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "config/platform_files.h"
#include "config/platform_config.h"
#include "identity/identity_mode.h"
#include "registry/app_registry.h"
#include "tzplatform_config.h"

namespace tilvane {
namespace host {
namespace admin {
namespace {

constexpr char kBackupSuffix[] = ".backup";
constexpr char kRestoreSuffix[] = ".restore";
constexpr int kBusyTimeoutMs = 5000;
/* Findings of one kind listed in full; beyond, a count. */
constexpr size_t kMaxListed = 20;

struct DbClose {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DbPtr = std::unique_ptr<sqlite3, DbClose>;

struct FdClose {
    void operator()(int* fd) const
    {
        close(*fd);
        delete fd;
    }
};
using FdPtr = std::unique_ptr<int, FdClose>;

using Rows = std::vector<std::vector<std::string>>;

/* Removes a private file and what SQLite left beside it, at the end of the
 * scope. */
class RemovedAtEnd {
public:
    explicit RemovedAtEnd(std::string path) : m_path(std::move(path)) { Remove(); }
    ~RemovedAtEnd() { Remove(); }
    RemovedAtEnd(const RemovedAtEnd&) = delete;
    RemovedAtEnd& operator=(const RemovedAtEnd&) = delete;
    const std::string& Path() const { return m_path; }

private:
    void Remove()
    {
        for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
            unlink((m_path + suffix).c_str());
        }
    }
    std::string m_path;
};

DbPtr Open(const std::string& path, int flags, std::string& error)
{
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_NOFOLLOW, nullptr);
    DbPtr owned(db);
    if (rc != SQLITE_OK) {
        error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        return nullptr;
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    return owned;
}

/* The rows of `sql` (with `argument` bound to its one parameter, when
 * given) as text; false with `error` when it fails. */
bool Query(sqlite3* db, const char* sql, Rows& rows, std::string& error, const char* argument = nullptr)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
        error = sqlite3_errmsg(db);
        return false;
    }
    if (argument != nullptr) {
        sqlite3_bind_text(statement, 1, argument, -1, SQLITE_TRANSIENT);
    }
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int c = 0; c < sqlite3_column_count(statement); ++c) {
            const unsigned char* text = sqlite3_column_text(statement, c);
            row.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
        return false;
    }
    return true;
}

/* The one value of a query of one row and column, "" when it fails. */
std::string Value(sqlite3* db, const char* sql)
{
    Rows rows;
    std::string error;
    return Query(db, sql, rows, error) && !rows.empty() && !rows[0].empty() ? rows[0][0] : std::string();
}

bool WriteAll(int fd, const char* data, size_t size, std::string& error)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            error = std::strerror(written < 0 ? errno : EIO);
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

/* Copies everything readable from `from` to `to`; `bytes` counts it. */
bool CopyBytes(int from, int to, size_t& bytes, std::string& readError, std::string& writeError)
{
    char buffer[65536];
    bytes = 0;
    while (true) {
        const ssize_t got = read(from, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            readError = std::strerror(errno);
            return false;
        }
        if (got == 0) {
            return true;
        }
        if (!WriteAll(to, buffer, static_cast<size_t>(got), writeError)) {
            return false;
        }
        bytes += static_cast<size_t>(got);
    }
}

/* SQLite's online backup of the main database of `from` into `to`, whole. */
bool CopyDatabase(sqlite3* from, sqlite3* to, std::string& error)
{
    sqlite3_backup* backup = sqlite3_backup_init(to, "main", from, "main");
    if (backup == nullptr) {
        error = sqlite3_errmsg(to);
        return false;
    }
    const int step = sqlite3_backup_step(backup, -1);
    const int finish = sqlite3_backup_finish(backup);
    if (step != SQLITE_DONE || finish != SQLITE_OK) {
        error = step != SQLITE_DONE ? sqlite3_errstr(step) : sqlite3_errmsg(to);
        return false;
    }
    return true;
}

/* "E launcher entries, S sections, T tiles": the rows of each data id's
 * table, the launcher's table named as what it holds. */
std::string RowCounts(sqlite3* db)
{
    const std::string launcher = config::String("maintenance", "launcher-table", "");
    std::string counts;
    for (const std::string& table : config::StringList("data-control", "data-ids")) {
        counts += (counts.empty() ? "" : ", ") + Value(db, ("SELECT count(*) FROM \"" + table + "\"").c_str()) + " " +
                  (table == launcher ? std::string("launcher entries") : table);
    }
    return counts;
}

}  // namespace

std::string TilesDatabasePath()
{
    const char* directory = tzplatform_getenv(TZ_SYS_DB);
    return std::string(directory != nullptr ? directory : ".") + "/" +
           config::String("maintenance", "database", "");
}

/* ---- backup ------------------------------------------------------------------ */

namespace {

/* The database, as it is now, in the private file `copy` as a plain
 * rollback-journal database. */
bool MakeCopy(const std::string& copy, std::string& counts, std::string& error)
{
    DbPtr live = Open(TilesDatabasePath(), SQLITE_OPEN_READONLY, error);
    if (!live) {
        error = "the database cannot be opened: " + error;
        return false;
    }
    if (!files::CreateFile(copy)) {
        error = "the copy cannot be made beside the database";
        return false;
    }
    DbPtr target = Open(copy, SQLITE_OPEN_READWRITE, error);
    if (!target || !CopyDatabase(live.get(), target.get(), error)) {
        error = "the online backup failed: " + error;
        return false;
    }
    if (Value(target.get(), "PRAGMA journal_mode=DELETE") != "delete") {
        error = "the copy cannot be made a single file";
        return false;
    }
    counts = RowCounts(target.get());
    return true;
}

}  // namespace

bool BackupTo(int fd, std::string& summary, std::string& error)
{
    RemovedAtEnd copy(TilesDatabasePath() + kBackupSuffix);
    std::string counts;
    if (!MakeCopy(copy.Path(), counts, error)) {
        return false;
    }
    FdPtr in(new int(open(copy.Path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)));
    if (*in < 0) {
        error = std::string("the copy cannot be read: ") + std::strerror(errno);
        return false;
    }
    size_t bytes = 0;
    std::string readError;
    std::string writeError;
    if (!CopyBytes(*in, fd, bytes, readError, writeError)) {
        error = !writeError.empty() ? "the file cannot be written: " + writeError : "the copy cannot be read: " + readError;
        return false;
    }
    fdatasync(fd); /* a pipe or socket has nothing to sync */
    summary = std::to_string(bytes) + " bytes: " + counts;
    return true;
}

/* ---- restore ----------------------------------------------------------------- */

namespace {

/* The tables of `db` (but SQLite's own) and each one's columns with their
 * declared types, in order. */
bool Schema(sqlite3* db, std::map<std::string, std::string>& tables, std::string& error)
{
    Rows names;
    if (!Query(db, "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY name",
               names, error)) {
        return false;
    }
    for (const auto& name : names) {
        Rows columns;
        if (!Query(db, "SELECT name, type FROM pragma_table_info(?1)", columns, error, name[0].c_str())) {
            return false;
        }
        std::string text;
        for (const auto& column : columns) {
            text += (text.empty() ? "" : ", ") + column[0] + " " + column[1];
        }
        tables[name[0]] = text;
    }
    return true;
}

/* The indexes, triggers and views of `db`: "type name" -> their SQL. */
bool Objects(sqlite3* db, std::map<std::string, std::string>& objects, std::string& error)
{
    Rows rows;
    if (!Query(db, "SELECT type, name, coalesce(sql, '') FROM sqlite_master WHERE type != 'table' AND name NOT LIKE "
                   "'sqlite_%'",
               rows, error)) {
        return false;
    }
    for (const auto& row : rows) {
        objects[row[0] + " " + row[1]] = row[2];
    }
    return true;
}

/* "" when the copy has exactly the live database's indexes, triggers and
 * views: a trigger or a view of a copy would run in the service's
 * statements from then on. */
std::string ObjectDifference(sqlite3* live, sqlite3* copy)
{
    std::map<std::string, std::string> expected;
    std::map<std::string, std::string> found;
    std::string error;
    if (!Objects(live, expected, error) || !Objects(copy, found, error)) {
        return "the schema cannot be read: " + error;
    }
    for (const auto& object : found) {
        auto it = expected.find(object.first);
        if (it == expected.end()) {
            return "the copy has an object the database does not have: " + object.first;
        }
        if (it->second != object.second) {
            return "the copy's " + object.first + " differs from the database's";
        }
    }
    for (const auto& object : expected) {
        if (found.count(object.first) == 0) {
            return "the copy has no " + object.first;
        }
    }
    return std::string();
}

/* "" when the copy's tables and columns are the live database's; else why not. */
std::string SchemaDifference(sqlite3* live, sqlite3* copy)
{
    std::map<std::string, std::string> expected;
    std::map<std::string, std::string> found;
    std::string error;
    if (!Schema(live, expected, error) || !Schema(copy, found, error)) {
        return "the tables cannot be read: " + error;
    }
    for (const auto& table : expected) {
        auto it = found.find(table.first);
        if (it == found.end()) {
            return "the copy has no table " + table.first;
        }
        if (it->second != table.second) {
            return "the copy's table " + table.first + " has the columns (" + it->second + "), the database's (" +
                   table.second + ")";
        }
    }
    for (const auto& table : found) {
        if (expected.count(table.first) == 0) {
            return "the copy has a table the database does not have: " + table.first;
        }
    }
    return ObjectDifference(live, copy);
}

/* "" when the copy may take the live database's place; else why not. */
std::string Verdict(sqlite3* live, sqlite3* copy)
{
    Rows rows;
    std::string error;
    if (!Query(copy, "PRAGMA integrity_check", rows, error)) {
        return "the copy is not a database the service can read (" + error + ")";
    }
    if (rows.empty() || rows[0][0] != "ok") {
        return "the copy is damaged: " + (rows.empty() ? std::string("no answer") : rows[0][0]);
    }
    rows.clear();
    if (!Query(copy, "PRAGMA foreign_key_check", rows, error) || !rows.empty()) {
        return rows.empty() ? "the copy's foreign keys cannot be checked: " + error
                            : "a row of the copy breaks a foreign key: table " + rows[0][0] + ", row " + rows[0][1];
    }
    const std::string expected = Value(live, "PRAGMA user_version");
    const std::string found = Value(copy, "PRAGMA user_version");
    if (expected != found) {
        return "the copy has schema version " + found + ", the database " + expected;
    }
    return SchemaDifference(live, copy);
}

/* The copy with the live database's page size, which a database in WAL mode
 * needs of what is copied into it. */
bool MatchPageSize(sqlite3* live, sqlite3* copy, std::string& error)
{
    const std::string size = Value(live, "PRAGMA page_size");
    if (Value(copy, "PRAGMA page_size") == size) {
        return true;
    }
    const std::string sql = "PRAGMA page_size=" + std::to_string(std::stoi(size.empty() ? "4096" : size)) + "; VACUUM;";
    if (sqlite3_exec(copy, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        error = std::string("the copy's page size cannot be changed: ") + sqlite3_errmsg(copy);
        return false;
    }
    return true;
}

/* The caller's bytes into the private file `path`. */
bool StoreCopy(int fd, const std::string& path, size_t& bytes, std::string& refusal)
{
    if (!files::CreateFile(path)) {
        refusal = "the copy cannot be stored beside the database";
        return false;
    }
    FdPtr out(new int(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW)));
    std::string readError;
    std::string writeError;
    if (*out < 0 || !CopyBytes(fd, *out, bytes, readError, writeError)) {
        refusal = !readError.empty() ? "the file cannot be read: " + readError
                                     : "the copy cannot be stored beside the database: " +
                                           (writeError.empty() ? std::string(std::strerror(errno)) : writeError);
        return false;
    }
    if (fsync(*out) != 0) {
        refusal = std::string("the copy cannot be stored beside the database: ") + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

bool RestoreFrom(int fd, std::string& summary, std::string& refusal)
{
    RemovedAtEnd staged(TilesDatabasePath() + kRestoreSuffix);
    size_t bytes = 0;
    if (!StoreCopy(fd, staged.Path(), bytes, refusal)) {
        return false;
    }
    std::string error;
    DbPtr live = Open(TilesDatabasePath(), SQLITE_OPEN_READWRITE, error);
    if (!live) {
        refusal = "the database cannot be opened: " + error;
        return false;
    }
    DbPtr copy = Open(staged.Path(), SQLITE_OPEN_READWRITE, error);
    if (!copy || Value(copy.get(), "PRAGMA journal_mode=DELETE") != "delete") {
        refusal = "the copy is not a database the service can read" + (error.empty() ? "" : " (" + error + ")");
        return false;
    }
    refusal = Verdict(live.get(), copy.get());
    if (!refusal.empty() || !MatchPageSize(live.get(), copy.get(), refusal)) {
        return false;
    }
    if (!CopyDatabase(copy.get(), live.get(), error)) {
        refusal = "the copy cannot be put in place (" + error + ")";
        return false;
    }
    summary = std::to_string(bytes) + " bytes: " + RowCounts(live.get());
    return true;
}

/* ---- check ------------------------------------------------------------------- */

namespace {

void Finding(CheckReport& report, bool problem, const std::string& text)
{
    report.findings.push_back((problem ? "problem: " : "note: ") + text);
    report.healthy = report.healthy && !problem;
}

void CheckIntegrity(sqlite3* db, CheckReport& report)
{
    Rows rows;
    std::string error;
    if (!Query(db, "PRAGMA integrity_check", rows, error)) {
        Finding(report, true, "the integrity check cannot run: " + error);
    } else if (rows.size() == 1 && rows[0][0] == "ok") {
        report.findings.push_back("ok: integrity");
    } else {
        for (size_t i = 0; i < rows.size() && i < kMaxListed; ++i) {
            Finding(report, true, "integrity: " + rows[i][0]);
        }
    }
    rows.clear();
    if (!Query(db, "PRAGMA foreign_key_check", rows, error)) {
        Finding(report, true, "the foreign keys cannot be checked: " + error);
    } else if (rows.empty()) {
        report.findings.push_back("ok: foreign keys");
    } else {
        for (size_t i = 0; i < rows.size() && i < kMaxListed; ++i) {
            Finding(report, true, "table " + rows[i][0] + " row " + rows[i][1] + " names a missing row of " + rows[i][2]);
        }
    }
}

/* The installed packages, and those of them whose applications declare
 * that they use the launcher. */
bool InstalledPackages(std::set<std::string>& installed, std::set<std::string>& launcherUsers)
{
    const std::vector<std::string> keys = config::StringList("maintenance", "launcher-metadata");
    const std::set<std::string> launcherKeys(keys.begin(), keys.end());
    std::vector<RegisteredPackage> packages;
    if (registry::ReadPackages(packages) != registry::Result::Ok) {
        return false;
    }
    for (const RegisteredPackage& package : packages) {
        installed.insert(package.packageId);
        for (const RegisteredApplication& app : package.applications) {
            for (const auto& entry : app.metadata) {
                if (launcherKeys.count(entry.first) != 0) {
                    launcherUsers.insert(package.packageId);
                }
            }
        }
    }
    return true;
}

void CheckLauncherList(sqlite3* db, CheckReport& report)
{
    std::set<std::string> installed;
    std::set<std::string> launcherUsers;
    if (!InstalledPackages(installed, launcherUsers)) {
        Finding(report, true, "the application registry cannot be read");
        return;
    }
    Rows entries;
    std::string error;
    const std::string column = config::String("maintenance", "launcher-package-column", "");
    const std::string table = config::String("maintenance", "launcher-table", "");
    const std::string sql = "SELECT \"" + column + "\", count(*) FROM \"" + table + "\" GROUP BY 1 ORDER BY 1";
    if (!Query(db, sql.c_str(), entries, error)) {
        Finding(report, true, "the launcher entries cannot be read: " + error);
        return;
    }
    const size_t before = report.findings.size();
    std::set<std::string> withEntry;
    for (const auto& entry : entries) {
        withEntry.insert(entry[0]);
        if (entry[1] != "1") {
            Finding(report, true, "package " + entry[0] + " has " + entry[1] + " launcher entries");
        }
        if (installed.count(entry[0]) == 0 && !identity::IsPlatformAppId(entry[0])) {
            Finding(report, true, "launcher entry of package " + entry[0] + ", which is not installed");
        }
    }
    if (report.findings.size() == before) {
        report.findings.push_back("ok: launcher list (" + std::to_string(entries.size()) + " entries, " +
                                  std::to_string(installed.size()) + " installed packages)");
    }
    for (const std::string& package : launcherUsers) {
        if (withEntry.count(package) == 0) {
            Finding(report, false, "package " + package + " uses the launcher and has no entry yet (it gets one "
                                   "when it is installed through the service or first asks)");
        }
    }
}

}  // namespace

CheckReport CheckDatabase()
{
    CheckReport report;
    std::string error;
    DbPtr db = Open(TilesDatabasePath(), SQLITE_OPEN_READONLY, error);
    if (!db) {
        Finding(report, true, "the database cannot be opened: " + error);
        return report;
    }
    CheckIntegrity(db.get(), report);
    CheckLauncherList(db.get(), report);
    return report;
}

}  // namespace admin
}  // namespace host
}  // namespace tilvane
