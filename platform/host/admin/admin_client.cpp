/*
 * Calls of the operator's interface (admin_client.h).
 */
#include "admin/admin_client.h"

#include <gio/gunixfdlist.h>

#include <cstdlib>

#include "admin/admin_interface.h"
#include "base/glib_ptr.h"
#include "bus/bus_connection.h"
#include "config/platform_config.h"
#include "identity/app_identity.h"

namespace tilvane {
namespace host {
namespace admin {
namespace {

/* A backup or a check of a large database takes seconds; an hour is the
 * most the tool waits. */
constexpr int kCallTimeoutMs = 3600 * 1000;
constexpr char kUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr char kNameHasNoOwner[] = "org.freedesktop.DBus.Error.NameHasNoOwner";

/* The answer of a failed call, its reason in the tool's words. */
void Failed(AdminAnswer& answer, GError* error)
{
    gchar* remote = g_dbus_error_get_remote_error(error);
    const std::string name = remote != nullptr ? remote : "";
    g_free(remote);
    g_dbus_error_strip_remote_error(error);
    answer.refused = name == kErrorRefused || name == kErrorNotAuthorized;
    if (name == kServiceUnknown || name == kNameHasNoOwner) {
        answer.error = "the service " + ServiceAppId() + " does not run on the bus";
    } else if (name == kUnknownMethod) {
        answer.error = "the service " + ServiceAppId() + " has no operator's interface (an older version?)";
    } else {
        answer.error = error->message;
    }
}

/* Calls `method` with `parameters` (floating; may be null) and `fd` passed
 * along when it is not -1; null with `answer` filled when it failed. */
GVariantPtr Call(const char* method, GVariant* parameters, int fd, const char* replyType, AdminAnswer& answer)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr connection = SharedBusConnection(false, &problem);
    if (!connection) {
        answer.error = "no message bus (DBUS_SESSION_BUS_ADDRESS is not set or cannot be used)";
        return nullptr;
    }
    std::unique_ptr<GUnixFDList, GObjectUnref> files(fd >= 0 ? g_unix_fd_list_new() : nullptr);
    if (files && g_unix_fd_list_append(files.get(), fd, nullptr) < 0) {
        answer.error = "the file cannot be passed to the service";
        return nullptr;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_with_unix_fd_list_sync(
        connection.get(), EscapedBusName(kAppBusNamePrefix, ServiceAppId()).c_str(), kAdminPath, kAdminInterface, method, parameters,
        G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, files.get(), nullptr, nullptr,
        error.Out()));
    if (!reply) {
        Failed(answer, error.Get());
        return nullptr;
    }
    answer.ok = true;
    return reply;
}

AdminAnswer TextCall(const char* method, GVariant* parameters, int fd)
{
    AdminAnswer answer;
    GVariantPtr reply = Call(method, parameters, fd, "(s)", answer);
    if (reply) {
        const gchar* text = nullptr;
        g_variant_get(reply.get(), "(&s)", &text);
        answer.text = text;
    }
    return answer;
}

}  // namespace

std::string ServiceAppId()
{
    const char* fromEnvironment = std::getenv("TILVANE_SERVICE_APP_ID");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return fromEnvironment;
    }
    return config::String("service", "app-id", std::string());
}

AdminAnswer GetStatistics()
{
    return TextCall("GetStatistics", nullptr, -1);
}

AdminAnswer ResetStatistics()
{
    AdminAnswer answer;
    Call("ResetStatistics", nullptr, -1, "()", answer);
    return answer;
}

AdminAnswer Backup(int fd)
{
    return TextCall("Backup", g_variant_new("(h)", 0), fd);
}

AdminAnswer Restore(int fd)
{
    return TextCall("Restore", g_variant_new("(h)", 0), fd);
}

AdminAnswer Check()
{
    AdminAnswer answer;
    GVariantPtr reply = Call("Check", nullptr, -1, "(bas)", answer);
    if (reply) {
        gboolean healthy = FALSE;
        GVariantIter* findings = nullptr;
        g_variant_get(reply.get(), "(bas)", &healthy, &findings);
        const gchar* finding = nullptr;
        while (g_variant_iter_next(findings, "&s", &finding)) {
            answer.findings.emplace_back(finding);
        }
        g_variant_iter_free(findings);
        answer.healthy = healthy != FALSE;
    }
    return answer;
}

}  // namespace admin
}  // namespace host
}  // namespace tilvane
