/*
 * tilvanectl accelerator, launcher, key, power-off and system-info: the
 * messages that keep launcher entries in step, and the platform settings and
 * events that make the service clear content.
 *
 * accelerator and launcher send to the service's ports "accelerator_port" and
 * "launcher_event_port". An install waits for the service's answer on a local
 * port of the tool's own. key, power-off and system-info act on the host
 * platform directly: a key change and a power-off reach the running service
 * as bus signals.
 */
#include <bundle.h>
#include <bundle_ptr.h>
#include <glib.h>
#include <host_control.h>
#include <message_port.h>
#include <vconf.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Commands.h"
#include "Delivery.h"
#include "TilesModel.h"

namespace tilvanectl {
namespace {

const char kDefaultServiceAppId[] = "com.quillon.px.tilvane";
const char kAcceleratorPort[] = "accelerator_port";
const char kLauncherEventPort[] = "launcher_event_port";
const char kReplyPort[] = "tilvanectl-accelerator";
const int kDefaultReplyTimeoutSeconds = 10;

std::string ServiceFromEnvironment()
{
    const char* value = std::getenv("TILVANE_SERVICE_APP_ID");
    return value != nullptr && *value != '\0' ? value : kDefaultServiceAppId;
}

bool ParseInt(const std::string& text, long& value)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text.c_str(), &end, 10);
    return *end == '\0' && errno == 0 && value >= INT_MIN && value <= INT_MAX;
}

void ExplainSendFailure(const char* group, int result, const std::string& service, const char* port)
{
    if (result == MESSAGE_PORT_ERROR_PORT_NOT_FOUND) {
        std::fprintf(stderr, "tilvanectl %s: the service '%s' is not running (no port '%s' on the bus)\n", group,
                     service.c_str(), port);
    } else if (result == MESSAGE_PORT_ERROR_IO_ERROR) {
        std::fprintf(stderr, "tilvanectl %s: cannot reach the message bus (is DBUS_SESSION_BUS_ADDRESS set?)\n",
                     group);
    } else if (result == MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE) {
        std::fprintf(stderr, "tilvanectl %s: this application id already runs on the bus; choose another with --app-id\n",
                     group);
    } else if (result == MESSAGE_PORT_ERROR_PERMISSION_DENIED) {
        ExplainRefusedName(group);
    } else {
        std::fprintf(stderr, "tilvanectl %s: cannot send to '%s' port '%s' (error %d)\n", group, service.c_str(), port,
                     result);
    }
}

/* ---- accelerator ------------------------------------------------------------ */

struct ReplySession {
    GMainLoop* loop = nullptr;
    std::string service;
    std::string packageName;
    bool answered = false;
    std::string id;
};

void OnReplyCB(int /*localPortId*/, const char* remoteAppId, const char* /*remotePort*/, bool /*trusted*/,
               bundle* message, void* userData)
{
    ReplySession* session = static_cast<ReplySession*>(userData);
    if (remoteAppId == nullptr || session->service != remoteAppId) {
        return;
    }
    char* pId = nullptr;
    if (bundle_get_str(message, TilesModel::Accelerators::_ID, &pId) != BUNDLE_ERROR_NONE || pId == nullptr) {
        return;
    }
    session->id = pId;
    session->answered = true;
    g_main_loop_quit(session->loop);
}

gboolean OnReplyTimeoutCB(gpointer data)
{
    g_main_loop_quit(static_cast<ReplySession*>(data)->loop);
    return G_SOURCE_REMOVE;
}

/* What `accelerator install` asks for. */
struct InstallRequest {
    std::string service;
    std::string packageName;
    int timeoutSeconds = kDefaultReplyTimeoutSeconds;
    std::vector<std::pair<const char*, std::string>> values;
};

/* EXIT_OK with `request` filled, or EXIT_USAGE with the mistake written out. */
int ParseInstallArguments(const std::vector<std::string>& args, InstallRequest& request)
{
    request.service = ServiceFromEnvironment();
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& word = args[i];
        const bool hasValue = i + 1 < args.size();
        if (word == "--title" && hasValue) {
            request.values.emplace_back(TilesModel::Accelerators::ACCELERATOR_TITLE, args[++i]);
        } else if (word == "--icon" && hasValue) {
            request.values.emplace_back(TilesModel::Accelerators::ACCELERATOR_ICON, args[++i]);
        } else if (word == "--position" && hasValue) {
            request.values.emplace_back(TilesInternalModel::Accelerators::ACCELERATOR_POSITION, args[++i]);
        } else if (word == "--enabled" && hasValue) {
            request.values.emplace_back(TilesModel::Accelerators::ACCELERATOR_ENABLED, args[++i]);
        } else if (word == "--service" && hasValue && !args[i + 1].empty()) {
            request.service = args[++i];
        } else if (word == "--timeout" && hasValue) {
            long seconds = 0;
            if (!ParseInt(args[i + 1], seconds) || seconds <= 0 || seconds > 3600) {
                std::fprintf(stderr, "tilvanectl accelerator: --timeout takes a number of seconds (1 to 3600)\n");
                return EXIT_USAGE;
            }
            request.timeoutSeconds = static_cast<int>(seconds);
            ++i;
        } else if (word.compare(0, 2, "--") != 0 && request.packageName.empty()) {
            request.packageName = word;
        } else {
            std::fprintf(stderr, "tilvanectl accelerator: unknown or incomplete argument '%s'\n", word.c_str());
            return EXIT_USAGE;
        }
    }
    if (request.packageName.empty()) {
        std::fprintf(stderr, "tilvanectl accelerator install: a PACKAGE is needed\n");
        return EXIT_USAGE;
    }
    return EXIT_OK;
}

/* Sends the install message from the reply port and runs the session's loop
 * until the answer or the timeout; EXIT_FAILED (explained) when it cannot be sent. */
int AskForInstall(const InstallRequest& request, ReplySession& session)
{
    if (RequirePlatformSender("accelerator install", "install") != EXIT_OK) {
        return EXIT_FAILED;
    }
    int port = message_port_register_local_port(kReplyPort, OnReplyCB, &session);
    if (port <= 0) {
        ExplainSendFailure("accelerator", port, request.service, kAcceleratorPort);
        return EXIT_FAILED;
    }

    BundlePtr message = MakeBundle();
    bundle_add_str(message.get(), "action", "0");
    bundle_add_str(message.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME,
                   request.packageName.c_str());
    for (const auto& value : request.values) {
        bundle_add_str(message.get(), value.first, value.second.c_str());
    }
    int sent = message_port_send_message_with_local_port(request.service.c_str(), kAcceleratorPort, message.get(), port);
    message.reset();
    if (sent != MESSAGE_PORT_ERROR_NONE) {
        ExplainSendFailure("accelerator", sent, request.service, kAcceleratorPort);
        message_port_unregister_local_port(port);
        return EXIT_FAILED;
    }
    if (ConfirmDelivery("accelerator install", request.service) != EXIT_OK) {
        message_port_unregister_local_port(port);
        return EXIT_FAILED;
    }

    guint timer = g_timeout_add_seconds(static_cast<guint>(request.timeoutSeconds), OnReplyTimeoutCB, &session);
    g_main_loop_run(session.loop);
    if (!session.answered) {
        g_source_remove(timer);
    }
    message_port_unregister_local_port(port);
    return EXIT_OK;
}

int RunAcceleratorInstall(const std::vector<std::string>& args)
{
    InstallRequest request;
    int parsed = ParseInstallArguments(args, request);
    if (parsed != EXIT_OK) {
        return parsed;
    }

    ReplySession session;
    session.service = request.service;
    session.packageName = request.packageName;
    session.loop = g_main_loop_new(nullptr, FALSE);
    int asked = AskForInstall(request, session);
    g_main_loop_unref(session.loop);
    if (asked != EXIT_OK) {
        return asked;
    }

    if (!session.answered) {
        std::fprintf(stderr, "tilvanectl accelerator install: no answer from '%s' within %d s\n",
                     request.service.c_str(), request.timeoutSeconds);
        return EXIT_FAILED;
    }
    if (session.id == "-1") {
        std::fprintf(stderr, "tilvanectl accelerator install: the service could not add '%s' (id -1)\n",
                     request.packageName.c_str());
        return EXIT_FAILED;
    }
    std::printf("%s\n", session.id.c_str());
    return EXIT_OK;
}

/* A message without an answer of the service's own (uninstall, or a launcher
 * visibility change): sent once strict confinement would act on it, and
 * confirmed by the receiver's answer to the delivery. */
int SendPlain(const char* group, const char* kind, const std::vector<std::pair<const char*, std::string>>& entries,
              const char* port, const std::vector<std::string>& args, size_t firstOption)
{
    std::string service = ServiceFromEnvironment();
    for (size_t i = firstOption; i < args.size(); ++i) {
        if (args[i] == "--service" && i + 1 < args.size() && !args[i + 1].empty()) {
            service = args[++i];
        } else {
            std::fprintf(stderr, "tilvanectl %s: unknown or incomplete argument '%s'\n", group, args[i].c_str());
            return EXIT_USAGE;
        }
    }
    if (RequirePlatformSender(group, kind) != EXIT_OK) {
        return EXIT_FAILED;
    }
    BundlePtr message = MakeBundle();
    for (const auto& entry : entries) {
        bundle_add_str(message.get(), entry.first, entry.second.c_str());
    }
    int sent = message_port_send_message(service.c_str(), port, message.get());
    message.reset();
    if (sent != MESSAGE_PORT_ERROR_NONE) {
        ExplainSendFailure(group, sent, service, port);
        return EXIT_FAILED;
    }
    return ConfirmDelivery(group, service);
}

}  // namespace

int RunAcceleratorCommand(const std::vector<std::string>& args)
{
    if (args.empty()) {
        std::fprintf(stderr, "tilvanectl accelerator: install or uninstall? (see tilvanectl accelerator --help)\n");
        return EXIT_USAGE;
    }
    if (args[0] == "install") {
        return RunAcceleratorInstall(args);
    }
    if (args[0] == "uninstall") {
        if (args.size() < 2 || args[1].empty() || args[1].compare(0, 2, "--") == 0) {
            std::fprintf(stderr, "tilvanectl accelerator uninstall: a PACKAGE is needed\n");
            return EXIT_USAGE;
        }
        return SendPlain("accelerator", "uninstall",
                         {{"action", "1"}, {TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, args[1]}},
                         kAcceleratorPort, args, 2);
    }
    std::fprintf(stderr, "tilvanectl accelerator: unknown command '%s'\n", args[0].c_str());
    return EXIT_USAGE;
}

void PrintAcceleratorHelp()
{
    std::printf(
        "Usage: tilvanectl accelerator install PACKAGE [--title T] [--icon I] [--position P] [--enabled E]\n"
        "                                      [--service ID] [--timeout SECONDS]\n"
        "       tilvanectl accelerator uninstall PACKAGE [--service ID]\n"
        "install asks the service (port \"accelerator_port\") for PACKAGE's launcher entry and prints its id;\n"
        "exit 1 when the service answers -1 or does not answer in time (default 10 s).\n"
        "uninstall removes the entry; the service does not answer, and the tool exits 1 with the reason when\n"
        "the service refuses the message (or, under strict confinement, would drop it: only the platform's\n"
        "install, uninstall and visibility messages count).\n"
        "The service id is com.quillon.px.tilvane, or $TILVANE_SERVICE_APP_ID, or --service.\n");
}

int RunLauncherCommand(const std::vector<std::string>& args)
{
    if (args.size() < 2 || (args[0] != "visible" && args[0] != "hidden") || args[1].empty()) {
        std::fprintf(stderr, "tilvanectl launcher: expected 'visible PACKAGE' or 'hidden PACKAGE'\n");
        return EXIT_USAGE;
    }
    return SendPlain("launcher", "visibility",
                     {{"visibility", args[0]}, {TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, args[1]}},
                     kLauncherEventPort, args, 2);
}

void PrintLauncherHelp()
{
    std::printf(
        "Usage: tilvanectl launcher visible|hidden PACKAGE [--service ID]\n"
        "Reports a launcher visibility change of PACKAGE to the service (port \"launcher_event_port\"),\n"
        "which enables or disables the entry and passes the change on to the content service.\n");
}

int RunKeyCommand(const std::vector<std::string>& args)
{
    if (RequirePlatformUser("key", "a configuration key (the settings are the platform's own)") != EXIT_OK) {
        return EXIT_FAILED;
    }
    if (args.size() == 3 && args[0] == "set") {
        long value = 0;
        if (args[1].empty() || !ParseInt(args[2], value)) {
            std::fprintf(stderr, "tilvanectl key set: expected KEY and an integer VALUE\n");
            return EXIT_USAGE;
        }
        int result = vconf_set_int(args[1].c_str(), static_cast<int>(value));
        if (result != VCONF_OK) {
            std::fprintf(stderr, "tilvanectl key set: cannot set '%s' (error %d)\n", args[1].c_str(), result);
            return EXIT_FAILED;
        }
        return EXIT_OK;
    }
    if (args.size() == 2 && args[0] == "get") {
        int value = 0;
        int result = vconf_get_int(args[1].c_str(), &value);
        if (result != VCONF_OK) {
            std::fprintf(stderr, "tilvanectl key get: no key '%s' (error %d)\n", args[1].c_str(), result);
            return EXIT_FAILED;
        }
        std::printf("%d\n", value);
        return EXIT_OK;
    }
    if (args.size() == 2 && args[0] == "remove") {
        if (!tilvane::host::RemoveConfigurationKey(args[1])) {
            std::fprintf(stderr, "tilvanectl key remove: no key '%s'\n", args[1].c_str());
            return EXIT_FAILED;
        }
        return EXIT_OK;
    }
    std::fprintf(stderr, "tilvanectl key: expected 'set KEY VALUE', 'get KEY' or 'remove KEY'\n");
    return EXIT_USAGE;
}

void PrintKeyHelp()
{
    std::printf(
        "Usage: tilvanectl key set KEY VALUE | get KEY | remove KEY\n"
        "Integer configuration keys of the platform. A set notifies the processes watching KEY,\n"
        "for example: tilvanectl key set memory/korro/halcyon_reset_event 1\n");
}

int RunPowerOffCommand(const std::vector<std::string>& args)
{
    long type = 0;
    if (args.size() != 1 || !ParseInt(args[0], type)) {
        std::fprintf(stderr, "tilvanectl power-off: expected an integer TYPE\n");
        return EXIT_USAGE;
    }
    if (RequirePlatformUser("power-off", "a power-off") != EXIT_OK) {
        return EXIT_FAILED;
    }
    tilvane::host::RaisePowerOff(static_cast<int>(type));
    return EXIT_OK;
}

void PrintPowerOffHelp()
{
    std::printf(
        "Usage: tilvanectl power-off TYPE\n"
        "Announces a power-off of TYPE to every subscribed process (13 factory reset, 14 service reset).\n");
}

int RunSystemInfoCommand(const std::vector<std::string>& args)
{
    long key = 0;
    if (args.size() != 3 || args[0] != "set" || !ParseInt(args[1], key) || (args[2] != "true" && args[2] != "false")) {
        std::fprintf(stderr, "tilvanectl system-info: expected 'set KEY true|false'\n");
        return EXIT_USAGE;
    }
    if (RequirePlatformUser("system-info", "a system-information value (the settings are the platform's own)") !=
        EXIT_OK) {
        return EXIT_FAILED;
    }
    if (!tilvane::host::SetSystemInfoBool(static_cast<int>(key), args[2] == "true")) {
        std::fprintf(stderr, "tilvanectl system-info: cannot write the platform settings\n");
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

void PrintSystemInfoHelp()
{
    std::printf(
        "Usage: tilvanectl system-info set KEY true|false\n"
        "Sets a boolean system-information value; 583 is the glaze display mode, read at service start.\n");
}

}  // namespace tilvanectl
