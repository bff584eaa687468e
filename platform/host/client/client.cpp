/*
 * Client side of the request interfaces (tilvane_client.h): one bus call per
 * request, made as the process's own application id on the shared connection.
 */
#include "tilvane_client.h"

#include "client/client_calls.h"

#include <gio/gio.h>

#include <atomic>
#include <map>
#include <set>
#include <cstring>
#include <thread>

#include "identity/app_identity.h"
#include "ports/port_connection.h"
#include "requests/request_names.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "log/system_reasons.h"
#include "bundle/bundle_limits.h"
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

constexpr char kDataControlPath[] = "/org/tilvane/DataControl";
constexpr char kDataControlInterface[] = "org.tilvane.DataControl";
constexpr char kContentPath[] = "/org/tilvane/Content";
constexpr char kContentInterface[] = "org.tilvane.Content";
/* A provider working through a large bulk may take a while. */
constexpr int kRequestTimeoutMs = 120000;

std::string EncodeValues(const Values& values, bool& ok)
{
    ok = false;
    BundlePtr b = MakeBundle();
    if (b == nullptr) {
        return std::string();
    }
    for (const auto& entry : values) {
        if (bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str()) != BUNDLE_ERROR_NONE) {
            return std::string();
        }
    }
    bundle_raw* raw = nullptr;
    int length = 0;
    if (bundle_encode(b.get(), &raw, &length) != BUNDLE_ERROR_NONE) {
        return std::string();
    }
    std::string encoded(reinterpret_cast<const char*>(raw), static_cast<size_t>(length));
    bundle_free_encoded_rawdata(&raw);
    ok = true;
    return encoded;
}

GVariant* StringArray(const std::vector<std::string>& strings)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const std::string& text : strings) {
        g_variant_builder_add_value(&builder, g_variant_new_string(text.c_str()));
    }
    return g_variant_builder_end(&builder);
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
}

bool ReplyIs(GVariant* reply, const char* type)
{
    return g_variant_is_of_type(reply, G_VARIANT_TYPE(type));
}

/* The reply type of a method of the request interfaces, as their description
 * (request_interfaces.xml) gives it: "(" + the out arguments' types + ")". */
const GVariantType* ReplyType(const char* interface, const char* method)
{
    static const std::map<std::string, std::string> types = [] {
        std::map<std::string, std::string> found;
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(host::RequestInterfacesIntrospectionXml(), nullptr);
        for (GDBusInterfaceInfo** i = node != nullptr ? node->interfaces : nullptr; i != nullptr && *i != nullptr;
             ++i) {
            for (GDBusMethodInfo** m = (*i)->methods; m != nullptr && *m != nullptr; ++m) {
                std::string type = "(";
                for (GDBusArgInfo** arg = (*m)->out_args; arg != nullptr && *arg != nullptr; ++arg) {
                    type += (*arg)->signature;
                }
                found[std::string((*i)->name) + "." + (*m)->name] = type + ")";
            }
        }
        if (node != nullptr) {
            g_dbus_node_info_unref(node);
        }
        return found;
    }();
    /* Null (any reply) for the methods whose replies grew: their readers
     * accept the older and the newer form. */
    static const std::set<std::string> grown = {
        "org.tilvane.DataControl.Update", "org.tilvane.DataControl.Delete", "org.tilvane.Content.Insert",
        "org.tilvane.Content.BulkInsert", "org.tilvane.Content.Update",     "org.tilvane.Content.BulkUpdate",
        "org.tilvane.Content.Delete"};
    const std::string name = std::string(interface) + "." + method;
    if (grown.count(name) != 0) {
        return nullptr;
    }
    auto type = types.find(name);
    return G_VARIANT_TYPE(type != types.end() ? type->second.c_str() : "()");
}

GVariant* ToVariant(const std::string& text)
{
    return g_variant_new_string(text.c_str());
}

GVariant* ToVariant(const std::vector<std::string>& strings)
{
    return StringArray(strings);
}

/* The arguments of a call, in order, as one tuple. */
template <typename... Values>
GVariant* Arguments(const Values&... values)
{
    GVariant* items[] = {ToVariant(values)...};
    return g_variant_new_tuple(items, sizeof...(Values));
}

gint64 Int64At(GVariant* tuple, gsize index)
{
    GVariantPtr value(g_variant_get_child_value(tuple, index));
    return g_variant_get_int64(value.get());
}

/* One call. Null with `result` describing the failure when there is no reply. */
GVariantPtr Call(const std::string& busName, const char* path, const char* interface, const char* method,
                 GVariant* parameters, Result& result)
{
    const GVariantType* replyType = ReplyType(interface, method);
    GVariantPtr params(g_variant_ref_sink(parameters));
    if (busName.empty()) {
        result.outcome = Outcome::NotServed;
        result.message = "no provider can serve this authority";
        return nullptr;
    }
    int portResult = 0;
    GDBusConnectionPtr connection = host::PortsConnection(true, &portResult);
    if (portResult == MESSAGE_PORT_ERROR_PERMISSION_DENIED) {
        result.outcome = Outcome::NotAuthorized;
        result.message = "the bus refuses this application's name to this process's user";
        return nullptr;
    }
    if (!connection) {
        result.outcome = Outcome::BusError;
        result.message = "the message bus cannot be used as this application (" + std::to_string(portResult) + ")";
        return nullptr;
    }
    ScopedError error;
    GVariantPtr reply;
    GMainContext* mainContext = g_main_context_default();
    /* A provider of this process answers on the default main context: when this
     * thread is the one that would run it, keep running it while waiting. */
    if (host::OwnsRequestBusName(busName) && g_main_context_acquire(mainContext)) {
        std::atomic<bool> done(false);
        std::thread caller([&] {
            reply.reset(g_dbus_connection_call_sync(connection.get(), busName.c_str(), path, interface, method,
                                                    params.get(), replyType,
                                                    G_DBUS_CALL_FLAGS_NO_AUTO_START, kRequestTimeoutMs, nullptr,
                                                    error.Out()));
            done = true;
            g_main_context_wakeup(mainContext);
        });
        while (!done) {
            g_main_context_iteration(mainContext, TRUE);
        }
        caller.join();
        g_main_context_release(mainContext);
    } else {
        reply.reset(g_dbus_connection_call_sync(connection.get(), busName.c_str(), path, interface, method,
                                                params.get(), replyType,
                                                G_DBUS_CALL_FLAGS_NO_AUTO_START, kRequestTimeoutMs, nullptr,
                                                error.Out()));
    }
    if (!reply) {
        SetCallError(error.Get(), result);
        return nullptr;
    }
    return reply;
}

bool ReadRows(GVariant* reply, Result& result)
{
    GVariantPtr bytes(g_variant_get_child_value(reply, 0));
    gsize size = 0;
    const void* data = g_variant_get_fixed_array(bytes.get(), &size, 1);
    if (!host::DecodeRows(static_cast<const uint8_t*>(data), size, result.rows)) {
        result.outcome = Outcome::InvalidRequest;
        result.message = "the rows in the reply cannot be read";
        return false;
    }
    result.outcome = Outcome::Answered;
    result.code = 0;
    return true;
}

std::string SelfId()
{
    return host::CurrentAppId();
}

std::vector<std::string> EncodeRows(const std::vector<Values>& rows, bool& ok)
{
    std::vector<std::string> encoded;
    ok = true;
    for (const Values& row : rows) {
        encoded.push_back(EncodeValues(row, ok));
        if (!ok) {
            break;
        }
    }
    return encoded;
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

/* A call of the data-control interface to the provider of `providerId`. */
GVariantPtr DataControlCall(const std::string& providerId, const char* method, GVariant* arguments, Result& result)
{
    return Call(host::DataControlBusName(host::AuthorityOf(providerId)), kDataControlPath, kDataControlInterface,
                method, arguments, result);
}

/* A call of the content-library interface to the provider of `uri`. */
GVariantPtr ContentCall(const std::string& uri, const char* method, GVariant* arguments, Result& result)
{
    return Call(ContentName(uri), kContentPath, kContentInterface, method, arguments, result);
}

}  // namespace

}  // namespace client

namespace host {
namespace clientcalls {

client::Outcome OutcomeOfError(const std::string& name)
{
    using client::Outcome;
    if (name == "org.tilvane.Request.Error.NoResult") {
        return Outcome::NoResult;
    }
    if (name == "org.tilvane.Request.Error.ProviderError" || name == "org.tilvane.Request.Error.Refused") {
        return Outcome::ProviderError;
    }
    if (name == "org.tilvane.Request.Error.NotServed" || name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
        name == "org.freedesktop.DBus.Error.NameHasNoOwner" || name == "org.freedesktop.DBus.Error.UnknownObject" ||
        name == "org.freedesktop.DBus.Error.UnknownMethod") {
        return Outcome::NotServed;
    }
    if (name == "org.tilvane.Request.Error.NotAuthorized") {
        return Outcome::NotAuthorized;
    }
    if (name == "org.tilvane.Request.Error.InvalidRequest") {
        return Outcome::InvalidRequest;
    }
    return Outcome::BusError;
}

GVariant* Strings(const std::vector<std::string>& strings)
{
    return client::StringArray(strings);
}

std::string Encode(const client::Values& values, bool& ok)
{
    return client::EncodeValues(values, ok);
}

GVariantPtr CallContent(const std::string& uri, const char* method, GVariant* arguments, client::Result& result)
{
    return client::ContentCall(uri, method, arguments, result);
}

}  // namespace clientcalls
}  // namespace host

namespace client {

namespace {

bool IsRefusal(const std::string& reason)
{
    return reason == tilvane_reason_words(TILVANE_REASON_PERMISSION_LEVEL) ||
           reason == tilvane_reason_words(TILVANE_REASON_NOT_CHANGEABLE);
}

std::string FailureOrRefusal(const std::string& reason)
{
    return (IsRefusal(reason) ? "refused: " : "failed: ") + reason;
}

}  // namespace

std::string Explain(const Result& result)
{
    switch (result.outcome) {
    case Outcome::Answered:
        return result.message.empty() ? Describe(result) : Describe(result) + ": " + result.message;
    case Outcome::NoResult:
        return result.message.empty() ? Describe(result) : FailureOrRefusal(result.message);
    case Outcome::ProviderError: {
        const std::string known = tilvane_reason_words(host::ReasonOfSystemText(result.message));
        return known.empty() ? Describe(result) : FailureOrRefusal(known);
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
        case -13:
            return "permission denied (-13)";
        case -22:
            return "invalid URI (-22)";
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

namespace {

/* What a reply holds for the result. */
enum class Reading { Changed, RowId, Code, CodeAndRowId, Rows, RowIds };

void ReadChanged(GVariant* reply, Result& result);
void ReadCode(GVariant* reply, Result& result, bool withRowId);

/* Reads a reply (when there is one) into `result`. */
Result ReadReply(const GVariantPtr& reply, Reading reading, Result result)
{
    if (!reply) {
        return result;
    }
    if (reading == Reading::Rows) {
        ReadRows(reply.get(), result);
        return result;
    }
    if (reading == Reading::Changed) {
        ReadChanged(reply.get(), result);
        return result;
    }
    if (reading == Reading::Code || reading == Reading::CodeAndRowId) {
        ReadCode(reply.get(), result, reading == Reading::CodeAndRowId);
        return result;
    }
    result.outcome = Outcome::Answered;
    result.code = 0;
    if (reading == Reading::RowId) {
        result.rowId = Int64At(reply.get(), 0);
    } else if (reading == Reading::RowIds) {
        GVariantPtr ids(g_variant_get_child_value(reply.get(), 0));
        gsize count = 0;
        const gint64* values = static_cast<const gint64*>(g_variant_get_fixed_array(ids.get(), &count, sizeof(gint64)));
        result.rowIds.assign(values, values + count);
    }
    return result;
}

Result AskDataControl(const std::string& providerId, const char* method, GVariant* arguments, Reading reading)
{
    Result result;
    GVariantPtr reply = DataControlCall(providerId, method, arguments, result);
    return ReadReply(reply, reading, result);
}

Result AskContent(const std::string& uri, const char* method, GVariant* arguments, Reading reading)
{
    Result result;
    GVariantPtr reply = ContentCall(uri, method, arguments, result);
    return ReadReply(reply, reading, result);
}

}  // namespace

/* ---- data control ------------------------------------------------------------ */

namespace {

/* "()" from older providers, "(x)" with the rows changed from newer ones. */
void ReadChanged(GVariant* reply, Result& result)
{
    if (ReplyIs(reply, "(x)")) {
        gint64 changed = -1;
        g_variant_get(reply, "(x)", &changed);
        result.changedRows = changed;
    } else if (!ReplyIs(reply, "()")) {
        result.outcome = Outcome::InvalidRequest;
        result.message = "the reply cannot be read";
        return;
    }
    result.outcome = Outcome::Answered;
    result.code = 0;
}

/* "(i)", "(ix)" from older providers, "(ixs)" with the reason from newer ones;
 * the "x" is the new row's id or the rows changed. */
void ReadCode(GVariant* reply, Result& result, bool withRowId)
{
    gint32 code = 0;
    gint64 second = -1;
    const gchar* reason = "";
    if (ReplyIs(reply, "(ixs)")) {
        g_variant_get(reply, "(ix&s)", &code, &second, &reason);
    } else if (ReplyIs(reply, "(ix)")) {
        g_variant_get(reply, "(ix)", &code, &second);
    } else if (ReplyIs(reply, "(i)")) {
        g_variant_get(reply, "(i)", &code);
    } else {
        result.outcome = Outcome::InvalidRequest;
        result.message = "the reply cannot be read";
        return;
    }
    result.outcome = Outcome::Answered;
    result.code = code;
    result.message = reason;
    if (withRowId) {
        result.rowId = second;
    } else {
        result.changedRows = second;
    }
}

}  // namespace

DataControlClient::DataControlClient(std::string providerId) : m_providerId(std::move(providerId)) {}

Result DataControlClient::Insert(const std::string& dataId, const Values& values) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskDataControl(m_providerId, "Insert", Arguments(SelfId(), m_providerId, dataId, encoded), Reading::RowId);
}

Result DataControlClient::Select(const std::string& dataId, const std::vector<std::string>& columns,
                                 const std::string& where, const std::string& order) const
{
    return AskDataControl(m_providerId, "Select", Arguments(SelfId(), m_providerId, dataId, columns, where, order),
                          Reading::Rows);
}

Result DataControlClient::Update(const std::string& dataId, const Values& values, const std::string& where) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskDataControl(m_providerId, "Update", Arguments(SelfId(), m_providerId, dataId, encoded, where),
                          Reading::Changed);
}

Result DataControlClient::Delete(const std::string& dataId, const std::string& where) const
{
    return AskDataControl(m_providerId, "Delete", Arguments(SelfId(), m_providerId, dataId, where), Reading::Changed);
}

/* ---- content-library interface ---------------------------------------------- */

Result ContentClient::Insert(const std::string& uri, const Values& values) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskContent(uri, "Insert", Arguments(SelfId(), uri, encoded), Reading::CodeAndRowId);
}

Result ContentClient::BulkInsert(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    const std::vector<std::string> encoded = EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskContent(uri, "BulkInsert", Arguments(SelfId(), uri, encoded), Reading::CodeAndRowId);
}

Result ContentClient::Select(const std::string& uri, const std::vector<std::string>& projection,
                             const std::string& where, const std::vector<std::string>& whereArgs,
                             const std::string& order, const std::string& limit) const
{
    return AskContent(uri, "Select", Arguments(SelfId(), uri, projection, where, whereArgs, order, limit),
                      Reading::Rows);
}

Result ContentClient::Update(const std::string& uri, const Values& values, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskContent(uri, "Update", Arguments(SelfId(), uri, encoded, where, whereArgs), Reading::Code);
}

Result ContentClient::BulkUpdate(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    const std::vector<std::string> encoded = EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    return AskContent(uri, "BulkUpdate", Arguments(SelfId(), uri, encoded), Reading::Code);
}

Result ContentClient::Delete(const std::string& uri, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    return AskContent(uri, "Delete", Arguments(SelfId(), uri, where, whereArgs), Reading::Code);
}

Result ContentClient::GetRowIds(const std::string& uri, const std::string& where,
                                const std::vector<std::string>& whereArgs) const
{
    return AskContent(uri, "GetRowIds", Arguments(SelfId(), uri, where, whereArgs), Reading::RowIds);
}

}  // namespace client
}  // namespace tilvane
