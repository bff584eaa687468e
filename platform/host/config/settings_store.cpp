/*
 * Every operation opens its own connection (WAL, busy timeout), so a value
 * written by one process is read by the next call of any other.
 */
#include "config/settings_store.h"

#include <sqlite3.h>

#include <string>

#include "base/host_state.h"
#include "config/shared_database_file.h"
#include "dlog.h"

#define SETTINGS_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace settings {
namespace {

const char kSettingsFile[] = ".tilvane-settings.db";
const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS config_keys (name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS system_info (key INTEGER PRIMARY KEY, value INTEGER NOT NULL);";

/* The settings file, opened for one operation. Like every file of the
 * platform it is its platform user's only (platform_files.h): applications
 * neither set nor read configuration keys; they hear of changes through the
 * bus's signals. */
class Store : public SharedDatabaseFile
{
public:
    Store() : SharedDatabaseFile(kSettingsFile, kSchema, "settings") {}
};

/* A prepared statement, finalised at the end of the scope. */
class Statement
{
public:
    Statement(sqlite3* db, const char* sql)
    {
        if (db != nullptr && sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK) {
            SETTINGS_LOGE("settings: %s", sqlite3_errmsg(db));
            m_stmt = nullptr;
        }
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    sqlite3_stmt* Get() const { return m_stmt; }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

}  // namespace

ReadResult ReadKey(const std::string& key, int& value)
{
    Store store;
    Statement stmt(store.Handle(), "SELECT value FROM config_keys WHERE name = ?");
    if (stmt.Get() == nullptr) {
        return ReadResult::Failed;
    }
    sqlite3_bind_text(stmt.Get(), 1, key.c_str(), -1, SQLITE_TRANSIENT);
    const int step = sqlite3_step(stmt.Get());
    if (step == SQLITE_ROW) {
        value = sqlite3_column_int(stmt.Get(), 0);
        return ReadResult::Found;
    }
    return step == SQLITE_DONE ? ReadResult::Missing : ReadResult::Failed;
}

bool WriteKey(const std::string& key, int value)
{
    Store store;
    Statement stmt(store.Handle(), "INSERT OR REPLACE INTO config_keys (name, value) VALUES (?, ?)");
    if (stmt.Get() == nullptr) {
        return false;
    }
    sqlite3_bind_text(stmt.Get(), 1, key.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(stmt.Get(), 2, value);
    return sqlite3_step(stmt.Get()) == SQLITE_DONE;
}

bool RemoveKey(const std::string& key)
{
    Store store;
    Statement stmt(store.Handle(), "DELETE FROM config_keys WHERE name = ?");
    if (stmt.Get() == nullptr) {
        return false;
    }
    sqlite3_bind_text(stmt.Get(), 1, key.c_str(), -1, SQLITE_TRANSIENT);
    return sqlite3_step(stmt.Get()) == SQLITE_DONE && sqlite3_changes(store.Handle()) > 0;
}

ReadResult ReadSystemInfo(int key, bool& value)
{
    Store store;
    Statement stmt(store.Handle(), "SELECT value FROM system_info WHERE key = ?");
    if (stmt.Get() == nullptr) {
        return ReadResult::Failed;
    }
    sqlite3_bind_int(stmt.Get(), 1, key);
    const int step = sqlite3_step(stmt.Get());
    if (step == SQLITE_ROW) {
        value = sqlite3_column_int(stmt.Get(), 0) != 0;
        return ReadResult::Found;
    }
    return step == SQLITE_DONE ? ReadResult::Missing : ReadResult::Failed;
}

bool WriteSystemInfo(int key, bool value)
{
    Store store;
    Statement stmt(store.Handle(), "INSERT OR REPLACE INTO system_info (key, value) VALUES (?, ?)");
    if (stmt.Get() == nullptr) {
        return false;
    }
    sqlite3_bind_int(stmt.Get(), 1, key);
    sqlite3_bind_int(stmt.Get(), 2, value ? 1 : 0);
    return sqlite3_step(stmt.Get()) == SQLITE_DONE;
}

}  // namespace settings
}  // namespace host
}  // namespace tilvane
