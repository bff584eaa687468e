#include "BenchProvider.h"

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>

#include <content_provider_dispatch.h>
#include <host_control.h>
#include <tzplatform_config.h>

#include "TilesModel.h"
#include "TilesProvider.h"

BenchProvider::BenchProvider(const std::string& name, const std::string& packageId, const std::string& appId)
{
    std::string pattern = "/tmp/tilvane-" + name + "-bench-XXXXXX";
    const char* made = mkdtemp(&pattern[0]);
    m_root = made != nullptr ? made : "/tmp";
    tilvane::host::SetPlatformRoot(m_root);
    tilvane::host::UseVirtualClock(true);
    tilvane::host::RegisteredPackage package;
    package.packageId = packageId;
    package.applications.push_back({appId, {}});
    tilvane::host::InstallPackage(package);
    CTilesProvider::GetInstance();
}

BenchProvider::~BenchProvider()
{
    CTilesProvider::ReleaseInstance();
    tilvane::host::Reset();
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}

std::string BenchProvider::DatabasePath() const
{
    return std::string(tzplatform_getenv(TZ_SYS_DB)) + "/.preview.db";
}

void BenchProvider::Exec(const std::string& sql) const
{
    sqlite3* db = nullptr;
    sqlite3_open(DatabasePath().c_str(), &db);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

bool BenchProvider::InsertTile(const char* appId, bundle* values)
{
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strAppId = appId;
    in.strUri = TilesModel::Tiles::CONTENT_URI;
    in.pValues = values;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = -1;
    return tilvane::content::DispatchInsert(in, out, result) && result == 0;
}

void CheckpointLog(sqlite3* db)
{
    sqlite3_wal_checkpoint_v2(db, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

std::string RawInsertSql(const BenchValues& shape)
{
    std::string columns;
    std::string marks;
    for (const auto& entry : shape) {
        columns += (columns.empty() ? "\"" : ",\"") + entry.first + "\"";
        marks += marks.empty() ? "?" : ",?";
    }
    return "INSERT INTO \"tiles\" (" + columns + ") VALUES (" + marks + ")";
}

bool RawInsertRows(sqlite3* db, sqlite3_stmt* insert, const std::vector<BenchValues>& rows)
{
    const bool transaction = rows.size() > 1;
    bool ok = !transaction || sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (const BenchValues& row : rows) {
        int at = 1;
        for (const auto& entry : row) {
            sqlite3_bind_text(insert, at++, entry.second.c_str(), -1, SQLITE_STATIC);
        }
        ok = ok && sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
        sqlite3_clear_bindings(insert);
    }
    if (transaction) {
        ok = sqlite3_exec(db, ok ? "COMMIT" : "ROLLBACK", nullptr, nullptr, nullptr) == SQLITE_OK && ok;
    }
    return ok;
}
