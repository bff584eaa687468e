/*
 * The operator's interface (admin_interface.h).
 */
#include "admin/admin_interface.h"

#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "admin/database_maintenance.h"
#include "admin_interface_xml.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "dlog.h"
#include "bus/bus_connection.h"
#include "bus/credentials.h"
#include "ports/port_delivery.h"
#include "stats/request_stats.h"

#define ADMIN_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define ADMIN_LOGW(...) __dlog_print(LOG_ID_MAIN, DLOG_WARN, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define ADMIN_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace admin {
namespace {

GDBusNodeInfo* NodeInfo()
{
    static GDBusNodeInfo* node = [] {
        ScopedError error;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(kAdminInterfaceXml, error.Out());
        if (parsed == nullptr) {
            ADMIN_LOGE("operator's interface: bad introspection data: %s", error.Message());
        }
        return parsed;
    }();
    return node;
}

/* True when the caller may use the interface: a platform user, or, in the
 * development mode, the service's own user. `who` names the caller's user. */
bool MayOperate(GDBusMethodInvocation* invocation, std::string& who, std::string& reason)
{
    uid_t uid = 0;
    if (!identity::ConnectionUser(g_dbus_method_invocation_get_connection(invocation),
                                  g_dbus_method_invocation_get_sender(invocation), uid)) {
        reason = "the bus does not report the caller's user";
        return false;
    }
    who = "user " + std::to_string(uid);
    if (identity::IsPlatformUser(uid) ||
        (identity::CurrentMode() == identity::Mode::Development && uid == geteuid())) {
        return true;
    }
    reason = who + " is not a platform user";
    return false;
}

/* The file descriptor passed with the call as its first argument; -1 when
 * none came. The caller closes it. */
int PassedFile(GDBusMethodInvocation* invocation, GVariant* parameters)
{
    GUnixFDList* list = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
    gint32 handle = -1;
    g_variant_get(parameters, "(h)", &handle);
    if (list == nullptr || handle < 0 || handle >= g_unix_fd_list_get_length(list)) {
        return -1;
    }
    return g_unix_fd_list_get(list, handle, nullptr);
}

std::string StatisticsJson()
{
    const std::map<std::string, std::string> extra = {
        {"subscribers", std::to_string(WatchedRemotePorts())},
    };
    return stats::ToJson(stats::Take(), extra);
}

/* Does `work` with the file passed with the call and answers its summary,
 * or the error `errorName` with its reason; false when it was not done. */
using FileWork = bool (*)(int fd, std::string& summary, std::string& why);
bool AnswerWithFile(GDBusMethodInvocation* invocation, GVariant* parameters, FileWork work, const char* errorName,
                    std::string& summary, std::string& why)
{
    const int fd = PassedFile(invocation, parameters);
    if (fd < 0) {
        why = "no file was passed with the call";
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorRefused, why.c_str());
        return false;
    }
    const bool done = work(fd, summary, why);
    close(fd);
    if (!done) {
        g_dbus_method_invocation_return_dbus_error(invocation, errorName, why.c_str());
        return false;
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", summary.c_str()));
    return true;
}

void AnswerBackup(GDBusMethodInvocation* invocation, GVariant* parameters, const std::string& who)
{
    std::string summary;
    std::string why;
    if (AnswerWithFile(invocation, parameters, BackupTo, kErrorFailed, summary, why)) {
        ADMIN_LOGI("database backup written for %s: %s", who.c_str(), summary.c_str());
    } else {
        ADMIN_LOGE("database backup for %s failed: %s", who.c_str(), why.c_str());
    }
}

void AnswerRestore(GDBusMethodInvocation* invocation, GVariant* parameters, const std::string& who)
{
    std::string summary;
    std::string why;
    if (AnswerWithFile(invocation, parameters, RestoreFrom, kErrorRefused, summary, why)) {
        ADMIN_LOGI("database restored from a copy for %s: %s", who.c_str(), summary.c_str());
    } else {
        ADMIN_LOGW("database restore for %s refused: %s; nothing was changed", who.c_str(), why.c_str());
    }
}

void AnswerCheck(GDBusMethodInvocation* invocation, const std::string& who)
{
    const CheckReport report = CheckDatabase();
    GVariantBuilder findings;
    g_variant_builder_init(&findings, G_VARIANT_TYPE("as"));
    size_t problems = 0;
    for (const std::string& finding : report.findings) {
        g_variant_builder_add(&findings, "s", finding.c_str());
        problems += finding.rfind("problem: ", 0) == 0 ? 1 : 0;
    }
    ADMIN_LOGI("database check for %s: %s", who.c_str(),
               report.healthy ? "healthy" : (std::to_string(problems) + " problem(s)").c_str());
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(bas)", report.healthy, &findings));
}

void OnAdminCallCB(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*objectPath*/,
                   const gchar* /*interfaceName*/, const gchar* methodName, GVariant* parameters,
                   GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    std::string who;
    std::string reason;
    if (!MayOperate(invocation, who, reason)) {
        ADMIN_LOGW("operator's request %s refused: %s", methodName, reason.c_str());
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorNotAuthorized,
                                                   (reason + ": only platform users may use it").c_str());
        return;
    }
    const std::string method = methodName;
    if (method == "GetStatistics") {
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", StatisticsJson().c_str()));
    } else if (method == "ResetStatistics") {
        stats::Reset();
        ADMIN_LOGI("statistics reset by %s", who.c_str());
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (method == "Backup") {
        AnswerBackup(invocation, parameters, who);
    } else if (method == "Restore") {
        AnswerRestore(invocation, parameters, who);
    } else {
        AnswerCheck(invocation, who);
    }
}

/* The object's registration on the open connection; 0 when none. */
std::atomic<guint> g_objectId{0};

bool RegisterAdminObject(GDBusConnection* connection)
{
    GDBusNodeInfo* node = NodeInfo();
    if (node == nullptr) {
        return true;
    }
    static const GDBusInterfaceVTable vtable = {OnAdminCallCB, nullptr, nullptr, {nullptr}};
    ScopedError error;
    /* Answered on the default main context, between two requests. */
    g_main_context_push_thread_default(g_main_context_default());
    const guint id = g_dbus_connection_register_object(connection, kAdminPath,
                                                       g_dbus_node_info_lookup_interface(node, kAdminInterface),
                                                       &vtable, nullptr, nullptr, error.Out());
    g_main_context_pop_thread_default(g_main_context_default());
    if (id == 0) {
        ADMIN_LOGE("cannot export the operator's interface: %s", error.Message());
    }
    g_objectId.store(id);
    /* Without it the connection still serves requests. */
    return true;
}

void UnregisterAdminObject(GDBusConnection* connection)
{
    const guint id = g_objectId.exchange(0);
    if (id != 0) {
        g_dbus_connection_unregister_object(connection, id);
    }
}

}  // namespace

void ExportAdminInterfaceOnEveryConnection()
{
    static std::once_flag once;
    std::call_once(once, [] {
        ConnectionUser user{};
        user.opened = RegisterAdminObject;
        user.closing = UnregisterAdminObject;
        AddConnectionUser(user);
    });
}

const char* AdminInterfaceXml()
{
    return kAdminInterfaceXml;
}

}  // namespace admin
}  // namespace host
}  // namespace tilvane
