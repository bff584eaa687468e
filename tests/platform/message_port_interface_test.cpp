/*
 * The message-port interface's published description (message_port.xml) is
 * what a process exports on the bus.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "Introspection.h"
#include <host_control.h>
#include <message_port.h>

#include <string>

#include "TestSupport.h"

using tilvane::test::PlatformSandbox;
using tilvane::test::PrivateBus;

namespace {

std::string PublishedXmlPath()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../../platform/host/message_port.xml";
}

void IgnoreMessage(int, const char*, const char*, bool, bundle*, void*)
{
}

}  // namespace

TEST(MessagePortInterface, ThePublishedDescriptionIsWhatAProcessExports)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    PlatformSandbox sandbox;
    tilvane::host::SetOwnAppId("org.example.ports");
    ASSERT_GT(message_port_register_local_port("any", IgnoreMessage, nullptr), 0);

    gchar* published = nullptr;
    ASSERT_TRUE(g_file_get_contents(PublishedXmlPath().c_str(), &published, nullptr, nullptr)) << PublishedXmlPath();
    GDBusNodeInfo* file = g_dbus_node_info_new_for_xml(published, nullptr);
    g_free(published);
    ASSERT_NE(file, nullptr);

    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        bus.Address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    ASSERT_NE(connection, nullptr);
    const std::string appName = tilvane::host::BusNameForAppId("org.example.ports");
    GVariant* reply = g_dbus_connection_call_sync(connection, appName.c_str(), "/org/tilvane/MessagePort",
                                                  "org.freedesktop.DBus.Introspectable", "Introspect", nullptr,
                                                  G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    ASSERT_NE(reply, nullptr) << (error != nullptr ? error->message : "");
    const gchar* xml = nullptr;
    g_variant_get(reply, "(&s)", &xml);
    GDBusNodeInfo* live = g_dbus_node_info_new_for_xml(xml, nullptr);
    ASSERT_NE(live, nullptr);
    GDBusInterfaceInfo* exported = g_dbus_node_info_lookup_interface(live, "org.tilvane.MessagePort");
    GDBusInterfaceInfo* described = g_dbus_node_info_lookup_interface(file, "org.tilvane.MessagePort");
    ASSERT_NE(exported, nullptr);
    ASSERT_NE(described, nullptr);
    EXPECT_EQ(tilvane::test::MethodSignatures(exported), "Deliver(ssss)->();HasPort(s)->(b);");
    EXPECT_EQ(tilvane::test::MethodSignatures(exported), tilvane::test::MethodSignatures(described));

    g_dbus_node_info_unref(live);
    g_variant_unref(reply);
    g_dbus_node_info_unref(file);
    g_object_unref(connection);
}
