/*
 * Direct connections to the providers' request sockets (request_socket.h).
 */
#include "client/request_socket.h"

#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <sys/stat.h>

#include <map>
#include <mutex>

#include "bus/bus_connection.h"
#include "dlog.h"
#include "identity/identity_mode.h"
#include "requests/request_names.h"
#include "base/host_state.h"

#define SOCKET_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace {

constexpr int kBusCallTimeoutMs = 10000;

struct DirectState {
    std::mutex mutex;
    std::map<std::string, GDBusConnectionPtr> connections; /* provider's bus name -> */
};

DirectState& TheDirectState()
{
    static DirectState* state = new DirectState();
    return *state;
}

/* The user the bus reports for the owner of `busName`; false when it has none. */
bool OwnerUser(const std::string& busName, uid_t& uid)
{
    ConnectionProblem problem = ConnectionProblem::None;
    GDBusConnectionPtr bus = SharedBusConnection(false, &problem);
    if (!bus) {
        return false;
    }
    GVariantPtr reply(g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetConnectionUnixUser",
                                                  g_variant_new("(s)", busName.c_str()), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs, nullptr, nullptr));
    if (!reply) {
        return false;
    }
    guint32 value = 0;
    g_variant_get(reply.get(), "(u)", &value);
    uid = static_cast<uid_t>(value);
    return true;
}

/* In the verified mode: the process listening on the socket runs as the user
 * of the name's owner. */
bool ListenerIsOwner(GSocketConnection* stream, const std::string& busName)
{
    if (identity::CurrentMode() == identity::Mode::Development) {
        return true;
    }
    GCredentials* credentials = g_socket_get_credentials(g_socket_connection_get_socket(stream), nullptr);
    if (credentials == nullptr) {
        return false;
    }
    const uid_t listener = g_credentials_get_unix_user(credentials, nullptr);
    g_object_unref(credentials);
    uid_t owner = 0;
    if (!OwnerUser(busName, owner) || owner != listener) {
        SOCKET_LOGD("request socket of %s is not its owner's (user %u); using the bus", busName.c_str(),
                    static_cast<unsigned>(listener));
        return false;
    }
    return true;
}

GDBusConnectionPtr Connect(const std::string& busName)
{
    const std::string path = RequestSocketPath(busName);
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) {
        return nullptr;
    }
    GSocketClient* client = g_socket_client_new();
    GSocketAddress* address = g_unix_socket_address_new(path.c_str());
    GSocketConnection* stream = g_socket_client_connect(client, G_SOCKET_CONNECTABLE(address), nullptr, nullptr);
    g_object_unref(address);
    g_object_unref(client);
    if (stream == nullptr) {
        return nullptr;
    }
    GDBusConnection* connection = nullptr;
    if (ListenerIsOwner(stream, busName)) {
        connection = g_dbus_connection_new_sync(G_IO_STREAM(stream), nullptr,
                                                G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr,
                                                nullptr);
    }
    g_object_unref(stream);
    return GDBusConnectionPtr(connection);
}

}  // namespace

GDBusConnectionPtr DirectRequestConnection(const std::string& busName)
{
    DirectState& s = TheDirectState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.connections.find(busName);
    if (it != s.connections.end() && !g_dbus_connection_is_closed(it->second.get())) {
        return GDBusConnectionPtr(static_cast<GDBusConnection*>(g_object_ref(it->second.get())));
    }
    GDBusConnectionPtr connection = Connect(busName);
    if (!connection) {
        s.connections.erase(busName);
        return nullptr;
    }
    s.connections[busName] = GDBusConnectionPtr(static_cast<GDBusConnection*>(g_object_ref(connection.get())));
    return connection;
}

void DropDirectRequestConnection(const std::string& busName, GDBusConnection* connection)
{
    DirectState& s = TheDirectState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.connections.find(busName);
    if (it != s.connections.end() && it->second.get() == connection) {
        s.connections.erase(it);
    }
}

}  // namespace host
}  // namespace tilvane
