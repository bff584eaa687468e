/*
 * The direct request socket: the request interfaces on a peer-to-peer D-Bus
 * connection, without the bus daemon between caller and provider.
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
 *                    for large-idle-close-ms: GDBus reads each message into
 *                    a buffer of the connection that grows to the largest
 *                    message it has read and never shrinks, so a bulk of
 *                    1,000 tiles would otherwise hold 1.4 MB until the
 *                    connection ends;
 *   unsent-bytes     replies a peer has not read: a reply that comes while more
 *                    than this is still unsent closes the connection.
 * Everything else (statement time, reply size, log bytes) is the request's
 * own budget, the same on both transports.
 */
#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/glib_ptr.h"
#include "bus/credentials.h"
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
/* Replies are counted as unsent until a flush after them completes; a flush
 * is asked for once this many bytes were sent since the last one. */
constexpr size_t kFlushAfterBytes = 64 * 1024;

/* ---- listening --------------------------------------------------------------- */

struct Listener {
    GDBusServer* server = nullptr;
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

gboolean AllowMechanismCB(GDBusAuthObserver* /*observer*/, const gchar* mechanism, gpointer /*data*/)
{
    return std::strcmp(mechanism, "EXTERNAL") == 0;
}

gboolean AuthorizePeerCB(GDBusAuthObserver* /*observer*/, GIOStream* /*stream*/, GCredentials* credentials,
                         gpointer /*data*/)
{
    return credentials != nullptr;
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

bool OnNewConnectionCB(GDBusServer* server, GDBusConnection* connection, gpointer data);

GDBusServer* StartServer(const std::string& path, std::string& error)
{
    GCharPtr escaped(g_dbus_address_escape_value(path.c_str()));
    const std::string address = std::string("unix:path=") + escaped.get();
    GCharPtr guid(g_dbus_generate_guid());
    GDBusAuthObserver* observer = g_dbus_auth_observer_new();
    g_signal_connect(observer, "allow-mechanism", G_CALLBACK(AllowMechanismCB), nullptr);
    g_signal_connect(observer, "authorize-authenticated-peer", G_CALLBACK(AuthorizePeerCB), nullptr);
    ScopedError failure;
    /* New connections are handed over on the context that is the thread's
     * default while the server is made: the GLib default one. */
    g_main_context_push_thread_default(g_main_context_default());
    GDBusServer* server =
        g_dbus_server_new_sync(address.c_str(), G_DBUS_SERVER_FLAGS_NONE, guid.get(), observer, nullptr, failure.Out());
    if (server != nullptr) {
        g_signal_connect(server, "new-connection", G_CALLBACK(OnNewConnectionCB), nullptr);
        g_dbus_server_start(server);
    }
    g_main_context_pop_thread_default(g_main_context_default());
    g_object_unref(observer);
    if (server == nullptr) {
        error = failure.Message();
    }
    return server;
}

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
    GDBusServer* server = StartServer(path, error);
    if (server == nullptr) {
        REQUEST_LOGE("cannot listen on request socket %s: %s", path.c_str(), error.c_str());
        return;
    }
    chmod(path.c_str(), 0666);
    s.listeners[busName] = Listener{server, path};
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
    g_dbus_server_stop(listener.server);
    g_object_unref(listener.server);
    unlink(listener.path.c_str());
    REQUEST_LOGD("request socket %s closed", listener.path.c_str());
}

namespace {

/* ---- the peers (GLib default main context only) ------------------------------ */

struct Peer {
    GDBusConnection* connection = nullptr; /* a reference */
    uid_t uid = 0;
    pid_t pid = 0;
    guint objects[2] = {0, 0};
    gulong closedHandler = 0;
    gint64 lastActive = 0;
    /* It carried a request of at least large-request-bytes. */
    bool carriedLarge = false;
    size_t unsent = 0;
    size_t flushing = 0;
    bool flushPending = false;
    bool closing = false;
};

struct Peers {
    std::map<GDBusConnection*, std::unique_ptr<Peer>> byConnection;
    guint idleTimer = 0;
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

void ClosePeer(Peer& peer, const char* why)
{
    if (peer.closing) {
        return;
    }
    peer.closing = true;
    REQUEST_LOGI("request socket: closing the connection of process %d (user %u): %s", static_cast<int>(peer.pid),
                 static_cast<unsigned>(peer.uid), why);
    g_dbus_connection_close(peer.connection, nullptr, nullptr, nullptr);
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
    for (auto& entry : peers.byConnection) {
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
    for (const auto& entry : peers.byConnection) {
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

void FlushedCB(GObject* source, GAsyncResult* result, gpointer /*data*/)
{
    GDBusConnection* connection = G_DBUS_CONNECTION(source);
    g_dbus_connection_flush_finish(connection, result, nullptr);
    Peers& peers = ThePeers();
    auto it = peers.byConnection.find(connection);
    if (it != peers.byConnection.end()) {
        Peer& peer = *it->second;
        peer.unsent -= std::min(peer.unsent, peer.flushing);
        peer.flushing = 0;
        peer.flushPending = false;
    }
    g_object_unref(connection);
}

/* A reply of `bytes` was queued for the peer. */
void CountUnsent(Peer& peer, size_t bytes)
{
    const int64_t limit = config::IntegerSetting(kGroup, "unsent-bytes");
    if (limit > 0 && peer.unsent > static_cast<size_t>(limit)) {
        ClosePeer(peer, ("more than " + std::to_string(limit) + " bytes of replies unread").c_str());
        return;
    }
    peer.unsent += bytes;
    if (!peer.flushPending && peer.unsent >= kFlushAfterBytes) {
        peer.flushPending = true;
        peer.flushing = peer.unsent;
        g_dbus_connection_flush(peer.connection, nullptr, FlushedCB, g_object_ref(peer.connection));
    }
}

void OnDirectCallCB(GDBusConnection* connection, const gchar* /*sender*/, const gchar* /*objectPath*/,
                    const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                    GDBusMethodInvocation* invocation, gpointer /*data*/)
{
    Peers& peers = ThePeers();
    auto it = peers.byConnection.find(connection);
    if (it == peers.byConnection.end() || it->second->closing) {
        g_dbus_method_invocation_return_dbus_error(invocation, kErrorRefused, "the connection is closing");
        return;
    }
    Peer& peer = *it->second;
    peer.lastActive = g_get_monotonic_time();
    NoteRequestSize(peer, g_variant_get_size(parameters));
    std::unique_ptr<Job> job = ReadCall(interfaceName, methodName, parameters, invocation);
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

void OnPeerClosedCB(GDBusConnection* connection, gboolean /*vanished*/, GError* /*error*/, gpointer /*data*/)
{
    Peers& peers = ThePeers();
    auto it = peers.byConnection.find(connection);
    if (it == peers.byConnection.end()) {
        return;
    }
    std::unique_ptr<Peer> peer = std::move(it->second);
    peers.byConnection.erase(it);
    for (guint id : peer->objects) {
        if (id != 0) {
            g_dbus_connection_unregister_object(connection, id);
        }
    }
    g_signal_handler_disconnect(connection, peer->closedHandler);
    REQUEST_LOGD("request socket: lost the connection of process %d", static_cast<int>(peer->pid));
    g_object_unref(peer->connection);
    /* Its buffers go back to the allocator as GDBus lets the connection go;
     * from there, to the system. */
    TrimWhenIdle();
}

/* Null when the peer may connect; otherwise why not. */
const char* OverConnectionBudget(uid_t uid)
{
    const Peers& peers = ThePeers();
    size_t total = 0;
    size_t ofUser = 0;
    for (const auto& entry : peers.byConnection) {
        ++total;
        ofUser += entry.second->uid == uid ? 1 : 0;
    }
    if (static_cast<int64_t>(total) >= config::IntegerSetting(kGroup, "max-connections")) {
        return "max-connections";
    }
    if (static_cast<int64_t>(ofUser) >=
        config::IntegerSetting(kGroup, "max-connections-per-user")) {
        return "max-connections-per-user";
    }
    return nullptr;
}

bool ExportObjects(Peer& peer)
{
    static const GDBusInterfaceVTable vtable = {OnDirectCallCB, nullptr, nullptr, {nullptr}};
    GDBusNodeInfo* node = RequestNodeInfo();
    if (node == nullptr) {
        return false;
    }
    const char* paths[2] = {kDataControlPath, kContentPath};
    const char* interfaces[2] = {kDataControlInterface, kContentInterface};
    for (int i = 0; i < 2; ++i) {
        peer.objects[i] = g_dbus_connection_register_object(peer.connection, paths[i],
                                                            g_dbus_node_info_lookup_interface(node, interfaces[i]),
                                                            &vtable, nullptr, nullptr, nullptr);
        if (peer.objects[i] == 0) {
            return false;
        }
    }
    return true;
}

bool OnNewConnectionCB(GDBusServer* /*server*/, GDBusConnection* connection, gpointer /*data*/)
{
    GCredentials* credentials = g_dbus_connection_get_peer_credentials(connection);
    if (credentials == nullptr) {
        return FALSE;
    }
    std::unique_ptr<Peer> peer(new Peer());
    peer->uid = g_credentials_get_unix_user(credentials, nullptr);
    peer->pid = g_credentials_get_unix_pid(credentials, nullptr);
    if (const char* budget = OverConnectionBudget(peer->uid)) {
        REQUEST_LOGE("request socket: the connection of process %d (user %u) is closed: over [request-socket] %s",
                     static_cast<int>(peer->pid), static_cast<unsigned>(peer->uid), budget);
        return FALSE;
    }
    peer->connection = static_cast<GDBusConnection*>(g_object_ref(connection));
    peer->lastActive = g_get_monotonic_time();
    if (!ExportObjects(*peer)) {
        for (guint id : peer->objects) {
            if (id != 0) {
                g_dbus_connection_unregister_object(connection, id);
            }
        }
        g_object_unref(peer->connection);
        return FALSE;
    }
    peer->closedHandler = g_signal_connect(connection, "closed", G_CALLBACK(OnPeerClosedCB), nullptr);
    REQUEST_LOGD("request socket: connection of process %d (user %u)", static_cast<int>(peer->pid),
                 static_cast<unsigned>(peer->uid));
    ThePeers().byConnection[connection] = std::move(peer);
    ArmIdleTimer();
    return TRUE;
}

}  // namespace

}  // namespace requests
}  // namespace host
}  // namespace tilvane
