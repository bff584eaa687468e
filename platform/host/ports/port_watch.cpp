/*
 * Watches on remote ports (message_port_add_unregistered_cb): a watched port
 * ends when the bus name of its application or of the port itself loses its
 * owner, as the bus daemon's NameOwnerChanged signals say (port_delivery.h
 * hands them over). The callback runs on the GLib default main context.
 */
#include <gio/gio.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/host_state.h"
#include "ports/port_connection.h"
#include "dlog.h"
#include "identity/app_identity.h"
#include "message_port.h"
#include "ports/port_delivery.h"
#include "host_control/identity.h"
#include "host_control/base.h"

namespace tilvane {
namespace host {
namespace {

#define WATCH_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)

/* A process watches a bounded number of ports: each costs a little memory. */
constexpr size_t kMaxWatches = 4096;

struct PortWatch {
    std::string appId;
    std::string port;
    std::string appName;
    std::string portName;
    message_port_registration_event_cb callback;
    void* userData;
};

struct WatchState {
    std::mutex mutex;
    std::map<int, PortWatch> watches;
    int nextId = 1;
};

WatchState& TheWatchState()
{
    static WatchState* state = new WatchState();
    return *state;
}

/* On the default main context: the watch still exists, so its port is gone. */
gboolean FireWatchCB(gpointer data)
{
    const int id = GPOINTER_TO_INT(data);
    PortWatch watch;
    {
        WatchState& s = TheWatchState();
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.watches.find(id);
        if (it == s.watches.end()) {
            return G_SOURCE_REMOVE;
        }
        watch = it->second;
    }
    WATCH_LOGD("remote port %s of %s is gone (watch %d)", watch.port.c_str(), watch.appId.c_str(), id);
    watch.callback(watch.appId.c_str(), watch.port.c_str(), false, watch.userData);
    return G_SOURCE_REMOVE;
}

void PostFire(int id)
{
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, FireWatchCB, GINT_TO_POINTER(id), nullptr);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

}  // namespace

void NotePortWatchOwnerChange(GDBusConnection* /*connection*/, const char* name, const char* oldOwner,
                              const char* newOwner)
{
    if (*oldOwner == '\0' || *newOwner != '\0') {
        return; /* only a name that lost its owner ends a port */
    }
    WatchState& s = TheWatchState();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (const auto& entry : s.watches) {
        if (entry.second.appName == name || entry.second.portName == name) {
            PostFire(entry.first);
        }
    }
}

void RecheckPortWatches(GDBusConnection* connection)
{
    std::vector<std::pair<int, std::string>> watched;
    {
        WatchState& s = TheWatchState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const auto& entry : s.watches) {
            watched.emplace_back(entry.first, entry.second.appId);
        }
    }
    for (const auto& entry : watched) {
        std::string owner;
        if (ApplicationOwner(connection, entry.second, owner) && owner.empty()) {
            PostFire(entry.first);
        }
    }
}

void ForgetPortWatches()
{
    WatchState& s = TheWatchState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.watches.clear();
    s.nextId = 1;
}

size_t WatchedRemotePorts()
{
    WatchState& s = TheWatchState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.watches.size();
}

}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

extern "C" int message_port_add_unregistered_cb(const char* remote_app_id, const char* remote_port,
                                                bool /*trusted_remote_port*/,
                                                message_port_registration_event_cb unregistered_cb, void* user_data,
                                                int* watcher_id)
{
    if (remote_app_id == nullptr || *remote_app_id == '\0' || remote_port == nullptr || *remote_port == '\0' ||
        unregistered_cb == nullptr || watcher_id == nullptr) {
        return MESSAGE_PORT_ERROR_INVALID_PARAMETER;
    }
    if (ShouldFail("message_port_add_unregistered_cb")) {
        return MESSAGE_PORT_ERROR_IO_ERROR;
    }
    int result = MESSAGE_PORT_ERROR_NONE;
    GDBusConnectionPtr connection = PortsConnection(false, &result);
    if (!connection) {
        return result;
    }
    const std::string appName = BusNameForAppId(remote_app_id);
    PortWatch watch{remote_app_id, remote_port, appName, PortBusName(remote_app_id, remote_port), unregistered_cb,
                    user_data};
    int id = 0;
    {
        WatchState& s = TheWatchState();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.watches.size() >= kMaxWatches) {
            return MESSAGE_PORT_ERROR_MAX_EXCEEDED;
        }
        id = s.nextId++;
        s.watches.emplace(id, watch);
    }
    *watcher_id = id;
    /* Asked after the watch is in place: a departure is then either seen
     * here or signalled afterwards. */
    std::string owner;
    if (appName.empty() || (ApplicationOwner(connection.get(), remote_app_id, owner) && owner.empty())) {
        PostFire(id);
    }
    return MESSAGE_PORT_ERROR_NONE;
}

extern "C" int message_port_remove_registration_event_cb(int watcher_id)
{
    WatchState& s = TheWatchState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.watches.erase(watcher_id) != 0 ? MESSAGE_PORT_ERROR_NONE : MESSAGE_PORT_ERROR_INVALID_PARAMETER;
}
