/*
 * Client side of the request interfaces (tilvane_client.h): one bus call per
 * request, made as the process's own application id on the shared connection.
 */
#include "tilvane_client.h"

#include "client/client_calls.h"

#include <gio/gio.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "identity/app_identity.h"
#include "ports/port_connection.h"
#include "requests/request_names.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "log/system_reasons.h"
#include "request_wire.h"
#include "bundle/bundle_limits.h"
#include "client/request_socket.h"
#include "client/row_decoder.h"
#include "bundle.h"
#include "bundle_ptr.h"
#include "dlog.h"
#include "message_port.h"

namespace tilvane {
namespace client {
namespace {

static_assert(kMaxRowColumns == host::kBundleMaxKeys && kMaxColumnNameBytes == host::kBundleMaxKeyBytes &&
                  kMaxRowBytes == host::kBundleMaxBytes && kMaxBulkRows == host::kBulkMaxRows &&
                  kMaxBulkBytes == host::kBulkMaxBytes,
              "the published limits are the service's");

using host::GDBusConnectionPtr;
using host::GVariantPtr;
using host::ScopedError;

namespace wire = host::requests::wire;
using host::kContentPath;
using host::kDataControlPath;

/* A provider working through a large bulk may take a while. */
constexpr int kRequestTimeoutMs = 120000;

/* Row values in the binary form of a bundle, handed to the call without a
 * copy; false when a bundle cannot hold them (an empty or repeated name). */
bool EncodeValues(const Values& values, wire::Bytes& encoded)
{
    auto bytes = std::make_shared<std::string>();
    if (!host::AppendBinaryBundle(values, *bytes)) {
        return false;
    }
    encoded.shared = std::move(bytes);
    return true;
}

void SetCallError(const GError* error, Result& result)
{
    host::GCharPtr remote(g_dbus_error_get_remote_error(error));
    const std::string name = remote ? remote.get() : "";
    result.message = error->message;
    if (remote) {
        /* The text the provider gave, without GDBus's "GDBus.Error:name: " prefix. */
        GError* copy = g_error_copy(error);
        g_dbus_error_strip_remote_error(copy);
        result.message = copy->message;
        g_error_free(copy);
    }
    result.outcome = host::clientcalls::OutcomeOfError(name);
    result.reason = host::clientcalls::ReasonOfError(name);
}

/* The call on the provider's direct connection, when it has one and this
 * process is not the provider itself: true when it was made (`reply`, or the
 * error in `error`); false when it must take the bus. */
bool CallDirect(const std::string& busName, const char* path, wire::Method method, GVariant* parameters,
                GVariantPtr& reply, ScopedError& error)
{
    if (host::OwnsRequestBusName(busName)) {
        return false;
    }
    const host::DirectCall call{path, wire::InterfaceOf(method), wire::NameOf(method), parameters,
                                wire::ReplyTypeOf(method), kRequestTimeoutMs};
    return host::CallOnDirectConnection(busName, call, reply, error.Out());
}

/* The call on the shared bus connection. */
void CallOverBus(GDBusConnection* connection, const std::string& busName, const char* path, wire::Method method,
                 GVariant* parameters, GVariantPtr& reply, ScopedError& error)
{
    const char* interface = wire::InterfaceOf(method);
    const char* methodName = wire::NameOf(method);
    const GVariantType* replyType = wire::ReplyTypeOf(method);
    GMainContext* mainContext = g_main_context_default();
    /* A provider of this process answers on the default main context: when this
     * thread is the one that would run it, keep running it while waiting. */
    if (host::OwnsRequestBusName(busName) && g_main_context_acquire(mainContext)) {
        std::atomic<bool> done(false);
        std::thread caller([&] {
            reply.reset(g_dbus_connection_call_sync(connection, busName.c_str(), path, interface, methodName,
                                                    parameters, replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                    kRequestTimeoutMs, nullptr, error.Out()));
            done = true;
            g_main_context_wakeup(mainContext);
        });
        while (!done) {
            g_main_context_iteration(mainContext, TRUE);
        }
        caller.join();
        g_main_context_release(mainContext);
    } else {
        reply.reset(g_dbus_connection_call_sync(connection, busName.c_str(), path, interface, methodName, parameters,
                                                replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START, kRequestTimeoutMs,
                                                nullptr, error.Out()));
    }
}

/* One call: on the provider's direct connection when there is one, else on
 * the bus. Null with `result` describing the failure when there is no reply. */
GVariantPtr Call(const std::string& busName, const char* path, wire::Method method, GVariant* parameters,
                 Result& result)
{
    GVariantPtr params(g_variant_ref_sink(parameters));
    if (busName.empty()) {
        result.outcome = Outcome::NotServed;
        result.message = "no provider can serve this authority";
        return nullptr;
    }
    ScopedError error;
    GVariantPtr reply;
    if (!CallDirect(busName, path, method, params.get(), reply, error)) {
        int portResult = 0;
        GDBusConnectionPtr connection = host::PortsConnection(true, &portResult);
        if (portResult == MESSAGE_PORT_ERROR_PERMISSION_DENIED) {
            result.outcome = Outcome::NotAuthorized;
            result.message = "the bus refuses this application's name to this process's user";
            return nullptr;
        }
        if (!connection) {
            result.outcome = Outcome::BusError;
            result.message =
                "the message bus cannot be used as this application (" + std::to_string(portResult) + ")";
            return nullptr;
        }
        CallOverBus(connection.get(), busName, path, method, params.get(), reply, error);
    }
    if (!reply) {
        SetCallError(error.Get(), result);
        return nullptr;
    }
    return reply;
}

/* The rows of a select reply. */
void ReadRows(const wire::Bytes& bytes, Result& result)
{
    if (!host::DecodeRows(bytes.Begin(), bytes.Size(), result.rows)) {
        result.outcome = Outcome::InvalidRequest;
        result.message = "the rows in the reply cannot be read";
    }
}

std::string SelfId()
{
    return host::CurrentAppId();
}



Result InvalidValues()
{
    Result result;
    result.outcome = Outcome::InvalidRequest;
    result.message = "the values cannot be put into a bundle";
    return result;
}

std::string ContentName(const std::string& uri)
{
    return host::ContentBusName(host::AuthorityOf(uri));
}

/* What a reply says, into the result: one reader per kind of reply. */
void Fill(const wire::DataControlInsertOut& out, Result& result)
{
    result.rowId = out.rowId;
}

void Fill(const wire::DataControlSelectOut& out, Result& result)
{
    ReadRows(out.rows, result);
}

void Fill(const wire::DataControlUpdateOut& out, Result& result)
{
    result.changedRows = out.changedRows;
}

void Fill(const wire::DataControlDeleteOut& out, Result& result)
{
    result.changedRows = out.changedRows;
}

void Fill(const wire::ContentSelectOut& out, Result& result)
{
    ReadRows(out.rows, result);
}

void Fill(const wire::ContentGetRowIdsOut& out, Result& result)
{
    result.rowIds = out.rowIds;
}

/* An insert's reply carries the new (last) row's id, ... */
template <typename Out>
auto FillCount(const Out& out, Result& result, int) -> decltype(out.rowId, void())
{
    result.rowId = out.rowId;
}

/* ... an update's or delete's the rows it changed. */
template <typename Out>
void FillCount(const Out& out, Result& result, long)
{
    result.changedRows = out.changedRows;
}

/* The writes of the content interface: the provider's result, which is the
 * reason's code, and its words; the new row's id (inserts) or the rows
 * changed. */
template <typename Out>
auto Fill(const Out& out, Result& result) -> decltype(out.reason, void())
{
    result.code = out.result;
    result.message = out.reason;
    result.reason = host::clientcalls::ReasonOfResult(out.result);
    FillCount(out, result, 0);
}

/* One request `in` to the provider at `busName`, its reply read. */
template <typename In>
Result Ask(const std::string& busName, const char* path, const In& in)
{
    Result result;
    GVariantPtr reply = Call(busName, path, wire::MethodOf<In>::kMethod, wire::ToVariant(in), result);
    if (!reply) {
        return result;
    }
    typename wire::MethodOf<In>::Out out;
    if (!wire::Read(reply.get(), out)) {
        result.outcome = Outcome::InvalidRequest;
        result.message = "the reply cannot be read";
        return result;
    }
    result.outcome = Outcome::Answered;
    result.code = 0;
    Fill(out, result);
    return result;
}

/* A request of the data-control interface to the provider of `providerId`. */
template <typename In>
Result AskDataControl(const std::string& providerId, const In& in)
{
    return Ask(host::DataControlBusName(host::AuthorityOf(providerId)), kDataControlPath, in);
}

/* A request of the content-library interface to the provider of `uri`. */
template <typename In>
Result AskContent(const std::string& uri, const In& in)
{
    return Ask(ContentName(uri), kContentPath, in);
}

/* The pointers of strings that outlive the request made of them. */
std::vector<const char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<const char*> pointers;
    pointers.reserve(strings.size());
    for (const std::string& text : strings) {
        pointers.push_back(text.c_str());
    }
    return pointers;
}

}  // namespace

}  // namespace client

namespace host {
namespace clientcalls {

namespace {

constexpr char kRequestErrors[] = "org.tilvane.Request.Error.";

/* The error a request's D-Bus error name stands for, without the reason that
 * may follow it ("NoResult" of "...Error.NoResult.PermissionLevel"); "" for
 * other names. */
std::string RequestError(const std::string& name, std::string* reasonName = nullptr)
{
    if (name.compare(0, sizeof kRequestErrors - 1, kRequestErrors) != 0) {
        return std::string();
    }
    const std::string rest = name.substr(sizeof kRequestErrors - 1);
    const size_t dot = rest.find('.');
    if (reasonName != nullptr) {
        *reasonName = dot == std::string::npos ? std::string() : rest.substr(dot + 1);
    }
    return rest.substr(0, dot);
}

}  // namespace

client::Outcome OutcomeOfError(const std::string& name)
{
    using client::Outcome;
    const std::string error = RequestError(name);
    if (error == "NoResult") {
        return Outcome::NoResult;
    }
    if (error == "ProviderError" || error == "Refused") {
        return Outcome::ProviderError;
    }
    if (error == "NotServed" || name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
        name == "org.freedesktop.DBus.Error.NameHasNoOwner" || name == "org.freedesktop.DBus.Error.UnknownObject" ||
        name == "org.freedesktop.DBus.Error.UnknownMethod") {
        return Outcome::NotServed;
    }
    if (error == "NotAuthorized") {
        return Outcome::NotAuthorized;
    }
    if (error == "InvalidRequest") {
        return Outcome::InvalidRequest;
    }
    return Outcome::BusError;
}

tilvane_reason ReasonOfResult(int code)
{
    if (code == TILVANE_RESULT_PERMISSION_DENIED) {
        return TILVANE_REASON_PERMISSION_LEVEL;
    }
    return code == TILVANE_RESULT_INVALID_URI ? TILVANE_REASON_NOT_CHANGEABLE : TILVANE_REASON_NONE;
}

tilvane_reason ReasonOf(const client::Result& result)
{
    if (result.reason != TILVANE_REASON_NONE || result.message.empty()) {
        return result.reason;
    }
    /* A provider older than reason codes: the words it used. */
    if (result.outcome == client::Outcome::ProviderError) {
        return ReasonOfSystemText(result.message);
    }
    for (int code = TILVANE_REASON_NONE + 1; code < TILVANE_REASON_COUNT; ++code) {
        if (result.message == tilvane_reason_words(static_cast<tilvane_reason>(code))) {
            return static_cast<tilvane_reason>(code);
        }
    }
    return TILVANE_REASON_NONE;
}

tilvane_reason ReasonOfError(const std::string& name)
{
    std::string reasonName;
    if (RequestError(name, &reasonName) == "Refused") {
        return TILVANE_REASON_STRICT_CONFINEMENT;
    }
    for (int code = TILVANE_REASON_NONE + 1; code < TILVANE_REASON_COUNT; ++code) {
        if (reasonName == tilvane_reason_name(static_cast<tilvane_reason>(code))) {
            return static_cast<tilvane_reason>(code);
        }
    }
    return TILVANE_REASON_NONE;
}

}  // namespace clientcalls
}  // namespace host

namespace client {

std::size_t RowBytesSent(const Values& row)
{
    std::string encoded;
    return host::AppendBinaryBundle(row, encoded) ? encoded.size() : 0;
}

}  // namespace client

namespace host {
namespace clientcalls {

std::vector<requests::wire::Bytes> EncodeRows(const std::vector<client::Values>& rows, bool& ok)
{
    std::vector<requests::wire::Bytes> encoded(rows.size());
    ok = true;
    for (size_t i = 0; i < rows.size() && ok; ++i) {
        ok = client::EncodeValues(rows[i], encoded[i]);
    }
    return encoded;
}

std::string Encode(const client::Values& values, bool& ok)
{
    std::string encoded;
    ok = AppendBinaryBundle(values, encoded);
    return encoded;
}

GVariantPtr CallContent(const std::string& uri, requests::wire::Method method, GVariant* arguments,
                        client::Result& result)
{
    return client::Call(client::ContentName(uri), kContentPath, method, arguments, result);
}

}  // namespace clientcalls
}  // namespace host

namespace client {

namespace {

/* "refused: ..." or "failed: ...", as the reason code says. */
std::string FailureOrRefusal(tilvane_reason reason, const std::string& words)
{
    return (tilvane_reason_is_refusal(reason) ? "refused: " : "failed: ") + words;
}

}  // namespace

std::string Explain(const Result& result)
{
    const tilvane_reason reason = host::clientcalls::ReasonOf(result);
    switch (result.outcome) {
    case Outcome::Answered:
        return result.message.empty() ? Describe(result) : Describe(result) + ": " + result.message;
    case Outcome::NoResult:
        return result.message.empty() ? Describe(result) : FailureOrRefusal(reason, result.message);
    case Outcome::ProviderError: {
        /* The provider's own text stands as it is, unless it names a refusal. */
        const std::string words = tilvane_reason_words(reason);
        return tilvane_reason_is_refusal(reason) && !words.empty() ? FailureOrRefusal(reason, words)
                                                                   : Describe(result);
    }
    default:
        return Describe(result);
    }
}

std::string Describe(const Result& result)
{
    switch (result.outcome) {
    case Outcome::Answered:
        switch (result.code) {
        case 0:
            return "done";
        case TILVANE_RESULT_PERMISSION_DENIED:
            return "permission denied (" + std::to_string(result.code) + ")";
        case TILVANE_RESULT_INVALID_URI:
            return "invalid URI (" + std::to_string(result.code) + ")";
        default:
            return "failed (" + std::to_string(result.code) + ")";
        }
    case Outcome::NoResult:
        return "no result from the provider";
    case Outcome::ProviderError:
        return "the provider refused: " + result.message;
    case Outcome::NotServed:
        return "not served: no provider answers this request";
    case Outcome::NotAuthorized:
        return "not authorized: " +
               (result.message.empty() ? std::string("the bus did not confirm this application id") : result.message);
    case Outcome::InvalidRequest:
        return "invalid request: " + result.message;
    case Outcome::BusError:
        return "bus error: " + result.message;
    }
    return "unknown";
}

DataControlClient::DataControlClient(std::string providerId) : m_providerId(std::move(providerId)) {}

Result DataControlClient::Insert(const std::string& dataId, const Values& values) const
{
    wire::Bytes encoded;
    if (!EncodeValues(values, encoded)) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    wire::DataControlInsertIn in;
    in.clientApp = self.c_str();
    in.providerId = m_providerId.c_str();
    in.dataId = dataId.c_str();
    in.values = std::move(encoded);
    return AskDataControl(m_providerId, in);
}

Result DataControlClient::Select(const std::string& dataId, const std::vector<std::string>& columns,
                                 const std::string& where, const std::string& order) const
{
    const std::string self = SelfId();
    wire::DataControlSelectIn in;
    in.clientApp = self.c_str();
    in.providerId = m_providerId.c_str();
    in.dataId = dataId.c_str();
    in.columns = Pointers(columns);
    in.where = where.c_str();
    in.order = order.c_str();
    return AskDataControl(m_providerId, in);
}

Result DataControlClient::Update(const std::string& dataId, const Values& values, const std::string& where) const
{
    wire::Bytes encoded;
    if (!EncodeValues(values, encoded)) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    wire::DataControlUpdateIn in;
    in.clientApp = self.c_str();
    in.providerId = m_providerId.c_str();
    in.dataId = dataId.c_str();
    in.values = std::move(encoded);
    in.where = where.c_str();
    return AskDataControl(m_providerId, in);
}

Result DataControlClient::Delete(const std::string& dataId, const std::string& where) const
{
    const std::string self = SelfId();
    wire::DataControlDeleteIn in;
    in.clientApp = self.c_str();
    in.providerId = m_providerId.c_str();
    in.dataId = dataId.c_str();
    in.where = where.c_str();
    return AskDataControl(m_providerId, in);
}

/* ---- content-library interface ---------------------------------------------- */

namespace {

/* A content request of this process's application for `uri`. */
template <typename In>
In ContentRequest(const std::string& self, const std::string& uri)
{
    In in;
    in.clientApp = self.c_str();
    in.uri = uri.c_str();
    return in;
}

}  // namespace

Result ContentClient::Insert(const std::string& uri, const Values& values) const
{
    wire::Bytes encoded;
    if (!EncodeValues(values, encoded)) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentInsertIn>(self, uri);
    in.values = std::move(encoded);
    return AskContent(uri, in);
}

Result ContentClient::BulkInsert(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    std::vector<wire::Bytes> encoded = host::clientcalls::EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentBulkInsertIn>(self, uri);
    in.rows = std::move(encoded);
    return AskContent(uri, in);
}

Result ContentClient::Select(const std::string& uri, const std::vector<std::string>& projection,
                             const std::string& where, const std::vector<std::string>& whereArgs,
                             const std::string& order, const std::string& limit) const
{
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentSelectIn>(self, uri);
    in.projection = Pointers(projection);
    in.where = where.c_str();
    in.whereArgs = Pointers(whereArgs);
    in.order = order.c_str();
    in.limit = limit.c_str();
    return AskContent(uri, in);
}

Result ContentClient::Update(const std::string& uri, const Values& values, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    wire::Bytes encoded;
    if (!EncodeValues(values, encoded)) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentUpdateIn>(self, uri);
    in.values = std::move(encoded);
    in.where = where.c_str();
    in.whereArgs = Pointers(whereArgs);
    return AskContent(uri, in);
}

Result ContentClient::BulkUpdate(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    std::vector<wire::Bytes> encoded = host::clientcalls::EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentBulkUpdateIn>(self, uri);
    in.rows = std::move(encoded);
    return AskContent(uri, in);
}

Result ContentClient::Delete(const std::string& uri, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentDeleteIn>(self, uri);
    in.where = where.c_str();
    in.whereArgs = Pointers(whereArgs);
    return AskContent(uri, in);
}

Result ContentClient::GetRowIds(const std::string& uri, const std::string& where,
                                const std::vector<std::string>& whereArgs) const
{
    const std::string self = SelfId();
    auto in = ContentRequest<wire::ContentGetRowIdsIn>(self, uri);
    in.where = where.c_str();
    in.whereArgs = Pointers(whereArgs);
    return AskContent(uri, in);
}

}  // namespace client
}  // namespace tilvane
