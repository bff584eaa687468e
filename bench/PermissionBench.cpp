/*
 * The access decision of one tiles read: the caller's read level and the row
 * filter of the tiles table, for a package with one accelerator and 1, 10,
 * 100 or 1,000 sections, at the service's default log level; against raw
 * SQLite running the same three selects (the level query, the accelerators
 * select, the sections select) with statements prepared once and building the
 * same filter text, interleaved in the same run.
 */
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "BenchFigures.h"
#include "DbHelper.h"
#include "PermissionHelper.h"
#include "QueryGenerator.h"

namespace {

const char kPackage[] = "org.example.bench";

class PermissionBenchDatabase
{
public:
    explicit PermissionBenchDatabase(int sections)
    {
        char pattern[] = "/tmp/tilvane-permission-bench-XXXXXX";
        const char* made = mkdtemp(pattern);
        m_directory = made != nullptr ? made : "/tmp";
        m_pHelper = std::make_unique<CDbHelper>(m_directory + "/", ".preview.db", 15);
        std::string sql = "BEGIN;INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('other.package');"
                          "INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('" +
                          std::string(kPackage) + "');";
        for (int i = 0; i < sections; ++i) {
            sql += "INSERT INTO sections (section_id, section_accelerator_raw_id) VALUES ('s" + std::to_string(i) +
                   "', 2);";
        }
        sql += "COMMIT;";
        std::string error;
        m_pHelper->GetConnection()->ExcuteSQL(sql, error);
    }
    ~PermissionBenchDatabase()
    {
        m_pHelper.reset();
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }
    CDbHelper* Helper() { return m_pHelper.get(); }
    std::string Path() const { return m_directory + "/.preview.db"; }

private:
    std::string m_directory;
    std::unique_ptr<CDbHelper> m_pHelper;
};

/* The library path: what a tiles read asks of the access control. */
class HelperPath
{
public:
    explicit HelperPath(CDbHelper* db) : m_pDb(db), m_generator(db) {}
    size_t Run()
    {
        CPermissionHelper::PermissionLevel level =
            m_permissions.GetReadPermissionLevel("org.example.bench.app", kPackage, m_pDb);
        std::string where = m_generator.GenerateQuery("tiles", "tile_playable = 1", kPackage, level);
        return where.size() + static_cast<size_t>(level);
    }

private:
    CDbHelper* m_pDb;
    CPermissionHelper m_permissions;
    CQueryGenerator m_generator;
};

/* The raw path: the same three selects on prepared statements. */
class RawPath
{
public:
    explicit RawPath(const std::string& path)
    {
        sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr);
        const std::string package = kPackage;
        Prepare("SELECT accelerator_app_pkg_name FROM accelerators WHERE accelerator_app_pkg_name='" + package + "'",
                &m_level);
        Prepare("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name='" + package + "'", &m_accelerators);
        Prepare("SELECT _id FROM sections WHERE section_accelerator_raw_id IN (2)", &m_sections);
    }
    ~RawPath()
    {
        sqlite3_finalize(m_level);
        sqlite3_finalize(m_accelerators);
        sqlite3_finalize(m_sections);
        sqlite3_close_v2(m_db);
    }
    bool IsValid() const { return m_level != nullptr && m_accelerators != nullptr && m_sections != nullptr; }
    size_t Run()
    {
        size_t values = 0;
        for (sqlite3_stmt* statement : {m_level, m_accelerators}) {
            while (sqlite3_step(statement) == SQLITE_ROW) {
                values += static_cast<size_t>(sqlite3_column_bytes(statement, 0));
            }
            sqlite3_reset(statement);
        }
        std::string where = "tile_section_raw_id IN (";
        bool first = true;
        while (sqlite3_step(m_sections) == SQLITE_ROW) {
            where += first ? "" : ",";
            where += std::to_string(sqlite3_column_int64(m_sections, 0));
            first = false;
        }
        sqlite3_reset(m_sections);
        where += ") AND tile_playable = 1";
        return where.size() + values;
    }

private:
    void Prepare(const std::string& sql, sqlite3_stmt** statement)
    {
        if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, statement, nullptr) != SQLITE_OK) {
            *statement = nullptr;
        }
    }

    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_level = nullptr;
    sqlite3_stmt* m_accelerators = nullptr;
    sqlite3_stmt* m_sections = nullptr;
};

void BM_PermissionTilesRead(benchmark::State& state)
{
    const int sections = static_cast<int>(state.range(0));
    PermissionBenchDatabase database(sections);
    HelperPath helper(database.Helper());
    RawPath raw(database.Path());
    if (!raw.IsValid()) {
        state.SkipWithError("cannot prepare the raw statements");
        return;
    }
    RunInterleaved(
        state, "read level + tiles filter, " + std::to_string(sections) + " section(s)", 0, Pairs(300, 20),
        [&] { return helper.Run() > 0; }, [&] { return raw.Run() > 0; }, "its raw SQLite selects");
}

}  // namespace

BENCHMARK(BM_PermissionTilesRead)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Iterations(1)->Unit(benchmark::kMillisecond);
