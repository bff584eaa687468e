/*
 * The request path with strict confinement on against the same path in the
 * default mode, interleaved in one run: every iteration makes the request once
 * in each mode (the integrator's switch is flipped between them, untimed), so
 * that both see the same database, caches and machine load. The provider's
 * handlers are reached in process through the content library's dispatch, as
 * in bench/HandlerBench.cpp; the caller is a public-level application with 20
 * tiles, among 49 other packages with 20 tiles each.
 */
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <functional>
#include <memory>
#include <string>

#include <bundle.h>
#include <content_provider_dispatch.h>
#include <host_control.h>

#include "BenchFigures.h"
#include "BenchProvider.h"
#include "SharedQueryObject.h"
#include "TilesModel.h"

namespace {

const char kAppId[] = "org.example.strictbench.app";
const char kPackage[] = "org.example.strictbench";
const int kOtherPackages = 49;
/* Strict confinement may cost at most this much over the default mode. */
const double kGoal = 1.2;
const char kDefaultMode[] = "[strict]\nconfinement = false\n";
const char kStrictMode[] = "[strict]\nconfinement = true\ntiles-per-package = 1000000\n";

/* The provider with the caller's 20 tiles in one section, among other
 * packages, and a connection of its own for checkpoints. */
class StrictBenchService : public BenchProvider
{
public:
    StrictBenchService() : BenchProvider("strict", kPackage, kAppId)
    {
        Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1001, 'org.example.strictbench');"
             "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 1001);");
        for (int i = 0; i < 20; ++i) {
            Exec("INSERT INTO tiles (tile_id, tile_title, tile_section_raw_id) VALUES ('t" + std::to_string(i) +
                 "', 'Title', 1)");
        }
        Exec(OtherPackages());
        sqlite3_open(DatabasePath().c_str(), &m_pCheckpointDb);
        sqlite3_exec(m_pCheckpointDb, "PRAGMA journal_mode", nullptr, nullptr, nullptr);
    }

    ~StrictBenchService() { sqlite3_close(m_pCheckpointDb); }

    /* Other packages' entries, each with two sections of ten tiles, so that
     * the caller's rows are found among others, as on a television. */
    static std::string OtherPackages()
    {
        std::string sql = "BEGIN;";
        for (int package = 0; package < kOtherPackages; ++package) {
            const std::string accelerator = std::to_string(2000 + package);
            sql += "INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (" + accelerator +
                   ", 'org.example.other" + std::to_string(package) + "');";
            for (int section = 0; section < 2; ++section) {
                const std::string sectionId = std::to_string(100 + package * 2 + section);
                sql += "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (" + sectionId + ", " +
                       accelerator + ");";
                for (int tile = 0; tile < 10; ++tile) {
                    sql += "INSERT INTO tiles (tile_id, tile_title, tile_section_raw_id) VALUES ('o" +
                           std::to_string(tile) + "', 'Other', " + sectionId + ");";
                }
            }
        }
        return sql + "COMMIT;";
    }

    void Checkpoint() { CheckpointLog(m_pCheckpointDb); }

private:
    sqlite3* m_pCheckpointDb = nullptr;
};

/* Requests between two checkpoints: each writes a few pages per mode, well
 * below the thousand pages at which SQLite checkpoints by itself. */
const int64_t kCheckpointEvery = 64;
const int kWarmUpPairs = 50;

/* The request made in strict mode (subject) and in the default mode
 * (baseline), alternately, Pairs() times per repetition; `request` returns
 * false when the provider did not serve it. After each request, untimed: the
 * integrator's switch is flipped for the other mode, and `undoRequest` puts
 * the database back, so that both modes always see the same 20 tiles. The
 * undo writes through the provider's own connection, which keeps its page
 * cache warm and makes the write after a checkpoint (the one that starts the
 * log afresh) an untimed one. */
void Interleave(benchmark::State& state, StrictBenchService& service, const std::string& name,
                const std::function<bool()>& request, const std::function<void()>& undoRequest)
{
    int64_t settled = 0;
    auto between = [&] {
        const bool strictNext = ++settled % 2 == 0;
        tilvane::host::SetConfigurationText(strictNext ? kStrictMode : kDefaultMode);
        if (settled % kCheckpointEvery == 0) {
            service.Checkpoint();
        }
        undoRequest();
    };
    // Untimed first requests in both modes: the statements each mode
    // prepares once, and the pages it reads first, are not what is measured.
    for (int i = 0; i < kWarmUpPairs; ++i) {
        tilvane::host::SetConfigurationText(kStrictMode);
        request();
        undoRequest();
        tilvane::host::SetConfigurationText(kDefaultMode);
        request();
        undoRequest();
    }
    tilvane::host::SetConfigurationText(kStrictMode);
    RunInterleaved(state, "strict confinement: " + name, kGoal, Pairs(3000, 1500), request, request,
                   "the default mode", between);
}

void BM_StrictConfinement_SelectWithWhere(benchmark::State& state)
{
    StrictBenchService service;
    Interleave(state, service, "read 20 tiles with a where clause", [] {
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strAppId = kAppId;
        in.strUri = TilesModel::Tiles::CONTENT_URI;
        in.vecProjection = {TilesModel::Tiles::_ID, TilesModel::Tiles::TILE_ID, TilesModel::Tiles::TILE_TITLE};
        in.strWhere = "tile_title = ? OR tile_id = 'none'";
        in.vecWhereArgs = {"Title"};
        PT_PROVIDER_SELECT_OUT_PARAM out;
        bool result = false;
        tilvane::content::DispatchSelect(in, out, result);
        std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
        if (!result || cursor == nullptr) {
            return false;
        }
        int rows = 0;
        std::string text;
        while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
            cursor->GetString(1, text);
            ++rows;
        }
        benchmark::DoNotOptimize(rows);
        return rows == 20;
    }, [] {});
}

void BM_StrictConfinement_UpdateWithWhere(benchmark::State& state)
{
    StrictBenchService service;
    bundle* values = bundle_create();
    bundle_add_str(values, TilesModel::Tiles::TILE_SUBTITLE, "seen");
    bundle* previous = bundle_create();
    bundle_add_str(previous, TilesModel::Tiles::TILE_SUBTITLE, "");
    auto updateTile = [](bundle* pValues) {
        PT_PROVIDER_UPDATE_IN_PARAM in;
        in.strAppId = kAppId;
        in.strUri = TilesModel::Tiles::CONTENT_URI;
        in.pValues = pValues;
        in.strWhere = "tile_id = ?";
        in.vecWhereArgs = {"t7"};
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        int result = -1;
        return tilvane::content::DispatchUpdate(in, out, result) && result == 0;
    };
    Interleave(state, service, "update a tile by its id", [&] { return updateTile(values); },
               [&] { updateTile(previous); });
    bundle_free(previous);
    bundle_free(values);
}

void BM_StrictConfinement_InsertTile(benchmark::State& state)
{
    StrictBenchService service;
    bundle* values = bundle_create();
    bundle_add_str(values, TilesModel::Tiles::TILE_ID, "new");
    bundle_add_str(values, TilesModel::Tiles::TILE_SECTION_RAW_ID, "1");
    Interleave(state, service, "insert one tile", [values] { return BenchProvider::InsertTile(kAppId, values); }, [] {
        /* Through the provider's own connection, so that its page cache stays warm. */
        PT_PROVIDER_DELETE_IN_PARAM in;
        in.strAppId = kAppId;
        in.strUri = TilesModel::Tiles::CONTENT_URI;
        in.strWhere = "tile_id = 'new'";
        int result = -1;
        tilvane::content::DispatchDelete(in, result);
    });
    bundle_free(values);
}

BENCHMARK(BM_StrictConfinement_SelectWithWhere)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StrictConfinement_UpdateWithWhere)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StrictConfinement_InsertTile)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
