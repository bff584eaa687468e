#include "bus/signal_bus.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "bus/credentials.h"
#include "base/glib_ptr.h"
#include "config/config_keys.h"
#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "dlog.h"

#define SIGNAL_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define SIGNAL_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace signals {
namespace {

struct Wanted {
    std::string interface;
    std::string member;
    SignalHandler handler;
};

struct SignalState {
    std::mutex mutex;
    GDBusConnectionPtr connection;
    std::string uniqueName;
    /* "interface.member" -> what was asked for: subscribed again on every new
     * connection, so that a lost connection loses no subscriber. */
    std::map<std::string, Wanted> wanted;
    /* "interface.member" -> subscription id on the current connection */
    std::map<std::string, guint> subscriptions;
};

SignalState& TheSignalState()
{
    static SignalState* state = new SignalState();
    return *state;
}

void OnSignalCB(GDBusConnection* connection, const gchar* senderName, const gchar* objectPath,
                const gchar* interfaceName, const gchar* signalName, GVariant* parameters, gpointer userData);

/* With the state's mutex held: `wanted` subscribed on the connection. */
void SubscribeLocked(SignalState& s, const std::string& name, const Wanted& wanted)
{
    /* Signals are dispatched on the context that is the thread's default at
     * subscription: make it the application's loop. */
    g_main_context_push_thread_default(g_main_context_default());
    const guint id = g_dbus_connection_signal_subscribe(
        s.connection.get(), nullptr, wanted.interface.c_str(), wanted.member.c_str(), kPath, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, OnSignalCB, reinterpret_cast<gpointer>(wanted.handler), nullptr);
    g_main_context_pop_thread_default(g_main_context_default());
    s.subscriptions[name] = id;
    /* The match rule must be in place before anyone relies on it. */
    g_dbus_connection_flush_sync(s.connection.get(), nullptr, nullptr);
    ScopedError error;
    GVariantPtr ping(g_dbus_connection_call_sync(s.connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", "GetId", nullptr, G_VARIANT_TYPE("(s)"),
                                                 G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, error.Out()));
}

/* With the state's mutex held. */
GDBusConnection* ConnectionLocked(SignalState& s)
{
    if (s.connection && !g_dbus_connection_is_closed(s.connection.get())) {
        return s.connection.get();
    }
    s.connection.reset();
    s.subscriptions.clear();
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        return nullptr;
    }
    ScopedError error;
    s.connection.reset(g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.Out()));
    if (!s.connection) {
        SIGNAL_LOGE("cannot use the message bus at %s for notifications: %s", address, error.Message());
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(s.connection.get(), FALSE);
    const gchar* unique = g_dbus_connection_get_unique_name(s.connection.get());
    s.uniqueName = unique != nullptr ? unique : "";
    SIGNAL_LOGD("notification bus connection opened (%s)", s.uniqueName.c_str());
    for (const auto& entry : s.wanted) {
        SubscribeLocked(s, entry.first, entry.second);
    }
    return s.connection.get();
}

void OnSignalCB(GDBusConnection* connection, const gchar* senderName, const gchar* /*objectPath*/,
                const gchar* interfaceName, const gchar* signalName, GVariant* parameters, gpointer userData)
{
    SignalState& s = TheSignalState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (senderName != nullptr && s.uniqueName == senderName) {
            return; /* our own: already handled in the process */
        }
    }
    /* Platform events count only when the platform raised them. */
    std::string reason;
    if (!identity::SenderIsPlatform(connection, senderName != nullptr ? senderName : "", reason)) {
        SIGNAL_LOGE("%s.%s ignored: %s", interfaceName, signalName, reason.c_str());
        return;
    }
    reinterpret_cast<SignalHandler>(userData)(parameters);
}

/* In the verified mode a receiver asks the bus for the emitter's user when the
 * signal reaches it: an emitter that ends at once would be gone by then and
 * its signal ignored. It stays on the bus a little while for them. */
void LingerForReceivers()
{
    if (identity::CurrentMode() != identity::Mode::Verified) {
        return;
    }
    const int64_t lingerMs = config::IntegerSetting("identity", "signal-linger-ms");
    if (lingerMs > 0) {
        g_usleep(static_cast<gulong>(std::min<int64_t>(lingerMs, 10000)) * 1000);
    }
}

}  // namespace

bool Subscribe(const char* interface, const char* member, SignalHandler handler)
{
    SignalState& s = TheSignalState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (ConnectionLocked(s) == nullptr) {
        return false;
    }
    const std::string name = std::string(interface) + "." + member;
    if (s.subscriptions.count(name) != 0) {
        return true;
    }
    s.wanted[name] = Wanted{interface, member, handler};
    SubscribeLocked(s, name, s.wanted[name]);
    return true;
}

bool Reconnect()
{
    SignalState& s = TheSignalState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.wanted.empty() || ConnectionLocked(s) != nullptr;
}

bool Emit(const char* interface, const char* member, GVariant* parameters)
{
    GVariantPtr owned(g_variant_ref_sink(parameters));
    SignalState& s = TheSignalState();
    std::lock_guard<std::mutex> lock(s.mutex);
    GDBusConnection* connection = ConnectionLocked(s);
    if (connection == nullptr) {
        return false;
    }
    ScopedError error;
    if (!g_dbus_connection_emit_signal(connection, nullptr, kPath, interface, member, owned.get(), error.Out()) ||
        !g_dbus_connection_flush_sync(connection, nullptr, error.Out())) {
        SIGNAL_LOGE("cannot emit %s.%s: %s", interface, member, error.Message());
        return false;
    }
    LingerForReceivers();
    return true;
}

}  // namespace signals

void CloseSignalBus()
{
    signals::SignalState& s = signals::TheSignalState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.connection) {
        for (const auto& entry : s.subscriptions) {
            g_dbus_connection_signal_unsubscribe(s.connection.get(), entry.second);
        }
        if (!g_dbus_connection_is_closed(s.connection.get())) {
            g_dbus_connection_close_sync(s.connection.get(), nullptr, nullptr);
        }
    }
    s.subscriptions.clear();
    s.wanted.clear();
    s.uniqueName.clear();
    s.connection.reset();
}

namespace {
/* Reset(): the notification connection is closed. */
const ResetHook kResetCloseSignalBus(5, CloseSignalBus);
}  // namespace

}  // namespace host
}  // namespace tilvane
