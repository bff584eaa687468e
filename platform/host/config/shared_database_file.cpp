#include "config/shared_database_file.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>

#include "base/host_state.h"
#include "config/platform_files.h"
#include "dlog.h"
#include "tzplatform_config.h"

namespace tilvane {
namespace host {
namespace {

const int kBusyTimeoutMs = 5000;
const char kSettings[] = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;";
/* Processes that create the file at the same moment can find it locked while
 * one of them switches it to WAL, without SQLite waiting for the lock: such a
 * start is tried again, this many times, this far apart. */
const int kSetupAttempts = 50;
const auto kSetupRetryInterval = std::chrono::milliseconds(20);

bool IsBusy(sqlite3* db)
{
    const int code = sqlite3_errcode(db) & 0xff;
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

}  // namespace

SharedDatabaseFile::SharedDatabaseFile(const char* fileName, const char* schema, const char* label) : m_label(label)
{
    const char* directory = tzplatform_getenv(TZ_SYS_DB);
    if (directory == nullptr) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "%s: no database directory", label);
        return;
    }
    const std::string path = std::string(directory) + "/" + fileName;
    files::CreateFile(path);
    if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "%s: cannot open %s: %s", label, path.c_str(),
                     m_db != nullptr ? sqlite3_errmsg(m_db) : "out of memory");
        Close();
        return;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    for (int attempt = 1; attempt <= kSetupAttempts; ++attempt) {
        if (Exec(kSettings) && Exec(schema)) {
            return;
        }
        if (!IsBusy(m_db)) {
            break;
        }
        std::this_thread::sleep_for(kSetupRetryInterval);
    }
    Close();
}

SharedDatabaseFile::~SharedDatabaseFile()
{
    Close();
}

bool SharedDatabaseFile::Exec(const char* sql)
{
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "%s: %s", m_label.c_str(),
                     message != nullptr ? message : sqlite3_errmsg(m_db));
        sqlite3_free(message);
        return false;
    }
    return true;
}

void SharedDatabaseFile::Close()
{
    if (m_db != nullptr) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
    }
}

}  // namespace host
}  // namespace tilvane
