#include "shared_database_file.h"

#include <sqlite3.h>

#include "host_state.h"
#include "dlog.h"
#include "tzplatform_config.h"

namespace tilvane {
namespace host {
namespace {

const int kBusyTimeoutMs = 5000;
const char kSettings[] = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;";

}  // namespace

SharedDatabaseFile::SharedDatabaseFile(const char* fileName, const char* schema, const char* label) : m_label(label)
{
    const char* directory = tzplatform_getenv(TZ_SYS_DB);
    if (directory == nullptr) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "%s: no database directory", label);
        return;
    }
    const std::string path = std::string(directory) + "/" + fileName;
    if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "%s: cannot open %s: %s", label, path.c_str(),
                     m_db != nullptr ? sqlite3_errmsg(m_db) : "out of memory");
        Close();
        return;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    if (!Exec(kSettings) || !Exec(schema)) {
        Close();
    }
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
