/*
 * The client library's descriptions of results, and the published interface
 * description of the request request interfaces against the objects a process exports.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "MethodSignatures.h"
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

#include <string>

#include "TestSupport.h"

using namespace tilvane::client;
using namespace tilvane::test;

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

    const std::string appName = tilvane::host::BusNameForAppId("org.example.introspected");
    for (const char* path : {"/org/tilvane/DataControl", "/org/tilvane/Content"}) {
        const char* name = std::string(path) == "/org/tilvane/DataControl" ? "org.tilvane.DataControl"
                                                                           : "org.tilvane.Content";
        const std::string described = tilvane::test::DescribedSignatures(TILVANE_REQUEST_INTERFACES_XML, name);
        EXPECT_EQ(tilvane::test::ExportedSignatures(bus.Address(), appName, path, name), described);
        EXPECT_FALSE(described.empty());
    }
}
