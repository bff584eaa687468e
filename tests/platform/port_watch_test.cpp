/*
 * Watches on remote ports (message_port_add_unregistered_cb): the callback
 * runs on the application's loop when the watched application leaves the
 * bus or lets the port's name go, at once for an application that does not
 * run, and never after the watch was removed.
 */
#include <gtest/gtest.h>
#include <host_control.h>
#include <message_port.h>

#include <memory>
#include <string>
#include <vector>

#include "StuckReceiver.h"
#include "TestSupport.h"

namespace {

using tilvane::test::IterateMainContextUntil;
using tilvane::test::StuckReceiver;

struct Gone {
    std::string app;
    std::string port;
};

void GoneCB(const char* app, const char* port, bool /*trusted*/, void* data)
{
    static_cast<std::vector<Gone>*>(data)->push_back({app, port});
}

class PortWatchTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::SetOwnAppId("com.example.watcher"); }

    int Watch(const char* app, const char* port)
    {
        int id = 0;
        EXPECT_EQ(message_port_add_unregistered_cb(app, port, false, GoneCB, &m_gone, &id), MESSAGE_PORT_ERROR_NONE);
        EXPECT_GT(id, 0);
        return id;
    }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::PlatformSandbox m_sandbox;
    std::vector<Gone> m_gone;
};

TEST_F(PortWatchTest, AnApplicationThatLeavesEndsEveryWatchedPortOfIt)
{
    ASSERT_TRUE(m_bus.IsRunning());
    auto remote = std::make_unique<StuckReceiver>("com.example.remote", std::vector<std::string>{"inbox"});
    ASSERT_TRUE(remote->Ready()) << remote->Error();
    Watch("com.example.remote", "inbox");
    /* A port that never ran goes with its application. */
    Watch("com.example.remote", "made-up");
    IterateMainContextUntil([] { return false; }, 200);
    EXPECT_TRUE(m_gone.empty());

    remote.reset();
    ASSERT_TRUE(IterateMainContextUntil([&] { return m_gone.size() >= 3; }, 5000)) << m_gone.size();
    IterateMainContextUntil([] { return false; }, 200);
    /* The port's name and the application's were both lost: "inbox" twice. */
    int inbox = 0;
    int madeUp = 0;
    for (const Gone& gone : m_gone) {
        EXPECT_EQ(gone.app, "com.example.remote");
        inbox += gone.port == "inbox" ? 1 : 0;
        madeUp += gone.port == "made-up" ? 1 : 0;
    }
    EXPECT_EQ(inbox, 2);
    EXPECT_EQ(madeUp, 1);
}

TEST_F(PortWatchTest, AnApplicationThatDoesNotRunIsReportedAtOnce)
{
    ASSERT_TRUE(m_bus.IsRunning());
    Watch("com.example.absent", "inbox");
    ASSERT_TRUE(IterateMainContextUntil([&] { return !m_gone.empty(); }, 5000));
    EXPECT_EQ(m_gone[0].port, "inbox");
}

TEST_F(PortWatchTest, ARemovedWatchIsNeverCalled)
{
    ASSERT_TRUE(m_bus.IsRunning());
    auto remote = std::make_unique<StuckReceiver>("com.example.remote", std::vector<std::string>{"inbox"});
    ASSERT_TRUE(remote->Ready()) << remote->Error();
    const int id = Watch("com.example.remote", "inbox");
    EXPECT_EQ(message_port_remove_registration_event_cb(id), MESSAGE_PORT_ERROR_NONE);
    EXPECT_EQ(message_port_remove_registration_event_cb(id), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    remote.reset();
    IterateMainContextUntil([] { return false; }, 500);
    EXPECT_TRUE(m_gone.empty());
}

TEST_F(PortWatchTest, BadArgumentsAndNoBusAreRefused)
{
    int id = 0;
    EXPECT_EQ(message_port_add_unregistered_cb(nullptr, "p", false, GoneCB, &m_gone, &id),
              MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_add_unregistered_cb("a", "", false, GoneCB, &m_gone, &id),
              MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_add_unregistered_cb("a", "p", false, nullptr, &m_gone, &id),
              MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    tilvane::host::FailNextCalls("message_port_add_unregistered_cb", 1);
    EXPECT_EQ(message_port_add_unregistered_cb("a", "p", false, GoneCB, &m_gone, &id), MESSAGE_PORT_ERROR_IO_ERROR);
}

}  // namespace
