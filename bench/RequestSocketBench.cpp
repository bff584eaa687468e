/*
 * What an idle client costs the service on its direct request socket: the
 * real `tilvane` binary on the benchmark bus (a new database), 100 peers that
 * each connect, make one select and then stay connected doing nothing. The
 * service's private memory (USS: Private_Clean + Private_Dirty of
 * /proc/PID/smaps_rollup) is read before they connect, while they idle, and
 * after the service closed them as idle ([request-socket] idle-close-ms,
 * 1.5 s here).
 *
 * Figures: "USS idle before clients", "USS with 100 idle connected clients",
 * "USS per idle connected client" (the difference / 100, KiB) and "USS after
 * the idle connections were closed".
 */
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchBus.h"
#include "BenchFigures.h"

extern char** environ;

namespace {

constexpr int kClients = 100;
constexpr int kIdleCloseMs = 1500;
constexpr char kServiceAppId[] = "com.quillon.px.tilvane";

/* Private memory of `pid` in KiB; negative when it cannot be read. */
double UssKiB(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string line;
    double kiB = 0;
    int found = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        double value = 0;
        fields >> key >> value;
        if (key == "Private_Clean:" || key == "Private_Dirty:") {
            kiB += value;
            ++found;
        }
    }
    return found == 2 ? kiB : -1;
}

pid_t StartService(const std::string& root, const std::string& config)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::string(*e).rfind("TILVANE_CONFIG=", 0) != 0) {
            env.emplace_back(*e);
        }
    }
    env.push_back("TILVANE_CONFIG=" + config);
    env.push_back("TILVANE_PLATFORM_ROOT=" + root);
    env.push_back(std::string("TILVANE_APP_ID=") + kServiceAppId);
    std::vector<char*> envp;
    for (std::string& entry : env) {
        envp.push_back(&entry[0]);
    }
    envp.push_back(nullptr);
    std::string binary = TILVANE_SERVICE_BINARY;
    char* argv[] = {&binary[0], nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (root + "/service.log").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

std::string ContentSocket(const std::string& root)
{
    const std::string folder = root + "/run/tilvane";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        if (entry.path().filename().string().rfind("org.tilvane.Content.P", 0) == 0) {
            return entry.path().string();
        }
    }
    return std::string();
}

/* A peer that made one select and stays connected. */
GDBusConnection* IdlePeer(const std::string& socket)
{
    GDBusConnection* peer = g_dbus_connection_new_for_address_sync(
        ("unix:path=" + socket).c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr, nullptr);
    if (peer == nullptr) {
        return nullptr;
    }
    const char* none[] = {nullptr};
    GVariant* reply = g_dbus_connection_call_sync(
        peer, nullptr, "/org/tilvane/Content", "org.tilvane.Content", "Select",
        g_variant_new("(ss^ass^asss)", "org.example.bench.ui", "content://com.quillon.px.tiles/tiles", none, "",
                      none, "", ""),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
    return peer;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

void Measure(benchmark::State& state, pid_t pid, const std::string& socket)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double before = UssKiB(pid);
    std::vector<GDBusConnection*> peers;
    for (int i = 0; i < kClients; ++i) {
        peers.push_back(IdlePeer(socket));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double connected = UssKiB(pid);
    const bool allClosed = WaitUntil(
        [&] {
            for (GDBusConnection* peer : peers) {
                if (peer == nullptr || !g_dbus_connection_is_closed(peer)) {
                    return false;
                }
            }
            return true;
        },
        kIdleCloseMs * 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double after = UssKiB(pid);
    for (GDBusConnection* peer : peers) {
        if (peer != nullptr) {
            g_object_unref(peer);
        }
    }
    if (!allClosed || before < 0 || connected < 0 || after < 0) {
        state.SkipWithError("the peers did not connect, or were not closed as idle");
        return;
    }
    RecordValue("USS idle before clients (new database)", 0, "MiB", before / 1024.0);
    RecordValue("USS with 100 idle connected clients", 5, "MiB", connected / 1024.0);
    RecordValue("USS per idle connected client", 0, "KiB", (connected - before) / kClients);
    RecordValue("USS after the idle connections were closed", 0, "MiB", after / 1024.0);
}

void BM_IdleClientsOnTheRequestSocket(benchmark::State& state)
{
    if (!EnsureBenchBus()) {
        state.SkipWithError("no bus");
        return;
    }
    StopBenchServices();
    gchar* made = g_dir_make_tmp("tilvane-bench-socket-XXXXXX", nullptr);
    std::string root = made != nullptr ? made : "";
    g_free(made);
    const std::string config = root + "/bench.conf";
    // All 100 clients are this process's user: the budget per user (32 by
    // default) is raised so that every one of them stays connected.
    std::ofstream(config) << "[identity]\nmode = development\n[request-socket]\nidle-close-ms = " << kIdleCloseMs
                          << "\nmax-connections-per-user = " << 2 * kClients << "\n";
    pid_t pid = StartService(root, config);
    for (auto _ : state) {
        if (pid <= 0 || !WaitForBenchService(kServiceAppId, "preview-event-receiver") ||
            ContentSocket(root).empty()) {
            state.SkipWithError("the service did not start or listens on no socket");
            break;
        }
        Measure(state, pid, ContentSocket(root));
    }
    StopBenchServiceAndRemove(pid, root);
}

BENCHMARK(BM_IdleClientsOnTheRequestSocket)->Iterations(1)->UseRealTime();

}  // namespace
