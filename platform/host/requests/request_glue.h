/*
 * What the handlers of the two request interfaces share: the state of this
 * process's provider side and the bus names it owns, the decoding of the
 * values a request carries, strict confinement's limits on them, and the
 * reasons a reply gives. The typed handlers are request_handlers.h's; the
 * bus transport that reads requests and sends replies is bus_transport.cpp.
 */
#ifndef TILVANE_PLATFORM_REQUEST_GLUE_H
#define TILVANE_PLATFORM_REQUEST_GLUE_H

#include <glib.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "base/host_state.h"
#include "base/request_report.h"
#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "confinement/request_confinement.h"
#include "data_control.h"
#include "dlog.h"
#include "requests/request_names.h"
#include "request_wire.h"
#include "tilvane_reason.h"

struct data_control_s {
    std::string providerId;
    std::string dataId;
};

#define REQUEST_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define REQUEST_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define REQUEST_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace requests {

inline constexpr char kErrorNoResult[] = "org.tilvane.Request.Error.NoResult";
inline constexpr char kErrorNotServed[] = "org.tilvane.Request.Error.NotServed";
inline constexpr char kErrorProviderError[] = "org.tilvane.Request.Error.ProviderError";
inline constexpr char kErrorNotAuthorized[] = "org.tilvane.Request.Error.NotAuthorized";
inline constexpr char kErrorInvalidRequest[] = "org.tilvane.Request.Error.InvalidRequest";
inline constexpr char kErrorRefused[] = "org.tilvane.Request.Error.Refused";
inline constexpr int kBusCallTimeoutMs = 10000;
inline constexpr char kNoCallbackText[] = "no callback is registered for this kind of request and URI";

/* A data-control request while its callback runs. */
struct DcRequest {
    enum class Answer { None, RowId, Rows, Done, Error };
    int id = 0;
    std::string clientApp;
    Answer answer = Answer::None;
    int64_t rowId = -1;
    std::string rows;
    std::string error;
};

struct RequestState {
    std::mutex mutex;
    /* data control */
    bool dcRegistered = false;
    data_control_provider_sql_cb dcCallbacks{};
    void* dcUserData = nullptr;
    std::string dcProviderId;
    std::string dcBusName;
    std::map<int, DcRequest*> active;
    int nextRequestId = 1;
    /* content-library interface: authority -> number of registered callbacks */
    std::map<std::string, int> contentAuthorities;
    /* names this process owns for its request interfaces */
    std::set<std::string> ownedNames;
    guint dcObjectId = 0;
    guint contentObjectId = 0;
};

RequestState& TheRequestState();

bool BusConfigured();
/* RequestName without queueing; true when this connection owns the name. */
bool OwnName(const std::string& name);
void ReleaseName(const std::string& name);

/* A request's values (the binary form of a bundle); null when refused, with
 * the reason in `why`. Copied once from the message's own bytes into the
 * bundle, within the bundle limits. */
BundlePtr DecodeBundle(const wire::Bytes& encoded, BundleRefusal* why = nullptr);
/* The error text of values that were refused. */
const char* ValuesRefusal(BundleRefusal why);
/* The texts of a request, copied. */
std::vector<std::string> Strings(const std::vector<const char*>& texts);
/* An optional text argument: null when empty. */
const char* OrNull(const char* text);

/* The error name a failure is answered with: `error`, and after it the name
 * of its reason when the error does not already say it (a NoResult or a
 * ProviderError: "org.tilvane.Request.Error.NoResult.PermissionLevel"). */
std::string ErrorName(const char* error, tilvane_reason reason);

/* Why a reply is what it is: a reason code and its words. */
struct Reason {
    tilvane_reason code = TILVANE_REASON_NONE;
    std::string text;
};
/* What the request's report says went wrong (a budget, a failed statement,
 * the system's own failure line), none when nothing is known. */
Reason ReasonOfReport(const RequestReport& report);
/* The reason beside a provider's result code: none for success, the code's
 * own meaning for the refusals it names, else what the report says. */
Reason ReasonForResult(int result, const RequestReport& report);
/* The reason of a request that got no result: the report's, else `fallback`
 * with no code. */
Reason NoResultReason(const RequestReport& report, const char* fallback);
/* An insert that carries a sync mark writes no row: the reason says what the
 * mark did instead (none when the values carry no mark). */
Reason SyncMarkOf(bundle* values);

/* Under strict confinement: false, with the refusal recorded, when a value of
 * a row or the where clause is larger than the integrator allows. */
bool WithinRequestLimits(const std::vector<bundle*>& rows, const char* where);

/* Listens on the direct request socket of `busName`, which this process now
 * owns, unless [request-socket] enabled is false; stops when it gives the
 * name back (socket_transport.cpp). */
void ListenForDirectRequests(const std::string& busName);
void StopListeningForDirectRequests(const std::string& busName);

/* Registers the transport's objects for every bus connection (bus_transport.cpp). */
void ExportRequestObjectsOnEveryConnection();

/* The reply (floating) of Publish with `parameters` (clientApp, steps) from
 * `clientApp`, after running it as its handler does (content_publish.cpp);
 * null, with `invalid` saying why, when the steps are malformed or over the
 * publish limits and nothing ran. For tests that run a publish without a bus. */
GVariant* AnswerPublish(const std::string& clientApp, GVariant* parameters, std::string& invalid);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
