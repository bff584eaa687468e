/*
 * Inserting and selecting tiles through the content library, against raw
 * SQLite doing the same work with one reused prepared statement, in the same
 * run (bench/BenchMain.cpp prints the ratios).
 */
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <bundle.h>

#include "DbHelper.h"
#include "TilesModel.h"

namespace {

const int kRowsPerBatch = 1000;

/* The values of one tile row, as column name -> text. */
std::vector<std::pair<std::string, std::string>> TileRow(int index)
{
    using namespace TilesModel::Tiles;
    return {
        {TILE_ID, "tile-" + std::to_string(index)},
        {TILE_SECTION_RAW_ID, "1"},
        {TILE_TYPE, "VIDEO"},
        {TILE_TITLE, "Episode " + std::to_string(index) + ": the one with 'quotes'; and more"},
        {TILE_SUBTITLE, "Season 2"},
        {TILE_IMAGE_URL, "https://images.example.invalid/tiles/" + std::to_string(index) + ".png"},
        {TILE_ACTION_PLAY, "play://" + std::to_string(index)},
        {TILE_POSITION, std::to_string(index)},
    };
}

class BenchDirectory
{
public:
    BenchDirectory()
    {
        char pattern[] = "/tmp/tilvane-bench-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~BenchDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::string Path() const { return m_path + "/"; }

private:
    std::string m_path;
};

/* A tiles database with one accelerator and one section, made by the service's helper. */
std::unique_ptr<CDbHelper> MakeTilesDatabase(const BenchDirectory& directory, const std::string& file)
{
    auto helper = std::make_unique<CDbHelper>(directory.Path(), file, 15);
    std::string error;
    helper->GetConnection()->ExcuteSQL("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1, 'pkg');"
                                       "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 1);",
                                       error);
    return helper;
}

struct RawDatabase
{
    sqlite3* db = nullptr;
    explicit RawDatabase(const std::string& path)
    {
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;", nullptr,
                     nullptr, nullptr);
    }
    ~RawDatabase() { sqlite3_close_v2(db); }
    void Exec(const char* sql) { sqlite3_exec(db, sql, nullptr, nullptr, nullptr); }
};

std::vector<bundle*> MakeBundles()
{
    std::vector<bundle*> bundles;
    for (int i = 0; i < kRowsPerBatch; ++i) {
        bundle* b = bundle_create();
        for (const auto& [key, value] : TileRow(i)) {
            bundle_add_str(b, key.c_str(), value.c_str());
        }
        bundles.push_back(b);
    }
    return bundles;
}

void FreeBundles(std::vector<bundle*>& bundles)
{
    for (bundle* b : bundles) {
        bundle_free(b);
    }
    bundles.clear();
}

void BM_InsertTiles_Library(benchmark::State& state)
{
    BenchDirectory directory;
    std::unique_ptr<CDbHelper> helper = MakeTilesDatabase(directory, "library.db");
    CContentDbConnection* connection = helper->GetConnection();
    std::vector<bundle*> bundles = MakeBundles();
    std::string error;

    for (auto _ : state) {
        connection->BeginTransaction();
        for (bundle* b : bundles) {
            if (connection->InsertRequest("tiles", b) != 0) {
                state.SkipWithError("insert failed");
                break;
            }
        }
        connection->EndTransaction(true);

        state.PauseTiming();
        connection->ExcuteSQL("DELETE FROM tiles", error);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRowsPerBatch);
    FreeBundles(bundles);
}

void BM_InsertTiles_RawSQLite(benchmark::State& state)
{
    BenchDirectory directory;
    MakeTilesDatabase(directory, "raw.db");
    RawDatabase raw(directory.Path() + "raw.db");

    std::vector<std::vector<std::pair<std::string, std::string>>> rows;
    for (int i = 0; i < kRowsPerBatch; ++i) {
        rows.push_back(TileRow(i));
    }
    std::string sql = "INSERT INTO \"tiles\" (";
    std::string marks;
    for (size_t c = 0; c < rows[0].size(); ++c) {
        sql += (c == 0 ? "\"" : ", \"") + rows[0][c].first + "\"";
        marks += (c == 0 ? "?" : ", ?");
    }
    sql += ") VALUES (" + marks + ")";
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(raw.db, sql.c_str(), -1, &statement, nullptr);

    for (auto _ : state) {
        raw.Exec("BEGIN IMMEDIATE");
        for (const auto& row : rows) {
            for (size_t c = 0; c < row.size(); ++c) {
                sqlite3_bind_text(statement, static_cast<int>(c + 1), row[c].second.c_str(),
                                  static_cast<int>(row[c].second.size()), SQLITE_TRANSIENT);
            }
            if (sqlite3_step(statement) != SQLITE_DONE) {
                state.SkipWithError("insert failed");
            }
            sqlite3_reset(statement);
            sqlite3_clear_bindings(statement);
        }
        raw.Exec("COMMIT");

        state.PauseTiming();
        raw.Exec("DELETE FROM tiles");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRowsPerBatch);
    sqlite3_finalize(statement);
}

void BM_SelectTiles_Library(benchmark::State& state)
{
    BenchDirectory directory;
    std::unique_ptr<CDbHelper> helper = MakeTilesDatabase(directory, "library.db");
    CContentDbConnection* connection = helper->GetConnection();
    std::vector<bundle*> bundles = MakeBundles();
    connection->BeginTransaction();
    for (bundle* b : bundles) {
        connection->InsertRequest("tiles", b);
    }
    connection->EndTransaction(true);
    FreeBundles(bundles);

    std::vector<std::string> projection = {TilesModel::Tiles::_ID, TilesModel::Tiles::TILE_TITLE,
                                           TilesModel::Tiles::TILE_IMAGE_URL, TilesModel::Tiles::TILE_POSITION};
    for (auto _ : state) {
        std::shared_ptr<ISQLiteCursor> cursor =
            connection->SelectRequest("tiles", projection, "tile_section_raw_id = ?", {"1"}, "", "");
        int64_t id = 0;
        int position = 0;
        std::string title;
        std::string url;
        int rows = 0;
        while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
            cursor->GetInt64(0, id);
            cursor->GetString(1, title);
            cursor->GetString(2, url);
            cursor->GetInt(3, position);
            ++rows;
        }
        benchmark::DoNotOptimize(rows);
    }
    state.SetItemsProcessed(state.iterations() * kRowsPerBatch);
}

void BM_SelectTiles_RawSQLite(benchmark::State& state)
{
    BenchDirectory directory;
    std::unique_ptr<CDbHelper> helper = MakeTilesDatabase(directory, "raw.db");
    std::vector<bundle*> bundles = MakeBundles();
    for (bundle* b : bundles) {
        helper->GetConnection()->InsertRequest("tiles", b);
    }
    FreeBundles(bundles);
    helper.reset();
    RawDatabase raw(directory.Path() + "raw.db");

    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(raw.db,
                       "SELECT _id, tile_title, tile_image_url, tile_position FROM \"tiles\" WHERE tile_section_raw_id = ?",
                       -1, &statement, nullptr);
    for (auto _ : state) {
        sqlite3_bind_text(statement, 1, "1", 1, SQLITE_TRANSIENT);
        int rows = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            int64_t id = sqlite3_column_int64(statement, 0);
            std::string title = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
            std::string url = reinterpret_cast<const char*>(sqlite3_column_text(statement, 2));
            int position = sqlite3_column_int(statement, 3);
            benchmark::DoNotOptimize(id);
            benchmark::DoNotOptimize(position);
            ++rows;
        }
        sqlite3_reset(statement);
        benchmark::DoNotOptimize(rows);
    }
    state.SetItemsProcessed(state.iterations() * kRowsPerBatch);
    sqlite3_finalize(statement);
}

BENCHMARK(BM_InsertTiles_Library)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InsertTiles_RawSQLite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectTiles_Library)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SelectTiles_RawSQLite)->Unit(benchmark::kMicrosecond);

}  // namespace
