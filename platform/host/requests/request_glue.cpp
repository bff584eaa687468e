/*
 * The two request interfaces over the message bus, exported together: data
 * control (SQL provider side) and the content library's provider interface.
 *
 * Every process exports two objects on its bus connection (bus_connection.h),
 * described by request_interfaces.xml:
 *   /org/tilvane/DataControl  org.tilvane.DataControl  Insert Select Update Delete
 *   /org/tilvane/Content      org.tilvane.Content      Insert BulkInsert Select Update
 *                                                      BulkUpdate Delete GetRowIds
 * A data-control provider owns "org.tilvane.DataControl.P" + escape(authority of
 * its provider id) while its callbacks are registered; the content library owns
 * "org.tilvane.Content.P" + escape(authority) while any callback is registered
 * for a URI of that authority (escape as for application ids, AppIdentity.h).
 *
 * Each call names the caller's application id as its first argument; it is
 * believed only when the bus says that the calling connection owns that
 * application's bus name (the message ports' check). Calls arrive on the GLib
 * default main context, where the provider's callbacks run; the reply is sent
 * from there as soon as the callback returns. The first call of a sender, whose
 * check may wait for the bus daemon, is checked on the platform's bus thread
 * and handed back; the calls that come while one is being checked follow it,
 * so that every sender's calls run in the order they came. A data-control callback that sent no answer, and a content
 * select or row-id callback that returned false, are answered at once with
 * org.tilvane.Request.Error.NoResult.
 */
#include "requests/request_glue.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <utility>

#include "identity/app_identity.h"
#include "bus/bus_connection.h"
#include "confinement_policy.h"
#include "content/registration_observer.h"
#include "content/statement_budget.h"
#include "log/log_budget.h"
#include "requests/idle_trim.h"
#include "requests/request_names.h"
#include "request_interfaces_xml.h"
#include "tilvane_schema.h"

namespace tilvane {
namespace host {
namespace requests {

RequestState& TheRequestState()
{
    static RequestState* state = new RequestState();
    return *state;
}

namespace {

GDBusNodeInfo* NodeInfo()
{
    static GDBusNodeInfo* node = [] {
        ScopedError error;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(kRequestInterfacesXml, error.Out());
        if (parsed == nullptr) {
            REQUEST_LOGE("request interfaces: bad introspection data: %s", error.Message());
        }
        return parsed;
    }();
    return node;
}

}  // namespace

bool BusConfigured()
{
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    return address != nullptr && *address != '\0';
}

/* RequestName without queueing; true when this connection owns the name. */
bool OwnName(const std::string& name)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr connection = SharedBusConnection(false, &problem);
    if (!connection) {
        return false;
    }
    std::string error;
    const NameRequest owned = RequestBusName(connection.get(), name, kBusCallTimeoutMs, error);
    if (owned == NameRequest::Failed || owned == NameRequest::Denied) {
        REQUEST_LOGE("cannot request bus name %s: %s", name.c_str(), error.c_str());
        return false;
    }
    if (owned == NameRequest::OwnedByAnother) {
        REQUEST_LOGE("bus name %s is owned by another process", name.c_str());
        return false;
    }
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ownedNames.insert(name);
    REQUEST_LOGD("owns bus name %s", name.c_str());
    return true;
}

void ReleaseName(const std::string& name)
{
    {
        RequestState& s = TheRequestState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.ownedNames.erase(name) == 0) {
            return;
        }
    }
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr connection = SharedBusConnection(false, &problem);
    if (!connection) {
        return;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs,
        nullptr, error.Out()));
    REQUEST_LOGD("released bus name %s", name.c_str());
}

std::vector<std::string> StringsOf(GVariant* array)
{
    std::vector<std::string> strings;
    GVariantIter iter;
    g_variant_iter_init(&iter, array);
    const gchar* text = nullptr;
    while (g_variant_iter_next(&iter, "&s", &text)) {
        strings.emplace_back(text);
    }
    return strings;
}

BundlePtr DecodeBundle(const char* encoded, size_t length, BundleRefusal* why)
{
    return BundlePtr(DecodeBoundedBundle(encoded, length, why));
}

BundlePtr DecodeBundle(const char* encoded, BundleRefusal* why)
{
    return DecodeBundle(encoded, std::strlen(encoded), why);
}

const char* ValuesRefusal(BundleRefusal why)
{
    return why == BundleRefusal::OverLimits ? "the values are over the bundle limits" : "the values are not a bundle";
}

namespace {

void DeleteStringCB(gpointer data)
{
    delete static_cast<std::string*>(data);
}

/* What the request's report says went wrong, "" when nothing is known. */
std::string ReasonForFailure(const RequestReport& report)
{
    if (!report.budget.empty()) {
        return report.budget;
    }
    if (!report.statementError.empty()) {
        return report.statementError;
    }
    if (!report.providerFailure.empty()) {
        const std::string words = tilvane_reason_words(report.providerReason);
        return words.empty() ? report.providerFailure : words;
    }
    return std::string();
}

}  // namespace

GVariant* RowsVariant(std::string rows)
{
    auto* owned = new std::string(std::move(rows));
    GBytes* bytes = g_bytes_new_with_free_func(owned->data(), owned->size(), DeleteStringCB, owned);
    GVariant* variant = g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes, TRUE);
    g_bytes_unref(bytes);
    return variant;
}

std::string ReasonForCode(int code, const RequestReport& report)
{
    if (code == 0) {
        return std::string();
    }
    if (code == TILVANE_RESULT_PERMISSION_DENIED) {
        return tilvane_reason_words(TILVANE_REASON_PERMISSION_LEVEL);
    }
    if (code == TILVANE_RESULT_INVALID_URI) {
        return tilvane_reason_words(TILVANE_REASON_NOT_CHANGEABLE);
    }
    return ReasonForFailure(report);
}

std::string SyncMarkOf(bundle* values)
{
    namespace schema = client::schema;
    const char* mark = values != nullptr ? bundle_get_val(values, schema::kSyncKey) : nullptr;
    if (mark == nullptr) {
        return std::string();
    }
    if (std::strcmp(mark, schema::kSyncEnd) == 0) {
        return kSyncEndMarkSent;
    }
    if (std::strcmp(mark, schema::kSyncStart) == 0) {
        return "sync start mark: nothing is sent";
    }
    return std::string();
}

std::string NoResultText(const RequestReport& report, const char* fallback)
{
    const std::string reason = ReasonForFailure(report);
    return reason.empty() ? std::string(fallback) : reason;
}

const char* BudgetOr(const RequestReport& report, const char* fallback)
{
    return report.budget.empty() ? fallback : report.budget.c_str();
}

/* A string argument of a call, by position. */
const gchar* StringArg(GVariant* parameters, gsize index)
{
    const gchar* text = nullptr;
    g_variant_get_child(parameters, index, "&s", &text);
    return text;
}

/* A string-array argument of a call, by position. */
std::vector<std::string> StringsArg(GVariant* parameters, gsize index)
{
    GVariantPtr array(g_variant_get_child_value(parameters, index));
    return StringsOf(array.get());
}

/* An optional text argument: null when empty. */
const gchar* OrNull(const gchar* text)
{
    return *text != '\0' ? text : nullptr;
}

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const char* message)
{
    g_dbus_method_invocation_return_dbus_error(invocation, name, message);
}

/* ---- strict confinement's limits on what a request carries ---------------- */

namespace {

struct OversizedValue {
    const char* key = nullptr;
    size_t bytes = 0;
};

void FindOversizedValueCB(const char* key, const char* value, void* data)
{
    OversizedValue* found = static_cast<OversizedValue*>(data);
    const size_t bytes = value != nullptr ? std::strlen(value) : 0;
    if (found->key == nullptr && bytes > static_cast<size_t>(confinement_policy_max_value_bytes())) {
        found->key = key;
        found->bytes = bytes;
    }
}

bool WhereWithinLimits(const char* where)
{
    if (where == nullptr || std::strlen(where) <= static_cast<size_t>(confinement_policy_max_where_bytes())) {
        return true;
    }
    const std::string reason = "the where clause has " + std::to_string(std::strlen(where)) +
                               " bytes, more than the " + std::to_string(confinement_policy_max_where_bytes()) +
                               " allowed";
    confinement_policy_refuse(CONFINEMENT_RULE_LIMITS, reason.c_str());
    return false;
}

bool ValuesWithinLimits(bundle* row)
{
    OversizedValue found;
    bundle_iterate(row, FindOversizedValueCB, &found);
    if (found.key == nullptr) {
        return true;
    }
    const std::string reason = "the value of " + std::string(found.key) + " has " + std::to_string(found.bytes) +
                               " bytes, more than the " + std::to_string(confinement_policy_max_value_bytes()) +
                               " allowed";
    confinement_policy_refuse(CONFINEMENT_RULE_LIMITS, reason.c_str());
    return false;
}

}  // namespace

bool WithinRequestLimits(const std::vector<bundle*>& rows, const char* where)
{
    if (confinement::CurrentRequest() == nullptr) {
        return true;
    }
    if (!WhereWithinLimits(where)) {
        return false;
    }
    for (bundle* row : rows) {
        if (!ValuesWithinLimits(row)) {
            return false;
        }
    }
    return true;
}

bool AnsweredRefusal(const confinement::RequestScope& scope, GDBusMethodInvocation* invocation)
{
    if (!scope.Refused()) {
        return false;
    }
    ReturnError(invocation, kErrorRefused, scope.RefusalText().c_str());
    return true;
}

bool AnsweredCurrentRefusal(GDBusMethodInvocation* invocation, GVariant* value)
{
    confinement::RequestContext* request = confinement::CurrentRequest();
    if (request == nullptr || !request->refused) {
        return false;
    }
    if (value != nullptr) {
        g_variant_unref(g_variant_ref_sink(value));
    }
    const std::string text = request->reason + " (strict confinement, rule " + request->rule + ", result " +
                             std::to_string(CONFINEMENT_POLICY_REFUSED) + ")";
    ReturnError(invocation, kErrorRefused, text.c_str());
    return true;
}

namespace {

/* Checks of senders not known yet, on the bus thread or their jobs still
 * waiting for the main context. While there is one, every call takes that
 * way, so that calls run in the order they came. */
std::atomic<int> unsettledChecks{0};

void RunJob(Job& job)
{
    const bool dataControl = job.interface == kDataControlInterface;
    LogSourceScope logSource(job.clientApp);
    content::StatementBudgetScope budget(job.clientApp, (dataControl ? "DataControl." : "Content.") + job.method);
    if (dataControl) {
        RunDataControl(job);
    } else {
        RunContent(job);
    }
    TrimWhenIdle();
}

void RefuseSender(GDBusMethodInvocation* invocation, const std::string& reason)
{
    REQUEST_LOGE("request %s.%s refused: %s", g_dbus_method_invocation_get_interface_name(invocation),
                 g_dbus_method_invocation_get_method_name(invocation), reason.c_str());
    ReturnError(invocation, kErrorNotAuthorized, "the sender does not own the name of the application it claims");
}

/* A job whose sender was checked on the bus thread, back on the main context. */
gboolean RunCheckedJobCB(gpointer data)
{
    --unsettledChecks;
    Job* job = static_cast<Job*>(data);
    if (job->refusal.empty()) {
        RunJob(*job);
    } else {
        RefuseSender(job->invocation.get(), job->refusal);
    }
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
    GDBusMethodInvocation* invocation = job->invocation.get();
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
    const gchar* clientApp = nullptr;
    g_variant_get_child(parameters, 0, "&s", &clientApp);
    std::unique_ptr<Job> job(new Job{
        std::unique_ptr<GDBusMethodInvocation, GObjectUnref>(static_cast<GDBusMethodInvocation*>(g_object_ref(invocation))),
        interfaceName, methodName, GVariantPtr(g_variant_ref(parameters)), clientApp, ""});
    std::string reason;
    const int known = unsettledChecks == 0 ? KnownSenderIsApp(sender, clientApp, reason) : -1;
    if (known == 1) {
        RunJob(*job);
        return;
    }
    if (known == 0) {
        RefuseSender(invocation, reason);
        return;
    }
    SenderCheck* check = new SenderCheck{std::move(job)};
    ++unsettledChecks;
    if (!InvokeOnBusThread(CheckSenderCB, check, DropSenderCheckCB)) {
        --unsettledChecks;
        RefuseSender(invocation, "the message bus connection is closing");
        delete check;
    }
}

}  // namespace

}  // namespace requests

/* ---- internal interface ----------------------------------------------------- */

using namespace requests;

const char* RequestInterfacesIntrospectionXml()
{
    return kRequestInterfacesXml;
}

std::string AuthorityOf(const std::string& uri)
{
    size_t start = uri.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    const size_t end = uri.find('/', start);
    return uri.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::string DataControlBusName(const std::string& authority)
{
    return EscapedBusName(kDataControlNamePrefix, authority);
}

std::string ContentBusName(const std::string& authority)
{
    return EscapedBusName(kContentNamePrefix, authority);
}

bool OwnsRequestBusName(const std::string& busName)
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.ownedNames.count(busName) != 0;
}

namespace {

bool RegisterRequestObjects(GDBusConnection* connection)
{
    GDBusNodeInfo* node = NodeInfo();
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

/* The provider names of the request interfaces that this process serves,
 * owned again on a new connection. True when each is owned. */
bool ReclaimRequestNames()
{
    std::vector<std::string> names;
    {
        RequestState& s = TheRequestState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.dcRegistered && !s.dcBusName.empty()) {
            names.push_back(s.dcBusName);
        }
        for (const auto& entry : s.contentAuthorities) {
            const std::string name = ContentBusName(entry.first);
            if (!name.empty()) {
                names.push_back(name);
            }
        }
    }
    bool all = true;
    for (const std::string& name : names) {
        all = (OwnsRequestBusName(name) || OwnName(name)) && all;
    }
    return all;
}

void ReclaimAfterReopen(GDBusConnection* /*connection*/)
{
    ReclaimRequestNames();
}

bool OwnsProviderNames(std::string& why)
{
    if (ReclaimRequestNames()) {
        return true;
    }
    why = "a provider's name is owned by another process";
    return false;
}

/* The content library tells the interface that a callback for `uri` was
 * registered or removed, or that all were cleared, so that the bus name of
 * the URI's authority is owned while one is left. */
void ContentCallbackRegistered(const std::string& uri)
{
    const std::string authority = AuthorityOf(uri);
    const std::string name = ContentBusName(authority);
    {
        RequestState& s = TheRequestState();
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.contentAuthorities[authority];
        if (name.empty() || s.ownedNames.count(name) != 0) {
            return;
        }
    }
    if (!BusConfigured()) {
        REQUEST_LOGD("no message bus: content requests for %s cannot reach this process", authority.c_str());
        return;
    }
    OwnName(name);
}

void ContentCallbackUnregistered(const std::string& uri)
{
    const std::string authority = AuthorityOf(uri);
    {
        RequestState& s = TheRequestState();
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.contentAuthorities.find(authority);
        if (it == s.contentAuthorities.end()) {
            return;
        }
        if (--it->second > 0) {
            return;
        }
        s.contentAuthorities.erase(it);
    }
    ReleaseName(ContentBusName(authority));
}

void ContentCallbacksCleared()
{
    std::vector<std::string> authorities;
    {
        RequestState& s = TheRequestState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const auto& entry : s.contentAuthorities) {
            authorities.push_back(entry.first);
        }
        s.contentAuthorities.clear();
    }
    for (const std::string& authority : authorities) {
        ReleaseName(ContentBusName(authority));
    }
}

/* The request interfaces on every connection and on the content library's
 * registrations. */
const struct RequestsAbove {
    RequestsAbove()
    {
        ConnectionUser user{};
        user.opened = RegisterRequestObjects;
        user.closing = UnregisterRequestObjects;
        user.reopened = ReclaimAfterReopen;
        user.ownsAll = OwnsProviderNames;
        AddConnectionUser(user);
        content::SetRegistrationObserver({ContentCallbackRegistered, ContentCallbackUnregistered,
                                          ContentCallbacksCleared});
    }
} kRequestsAbove;

}  // namespace

}  // namespace host
}  // namespace tilvane
