/*
 * What the worst request of one application costs another, against the real
 * service on the benchmarks' bus: an attacker (tilvanectl, run as an
 * application of its own) selects its own tiles with a where clause that
 * never ends (the recursive CTE, or the six-way join of its 200 tiles), and
 * this process, as another application, sends its one-tile select while the
 * attack runs (once the service's log shows the attacker's statement
 * starting). Interleaved with the same select alone. The service runs with a
 * time budget of 500 ms, so that a run stays short: the select's latency
 * during an attack follows the budget, so the figure to read is its excess
 * over the budget.
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

#include "BenchBus.h"
#include "BenchFigures.h"
#include "PreviewApps.h"
#include "TilesModel.h"

extern char** environ;

namespace {

const char kServiceAppId[] = "com.quillon.px.tilvane";
const char kAttacker[] = "org.example.benchattack.ui";
constexpr int kBudgetMs = 500;

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/* The real service with a time budget of 500 ms and the attacker's 200
 * tiles and this process's one tile, for the life of the program. */
class BudgetStallSetup
{
public:
    static BudgetStallSetup& Get()
    {
        static BudgetStallSetup* setup = new BudgetStallSetup();
        return *setup;
    }

    bool Ready() const { return m_ready && s_pid > 0; }
    const std::string& Root() const { return s_root; }
    std::string ServiceLog() const { return ReadFile(s_root + "/service.err"); }

private:
    BudgetStallSetup()
    {
        StopBenchServices();
        char pattern[] = "/tmp/tilvane-budget-bench-XXXXXX";
        if (!EnsureBenchBus() || mkdtemp(pattern) == nullptr) {
            return;
        }
        s_root = pattern;
        tilvane::host::SetPlatformRoot(s_root);
        const bool installed = tilvane::test::InstallPreviewWriter("org.example.benchattack", kAttacker) &&
                               tilvane::test::InstallPreviewWriter("org.example.benchvictim", tilvane::host::OwnAppId());
        tilvane::host::SetPlatformRoot(std::string());
        std::ofstream(s_root + "/budget.conf") << "[identity]\nmode = development\n[budget]\nstatement-ms = "
                                                << kBudgetMs << "\n";
        s_pid = installed ? SpawnBenchProgram({TILVANE_SERVICE_BINARY},
                                  {"TILVANE_PLATFORM_ROOT=" + s_root, "TILVANE_CONFIG=" + s_root + "/budget.conf",
                                   std::string("TILVANE_APP_ID=") + kServiceAppId, "TILVANE_LOG_LEVEL=D"},
                                  s_root + "/service.err")
                          : -1;
        m_ready = s_pid > 0 && WaitForBenchService(kServiceAppId, "preview-event-receiver") && Seed();
        std::atexit(StopAll);
        RegisterBenchService(StopAll);
    }

    /* The attacker's 200 tiles and this process's one, written as the
     * service's own database file takes them. */
    static bool Seed()
    {
        const std::string sql =
            "INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES "
            "(101, 'org.example.benchattack'), (102, 'org.example.benchvictim');"
            "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (101, 'a', 101), (102, 'v', 102);"
            "INSERT INTO tiles (tile_id, tile_section_raw_id) WITH RECURSIVE c(x) AS "
            "(SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<200) SELECT 'a' || x, 101 FROM c;"
            "INSERT INTO tiles (tile_id, tile_section_raw_id) VALUES ('v1', 102);";
        sqlite3* db = nullptr;
        bool ok = sqlite3_open((s_root + "/opt/dbspace/.preview.db").c_str(), &db) == SQLITE_OK;
        sqlite3_busy_timeout(db, 5000);
        ok = ok && sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
        sqlite3_close(db);
        return ok;
    }

    static void StopAll() { StopBenchServiceAndRemove(s_pid, s_root); }

    bool m_ready = false;
    static pid_t s_pid;
    static std::string s_root;
};

pid_t BudgetStallSetup::s_pid = -1;
std::string BudgetStallSetup::s_root;

/* This process's one-tile select; seconds, or a negative number when it failed. */
double TimedSelect(const tilvane::client::ContentClient& client)
{
    const auto start = std::chrono::steady_clock::now();
    const tilvane::client::Result result =
        client.Select(TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "tile_id = ?", {"v1"}, "", "");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result.Ok() && result.rows.rows.size() == 1 ? seconds : -1.0;
}

/* Starts the attack and waits until the service logs the attacker's row
 * filter, right before its statement; false when it did not come. */
pid_t StartAttack(BudgetStallSetup& setup, const std::string& where)
{
    const size_t before = setup.ServiceLog().size();
    const pid_t attacker =
        SpawnBenchProgram({TILVANECTL_BINARY, "data", "select", "tiles", "--columns", "tile_id", "--where", where},
              {"TILVANE_PLATFORM_ROOT=" + setup.Root(), std::string("TILVANE_APP_ID=") + kAttacker,
               "TILVANE_LOG_LEVEL=W"},
              setup.Root() + "/attacker.err");
    for (int attempt = 0; attempt < 2000; ++attempt) {
        const std::string log = setup.ServiceLog();
        const size_t at = log.find(std::string("AppId = ") + kAttacker, before);
        if (at != std::string::npos && log.find("generated query", at) != std::string::npos) {
            return attacker;
        }
        g_usleep(1000);
    }
    kill(attacker, SIGKILL);
    waitpid(attacker, nullptr, 0);
    return -1;
}

void RunStall(benchmark::State& state, const std::string& attack, const std::string& where)
{
    BudgetStallSetup& setup = BudgetStallSetup::Get();
    if (!setup.Ready()) {
        state.SkipWithError("no bus, or the service did not start");
        return;
    }
    tilvane::client::ContentClient client;
    const int pairs = Pairs(5, 2);
    double alone = 0;
    double during = 0;
    for (auto _ : state) {
        for (int i = 0; i < pairs; ++i) {
            const double quiet = TimedSelect(client);
            const pid_t attacker = StartAttack(setup, where);
            const double attacked = attacker > 0 ? TimedSelect(client) : -1.0;
            int status = 0;
            waitpid(attacker, &status, 0);
            if (quiet < 0 || attacked < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 1) {
                state.SkipWithError("a select failed, or the attack was not refused");
                return;
            }
            alone += quiet;
            during += attacked;
        }
    }
    const std::string figure = "one-tile select during " + attack + " (time budget " + std::to_string(kBudgetMs) +
                               " ms)";
    RecordRatio(figure + " / alone", 0, during / pairs, alone / pairs, "the same select alone");
    RecordValue(figure + ", past the budget", 200, "ms", during / pairs * 1000 - kBudgetMs);
    state.counters["alone_ms"] = alone / pairs * 1000;
    state.counters["during_ms"] = during / pairs * 1000;
}

void BM_StallRecursiveWhere(benchmark::State& state)
{
    RunStall(state, "the recursive where clause",
             "EXISTS (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) SELECT 1 FROM c WHERE x<0)");
}

void BM_StallSixWayJoin(benchmark::State& state)
{
    RunStall(state, "the six-way join",
             "(SELECT count(*) FROM tiles a, tiles b, tiles c, tiles d, tiles e, tiles f) > 0");
}

BENCHMARK(BM_StallRecursiveWhere)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StallSixWayJoin)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
