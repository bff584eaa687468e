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
#include <variant>

#include "admin/database_maintenance.h"
#include "admin_wire.h"
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
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(wire::IntrospectionXml(), error.Out());
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

/* The file descriptor passed with the call at `file` of its list; -1 when
 * none came. The caller closes it. */
int PassedFile(GDBusMethodInvocation* invocation, wire::FdIndex file)
{
    GUnixFDList* list = g_dbus_message_get_unix_fd_list(g_dbus_method_invocation_get_message(invocation));
    if (list == nullptr || file.index < 0 || file.index >= g_unix_fd_list_get_length(list)) {
        return -1;
    }
    return g_unix_fd_list_get(list, file.index, nullptr);
}

std::string StatisticsJson()
{
    const std::map<std::string, std::string> extra = {
        {"subscribers", std::to_string(WatchedRemotePorts())},
    };
    return stats::ToJson(stats::Take(), extra);
}

/* Who calls, and the call its file came with. */
struct Caller {
    GDBusMethodInvocation* invocation;
    std::string who;
};

/* A method's answer: its reply, or an error name and its reason. */
template <typename Out>
struct Answer {
    Out out{};
    const char* error = nullptr;
    std::string why;
};

/* Does `work` with the file passed with the call and puts its summary in the
 * answer, or the error `errorName` with its reason; false when it was not done. */
using FileWork = bool (*)(int fd, std::string& summary, std::string& why);
template <typename Out>
bool DoWithFile(const Caller& caller, wire::FdIndex file, FileWork work, const char* errorName, Answer<Out>& answer)
{
    const int fd = PassedFile(caller.invocation, file);
    if (fd < 0) {
        answer.error = kErrorRefused;
        answer.why = "no file was passed with the call";
        return false;
    }
    const bool done = work(fd, answer.out.summary, answer.why);
    close(fd);
    if (!done) {
        answer.error = errorName;
    }
    return done;
}

Answer<wire::AdminGetStatisticsOut> Handle(const wire::AdminGetStatisticsIn& /*in*/, const Caller& /*caller*/)
{
    Answer<wire::AdminGetStatisticsOut> answer;
    answer.out.json = StatisticsJson();
    return answer;
}

Answer<wire::AdminResetStatisticsOut> Handle(const wire::AdminResetStatisticsIn& /*in*/, const Caller& caller)
{
    stats::Reset();
    ADMIN_LOGI("statistics reset by %s", caller.who.c_str());
    return {};
}

Answer<wire::AdminBackupOut> Handle(const wire::AdminBackupIn& in, const Caller& caller)
{
    Answer<wire::AdminBackupOut> answer;
    if (DoWithFile(caller, in.file, BackupTo, kErrorFailed, answer)) {
        ADMIN_LOGI("database backup written for %s: %s", caller.who.c_str(), answer.out.summary.c_str());
    } else {
        ADMIN_LOGE("database backup for %s failed: %s", caller.who.c_str(), answer.why.c_str());
    }
    return answer;
}

Answer<wire::AdminRestoreOut> Handle(const wire::AdminRestoreIn& in, const Caller& caller)
{
    Answer<wire::AdminRestoreOut> answer;
    if (DoWithFile(caller, in.file, RestoreFrom, kErrorRefused, answer)) {
        ADMIN_LOGI("database restored from a copy for %s: %s", caller.who.c_str(), answer.out.summary.c_str());
    } else {
        ADMIN_LOGW("database restore for %s refused: %s; nothing was changed", caller.who.c_str(),
                   answer.why.c_str());
    }
    return answer;
}

Answer<wire::AdminCheckOut> Handle(const wire::AdminCheckIn& /*in*/, const Caller& caller)
{
    const CheckReport report = CheckDatabase();
    Answer<wire::AdminCheckOut> answer;
    answer.out.healthy = report.healthy;
    answer.out.findings = report.findings;
    size_t problems = 0;
    for (const std::string& finding : report.findings) {
        problems += finding.rfind("problem: ", 0) == 0 ? 1 : 0;
    }
    ADMIN_LOGI("database check for %s: %s", caller.who.c_str(),
               report.healthy ? "healthy" : (std::to_string(problems) + " problem(s)").c_str());
    return answer;
}

template <typename Out>
void SendAnswer(GDBusMethodInvocation* invocation, Answer<Out>&& answer)
{
    if (answer.error != nullptr) {
        g_dbus_method_invocation_return_dbus_error(invocation, answer.error, answer.why.c_str());
        return;
    }
    g_dbus_method_invocation_return_value(invocation, wire::ToVariant(std::move(answer.out)));
}

/* A call, read once into its typed request (admin_wire.h, generated from
 * admin_interface.xml), answered by its handler. */
void OnAdminCallCB(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*objectPath*/,
                   const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                   GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    Caller caller{invocation, std::string()};
    std::string reason;
    if (!MayOperate(invocation, caller.who, reason)) {
        ADMIN_LOGW("operator's request %s refused: %s", methodName, reason.c_str());
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorNotAuthorized,
                                                   (reason + ": only platform users may use it").c_str());
        return;
    }
    wire::Method method{};
    wire::Request request;
    if (!wire::FindMethod(interfaceName, methodName, method) || !wire::ReadRequest(method, parameters, request)) {
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorRefused,
                                                   "not a method of the operator's interface with its arguments");
        return;
    }
    std::visit([&](const auto& in) { SendAnswer(invocation, Handle(in, caller)); }, request);
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

}  // namespace admin
}  // namespace host
}  // namespace tilvane
