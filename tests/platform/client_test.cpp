/*
 * The client library's descriptions of results, and the published interface
 * description of the request request interfaces against the objects a process exports.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "Introspection.h"
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

#include <string>

#include "TestSupport.h"

using tilvane::client::Describe;
using tilvane::client::Outcome;
using tilvane::client::Result;
using tilvane::test::PlatformSandbox;
using tilvane::test::PrivateBus;

namespace {

Result Make(Outcome outcome, int code, const std::string& message = std::string())
{
    Result result;
    result.outcome = outcome;
    result.code = code;
    result.message = message;
    return result;
}

void NoteCB(int, const char*, const char*, bool, bundle*, void*) {}

}  // namespace

TEST(ClientDescribe, EveryOutcomeHasItsMeaning)
{
    EXPECT_EQ(Describe(Make(Outcome::Answered, 0)), "done");
    EXPECT_EQ(Describe(Make(Outcome::Answered, -13)), "permission denied (-13)");
    EXPECT_EQ(Describe(Make(Outcome::Answered, -22)), "invalid URI (-22)");
    EXPECT_EQ(Describe(Make(Outcome::Answered, static_cast<int>(0xC0000000))), "failed (-1073741824)");
    EXPECT_EQ(Describe(Make(Outcome::NoResult, 0)), "no result from the provider");
    EXPECT_EQ(Describe(Make(Outcome::ProviderError, 0, "failed by NULL user_data")),
              "the provider refused: failed by NULL user_data");
    EXPECT_EQ(Describe(Make(Outcome::NotServed, 0)), "not served: no provider answers this request");
    EXPECT_TRUE(Make(Outcome::Answered, 0).Ok());
    EXPECT_FALSE(Make(Outcome::Answered, -13).Ok());
    EXPECT_FALSE(Make(Outcome::NoResult, 0).Ok());
}

TEST(ClientNoBus, WithoutABusEveryRequestIsABusError)
{
    PlatformSandbox sandbox;
    const char* saved = getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string previous = saved != nullptr ? saved : "";
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    tilvane::client::ContentClient content;
    EXPECT_EQ(content.Insert("content://org.example.a/tiles", {{"a", "b"}}).outcome, Outcome::BusError);
    tilvane::client::DataControlClient dataControl("content://org.example.a");
    EXPECT_EQ(dataControl.Delete("tiles", "").outcome, Outcome::BusError);
    if (saved != nullptr) {
        setenv("DBUS_SESSION_BUS_ADDRESS", previous.c_str(), 1);
    }
}

TEST(ClientInterfaces, ThePublishedDescriptionIsWhatAProcessExports)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    PlatformSandbox sandbox;
    tilvane::host::SetOwnAppId("org.example.introspected");
    ASSERT_GT(message_port_register_local_port("any", NoteCB, nullptr), 0); /* opens the connection */

    gchar* published = nullptr;
    ASSERT_TRUE(g_file_get_contents(TILVANE_REQUEST_INTERFACES_XML, &published, nullptr, nullptr));
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
    const std::string appName = tilvane::host::BusNameForAppId("org.example.introspected");
    for (const char* path : {"/org/tilvane/DataControl", "/org/tilvane/Content"}) {
        GVariant* reply = g_dbus_connection_call_sync(connection, appName.c_str(), path,
                                                      "org.freedesktop.DBus.Introspectable", "Introspect", nullptr,
                                                      G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                      &error);
        ASSERT_NE(reply, nullptr) << (error != nullptr ? error->message : "");
        const gchar* xml = nullptr;
        g_variant_get(reply, "(&s)", &xml);
        GDBusNodeInfo* live = g_dbus_node_info_new_for_xml(xml, nullptr);
        ASSERT_NE(live, nullptr);
        const char* name = std::string(path) == "/org/tilvane/DataControl" ? "org.tilvane.DataControl"
                                                                           : "org.tilvane.Content";
        GDBusInterfaceInfo* exported = g_dbus_node_info_lookup_interface(live, name);
        GDBusInterfaceInfo* described = g_dbus_node_info_lookup_interface(file, name);
        ASSERT_NE(exported, nullptr);
        ASSERT_NE(described, nullptr);
        EXPECT_EQ(tilvane::test::MethodSignatures(exported), tilvane::test::MethodSignatures(described));
        EXPECT_FALSE(tilvane::test::MethodSignatures(described).empty());
        g_dbus_node_info_unref(live);
        g_variant_unref(reply);
    }
    g_dbus_node_info_unref(file);
    g_object_unref(connection);
}
