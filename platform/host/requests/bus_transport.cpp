/*
 * The request interfaces on the message bus: the transport between method
 * calls and the typed handlers (request_handlers.h).
 *
 * Every process exports two objects on its bus connection
 * (bus/bus_connection.h), described by request_interfaces.xml:
 *   /org/tilvane/DataControl  org.tilvane.DataControl  Insert Select Update Delete
 *   /org/tilvane/Content      org.tilvane.Content      Insert BulkInsert Select Update
 *                                                      BulkUpdate Delete GetRowIds Publish
 * A call is read once into its typed request (request_wire.h, generated from
 * the XML: the one place where method names are compared and arguments
 * read). Each request names the caller's application id (`clientApp`); it is
 * believed only when the bus says that the calling connection owns that
 * application's bus name (bus_connection.h's SenderIsApp). Calls arrive on the
 * GLib default main context, where the provider's callbacks run; the reply is
 * sent from there as soon as the handler returns. The first call of a sender,
 * whose check may wait for the bus daemon, is checked on the platform's bus
 * thread and handed back; the calls that come while one is being checked
 * follow it, so that every sender's calls run in the order they came.
 *
 * A failure is answered with its error name; a NoResult or ProviderError whose
 * reason is known carries it after the name (".PermissionLevel", ...:
 * tilvane_reason_name), so that a client reads the reason as a code.
 */
#include <gio/gio.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "base/glib_ptr.h"
#include "bus/bus_connection.h"
#include "content/statement_budget.h"
#include "log/log_budget.h"
#include "requests/idle_trim.h"
#include "requests/refusal_reasons.h"
#include "requests/request_glue.h"
#include "requests/request_handlers.h"
#include "requests/transport.h"
#include "stats/request_stats.h"
#include "request_wire.h"

namespace tilvane {
namespace host {
namespace requests {

GDBusNodeInfo* RequestNodeInfo()
{
    static GDBusNodeInfo* node = [] {
        ScopedError error;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(wire::IntrospectionXml(), error.Out());
        if (parsed == nullptr) {
            REQUEST_LOGE("request interfaces: bad introspection data: %s", error.Message());
        }
        return parsed;
    }();
    return node;
}

namespace {

/* Whether a reply carries a result code (the content interface's writes). */
template <typename Out, typename = void>
struct HasResult : std::false_type {};
template <typename Out>
struct HasResult<Out, std::void_t<decltype(std::declval<Out>().result)>> : std::true_type {};

/* A reply whose result is not 0 is counted under that result's reason; a
 * publish counts its own end (content_publish.cpp). */
template <typename Out>
void CountReply(const Out& out)
{
    if constexpr (HasResult<Out>::value && !std::is_same_v<Out, wire::ContentPublishOut>) {
        CountResultCode(out.result);
    }
}

template <typename Out>
size_t SendAnswer(CallAnswer& call, Answer<Out>&& answer)
{
    if (answer.failed) {
        CountFailure(answer.failure.error, answer.failure.reason, answer.failure.text);
        call.Fail(ErrorName(answer.failure.error, answer.failure.reason).c_str(), answer.failure.text.c_str());
        return answer.failure.text.size();
    }
    CountReply(answer.out);
    GVariantPtr reply(g_variant_ref_sink(wire::ToVariant(std::move(answer.out))));
    const size_t bytes = g_variant_get_size(reply.get());
    call.Return(reply.get());
    return bytes;
}

/* A call that came on a GDBus connection: the bus's, or a test's peer. */
class InvocationAnswer : public CallAnswer {
public:
    /* Takes the reference that the method call handler was given, which
     * g_dbus_method_invocation_return_* consume; dropped unanswered, the
     * call is let go with it. */
    explicit InvocationAnswer(GDBusMethodInvocation* invocation) : m_invocation(invocation) {}
    void Return(GVariant* value) override { g_dbus_method_invocation_return_value(m_invocation.release(), value); }
    void Fail(const char* name, const char* message) override
    {
        g_dbus_method_invocation_return_dbus_error(m_invocation.release(), name, message);
    }
    GDBusMethodInvocation* Invocation() const { return m_invocation.get(); }

private:
    std::unique_ptr<GDBusMethodInvocation, GObjectUnref> m_invocation;
};

/* "DataControl.Insert": the request as the budgets and the log name it. */
std::string RequestName(wire::Method method)
{
    const char* interface = wire::InterfaceOf(method);
    const char* dot = std::strrchr(interface, '.');
    return std::string(dot != nullptr ? dot + 1 : interface) + "." + wire::NameOf(method);
}

}  // namespace

size_t RunJob(Job& job)
{
    size_t bytes = 0;
    {
        LogSourceScope logSource(job.clientApp);
        content::StatementBudgetScope budget(job.clientApp, RequestName(job.method));
        bytes = std::visit([&](const auto& in) { return SendAnswer(*job.answer, Handle(in)); }, job.request);
    }
    TrimWhenIdle();
    return bytes;
}

void RefuseSender(Job& job, const std::string& reason)
{
    REQUEST_LOGE("request %s.%s refused: %s", wire::InterfaceOf(job.method), wire::NameOf(job.method),
                 reason.c_str());
    CountFailure(kErrorNotAuthorized, TILVANE_REASON_NONE, std::string());
    job.answer->Fail(kErrorNotAuthorized, "the sender does not own the name of the application it claims");
}

/* Runs the job, or refuses its sender, counted in the statistics. */
size_t ServeJob(Job& job)
{
    static const std::string kDataControlName = "DataControl";
    static const std::string kContentName = "Content";
    const bool dataControl = std::strcmp(wire::InterfaceOf(job.method), kDataControlInterface) == 0;
    const std::string method = wire::NameOf(job.method);
    stats::RequestScope counted(dataControl ? kDataControlName : kContentName, method, job.arrivedUs);
    if (job.refusal.empty()) {
        return RunJob(job);
    }
    RefuseSender(job, job.refusal);
    return 0;
}

std::unique_ptr<Job> ReadCall(const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                              std::unique_ptr<CallAnswer> answer)
{
    std::unique_ptr<Job> job(new Job{std::move(answer), GVariantPtr(g_variant_ref(parameters)), wire::Method{},
                                     wire::Request{}, std::string(), std::string(), stats::MonotonicUs()});
    if (!wire::FindMethod(interfaceName, methodName, job->method) ||
        !wire::ReadRequest(job->method, parameters, job->request)) {
        job->answer->Fail(kErrorInvalidRequest, "not a method of the request interfaces with its arguments");
        return nullptr;
    }
    job->clientApp = std::visit([](const auto& in) { return std::string(in.clientApp); }, job->request);
    return job;
}

namespace {

/* Checks of senders not known yet, on the bus thread or their jobs still
 * waiting for the main context. While there is one, every call takes that
 * way, so that calls run in the order they came. */
std::atomic<int> unsettledChecks{0};

/* A job whose sender was checked on the bus thread, back on the main context. */
gboolean RunCheckedJobCB(gpointer data)
{
    --unsettledChecks;
    ServeJob(*static_cast<Job*>(data));
    return G_SOURCE_REMOVE;
}

void FreeJobCB(gpointer data)
{
    delete static_cast<Job*>(data);
}

/* A call on its way through the bus thread. The bus thread's source owns
 * it; the job leaves it for the main context once the sender is checked. */
struct SenderCheck {
    std::unique_ptr<Job> job;
};

/* The bus thread's source is gone. A job still in it was never checked (the
 * connection closed first): its call is dropped with the connection. */
void DropSenderCheckCB(gpointer data)
{
    std::unique_ptr<SenderCheck> check(static_cast<SenderCheck*>(data));
    if (check->job) {
        --unsettledChecks;
    }
}

/* On the bus thread: asks the bus who the sender is (which may wait for the
 * bus daemon), then hands the job back to the main context. */
gboolean CheckSenderCB(gpointer data)
{
    Job* job = static_cast<SenderCheck*>(data)->job.release();
    GDBusMethodInvocation* invocation = static_cast<InvocationAnswer&>(*job->answer).Invocation();
    std::string reason;
    if (!SenderIsApp(g_dbus_method_invocation_get_connection(invocation),
                     g_dbus_method_invocation_get_sender(invocation), job->clientApp, reason)) {
        job->refusal = reason.empty() ? "refused" : reason;
    }
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, RunCheckedJobCB, job, FreeJobCB);
    g_source_attach(source, nullptr);
    g_source_unref(source);
    return G_SOURCE_REMOVE;
}

/* On the default main context. A sender the bus was already asked about is
 * answered here and now; any other is checked on the bus thread first. */
void OnRequestMethodCallCB(GDBusConnection* /*connection*/, const gchar* sender, const gchar* /*objectPath*/,
                           const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    std::unique_ptr<Job> job =
        ReadCall(interfaceName, methodName, parameters, std::make_unique<InvocationAnswer>(invocation));
    if (!job) {
        return;
    }
    std::string reason;
    const int known = unsettledChecks == 0 ? KnownSenderIsApp(sender, job->clientApp, reason) : -1;
    if (known != -1) {
        job->refusal = known == 1 ? std::string() : (reason.empty() ? std::string("refused") : reason);
        ServeJob(*job);
        return;
    }
    SenderCheck* check = new SenderCheck{std::move(job)};
    ++unsettledChecks;
    if (!InvokeOnBusThread(CheckSenderCB, check, DropSenderCheckCB)) {
        --unsettledChecks;
        RefuseSender(*check->job, "the message bus connection is closing");
        delete check;
    }
}

bool RegisterRequestObjects(GDBusConnection* connection)
{
    GDBusNodeInfo* node = RequestNodeInfo();
    if (node == nullptr) {
        return true;
    }
    static const GDBusInterfaceVTable vtable = {OnRequestMethodCallCB, nullptr, nullptr, {nullptr}};
    ScopedError error;
    /* Calls are dispatched on the context that is the thread's default while
     * the object is registered: the GLib default one, where the provider's
     * callbacks run, so that a call reaches them in one step. */
    g_main_context_push_thread_default(g_main_context_default());
    const guint dc = g_dbus_connection_register_object(
        connection, kDataControlPath, g_dbus_node_info_lookup_interface(node, kDataControlInterface), &vtable, nullptr,
        nullptr, error.Out());
    const guint content = g_dbus_connection_register_object(
        connection, kContentPath, g_dbus_node_info_lookup_interface(node, kContentInterface), &vtable, nullptr,
        nullptr, error.Out());
    g_main_context_pop_thread_default(g_main_context_default());
    if (dc == 0 || content == 0) {
        REQUEST_LOGE("cannot export the request interfaces: %s", error.Message());
    }
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dcObjectId = dc;
    s.contentObjectId = content;
    /* Without them the connection still serves the rest of the platform. */
    return true;
}

void UnregisterRequestObjects(GDBusConnection* connection)
{
    RequestState& s = TheRequestState();
    guint dc = 0;
    guint content = 0;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        dc = s.dcObjectId;
        content = s.contentObjectId;
        s.dcObjectId = 0;
        s.contentObjectId = 0;
        s.ownedNames.clear(); /* they go with the connection */
    }
    if (dc != 0) {
        g_dbus_connection_unregister_object(connection, dc);
    }
    if (content != 0) {
        g_dbus_connection_unregister_object(connection, content);
    }
}

}  // namespace

void ExportRequestObjectsOnEveryConnection()
{
    ConnectionUser user{};
    user.opened = RegisterRequestObjects;
    user.closing = UnregisterRequestObjects;
    AddConnectionUser(user);
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
