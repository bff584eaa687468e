/*
 * Inserting and selecting tiles through the content library against raw
 * SQLite doing the same work, on the same file, interleaved in the same run:
 * 1,000 tiles with all 26 columns in one transaction, and the select of those
 * 1,000 rows with every column. Both sides bind the values the same way (the
 * text stays where it is, SQLITE_STATIC) and reuse one prepared statement
 * (the library through its statement cache).
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

#include "BenchData.h"
#include "BenchFigures.h"
#include "BenchProvider.h"
#include "DbHelper.h"
#include "TilesModel.h"

namespace {

const int kRowsPerBatch = 1000;

class BenchDirectory
{
public:
    BenchDirectory()
    {
        char pattern[] = "/tmp/tilvane-bench-XXXXXX";
        const char* made = mkdtemp(pattern);
        m_path = made != nullptr ? made : "/tmp";
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

/* The tiles database made by the service's helper, with one accelerator and
 * one section; the library's connection and a raw one on the same file. */
class SharedFile
{
public:
    SharedFile() : m_helper(std::make_unique<CDbHelper>(m_directory.Path(), "tiles.db", 15))
    {
        std::string error;
        Library()->ExcuteSQL("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1, 'pkg');"
                             "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 1);",
                             error);
        sqlite3_open_v2((m_directory.Path() + "tiles.db").c_str(), &m_raw, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_busy_timeout(m_raw, 5000);
        sqlite3_exec(m_raw, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;", nullptr,
                     nullptr, nullptr);
        for (int i = 0; i < kRowsPerBatch; ++i) {
            m_rows.push_back(BenchTile(i, 1));
        }
    }
    ~SharedFile()
    {
        sqlite3_close_v2(m_raw);
        m_helper.reset();
    }
    CContentDbConnection* Library() { return m_helper->GetConnection(); }
    sqlite3* Raw() { return m_raw; }
    const std::vector<BenchValues>& Rows() const { return m_rows; }
    void Exec(const char* sql) { sqlite3_exec(m_raw, sql, nullptr, nullptr, nullptr); }

private:
    BenchDirectory m_directory;
    std::unique_ptr<CDbHelper> m_helper;
    sqlite3* m_raw = nullptr;
    std::vector<BenchValues> m_rows;
};

std::vector<bundle*> MakeBundles(const std::vector<BenchValues>& rows)
{
    std::vector<bundle*> bundles;
    for (const BenchValues& row : rows) {
        bundle* b = bundle_create();
        for (const auto& entry : row) {
            bundle_add_str(b, entry.first.c_str(), entry.second.c_str());
        }
        bundles.push_back(b);
    }
    return bundles;
}

void BM_InsertTiles(benchmark::State& state)
{
    SharedFile file;
    std::vector<bundle*> bundles = MakeBundles(file.Rows());
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(file.Raw(), RawInsertSql(file.Rows().front()).c_str(), -1, &insert, nullptr);
    CContentDbConnection* library = file.Library();
    // Each side starts from an empty table: the other side's rows are removed
    // before it, outside the timing, after an untimed checkpoint
    // (CheckpointLog; the removal starts the log afresh).
    RunInterleaved(
        state, "library insert 1000 tiles (one transaction)", 0, Pairs(10, 2),
        [&] {
            bool ok = library->BeginTransaction() == 0;
            for (bundle* b : bundles) {
                ok = ok && library->InsertRequest("tiles", b) == 0;
            }
            return library->EndTransaction(ok) == 0 && ok;
        },
        [&] { return RawInsertRows(file.Raw(), insert, file.Rows()); },
        "raw SQLite",
        [&] {
            CheckpointLog(file.Raw());
            file.Exec("DELETE FROM tiles");
        });
    sqlite3_finalize(insert);
    for (bundle* b : bundles) {
        bundle_free(b);
    }
}

void BM_SelectTiles(benchmark::State& state)
{
    SharedFile file;
    std::vector<bundle*> bundles = MakeBundles(file.Rows());
    CContentDbConnection* library = file.Library();
    library->BeginTransaction();
    for (bundle* b : bundles) {
        library->InsertRequest("tiles", b);
    }
    library->EndTransaction(true);
    for (bundle* b : bundles) {
        bundle_free(b);
    }
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(file.Raw(), "SELECT * FROM \"tiles\" WHERE tile_section_raw_id = ?", -1, &select, nullptr);
    RunInterleaved(
        state, "library select 1000 tiles, all columns", 0, Pairs(40, 5),
        [&] {
            std::vector<std::string> projection;
            std::shared_ptr<ISQLiteCursor> cursor =
                library->SelectRequest("tiles", projection, "tile_section_raw_id = ?", {"1"}, "", "");
            if (cursor == nullptr) {
                return false;
            }
            const int columns = cursor->GetColumnCount();
            std::string text;
            int64_t number = 0;
            int rows = 0;
            while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
                for (int c = 0; c < columns; ++c) {
                    if (cursor->GetColumnType(c) == SQLITE_INTEGER) {
                        cursor->GetInt64(c, number);
                    } else {
                        cursor->GetString(c, text);
                    }
                }
                ++rows;
            }
            benchmark::DoNotOptimize(number);
            return rows == kRowsPerBatch;
        },
        [&] {
            sqlite3_bind_text(select, 1, "1", -1, SQLITE_STATIC);
            const int columns = sqlite3_column_count(select);
            std::string text;
            int64_t number = 0;
            int rows = 0;
            while (sqlite3_step(select) == SQLITE_ROW) {
                for (int c = 0; c < columns; ++c) {
                    if (sqlite3_column_type(select, c) == SQLITE_INTEGER) {
                        number = sqlite3_column_int64(select, c);
                    } else {
                        const unsigned char* value = sqlite3_column_text(select, c);
                        text.assign(value != nullptr ? reinterpret_cast<const char*>(value) : "",
                                    static_cast<size_t>(sqlite3_column_bytes(select, c)));
                    }
                }
                ++rows;
            }
            sqlite3_reset(select);
            benchmark::DoNotOptimize(number);
            return rows == kRowsPerBatch;
        },
        "raw SQLite");
    sqlite3_finalize(select);
}

}  // namespace

BENCHMARK(BM_InsertTiles)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SelectTiles)->Iterations(1)->Unit(benchmark::kMillisecond);
