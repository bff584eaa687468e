/*
 * Client side of the request roads (tilvane_client.h): one bus call per
 * request, made as the process's own application id on the shared connection.
 */
#include "tilvane_client.h"

#include <gio/gio.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "app_identity.h"
#include "bus_connection.h"
#include "glib_ptr.h"
#include "host_state.h"
#include "request_report.h"
#include "row_codec.h"
#include "bundle.h"
#include "dlog.h"
#include "message_port.h"

namespace tilvane {
namespace client {
namespace {

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
    bundle* b = bundle_create();
    if (b == nullptr) {
        return std::string();
    }
    for (const auto& entry : values) {
        if (bundle_add_str(b, entry.first.c_str(), entry.second.c_str()) != BUNDLE_ERROR_NONE) {
            bundle_free(b);
            return std::string();
        }
    }
    bundle_raw* raw = nullptr;
    int length = 0;
    if (bundle_encode(b, &raw, &length) != BUNDLE_ERROR_NONE) {
        bundle_free(b);
        return std::string();
    }
    std::string encoded(reinterpret_cast<const char*>(raw), static_cast<size_t>(length));
    bundle_free_encoded_rawdata(&raw);
    bundle_free(b);
    ok = true;
    return encoded;
}

GVariant* StringArray(const std::vector<std::string>& strings)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const std::string& text : strings) {
        g_variant_builder_add(&builder, "s", text.c_str());
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
    if (name == "org.tilvane.Request.Error.NoResult") {
        result.outcome = Outcome::NoResult;
    } else if (name == "org.tilvane.Request.Error.ProviderError" || name == "org.tilvane.Request.Error.Refused") {
        result.outcome = Outcome::ProviderError;
    } else if (name == "org.tilvane.Request.Error.NotServed" || name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
               name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
               name == "org.freedesktop.DBus.Error.UnknownObject" ||
               name == "org.freedesktop.DBus.Error.UnknownMethod") {
        result.outcome = Outcome::NotServed;
    } else if (name == "org.tilvane.Request.Error.NotAuthorized") {
        result.outcome = Outcome::NotAuthorized;
    } else if (name == "org.tilvane.Request.Error.InvalidRequest") {
        result.outcome = Outcome::InvalidRequest;
    } else {
        result.outcome = Outcome::BusError;
    }
}

/* Null (any reply) for the methods whose replies grew: their readers accept
 * the older and the newer form. */
const GVariantType* ReplyType(const char* replyType)
{
    return replyType != nullptr ? G_VARIANT_TYPE(replyType) : nullptr;
}

bool ReplyIs(GVariant* reply, const char* type)
{
    return g_variant_is_of_type(reply, G_VARIANT_TYPE(type));
}

/* One call. Null with `result` describing the failure when there is no reply. */
GVariantPtr Call(const std::string& busName, const char* path, const char* interface, const char* method,
                 GVariant* parameters, const char* replyType, Result& result)
{
    GVariantPtr params(g_variant_ref_sink(parameters));
    if (busName.empty()) {
        result.outcome = Outcome::NotServed;
        result.message = "no provider can serve this authority";
        return nullptr;
    }
    int portResult = 0;
    GDBusConnectionPtr connection = host::SharedBusConnection(true, &portResult);
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
    if (host::OwnsRoadBusName(busName) && g_main_context_acquire(mainContext)) {
        std::atomic<bool> done(false);
        std::thread caller([&] {
            reply.reset(g_dbus_connection_call_sync(connection.get(), busName.c_str(), path, interface, method,
                                                    params.get(), ReplyType(replyType),
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
                                                params.get(), ReplyType(replyType),
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

}  // namespace

namespace {

bool IsRefusal(const std::string& reason)
{
    return reason == "permission level too low" || reason == "this table cannot be changed through this request";
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
        const std::string known = host::ReasonForProviderText(result.message);
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
        return "not authorized: the bus did not confirm this application id";
    case Outcome::InvalidRequest:
        return "invalid request: " + result.message;
    case Outcome::BusError:
        return "bus error: " + result.message;
    }
    return "unknown";
}

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

}  // namespace

DataControlClient::DataControlClient(std::string providerId) : m_providerId(std::move(providerId)) {}

Result DataControlClient::Insert(const std::string& dataId, const Values& values) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(host::DataControlBusName(host::AuthorityOf(m_providerId)), kDataControlPath,
                             kDataControlInterface, "Insert",
                             g_variant_new("(ssss)", SelfId().c_str(), m_providerId.c_str(), dataId.c_str(),
                                           encoded.c_str()),
                             "(x)", result);
    if (reply) {
        gint64 rowId = -1;
        g_variant_get(reply.get(), "(x)", &rowId);
        result.outcome = Outcome::Answered;
        result.code = 0;
        result.rowId = rowId;
    }
    return result;
}

Result DataControlClient::Select(const std::string& dataId, const std::vector<std::string>& columns,
                                 const std::string& where, const std::string& order) const
{
    Result result;
    GVariantPtr reply = Call(host::DataControlBusName(host::AuthorityOf(m_providerId)), kDataControlPath,
                             kDataControlInterface, "Select",
                             g_variant_new("(sss@asss)", SelfId().c_str(), m_providerId.c_str(), dataId.c_str(),
                                           StringArray(columns), where.c_str(), order.c_str()),
                             "(ay)", result);
    if (reply) {
        ReadRows(reply.get(), result);
    }
    return result;
}

Result DataControlClient::Update(const std::string& dataId, const Values& values, const std::string& where) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(host::DataControlBusName(host::AuthorityOf(m_providerId)), kDataControlPath,
                             kDataControlInterface, "Update",
                             g_variant_new("(sssss)", SelfId().c_str(), m_providerId.c_str(), dataId.c_str(),
                                           encoded.c_str(), where.c_str()),
                             nullptr, result);
    if (reply) {
        ReadChanged(reply.get(), result);
    }
    return result;
}

Result DataControlClient::Delete(const std::string& dataId, const std::string& where) const
{
    Result result;
    GVariantPtr reply = Call(host::DataControlBusName(host::AuthorityOf(m_providerId)), kDataControlPath,
                             kDataControlInterface, "Delete",
                             g_variant_new("(ssss)", SelfId().c_str(), m_providerId.c_str(), dataId.c_str(),
                                           where.c_str()),
                             nullptr, result);
    if (reply) {
        ReadChanged(reply.get(), result);
    }
    return result;
}

/* ---- content library's road ------------------------------------------------- */

namespace {

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

Result ContentClient::Insert(const std::string& uri, const Values& values) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "Insert",
                             g_variant_new("(sss)", SelfId().c_str(), uri.c_str(), encoded.c_str()), nullptr, result);
    if (reply) {
        ReadCode(reply.get(), result, true);
    }
    return result;
}

Result ContentClient::BulkInsert(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    const std::vector<std::string> encoded = EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "BulkInsert",
                             g_variant_new("(ss@as)", SelfId().c_str(), uri.c_str(), StringArray(encoded)), nullptr,
                             result);
    if (reply) {
        ReadCode(reply.get(), result, true);
    }
    return result;
}

Result ContentClient::Select(const std::string& uri, const std::vector<std::string>& projection,
                             const std::string& where, const std::vector<std::string>& whereArgs,
                             const std::string& order, const std::string& limit) const
{
    Result result;
    GVariantPtr reply =
        Call(ContentName(uri), kContentPath, kContentInterface, "Select",
             g_variant_new("(ss@ass@asss)", SelfId().c_str(), uri.c_str(), StringArray(projection), where.c_str(),
                           StringArray(whereArgs), order.c_str(), limit.c_str()),
             "(ay)", result);
    if (reply) {
        ReadRows(reply.get(), result);
    }
    return result;
}

Result ContentClient::Update(const std::string& uri, const Values& values, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    bool ok = false;
    const std::string encoded = EncodeValues(values, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "Update",
                             g_variant_new("(ssss@as)", SelfId().c_str(), uri.c_str(), encoded.c_str(), where.c_str(),
                                           StringArray(whereArgs)),
                             nullptr, result);
    if (reply) {
        ReadCode(reply.get(), result, false);
    }
    return result;
}

Result ContentClient::BulkUpdate(const std::string& uri, const std::vector<Values>& rows) const
{
    bool ok = false;
    const std::vector<std::string> encoded = EncodeRows(rows, ok);
    if (!ok) {
        return InvalidValues();
    }
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "BulkUpdate",
                             g_variant_new("(ss@as)", SelfId().c_str(), uri.c_str(), StringArray(encoded)), nullptr,
                             result);
    if (reply) {
        ReadCode(reply.get(), result, false);
    }
    return result;
}

Result ContentClient::Delete(const std::string& uri, const std::string& where,
                             const std::vector<std::string>& whereArgs) const
{
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "Delete",
                             g_variant_new("(sss@as)", SelfId().c_str(), uri.c_str(), where.c_str(),
                                           StringArray(whereArgs)),
                             nullptr, result);
    if (reply) {
        ReadCode(reply.get(), result, false);
    }
    return result;
}

Result ContentClient::GetRowIds(const std::string& uri, const std::string& where,
                                const std::vector<std::string>& whereArgs) const
{
    Result result;
    GVariantPtr reply = Call(ContentName(uri), kContentPath, kContentInterface, "GetRowIds",
                             g_variant_new("(sss@as)", SelfId().c_str(), uri.c_str(), where.c_str(),
                                           StringArray(whereArgs)),
                             "(ax)", result);
    if (reply) {
        GVariantPtr ids(g_variant_get_child_value(reply.get(), 0));
        gsize count = 0;
        const gint64* values = static_cast<const gint64*>(g_variant_get_fixed_array(ids.get(), &count, sizeof(gint64)));
        result.rowIds.assign(values, values + count);
        result.outcome = Outcome::Answered;
        result.code = 0;
    }
    return result;
}

}  // namespace client
}  // namespace tilvane
