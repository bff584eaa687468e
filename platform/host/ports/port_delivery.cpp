/*
 * Message-port names on the bus and deliveries that never wait for the
 * receiver (port_delivery.h).
 */
#include "ports/port_delivery.h"

#include "message_port_wire.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "identity/app_identity.h"
#include "bus/bus_connection.h"
#include "dlog.h"
#include "base/glib_ptr.h"
#include "host_control/ports.h"
#include "host_control/identity.h"
#include "host_control/base.h"
#include "base/host_state.h"
#include "message_port.h"
#include "config/config_keys.h"
#include "bus/credentials.h"

namespace tilvane {
namespace host {
namespace {

#define DELIVERY_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define DELIVERY_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define DELIVERY_LOGW(...) __dlog_print(LOG_ID_MAIN, DLOG_WARN, kPlatformLogTag, __VA_ARGS__)
#define DELIVERY_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

using GDBusMessagePtr = std::unique_ptr<GDBusMessage, GObjectUnref>;

constexpr size_t kPortNameDigits = 32;
/* The bus's limit on the length of a name. */
constexpr size_t kMaxBusNameLength = 255;
constexpr char kObjectPath[] = "/org/tilvane/MessagePort";
/* Calls to the bus daemon only: it answers at once unless it has stopped. */
constexpr int kDaemonCallTimeoutMs = 10000;

/* Beyond this many unanswered deliveries a receiver is not waited for at
 * all, answering or not. */
constexpr int kHardBoundFactor = 16;
/* How long a process that ends waits for the answers of its last deliveries. */
constexpr int kExitWaitMs = 2000;

struct Pending {
    std::string appId;
    std::string port;
    gint64 deadlineUs;
};

struct Receiver {
    int unanswered = 0;
    /* When it last answered, or when it got its oldest unanswered delivery. */
    gint64 lastProgressUs = 0;
    bool dropping = false;
    long dropped = 0;
};

/* Owners of the names of applications and ports, as the bus daemon last said.
 * Kept fresh by its NameOwnerChanged signals, which the connection's filter
 * sees in order with every answer; an answer is kept only when no change came
 * while it was asked for. */
constexpr char kNameNamespace[] = "org.tilvane";
constexpr size_t kMaxCachedOwners = 4096;

struct OwnerCache {
    std::mutex mutex;
    std::map<std::string, std::string> owners;
    uint64_t changes = 0;
};

OwnerCache& TheOwnerCache()
{
    static OwnerCache* cache = new OwnerCache();
    return *cache;
}


void NoteOwnerChange(GDBusConnection* connection, GDBusMessage* message)
{
    if (g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") != 0 ||
        g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") != 0) {
        return;
    }
    GVariant* body = g_dbus_message_get_body(message);
    if (body == nullptr || !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
        return;
    }
    const gchar* name = nullptr;
    const gchar* oldOwner = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, &oldOwner, &newOwner);
    const gchar* own = g_dbus_connection_get_unique_name(connection);
    NoteQueuedPortName(name, newOwner, own != nullptr ? own : "");
    OwnerCache& cache = TheOwnerCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    ++cache.changes;
    auto it = cache.owners.find(name);
    if (it != cache.owners.end()) {
        it->second = newOwner;
    }
}

struct DeliveryState {
    std::mutex mutex;
    std::condition_variable settled;
    bool exitWaitRegistered = false;
    std::map<guint32, Pending> pending; /* by the call's serial */
    std::map<std::string, Receiver> receivers; /* by application id */
    /* The refusals among the answers, for WaitForDeliveryAnswers (bounded). */
    std::vector<std::string> refusals;
};

constexpr size_t kMaxKeptRefusals = 64;

/* "<error name>: <text>" of an error answer. */
std::string RefusalText(GDBusMessage* message)
{
    const gchar* name = g_dbus_message_get_error_name(message);
    std::string text = name != nullptr ? name : "error";
    GVariant* body = g_dbus_message_get_body(message);
    if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)"))) {
        const gchar* detail = nullptr;
        g_variant_get(body, "(&s)", &detail);
        text += std::string(": ") + detail;
    }
    return text;
}

DeliveryState& TheDeliveryState()
{
    static DeliveryState* state = new DeliveryState();
    return *state;
}

int MaxUnanswered()
{
    return static_cast<int>(config::IntegerSetting("message-port", "max-unanswered", 1));
}

/* A receiver over the bound that answered nothing for this long is taken
 * for one that does not read. */
int64_t QuietUs()
{
    return config::IntegerSetting("message-port", "unanswered-quiet-ms", 0) * 1000;
}

int64_t DeliveryTimeoutUs()
{
    return config::IntegerSetting("message-port", "delivery-timeout-ms", 1) * 1000;
}

/* With the state's mutex held: one delivery to `appId` is no longer waited for. */
void Settle(DeliveryState& s, const std::string& appId, bool answered)
{
    auto it = s.receivers.find(appId);
    if (it == s.receivers.end()) {
        return;
    }
    Receiver& receiver = it->second;
    if (receiver.unanswered > 0) {
        --receiver.unanswered;
    }
    s.settled.notify_all();
    if (answered) {
        receiver.lastProgressUs = g_get_monotonic_time();
    }
    if (receiver.dropping && (answered || receiver.unanswered < MaxUnanswered())) {
        DELIVERY_LOGW("application %s answers again; %ld message(s) to it were dropped", appId.c_str(),
                      receiver.dropped);
        receiver.dropping = false;
        receiver.dropped = 0;
    }
    if (receiver.unanswered == 0 && !receiver.dropping) {
        s.receivers.erase(it);
    }
}

/* With the state's mutex held: deliveries past their deadline stop counting. */
void ExpireOverdue(DeliveryState& s, gint64 nowUs)
{
    for (auto it = s.pending.begin(); it != s.pending.end();) {
        if (it->second.deadlineUs <= nowUs) {
            DELIVERY_LOGD("message to %s/%s unanswered", it->second.appId.c_str(), it->second.port.c_str());
            const std::string appId = it->second.appId;
            it = s.pending.erase(it);
            Settle(s, appId, false);
        } else {
            ++it;
        }
    }
}

GDBusMessage* OnMessageCB(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                          gpointer /*userData*/)
{
    if (!incoming) {
        return message;
    }
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
        NoteOwnerChange(connection, message);
        return message;
    }
    if (type != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && type != G_DBUS_MESSAGE_TYPE_ERROR) {
        return message;
    }
    const guint32 serial = g_dbus_message_get_reply_serial(message);
    DeliveryState& s = TheDeliveryState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.pending.find(serial);
    if (it == s.pending.end()) {
        return message; /* the answer of another call */
    }
    if (type == G_DBUS_MESSAGE_TYPE_ERROR) {
        const std::string refusal = RefusalText(message);
        DELIVERY_LOGD("message to %s/%s not delivered: %s", it->second.appId.c_str(), it->second.port.c_str(),
                      refusal.c_str());
        if (s.refusals.size() < kMaxKeptRefusals) {
            s.refusals.push_back(refusal);
        }
    }
    const std::string appId = it->second.appId;
    s.pending.erase(it);
    Settle(s, appId, true);
    g_object_unref(message);
    return nullptr;
}

/* At exit: a receiver checks who sent a message while the sender still owns
 * its name, so a process that sends and ends at once (a command-line tool)
 * lets its last deliveries be answered first, for a bounded time. */
void WaitForLastDeliveries()
{
    DeliveryState& s = TheDeliveryState();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.settled.wait_for(lock, std::chrono::milliseconds(kExitWaitMs), [&s] { return s.pending.empty(); });
}

/* The owner of `name`, "" when it has none; false when the daemon cannot be asked. */
bool AskNameOwner(GDBusConnection* connection, const std::string& name, std::string& owner)
{
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetNameOwner",
                                                  g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(s)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kDaemonCallTimeoutMs, nullptr, error.Out()));
    if (reply) {
        const gchar* found = nullptr;
        g_variant_get(reply.get(), "(&s)", &found);
        owner = found;
        return true;
    }
    GCharPtr remote(g_dbus_error_get_remote_error(error.Get()));
    if (remote && std::string(remote.get()) == "org.freedesktop.DBus.Error.NameHasNoOwner") {
        owner.clear();
        return true;
    }
    DELIVERY_LOGE("cannot ask the bus for the owner of %s: %s", name.c_str(), error.Message());
    return false;
}

bool NameOwner(GDBusConnection* connection, const std::string& name, std::string& owner)
{
    OwnerCache& cache = TheOwnerCache();
    uint64_t changesBefore = 0;
    {
        std::lock_guard<std::mutex> lock(cache.mutex);
        auto it = cache.owners.find(name);
        if (it != cache.owners.end()) {
            owner = it->second;
            return true;
        }
        changesBefore = cache.changes;
    }
    if (!AskNameOwner(connection, name, owner)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.changes == changesBefore) {
        if (cache.owners.size() >= kMaxCachedOwners) {
            cache.owners.clear();
        }
        cache.owners[name] = owner;
    }
    return true;
}

void NoSignalCB(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*, gpointer)
{
}

}  // namespace

std::string PortBusName(const std::string& appId, const std::string& port)
{
    const std::string prefix = PortBusNamePrefix(appId);
    GCharPtr digest(g_compute_checksum_for_string(G_CHECKSUM_SHA256, port.c_str(), static_cast<gssize>(port.size())));
    const std::string name = prefix + ".H" + std::string(digest.get()).substr(0, kPortNameDigits);
    return prefix.empty() || name.size() > kMaxBusNameLength ? std::string() : name;
}

std::string BusNameForPort(const std::string& appId, const std::string& port)
{
    return PortBusName(appId, port);
}

namespace {

/* Port names this connection waits for in the bus daemon's queue: name ->
 * "port P of A", for the line that says when it got one. */
struct QueuedPortNames {
    std::mutex mutex;
    std::map<std::string, std::string> names;
};

QueuedPortNames& TheQueuedPortNames()
{
    static QueuedPortNames* queued = new QueuedPortNames();
    return *queued;
}

/* In the verified identity mode, the connection that holds `name` runs as a
 * user that `appId`, bound to users of its own, is not: a squatter. True
 * with what it is in `who`. */
bool HeldBySquatter(GDBusConnection* connection, const std::string& name, const std::string& appId,
                    std::string& who)
{
    std::vector<uid_t> users;
    std::string holder;
    uid_t uid = 0;
    if (identity::CurrentMode() != identity::Mode::Verified || !identity::BoundUsers(appId, users) ||
        !AskNameOwner(connection, name, holder) || holder.empty() ||
        !identity::ConnectionUser(connection, holder, uid)) {
        return false;
    }
    if (std::find(users.begin(), users.end(), uid) != users.end()) {
        return false;
    }
    who = holder + ", user " + std::to_string(uid);
    return true;
}

/* Waits for the name of a port that a squatter holds, in the daemon's queue:
 * the port is registered now and is announced when the squatter lets go. */
int QueueForPortName(GDBusConnection* connection, const std::string& appId, const std::string& port,
                     const std::string& name, const std::string& squatter)
{
    std::string error;
    const NameRequest queued = RequestBusName(connection, name, kDaemonCallTimeoutMs, error, true);
    if (queued == NameRequest::Failed || queued == NameRequest::Denied) {
        DELIVERY_LOGE("cannot queue for the name of port %s of %s (%s): %s", port.c_str(), appId.c_str(),
                      name.c_str(), error.c_str());
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (queued == NameRequest::Owned) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    {
        QueuedPortNames& waiting = TheQueuedPortNames();
        std::lock_guard<std::mutex> lock(waiting.mutex);
        waiting.names[name] = "port " + port + " of " + appId;
    }
    DELIVERY_LOGW("port %s of %s is held by a connection of another user (%s); the port is registered and "
                  "announced as soon as that connection lets its name go",
                  port.c_str(), appId.c_str(), squatter.c_str());
    return MESSAGE_PORT_ERROR_NONE;
}

}  // namespace

void NoteQueuedPortName(const std::string& name, const std::string& newOwner, const std::string& ownUniqueName)
{
    if (newOwner.empty() || newOwner != ownUniqueName) {
        return;
    }
    QueuedPortNames& waiting = TheQueuedPortNames();
    std::lock_guard<std::mutex> lock(waiting.mutex);
    auto it = waiting.names.find(name);
    if (it != waiting.names.end()) {
        DELIVERY_LOGI("%s announced: the connection that held its name let it go", it->second.c_str());
        waiting.names.erase(it);
    }
}

int ClaimPortName(GDBusConnection* connection, const std::string& appId, const std::string& port)
{
    const std::string name = PortBusName(appId, port);
    if (name.empty()) {
        DELIVERY_LOGE("port %s of %s cannot be announced: its bus name would pass the bus's limit", port.c_str(),
                      appId.c_str());
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    std::string error;
    const NameRequest owned = RequestBusName(connection, name, kDaemonCallTimeoutMs, error);
    if (owned == NameRequest::Denied) {
        DELIVERY_LOGE("the bus refuses the name of port %s of %s (%s) to this process's user", port.c_str(),
                      appId.c_str(), name.c_str());
        return MESSAGE_PORT_ERROR_PERMISSION_DENIED;
    }
    if (owned == NameRequest::Failed) {
        DELIVERY_LOGE("cannot announce port %s of %s (%s): %s", port.c_str(), appId.c_str(), name.c_str(),
                      error.c_str());
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (owned == NameRequest::OwnedByAnother) {
        std::string squatter;
        if (HeldBySquatter(connection, name, appId, squatter)) {
            return QueueForPortName(connection, appId, port, name, squatter);
        }
        DELIVERY_LOGE("port %s of %s is held by another connection (%s)", port.c_str(), appId.c_str(), name.c_str());
        return MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE;
    }
    return MESSAGE_PORT_ERROR_NONE;
}

void ReleasePortName(GDBusConnection* connection, const std::string& appId, const std::string& port)
{
    const std::string name = PortBusName(appId, port);
    if (name.empty()) {
        return;
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "ReleaseName",
                                                  g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kDaemonCallTimeoutMs, nullptr, error.Out()));
    if (!reply) {
        DELIVERY_LOGD("cannot release %s: %s", name.c_str(), error.Message());
    }
}

bool ApplicationOwner(GDBusConnection* connection, const std::string& appId, std::string& owner)
{
    const std::string appName = BusNameForAppId(appId);
    owner.clear();
    return appName.empty() || NameOwner(connection, appName, owner);
}

int RemotePortExists(GDBusConnection* connection, const std::string& appId, const std::string& port, bool* exist)
{
    const std::string appName = BusNameForAppId(appId);
    *exist = false;
    if (appName.empty()) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    std::string appOwner;
    if (!NameOwner(connection, appName, appOwner)) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    if (appOwner.empty()) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    const std::string portName = PortBusName(appId, port);
    std::string portOwner;
    if (portName.empty()) {
        return MESSAGE_PORT_ERROR_NONE;
    }
    if (!NameOwner(connection, portName, portOwner)) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    *exist = portOwner == appOwner;
    return MESSAGE_PORT_ERROR_NONE;
}

int SendDeliverCall(GDBusConnection* connection, const std::string& appId, const std::string& port,
                    const std::string& senderApp, const std::string& senderPort, const std::string& encoded)
{
    const std::string busName = BusNameForAppId(appId);
    using ports::wire::Method;
    GDBusMessagePtr call(g_dbus_message_new_method_call(busName.c_str(), kObjectPath,
                                                        ports::wire::InterfaceOf(Method::MessagePortDeliver),
                                                        ports::wire::NameOf(Method::MessagePortDeliver)));
    ports::wire::MessagePortDeliverIn in;
    in.port = port.c_str();
    in.senderApp = senderApp.c_str();
    in.senderPort = senderPort.c_str();
    in.message = encoded.c_str();
    g_dbus_message_set_body(call.get(), ports::wire::ToVariant(in));
    g_dbus_message_set_flags(call.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);

    DeliveryState& s = TheDeliveryState();
    {
        /* Held while the call is queued, so that its answer (taken on GDBus's
         * worker thread) cannot be looked for before it is recorded. */
        std::lock_guard<std::mutex> lock(s.mutex);
        const gint64 now = g_get_monotonic_time();
        ExpireOverdue(s, now);
        Receiver& receiver = s.receivers[appId];
        if (receiver.unanswered == 0) {
            receiver.lastProgressUs = now;
        }
        const bool quiet = now - receiver.lastProgressUs >= QuietUs();
        if ((receiver.unanswered >= MaxUnanswered() && quiet) ||
            receiver.unanswered >= MaxUnanswered() * kHardBoundFactor) {
            if (!receiver.dropping) {
                DELIVERY_LOGW("messages to %s dropped: %d earlier message(s) are unanswered", appId.c_str(),
                              receiver.unanswered);
                receiver.dropping = true;
            }
            ++receiver.dropped;
            return MESSAGE_PORT_ERROR_MAX_EXCEEDED;
        }
        guint32 serial = 0;
        ScopedError error;
        if (!g_dbus_connection_send_message(connection, call.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, &serial,
                                            error.Out())) {
            DELIVERY_LOGE("message to %s/%s not sent: %s", appId.c_str(), port.c_str(), error.Message());
            if (receiver.unanswered == 0 && !receiver.dropping) {
                s.receivers.erase(appId);
            }
            return MESSAGE_PORT_ERROR_IO_ERROR;
        }
        ++receiver.unanswered;
        s.pending[serial] = Pending{appId, port, now + DeliveryTimeoutUs()};
        if (!s.exitWaitRegistered) {
            s.exitWaitRegistered = std::atexit(WaitForLastDeliveries) == 0;
        }
    }
    /* Written to the bus before the sender goes on (it may end right after);
     * this waits for the local socket only, never for the receiver. */
    g_dbus_connection_flush_sync(connection, nullptr, nullptr);
    return MESSAGE_PORT_ERROR_NONE;
}

guint AddDeliveryReplyFilter(GDBusConnection* connection)
{
    const guint filter = g_dbus_connection_add_filter(connection, OnMessageCB, nullptr, nullptr);
    /* Makes the daemon send the owner changes of every application and port
     * name; the filter reads them. */
    g_dbus_connection_signal_subscribe(connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                                       "/org/freedesktop/DBus", kNameNamespace, G_DBUS_SIGNAL_FLAGS_MATCH_ARG0_NAMESPACE,
                                       NoSignalCB, nullptr, nullptr);
    return filter;
}

void ForgetDeliveries()
{
    {
        OwnerCache& cache = TheOwnerCache();
        std::lock_guard<std::mutex> lock(cache.mutex);
        cache.owners.clear();
        ++cache.changes;
    }
    DeliveryState& s = TheDeliveryState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.pending.clear();
    s.receivers.clear();
    s.refusals.clear();
}

bool WaitForDeliveryAnswers(int timeoutMs, std::vector<std::string>* refusals)
{
    DeliveryState& s = TheDeliveryState();
    std::unique_lock<std::mutex> lock(s.mutex);
    const bool answered = s.settled.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                             [&s] { return s.pending.empty(); });
    if (refusals != nullptr) {
        refusals->insert(refusals->end(), s.refusals.begin(), s.refusals.end());
    }
    s.refusals.clear();
    return answered;
}

int UnansweredDeliveries(const std::string& appId)
{
    DeliveryState& s = TheDeliveryState();
    std::lock_guard<std::mutex> lock(s.mutex);
    ExpireOverdue(s, g_get_monotonic_time());
    auto it = s.receivers.find(appId);
    return it == s.receivers.end() ? 0 : it->second.unanswered;
}

}  // namespace host
}  // namespace tilvane
