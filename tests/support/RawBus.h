/*
 * A test's own bus connection, outside the host platform, and the
 * message-port call it makes by hand: what a client that does not use the
 * platform's library can send.
 */
#ifndef TILVANE_TEST_RAW_BUS_H
#define TILVANE_TEST_RAW_BUS_H

#include <bundle.h>
#include <gio/gio.h>
#include <host_control.h>

#include <string>

namespace tilvane {
namespace test {

/* A new connection to the bus at `address` (the session bus when null);
 * null, with `error` set, on failure. */
inline GDBusConnection* OpenRawConnection(const char* address = nullptr, GError** error = nullptr)
{
    return g_dbus_connection_new_for_address_sync(
        address != nullptr ? address : g_getenv("DBUS_SESSION_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error);
}

/* Takes `name` for `connection`, without queueing for it: true when the
 * connection now owns it. */
inline bool OwnRawName(GDBusConnection* connection, const std::string& name)
{
    GVariant* reply = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), 4u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
        nullptr);
    if (reply == nullptr) {
        return false;
    }
    guint32 answer = 0;
    g_variant_get(reply, "(u)", &answer);
    g_variant_unref(reply);
    return answer == 1;
}

/* Calls Deliver on the message-port object of `appId` over `connection`,
 * claiming to come from `senderApp` (its port `senderPort`, "" for none), and
 * waits for the answer: null when it succeeded, else the error (for the
 * caller to free). */
inline GError* CallDeliver(GDBusConnection* connection, const std::string& appId, const std::string& port,
                           const std::string& senderApp, const std::string& senderPort, bundle* message)
{
    bundle_raw* raw = nullptr;
    int length = 0;
    bundle_encode(message, &raw, &length);
    std::string encoded(reinterpret_cast<const char*>(raw), static_cast<size_t>(length));
    bundle_free_encoded_rawdata(&raw);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, host::BusNameForAppId(appId).c_str(), "/org/tilvane/MessagePort", "org.tilvane.MessagePort",
        "Deliver", g_variant_new("(ssss)", port.c_str(), senderApp.c_str(), senderPort.c_str(), encoded.c_str()),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
    return error;
}

}  // namespace test
}  // namespace tilvane

#endif
