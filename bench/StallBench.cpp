/*
 * The latency of a delete that posts a preview event, with and without a
 * subscriber that never answers, measured interleaved in one run: each
 * iteration times one delete without it, subscribes it, times one delete
 * with it, and unsubscribes it. The service is the real `tilvane` binary,
 * started on the benchmarks' bus with a platform root of its own; the deletes
 * come from this process through the content interface, as an application with
 * the public privileges (installed there under this process's own id). The never-answering subscriber is a hand-made bus
 * connection that owns its application's and port's names and queues every
 * call it gets on a main context that nobody runs.
 */
#include <benchmark/benchmark.h>
#include <bundle.h>
#include <gio/gio.h>
#include <host_control.h>
#include <message_port.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <tilvane_client.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchBus.h"
#include "PreviewApps.h"
#include "StuckReceiver.h"
#include "TilesModel.h"


namespace {

const char kServiceAppId[] = "com.quillon.px.tilvane";
const char kStuckAppId[] = "org.example.benchstall.stuck";
const char kStuckPort[] = "events";

/* Subscribes or unsubscribes `stuck` from its port, as an application does. */
bool Request(tilvane::test::StuckReceiver& stuck, const char* type)
{
    bundle* message = bundle_create();
    bundle_add_str(message, "request_type", type);
    const bool sent = stuck.Send(kServiceAppId, "preview-event-receiver", kStuckPort, message).empty();
    bundle_free(message);
    return sent;
}

/* The real service on the benchmarks' bus, for the life of the program. */
class StallBenchSetup
{
public:
    static StallBenchSetup& Get()
    {
        static StallBenchSetup* setup = new StallBenchSetup();
        return *setup;
    }

    /* False also once another benchmark had the service stopped. */
    bool Ready() const { return m_ready && s_servicePid > 0; }
    tilvane::test::StuckReceiver& Stuck() { return *m_stuck; }

private:
    StallBenchSetup()
    {
        if (!EnsureBenchBus()) {
            return;
        }
        char pattern[] = "/tmp/tilvane-stall-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return;
        }
        s_root = pattern;
        /* The deletes are made as whatever application this process runs as
         * (other benchmarks of the program may have chosen it). */
        tilvane::host::SetPlatformRoot(s_root);
        const bool installed = tilvane::test::InstallPreviewWriter("org.example.benchstall", tilvane::host::OwnAppId());
        tilvane::host::SetPlatformRoot(std::string());
        if (!installed || !StartService()) {
            return;
        }
        if (WaitForBenchService(kServiceAppId, "preview-event-receiver")) {
            m_stuck.reset(new tilvane::test::StuckReceiver(kStuckAppId, {kStuckPort}));
            m_ready = m_stuck->Ready();
        }
        std::atexit(StopAll);
        RegisterBenchService(StopAll);
    }

    static bool StartService()
    {
        s_servicePid = SpawnBenchProgram({TILVANE_SERVICE_BINARY},
                                         {"TILVANE_PLATFORM_ROOT=" + s_root, std::string("TILVANE_APP_ID=") + kServiceAppId,
                                          "TILVANE_LOG_LEVEL=W"},
                                         "/dev/null");
        return s_servicePid > 0;
    }

    static void StopAll() { StopBenchServiceAndRemove(s_servicePid, s_root); }

    bool m_ready = false;
    /* A subscriber whose calls are never answered. */
    std::unique_ptr<tilvane::test::StuckReceiver> m_stuck;
    static pid_t s_servicePid;
    static std::string s_root;
};

pid_t StallBenchSetup::s_servicePid = -1;
std::string StallBenchSetup::s_root;

/* One delete through the content interface (it posts a preview event); seconds. */
double TimedDelete(const tilvane::client::ContentClient& client, bool* ok)
{
    const auto start = std::chrono::steady_clock::now();
    const tilvane::client::Result result =
        client.Delete(TilesModel::Tiles::CONTENT_URI, std::string(TilesModel::Tiles::TILE_ID) + " = ?", {"none"});
    *ok = *ok && result.Ok();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_DeleteEvent_NeverAnsweringSubscriber(benchmark::State& state)
{
    StallBenchSetup& setup = StallBenchSetup::Get();
    if (!setup.Ready()) {
        state.SkipWithError("no bus, or the service did not start");
        return;
    }
    tilvane::client::ContentClient client;
    double without = 0.0;
    double with = 0.0;
    bool ok = true;
    for (auto _ : state) {
        without += TimedDelete(client, &ok);
        ok = ok && Request(setup.Stuck(), "SubscribePreviewEvent");
        with += TimedDelete(client, &ok);
        ok = ok && Request(setup.Stuck(), "UnsubscribePreviewEvent");
    }
    if (!ok) {
        state.SkipWithError("a delete or a subscription failed");
        return;
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["without_us"] = without / iterations * 1e6;
    state.counters["with_us"] = with / iterations * 1e6;
    state.counters["ratio"] = without > 0 ? with / without : 0.0;
    std::printf("ratio delete with a never-answering subscriber / without = %5.2f  (%.1f us vs %.1f us, %.0f deletes each)\n",
                without > 0 ? with / without : 0.0, with / iterations * 1e6, without / iterations * 1e6, iterations);
}

BENCHMARK(BM_DeleteEvent_NeverAnsweringSubscriber)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
