/*
 * Message ports on the host, over the D-Bus session bus (DBUS_SESSION_BUS_ADDRESS).
 *
 * Each process connects once, lazily, and owns the bus name of its application
 * id (app_identity.h); it never queues for the name, so two processes cannot run
 * as one application. It exports one object for all of its local ports:
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
 * (org.freedesktop.DBus.GetNameOwner). The answer is cached per unique name and
 * forgotten when that connection loses an application name. A message that
 * fails the check is logged and dropped, and the sender gets
 * org.tilvane.MessagePort.Error.NotAuthorized.
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
#include <vector>

#include "identity/app_identity.h"
#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "bus/bus_connection.h"
#include "ports/held_sends.h"
#include "ports/port_delivery.h"
#include "stats/request_stats.h"
#include "identity/credentials.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "message_port_xml.h"
#include "dlog.h"
#include "host_control.h"

namespace tilvane {
namespace host {
namespace {

#define PORT_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define PORT_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define PORT_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

constexpr char kObjectPath[] = "/org/tilvane/MessagePort";
/* The names whose owner changes the bus thread follows: applications' and
 * ports'. */
constexpr char kNameNamespace[] = "org.tilvane";
constexpr char kInterface[] = "org.tilvane.MessagePort";
constexpr char kErrorPortNotFound[] = "org.tilvane.MessagePort.Error.PortNotFound";
constexpr char kErrorNotAuthorized[] = "org.tilvane.MessagePort.Error.NotAuthorized";
constexpr char kErrorInvalidMessage[] = "org.tilvane.MessagePort.Error.InvalidMessage";
/* Only a receiver that has stopped altogether makes a call wait this long. */
constexpr int kCallTimeoutMs = 10000;

struct LocalPort {
    int id;
    message_port_message_cb callback;
    void* userData;
};

/* One connection to the bus with the thread that answers calls made on it. */
struct Bus {
    GDBusConnectionPtr connection;
    GMainContextPtr context;
    GMainLoopPtr loop;
    GThread* thread = nullptr;
    guint objectId = 0;
    guint nameWatchId = 0;
    guint deliveryFilterId = 0;
    gulong closedHandlerId = 0;
    std::string appId;
    std::string busName;
    bool ownsName = false;
    /* Every local port has claimed its name on this connection. */
    bool portsClaimed = false;
};

struct PortState {
    /* Taken while the connection is opened, its name requested or it is closed. */
    std::mutex busMutex;
    std::unique_ptr<Bus> bus;

    /* Guards everything below; never held during a bus call. */
    std::mutex mutex;
    std::map<std::string, LocalPort> ports; /* by name */
    int nextId = 1;
    bool recording = false;
    std::vector<SentMessage> sent;
    /* Unique connection name -> the application id it was found to own. */
    std::map<std::string, std::string> verifiedSenders;

    /* Connections opened so far, and whether one of them owned the
     * application's name: a connection that replaces a lost one owns it
     * again. Under busMutex. */
    uint64_t opens = 0;
    bool ownedNameBefore = false;
    /* Told when the connection is lost (ConnectionLostHandler). */
    std::atomic<void (*)()> lostHandler{nullptr};
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
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kMessagePortXml, error.Out());
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

/* True when the connection `sender` owns the bus name of `claimedApp` and, in
 * the verified identity mode, runs as a user bound to it. Otherwise `reason`
 * says why not, for the refusal's one log line. */
/* What is known of a sender without asking the bus: 1 when it was found to
 * own the name of `claimedApp`, 0 when it cannot (no sender, or it was found
 * to own another application's name), -1 when the bus must be asked. */
std::string NotOwnerReason(const char* sender, const std::string& claimedApp)
{
    return "sender " + std::string(sender != nullptr ? sender : "(none)") + " does not own the name of application " +
           claimedApp;
}

int KnownSenderOwnsApp(const char* sender, const std::string& claimedApp, std::string& reason)
{
    int known = 0;
    if (sender != nullptr) {
        PortState& s = ThePortState();
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.verifiedSenders.find(sender);
        known = it == s.verifiedSenders.end() ? -1 : it->second == claimedApp ? 1 : 0;
    }
    if (known == 0) {
        reason = NotOwnerReason(sender, claimedApp);
    }
    return known;
}

bool SenderOwnsApp(GDBusConnection* connection, const char* sender, const std::string& claimedApp,
                   std::string& reason)
{
    const int known = KnownSenderOwnsApp(sender, claimedApp, reason);
    if (known >= 0) {
        return known == 1;
    }
    reason = NotOwnerReason(sender, claimedApp);
    PortState& s = ThePortState();
    const std::string busName = BusNameForAppId(claimedApp);
    if (busName.empty()) {
        return false;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetNameOwner",
                                                  g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(s)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, error.Out()));
    if (!reply) {
        return false; /* the name has no owner */
    }
    const gchar* owner = nullptr;
    g_variant_get(reply.get(), "(&s)", &owner);
    if (std::strcmp(owner, sender) != 0) {
        return false;
    }
    if (!identity::SenderMayActAs(connection, sender, claimedApp, reason)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    s.verifiedSenders[sender] = claimedApp;
    return true;
}

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

void OnDeliver(GDBusConnection* connection, const gchar* sender, GVariant* parameters,
               GDBusMethodInvocation* invocation)
{
    const gchar* port = nullptr;
    const gchar* senderApp = nullptr;
    const gchar* senderPort = nullptr;
    const gchar* encoded = nullptr;
    g_variant_get(parameters, "(&s&s&s&s)", &port, &senderApp, &senderPort, &encoded);

    std::string reason;
    if (!SenderOwnsApp(connection, sender, senderApp, reason)) {
        PORT_LOGE("message for port %s dropped: %s", port, reason.c_str());
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorNotAuthorized,
                                                   RefusalForSender(senderApp).c_str());
        return;
    }
    LocalPort local{};
    if (!FindPort(port, local)) {
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorPortNotFound, "no such port");
        return;
    }
    BundleRefusal refused = BundleRefusal::None;
    bundle* message = DecodeBoundedBundle(encoded, std::strlen(encoded), &refused);
    if (message == nullptr) {
        PORT_LOGE("message for port %s from %s dropped: %s", port, senderApp, DescribeRefusal(refused));
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
    PostDelivery(port, senderApp, *senderPort != '\0' ? senderPort : nullptr, message, senderUserKnown, senderUser);
}

void OnMethodCallCB(GDBusConnection* connection, const gchar* sender, const gchar* /*objectPath*/,
                    const gchar* /*interfaceName*/, const gchar* methodName, GVariant* parameters,
                    GDBusMethodInvocation* invocation, gpointer /*userData*/)
{
    if (std::strcmp(methodName, "Deliver") == 0) {
        OnDeliver(connection, sender, parameters, invocation);
        return;
    }
    if (std::strcmp(methodName, "HasPort") == 0) {
        const gchar* port = nullptr;
        g_variant_get(parameters, "(&s)", &port);
        LocalPort local{};
        const bool exists = FindPort(port, local);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", exists));
        return;
    }
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD, "unknown method %s",
                                          methodName);
}

/* A connection that loses an application name is no longer that application;
 * a watched port whose name or application's name lost its owner is gone.
 * Run on the bus thread in order with the calls made to the object, so that
 * a message a port sent before it went is delivered before its end is told. */
void OnNameOwnerChangedCB(GDBusConnection* connection, const gchar* /*senderName*/, const gchar* /*objectPath*/,
                          const gchar* /*interfaceName*/, const gchar* /*signalName*/, GVariant* parameters,
                          gpointer /*userData*/)
{
    const gchar* name = nullptr;
    const gchar* oldOwner = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, &oldOwner, &newOwner);
    NotePortWatchOwnerChange(connection, name, oldOwner, newOwner);
    if (*oldOwner == '\0' || !g_str_has_prefix(name, kAppBusNameNamespace)) {
        return;
    }
    identity::ForgetConnection(connection, oldOwner);
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.verifiedSenders.erase(oldOwner);
}

gpointer RunBusThread(gpointer data)
{
    Bus* bus = static_cast<Bus*>(data);
    g_main_context_push_thread_default(bus->context.get());
    g_main_loop_run(bus->loop.get());
    g_main_context_pop_thread_default(bus->context.get());
    return nullptr;
}

/* ---- the connection ---------------------------------------------------------- */

gboolean QuitBusLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

/* On the bus thread: the connection was closed. A close of our own is not a
 * loss; any other (the daemon dropped the connection, or went away) is
 * handed to the lost handler on the application's loop. */
gboolean NotifyConnectionLostCB(gpointer /*data*/)
{
    void (*handler)() = ThePortState().lostHandler.load();
    if (handler != nullptr) {
        handler();
    }
    return G_SOURCE_REMOVE;
}

void OnConnectionClosedCB(GDBusConnection* /*connection*/, gboolean remotePeerVanished, GError* error,
                          gpointer /*userData*/)
{
    if (!remotePeerVanished && error == nullptr) {
        return;
    }
    PORT_LOGE("message bus connection lost: %s", error != nullptr ? error->message : "the bus went away");
    if (ThePortState().lostHandler.load() != nullptr) {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, NotifyConnectionLostCB, nullptr, nullptr);
        g_source_attach(source, nullptr);
        g_source_unref(source);
    }
}

void CloseBus(std::unique_ptr<Bus> bus)
{
    if (!bus) {
        return;
    }
    if (bus->closedHandlerId != 0) {
        g_signal_handler_disconnect(bus->connection.get(), bus->closedHandlerId);
    }
    if (bus->objectId != 0) {
        g_dbus_connection_unregister_object(bus->connection.get(), bus->objectId);
    }
    if (bus->deliveryFilterId != 0) {
        g_dbus_connection_remove_filter(bus->connection.get(), bus->deliveryFilterId);
    }
    if (bus->nameWatchId != 0) {
        g_dbus_connection_signal_unsubscribe(bus->connection.get(), bus->nameWatchId);
    }
    UnregisterRequestObjects(bus->connection.get());
    if (!g_dbus_connection_is_closed(bus->connection.get())) {
        g_dbus_connection_close_sync(bus->connection.get(), nullptr, nullptr);
    }
    if (bus->thread != nullptr) {
        /* Through a source of its own context: a quit made before the thread
         * has entered g_main_loop_run would be forgotten by it. */
        GSource* stop = g_idle_source_new();
        g_source_set_callback(stop, QuitBusLoop, bus->loop.get(), nullptr);
        g_source_attach(stop, bus->context.get());
        g_source_unref(stop);
        g_thread_join(bus->thread);
    }
    /* Let the context release what the connection left on it. */
    while (g_main_context_iteration(bus->context.get(), FALSE)) {
    }
    PORT_LOGD("bus connection of %s closed", bus->appId.c_str());
}

std::unique_ptr<Bus> OpenBus()
{
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        PORT_LOGE("no message bus: DBUS_SESSION_BUS_ADDRESS is not set");
        return nullptr;
    }
    identity::LogModeOnce();
    std::unique_ptr<Bus> bus(new Bus());
    bus->appId = CurrentAppId();
    bus->busName = BusNameForAppId(bus->appId);
    bus->context.reset(g_main_context_new());

    /* Calls and signals are dispatched on the context that is the thread's
     * default while they are registered: make it the bus thread's. */
    g_main_context_push_thread_default(bus->context.get());
    ScopedError error;
    bus->connection.reset(g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.Out()));
    if (bus->connection) {
        g_dbus_connection_set_exit_on_close(bus->connection.get(), FALSE);
        bus->closedHandlerId =
            g_signal_connect(bus->connection.get(), "closed", G_CALLBACK(OnConnectionClosedCB), nullptr);
        bus->deliveryFilterId = AddDeliveryReplyFilter(bus->connection.get());
        static const GDBusInterfaceVTable vtable = {OnMethodCallCB, nullptr, nullptr, {nullptr}};
        bus->objectId = g_dbus_connection_register_object(bus->connection.get(), kObjectPath, InterfaceInfo(),
                                                          &vtable, nullptr, nullptr, error.Out());
        bus->nameWatchId = g_dbus_connection_signal_subscribe(
            bus->connection.get(), "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
            "/org/freedesktop/DBus", kNameNamespace, G_DBUS_SIGNAL_FLAGS_MATCH_ARG0_NAMESPACE,
            OnNameOwnerChangedCB, nullptr, nullptr);
        /* The request interfaces answer on the default main context. */
        RegisterRequestObjects(bus->connection.get());
    }
    g_main_context_pop_thread_default(bus->context.get());

    if (!bus->connection || bus->objectId == 0) {
        PORT_LOGE("cannot use the message bus at %s: %s", address, error.Message());
        return nullptr;
    }
    /* What was known through an earlier connection is not carried over. */
    ForgetDeliveries();
    bus->loop.reset(g_main_loop_new(bus->context.get(), FALSE));
    bus->thread = g_thread_new("tilvane-msgport", RunBusThread, bus.get());
    PORT_LOGD("connected to the message bus as %s (%s)", bus->appId.c_str(),
              g_dbus_connection_get_unique_name(bus->connection.get()));
    return bus;
}

int OwnName(Bus& bus)
{
    if (bus.busName.empty()) {
        PORT_LOGE("application id \"%s\" cannot own a bus name", bus.appId.c_str());
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    std::string error;
    const NameRequest owned = RequestBusName(bus.connection.get(), bus.busName, kCallTimeoutMs, error);
    if (owned == NameRequest::Denied) {
        PORT_LOGE("the bus refuses the name of application %s (%s) to this process's user: %s", bus.appId.c_str(),
                  bus.busName.c_str(), error.c_str());
        return MESSAGE_PORT_ERROR_PERMISSION_DENIED;
    }
    if (owned == NameRequest::Failed) {
        PORT_LOGE("cannot request bus name %s: %s", bus.busName.c_str(), error.c_str());
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (owned == NameRequest::OwnedByAnother) {
        PORT_LOGE("application %s already runs on the bus (%s is owned by another process)", bus.appId.c_str(),
                  bus.busName.c_str());
        return MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE;
    }
    bus.ownsName = true;
    PORT_LOGD("owns bus name %s", bus.busName.c_str());
    return MESSAGE_PORT_ERROR_NONE;
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

/* With busMutex held: every local port claims its name on `bus`; the first
 * failure ends the round (logged by ClaimPortName). */
int ClaimLocalPorts(Bus& bus)
{
    for (const std::string& port : LocalPortNames()) {
        const int claimed = ClaimPortName(bus.connection.get(), bus.appId, port);
        if (claimed != MESSAGE_PORT_ERROR_NONE) {
            return claimed;
        }
    }
    bus.portsClaimed = true;
    return MESSAGE_PORT_ERROR_NONE;
}

/* With busMutex held: the connection open and, when `needName` or when a
 * connection before it owned the name, the application's name and its ports'
 * names owned. `reopened` tells that a lost connection was replaced. */
int EnsureConnectionLocked(PortState& s, bool needName, bool& reopened)
{
    if (s.bus && g_dbus_connection_is_closed(s.bus->connection.get())) {
        PORT_LOGE("message bus connection lost; reconnecting");
        CloseBus(std::move(s.bus));
    }
    if (!s.bus) {
        s.bus = OpenBus();
        if (!s.bus) {
            return MESSAGE_PORT_ERROR_IO_ERROR;
        }
        reopened = ++s.opens > 1;
    }
    if ((needName || s.ownedNameBefore) && !s.bus->ownsName) {
        const int owned = OwnName(*s.bus);
        if (owned != MESSAGE_PORT_ERROR_NONE) {
            return owned;
        }
        s.ownedNameBefore = true;
    }
    if (!s.bus->portsClaimed && s.bus->ownsName) {
        ClaimLocalPorts(*s.bus);  // a port that cannot claim its name yet is tried again on the next call
    }
    return MESSAGE_PORT_ERROR_NONE;
}

/* The connection, opened when needed, with the application's name owned when
 * `needName`. Null with *result set when the bus cannot be used. A connection
 * that replaces a lost one owns again every name the process owned. */
GDBusConnectionPtr Connection(bool needName, int* result)
{
    PortState& s = ThePortState();
    bool reopened = false;
    GDBusConnectionPtr connection;
    {
        std::lock_guard<std::mutex> lock(s.busMutex);
        *result = EnsureConnectionLocked(s, needName, reopened);
        if (*result != MESSAGE_PORT_ERROR_NONE) {
            return nullptr;
        }
        connection.reset(static_cast<GDBusConnection*>(g_object_ref(s.bus->connection.get())));
    }
    if (reopened) {
        ReclaimRequestNames();
        RecheckPortWatches(connection.get());
    }
    return connection;
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
    GDBusConnectionPtr connection = Connection(true, &result);
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

/* The connection when one is open; never opens one. */
GDBusConnectionPtr OpenConnectionIfAny()
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.busMutex);
    if (!s.bus || g_dbus_connection_is_closed(s.bus->connection.get())) {
        return nullptr;
    }
    return GDBusConnectionPtr(static_cast<GDBusConnection*>(g_object_ref(s.bus->connection.get())));
}

}  // namespace

GDBusConnectionPtr SharedBusConnection(bool needAppName, int* messagePortResult)
{
    return Connection(needAppName, messagePortResult);
}

std::string ConnectedAppId()
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.busMutex);
    return s.bus ? s.bus->appId : std::string();
}

NameRequest RequestBusName(GDBusConnection* connection, const std::string& name, int timeoutMs, std::string& error,
                           bool queue)
{
    constexpr guint32 kDoNotQueue = 0x4;
    constexpr guint32 kPrimaryOwner = 1;
    constexpr guint32 kInQueue = 2;
    constexpr guint32 kAlreadyOwner = 4;
    ScopedError failure;
    GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "RequestName",
                                                  g_variant_new("(su)", name.c_str(), queue ? 0u : kDoNotQueue),
                                                  G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr,
                                                  failure.Out()));
    if (!reply) {
        error = failure.Message();
        GCharPtr remote(g_dbus_error_get_remote_error(failure.Get()));
        return remote && std::strcmp(remote.get(), "org.freedesktop.DBus.Error.AccessDenied") == 0
                   ? NameRequest::Denied
                   : NameRequest::Failed;
    }
    guint32 answer = 0;
    g_variant_get(reply.get(), "(u)", &answer);
    if (answer == kInQueue) {
        return NameRequest::Queued;
    }
    return answer == kPrimaryOwner || answer == kAlreadyOwner ? NameRequest::Owned : NameRequest::OwnedByAnother;
}

bool SenderIsApp(GDBusConnection* connection, const char* sender, const std::string& appId, std::string& reason)
{
    return SenderOwnsApp(connection, sender, appId, reason);
}

int KnownSenderIsApp(const char* sender, const std::string& appId, std::string& reason)
{
    return KnownSenderOwnsApp(sender, appId, reason);
}

void SetConnectionLostHandler(void (*handler)())
{
    ThePortState().lostHandler.store(handler);
}

bool RestoreBusConnection(std::string& why)
{
    int result = MESSAGE_PORT_ERROR_NONE;
    GDBusConnectionPtr connection = Connection(false, &result);
    if (!connection) {
        why = result == MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE ? "the application's name is owned by another process"
                                                                : "the bus cannot be reached";
        return false;
    }
    bool portsClaimed = false;
    {
        PortState& s = ThePortState();
        std::lock_guard<std::mutex> lock(s.busMutex);
        portsClaimed = s.bus && s.bus->portsClaimed;
    }
    if (!portsClaimed) {
        why = "a port's name is owned by another process";
        return false;
    }
    if (!ReclaimRequestNames()) {
        why = "a provider's name is owned by another process";
        return false;
    }
    return true;
}

bool InvokeOnBusThread(GSourceFunc function, gpointer data, GDestroyNotify destroy)
{
    PortState& s = ThePortState();
    std::lock_guard<std::mutex> lock(s.busMutex);
    if (!s.bus) {
        return false;
    }
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, function, data, destroy);
    g_source_attach(source, s.bus->context.get());
    g_source_unref(source);
    return true;
}

void ResetMessagePorts()
{
    PortState& s = ThePortState();
    {
        std::lock_guard<std::mutex> lock(s.busMutex);
        CloseBus(std::move(s.bus));
    }
    ForgetDeliveries();
    ForgetPortWatches();
    {
        std::lock_guard<std::mutex> busLock(s.busMutex);
        s.opens = 0;
        s.ownedNameBefore = false;
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.ports.clear();
        s.nextId = 1;
        s.recording = false;
        s.sent.clear();
        s.verifiedSenders.clear();
    }
    identity::ForgetAllConnections();
    ClearOwnAppIdOverride();
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
    GDBusConnectionPtr connection = Connection(true, &result);
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
    GDBusConnectionPtr connection = OpenConnectionIfAny();
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
    GDBusConnectionPtr connection = Connection(false, &result);
    if (!connection) {
        return result;
    }
    return RemotePortExists(connection.get(), remote_app_id, remote_port, exist);
}
