/*
 * An application on the bus that never answers: a hand-made connection that
 * owns an application's bus name and the names of its ports, exports the
 * message-port object, and queues every call on a main context that nobody
 * runs until Answer() is called. Calls to it never get a reply, as with a
 * process that has stopped reading.
 */
#ifndef TILVANE_TEST_STUCK_RECEIVER_H
#define TILVANE_TEST_STUCK_RECEIVER_H

#include <bundle.h>
#include <gio/gio.h>
#include <host_control.h>

#include <string>
#include <vector>

#include "RawBus.h"

namespace tilvane {
namespace test {

class StuckReceiver
{
public:
    StuckReceiver(const std::string& appId, const std::vector<std::string>& ports) : m_appId(appId)
    {
        m_context = g_main_context_new();
        GError* error = nullptr;
        m_connection = OpenRawConnection(nullptr, &error);
        if (m_connection == nullptr) {
            m_error = error != nullptr ? error->message : "no connection";
            g_clear_error(&error);
            return;
        }
        bool owned = Own(host::BusNameForAppId(appId));
        for (const std::string& port : ports) {
            owned = owned && Own(host::BusNameForPort(appId, port));
        }
        GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
            "<node><interface name='org.tilvane.MessagePort'>"
            "<method name='Deliver'><arg type='s' direction='in'/><arg type='s' direction='in'/>"
            "<arg type='s' direction='in'/><arg type='s' direction='in'/></method>"
            "<method name='HasPort'><arg type='s' direction='in'/><arg type='b' direction='out'/></method>"
            "</interface></node>",
            nullptr);
        static const GDBusInterfaceVTable vtable = {OnCallCB, nullptr, nullptr, {nullptr}};
        g_main_context_push_thread_default(m_context);
        m_objectId = g_dbus_connection_register_object(m_connection, "/org/tilvane/MessagePort",
                                                       node->interfaces[0], &vtable, this, nullptr, &error);
        g_main_context_pop_thread_default(m_context);
        g_dbus_node_info_unref(node);
        if (m_objectId == 0 || !owned) {
            m_error = error != nullptr ? error->message : "a name could not be owned";
        }
        g_clear_error(&error);
    }

    ~StuckReceiver()
    {
        if (m_connection != nullptr) {
            if (m_objectId != 0) {
                g_dbus_connection_unregister_object(m_connection, m_objectId);
            }
            g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
            g_object_unref(m_connection);
        }
        while (g_main_context_iteration(m_context, FALSE)) {
        }
        g_main_context_unref(m_context);
    }

    StuckReceiver(const StuckReceiver&) = delete;
    StuckReceiver& operator=(const StuckReceiver&) = delete;

    bool Ready() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }

    /* Sends `message` to `port` of `appId` as this application, from its port
     * `senderPort`, and waits for the answer (the receiver is a live service). */
    std::string Send(const std::string& appId, const std::string& port, const std::string& senderPort, bundle* message)
    {
        GError* error = CallDeliver(m_connection, appId, port, m_appId, senderPort, message);
        if (error == nullptr) {
            return "";
        }
        std::string failure = error->message;
        g_error_free(error);
        return failure;
    }

    /* Answers every call queued so far; returns how many calls arrived in all. */
    int Answer()
    {
        while (g_main_context_iteration(m_context, FALSE)) {
        }
        return m_calls;
    }

private:
    bool Own(const std::string& name) { return OwnRawName(m_connection, name); }

    static void OnCallCB(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant*,
                         GDBusMethodInvocation* invocation, gpointer data)
    {
        ++static_cast<StuckReceiver*>(data)->m_calls;
        if (g_strcmp0(method, "HasPort") == 0) {
            g_dbus_method_invocation_return_value(invocation, g_variant_new("(b)", TRUE));
            return;
        }
        g_dbus_method_invocation_return_value(invocation, nullptr);
    }

    std::string m_appId;
    GMainContext* m_context = nullptr;
    GDBusConnection* m_connection = nullptr;
    guint m_objectId = 0;
    int m_calls = 0;
    std::string m_error;
};

}  // namespace test
}  // namespace tilvane

#endif
