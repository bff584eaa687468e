/*
 * The statement budgets (platform/host/content/statement_budget.h), three ways:
 *
 *   - what they cost an ordinary request: the provider's handlers in process,
 *     reached through the content library's dispatch inside a request's
 *     budget scope, with the progress handler and trace hook installed
 *     against the same requests with both removed, interleaved in one run;
 *   - the largest legitimate statements, timed as the service runs them
 *     (what the default time budget is derived from, docs/configuration.md):
 *     the launcher's read of every column of every tile that fits in one
 *     reply, ordered by position, and a package's update and delete of all
 *     the tiles strict confinement lets it have;
 *   - what the worst request of one application costs another: the real
 *     service, an attacker (tilvanectl, as its own application) sending the
 *     recursive where clause or the six-way join of its own 200 tiles, and
 *     this process's one-tile select sent while the attack runs, against the
 *     same select alone, interleaved.
 */
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <bundle.h>
#include <content_provider_dispatch.h>
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

#include "BenchBus.h"
#include "BenchData.h"
#include "BenchFigures.h"
#include "BenchProvider.h"
#include "PreviewApps.h"
#include "SharedQueryObject.h"
#include "TilesModel.h"
#include "requests/row_codec.h"
#include "content/statement_budget.h"
#include "requests/reply_budget.h"

extern char** environ;

namespace {

const char kAppId[] = "org.example.bench.app";
const char kPackage[] = "org.example.bench";
const char kLauncher[] = "ContentServiceManager";

/* The provider in process with `tiles` tiles of every column: the caller's
 * package owns the first 1,024 (in 16 sections), other packages the rest. */
class BudgetBenchService : public BenchProvider
{
public:
    explicit BudgetBenchService(int tiles) : BenchProvider("budget", kPackage, kAppId)
    {
        const int packages = (tiles + 1023) / 1024;
        std::string sql = "BEGIN;";
        for (int p = 0; p < packages; ++p) {
            const std::string id = std::to_string(1000 + p);
            sql += "INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (" + id + ", '" +
                   (p == 0 ? std::string(kPackage) : "org.example.other" + std::to_string(p)) + "');";
            for (int s = 0; s < 16; ++s) {
                sql += "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (" +
                       std::to_string((1000 + p) * 16 + s) + ", 's" + std::to_string(s) + "', " + id + ");";
            }
        }
        Exec(sql + "COMMIT;");
        sqlite3* db = nullptr;
        sqlite3_open(DatabasePath().c_str(), &db);
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        const BenchValues shape = BenchTile(0, 0);
        sqlite3_prepare_v2(db, RawInsertSql(shape).c_str(), -1, &insert, nullptr);
        for (int i = 0; i < tiles; ++i) {
            const BenchValues row = BenchTile(i, (1000 + i / 1024) * 16 + i % 16, i < 1024 ? kPackage : "other");
            RawInsertRows(db, insert, {row});
        }
        sqlite3_finalize(insert);
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
    }
};

/* A select through the dispatch, its rows encoded as the interface sends
 * them (within what one reply carries); false when it failed. */
bool SelectAndDrain(const char* appId, const std::vector<std::string>& projection, const std::string& where,
                    const std::string& order, size_t* bytes = nullptr)
{
    PT_PROVIDER_SELECT_IN_PARAM in;
    in.strAppId = appId;
    in.strUri = TilesModel::Tiles::CONTENT_URI;
    in.vecProjection = projection;
    in.strWhere = where;
    in.strOrderBy = order;
    PT_PROVIDER_SELECT_OUT_PARAM out;
    bool answered = false;
    tilvane::content::DispatchSelect(in, out, answered);
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
    if (!answered || cursor == nullptr) {
        return false;
    }
    std::string encoded;
    const tilvane::host::RowsEncoding ended =
        tilvane::host::EncodeCursorRows(*cursor, encoded, tilvane::host::requests::MaxReplyPayloadBytes());
    if (bytes != nullptr) {
        *bytes = encoded.size();
    }
    return ended == tilvane::host::RowsEncoding::Done;
}

/* The budgets of one request: the scope the request interfaces open. */
template <typename Request>
bool InScope(Request&& request)
{
    tilvane::content::StatementBudgetScope scope(kAppId, "bench");
    return request() && scope.Failure().empty();
}

/* Blocks of 20 requests, each in a request's budget scope as the request
 * interfaces open it: the subject with the progress handler and the trace
 * hook installed, the baseline with both removed. Before each block, untimed,
 * the state is set and `settle` runs; blocks alternate in order (A B, B A),
 * after one untimed block of each. */
template <typename Request>
void RunOnAgainstOff(benchmark::State& state, const std::string& figure, int pairs, Request&& request,
                     const std::function<void()>& settle = [] {})
{
    constexpr int kBlock = 20;
    auto block = [&] {
        bool ok = true;
        for (int i = 0; i < kBlock && ok; ++i) {
            ok = InScope(request);
        }
        return ok;
    };
    /* The first requests of a provider prepare its statements and fill its
     * caches: one block of each, untimed, before any is timed. */
    for (const bool subject : {true, false}) {
        settle();
        tilvane::content::SetStatementTimingInstalled(subject);
        block();
    }
    RunAlternating(state, figure, 1.05, pairs, block, block, "the same requests without the progress handler",
                   [&](bool subject) {
                       settle();
                       tilvane::content::SetStatementTimingInstalled(subject);
                   });
    tilvane::content::SetStatementTimingInstalled(true);
}

void BM_BudgetCostSelectOneTile(benchmark::State& state)
{
    BudgetBenchService service(1024);
    const std::string where = std::string("tile_id = '") + kPackage + ".tile.512'";
    RunOnAgainstOff(state, "budgets on/off: handler select one tile", Pairs(30, 4), [&] {
        return SelectAndDrain(kAppId, {TilesModel::Tiles::TILE_ID, TilesModel::Tiles::TILE_TITLE}, where, "");
    });
}

void BM_BudgetCostSelectAllOwnTiles(benchmark::State& state)
{
    BudgetBenchService service(1024);
    RunOnAgainstOff(state, "budgets on/off: handler select 1024 tiles, every column", Pairs(4, 1),
                    [&] { return SelectAndDrain(kAppId, {}, "", "tile_position"); });
}

void BM_BudgetCostInsertTile(benchmark::State& state)
{
    BudgetBenchService service(1024);
    bundle* values = bundle_create();
    for (const auto& entry : BenchTile(200000, 1000 * 16, kPackage)) {
        bundle_add_str(values, entry.first.c_str(), entry.second.c_str());
    }
    /* Both sides write: before every block the log is copied back and started
     * afresh with a write of another connection (BenchProvider.h). */
    sqlite3* raw = nullptr;
    sqlite3_open(service.DatabasePath().c_str(), &raw);
    sqlite3_busy_timeout(raw, 5000);
    RunOnAgainstOff(
        state, "budgets on/off: handler insert one tile", Pairs(30, 4),
        [&] { return BenchProvider::InsertTile(kAppId, values); },
        [&] {
            CheckpointLog(raw);
            sqlite3_exec(raw,
                         "CREATE TABLE IF NOT EXISTS bench_scratch (x INTEGER); INSERT INTO bench_scratch VALUES (1);"
                         "DELETE FROM bench_scratch;",
                         nullptr, nullptr, nullptr);
        });
    sqlite3_close(raw);
    bundle_free(values);
}

/* Milliseconds `work` takes inside a request's scope, with no budget
 * running out (a budget of an hour). */
template <typename Work>
double TimedInScope(Work&& work, bool* ok)
{
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n[budget]\nstatement-ms = 3600000\n");
    const auto start = std::chrono::steady_clock::now();
    *ok = InScope(work) && *ok;
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

void BM_LargestLegitimateStatements(benchmark::State& state)
{
    /* What fits in one reply of 32 MiB: about 45,000 tiles of every column
     * (a tenth of it in the short run). */
    const int tiles = ShortRun() ? 4500 : 45000;
    BudgetBenchService service(tiles);
    const std::string size = std::to_string(tiles) + " tiles";
    for (auto _ : state) {
        bool ok = true;
        size_t bytes = 0;
        const double read = TimedInScope([&] { return SelectAndDrain(kLauncher, {}, "", "tile_position", &bytes); }, &ok);
        const double update = TimedInScope(
            [&] {
                PT_PROVIDER_UPDATE_IN_PARAM in;
                in.strAppId = kAppId;
                in.strUri = TilesModel::Tiles::CONTENT_URI;
                bundle* values = bundle_create();
                bundle_add_str(values, TilesModel::Tiles::TILE_PROGRESS, "50");
                in.pValues = values;
                PT_PROVIDER_UPDATE_OUT_PARAM out;
                int result = -1;
                const bool found = tilvane::content::DispatchUpdate(in, out, result);
                bundle_free(values);
                return found && result == 0;
            },
            &ok);
        if (!ok) {
            state.SkipWithError("a statement failed");
            return;
        }
        RecordValue("largest legitimate statement: launcher reads every column of " + size + ", by position", 0,
                    "ms", read);
        RecordValue("largest legitimate statement: a package updates its 1024 tiles", 0, "ms", update);
        state.counters["read_ms"] = read;
        state.counters["read_MiB"] = static_cast<double>(bytes) / (1024 * 1024);
        state.counters["update_ms"] = update;
    }
}

BENCHMARK(BM_BudgetCostSelectOneTile)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BudgetCostSelectAllOwnTiles)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BudgetCostInsertTile)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LargestLegitimateStatements)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
