/*
 * The two request roads over the message bus: data control (SQL provider side)
 * and the content library's provider road.
 *
 * Every process exports two objects on its bus connection (bus_connection.h),
 * described by request_roads.xml:
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
 * application's bus name (the message ports' check). Calls arrive on the
 * platform's bus thread and are handed to the GLib default main context, where
 * the provider's callbacks run; the reply is sent from there as soon as the
 * callback returns. A data-control callback that sent no answer, and a content
 * select or row-id callback that returned false, are answered at once with
 * org.tilvane.Request.Error.NoResult.
 */
#include <gio/gio.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app_identity.h"
#include "bus_connection.h"
#include "glib_ptr.h"
#include "host_state.h"
#include "platform_config.h"
#include "RequestRoadsXml.h"
#include "row_codec.h"
#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "content_provider_dispatch.h"
#include "data_control.h"
#include "dlog.h"
#include "host_control.h"
#include "message_port.h"

struct data_control_s {
    std::string providerId;
    std::string dataId;
};

namespace tilvane {
namespace host {

#define ROAD_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define ROAD_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define ROAD_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace {

constexpr char kDataControlPath[] = "/org/tilvane/DataControl";
constexpr char kDataControlInterface[] = "org.tilvane.DataControl";
constexpr char kContentPath[] = "/org/tilvane/Content";
constexpr char kContentInterface[] = "org.tilvane.Content";
constexpr char kDataControlNamePrefix[] = "org.tilvane.DataControl.P";
constexpr char kContentNamePrefix[] = "org.tilvane.Content.P";
constexpr char kErrorNoResult[] = "org.tilvane.Request.Error.NoResult";
constexpr char kErrorNotServed[] = "org.tilvane.Request.Error.NotServed";
constexpr char kErrorProviderError[] = "org.tilvane.Request.Error.ProviderError";
constexpr char kErrorNotAuthorized[] = "org.tilvane.Request.Error.NotAuthorized";
constexpr char kErrorInvalidRequest[] = "org.tilvane.Request.Error.InvalidRequest";
constexpr int kBusCallTimeoutMs = 10000;
constexpr guint32 kNameFlagDoNotQueue = 0x4;
constexpr guint32 kNamePrimaryOwner = 1;
constexpr guint32 kNameAlreadyOwner = 4;

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

struct RoadState {
    std::mutex mutex;
    /* data control */
    bool dcRegistered = false;
    data_control_provider_sql_cb dcCallbacks{};
    void* dcUserData = nullptr;
    std::string dcProviderId;
    std::string dcBusName;
    std::map<int, DcRequest*> active;
    int nextRequestId = 1;
    /* content road: authority -> number of registered callbacks */
    std::map<std::string, int> contentAuthorities;
    /* names this process owns for its roads */
    std::set<std::string> ownedNames;
    guint dcObjectId = 0;
    guint contentObjectId = 0;
};

RoadState& TheRoadState()
{
    static RoadState* state = new RoadState();
    return *state;
}

GDBusNodeInfo* NodeInfo()
{
    static GDBusNodeInfo* node = [] {
        ScopedError error;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(kRequestRoadsXml, error.Out());
        if (parsed == nullptr) {
            ROAD_LOGE("request roads: bad introspection data: %s", error.Message());
        }
        return parsed;
    }();
    return node;
}

bool BusConfigured()
{
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    return address != nullptr && *address != '\0';
}

/* RequestName without queueing; true when this connection owns the name. */
bool OwnName(const std::string& name)
{
    int portResult = 0;
    GDBusConnectionPtr connection = SharedBusConnection(false, &portResult);
    if (!connection) {
        return false;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), kNameFlagDoNotQueue), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
        kBusCallTimeoutMs, nullptr, error.Out()));
    if (!reply) {
        ROAD_LOGE("cannot request bus name %s: %s", name.c_str(), error.Message());
        return false;
    }
    guint32 answer = 0;
    g_variant_get(reply.get(), "(u)", &answer);
    if (answer != kNamePrimaryOwner && answer != kNameAlreadyOwner) {
        ROAD_LOGE("bus name %s is owned by another process", name.c_str());
        return false;
    }
    RoadState& s = TheRoadState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ownedNames.insert(name);
    ROAD_LOGD("owns bus name %s", name.c_str());
    return true;
}

void ReleaseName(const std::string& name)
{
    {
        RoadState& s = TheRoadState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.ownedNames.erase(name) == 0) {
            return;
        }
    }
    int portResult = 0;
    GDBusConnectionPtr connection = SharedBusConnection(false, &portResult);
    if (!connection) {
        return;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs,
        nullptr, error.Out()));
    ROAD_LOGD("released bus name %s", name.c_str());
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

bundle* DecodeBundle(const char* encoded)
{
    return bundle_decode(reinterpret_cast<const bundle_raw*>(encoded), static_cast<int>(std::strlen(encoded)));
}

GVariant* RowsVariant(const std::string& rows)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, rows.data(), rows.size(), 1);
}

/* ---- a request on the default main context -------------------------------- */

struct Job {
    GDBusMethodInvocation* invocation;
    std::string interface;
    std::string method;
    GVariant* parameters;
    std::string clientApp;
};

void FreeJob(gpointer data)
{
    Job* job = static_cast<Job*>(data);
    g_object_unref(job->invocation);
    g_variant_unref(job->parameters);
    delete job;
}

void ReturnError(GDBusMethodInvocation* invocation, const char* name, const char* message)
{
    g_dbus_method_invocation_return_dbus_error(invocation, name, message);
}

/* ---- data control ---------------------------------------------------------- */

/* The tables the provider declares; a request for anything else never
 * reaches a callback. Compared exactly: SQLite would read "TILES" as tiles. */
bool ServesDataId(const std::string& dataId)
{
    std::vector<std::string> declared = config::StringList("data-control", "data-ids");
    if (declared.empty()) {
        declared = {"accelerators", "sections", "tiles"};
    }
    return std::find(declared.begin(), declared.end(), dataId) != declared.end();
}

/* TILVANE_DATA_CONTROL_PROVIDER_ID, else [data-control] provider-id, else the
 * service's provider id. */
std::string ConfiguredProviderId()
{
    const char* fromEnvironment = std::getenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    if (fromEnvironment != nullptr) {
        return fromEnvironment;
    }
    return config::String("data-control", "provider-id", "content://com.quillon.px.tiles");
}

/* `name` as an SQL identifier: in double quotes, a quote inside doubled. */
std::string QuotedIdentifier(const std::string& name)
{
    std::string quoted = "\"";
    for (char c : name) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

void RunDataControl(Job& job)
{
    RoadState& s = TheRoadState();
    data_control_provider_sql_cb callbacks{};
    void* userData = nullptr;
    bool registered = false;
    std::string providerId;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        registered = s.dcRegistered;
        callbacks = s.dcCallbacks;
        userData = s.dcUserData;
        providerId = s.dcProviderId;
    }
    GVariant* p = job.parameters;
    const gchar* requestedProvider = nullptr;
    const gchar* dataId = nullptr;
    g_variant_get_child(p, 1, "&s", &requestedProvider);
    g_variant_get_child(p, 2, "&s", &dataId);
    if (!registered || providerId != requestedProvider) {
        ReturnError(job.invocation, kErrorNotServed, "no data-control provider for this provider id here");
        return;
    }
    if (!ServesDataId(dataId)) {
        ROAD_LOGE("data-control request %s of %s refused: the provider serves no data id \"%s\"", job.method.c_str(),
                  job.clientApp.c_str(), dataId);
        ReturnError(job.invocation, kErrorNotServed, "the provider serves no such data id");
        return;
    }
    DcRequest request;
    request.clientApp = job.clientApp;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        request.id = s.nextRequestId++;
        if (s.nextRequestId <= 0) {
            s.nextRequestId = 1;
        }
        s.active[request.id] = &request;
    }
    data_control_s handle{requestedProvider, dataId};
    bool served = true;
    bool readable = true;
    if (job.method == "Insert") {
        const gchar* values = nullptr;
        g_variant_get_child(p, 3, "&s", &values);
        bundle* data = DecodeBundle(values);
        if (data == nullptr) {
            readable = false;
        } else if (callbacks.insert_cb == nullptr) {
            served = false;
        } else {
            callbacks.insert_cb(request.id, &handle, data, userData);
        }
        bundle_free(data);
    } else if (job.method == "Select") {
        GVariantPtr columnsVariant(g_variant_get_child_value(p, 3));
        const gchar* where = nullptr;
        const gchar* order = nullptr;
        g_variant_get_child(p, 4, "&s", &where);
        g_variant_get_child(p, 5, "&s", &order);
        const std::vector<std::string> columns = StringsOf(columnsVariant.get());
        std::vector<const char*> pointers;
        for (const std::string& column : columns) {
            pointers.push_back(column.c_str());
        }
        pointers.push_back(nullptr);
        if (callbacks.select_cb == nullptr) {
            served = false;
        } else {
            callbacks.select_cb(request.id, &handle, pointers.data(), static_cast<int>(columns.size()),
                                *where != '\0' ? where : nullptr, *order != '\0' ? order : nullptr, userData);
        }
    } else if (job.method == "Update") {
        const gchar* values = nullptr;
        const gchar* where = nullptr;
        g_variant_get_child(p, 3, "&s", &values);
        g_variant_get_child(p, 4, "&s", &where);
        bundle* data = DecodeBundle(values);
        if (data == nullptr) {
            readable = false;
        } else if (callbacks.update_cb == nullptr) {
            served = false;
        } else {
            callbacks.update_cb(request.id, &handle, data, *where != '\0' ? where : nullptr, userData);
        }
        bundle_free(data);
    } else if (job.method == "Delete") {
        const gchar* where = nullptr;
        g_variant_get_child(p, 3, "&s", &where);
        if (callbacks.delete_cb == nullptr) {
            served = false;
        } else {
            callbacks.delete_cb(request.id, &handle, *where != '\0' ? where : nullptr, userData);
        }
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.active.erase(request.id);
    }
    if (!readable) {
        ReturnError(job.invocation, kErrorInvalidRequest, "the values are not a bundle");
        return;
    }
    if (!served) {
        ReturnError(job.invocation, kErrorNotServed, "the provider has no callback for this kind of request");
        return;
    }
    switch (request.answer) {
    case DcRequest::Answer::None:
        ROAD_LOGD("data-control request %d of %s: no result", request.id, request.clientApp.c_str());
        ReturnError(job.invocation, kErrorNoResult, "the provider sent no result");
        return;
    case DcRequest::Answer::Error:
        ReturnError(job.invocation, kErrorProviderError, request.error.c_str());
        return;
    case DcRequest::Answer::RowId:
        if (job.method == "Insert") {
            g_dbus_method_invocation_return_value(job.invocation, g_variant_new("(x)", static_cast<gint64>(request.rowId)));
            return;
        }
        break;
    case DcRequest::Answer::Rows:
        if (job.method == "Select") {
            g_dbus_method_invocation_return_value(job.invocation, g_variant_new("(@ay)", RowsVariant(request.rows)));
            return;
        }
        break;
    case DcRequest::Answer::Done:
        if (job.method == "Update" || job.method == "Delete") {
            g_dbus_method_invocation_return_value(job.invocation, nullptr);
            return;
        }
        break;
    }
    ReturnError(job.invocation, kErrorNoResult, "the provider sent a result of another kind of request");
}

/* ---- content library's road ---------------------------------------------- */

void ReturnResult(GDBusMethodInvocation* invocation, bool found, GVariant* value)
{
    if (!found) {
        if (value != nullptr) {
            g_variant_unref(g_variant_ref_sink(value));
        }
        ReturnError(invocation, kErrorNotServed, "no callback is registered for this kind of request and URI");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, value);
}

std::vector<bundle*> DecodeBundles(GVariant* array, bool& ok)
{
    std::vector<bundle*> bundles;
    ok = true;
    for (const std::string& encoded : StringsOf(array)) {
        bundle* b = DecodeBundle(encoded.c_str());
        if (b == nullptr) {
            ok = false;
            break;
        }
        bundles.push_back(b);
    }
    if (!ok) {
        for (bundle* b : bundles) {
            bundle_free(b);
        }
        bundles.clear();
    }
    return bundles;
}

void FreeBundles(std::vector<bundle*>& bundles)
{
    for (bundle* b : bundles) {
        bundle_free(b);
    }
    bundles.clear();
}

void RunContent(Job& job)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters;
    const gchar* uri = nullptr;
    g_variant_get_child(p, 1, "&s", &uri);
    int result = 0;
    if (job.method == "Insert") {
        const gchar* values = nullptr;
        g_variant_get_child(p, 2, "&s", &values);
        PT_PROVIDER_INSERT_IN_PARAM in;
        PT_PROVIDER_INSERT_OUT_PARAM out;
        in.strAppId = job.clientApp;
        in.strUri = uri;
        in.pValues = DecodeBundle(values);
        if (in.pValues == nullptr) {
            ReturnError(job.invocation, kErrorInvalidRequest, "the values are not a bundle");
            return;
        }
        const bool found = DispatchInsert(in, out, result);
        bundle_free(in.pValues);
        ReturnResult(job.invocation, found, g_variant_new("(ix)", result, static_cast<gint64>(out.nRowId)));
    } else if (job.method == "BulkInsert" || job.method == "BulkUpdate") {
        GVariantPtr rows(g_variant_get_child_value(p, 2));
        bool ok = true;
        std::vector<bundle*> bundles = DecodeBundles(rows.get(), ok);
        if (!ok) {
            ReturnError(job.invocation, kErrorInvalidRequest, "a row is not a bundle");
            return;
        }
        if (job.method == "BulkInsert") {
            PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM in;
            PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
            in.strAppId = job.clientApp;
            in.strUri = uri;
            in.vecValues = bundles;
            const bool found = DispatchBulkInsert(in, out, result);
            FreeBundles(bundles);
            ReturnResult(job.invocation, found, g_variant_new("(ix)", result, static_cast<gint64>(out.nRowId)));
        } else {
            PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM in;
            PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
            in.strAppId = job.clientApp;
            in.strUri = uri;
            in.vecValues = bundles;
            const bool found = DispatchBulkUpdate(in, out, result);
            FreeBundles(bundles);
            ReturnResult(job.invocation, found, g_variant_new("(i)", result));
        }
    } else if (job.method == "Update") {
        const gchar* values = nullptr;
        const gchar* where = nullptr;
        g_variant_get_child(p, 2, "&s", &values);
        g_variant_get_child(p, 3, "&s", &where);
        GVariantPtr args(g_variant_get_child_value(p, 4));
        PT_PROVIDER_UPDATE_IN_PARAM in;
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        in.strAppId = job.clientApp;
        in.strUri = uri;
        in.pValues = DecodeBundle(values);
        in.strWhere = where;
        in.vecWhereArgs = StringsOf(args.get());
        if (in.pValues == nullptr) {
            ReturnError(job.invocation, kErrorInvalidRequest, "the values are not a bundle");
            return;
        }
        const bool found = DispatchUpdate(in, out, result);
        bundle_free(in.pValues);
        ReturnResult(job.invocation, found, g_variant_new("(i)", result));
    } else if (job.method == "Delete") {
        const gchar* where = nullptr;
        g_variant_get_child(p, 2, "&s", &where);
        GVariantPtr args(g_variant_get_child_value(p, 3));
        PT_PROVIDER_DELETE_IN_PARAM in;
        in.strAppId = job.clientApp;
        in.strUri = uri;
        in.strWhere = where;
        in.vecWhereArgs = StringsOf(args.get());
        const bool found = DispatchDelete(in, result);
        ReturnResult(job.invocation, found, g_variant_new("(i)", result));
    } else if (job.method == "Select" || job.method == "GetRowIds") {
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strAppId = job.clientApp;
        in.strUri = uri;
        const gchar* where = nullptr;
        if (job.method == "Select") {
            GVariantPtr projection(g_variant_get_child_value(p, 2));
            GVariantPtr args(g_variant_get_child_value(p, 4));
            const gchar* order = nullptr;
            const gchar* limit = nullptr;
            g_variant_get_child(p, 3, "&s", &where);
            g_variant_get_child(p, 5, "&s", &order);
            g_variant_get_child(p, 6, "&s", &limit);
            in.vecProjection = StringsOf(projection.get());
            in.vecWhereArgs = StringsOf(args.get());
            in.strOrderBy = order;
            in.strLimit = limit;
            in.strWhere = where;
            PT_PROVIDER_SELECT_OUT_PARAM out;
            bool answered = false;
            if (!DispatchSelect(in, out, answered)) {
                ReturnResult(job.invocation, false, nullptr);
                return;
            }
            if (!answered) {
                ReturnError(job.invocation, kErrorNoResult, "the provider's select failed");
                return;
            }
            std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
            std::string encoded;
            if (!cursor || !EncodeCursorRows(*cursor, encoded)) {
                ReturnError(job.invocation, kErrorNoResult, "the provider's select left no readable cursor");
                return;
            }
            g_dbus_method_invocation_return_value(job.invocation,
                                                  g_variant_new("(@ay)", RowsVariant(encoded)));
        } else {
            GVariantPtr args(g_variant_get_child_value(p, 3));
            g_variant_get_child(p, 2, "&s", &where);
            in.strWhere = where;
            in.vecWhereArgs = StringsOf(args.get());
            PT_PROVIDER_GET_ID_OUT_PARAM out;
            bool answered = false;
            if (!DispatchGetId(in, out, answered)) {
                ReturnResult(job.invocation, false, nullptr);
                return;
            }
            if (!answered) {
                ReturnError(job.invocation, kErrorNoResult, "the provider's row-id lookup failed");
                return;
            }
            GVariant* ids = g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, out.vecRowIds.data(), out.vecRowIds.size(),
                                                      sizeof(int64_t));
            g_dbus_method_invocation_return_value(job.invocation, g_variant_new("(@ax)", ids));
        }
    }
}

gboolean RunJobCB(gpointer data)
{
    Job* job = static_cast<Job*>(data);
    if (job->interface == kDataControlInterface) {
        RunDataControl(*job);
    } else {
        RunContent(*job);
    }
    return G_SOURCE_REMOVE;
}

/* On the bus thread. */
void OnRoadMethodCallCB(GDBusConnection* connection, const gchar* sender, const gchar* /*objectPath*/,
                        const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                        GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    const gchar* clientApp = nullptr;
    g_variant_get_child(parameters, 0, "&s", &clientApp);
    std::string reason;
    if (!SenderIsApp(connection, sender, clientApp, reason)) {
        ROAD_LOGE("request %s.%s refused: %s", interfaceName, methodName, reason.c_str());
        ReturnError(invocation, kErrorNotAuthorized, "the sender does not own the name of the application it claims");
        return;
    }
    Job* job = new Job{static_cast<GDBusMethodInvocation*>(g_object_ref(invocation)), interfaceName, methodName,
                       g_variant_ref(parameters), clientApp};
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, RunJobCB, job, FreeJob);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

}  // namespace

/* ---- internal interface ----------------------------------------------------- */

const char* RequestRoadsIntrospectionXml()
{
    return kRequestRoadsXml;
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

bool OwnsRoadBusName(const std::string& busName)
{
    RoadState& s = TheRoadState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.ownedNames.count(busName) != 0;
}

void RegisterRequestRoadObjects(GDBusConnection* connection)
{
    GDBusNodeInfo* node = NodeInfo();
    if (node == nullptr) {
        return;
    }
    static const GDBusInterfaceVTable vtable = {OnRoadMethodCallCB, nullptr, nullptr, {nullptr}};
    ScopedError error;
    const guint dc = g_dbus_connection_register_object(
        connection, kDataControlPath, g_dbus_node_info_lookup_interface(node, kDataControlInterface), &vtable, nullptr,
        nullptr, error.Out());
    const guint content = g_dbus_connection_register_object(
        connection, kContentPath, g_dbus_node_info_lookup_interface(node, kContentInterface), &vtable, nullptr,
        nullptr, error.Out());
    if (dc == 0 || content == 0) {
        ROAD_LOGE("cannot export the request roads: %s", error.Message());
    }
    RoadState& s = TheRoadState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dcObjectId = dc;
    s.contentObjectId = content;
}

void UnregisterRequestRoadObjects(GDBusConnection* connection)
{
    RoadState& s = TheRoadState();
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

void ContentCallbackRegistered(const std::string& uri)
{
    const std::string authority = AuthorityOf(uri);
    const std::string name = ContentBusName(authority);
    {
        RoadState& s = TheRoadState();
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.contentAuthorities[authority];
        if (name.empty() || s.ownedNames.count(name) != 0) {
            return;
        }
    }
    if (!BusConfigured()) {
        ROAD_LOGD("no message bus: content requests for %s cannot reach this process", authority.c_str());
        return;
    }
    OwnName(name);
}

void ContentCallbackUnregistered(const std::string& uri)
{
    const std::string authority = AuthorityOf(uri);
    {
        RoadState& s = TheRoadState();
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
        RoadState& s = TheRoadState();
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

void ResetRequestRoads()
{
    RoadState& s = TheRoadState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dcRegistered = false;
    s.dcCallbacks = data_control_provider_sql_cb{};
    s.dcUserData = nullptr;
    s.dcProviderId.clear();
    s.dcBusName.clear();
    s.active.clear();
    s.nextRequestId = 1;
    s.ownedNames.clear();
}

}  // namespace host
}  // namespace tilvane

/* ---- data control, provider side ---------------------------------------------- */

using namespace tilvane::host;

namespace {

/* Runs `record` on the request in progress under the state's lock. */
template <typename Fn>
int WithActiveRequest(int requestId, Fn record)
{
    RoadState& s = TheRoadState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.active.find(requestId);
    if (it == s.active.end()) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    return record(*it->second);
}

char* CopyString(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        std::memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

int Answer(int requestId, DcRequest::Answer answer, int64_t rowId, std::string rows, std::string error)
{
    return WithActiveRequest(requestId, [&](DcRequest& request) {
        if (request.answer != DcRequest::Answer::None) {
            return static_cast<int>(DATA_CONTROL_ERROR_INVALID_PARAMETER);
        }
        request.answer = answer;
        request.rowId = rowId;
        request.rows = std::move(rows);
        request.error = std::move(error);
        return static_cast<int>(DATA_CONTROL_ERROR_NONE);
    });
}

}  // namespace

extern "C" int data_control_provider_sql_register_cb(data_control_provider_sql_cb* callback, void* user_data)
{
    if (ShouldFail("data_control_provider_sql_register_cb")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (callback == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    const std::string providerId = ConfiguredProviderId();
    const std::string busName = providerId.empty() ? std::string() : DataControlBusName(AuthorityOf(providerId));
    RoadState& s = TheRoadState();
    std::string previousName;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        previousName = s.dcBusName;
    }
    if (!previousName.empty() && previousName != busName) {
        ReleaseName(previousName);
    }
    if (busName.empty()) {
        ROAD_LOGI("no data-control provider id is configured: data-control requests cannot reach this process");
    } else if (BusConfigured() && !OwnsRoadBusName(busName) && !OwnName(busName)) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    s.dcRegistered = true;
    s.dcCallbacks = *callback;
    s.dcUserData = user_data;
    s.dcProviderId = providerId;
    s.dcBusName = busName;
    ROAD_LOGD("data-control provider %s registered", providerId.c_str());
    return DATA_CONTROL_ERROR_NONE;
}

extern "C" int data_control_provider_sql_unregister_cb(void)
{
    if (ShouldFail("data_control_provider_sql_unregister_cb")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    RoadState& s = TheRoadState();
    std::string busName;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.dcRegistered = false;
        s.dcCallbacks = data_control_provider_sql_cb{};
        s.dcUserData = nullptr;
        busName = s.dcBusName;
        s.dcBusName.clear();
        s.dcProviderId.clear();
    }
    if (!busName.empty()) {
        ReleaseName(busName);
    }
    return DATA_CONTROL_ERROR_NONE;
}

extern "C" int data_control_provider_get_client_appid(int request_id, char** appid)
{
    if (ShouldFail("data_control_provider_get_client_appid")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (appid == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    return WithActiveRequest(request_id, [&](DcRequest& request) {
        *appid = CopyString(request.clientApp);
        return *appid != nullptr ? DATA_CONTROL_ERROR_NONE : DATA_CONTROL_ERROR_OUT_OF_MEMORY;
    });
}

extern "C" int data_control_sql_get_provider_id(data_control_h provider, char** provider_id)
{
    if (ShouldFail("data_control_sql_get_provider_id")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (provider == nullptr || provider_id == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    *provider_id = CopyString(provider->providerId);
    return *provider_id != nullptr ? DATA_CONTROL_ERROR_NONE : DATA_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" int data_control_sql_get_data_id(data_control_h provider, char** data_id)
{
    if (ShouldFail("data_control_sql_get_data_id")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (provider == nullptr || data_id == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    *data_id = CopyString(provider->dataId);
    return *data_id != nullptr ? DATA_CONTROL_ERROR_NONE : DATA_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" char* data_control_provider_create_select_statement(data_control_h provider, const char** column_list,
                                                               int column_count, const char* where, const char* order)
{
    if (ShouldFail("data_control_provider_create_select_statement")) {
        return nullptr;
    }
    if (provider == nullptr || column_count < 0 || (column_count > 0 && column_list == nullptr)) {
        return nullptr;
    }
    std::string statement = "SELECT ";
    if (column_count == 0) {
        statement += "*";
    }
    for (int i = 0; i < column_count; ++i) {
        if (column_list[i] == nullptr) {
            return nullptr;
        }
        if (i > 0) {
            statement += ", ";
        }
        statement += column_list[i];
    }
    statement += " FROM ";
    statement += QuotedIdentifier(provider->dataId);
    if (where != nullptr && *where != '\0') {
        statement += " WHERE ";
        statement += where;
    }
    if (order != nullptr && *order != '\0') {
        statement += " ORDER BY ";
        statement += order;
    }
    return CopyString(statement);
}

extern "C" int data_control_provider_send_insert_result(int request_id, long long row_id)
{
    if (ShouldFail("data_control_provider_send_insert_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return Answer(request_id, DcRequest::Answer::RowId, row_id, std::string(), std::string());
}

extern "C" int data_control_provider_send_select_result(int request_id, void* db_handle)
{
    if (ShouldFail("data_control_provider_send_select_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    if (db_handle == nullptr) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    const bool known = WithActiveRequest(request_id, [](DcRequest& request) {
        return request.answer == DcRequest::Answer::None ? 0 : static_cast<int>(DATA_CONTROL_ERROR_INVALID_PARAMETER);
    }) == 0;
    if (!known) {
        return DATA_CONTROL_ERROR_INVALID_PARAMETER;
    }
    std::string rows;
    if (!EncodeStatementRows(static_cast<sqlite3_stmt*>(db_handle), rows)) {
        ROAD_LOGE("select result of request %d: stepping failed: %s", request_id,
                  sqlite3_errmsg(sqlite3_db_handle(static_cast<sqlite3_stmt*>(db_handle))));
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return Answer(request_id, DcRequest::Answer::Rows, -1, std::move(rows), std::string());
}

extern "C" int data_control_provider_send_update_result(int request_id)
{
    if (ShouldFail("data_control_provider_send_update_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return Answer(request_id, DcRequest::Answer::Done, -1, std::string(), std::string());
}

extern "C" int data_control_provider_send_delete_result(int request_id)
{
    if (ShouldFail("data_control_provider_send_delete_result")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return Answer(request_id, DcRequest::Answer::Done, -1, std::string(), std::string());
}

extern "C" int data_control_provider_send_error(int request_id, const char* error)
{
    if (ShouldFail("data_control_provider_send_error")) {
        return DATA_CONTROL_ERROR_IO_ERROR;
    }
    return Answer(request_id, DcRequest::Answer::Error, -1, std::string(), error != nullptr ? error : "");
}
