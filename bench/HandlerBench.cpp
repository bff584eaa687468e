/*
 * The provider's request handlers in process, reached through the callbacks
 * it registered with the content library, against raw SQLite running the
 * statements the handler issues (with statements prepared once), in the same
 * run: a one-row tile insert, and a read of the caller's 20 tiles.
 */
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <content_provider_dispatch.h>
#include <host_control.h>
#include <tzplatform_config.h>

#include "SharedQueryObject.h"
#include "TilesModel.h"
#include "TilesProvider.h"

namespace {

const char kAppId[] = "org.example.bench.app";
const char kPackage[] = "org.example.bench";
const int kTiles = 20;

/* A provider on a platform root of its own, with one application that owns
 * accelerator 1001, section 1 and 20 tiles. */
class HandlerBenchService
{
public:
    HandlerBenchService()
    {
        char pattern[] = "/tmp/tilvane-handler-bench-XXXXXX";
        const char* made = mkdtemp(pattern);
        m_root = made != nullptr ? made : "/tmp";
        tilvane::host::SetPlatformRoot(m_root);
        // Without a bus the preview-event port is retried: on the virtual
        // clock that costs nothing, and no handler measured here sends events.
        tilvane::host::UseVirtualClock(true);
        tilvane::host::RegisteredPackage package;
        package.packageId = kPackage;
        package.applications.push_back({kAppId, {}});
        tilvane::host::InstallPackage(package);

        m_provider = CTilesProvider::GetInstance();
        Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1001, 'org.example.bench');"
             "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 1001);");
        for (int i = 0; i < kTiles; ++i) {
            Exec("INSERT INTO tiles (tile_id, tile_title, tile_section_raw_id) VALUES ('t" + std::to_string(i) +
                 "', 'Title', 1)");
        }
    }

    ~HandlerBenchService()
    {
        CTilesProvider::ReleaseInstance();
        tilvane::host::Reset();
        std::error_code ignored;
        std::filesystem::remove_all(m_root, ignored);
    }

    std::string DatabasePath() const { return std::string(tzplatform_getenv(TZ_SYS_DB)) + "/.preview.db"; }

    void Exec(const std::string& sql)
    {
        sqlite3* db = nullptr;
        sqlite3_open(DatabasePath().c_str(), &db);
        sqlite3_busy_timeout(db, 5000);
        sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }

private:
    std::string m_root;
    CTilesProvider* m_provider = nullptr;
};

/* Raw SQLite with the service's settings. */
class RawConnection
{
public:
    explicit RawConnection(const std::string& path)
    {
        sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_exec(m_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;", nullptr,
                     nullptr, nullptr);
    }
    ~RawConnection()
    {
        for (sqlite3_stmt* statement : m_statements) {
            sqlite3_finalize(statement);
        }
        sqlite3_close_v2(m_db);
    }
    sqlite3_stmt* Prepare(const std::string& sql)
    {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr);
        m_statements.push_back(statement);
        return statement;
    }
    /* Steps to the end, reading every column as text; the number of rows. */
    static int Drain(sqlite3_stmt* statement)
    {
        int rows = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            for (int c = 0; c < sqlite3_column_count(statement); ++c) {
                benchmark::DoNotOptimize(sqlite3_column_text(statement, c));
            }
            ++rows;
        }
        sqlite3_reset(statement);
        return rows;
    }

private:
    sqlite3* m_db = nullptr;
    std::vector<sqlite3_stmt*> m_statements;
};

void BM_HandlerInsertTile_Provider(benchmark::State& state)
{
    HandlerBenchService service;
    bundle* values = bundle_create();
    bundle_add_str(values, TilesModel::Tiles::TILE_ID, "new");
    bundle_add_str(values, TilesModel::Tiles::TILE_SECTION_RAW_ID, "1");
    for (auto _ : state) {
        PT_PROVIDER_INSERT_IN_PARAM in;
        in.strAppId = kAppId;
        in.strUri = TilesModel::Tiles::CONTENT_URI;
        in.pValues = values;
        PT_PROVIDER_INSERT_OUT_PARAM out;
        int result = -1;
        tilvane::content::DispatchInsert(in, out, result);
        if (result != 0) {
            state.SkipWithError("insert refused");
            break;
        }
    }
    bundle_free(values);
}

void BM_HandlerInsertTile_RawSQLite(benchmark::State& state)
{
    HandlerBenchService service;
    RawConnection raw(service.DatabasePath());
    // The level query (package pasted, as the service does) and the insert.
    sqlite3_stmt* level = raw.Prepare(
        "SELECT accelerator_app_pkg_name FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* insert = raw.Prepare("INSERT INTO \"tiles\" (\"tile_id\",\"tile_section_raw_id\") VALUES (?,?)");
    for (auto _ : state) {
        RawConnection::Drain(level);
        sqlite3_bind_text(insert, 1, "new", -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 2, "1", -1, SQLITE_STATIC);
        if (sqlite3_step(insert) != SQLITE_DONE) {
            state.SkipWithError("insert failed");
            break;
        }
        sqlite3_reset(insert);
    }
}

void BM_HandlerSelectTiles_Provider(benchmark::State& state)
{
    HandlerBenchService service;
    for (auto _ : state) {
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strAppId = kAppId;
        in.strUri = TilesModel::Tiles::CONTENT_URI;
        in.vecProjection = {TilesModel::Tiles::_ID, TilesModel::Tiles::TILE_ID, TilesModel::Tiles::TILE_TITLE};
        PT_PROVIDER_SELECT_OUT_PARAM out;
        bool result = false;
        tilvane::content::DispatchSelect(in, out, result);
        std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
        if (!result || cursor == nullptr) {
            state.SkipWithError("select refused");
            break;
        }
        std::string text;
        int rows = 0;
        while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
            for (int c = 0; c < 3; ++c) {
                cursor->GetString(c, text);
            }
            ++rows;
        }
        benchmark::DoNotOptimize(rows);
    }
}

void BM_HandlerSelectTiles_RawSQLite(benchmark::State& state)
{
    HandlerBenchService service;
    RawConnection raw(service.DatabasePath());
    // The level query, the two filter queries and the confined select.
    sqlite3_stmt* level = raw.Prepare(
        "SELECT accelerator_app_pkg_name FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* accelerators =
        raw.Prepare("SELECT _id FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* sections = raw.Prepare("SELECT _id FROM \"sections\" WHERE section_accelerator_raw_id IN (1001)");
    sqlite3_stmt* tiles =
        raw.Prepare("SELECT _id, tile_id, tile_title FROM \"tiles\" WHERE tile_section_raw_id IN (1)");
    for (auto _ : state) {
        RawConnection::Drain(level);
        RawConnection::Drain(accelerators);
        RawConnection::Drain(sections);
        benchmark::DoNotOptimize(RawConnection::Drain(tiles));
    }
}

BENCHMARK(BM_HandlerInsertTile_Provider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HandlerInsertTile_RawSQLite)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HandlerSelectTiles_Provider)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HandlerSelectTiles_RawSQLite)->Unit(benchmark::kMicrosecond);

}  // namespace
