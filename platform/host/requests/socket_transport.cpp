/*
 * The direct request socket: the request interfaces on a peer-to-peer D-Bus
 * connection, without the bus daemon between caller and provider. Its
 * connections are sd-bus's, driven from the GLib default main context
 * (bus/sdbus_source.h): sd-bus reads and answers a call in the thread that
 * serves it, where GDBus hands every message to a thread of its own and back
 * (docs/performance.md, "The direct request connection").
 *
 * While a process owns a provider's bus name (request_glue.cpp's OwnName) it
 * also listens on a unix socket named after it, RequestSocketPath(busName):
 * <platform root>/run/tilvane/<bus name>, in a folder that only the
 * provider's user may write, the socket itself open to every user (0666).
 * A peer authenticates with EXTERNAL only: its user and process come from the
 * socket (SO_PEERCRED), never from what it says. Each request names its
 * caller's application (`clientApp`) as on the bus; in the verified identity
 * mode it is believed only when the peer's user is bound to that application
 * (bus/credentials.h's UserMayActAs, the binding the bus transport uses), with
 * the same refusal. The calls are read, run and answered by the same code as
 * the bus's (transport.h), on the GLib default main context.
 *
 * What a peer may make the provider spend, from [request-socket]:
 *   max-connections, max-connections-per-user  further connections are closed
 *                                              as soon as they are made;
 *   idle-close-ms    a connection that made no request for this long is closed
 *                    (the client library opens a new one when it needs it);
 *   large-request-bytes, large-idle-close-ms
 *                    a connection that carried a request of at least
 *                    large-request-bytes is closed once it made no request
 *                    for large-idle-close-ms: a peer that sends bulks is
 *                    likely to send more, and what its connection holds
 *                    goes back sooner;
 *   unsent-bytes     replies a peer has not read: a reply that comes while more
 *                    than this is still unsent (queued in the process, the
 *                    socket's buffer being full) closes the connection.
 * Everything else (statement time, reply size, log bytes) is the request's
 * own budget, the same on both transports.
 */
#include <gio/gio.h>
#include <glib-unix.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/glib_ptr.h"
#include "bus/credentials.h"
#include "bus/sdbus_source.h"
#include "bus/sdbus_variant.h"
#include "config/config_keys.h"
#include "config/paths.h"
#include "requests/idle_trim.h"
#include "requests/request_glue.h"
#include "requests/transport.h"

namespace tilvane {
namespace host {
namespace requests {
namespace {

constexpr char kGroup[] = "request-socket";
constexpr int kListenBacklog = 64;
/* Messages one connection may have processed before the others get a turn. */
constexpr int kMessagesPerTurn = 4;

/* ---- listening --------------------------------------------------------------- */

struct Listener {
    int fd = -1;
    guint watch = 0;
    std::string path;
};

struct ListenState {
    std::mutex mutex;
    std::map<std::string, Listener> listeners; /* bus name -> */
};

ListenState& TheListenState()
{
    static ListenState* state = new ListenState();
    return *state;
}

/* `path` made traversable by every user when it is this user's own (a umask
 * of the service manager's may have left it closed). */
void OpenToEveryone(const std::string& path)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid()) {
        chmod(path.c_str(), 0755);
    }
}

/* The socket's folder, made when missing; false (logged) when it is not the
 * process's own or others may write it, so that nobody could have put a
 * socket of theirs in the provider's place. */
bool OwnFolder(const std::string& folder)
{
    g_mkdir_with_parents(folder.c_str(), 0755);
    OpenToEveryone(folder.substr(0, folder.rfind('/')));
    OpenToEveryone(folder);
    struct stat st {};
    if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        REQUEST_LOGE("request socket folder %s is not this user's own; requests stay on the bus", folder.c_str());
        return false;
    }
    return true;
}

/* A listening socket at `path`; -1 with `error` when there can be none. */
int ListenAt(const std::string& path, std::string& error)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = std::strerror(errno);
        return -1;
    }
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, kListenBacklog) != 0) {
        error = std::strerror(errno);
        close(fd);
        return -1;
    }
    return fd;
}

gboolean OnListenerReadyCB(gint fd, GIOCondition condition, gpointer data);

}  // namespace

void ListenForDirectRequests(const std::string& busName)
{
    if (busName.empty() || !config::BoolSetting(kGroup, "enabled")) {
        return;
    }
    ListenState& s = TheListenState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.listeners.count(busName) != 0) {
        return;
    }
    const std::string path = RequestSocketPath(busName);
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        REQUEST_LOGE("request socket path %s is too long; requests stay on the bus", path.c_str());
        return;
    }
    if (!OwnFolder(path.substr(0, path.rfind('/')))) {
        return;
    }
    /* This process owns the name: a socket left there is a former owner's. */
    unlink(path.c_str());
    std::string error;
    const int fd = ListenAt(path, error);
    if (fd < 0) {
        REQUEST_LOGE("cannot listen on request socket %s: %s", path.c_str(), error.c_str());
        return;
    }
    chmod(path.c_str(), 0666);
    /* Connections are served on the GLib default main context. */
    const guint watch = g_unix_fd_add(fd, G_IO_IN, OnListenerReadyCB, nullptr);
    s.listeners[busName] = Listener{fd, watch, path};
    REQUEST_LOGD("request socket %s listening", path.c_str());
}

void StopListeningForDirectRequests(const std::string& busName)
{
    Listener listener;
    {
        ListenState& s = TheListenState();
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.listeners.find(busName);
        if (it == s.listeners.end()) {
            return;
        }
        listener = it->second;
        s.listeners.erase(it);
    }
    g_source_remove(listener.watch);
    close(listener.fd);
    unlink(listener.path.c_str());
    REQUEST_LOGD("request socket %s closed", listener.path.c_str());
}

namespace {

/* ---- the peers (GLib default main context only) ------------------------------ */

struct Peer {
    SdBusPtr bus;
    GSource* source = nullptr; /* a reference */
    uid_t uid = 0;
    pid_t pid = 0;
    gint64 lastActive = 0;
    /* It carried a request of at least large-request-bytes. */
    bool carriedLarge = false;
    /* Bytes of replies queued since the connection's queue was last empty. */
    size_t unsent = 0;
    bool closing = false;
};

struct Peers {
    std::map<sd_bus*, std::unique_ptr<Peer>> byBus;
    guint idleTimer = 0;
    guint dropClosing = 0;
    sd_id128_t serverId {};
};

Peers& ThePeers()
{
    static Peers* peers = new Peers();
    return *peers;
}

std::string PeerText(const Peer& peer)
{
    return "peer " + std::to_string(peer.pid);
}

/* Lets a peer go: its source, its connection (unsent replies dropped). */
void DropPeer(std::unique_ptr<Peer> peer)
{
    REQUEST_LOGD("request socket: lost the connection of process %d", static_cast<int>(peer->pid));
    g_source_destroy(peer->source);
    g_source_unref(peer->source);
    peer.reset();
    /* Its buffers went back to the allocator; from there, to the system. */
    TrimWhenIdle();
}

gboolean DropClosingPeersCB(gpointer /*data*/)
{
    Peers& peers = ThePeers();
    peers.dropClosing = 0;
    for (auto it = peers.byBus.begin(); it != peers.byBus.end();) {
        if (it->second->closing) {
            std::unique_ptr<Peer> peer = std::move(it->second);
            it = peers.byBus.erase(it);
            DropPeer(std::move(peer));
        } else {
            ++it;
        }
    }
    return G_SOURCE_REMOVE;
}

/* Closes the peer's connection once the call being served (if any) is
 * answered: sd-bus may be in the middle of processing it. */
void ClosePeer(Peer& peer, const char* why)
{
    if (peer.closing) {
        return;
    }
    peer.closing = true;
    REQUEST_LOGI("request socket: closing the connection of process %d (user %u): %s", static_cast<int>(peer.pid),
                 static_cast<unsigned>(peer.uid), why);
    Peers& peers = ThePeers();
    if (peers.dropClosing == 0) {
        peers.dropClosing = g_idle_add_full(G_PRIORITY_HIGH, DropClosingPeersCB, nullptr, nullptr);
    }
}

/* How long `peer` may stay idle before it is closed, in ms; 0: for ever. */
int64_t IdleCloseMs(const Peer& peer)
{
    const int64_t idleMs = config::IntegerSetting(kGroup, "idle-close-ms");
    if (!peer.carriedLarge) {
        return idleMs;
    }
    const int64_t largeMs = config::IntegerSetting(kGroup, "large-idle-close-ms");
    if (largeMs <= 0) {
        return idleMs;
    }
    return idleMs <= 0 ? largeMs : std::min(idleMs, largeMs);
}

/* When `peer` is due to be closed as idle; G_MAXINT64 for never. */
gint64 IdleDueUs(const Peer& peer)
{
    const int64_t idleMs = IdleCloseMs(peer);
    return peer.closing || idleMs <= 0 ? G_MAXINT64 : peer.lastActive + idleMs * 1000;
}

void ArmIdleTimer();

gboolean IdleTimerCB(gpointer /*data*/)
{
    Peers& peers = ThePeers();
    peers.idleTimer = 0;
    const gint64 now = g_get_monotonic_time();
    for (auto& entry : peers.byBus) {
        if (IdleDueUs(*entry.second) <= now) {
            ClosePeer(*entry.second, "idle");
        }
    }
    ArmIdleTimer();
    return G_SOURCE_REMOVE;
}

/* One timer, at the earliest time a connection would have been idle too long. */
void ArmIdleTimer()
{
    Peers& peers = ThePeers();
    if (peers.idleTimer != 0) {
        return;
    }
    gint64 earliest = G_MAXINT64;
    for (const auto& entry : peers.byBus) {
        earliest = std::min(earliest, IdleDueUs(*entry.second));
    }
    if (earliest == G_MAXINT64) {
        return;
    }
    const gint64 dueUs = earliest - g_get_monotonic_time();
    const guint dueMs = dueUs <= 0 ? 0 : static_cast<guint>((dueUs + 999) / 1000);
    peers.idleTimer = g_timeout_add(dueMs, IdleTimerCB, nullptr);
}

/* A request of `bytes` came on `peer`: past large-request-bytes the connection
 * is closed sooner when idle, and the idle timer is set again for it. */
void NoteRequestSize(Peer& peer, size_t bytes)
{
    const int64_t large = config::IntegerSetting(kGroup, "large-request-bytes");
    if (peer.carriedLarge || large <= 0 || static_cast<int64_t>(bytes) < large) {
        return;
    }
    peer.carriedLarge = true;
    Peers& peers = ThePeers();
    if (peers.idleTimer != 0) {
        g_source_remove(peers.idleTimer);
        peers.idleTimer = 0;
    }
    ArmIdleTimer();
}

/* A reply of `bytes` was handed to sd-bus for the peer. sd-bus writes what
 * the socket takes at once and queues the rest until the peer reads. */
void CountUnsent(Peer& peer, size_t bytes)
{
    uint64_t queued = 0;
    if (sd_bus_get_n_queued_write(peer.bus.get(), &queued) >= 0 && queued == 0) {
        peer.unsent = 0;
        return;
    }
    const int64_t limit = config::IntegerSetting(kGroup, "unsent-bytes");
    if (limit > 0 && peer.unsent > static_cast<size_t>(limit)) {
        ClosePeer(peer, ("more than " + std::to_string(limit) + " bytes of replies unread").c_str());
        return;
    }
    peer.unsent += bytes;
}

/* A call that came on a direct connection, answered on it. */
class DirectAnswer : public CallAnswer {
public:
    explicit DirectAnswer(sd_bus_message* call) : m_call(sd_bus_message_ref(call)) {}
    void Return(GVariant* value) override
    {
        GVariantPtr owned(g_variant_ref_sink(value));
        if (sd_bus_message_get_expect_reply(m_call.get()) <= 0) {
            return;
        }
        sd_bus_message* reply = nullptr;
        int r = sd_bus_message_new_method_return(m_call.get(), &reply);
        SdBusMessagePtr replyPtr(reply);
        if (r >= 0) {
            r = AppendMessageBody(reply, owned.get());
        }
        if (r >= 0) {
            r = sd_bus_send(nullptr, reply, nullptr);
        }
        if (r < 0) {
            REQUEST_LOGE("request socket: cannot answer a call: %s", std::strerror(-r));
        }
    }
    void Fail(const char* name, const char* message) override
    {
        const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, message);
        sd_bus_reply_method_error(m_call.get(), &error);
    }

private:
    SdBusMessagePtr m_call;
};

/* The interface of `path` among the request interfaces; null for any other. */
const char* InterfaceAt(const char* path)
{
    if (path == nullptr) {
        return nullptr;
    }
    if (std::strcmp(path, kDataControlPath) == 0) {
        return kDataControlInterface;
    }
    return std::strcmp(path, kContentPath) == 0 ? kContentInterface : nullptr;
}

/* Answers what GDBus answers itself before a call reaches its handler, so
 * that both transports answer alike: a method the interface does not have,
 * arguments of other types than the method's. False when it answered. */
bool IsMethodWithItsArguments(sd_bus_message* call, const char* interfaceName)
{
    GDBusNodeInfo* node = RequestNodeInfo();
    if (node == nullptr) {
        return true; /* ReadCall refuses it */
    }
    const char* member = sd_bus_message_get_member(call);
    GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node, interfaceName);
    GDBusMethodInfo* method =
        interface != nullptr && member != nullptr ? g_dbus_interface_info_lookup_method(interface, member) : nullptr;
    if (method == nullptr) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_METHOD, "No such method \u201c%s\u201d",
                                   member != nullptr ? member : "");
        return false;
    }
    std::string expected;
    for (GDBusArgInfo** arg = method->in_args; arg != nullptr && *arg != nullptr; ++arg) {
        expected += (*arg)->signature;
    }
    const char* signature = sd_bus_message_get_signature(call, 1);
    if (signature == nullptr || expected != signature) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_INVALID_ARGS,
                                   "Type of message, \u201c(%s)\u201d, does not match expected type \u201c(%s)\u201d",
                                   signature != nullptr ? signature : "", expected.c_str());
        return false;
    }
    return true;
}

void ServeDirectCall(Peer& peer, sd_bus_message* call, const char* interfaceName)
{
    if (peer.closing) {
        DirectAnswer(call).Fail(kErrorRefused, "the connection is closing");
        return;
    }
    peer.lastActive = g_get_monotonic_time();
    if (!IsMethodWithItsArguments(call, interfaceName)) {
        return;
    }
    std::string error;
    GVariantPtr parameters = ReadMessageBody(call, nullptr, error);
    if (!parameters) {
        DirectAnswer(call).Fail(kErrorInvalidRequest, ("the call does not read: " + error).c_str());
        return;
    }
    NoteRequestSize(peer, g_variant_get_size(parameters.get()));
    std::unique_ptr<Job> job = ReadCall(interfaceName, sd_bus_message_get_member(call), parameters.get(),
                                        std::make_unique<DirectAnswer>(call));
    if (!job) {
        return;
    }
    std::string reason;
    if (!identity::UserMayActAs(peer.uid, PeerText(peer), job->clientApp, reason)) {
        job->refusal = reason.empty() ? "refused" : reason;
    }
    const size_t bytes = ServeJob(*job);
    peer.lastActive = g_get_monotonic_time();
    CountUnsent(peer, bytes);
}

/* Every message of a peer comes here first; what is not a call of the request
 * interfaces is left to sd-bus, which answers that there is no such object
 * or method. */
int OnDirectMessageCB(sd_bus_message* message, void* data, sd_bus_error* /*error*/)
{
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
        return 0;
    }
    const char* interfaceName = InterfaceAt(sd_bus_message_get_path(message));
    const char* called = sd_bus_message_get_interface(message);
    if (interfaceName == nullptr || called == nullptr || std::strcmp(called, interfaceName) != 0) {
        return 0;
    }
    ServeDirectCall(*static_cast<Peer*>(data), message, interfaceName);
    return 1;
}

void OnPeerClosedCB(sd_bus* bus, void* /*data*/)
{
    Peers& peers = ThePeers();
    auto it = peers.byBus.find(bus);
    if (it == peers.byBus.end()) {
        return;
    }
    std::unique_ptr<Peer> peer = std::move(it->second);
    peers.byBus.erase(it);
    DropPeer(std::move(peer));
}

/* Null when the peer may connect; otherwise why not. */
const char* OverConnectionBudget(uid_t uid)
{
    const Peers& peers = ThePeers();
    size_t total = 0;
    size_t ofUser = 0;
    for (const auto& entry : peers.byBus) {
        ++total;
        ofUser += entry.second->uid == uid ? 1 : 0;
    }
    if (static_cast<int64_t>(total) >= config::IntegerSetting(kGroup, "max-connections")) {
        return "max-connections";
    }
    if (static_cast<int64_t>(ofUser) >= config::IntegerSetting(kGroup, "max-connections-per-user")) {
        return "max-connections-per-user";
    }
    return nullptr;
}

/* The server's side of a new connection on `fd`, which it owns from then on;
 * null when sd-bus cannot take it. */
SdBusPtr ServerBus(int fd, Peer& peer)
{
    Peers& peers = ThePeers();
    if (sd_id128_is_null(peers.serverId) && sd_id128_randomize(&peers.serverId) < 0) {
        close(fd);
        return nullptr;
    }
    SdBusPtr bus = SdBusOnSocket(fd, &peers.serverId);
    /* Nothing is processed before the connection's source runs. */
    if (bus && sd_bus_add_filter(bus.get(), nullptr, OnDirectMessageCB, &peer) < 0) {
        return nullptr;
    }
    return bus;
}

void AcceptPeer(int fd)
{
    ucred credentials {};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        close(fd);
        return;
    }
    std::unique_ptr<Peer> peer(new Peer());
    peer->uid = credentials.uid;
    peer->pid = credentials.pid;
    if (const char* budget = OverConnectionBudget(peer->uid)) {
        REQUEST_LOGE("request socket: the connection of process %d (user %u) is closed: over [request-socket] %s",
                     static_cast<int>(peer->pid), static_cast<unsigned>(peer->uid), budget);
        close(fd);
        return;
    }
    peer->bus = ServerBus(fd, *peer);
    if (!peer->bus) {
        REQUEST_LOGE("request socket: cannot serve the connection of process %d", static_cast<int>(peer->pid));
        return;
    }
    peer->lastActive = g_get_monotonic_time();
    peer->source = AttachSdBus(peer->bus.get(), g_main_context_default(), kMessagesPerTurn, OnPeerClosedCB, nullptr);
    REQUEST_LOGD("request socket: connection of process %d (user %u)", static_cast<int>(peer->pid),
                 static_cast<unsigned>(peer->uid));
    sd_bus* key = peer->bus.get();
    ThePeers().byBus[key] = std::move(peer);
    ArmIdleTimer();
}

gboolean OnListenerReadyCB(gint fd, GIOCondition /*condition*/, gpointer /*data*/)
{
    for (;;) {
        const int peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (peer < 0) {
            return G_SOURCE_CONTINUE; /* EAGAIN, or a peer gone before it was taken */
        }
        AcceptPeer(peer);
    }
}

}  // namespace

}  // namespace requests
}  // namespace host
}  // namespace tilvane
