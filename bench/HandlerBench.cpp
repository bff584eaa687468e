/*
 * The provider's request handlers in process, reached through the callbacks
 * it registered with the content library, at the service's default log level,
 * for a caller with 1, 10, 100 and 1,000 sections; against raw SQLite running
 * the statements the handler issues, interleaved in the same run:
 *   - insert one tile with all its columns: the level query and the insert
 *     (both prepared once, bound as the library binds); the write-ahead log
 *     is checkpointed between them, untimed (RawConnection::SettleLog);
 *   - select one tile: the level query, the accelerators and sections selects
 *     (prepared once) and the confined tiles select, whose text holds the
 *     caller's section ids: built per request, and prepared again only when
 *     the text changed (as the library's statement cache does).
 */
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <content_provider_dispatch.h>

#include "BenchData.h"
#include "BenchFigures.h"
#include "BenchProvider.h"
#include "SharedQueryObject.h"
#include "TilesModel.h"

namespace {

const char kAppId[] = "org.example.bench.app";
const char kPackage[] = "org.example.bench";

/* Writes the benchmark's tiles (setup only, not measured). */
class RawTileInserter
{
public:
    explicit RawTileInserter(const std::string& path)
    {
        sqlite3_open(path.c_str(), &m_db);
        sqlite3_busy_timeout(m_db, 5000);
        sqlite3_exec(m_db, "BEGIN", nullptr, nullptr, nullptr);
    }
    ~RawTileInserter()
    {
        sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(m_db);
    }
    void Insert(const BenchValues& values)
    {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(m_db, RawInsertSql(values).c_str(), -1, &statement, nullptr);
        int at = 1;
        for (const auto& entry : values) {
            sqlite3_bind_text(statement, at++, entry.second.c_str(), -1, SQLITE_STATIC);
        }
        sqlite3_step(statement);
        sqlite3_finalize(statement);
    }

private:
    sqlite3* m_db = nullptr;
};

/* A provider on a platform root of its own, with one application that owns
 * accelerator 1001, `sections` sections (raw ids 1..sections) and one tile in
 * each, and another application with ten sections of its own. */
/* The provider with a caller of `sections` sections holding one tile each,
 * and another package with 10 sections. */
class HandlerBenchService : public BenchProvider
{
public:
    explicit HandlerBenchService(int sections) : BenchProvider("handler", kPackage, kAppId)
    {
        std::string sql = "BEGIN;"
                          "INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1001, 'org.example.bench');"
                          "INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1002, 'org.example.other');";
        for (int i = 1; i <= sections; ++i) {
            sql += "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (" + std::to_string(i) +
                   ", 's" + std::to_string(i) + "', 1001);";
        }
        for (int i = 1; i <= 10; ++i) {
            sql += "INSERT INTO sections (section_id, section_accelerator_raw_id) VALUES ('o" + std::to_string(i) +
                   "', 1002);";
        }
        sql += "COMMIT;";
        Exec(sql);
        RawTileInserter tiles(DatabasePath());
        for (int i = 1; i <= sections; ++i) {
            tiles.Insert(BenchTile(i, i, kPackage));
        }
    }
};

/* Raw SQLite with the service's settings. */
class RawConnection
{
public:
    explicit RawConnection(const std::string& path)
    {
        sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_busy_timeout(m_db, 5000);
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
    sqlite3* Get() const { return m_db; }
    /* Untimed, between the inserts of both sides: every 32 pairs, the log
     * checkpointed and started afresh by a write of this connection's own
     * (CheckpointLog). */
    void SettleLog()
    {
        if (++m_settles % 64 != 0) {
            return;
        }
        CheckpointLog(m_db);
        sqlite3_exec(m_db,
                     "CREATE TABLE IF NOT EXISTS bench_scratch (x INTEGER); INSERT INTO bench_scratch VALUES (1);"
                     "DELETE FROM bench_scratch;",
                     nullptr, nullptr, nullptr);
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
        std::string text;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            for (int c = 0; c < sqlite3_column_count(statement); ++c) {
                const unsigned char* value = sqlite3_column_text(statement, c);
                text.assign(value != nullptr ? reinterpret_cast<const char*>(value) : "");
                benchmark::DoNotOptimize(text);
            }
            ++rows;
        }
        sqlite3_reset(statement);
        return rows;
    }

private:
    sqlite3* m_db = nullptr;
    std::vector<sqlite3_stmt*> m_statements;
    int m_settles = 0;
};

std::string SectionsName(int sections)
{
    return std::to_string(sections) + (sections == 1 ? " section" : " sections");
}

void BM_HandlerInsertTile(benchmark::State& state)
{
    const int sections = static_cast<int>(state.range(0));
    HandlerBenchService service(sections);
    RawConnection raw(service.DatabasePath());
    const BenchValues row = BenchTile(100000, 1, kPackage);
    bundle* values = bundle_create();
    for (const auto& entry : row) {
        bundle_add_str(values, entry.first.c_str(), entry.second.c_str());
    }
    // The level query (package pasted, as the service does) and the insert.
    sqlite3_stmt* level = raw.Prepare(
        "SELECT accelerator_app_pkg_name FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* insert = raw.Prepare(RawInsertSql(row));
    RunInterleaved(
        state, "handler insert one tile, " + SectionsName(sections), 0, Pairs(300, 30),
        [&] { return BenchProvider::InsertTile(kAppId, values); },
        [&] {
            RawConnection::Drain(level);
            int at = 1;
            for (const auto& entry : row) {
                sqlite3_bind_text(insert, at++, entry.second.c_str(), -1, SQLITE_STATIC);
            }
            const bool done = sqlite3_step(insert) == SQLITE_DONE;
            sqlite3_reset(insert);
            sqlite3_clear_bindings(insert);
            return done;
        },
        "its raw SQLite statements", [&] { raw.SettleLog(); });
    bundle_free(values);
}

void BM_HandlerSelectOneTile(benchmark::State& state)
{
    const int sections = static_cast<int>(state.range(0));
    HandlerBenchService service(sections);
    RawConnection raw(service.DatabasePath());
    const std::string tileId = std::string(kPackage) + ".tile." + std::to_string(sections);
    const std::string where = "tile_id = '" + tileId + "'";
    sqlite3_stmt* level = raw.Prepare(
        "SELECT accelerator_app_pkg_name FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* accelerators =
        raw.Prepare("SELECT _id FROM \"accelerators\" WHERE accelerator_app_pkg_name='org.example.bench'");
    sqlite3_stmt* sectionIds = raw.Prepare("SELECT _id FROM \"sections\" WHERE section_accelerator_raw_id IN (1001)");
    const std::vector<std::string> projection = {TilesModel::Tiles::_ID, TilesModel::Tiles::TILE_ID,
                                                 TilesModel::Tiles::TILE_TITLE, TilesModel::Tiles::TILE_IMAGE_URL};
    std::string lastSql;
    sqlite3_stmt* tiles = nullptr;
    auto readAll = [](auto& cursor, int columns) {
        std::string text;
        int rows = 0;
        while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
            for (int c = 0; c < columns; ++c) {
                cursor->GetString(c, text);
            }
            ++rows;
        }
        return rows;
    };
    RunInterleaved(
        state, "handler select one tile, " + SectionsName(sections), sections == 1000 ? 2.0 : 0, Pairs(200, 10),
        [&] {
            PT_PROVIDER_SELECT_IN_PARAM in;
            in.strAppId = kAppId;
            in.strUri = TilesModel::Tiles::CONTENT_URI;
            in.vecProjection = projection;
            in.strWhere = where;
            PT_PROVIDER_SELECT_OUT_PARAM out;
            bool result = false;
            tilvane::content::DispatchSelect(in, out, result);
            std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
            return result && cursor != nullptr && readAll(cursor, static_cast<int>(projection.size())) == 1;
        },
        [&] {
            RawConnection::Drain(level);
            RawConnection::Drain(accelerators);
            std::string filter = "tile_section_raw_id IN (";
            bool first = true;
            while (sqlite3_step(sectionIds) == SQLITE_ROW) {
                filter += first ? "" : ",";
                filter += std::to_string(sqlite3_column_int64(sectionIds, 0));
                first = false;
            }
            sqlite3_reset(sectionIds);
            filter += ")";
            const std::string sql =
                "SELECT \"_id\",\"tile_id\",\"tile_title\",\"tile_image_url\" FROM \"tiles\" WHERE " + filter +
                " AND " + where;
            if (sql != lastSql) {
                sqlite3_finalize(tiles);
                tiles = nullptr;
                if (sqlite3_prepare_v2(raw.Get(), sql.c_str(), -1, &tiles, nullptr) != SQLITE_OK) {
                    return false;
                }
                lastSql = sql;
            }
            return RawConnection::Drain(tiles) == 1;
        },
        "its raw SQLite statements");
    sqlite3_finalize(tiles);
}

BENCHMARK(BM_HandlerInsertTile)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HandlerSelectOneTile)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
