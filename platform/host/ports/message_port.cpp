/*
 * Message ports on the host, over the D-Bus session bus (DBUS_SESSION_BUS_ADDRESS).
 *
 * Each process has one connection to the bus (bus/bus_connection.h), which owns
 * the bus name of its application id; the ports register themselves with it
 * as a ConnectionUser. On every connection they export one object for all of
 * the local ports, whose calls are read into their typed requests
 * (message_port_wire.h, generated from message_port.xml):
 *
 *   path      /org/tilvane/MessagePort
 *   interface org.tilvane.MessagePort
 *     Deliver(s port, s senderApp, s senderPort, s message)  senderPort "" = none;
 *                                                           message = bundle_encode text
 *     HasPort(s port) -> (b exists)
 *
 * Registering a port also makes the connection own the port's bus name
 * (port_delivery.h), so whether a port runs is asked of the bus daemon only:
 * message_port_check_remote_port never calls the application. Sending is a
 * Deliver call to the receiver's bus name that the sender does not wait for;
 * an absent application or port gives MESSAGE_PORT_ERROR_PORT_NOT_FOUND at
 * once, and a receiver that never answers costs a bounded number of calls in
 * flight. HasPort stays exported for clients that still ask it.
 *
 * The sender's application id is taken from the bus: Deliver carries the id
 * that the sender claims, and the receiver accepts it only when the bus says
 * that the name of that id is owned by the connection the call came from
 * (bus_connection.h's SenderIsApp). A message that fails the check is logged
 * and dropped, and the sender gets org.tilvane.MessagePort.Error.NotAuthorized.
 *
 * Calls to the exported object are answered on a thread of the platform with
 * its own main context, so that an answer never waits for the application's
 * loop (two applications sending to each other cannot deadlock). The message
 * itself is handed to the port's callback through an idle source on the GLib
 * default main context, the application's loop. A send to the process's own
 * application id does not touch the bus: it goes straight to such a source.
 */
#include "message_port.h"

#include <gio/gio.h>
#include <unistd.h>

#include <cstring>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "identity/app_identity.h"
#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "bus/bus_connection.h"
#include "ports/held_sends.h"
#include "ports/port_connection.h"
#include "ports/port_delivery.h"
#include "bus/credentials.h"
#include "log/log_budget.h"
#include "stats/request_stats.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "message_port_wire.h"
#include "dlog.h"
#include "host_control/ports.h"
#include "host_control/identity.h"
#include "host_control/base.h"

namespace tilvane {
namespace host {
namespace {

#define PORT_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define PORT_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define PORT_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

constexpr char kObjectPath[] = "/org/tilvane/MessagePort";
constexpr char kInterface[] = "org.tilvane.MessagePort";
constexpr char kErrorPortNotFound[] = "org.tilvane.MessagePort.Error.PortNotFound";
constexpr char kErrorNotAuthorized[] = "org.tilvane.MessagePort.Error.NotAuthorized";
constexpr char kErrorInvalidMessage[] = "org.tilvane.MessagePort.Error.InvalidMessage";

struct LocalPort {
    int id;
    message_port_message_cb callback;
    void* userData;
};

struct PortState {
    /* Guards everything below; never held during a bus call. */
    std::mutex mutex;
    std::map<std::string, LocalPort> ports; /* by name */
    int nextId = 1;
    bool recording = false;
    std::vector<SentMessage> sent;
    /* The message-port object and the delivery filter on the open connection. */
    guint objectId = 0;
    guint deliveryFilterId = 0;
};

PortState& ThePortState()
{
    static PortState* state = new PortState();
    return *state;
}

GDBusInterfaceInfo* InterfaceInfo()
{
    static GDBusInterfaceInfo* info = [] {
        ScopedError error;
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(ports::wire::IntrospectionXml(), error.Out());
        GDBusInterfaceInfo* found = g_dbus_node_info_lookup_interface(node, kInterface);
        g_dbus_interface_info_ref(found);
        g_dbus_node_info_unref(node);
        return found;
    }();
    return info;
}

bool FindPort(const std::string& name, LocalPort& port)
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.ports.find(name);
    if (it == s.ports.end()) {
        return false;
    }
    port = it->second;
    return true;
}

bool FindPortName(int id, std::string& name)
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (const auto& entry : s.ports) {
        if (entry.second.id == id) {
            name = entry.first;
            return true;
        }
    }
    return false;
}

/* ---- delivery to a local callback, on the default main context ------------ */

struct Delivery {
    std::string port;
    std::string senderApp;
    bool hasSenderPort;
    std::string senderPort;
    BundlePtr message;
    /* The sender's user as the bus reported it (verified mode), or this
     * process's own for a send that did not use the bus. */
    bool senderUserKnown;
    uid_t senderUser;
};

void FreeDelivery(gpointer data)
{
    delete static_cast<Delivery*>(data);
}

gboolean DeliverToCallback(gpointer data)
{
    Delivery* delivery = static_cast<Delivery*>(data);
    LocalPort port{};
    /* Looked up again: the port may have gone, or changed its callback, since
     * the message arrived. */
    if (!FindPort(delivery->port, port)) {
        PORT_LOGD("message for port %s dropped: the port was unregistered", delivery->port.c_str());
        return G_SOURCE_REMOVE;
    }
    identity::ScopedMessageSender sender(delivery->senderUserKnown, delivery->senderUser);
    /* What the receiver logs while it handles the message counts against
     * the sender's log budget as well. */
    LogSourceScope logSource(delivery->senderApp);
    port.callback(port.id, delivery->senderApp.c_str(),
                  delivery->hasSenderPort ? delivery->senderPort.c_str() : nullptr, false, delivery->message.get(),
                  port.userData);
    return G_SOURCE_REMOVE;
}

/* Takes ownership of `message`. Safe from any thread. */
void PostDelivery(const std::string& port, const std::string& senderApp, const char* senderPort, bundle* message,
                  bool senderUserKnown, uid_t senderUser)
{
    Delivery* delivery = new Delivery{port,
                                      senderApp,
                                      senderPort != nullptr,
                                      senderPort != nullptr ? senderPort : "",
                                      BundlePtr(message),
                                      senderUserKnown,
                                      senderUser};
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, DeliverToCallback, delivery, FreeDelivery);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

/* ---- answering calls (the bus thread) -------------------------------------- */

/* What a refused sender is told: whether the id it claims is anybody's, not
 * whose it is. */
std::string RefusalForSender(const std::string& claimedApp)
{
    std::vector<uid_t> users;
    if (identity::CurrentMode() == identity::Mode::Verified && !identity::BoundUsers(claimedApp, users)) {
        return "application " + claimedApp + " is bound to no user";
    }
    return "the sender may not act as application " + claimedApp +
           ": it does not own that application's name, or does not run as its user";
}

/* A message for one of this process's ports, from an application the bus
 * confirmed: answered before the port's callback runs. */
void Handle(const ports::wire::MessagePortDeliverIn& in, GDBusConnection* connection, const gchar* sender,
            GDBusMethodInvocation* invocation)
{
    std::string reason;
    if (!SenderIsApp(connection, sender, in.senderApp, reason)) {
        PORT_LOGE("message for port %s dropped: %s", in.port, reason.c_str());
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorNotAuthorized,
                                                   RefusalForSender(in.senderApp).c_str());
        return;
    }
    LocalPort local{};
    if (!FindPort(in.port, local)) {
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorPortNotFound, "no such port");
        return;
    }
    BundleRefusal refused = BundleRefusal::None;
    bundle* message = DecodeBoundedBundle(in.message, std::strlen(in.message), &refused);
    if (message == nullptr) {
        PORT_LOGE("message for port %s from %s dropped: %s", in.port, in.senderApp, DescribeRefusal(refused));
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorInvalidMessage, "the message is not a bundle");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
    /* The answer is on its way before the callback can run: a receiver that
     * ends from its callback must not make the sender see a failed send. */
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
    uid_t senderUser = 0;
    const bool senderUserKnown = identity::CurrentMode() == identity::Mode::Verified &&
                                 identity::ConnectionUser(connection, sender, senderUser);
    PostDelivery(in.port, in.senderApp, *in.senderPort != '\0' ? in.senderPort : nullptr, message, senderUserKnown,
                 senderUser);
}

/* Whether one of this process's ports has that name (for older senders). */
void Handle(const ports::wire::MessagePortHasPortIn& in, GDBusConnection* /*connection*/, const gchar* /*sender*/,
            GDBusMethodInvocation* invocation)
{
    LocalPort local{};
    ports::wire::MessagePortHasPortOut out;
    out.exists = FindPort(in.port, local);
    g_dbus_method_invocation_return_value(invocation, ports::wire::ToVariant(std::move(out)));
}

/* On the bus thread: the call read once into its typed request (the
 * interface's description, message_port.xml, made message_port_wire.h). */
void OnMethodCallCB(GDBusConnection* connection, const gchar* sender, const gchar* /*objectPath*/,
                    const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                    GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    ports::wire::Method method = ports::wire::Method::MessagePortDeliver;
    ports::wire::Request request;
    if (!ports::wire::FindMethod(interfaceName, methodName, method) ||
        !ports::wire::ReadRequest(method, parameters, request)) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "unknown method %s", methodName);
        return;
    }
    std::visit([&](const auto& in) { Handle(in, connection, sender, invocation); }, request);
}

/* ---- sending ------------------------------------------------------------------ */

void CollectEntryCB(const char* key, const char* value, void* data)
{
    static_cast<std::vector<std::pair<std::string, std::string>>*>(data)->emplace_back(key, value);
}

void Record(const char* appId, const char* port, const std::string& localPort, bundle* message, int result)
{
    PortState& s = ThePortState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.recording) {
            return;
        }
    }
    SentMessage sent{appId, port, localPort, {}, result, Now()};
    bundle_iterate(message, CollectEntryCB, &sent.entries);
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sent.push_back(std::move(sent));
}

int Deliver(const char* appId, const char* port, bundle* message, const std::string& localPort)
{
    if (appId == CurrentAppId()) {
        LocalPort local{};
        if (!FindPort(port, local)) {
            return MESSAGE_PORT_ERROR_PORT_NOT_FOUND;
        }
        bundle* copy = bundle_dup(message);
        if (copy == nullptr) {
            return MESSAGE_PORT_ERROR_OUT_OF_MEMORY;
        }
        PostDelivery(port, appId, localPort.empty() ? nullptr : localPort.c_str(), copy, true, geteuid());
        return MESSAGE_PORT_ERROR_NONE;
    }
    const std::string busName = BusNameForAppId(appId);
    if (busName.empty()) {
        return MESSAGE_PORT_ERROR_PORT_NOT_FOUND; /* no application can have that id */
    }
    bundle_raw* raw = nullptr;
    int length = 0;
    if (bundle_encode(message, &raw, &length) != BUNDLE_ERROR_NONE) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    std::string encoded(reinterpret_cast<const char*>(raw), static_cast<size_t>(length));
    bundle_free_encoded_rawdata(&raw);

    int result = MESSAGE_PORT_ERROR_NONE;
    GDBusConnectionPtr connection = PortsConnection(true, &result);
    if (!connection) {
        return result;
    }
    bool exist = false;
    result = RemotePortExists(connection.get(), appId, port, &exist);
    if (result != MESSAGE_PORT_ERROR_NONE) {
        return result;
    }
    if (!exist) {
        PORT_LOGD("message to %s/%s not delivered: no such port", appId, port);
        return MESSAGE_PORT_ERROR_PORT_NOT_FOUND;
    }
    return SendDeliverCall(connection.get(), appId, port, CurrentAppId(), localPort, encoded);
}

int SendMessage(const char* function, const char* appId, const char* port, bundle* message,
                const std::string& localPort)
{
    int result = ShouldFail(function) ? MESSAGE_PORT_ERROR_IO_ERROR : Deliver(appId, port, message, localPort);
    Record(appId, port, localPort, message, result);
    stats::NoteMessage(result == MESSAGE_PORT_ERROR_NONE             ? nullptr
                       : result == MESSAGE_PORT_ERROR_PORT_NOT_FOUND ? "port-not-found"
                       : result == MESSAGE_PORT_ERROR_MAX_EXCEEDED   ? "receiver-not-answering"
                                                                     : "send-failed");
    return result;
}

/* A port registered again keeps its id and takes the new callback. */
bool RenewPort(const char* name, message_port_message_cb callback, void* userData, int* id)
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.ports.find(name);
    if (it == s.ports.end()) {
        return false;
    }
    it->second.callback = callback;
    it->second.userData = userData;
    *id = it->second.id;
    return true;
}

/* ---- the ports on the connection (bus_connection.h) ------------------------ */

/* A new connection: the message-port object, answered on the bus thread, and
 * the filter that takes the answers of deliveries. */
bool PortsOpened(GDBusConnection* connection)
{
    /* What was known through an earlier connection is not carried over. */
    ForgetDeliveries();
    static const GDBusInterfaceVTable vtable = {OnMethodCallCB, nullptr, nullptr, {nullptr}};
    ScopedError error;
    const guint filter = AddDeliveryReplyFilter(connection);
    const guint object =
        g_dbus_connection_register_object(connection, kObjectPath, InterfaceInfo(), &vtable, nullptr, nullptr,
                                          error.Out());
    if (object == 0) {
        PORT_LOGE("cannot export the message-port object: %s", error.Message());
    }
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.objectId = object;
    s.deliveryFilterId = filter;
    return object != 0;
}

void PortsClosing(GDBusConnection* connection)
{
    guint object = 0;
    guint filter = 0;
    {
        PortState& s = ThePortState();
        std::lock_guard<std::mutex> lock(s.mutex);
        object = s.objectId;
        filter = s.deliveryFilterId;
        s.objectId = 0;
        s.deliveryFilterId = 0;
    }
    if (object != 0) {
        g_dbus_connection_unregister_object(connection, object);
    }
    if (filter != 0) {
        g_dbus_connection_remove_filter(connection, filter);
    }
}

/* The names of the local ports, for claiming them on a new connection. */
std::vector<std::string> LocalPortNames()
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> names;
    for (const auto& entry : s.ports) {
        names.push_back(entry.first);
    }
    return names;
}

/* Every local port claims its name; the first failure ends the round (logged
 * by ClaimPortName). */
bool ClaimLocalPorts(GDBusConnection* connection, const std::string& appId, std::string& why)
{
    for (const std::string& port : LocalPortNames()) {
        if (ClaimPortName(connection, appId, port) != MESSAGE_PORT_ERROR_NONE) {
            why = "a port's name is owned by another process";
            return false;
        }
    }
    return true;
}

const struct PortsOnTheBus {
    PortsOnTheBus()
    {
        ConnectionUser user{};
        user.opened = PortsOpened;
        user.closing = PortsClosing;
        user.claimNames = ClaimLocalPorts;
        user.nameOwnerChanged = NotePortWatchOwnerChange;
        user.reopened = RecheckPortWatches;
        AddConnectionUser(user);
    }
} kPortsOnTheBus;

/* Reset(): no local port, nothing recorded or in flight. */
void ResetMessagePorts()
{
    ForgetDeliveries();
    ForgetPortWatches();
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ports.clear();
    s.nextId = 1;
    s.recording = false;
    s.sent.clear();
}

const ResetHook kResetMessagePorts(6, ResetMessagePorts);

}  // namespace

int MessagePortResult(ConnectionProblem problem)
{
    switch (problem) {
    case ConnectionProblem::None: return MESSAGE_PORT_ERROR_NONE;
    case ConnectionProblem::NameTaken: return MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE;
    case ConnectionProblem::NameDenied: return MESSAGE_PORT_ERROR_PERMISSION_DENIED;
    case ConnectionProblem::NoName: return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    case ConnectionProblem::NoBus: break;
    }
    return MESSAGE_PORT_ERROR_IO_ERROR;
}

GDBusConnectionPtr PortsConnection(bool needName, int* result)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr connection = SharedBusConnection(needName, &problem);
    *result = MessagePortResult(problem);
    return connection;
}

void RecordSentMessages(bool on)
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.recording = on;
}

std::vector<SentMessage> SentMessages()
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.sent;
}

void ClearSentMessages()
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sent.clear();
}

}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

extern "C" int message_port_register_local_port(const char* local_port, message_port_message_cb callback,
                                                void* user_data)
{
    if (local_port == nullptr || *local_port == '\0' || callback == nullptr) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    if (ShouldFail("message_port_register_local_port")) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (TerminationPending()) {
        /* The application is being ended: a start-up retry loop must run out. */
        PORT_LOGD("local port %s not registered: the application is terminating", local_port);
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    int result = MESSAGE_PORT_ERROR_NONE;
    GDBusConnectionPtr connection = PortsConnection(true, &result);
    if (!connection) {
        return result;
    }
    PortState& s = ThePortState();
    if (RenewPort(local_port, callback, user_data, &result)) {
        return result;
    }
    result = ClaimPortName(connection.get(), CurrentAppId(), local_port);
    if (result != MESSAGE_PORT_ERROR_NONE) {
        return result;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.ports.find(local_port);
    if (it != s.ports.end()) {
        it->second.callback = callback;
        it->second.userData = user_data;
        return it->second.id;
    }
    const int id = s.nextId++;
    s.ports.emplace(local_port, LocalPort{id, callback, user_data});
    PORT_LOGD("local port %s registered: %d", local_port, id);
    return id;
}

extern "C" int message_port_unregister_local_port(int local_port_id)
{
    if (local_port_id <= 0) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    if (ShouldFail("message_port_unregister_local_port")) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    PortState& s = ThePortState();
    std::string name;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.ports.begin();
        while (it != s.ports.end() && it->second.id != local_port_id) {
            ++it;
        }
        if (it == s.ports.end()) {
            return MESSAGE_PORT_ERROR_PORT_NOT_FOUND;
        }
        name = it->first;
        PORT_LOGD("local port %s unregistered: %d", name.c_str(), local_port_id);
        s.ports.erase(it);
    }
    GDBusConnectionPtr connection = OpenBusConnectionIfAny();
    if (connection) {
        ReleasePortName(connection.get(), CurrentAppId(), name);
    }
    return MESSAGE_PORT_ERROR_NONE;
}

extern "C" int message_port_send_message(const char* remote_app_id, const char* remote_port, bundle* message)
{
    if (remote_app_id == nullptr || *remote_app_id == '\0' || remote_port == nullptr || *remote_port == '\0' ||
        message == nullptr) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    if (HeldSends::Hold(remote_app_id, remote_port, message, -1)) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    return SendMessage("message_port_send_message", remote_app_id, remote_port, message, std::string());
}

extern "C" int message_port_send_message_with_local_port(const char* remote_app_id, const char* remote_port,
                                                         bundle* message, int local_port_id)
{
    if (remote_app_id == nullptr || *remote_app_id == '\0' || remote_port == nullptr || *remote_port == '\0' ||
        message == nullptr || local_port_id <= 0) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    std::string localPort;
    if (!FindPortName(local_port_id, localPort)) {
        return MESSAGE_PORT_ERROR_PORT_NOT_FOUND;
    }
    if (HeldSends::Hold(remote_app_id, remote_port, message, local_port_id)) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    return SendMessage("message_port_send_message_with_local_port", remote_app_id, remote_port, message, localPort);
}

extern "C" int message_port_check_remote_port(const char* remote_app_id, const char* remote_port, bool* exist)
{
    if (remote_app_id == nullptr || *remote_app_id == '\0' || remote_port == nullptr || *remote_port == '\0' ||
        exist == nullptr) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    if (ShouldFail("message_port_check_remote_port")) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (remote_app_id == CurrentAppId()) {
        LocalPort local{};
        *exist = FindPort(remote_port, local);
        return MESSAGE_PORT_ERROR_NONE;
    }
    const std::string busName = BusNameForAppId(remote_app_id);
    if (busName.empty()) {
        *exist = false;
        return MESSAGE_PORT_ERROR_NONE;
    }
    int result = MESSAGE_PORT_ERROR_NONE;
    GDBusConnectionPtr connection = PortsConnection(false, &result);
    if (!connection) {
        return result;
    }
    return RemotePortExists(connection.get(), remote_app_id, remote_port, exist);
}
