/*
 * tilvanectl events: preview-event subscriptions from the command line.
 *
 * The tool registers a local message port of its own and sends its requests
 * to the service's port "preview-event-receiver" with that port attached, so
 * the service knows where to answer. It runs its own GLib main loop: the
 * platform delivers arriving messages there.
 */
#include <bundle.h>
#include <bundle_ptr.h>
#include <glib-unix.h>
#include <glib.h>
#include <message_port.h>
#include <signal.h>

#include <gio/gio.h>
#include <host_control.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Commands.h"
#include "Delivery.h"

namespace tilvanectl {
namespace {

const char kDefaultServiceAppId[] = "com.quillon.px.tilvane";
const char kServicePort[] = "preview-event-receiver";
const char kDefaultLocalPort[] = "tilvanectl-events";
const int kDefaultTriggerTimeoutSeconds = 5;

struct EventOptions
{
    std::string service;
    std::string port = kDefaultLocalPort;
    int timeoutSeconds = kDefaultTriggerTimeoutSeconds;
};

/* State of one run of the main loop. */
struct EventSession
{
    GMainLoop* loop = nullptr;
    std::string service;
    bool stopAtFirstEvent = false;
    int events = 0;
    bool timedOut = false;
    /* subscribe only: what is needed to subscribe again */
    const EventOptions* options = nullptr;
    int portId = 0;
    bool serviceGone = false;
    guint retrySource = 0;
    int retries = 0;
};

std::string ServiceFromEnvironment()
{
    const char* value = std::getenv("TILVANE_SERVICE_APP_ID");
    return value != nullptr && *value != '\0' ? value : kDefaultServiceAppId;
}

std::string OwnAppId()
{
    const char* value = std::getenv("TILVANE_APP_ID");
    return value != nullptr ? value : "";
}

/* Parses the options after the command word; false (after a message) when
 * the command line is wrong. */
bool ParseOptions(const std::vector<std::string>& args, bool allowTimeout, EventOptions& options)
{
    options.service = ServiceFromEnvironment();
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& word = args[i];
        const bool hasValue = i + 1 < args.size() && !args[i + 1].empty();
        if (word == "--service" && hasValue) {
            options.service = args[++i];
        } else if (word == "--port" && hasValue) {
            options.port = args[++i];
        } else if (word == "--timeout" && hasValue && allowTimeout) {
            char* end = nullptr;
            long seconds = std::strtol(args[i + 1].c_str(), &end, 10);
            if (*end != '\0' || seconds <= 0 || seconds > 3600) {
                std::fprintf(stderr, "tilvanectl events: --timeout takes a number of seconds (1 to 3600)\n");
                return false;
            }
            options.timeoutSeconds = static_cast<int>(seconds);
            ++i;
        } else {
            std::fprintf(stderr, "tilvanectl events: unknown or incomplete option '%s' (see tilvanectl events --help)\n",
                         word.c_str());
            return false;
        }
    }
    return true;
}

void AppendEntryCB(const char* key, const char* value, void* data)
{
    std::string* line = static_cast<std::string*>(data);
    if (!line->empty()) {
        line->push_back(' ');
    }
    *line += key;
    line->push_back('=');
    *line += value;
}

/* One line per event: its entries as key=value, in the order they were added. */
void OnEventCB(int /*localPortId*/, const char* remoteAppId, const char* /*remotePort*/, bool /*trusted*/,
               bundle* message, void* userData)
{
    EventSession* session = static_cast<EventSession*>(userData);
    if (remoteAppId == nullptr || session->service != remoteAppId) {
        std::fprintf(stderr, "tilvanectl events: ignored a message from %s\n",
                     remoteAppId != nullptr ? remoteAppId : "(unknown)");
        return;
    }
    std::string line;
    bundle_iterate(message, AppendEntryCB, &line);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    ++session->events;
    if (session->stopAtFirstEvent) {
        g_main_loop_quit(session->loop);
    }
}

gboolean OnStopSignalCB(gpointer data)
{
    g_main_loop_quit(static_cast<EventSession*>(data)->loop);
    return G_SOURCE_CONTINUE;
}

gboolean OnTimeoutCB(gpointer data)
{
    EventSession* session = static_cast<EventSession*>(data);
    session->timedOut = true;
    g_main_loop_quit(session->loop);
    return G_SOURCE_REMOVE;
}

void ExplainRegistrationFailure(int result, const std::string& port)
{
    if (result == MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE) {
        std::fprintf(stderr,
                     "tilvanectl events: application id '%s' is already running on the bus; "
                     "choose another with --app-id\n",
                     OwnAppId().c_str());
    } else if (result == MESSAGE_PORT_ERROR_PERMISSION_DENIED) {
        ExplainRefusedName("events");
    } else if (result == MESSAGE_PORT_ERROR_IO_ERROR) {
        std::fprintf(stderr,
                     "tilvanectl events: cannot reach the message bus (DBUS_SESSION_BUS_ADDRESS); "
                     "start the service with scripts/with-bus.sh and export the address it prints\n");
    } else {
        std::fprintf(stderr, "tilvanectl events: cannot register local port '%s' (error %d)\n", port.c_str(), result);
    }
}

void ExplainSendFailure(int result, const std::string& service)
{
    if (result == MESSAGE_PORT_ERROR_PORT_NOT_FOUND) {
        std::fprintf(stderr, "tilvanectl events: the service '%s' is not running (no port '%s' on the bus)\n",
                     service.c_str(), kServicePort);
    } else if (result == MESSAGE_PORT_ERROR_CERTIFICATE_NOT_MATCH) {
        std::fprintf(stderr, "tilvanectl events: the service refused this application's identity\n");
    } else {
        std::fprintf(stderr, "tilvanectl events: cannot send the request to '%s' (error %d)\n", service.c_str(),
                     result);
    }
}

int SendRequest(const EventOptions& options, int localPortId, const char* requestType)
{
    BundlePtr request = MakeBundle();
    bundle_add_str(request.get(), "request_type", requestType);
    if (std::string(requestType) == "TriggerPreviewEvent") {
        bundle_add_str(request.get(), "replaceTargetPortName", options.port.c_str());
    }
    return message_port_send_message_with_local_port(options.service.c_str(), kServicePort, request.get(),
                                                     localPortId);
}

/* Registers the local port; 0 (after a message) on failure. */
int RegisterPort(const EventOptions& options, EventSession& session)
{
    int portId = message_port_register_local_port(options.port.c_str(), OnEventCB, &session);
    if (portId <= 0) {
        ExplainRegistrationFailure(portId, options.port);
        return 0;
    }
    return portId;
}

/* ---- following the service across restarts ------------------------------------ */

/* A restarted service owns its name before its ports exist: try again for a while. */
constexpr guint kResubscribeIntervalMs = 200;
constexpr int kResubscribeAttempts = 100;

gboolean ResubscribeCB(gpointer data)
{
    EventSession* session = static_cast<EventSession*>(data);
    const int sent = SendRequest(*session->options, session->portId, "SubscribePreviewEvent");
    if (sent == MESSAGE_PORT_ERROR_NONE) {
        std::fprintf(stderr, "the service %s is back on the bus: subscribed again\n", session->service.c_str());
        session->retrySource = 0;
        return G_SOURCE_REMOVE;
    }
    if (++session->retries >= kResubscribeAttempts) {
        ExplainSendFailure(sent, session->service);
        std::fprintf(stderr, "tilvanectl events: could not subscribe again\n");
        session->retrySource = 0;
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void OnServiceAppearedCB(GDBusConnection* /*connection*/, const gchar* /*name*/, const gchar* /*owner*/,
                         gpointer data)
{
    EventSession* session = static_cast<EventSession*>(data);
    if (!session->serviceGone) {
        return; /* the service the subscription was made with */
    }
    session->serviceGone = false;
    session->retries = 0;
    if (session->retrySource == 0 && ResubscribeCB(session) == G_SOURCE_CONTINUE) {
        session->retrySource = g_timeout_add(kResubscribeIntervalMs, ResubscribeCB, session);
    }
}

void OnServiceVanishedCB(GDBusConnection* /*connection*/, const gchar* /*name*/, gpointer data)
{
    EventSession* session = static_cast<EventSession*>(data);
    if (session->serviceGone) {
        return;
    }
    session->serviceGone = true;
    if (session->retrySource != 0) {
        g_source_remove(session->retrySource);
        session->retrySource = 0;
    }
    std::fprintf(stderr, "the service %s left the bus; waiting for it to come back\n", session->service.c_str());
}

/* Watches the service's bus name on a connection of its own; 0 when the bus
 * cannot be used for it (the subscription then just does not follow restarts). */
guint WatchService(EventSession& session, GDBusConnection** connection)
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    const std::string name = tilvane::host::BusNameForAppId(session.service);
    if (address == nullptr || name.empty()) {
        return 0;
    }
    *connection = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (*connection == nullptr) {
        return 0;
    }
    return g_bus_watch_name_on_connection(*connection, name.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                          OnServiceAppearedCB, OnServiceVanishedCB, &session, nullptr);
}

int Subscribe(const EventOptions& options)
{
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    EventSession session;
    session.loop = loop;
    session.service = options.service;

    int exitCode = EXIT_FAILED;
    int portId = RegisterPort(options, session);
    if (portId > 0) {
        int sent = SendRequest(options, portId, "SubscribePreviewEvent");
        if (sent != MESSAGE_PORT_ERROR_NONE) {
            ExplainSendFailure(sent, options.service);
        } else if (ConfirmDelivery("events", options.service) == EXIT_OK) {
            guint sigint = g_unix_signal_add(SIGINT, OnStopSignalCB, &session);
            guint sigterm = g_unix_signal_add(SIGTERM, OnStopSignalCB, &session);
            session.options = &options;
            session.portId = portId;
            GDBusConnection* watchConnection = nullptr;
            const guint watch = WatchService(session, &watchConnection);
            std::fprintf(stderr, "subscribed to preview events of %s as %s, port %s (Ctrl-C to stop)\n",
                         options.service.c_str(), OwnAppId().c_str(), options.port.c_str());
            g_main_loop_run(loop);
            g_source_remove(sigint);
            g_source_remove(sigterm);
            if (watch != 0) {
                g_bus_unwatch_name(watch);
            }
            if (session.retrySource != 0) {
                g_source_remove(session.retrySource);
            }
            if (watchConnection != nullptr) {
                g_dbus_connection_close_sync(watchConnection, nullptr, nullptr);
                g_object_unref(watchConnection);
            }

            int unsubscribed = SendRequest(options, portId, "UnsubscribePreviewEvent");
            if (unsubscribed != MESSAGE_PORT_ERROR_NONE) {
                ExplainSendFailure(unsubscribed, options.service);
                std::fprintf(stderr, "tilvanectl events: the subscription could not be removed\n");
            } else {
                std::fprintf(stderr, "unsubscribed after %d event(s)\n", session.events);
            }
            exitCode = EXIT_OK;
        }
        message_port_unregister_local_port(portId);
    }
    g_main_loop_unref(loop);
    return exitCode;
}

int Unsubscribe(const EventOptions& options)
{
    EventSession session;
    session.service = options.service;
    int portId = RegisterPort(options, session);
    if (portId <= 0) {
        return EXIT_FAILED;
    }
    int sent = SendRequest(options, portId, "UnsubscribePreviewEvent");
    const int confirmed = sent == MESSAGE_PORT_ERROR_NONE ? ConfirmDelivery("events", options.service) : EXIT_FAILED;
    message_port_unregister_local_port(portId);
    if (sent != MESSAGE_PORT_ERROR_NONE) {
        ExplainSendFailure(sent, options.service);
        return EXIT_FAILED;
    }
    if (confirmed != EXIT_OK) {
        return EXIT_FAILED;
    }
    std::printf("unsubscribed %s, port %s\n", OwnAppId().c_str(), options.port.c_str());
    return EXIT_OK;
}

int Trigger(const EventOptions& options)
{
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    EventSession session;
    session.loop = loop;
    session.service = options.service;
    session.stopAtFirstEvent = true;

    int exitCode = EXIT_FAILED;
    int portId = RegisterPort(options, session);
    if (portId > 0) {
        int sent = SendRequest(options, portId, "TriggerPreviewEvent");
        if (sent != MESSAGE_PORT_ERROR_NONE) {
            ExplainSendFailure(sent, options.service);
        } else if (ConfirmDelivery("events", options.service) == EXIT_OK) {
            guint timeout = g_timeout_add_seconds(static_cast<guint>(options.timeoutSeconds), OnTimeoutCB, &session);
            g_main_loop_run(loop);
            if (!session.timedOut) {
                g_source_remove(timeout);
            }
            if (session.events > 0) {
                exitCode = EXIT_OK;
            } else {
                std::fprintf(stderr, "tilvanectl events: no test event from '%s' within %d s\n",
                             options.service.c_str(), options.timeoutSeconds);
            }
        }
        message_port_unregister_local_port(portId);
    }
    g_main_loop_unref(loop);
    return exitCode;
}

}  // namespace

void PrintEventsHelp()
{
    std::printf(
        "Usage: tilvanectl [--app-id ID] events COMMAND [OPTIONS]\n"
        "\n"
        "Commands:\n"
        "  subscribe     subscribe this application to preview events, print each event\n"
        "                as one line of key=value entries until Ctrl-C or SIGTERM, then\n"
        "                unsubscribe; when the service leaves the bus and comes back it\n"
        "                subscribes again and says so on standard error\n"
        "  unsubscribe   remove this application's subscription (for one left behind by a\n"
        "                subscriber that was killed)\n"
        "  trigger       ask the service for its test event, print it and exit; exit code 1\n"
        "                when the service is not running or sends nothing in time\n"
        "\n"
        "Options:\n"
        "  --service APPID   the service's application id (default: $TILVANE_SERVICE_APP_ID,\n"
        "                    else %s)\n"
        "  --port NAME       this application's local port (default: %s)\n"
        "  --timeout SEC     trigger only: how long to wait for the test event (default: %d)\n"
        "\n"
        "Each running tool owns its application id on the bus: run a subscriber and a\n"
        "trigger at the same time with different --app-id values.\n",
        kDefaultServiceAppId, kDefaultLocalPort, kDefaultTriggerTimeoutSeconds);
}

int RunEventsCommand(const std::vector<std::string>& args)
{
    if (args.empty()) {
        PrintEventsHelp();
        return EXIT_USAGE;
    }
    const std::string& command = args[0];
    if (command != "subscribe" && command != "unsubscribe" && command != "trigger") {
        std::fprintf(stderr, "tilvanectl events: unknown command '%s' (see tilvanectl events --help)\n",
                     command.c_str());
        return EXIT_USAGE;
    }
    EventOptions options;
    if (!ParseOptions(args, command == "trigger", options)) {
        return EXIT_USAGE;
    }
    if (command == "subscribe") {
        return Subscribe(options);
    }
    if (command == "unsubscribe") {
        return Unsubscribe(options);
    }
    return Trigger(options);
}

}  // namespace tilvanectl
