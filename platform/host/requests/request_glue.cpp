/*
 * What the handlers of both request interfaces share (request_glue.h): the
 * provider side's state and bus names, the decoding of a request's values,
 * strict confinement's limits on them and the reasons a reply gives.
 *
 * A data-control provider owns "org.tilvane.DataControl.P" + escape(authority
 * of its provider id) while its callbacks are registered; the content library
 * owns "org.tilvane.Content.P" + escape(authority) while any callback is
 * registered for a URI of that authority (escape as for application ids,
 * identity/app_identity.h). The request interfaces export their objects on
 * every connection (bus_transport.cpp), and hear of the content library's
 * registrations through the observer they register with it.
 */
#include "requests/request_glue.h"

#include <cstring>
#include <utility>

#include "bus/bus_connection.h"
#include "config/paths.h"
#include "confinement_policy.h"
#include "content/registration_observer.h"
#include "identity/app_identity.h"
#include "log/system_reasons.h"
#include "request_wire.h"
#include "tilvane_schema.h"

namespace tilvane {
namespace host {
namespace requests {

RequestState& TheRequestState()
{
    static RequestState* state = new RequestState();
    return *state;
}

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
    ListenForDirectRequests(name);
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
    StopListeningForDirectRequests(name);
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

BundlePtr DecodeBundle(const wire::Bytes& encoded, BundleRefusal* why)
{
    return BundlePtr(DecodeBoundedBinaryBundle(encoded.Begin(), encoded.Size(), why));
}

const char* ValuesRefusal(BundleRefusal why)
{
    return why == BundleRefusal::OverLimits ? "the values are over the bundle limits" : "the values are not a bundle";
}

std::vector<std::string> Strings(const std::vector<const char*>& texts)
{
    return std::vector<std::string>(texts.begin(), texts.end());
}

const char* OrNull(const char* text)
{
    return *text != '\0' ? text : nullptr;
}

/* ---- reasons ------------------------------------------------------------- */

std::string ErrorName(const char* error, tilvane_reason reason)
{
    const bool carriesReason =
        std::strcmp(error, kErrorNoResult) == 0 || std::strcmp(error, kErrorProviderError) == 0;
    if (!carriesReason || reason == TILVANE_REASON_NONE) {
        return error;
    }
    return std::string(error) + "." + tilvane_reason_name(reason);
}

Reason ReasonOfReport(const RequestReport& report)
{
    if (!report.budget.empty()) {
        return Reason{TILVANE_REASON_BUDGET, report.budget};
    }
    if (!report.statementError.empty()) {
        return Reason{TILVANE_REASON_STATEMENT_FAILED, report.statementError};
    }
    if (!report.providerFailure.empty()) {
        const std::string words = tilvane_reason_words(report.providerReason);
        return Reason{report.providerReason, words.empty() ? report.providerFailure : words};
    }
    return Reason();
}

Reason ReasonForResult(int result, const RequestReport& report)
{
    if (result == 0) {
        return Reason();
    }
    if (result == TILVANE_RESULT_PERMISSION_DENIED) {
        return Reason{TILVANE_REASON_PERMISSION_LEVEL, tilvane_reason_words(TILVANE_REASON_PERMISSION_LEVEL)};
    }
    if (result == TILVANE_RESULT_INVALID_URI) {
        return Reason{TILVANE_REASON_NOT_CHANGEABLE, tilvane_reason_words(TILVANE_REASON_NOT_CHANGEABLE)};
    }
    return ReasonOfReport(report);
}

Reason NoResultReason(const RequestReport& report, const char* fallback)
{
    Reason reason = ReasonOfReport(report);
    if (reason.text.empty()) {
        reason.text = fallback;
    }
    return reason;
}

Reason SyncMarkOf(bundle* values)
{
    namespace schema = client::schema;
    const char* mark = values != nullptr ? bundle_get_val(values, schema::kSyncKey) : nullptr;
    tilvane_reason code = TILVANE_REASON_NONE;
    if (mark != nullptr && std::strcmp(mark, schema::kSyncEnd) == 0) {
        code = TILVANE_REASON_SYNC_END_MARK;
    } else if (mark != nullptr && std::strcmp(mark, schema::kSyncStart) == 0) {
        code = TILVANE_REASON_SYNC_START_MARK;
    }
    return Reason{code, tilvane_reason_words(code)};
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

}  // namespace requests

/* ---- internal interface ----------------------------------------------------- */

using namespace requests;

const char* RequestInterfacesIntrospectionXml()
{
    return wire::IntrospectionXml();
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

std::string RequestSocketPath(const std::string& busName)
{
    return PlatformRootDirectory() + "/run/tilvane/" + busName;
}

bool OwnsRequestBusName(const std::string& busName)
{
    RequestState& s = TheRequestState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.ownedNames.count(busName) != 0;
}

namespace {

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

/* The request interfaces on every connection (their objects and the
 * providers' names), and the content library's registrations. Registered
 * from here, which every use of the request interfaces links. */
const struct RequestsAbove {
    RequestsAbove()
    {
        ExportRequestObjectsOnEveryConnection();
        ConnectionUser user{};
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
