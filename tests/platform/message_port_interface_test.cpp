/*
 * The message-port interface's published description (message_port.xml) is
 * what a process exports on the bus.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>

#include "MethodSignatures.h"
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
    return here.substr(0, here.rfind('/')) + "/../../platform/host/ports/message_port.xml";
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

    const std::string exported =
        tilvane::test::ExportedSignatures(bus.Address(), tilvane::host::BusNameForAppId("org.example.ports"),
                                          "/org/tilvane/MessagePort", "org.tilvane.MessagePort");
    EXPECT_EQ(exported, "Deliver(ssss)->();HasPort(s)->(b);");
    EXPECT_EQ(exported, tilvane::test::DescribedSignatures(PublishedXmlPath(), "org.tilvane.MessagePort"));
}
