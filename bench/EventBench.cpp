/*
 * Delivering one preview event through CMessageHelper::Send to 1, 10 and 100
 * subscribers, against bare message_port_send_message calls of the same
 * bundle to the same ports.
 *
 * The subscribers are ports of a second process (forked before this one
 * connects), so every delivery crosses the bus: the message helper checks
 * each port twice and then sends (three round trips per subscriber), a bare
 * send is one round trip. A private dbus-daemon is started when
 * DBUS_SESSION_BUS_ADDRESS is not set.
 */
#include <benchmark/benchmark.h>
#include <bundle.h>
#include <glib-unix.h>
#include <glib.h>
#include <host_control.h>
#include <message_port.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BenchBus.h"
#include "BenchFigures.h"
#include "MessageHelper.h"

namespace {

const char kSenderAppId[] = "bench.event.sender";
const char kReceiverAppId[] = "bench.event.receiver";
const int kMaxSubscribers = 100;

std::string SubscriberPort(int index)
{
    return "subscriber-" + std::to_string(index);
}

void CountCB(int, const char*, const char*, bool, bundle*, void* userData)
{
    ++*static_cast<long*>(userData);
}

gboolean OnParentGoneCB(gint, GIOCondition, gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

/* The receiving process: registers the ports, says so, and serves them until
 * the sender closes its end of the pipe. */
[[noreturn]] void RunReceiver(int readyFd, int parentFd)
{
    tilvane::host::SetOwnAppId(kReceiverAppId);
    long received = 0;
    for (int i = 0; i < kMaxSubscribers; ++i) {
        if (message_port_register_local_port(SubscriberPort(i).c_str(), CountCB, &received) <= 0) {
            _exit(1);
        }
    }
    char c = 'r';
    if (write(readyFd, &c, 1) != 1) {
        _exit(1);
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(parentFd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), OnParentGoneCB, loop);
    g_main_loop_run(loop);
    _exit(0);
}

/* The bus (private when none is given) and the receiving process, for the
 * life of the benchmark program. */
class EventBenchSetup
{
public:
    static EventBenchSetup& Get()
    {
        static EventBenchSetup* setup = new EventBenchSetup();
        return *setup;
    }

    bool Ready() const { return m_ready; }

private:
    EventBenchSetup()
    {
        if (!EnsureBenchBus()) {
            return;
        }
        int ready[2];
        int parent[2];
        if (pipe(ready) != 0 || pipe(parent) != 0) {
            return;
        }
        s_receiverPid = fork();
        if (s_receiverPid == 0) {
            close(ready[0]);
            close(parent[1]);
            RunReceiver(ready[1], parent[0]);
        }
        close(ready[1]);
        close(parent[0]);
        m_parentFd = parent[1];
        char c = 0;
        m_ready = s_receiverPid > 0 && read(ready[0], &c, 1) == 1;
        close(ready[0]);
        tilvane::host::SetOwnAppId(kSenderAppId);
        std::atexit(StopAll);
    }

    static void StopAll()
    {
        if (s_receiverPid > 0) {
            kill(s_receiverPid, SIGTERM);
            waitpid(s_receiverPid, nullptr, 0);
            s_receiverPid = -1;
        }
    }

    bool m_ready = false;
    int m_parentFd = -1;
    static pid_t s_receiverPid;
};

pid_t EventBenchSetup::s_receiverPid = -1;

/* A synchronisation event as the provider builds it. */
bundle* NewEvent()
{
    bundle* event = bundle_create();
    bundle_add_str(event, "accelerator_app_pkg_name", "com.example.pkg");
    bundle_add_str(event, "tile_section_raw_id", "section-42");
    bundle_add_str(event, "sync", "end");
    return event;
}

/* The message helper's send to N subscribers against the bare port sends to
 * the same ports, interleaved. */
void BM_EventSend(benchmark::State& state)
{
    if (!EventBenchSetup::Get().Ready()) {
        state.SkipWithError("no bus or no receiving process");
        return;
    }
    const int subscribers = static_cast<int>(state.range(0));
    CMessageHelper helper("bench-event-receiver");
    std::vector<std::string> ports;
    for (int i = 0; i < subscribers; ++i) {
        helper.SubscribalRequest(kReceiverAppId, SubscriberPort(i));
        ports.push_back(SubscriberPort(i));
    }
    bundle* event = NewEvent();
    RunInterleaved(
        state, "event to " + std::to_string(subscribers) + " subscriber(s)", 0,
        Pairs(std::max(10, 2000 / subscribers), std::max(2, 200 / subscribers)),
        [&] { return helper.Send(event, false) == 0; },
        [&] {
            for (const std::string& port : ports) {
                if (message_port_send_message(kReceiverAppId, port.c_str(), event) != 0) {
                    return false;
                }
            }
            return true;
        },
        "bare port sends");
    bundle_free(event);
}

BENCHMARK(BM_EventSend)->Arg(1)->Arg(10)->Arg(100)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
