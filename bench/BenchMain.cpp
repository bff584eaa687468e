/*
 * The benchmark program: runs every registered benchmark, prints the usual
 * table, then one line per pair of a measured path and its baseline from the
 * same run, as the ratio of their times per iteration.
 */
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0 && !run.error_occurred) {
                m_secondsPerIteration[run.benchmark_name()] =
                    run.real_accumulated_time / static_cast<double>(run.iterations);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    /* "ratio <what>: <measured> / <baseline> = r (a vs b per iteration)". Pairs
     * not run (filtered out) print nothing. */
    void PrintRatio(const std::string& what, const std::string& measured, const std::string& baseline,
                    const std::string& baselineName) const
    {
        auto path = m_secondsPerIteration.find(measured);
        auto base = m_secondsPerIteration.find(baseline);
        if (path == m_secondsPerIteration.end() || base == m_secondsPerIteration.end() || base->second <= 0) {
            return;
        }
        std::printf("ratio %-34s / %-22s = %5.2f  (%.1f us vs %.1f us per iteration)\n", what.c_str(),
                    baselineName.c_str(), path->second / base->second, path->second * 1e6, base->second * 1e6);
    }

private:
    std::map<std::string, double> m_secondsPerIteration;
};

}  // namespace

/* bench/RequestRoadBench.cpp: the body of its provider process. */
int RunRoadBenchProvider(int readyFd, const char* directory);

int main(int argc, char** argv)
{
    // Every benchmark process runs as one user: the development identity mode,
    // unless the caller names a configuration of its own.
    setenv("TILVANE_CONFIG", TILVANE_DEVELOPMENT_CONFIG, 0);
    if (argc == 4 && std::string(argv[1]) == "--road-bench-provider") {
        return RunRoadBenchProvider(std::atoi(argv[2]), argv[3]);
    }
    // Keep debug lines out of the figures unless asked for.
    setenv("TILVANE_LOG_LEVEL", "W", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    // bench/ContentDbConnectionBench.cpp: 1000 tiles per iteration.
    reporter.PrintRatio("insert 1000 tiles (one transaction)", "BM_InsertTiles_Library", "BM_InsertTiles_RawSQLite",
                        "raw SQLite");
    reporter.PrintRatio("select 1000 tiles", "BM_SelectTiles_Library", "BM_SelectTiles_RawSQLite", "raw SQLite");
    reporter.PrintRatio("road: single insert", "BM_RoadInsert_Content/real_time", "BM_RoadInsert_BareCall/real_time", "bare D-Bus call");
    reporter.PrintRatio("road: bulk insert 1000 rows", "BM_RoadBulkInsert1000_Content/real_time", "BM_RoadBulkInsert1000_BareCall/real_time",
                        "bare D-Bus call");
    reporter.PrintRatio("road: select 1000 tiles", "BM_RoadSelect1000_Content/real_time", "BM_RoadSelect1000_RawSQLite/real_time",
                        "raw SQLite");
    // bench/HandlerBench.cpp: the provider's handlers in process.
    reporter.PrintRatio("handler: insert one tile", "BM_HandlerInsertTile_Provider", "BM_HandlerInsertTile_RawSQLite",
                        "its raw SQLite statements");
    reporter.PrintRatio("handler: read 20 tiles", "BM_HandlerSelectTiles_Provider", "BM_HandlerSelectTiles_RawSQLite",
                        "its raw SQLite statements");
    // bench/PermissionBench.cpp: read level + tiles filter, 50 sections.
    reporter.PrintRatio("read level + tiles query", "BM_PermissionTilesRead_Helper", "BM_PermissionTilesRead_RawSQLite",
                        "its raw SQLite selects");
    // bench/EventBench.cpp: one event to N subscribers over the bus.
    for (const char* subscribers : {"1", "10", "100"}) {
        reporter.PrintRatio(std::string("event to ") + subscribers + " subscriber(s)",
                            std::string("BM_EventSend_MessageHelper/") + subscribers + "/real_time",
                            std::string("BM_EventSend_BarePort/") + subscribers + "/real_time", "bare port sends");
    }
    benchmark::Shutdown();
    return 0;
}
