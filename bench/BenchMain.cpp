/*
 * The benchmark program: runs every registered benchmark, prints the usual
 * table, then the table of figures (bench/BenchFigures.h): every ratio of a
 * measured path to its baseline from the same run, one per repetition, with
 * its median, range and goal; the figures are also saved as JSON.
 *
 * Own flags (taken out before the benchmark library reads the rest):
 *   --short               fewer pairs per repetition and smaller databases
 *   --figures_json=PATH   where the JSON goes (else $TILVANE_BENCH_FIGURES,
 *                         else bench-figures.json in the build folder)
 *   --bench_log=PATH      where the log lines of the in-process benchmarks go
 *                         (default /dev/null); they are formatted as the
 *                         service formats them, at the service's default level
 * Without --benchmark_repetitions the program runs 5 repetitions (3 short).
 */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BenchFigures.h"

extern bool g_shortRun;

/* bench/ServiceBench.cpp: the body of the bare server process. */
int RunBareServer(int readyFd, const char* directory);
/* bench/ServiceBench.cpp: its benchmarks depend on the short flag. */
void RegisterServiceBenchmarks();

namespace {

bool TakeFlag(std::vector<char*>& args, const char* name, std::string* value)
{
    const size_t length = std::strlen(name);
    for (auto it = args.begin() + 1; it != args.end(); ++it) {
        if (std::strncmp(*it, name, length) == 0 && ((*it)[length] == '\0' || (*it)[length] == '=')) {
            if (value != nullptr && (*it)[length] == '=') {
                *value = *it + length + 1;
            }
            args.erase(it);
            return true;
        }
    }
    return false;
}

bool HasFlag(const std::vector<char*>& args, const char* name)
{
    for (char* arg : args) {
        if (std::strncmp(arg, name, std::strlen(name)) == 0) {
            return true;
        }
    }
    return false;
}

/* Log lines of the in-process benchmarks go to `path`, not to the terminal. */
void SendLogTo(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) {
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // Every benchmark process runs as one user: the development identity mode,
    // unless the caller names a configuration of its own.
    setenv("TILVANE_CONFIG", TILVANE_DEVELOPMENT_CONFIG, 0);
    if (argc == 4 && std::string(argv[1]) == "--bare-server") {
        return RunBareServer(std::atoi(argv[2]), argv[3]);
    }
    std::vector<char*> args(argv, argv + argc);
    g_shortRun = TakeFlag(args, "--short", nullptr);
    std::string figuresPath;
    if (!TakeFlag(args, "--figures_json", &figuresPath)) {
        const char* fromEnvironment = std::getenv("TILVANE_BENCH_FIGURES");
        figuresPath = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                            : TILVANE_BENCH_DEFAULT_FIGURES;
    }
    std::string logPath = "/dev/null";
    TakeFlag(args, "--bench_log", &logPath);
    std::string repetitions = g_shortRun ? "--benchmark_repetitions=3" : "--benchmark_repetitions=5";
    if (!HasFlag(args, "--benchmark_repetitions")) {
        args.push_back(&repetitions[0]);
    }
    args.push_back(nullptr);
    int count = static_cast<int>(args.size()) - 1;
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 1;
    }
    RegisterServiceBenchmarks();
    std::printf("log lines of the in-process benchmarks (default level, as the service runs): %s\n",
                logPath.c_str());
    std::fflush(stdout);
    SendLogTo(logPath);
    benchmark::RunSpecifiedBenchmarks();
    PrintFigures(stdout);
    if (SaveFigures(figuresPath)) {
        std::printf("figures saved to %s\n", figuresPath.c_str());
    } else {
        std::printf("figures could not be saved to %s\n", figuresPath.c_str());
    }
    benchmark::Shutdown();
    return 0;
}
