/*
 * Service applications on the host: the application's life runs on the GLib
 * default main context, so that every source the system attaches there (bus
 * connections, timers) is served by service_app_main's loop.
 */
#include "service_app.h"

#include <glib-unix.h>
#include <unistd.h>
#include <glib.h>
#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "identity/app_identity.h"
#include "admin/admin_interface.h"
#include "app/allocator.h"
#include "app/bus_supervision.h"
#include "app/run_configuration.h"
#include "app/service_manager.h"
#include "ports/port_connection.h"
#include "confinement_policy.h"
#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "dlog.h"
#include "host_control/app.h"
#include "host_control/identity.h"
#include "host_control/base.h"
#include "message_port.h"
#include "config/platform_config.h"
#include "config/platform_files.h"
#include "content/background_check.h"
#include "log/log_sink.h"
#include "registry/bus_policy.h"
#include "stats/request_stats.h"
#include "tilvane_version.h"

namespace tilvane {
namespace host {
namespace {

#define PLATFORM_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define PLATFORM_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
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
    /* The loop ended because the bus was lost for good. */
    bool busLost = false;
    /* The loop ended because the check in the background found the database damaged. */
    bool databaseDamaged = false;
    /* Handles are ids, never pointers, so that a stale handle is harmless. */
    uintptr_t nextHandlerId = 1;
    std::vector<EventHandler> handlers;
    /* service_app_main has read its command line: the handlers added before
     * it (a program adds them first) are logged then, so that a program asked
     * for --help or --version writes nothing but its answer. */
    bool mainStarted = false;
    std::vector<int> unloggedHandlerTypes;
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
        PLATFORM_LOGI("terminating: %s", why);
        service_manager::NotifyStopping(std::string("stopping: ") + why);
    }
    s.exitRequested = true;
    g_main_loop_quit(s.loop);
}

const char* SignalName(int signum)
{
    return signum == SIGINT ? "SIGINT" : "SIGTERM";
}

/* The termination descriptor became readable: a SIGTERM or SIGINT arrived. */
gboolean OnTerminationSignal(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/)
{
    QuitLoop(SignalName(PendingTerminationSignal()));
    return G_SOURCE_CONTINUE;
}

struct AppControlCall {
    service_app_control_cb callback;
    void* userData;
};

/* SIGHUP: the configuration is read again. */
gboolean OnHangupSignal(gpointer /*data*/)
{
    run_configuration::Reload();
    return G_SOURCE_CONTINUE;
}

/* The loop turns: requests are served from now on. */
gboolean OnServing(gpointer /*data*/)
{
    const std::string status = "serving requests as " + CurrentAppId();
    PLATFORM_LOGI("ready: %s", status.c_str());
    service_manager::NotifyReady(status);
    return G_SOURCE_REMOVE;
}

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

/* The bus connection could not be restored in time (bus_supervision.h). */
void EndForLostBus()
{
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.busLost = true;
    }
    QuitLoop("the message bus connection was lost");
}

/* The check in the background found damage (content/background_check.h): the
 * service ends, as on SIGTERM, and exits with code 4, so that its next start
 * (the unit's Restart=on-failure, or the bus's activation) finds the file
 * corrupt, removes it and creates it afresh before it serves again. */
void EndForDamagedDatabase(const char* path)
{
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.loop == nullptr) {
            return;
        }
        s.databaseDamaged = true;
    }
    PLATFORM_LOGE("%s is damaged: the service ends and its next start replaces the file", path);
    QuitLoop("the database is damaged");
}

/* Owns the sources and the loop of one service_app_main run. */
class LoopRun {
public:
    LoopRun()
    {
        loop_ = g_main_loop_new(nullptr, FALSE);
        /* Installed before the create callback runs, so that a termination
         * during start-up is kept, and ends its retry loops' sleeps. */
        InstallTerminationHandlers();
        signal_ = g_unix_fd_source_new(TerminationFd(), G_IO_IN);
        g_source_set_callback(signal_, G_SOURCE_FUNC(OnTerminationSignal),
                              nullptr, nullptr);
        g_source_attach(signal_, nullptr);
        /* Kept from the start as well: a SIGHUP during start-up is answered
         * once the loop runs, and never ends the process. */
        hangup_ = Attach(g_unix_signal_source_new(SIGHUP), OnHangupSignal, nullptr);
    }

    ~LoopRun()
    {
        service_manager::StopWatchdog();
        for (GSource* source : {idle_, serving_, hangup_, signal_}) {
            if (source != nullptr) {
                g_source_destroy(source);
                g_source_unref(source);
            }
        }
        RestoreTerminationHandlers();
        ClearTermination();
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

    /* Says that requests are served as soon as the loop turns, and pings the
     * service manager's watchdog from the loop while it turns. */
    void AnnounceServingWhenRunning()
    {
        serving_ = g_idle_source_new();
        g_source_set_priority(serving_, G_PRIORITY_HIGH);
        Attach(serving_, OnServing, nullptr);
        service_manager::StartWatchdog();
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
    GSource* signal_ = nullptr;
    GSource* hangup_ = nullptr;
    GSource* idle_ = nullptr;
    GSource* serving_ = nullptr;
    AppControlCall call_{nullptr, nullptr};
};

}  // namespace

void ClearAppEventHandlers()
{
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handlers.clear();
    s.mainStarted = false;
    s.unloggedHandlerTypes.clear();
}

namespace {
/* Reset(): no event handler is registered. */
const ResetHook kResetClearAppEventHandlers(9, ClearAppEventHandlers);
}  // namespace

namespace {

/* The handlers added before service_app_main read its command line. */
void LogHandlersAddedBefore()
{
    std::vector<int> types;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.mainStarted = true;
        types.swap(s.unloggedHandlerTypes);
    }
    for (const int type : types) {
        PLATFORM_LOGD("event handler added: type %d", type);
    }
}

}  // namespace

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

/* How the service ends, besides 0 (tilvane(8), EXIT STATUS). The unit does not
 * restart a service that stopped because it is not configured
 * (RestartPreventExitStatus=6): that is the integrator's to fix. */
enum ExitCode : int {
    kExitStartFailed = 1,
    kExitUsage = 2,
    kExitBusLost = 3,
    kExitDatabaseDamaged = 4,
    kExitNotConfigured = 6,
};

const char* ProgramName(int argc, char** argv)
{
    if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
        return "service";
    }
    const char* slash = std::strrchr(argv[0], '/');
    return slash != nullptr ? slash + 1 : argv[0];
}

void PrintUsage(FILE* out, const char* program)
{
    std::fprintf(out,
        "Usage: %s [--help] [--version]\n"
        "\n"
        "Runs the service application in the foreground until SIGTERM or SIGINT (Ctrl-C);\n"
        "SIGHUP reads the configuration again. Log lines go to standard error (to the\n"
        "journal, with their priorities, when systemd connected it there).\n"
        "\n"
        "Options:\n"
        "  --help     show this text\n"
        "  --version  print the version\n"
        "\n"
        "Environment:\n"
        "  TILVANE_PLATFORM_ROOT  folder under which every platform path resolves\n"
        "                         (default: ./tilvane-data); databases live in <root>/opt/dbspace\n"
        "  TILVANE_LOG_LEVEL      lowest priority logged: V, D, I, W, E or F\n"
        "                         (default: the configuration's [log] level, else D)\n"
        "  TILVANE_APP_ID         the application id the service runs as (default: %s)\n"
        "  TILVANE_DATA_CONTROL_PROVIDER_ID\n"
        "                         the data-control provider id it serves\n"
        "                         (default: %s)\n"
        "  TILVANE_CONFIG         the integrator's configuration file; the service does not\n"
        "                         start when it names a file that is missing or unreadable\n"
        "                         (default: <root>/etc/tilvane.conf when it exists)\n"
        "  TILVANE_LOG_RATE_BURST, TILVANE_LOG_RATE_INTERVAL_MS, TILVANE_LOG_RATE_BYTES\n"
        "                         the log's rate limit per call site (default: [log] rate-*)\n"
        "  DBUS_SESSION_BUS_ADDRESS  the message bus it serves on (required)\n"
        "  NOTIFY_SOCKET, WATCHDOG_USEC  set by systemd: readiness and watchdog pings\n"
        "\n"
        "Exit codes: 0 ended normally, 1 could not start, 2 wrong command line,\n"
        "3 lost the message bus and could not get back on it within [bus] reconnect-ms,\n"
        "6 the configuration file is missing or cannot be read (tilvane.conf(5)).\n",
        program, tilvane::host::config::Default("service", "app-id").c_str(),
        tilvane::host::config::Default("data-control", "provider-id").c_str());
}

/* What the command line asks for: run, or stop at once with an exit code. */
bool ReadCommandLine(int argc, char** argv, int& exitCode)
{
    const char* program = ProgramName(argc, argv);
    for (int i = 1; i < argc && argv[i] != nullptr; ++i) {
        const char* word = argv[i];
        if (std::strcmp(word, "--help") == 0 || std::strcmp(word, "-h") == 0) {
            PrintUsage(stdout, program);
            exitCode = 0;
            return false;
        }
        if (std::strcmp(word, "--version") == 0) {
            std::printf("%s %s\n", program, TILVANE_VERSION);
            exitCode = 0;
            return false;
        }
        std::fprintf(stderr, "%s: unknown argument '%s'\n\n", program, word);
        PrintUsage(stderr, program);
        exitCode = kExitUsage;
        return false;
    }
    return true;
}

/* Without TILVANE_APP_ID a service application runs as the service's own id
 * (the integrator's [service] app-id, else data/service-defaults.conf's). */
void ChooseDefaultAppId()
{
    const char* fromEnvironment = std::getenv("TILVANE_APP_ID");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return;
    }
    tilvane::host::SetOwnAppId(tilvane::host::config::String("service", "app-id", std::string()));
}

/* The configuration, read before anything else: a file TILVANE_CONFIG names
 * that does not exist or cannot be read, or a file of the platform root that
 * cannot be read, stops a program's start with one message. Then the
 * settings it gives the log apply before the first line, and the start line
 * says where it came from. */
void ReadConfigurationAtStart(bool programStart, const char* program)
{
    using namespace tilvane::host;
    const config::Resolution where = config::Resolve(programStart);
    if (programStart && !where.problem.empty()) {
        std::fprintf(stderr, "%s: cannot start: %s\n", program, where.problem.c_str());
        std::exit(kExitNotConfigured);
    }
    run_configuration::ApplyRunTimeSettings();
    /* The statistics count from the service's start. */
    stats::Reset();
    LogHandlersAddedBefore();
    run_configuration::LogAtStart(where);
}

/* The log lines written while the bus connection is first opened: written
 * once it is open, dropped when it cannot be, so that the one message saying
 * why the service does not start is the only one. */
class LinesHeldWhileConnecting {
public:
    LinesHeldWhileConnecting() { tilvane::host::SetLogSink(Hold, this); }
    ~LinesHeldWhileConnecting() { tilvane::host::SetLogSink(nullptr, nullptr); }
    LinesHeldWhileConnecting(const LinesHeldWhileConnecting&) = delete;
    LinesHeldWhileConnecting& operator=(const LinesHeldWhileConnecting&) = delete;

    void WriteHeldLines()
    {
        tilvane::host::SetLogSink(nullptr, nullptr);
        std::vector<Line> lines;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            lines.swap(m_lines);
        }
        for (const Line& line : lines) {
            __dlog_print(LOG_ID_MAIN, line.priority, line.tag.c_str(), "%s", line.message.c_str());
        }
    }

private:
    struct Line {
        int priority;
        std::string tag;
        std::string message;
    };
    static void Hold(int priority, const char* tag, const char* message, void* self)
    {
        auto* held = static_cast<LinesHeldWhileConnecting*>(self);
        std::lock_guard<std::mutex> lock(held->m_mutex);
        held->m_lines.push_back(Line{priority, tag, message});
    }
    std::mutex m_mutex;
    std::vector<Line> m_lines;
};

/* The bus must be there and the application's name free before the service
 * is created: a second instance, or one with nowhere to serve, ends at once
 * with one message instead of retrying. */
bool StartUpPreconditionsHold(const char* program)
{
    using namespace tilvane::host;
    const std::string appId = CurrentAppId();
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        std::fprintf(stderr, "%s: cannot start: no message bus (DBUS_SESSION_BUS_ADDRESS is not set)\n", program);
        return false;
    }
    int result = 0;
    LinesHeldWhileConnecting held;
    GDBusConnectionPtr connection = PortsConnection(true, &result);
    if (connection) {
        held.WriteHeldLines();
        return true;
    }
    if (result == MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE) {
        std::fprintf(stderr, "%s: cannot start: application %s already runs on the bus (%s is owned by another "
                     "process)\n", program, appId.c_str(), BusNameForAppId(appId).c_str());
    } else if (result == MESSAGE_PORT_ERROR_PERMISSION_DENIED) {
        std::fprintf(stderr, "%s: cannot start: the bus refuses the name of application %s to this user (%u)\n",
                     program, appId.c_str(), static_cast<unsigned>(geteuid()));
    } else if (result == MESSAGE_PORT_ERROR_INVALID_PARAMETER) {
        std::fprintf(stderr, "%s: cannot start: application id \"%s\" cannot own a bus name\n", program,
                     appId.c_str());
    } else {
        std::fprintf(stderr, "%s: cannot start: the message bus at %s cannot be used\n", program, address);
    }
    return false;
}

}  // namespace

namespace {

/* A program's start once its command line is read: its application id
 * chosen, the modes of the platform's files corrected and the preconditions
 * checked (ending the process when one fails). */
void PrepareProgramStart(int argc, char** argv)
{
    using namespace tilvane::host;
    ChooseDefaultAppId();
    KeepLargeBuffersInTheHeap();
    /* Files an earlier version (or a careless umask) left readable are the
     * platform's own again before anything opens them. */
    files::CorrectModesAtStart({BusPolicyFile()});
    /* The statistics, backup, restore and check on the service's connection
     * (and on every one that replaces it). */
    admin::ExportAdminInterfaceOnEveryConnection();
    if (!StartUpPreconditionsHold(ProgramName(argc, argv))) {
        std::exit(kExitStartFailed);
    }
}

/* Makes `run` the process's running loop; false when one already runs. */
bool AttachLoop(tilvane::host::LoopRun& run)
{
    using namespace tilvane::host;
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.loop != nullptr) {
        return false;
    }
    s.loop = run.Loop();
    ++s.run;
    s.exitRequested = false;
    s.busLost = false;
    s.databaseDamaged = false;
    return true;
}

/* The loop is no longer the running one; the exit code of a failure that
 * ended it (a lost bus, a damaged database), else 0. */
int DetachLoop()
{
    using namespace tilvane::host;
    AppState& s = TheAppState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.loop = nullptr;
    s.exitRequested = false;
    return s.busLost ? kExitBusLost : s.databaseDamaged ? kExitDatabaseDamaged : 0;
}

/* After the create callback: whether the loop is to run at all (a termination
 * that came during start-up ends it before it starts). */
bool ExitRequestedBeforeLoop()
{
    using namespace tilvane::host;
    {
        AppState& s = TheAppState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.exitRequested) {
            return true;
        }
    }
    if (TerminationPending()) {
        QuitLoop(SignalName(PendingTerminationSignal()));
        return true;
    }
    return false;
}

/* The created service's life: the loop (unless it was ended during start-up),
 * then the terminate callback. */
void RunCreatedService(service_app_lifecycle_callback_s* callback, void* user_data, tilvane::host::LoopRun& run)
{
    using namespace tilvane::host;
    if (!ExitRequestedBeforeLoop()) {
        run.AnnounceServingWhenRunning();
        if (callback->app_control != nullptr) {
            run.CallAppControlWhenIdle(callback->app_control, user_data);
        }
        PLATFORM_LOGD("main loop running");
        StartBusSupervision(EndForLostBus);
        run.Run();
        StopBusSupervision();
    }
    PLATFORM_LOGD("main loop ended");
    if (callback->terminate != nullptr) {
        callback->terminate(user_data);
    }
    PLATFORM_LOGD("service application terminated");
}

}  // namespace

extern "C" int service_app_main(int argc, char** argv, service_app_lifecycle_callback_s* callback,
                                void* user_data)
{
    using namespace tilvane::host;
    /* A run with a command line is a program's start: its arguments are read
     * and its preconditions checked. A run without one (an embedded loop, as
     * the platform's own tests make) starts as it is. */
    const bool programStart = argc >= 1 && argv != nullptr;
    if (programStart) {
        KeepOneMallocArena();
        int exitCode = 0;
        if (!ReadCommandLine(argc, argv, exitCode)) {
            std::exit(exitCode);
        }
    }
    if (callback == nullptr || callback->create == nullptr) {
        PLATFORM_LOGE("service_app_main: invalid parameter");
        return APP_ERROR_INVALID_PARAMETER;
    }
    ReadConfigurationAtStart(programStart, ProgramName(argc, argv));
    if (programStart) {
        PrepareProgramStart(argc, argv);
    }
    LoopRun run;
    if (!AttachLoop(run)) {
        PLATFORM_LOGE("service_app_main: already running");
        return APP_ERROR_ALREADY_RUNNING;
    }
    /* The integrator's choice, stated once before the service sets up anything. */
    PLATFORM_LOGI(confinement_policy_is_strict() ? "strict confinement on" : "strict confinement off");
    tilvane::content::SetDamageFoundHandler(EndForDamagedDatabase);
    if (!callback->create(user_data)) {
        PLATFORM_LOGE("service application create callback failed");
        DetachLoop();
        return APP_ERROR_INVALID_CONTEXT;
    }
    PLATFORM_LOGD("service application created");
    RunCreatedService(callback, user_data, run);
    const int failure = DetachLoop();
    if (failure != 0 && programStart) {
        std::exit(failure);
    }
    return failure != 0 ? APP_ERROR_INVALID_CONTEXT : APP_ERROR_NONE;
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
    bool logNow = false;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        id = s.nextHandlerId++;
        s.handlers.push_back(EventHandler{id, event_type, callback, user_data});
        logNow = s.mainStarted;
        if (!logNow) {
            s.unloggedHandlerTypes.push_back(type);
        }
    }
    *event_handler = reinterpret_cast<app_event_handler_h>(id);
    if (logNow) {
        PLATFORM_LOGD("event handler added: type %d", type);
    }
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
