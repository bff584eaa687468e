/*
 * Service applications on the host: the application's life runs on the GLib
 * default main context, so that every source the system attaches there (bus
 * connections, timers) is served by service_app_main's loop.
 */
#include "service_app.h"

#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "host_state.h"
#include "dlog.h"
#include "host_control.h"

namespace tilvane {
namespace host {
namespace {

#define PLATFORM_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define PLATFORM_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

struct EventHandler {
    uintptr_t id;
    app_event_type_e type;
    app_event_cb callback;
    void* userData;
};

struct AppState {
    std::mutex mutex;
    /* The loop of the running service_app_main, null when none runs. */
    GMainLoop* loop = nullptr;
    /* Counts service_app_main runs, so that a late quit request of an older
     * run cannot end a newer one. */
    uint64_t run = 0;
    bool exitRequested = false;
    /* Handles are ids, never pointers, so that a stale handle is harmless. */
    uintptr_t nextHandlerId = 1;
    std::vector<EventHandler> handlers;
};

AppState& TheAppState()
{
    static AppState* state = new AppState();
    return *state;
}

/* Loop thread only. */
void QuitLoop(const char* why)
{
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.loop == nullptr) {
        return;
    }
    if (!s.exitRequested) {
        PLATFORM_LOGD("terminating: %s", why);
    }
    s.exitRequested = true;
    g_main_loop_quit(s.loop);
}

gboolean OnSignal(gpointer data)
{
    const int signum = GPOINTER_TO_INT(data);
    QuitLoop(signum == SIGTERM ? "SIGTERM" : "SIGINT");
    return G_SOURCE_CONTINUE;
}

struct AppControlCall {
    service_app_control_cb callback;
    void* userData;
};

gboolean OnFirstIdle(gpointer data)
{
    const AppControlCall* call = static_cast<const AppControlCall*>(data);
    PLATFORM_LOGD("app control");
    call->callback(nullptr, call->userData);
    return G_SOURCE_REMOVE;
}

gboolean OnTerminationRequest(gpointer data)
{
    const uint64_t run = *static_cast<const uint64_t*>(data);
    bool current = false;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        current = s.loop != nullptr && s.run == run;
    }
    if (current) {
        QuitLoop("termination requested");
    }
    return G_SOURCE_REMOVE;
}

void FreeRunNumber(gpointer data)
{
    delete static_cast<uint64_t*>(data);
}

/* Owns the sources and the loop of one service_app_main run. */
class LoopRun {
public:
    LoopRun()
    {
        loop_ = g_main_loop_new(nullptr, FALSE);
        sigterm_ = Attach(g_unix_signal_source_new(SIGTERM), OnSignal, GINT_TO_POINTER(SIGTERM));
        sigint_ = Attach(g_unix_signal_source_new(SIGINT), OnSignal, GINT_TO_POINTER(SIGINT));
    }

    ~LoopRun()
    {
        for (GSource* source : {idle_, sigterm_, sigint_}) {
            if (source != nullptr) {
                g_source_destroy(source);
                g_source_unref(source);
            }
        }
        g_main_loop_unref(loop_);
    }

    LoopRun(const LoopRun&) = delete;
    LoopRun& operator=(const LoopRun&) = delete;

    GMainLoop* Loop() const { return loop_; }

    void CallAppControlWhenIdle(service_app_control_cb callback, void* userData)
    {
        call_ = AppControlCall{callback, userData};
        idle_ = Attach(g_idle_source_new(), OnFirstIdle, &call_);
    }

    void Run() { g_main_loop_run(loop_); }

private:
    static GSource* Attach(GSource* source, GSourceFunc function, gpointer data)
    {
        g_source_set_callback(source, function, data, nullptr);
        g_source_attach(source, nullptr);
        return source;
    }

    GMainLoop* loop_ = nullptr;
    GSource* sigterm_ = nullptr;
    GSource* sigint_ = nullptr;
    GSource* idle_ = nullptr;
    AppControlCall call_{nullptr, nullptr};
};

}  // namespace

void ClearAppEventHandlers()
{
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handlers.clear();
}

std::vector<app_event_type_e> RegisteredAppEventTypes()
{
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<app_event_type_e> types;
    for (const EventHandler& handler : s.handlers) {
        types.push_back(handler.type);
    }
    return types;
}

int RaiseAppEvent(app_event_type_e type)
{
    std::vector<EventHandler> matching;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const EventHandler& handler : s.handlers) {
            if (handler.type == type) {
                matching.push_back(handler);
            }
        }
    }
    PLATFORM_LOGD("raising app event %d to %zu handler(s)", static_cast<int>(type), matching.size());
    for (const EventHandler& handler : matching) {
        handler.callback(nullptr, handler.userData);
    }
    return static_cast<int>(matching.size());
}

void RequestTermination()
{
    uint64_t run = 0;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.loop == nullptr) {
            PLATFORM_LOGD("termination requested while no service application runs");
            return;
        }
        run = s.run;
    }
    /* Always through a source that the loop itself dispatches: a request made
     * while the create callback still runs then ends the loop as soon as it
     * starts, and one that arrives after the run ended does nothing. */
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, OnTerminationRequest, new uint64_t(run), FreeRunNumber);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

}  // namespace host
}  // namespace tilvane

namespace {

bool AsksForHelp(int argc, char** argv)
{
    for (int i = 1; i < argc && argv != nullptr; ++i) {
        if (argv[i] != nullptr && (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)) {
            return true;
        }
    }
    return false;
}

void PrintUsage(const char* program)
{
    std::printf(
        "Usage: %s [--help]\n"
        "\n"
        "Runs the service application in the foreground until SIGTERM or SIGINT (Ctrl-C).\n"
        "Log lines go to standard error.\n"
        "\n"
        "Environment:\n"
        "  TILVANE_PLATFORM_ROOT  folder under which every platform path resolves\n"
        "                         (default: ./tilvane-data); databases live in <root>/opt/dbspace\n"
        "  TILVANE_LOG_LEVEL      lowest priority logged: V, D, I, W, E or F (default: D)\n",
        program);
}

}  // namespace

extern "C" int service_app_main(int argc, char** argv, service_app_lifecycle_callback_s* callback,
                                void* user_data)
{
    using namespace tilvane::host;
    if (AsksForHelp(argc, argv)) {
        PrintUsage(argc > 0 && argv != nullptr && argv[0] != nullptr ? argv[0] : "service");
        return APP_ERROR_NONE;
    }
    if (callback == nullptr || callback->create == nullptr) {
        PLATFORM_LOGE("service_app_main: invalid parameter");
        return APP_ERROR_INVALID_PARAMETER;
    }

    LoopRun run;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.loop != nullptr) {
            PLATFORM_LOGE("service_app_main: already running");
            return APP_ERROR_ALREADY_RUNNING;
        }
        s.loop = run.Loop();
        ++s.run;
        s.exitRequested = false;
    }
    auto detach = [] {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.loop = nullptr;
        s.exitRequested = false;
    };

    if (!callback->create(user_data)) {
        PLATFORM_LOGE("service application create callback failed");
        detach();
        return APP_ERROR_INVALID_CONTEXT;
    }
    PLATFORM_LOGD("service application created");

    bool exitBeforeLoop = false;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        exitBeforeLoop = s.exitRequested;
    }
    if (!exitBeforeLoop) {
        if (callback->app_control != nullptr) {
            run.CallAppControlWhenIdle(callback->app_control, user_data);
        }
        PLATFORM_LOGD("main loop running");
        run.Run();
    }
    PLATFORM_LOGD("main loop ended");

    if (callback->terminate != nullptr) {
        callback->terminate(user_data);
    }
    PLATFORM_LOGD("service application terminated");
    detach();
    return APP_ERROR_NONE;
}

extern "C" void service_app_exit(void)
{
    tilvane::host::QuitLoop("service_app_exit");
}

extern "C" int service_app_add_event_handler(app_event_handler_h* event_handler, app_event_type_e event_type,
                                             app_event_cb callback, void* user_data)
{
    using namespace tilvane::host;
    const int type = static_cast<int>(event_type);
    if (event_handler == nullptr || callback == nullptr || type < APP_EVENT_LOW_MEMORY ||
        type > APP_EVENT_SUSPENDED_STATE_CHANGED) {
        return APP_ERROR_INVALID_PARAMETER;
    }
    if (ShouldFail("service_app_add_event_handler")) {
        *event_handler = nullptr;
        return APP_ERROR_OUT_OF_MEMORY;
    }
    AppState& s = TheAppState();
    uintptr_t id = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        id = s.nextHandlerId++;
        s.handlers.push_back(EventHandler{id, event_type, callback, user_data});
    }
    *event_handler = reinterpret_cast<app_event_handler_h>(id);
    PLATFORM_LOGD("event handler added: type %d", type);
    return APP_ERROR_NONE;
}

extern "C" int service_app_remove_event_handler(app_event_handler_h event_handler)
{
    using namespace tilvane::host;
    if (event_handler == nullptr) {
        return APP_ERROR_INVALID_PARAMETER;
    }
    const uintptr_t id = reinterpret_cast<uintptr_t>(event_handler);
    AppState& s = TheAppState();
    int type = -1;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (auto it = s.handlers.begin(); it != s.handlers.end(); ++it) {
            if (it->id == id) {
                type = static_cast<int>(it->type);
                s.handlers.erase(it);
                break;
            }
        }
    }
    if (type < 0) {
        return APP_ERROR_INVALID_PARAMETER;
    }
    PLATFORM_LOGD("event handler removed: type %d", type);
    return APP_ERROR_NONE;
}
