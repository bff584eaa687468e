/*
 * What the statistics (platform/host/stats/request_stats.h) cost a request:
 * the real service on the benchmarks' bus, requests from this process through
 * the content interface as an installed application, in blocks of 40, with
 * statistics on against the same requests with them off ([stats] enabled,
 * switched between the blocks by rewriting the configuration and SIGHUP,
 * untimed; each switch is waited for through the service's own answer).
 * Blocks alternate in order (A B, B A), after one untimed block of each.
 */
#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <tilvane_client.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <host_control.h>

#include "BenchBus.h"
#include "BenchData.h"
#include "BenchFigures.h"
#include "PreviewApps.h"
#include "TilesModel.h"
#include "admin/admin_client.h"
#include "stats/request_stats.h"

namespace {

const char kServiceAppId[] = "com.quillon.px.tilvane";
/* The package the benchmark's application is installed in. */
const char kApp[] = "org.example.benchstats";
constexpr int kBlock = 40;

/* The real service with statistics switchable, for the life of the program. */
class StatsBenchSetup
{
public:
    static StatsBenchSetup& Get()
    {
        static StatsBenchSetup* setup = new StatsBenchSetup();
        return *setup;
    }

    bool Ready() const { return m_ready && s_servicePid > 0; }
    long long Section() const { return m_section; }

    /* Statistics on or off in the running service; false when it did not
     * take the change within 10 s. */
    bool SwitchStatistics(bool on)
    {
        WriteConfiguration(on);
        kill(s_servicePid, SIGHUP);
        const std::string wanted = std::string("\"enabled\": ") + (on ? "true" : "false");
        for (int i = 0; i < 1000; ++i) {
            const tilvane::host::admin::AdminAnswer answer = tilvane::host::admin::GetStatistics();
            if (answer.ok && answer.text.find(wanted) != std::string::npos) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

private:
    StatsBenchSetup()
    {
        char pattern[] = "/tmp/tilvane-stats-bench-XXXXXX";
        if (!EnsureBenchBus() || mkdtemp(pattern) == nullptr) {
            return;
        }
        s_root = pattern;
        mkdir((s_root + "/etc").c_str(), 0755);
        WriteConfiguration(true);
        /* The requests are made as whatever application this process runs as. */
        tilvane::host::SetPlatformRoot(s_root);
        const bool installed = tilvane::test::InstallPreviewWriter(kApp, tilvane::host::OwnAppId());
        tilvane::host::SetPlatformRoot(std::string());
        StopBenchServices();
        if (!installed || !StartService() || !WaitForBenchService(kServiceAppId, "preview-event-receiver")) {
            return;
        }
        std::atexit(StopAll);
        RegisterBenchService(StopAll);
        m_ready = Seed();
    }

    static void WriteConfiguration(bool statistics)
    {
        std::ofstream out(s_root + "/etc/tilvane.conf", std::ios::trunc);
        out << "[identity]\nmode = development\n[stats]\nenabled = " << (statistics ? "true" : "false") << "\n";
    }

    /* A section under this application's launcher entry (which its first
     * read makes) and 100 tiles in it. */
    bool Seed()
    {
        tilvane::client::ContentClient client;
        const tilvane::client::Result entry =
            client.Select(TilesModel::Accelerators::CONTENT_URI, {TilesModel::Accelerators::_ID}, "", {}, "", "");
        if (!entry.Ok() || entry.rows.rows.size() != 1) {
            return false;
        }
        const tilvane::client::Result section =
            client.Insert(TilesModel::Sections::CONTENT_URI, BenchSection(0, entry.rows.rows[0][0].integer));
        if (!section.Ok()) {
            return false;
        }
        m_section = section.rowId;
        for (int i = 0; i < 100; ++i) {
            if (!client.Insert(TilesModel::Tiles::CONTENT_URI, BenchTile(i, m_section, kApp)).Ok()) {
                return false;
            }
        }
        return true;
    }

    static bool StartService()
    {
        /* The configuration it reads is the one this benchmark switches. */
        s_servicePid = SpawnBenchProgram({TILVANE_SERVICE_BINARY},
                                         {"TILVANE_PLATFORM_ROOT=" + s_root, std::string("TILVANE_APP_ID=") + kServiceAppId,
                                          "TILVANE_CONFIG=" + s_root + "/etc/tilvane.conf", "TILVANE_LOG_LEVEL=W"},
                                         s_root + "/service.err");
        return s_servicePid > 0;
    }

    static void StopAll() { StopBenchServiceAndRemove(s_servicePid, s_root); }

    bool m_ready = false;
    long long m_section = -1;
    static pid_t s_servicePid;
    static std::string s_root;
};

pid_t StatsBenchSetup::s_servicePid = -1;
std::string StatsBenchSetup::s_root;

/* Blocks of requests with statistics on (the subject) and off, in pairs
 * whose order alternates (A B, B A), after one untimed block of each. Each
 * pair gives the ratio of its two blocks, and the repetition's figure is the
 * median of those ratios: a burst of another program's load falls on one
 * block and moves one ratio, not the repetition's. */
template <typename Request>
void RunStatisticsOnAgainstOff(benchmark::State& state, const std::string& figure, Request&& request)
{
    StatsBenchSetup& setup = StatsBenchSetup::Get();
    if (!setup.Ready()) {
        state.SkipWithError("no bus, or the service did not start");
        return;
    }
    using Clock = std::chrono::steady_clock;
    auto block = [&](bool on, double& seconds) {
        if (!setup.SwitchStatistics(on)) {
            return false;
        }
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kBlock; ++i) {
            if (!request()) {
                return false;
            }
        }
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return true;
    };
    double ignored = 0;
    bool ok = block(true, ignored) && block(false, ignored);
    std::vector<double> ratios;
    std::vector<double> baselines;
    for (auto _ : state) {
        for (int pair = 0; pair < Pairs(40, 3) && ok; ++pair) {
            double on = 0;
            double off = 0;
            ok = pair % 2 == 0 ? block(true, on) && block(false, off) : block(false, off) && block(true, on);
            ratios.push_back(on / off);
            baselines.push_back(off);
        }
    }
    setup.SwitchStatistics(true);
    if (!ok || ratios.empty()) {
        state.SkipWithError("a request or a switch failed");
        return;
    }
    std::sort(ratios.begin(), ratios.end());
    std::sort(baselines.begin(), baselines.end());
    const double ratio = ratios[ratios.size() / 2];
    const double baseline = baselines[baselines.size() / 2];
    state.counters["ratio"] = ratio;
    RecordRatio(figure, 1.03, ratio * baseline, baseline, "the same requests with statistics off (median of pairs)");
}

void BM_StatsCostSelectOneTile(benchmark::State& state)
{
    tilvane::client::ContentClient client;
    const std::string where = std::string(TilesModel::Tiles::TILE_ID) + " = ?";
    RunStatisticsOnAgainstOff(state, "statistics on/off: select one tile (bus)", [&] {
        const tilvane::client::Result result = client.Select(
            TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID, TilesModel::Tiles::TILE_TITLE}, where,
            {std::string(kApp) + ".tile.50"}, "", "");
        return result.Ok() && result.rows.rows.size() == 1;
    });
}

void BM_StatsCostInsertTile(benchmark::State& state)
{
    tilvane::client::ContentClient client;
    int next = 1000;
    RunStatisticsOnAgainstOff(state, "statistics on/off: insert one tile (bus)", [&] {
        return client.Insert(TilesModel::Tiles::CONTENT_URI, BenchTile(next++, StatsBenchSetup::Get().Section(), kApp))
            .Ok();
    });
}

/* What the statistics do for one request, in process and without the bus:
 * the scope (two clock reads, the record merged under a lock) and, for each
 * of `statements` statements, the two clock reads of the trace hook and the
 * histogram's update. */
void BM_StatsWorkPerRequest(benchmark::State& state)
{
    namespace stats = tilvane::host::stats;
    const std::string interfaceName = "Content";
    const std::string method = "Insert";
    const int statements = static_cast<int>(state.range(0));
    stats::SetEnabled(true);
    for (auto _ : state) {
        stats::RequestScope scope(interfaceName, method, stats::MonotonicUs());
        for (int i = 0; i < statements; ++i) {
            const int64_t start = stats::MonotonicUs();
            stats::NoteStatement(stats::MonotonicUs() - start);
        }
    }
    stats::Reset();
}

BENCHMARK(BM_StatsWorkPerRequest)->Arg(1)->Arg(20)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_StatsCostSelectOneTile)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StatsCostInsertTile)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
