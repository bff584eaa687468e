/*
 * The process's one connection to the message bus (bus_connection.h): opened
 * lazily with a thread of the platform that answers the calls made to it,
 * owning the application's name, restored after a loss; the rooms that export
 * objects on it or own names of their own are told through the hooks they
 * registered.
 *
 * The sender's application id of a call is taken from the bus: a call carries
 * the id that the sender claims, and it is believed only when the bus says
 * that the name of that id is owned by the connection the call came from
 * (org.freedesktop.DBus.GetNameOwner) and, in the verified identity mode, that
 * the connection runs as a user bound to it. The answer is cached per unique
 * name and forgotten when that connection loses an application name.
 */
#include "bus/bus_connection.h"

#include <gio/gio.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "bus/credentials.h"
#include "dlog.h"
#include "host_control/identity.h"
#include "identity/app_identity.h"

namespace tilvane {
namespace host {
namespace {

#define BUS_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define BUS_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

/* The names whose owner changes the bus thread follows: applications',
 * ports' and providers'. */
constexpr char kNameNamespace[] = "org.tilvane";
/* Only a bus daemon that has stopped altogether makes a call wait this long. */
constexpr int kCallTimeoutMs = 10000;

/* One connection to the bus with the thread that answers calls made on it. */
struct Bus {
    GDBusConnectionPtr connection;
    GMainContextPtr context;
    GMainLoopPtr loop;
    GThread* thread = nullptr;
    guint nameWatchId = 0;
    gulong closedHandlerId = 0;
    std::string appId;
    std::string busName;
    bool ownsName = false;
    /* Every user has claimed its names on this connection; else why not. */
    bool namesClaimed = false;
    std::string unclaimedWhy;
};

struct BusState {
    /* Taken while the connection is opened, its names requested or it is closed. */
    std::mutex busMutex;
    std::unique_ptr<Bus> bus;
    /* Connections opened so far, and whether one of them owned the
     * application's name: a connection that replaces a lost one owns it
     * again. Under busMutex. */
    uint64_t opens = 0;
    bool ownedNameBefore = false;
    /* Told when the connection is lost (SetConnectionLostHandler). */
    std::atomic<void (*)()> lostHandler{nullptr};

    /* Guards the senders; never held during a bus call. */
    std::mutex sendersMutex;
    /* Unique connection name -> the application id it was found to own. */
    std::map<std::string, std::string> verifiedSenders;
};

BusState& TheBusState()
{
    static BusState* state = new BusState();
    return *state;
}

/* Registered before main (static objects of the rooms), read afterwards. */
std::vector<ConnectionUser>& Users()
{
    static auto* users = new std::vector<ConnectionUser>();
    return *users;
}

/* ---- who the sender is ------------------------------------------------------ */

std::string NotOwnerReason(const char* sender, const std::string& claimedApp)
{
    return "sender " + std::string(sender != nullptr ? sender : "(none)") + " does not own the name of application " +
           claimedApp;
}

/* What is known of a sender without asking the bus: 1 when it was found to
 * own the name of `claimedApp`, 0 when it cannot (no sender, or it was found
 * to own another application's name), -1 when the bus must be asked. */
int KnownSenderOwnsApp(const char* sender, const std::string& claimedApp, std::string& reason)
{
    int known = 0;
    if (sender != nullptr) {
        BusState& s = TheBusState();
        std::lock_guard<std::mutex> lock(s.sendersMutex);
        auto it = s.verifiedSenders.find(sender);
        known = it == s.verifiedSenders.end() ? -1 : it->second == claimedApp ? 1 : 0;
    }
    if (known == 0) {
        reason = NotOwnerReason(sender, claimedApp);
    }
    return known;
}

/* True when the connection `sender` owns the bus name of `claimedApp` and, in
 * the verified identity mode, runs as a user bound to it. Otherwise `reason`
 * says why not, for the refusal's one log line. */
bool SenderOwnsApp(GDBusConnection* connection, const char* sender, const std::string& claimedApp,
                   std::string& reason)
{
    const int known = KnownSenderOwnsApp(sender, claimedApp, reason);
    if (known >= 0) {
        return known == 1;
    }
    reason = NotOwnerReason(sender, claimedApp);
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
    BusState& s = TheBusState();
    std::lock_guard<std::mutex> lock(s.sendersMutex);
    s.verifiedSenders[sender] = claimedApp;
    return true;
}

/* A connection that loses an application name is no longer that application;
 * every user hears of the change too. Run on the bus thread in order with the
 * calls made to the objects. */
void OnNameOwnerChangedCB(GDBusConnection* connection, const gchar* /*senderName*/, const gchar* /*objectPath*/,
                          const gchar* /*interfaceName*/, const gchar* /*signalName*/, GVariant* parameters,
                          gpointer /*userData*/)
{
    const gchar* name = nullptr;
    const gchar* oldOwner = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, &oldOwner, &newOwner);
    for (const ConnectionUser& user : Users()) {
        if (user.nameOwnerChanged != nullptr) {
            user.nameOwnerChanged(connection, name, oldOwner, newOwner);
        }
    }
    if (*oldOwner == '\0' || !g_str_has_prefix(name, kAppBusNameNamespace)) {
        return;
    }
    identity::ForgetConnection(connection, oldOwner);
    BusState& s = TheBusState();
    std::lock_guard<std::mutex> lock(s.sendersMutex);
    s.verifiedSenders.erase(oldOwner);
}

/* ---- the connection ---------------------------------------------------------- */

gpointer RunBusThread(gpointer data)
{
    Bus* bus = static_cast<Bus*>(data);
    g_main_context_push_thread_default(bus->context.get());
    g_main_loop_run(bus->loop.get());
    g_main_context_pop_thread_default(bus->context.get());
    return nullptr;
}

gboolean QuitBusLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

/* On the application's loop: the connection was lost. */
gboolean NotifyConnectionLostCB(gpointer /*data*/)
{
    void (*handler)() = TheBusState().lostHandler.load();
    if (handler != nullptr) {
        handler();
    }
    return G_SOURCE_REMOVE;
}

/* On the bus thread: the connection was closed. A close of our own is not a
 * loss; any other (the daemon dropped the connection, or went away) is
 * handed to the lost handler on the application's loop. */
void OnConnectionClosedCB(GDBusConnection* /*connection*/, gboolean remotePeerVanished, GError* error,
                          gpointer /*userData*/)
{
    if (!remotePeerVanished && error == nullptr) {
        return;
    }
    BUS_LOGE("message bus connection lost: %s", error != nullptr ? error->message : "the bus went away");
    if (TheBusState().lostHandler.load() != nullptr) {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, NotifyConnectionLostCB, nullptr, nullptr);
        g_source_attach(source, nullptr);
        g_source_unref(source);
    }
}

/* Stops the bus thread: through a source of its own context, since a quit
 * made before the thread has entered g_main_loop_run would be forgotten. */
void StopBusThread(Bus& bus)
{
    GSource* stop = g_idle_source_new();
    g_source_set_callback(stop, QuitBusLoop, bus.loop.get(), nullptr);
    g_source_attach(stop, bus.context.get());
    g_source_unref(stop);
    g_thread_join(bus.thread);
}

void CloseBus(std::unique_ptr<Bus> bus)
{
    if (!bus) {
        return;
    }
    if (bus->closedHandlerId != 0) {
        g_signal_handler_disconnect(bus->connection.get(), bus->closedHandlerId);
    }
    if (bus->nameWatchId != 0) {
        g_dbus_connection_signal_unsubscribe(bus->connection.get(), bus->nameWatchId);
    }
    for (const ConnectionUser& user : Users()) {
        if (user.closing != nullptr) {
            user.closing(bus->connection.get());
        }
    }
    if (!g_dbus_connection_is_closed(bus->connection.get())) {
        g_dbus_connection_close_sync(bus->connection.get(), nullptr, nullptr);
    }
    if (bus->thread != nullptr) {
        StopBusThread(*bus);
    }
    /* Let the context release what the connection left on it. */
    while (g_main_context_iteration(bus->context.get(), FALSE)) {
    }
    BUS_LOGD("bus connection of %s closed", bus->appId.c_str());
}

/* With the bus thread's context as the thread's default: the connection's
 * own handlers and every user's objects; false when a user cannot serve. */
bool SetUpConnection(Bus& bus)
{
    g_dbus_connection_set_exit_on_close(bus.connection.get(), FALSE);
    bus.closedHandlerId = g_signal_connect(bus.connection.get(), "closed", G_CALLBACK(OnConnectionClosedCB), nullptr);
    bool served = true;
    for (const ConnectionUser& user : Users()) {
        if (user.opened != nullptr && !user.opened(bus.connection.get())) {
            served = false;
        }
    }
    bus.nameWatchId = g_dbus_connection_signal_subscribe(
        bus.connection.get(), "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", kNameNamespace, G_DBUS_SIGNAL_FLAGS_MATCH_ARG0_NAMESPACE, OnNameOwnerChangedCB,
        nullptr, nullptr);
    return served;
}

std::unique_ptr<Bus> OpenBus()
{
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        BUS_LOGE("no message bus: DBUS_SESSION_BUS_ADDRESS is not set");
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
    const bool served = bus->connection && SetUpConnection(*bus);
    g_main_context_pop_thread_default(bus->context.get());

    if (!served) {
        BUS_LOGE("cannot use the message bus at %s: %s", address, error.Message());
        return nullptr;
    }
    bus->loop.reset(g_main_loop_new(bus->context.get(), FALSE));
    bus->thread = g_thread_new("tilvane-msgport", RunBusThread, bus.get());
    BUS_LOGD("connected to the message bus as %s (%s)", bus->appId.c_str(),
             g_dbus_connection_get_unique_name(bus->connection.get()));
    return bus;
}

ConnectionProblem OwnName(Bus& bus)
{
    if (bus.busName.empty()) {
        BUS_LOGE("application id \"%s\" cannot own a bus name", bus.appId.c_str());
        return ConnectionProblem::NoName;
    }
    std::string error;
    const NameRequest owned = RequestBusName(bus.connection.get(), bus.busName, kCallTimeoutMs, error);
    if (owned == NameRequest::Denied) {
        BUS_LOGE("the bus refuses the name of application %s (%s) to this process's user: %s", bus.appId.c_str(),
                 bus.busName.c_str(), error.c_str());
        return ConnectionProblem::NameDenied;
    }
    if (owned == NameRequest::Failed) {
        BUS_LOGE("cannot request bus name %s: %s", bus.busName.c_str(), error.c_str());
        return ConnectionProblem::NoBus;
    }
    if (owned == NameRequest::OwnedByAnother) {
        BUS_LOGE("application %s already runs on the bus (%s is owned by another process)", bus.appId.c_str(),
                 bus.busName.c_str());
        return ConnectionProblem::NameTaken;
    }
    bus.ownsName = true;
    BUS_LOGD("owns bus name %s", bus.busName.c_str());
    return ConnectionProblem::None;
}

/* With busMutex held: every user claims its names on `bus`; the first
 * failure ends the round. */
void ClaimUsersNames(Bus& bus)
{
    for (const ConnectionUser& user : Users()) {
        if (user.claimNames != nullptr && !user.claimNames(bus.connection.get(), bus.appId, bus.unclaimedWhy)) {
            return;
        }
    }
    bus.namesClaimed = true;
    bus.unclaimedWhy.clear();
}

/* With busMutex held: the connection open and, when `needName` or when a
 * connection before it owned the name, the application's name and the users'
 * names owned. `reopened` tells that a lost connection was replaced. */
ConnectionProblem EnsureConnectionLocked(BusState& s, bool needName, bool& reopened)
{
    if (s.bus && g_dbus_connection_is_closed(s.bus->connection.get())) {
        BUS_LOGE("message bus connection lost; reconnecting");
        CloseBus(std::move(s.bus));
    }
    if (!s.bus) {
        s.bus = OpenBus();
        if (!s.bus) {
            return ConnectionProblem::NoBus;
        }
        reopened = ++s.opens > 1;
    }
    if ((needName || s.ownedNameBefore) && !s.bus->ownsName) {
        const ConnectionProblem owned = OwnName(*s.bus);
        if (owned != ConnectionProblem::None) {
            return owned;
        }
        s.ownedNameBefore = true;
    }
    if (!s.bus->namesClaimed && s.bus->ownsName) {
        ClaimUsersNames(*s.bus);  // a name that cannot be claimed yet is tried again on the next use
    }
    return ConnectionProblem::None;
}

/* Resets the connection's part of the platform (Reset()). */
void ResetBusConnection()
{
    BusState& s = TheBusState();
    {
        std::lock_guard<std::mutex> lock(s.busMutex);
        CloseBus(std::move(s.bus));
        s.opens = 0;
        s.ownedNameBefore = false;
    }
    {
        std::lock_guard<std::mutex> lock(s.sendersMutex);
        s.verifiedSenders.clear();
    }
    identity::ForgetAllConnections();
}

/* Reset(): no connection, nothing known of any sender. */
const ResetHook kResetBusConnection(5, ResetBusConnection);

}  // namespace

void AddConnectionUser(const ConnectionUser& user)
{
    Users().push_back(user);
}

GDBusConnectionPtr SharedBusConnection(bool needAppName, ConnectionProblem* problem)
{
    BusState& s = TheBusState();
    bool reopened = false;
    GDBusConnectionPtr connection;
    {
        std::lock_guard<std::mutex> lock(s.busMutex);
        *problem = EnsureConnectionLocked(s, needAppName, reopened);
        if (*problem != ConnectionProblem::None) {
            return nullptr;
        }
        connection.reset(static_cast<GDBusConnection*>(g_object_ref(s.bus->connection.get())));
    }
    if (reopened) {
        for (const ConnectionUser& user : Users()) {
            if (user.reopened != nullptr) {
                user.reopened(connection.get());
            }
        }
    }
    return connection;
}

GDBusConnectionPtr OpenBusConnectionIfAny()
{
    BusState& s = TheBusState();
    std::lock_guard<std::mutex> lock(s.busMutex);
    if (!s.bus || g_dbus_connection_is_closed(s.bus->connection.get())) {
        return nullptr;
    }
    return GDBusConnectionPtr(static_cast<GDBusConnection*>(g_object_ref(s.bus->connection.get())));
}

std::string ConnectedAppId()
{
    BusState& s = TheBusState();
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
    TheBusState().lostHandler.store(handler);
}

bool RestoreBusConnection(std::string& why)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr connection = SharedBusConnection(false, &problem);
    if (!connection) {
        why = problem == ConnectionProblem::NameTaken ? "the application's name is owned by another process"
                                                      : "the bus cannot be reached";
        return false;
    }
    {
        BusState& s = TheBusState();
        std::lock_guard<std::mutex> lock(s.busMutex);
        if (!s.bus || !s.bus->namesClaimed) {
            why = s.bus ? s.bus->unclaimedWhy : "the bus cannot be reached";
            return false;
        }
    }
    for (const ConnectionUser& user : Users()) {
        if (user.ownsAll != nullptr && !user.ownsAll(why)) {
            return false;
        }
    }
    return true;
}

bool InvokeOnBusThread(GSourceFunc function, gpointer data, GDestroyNotify destroy)
{
    BusState& s = TheBusState();
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

}  // namespace host
}  // namespace tilvane
