/*
 * What the two request interfaces of the host platform share: the state of
 * this process's provider side, the bus names it owns, the call arguments,
 * and the Job that carries a call from the bus thread to the default main
 * context. The data-control interface is data_control_interface.cpp, the
 * content-library interface content_interface.cpp; request_glue.cpp exports
 * both (their description: request_interfaces.xml).
 */
#ifndef TILVANE_PLATFORM_REQUEST_GLUE_H
#define TILVANE_PLATFORM_REQUEST_GLUE_H

#include <gio/gio.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "data_control.h"
#include "dlog.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "confinement/request_confinement.h"
#include "base/request_report.h"
#include "requests/request_names.h"

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

inline constexpr char kDataControlPath[] = "/org/tilvane/DataControl";
inline constexpr char kDataControlInterface[] = "org.tilvane.DataControl";
inline constexpr char kContentPath[] = "/org/tilvane/Content";
inline constexpr char kContentInterface[] = "org.tilvane.Content";
inline constexpr char kDataControlNamePrefix[] = "org.tilvane.DataControl.P";
inline constexpr char kContentNamePrefix[] = "org.tilvane.Content.P";
inline constexpr char kErrorNoResult[] = "org.tilvane.Request.Error.NoResult";
inline constexpr char kErrorNotServed[] = "org.tilvane.Request.Error.NotServed";
inline constexpr char kErrorProviderError[] = "org.tilvane.Request.Error.ProviderError";
inline constexpr char kErrorNotAuthorized[] = "org.tilvane.Request.Error.NotAuthorized";
inline constexpr char kErrorInvalidRequest[] = "org.tilvane.Request.Error.InvalidRequest";
inline constexpr char kErrorRefused[] = "org.tilvane.Request.Error.Refused";
inline constexpr int kBusCallTimeoutMs = 10000;
inline constexpr char kNoCallbackText[] = "no callback is registered for this kind of request and URI";
/* The reason of an insert that carried the sync end mark. */
inline constexpr char kSyncEndMarkSent[] = "sync end mark sent";

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

std::vector<std::string> StringsOf(GVariant* array);
/* A request's values; null when refused, with the reason in `why`. Decoded
 * straight from the message's own bytes, within the bundle limits. */
BundlePtr DecodeBundle(const char* encoded, size_t length, BundleRefusal* why = nullptr);
BundlePtr DecodeBundle(const char* encoded, BundleRefusal* why = nullptr);
/* The error text of values that were refused. */
const char* ValuesRefusal(BundleRefusal why);
/* The rows as an "ay" that owns them: no copy of a result that may be half a
 * megabyte. */
GVariant* RowsVariant(std::string rows);

/* The words a client gets beside a result code: what the code means for this
 * provider, else what the request's report says went wrong. */
std::string ReasonForCode(int code, const RequestReport& report);
/* An insert that carries a sync mark writes no row: the answer says what the
 * mark did instead ("" when the values carry no mark). */
std::string SyncMarkOf(bundle* values);
/* The error text of a request that got no result: its reason when known. */
std::string NoResultText(const RequestReport& report, const char* fallback);
/* The budget the request ran past, else `fallback`. */
const char* BudgetOr(const RequestReport& report, const char* fallback);
/* A string argument of a call, by position. */
const gchar* StringArg(GVariant* parameters, gsize index);
/* A string-array argument of a call, by position. */
std::vector<std::string> StringsArg(GVariant* parameters, gsize index);
/* An optional text argument: null when empty. */
const gchar* OrNull(const gchar* text);

/* A method call on its way to the provider's callbacks; it holds its own
 * references to the invocation and the arguments. */
struct Job {
    std::unique_ptr<GDBusMethodInvocation, GObjectUnref> invocation;
    std::string interface;
    std::string method;
    GVariantPtr parameters;
    std::string clientApp;
    /* Why the sender was refused; empty when it may make the call. */
    std::string refusal;
};

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const char* message);

/* Under strict confinement: false, with the refusal recorded, when a value of
 * a row or the where clause is larger than the integrator allows. */
bool WithinRequestLimits(const std::vector<bundle*>& rows, const char* where);
/* True (and the caller answered) when strict confinement refused the request
 * of `scope`. */
bool AnsweredRefusal(const confinement::RequestScope& scope, GDBusMethodInvocation* invocation);
/* True (and the caller answered) when strict confinement refused the request
 * in progress; `value`, the answer that is not sent, is dropped. */
bool AnsweredCurrentRefusal(GDBusMethodInvocation* invocation, GVariant* value);

/* The interfaces' method tables, run on the default main context. */
void RunDataControl(Job& job);
void RunContent(Job& job);
/* Publish of the content-library interface (content_publish.cpp). */
void RunPublish(Job& job);
/* The reply (floating) of Publish with `parameters` (clientApp, steps) from
 * `clientApp`, after running it; null, with `invalid` saying why, when the
 * steps are malformed or over the publish limits and nothing ran. */
GVariant* AnswerPublish(const std::string& clientApp, GVariant* parameters, std::string& invalid);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
