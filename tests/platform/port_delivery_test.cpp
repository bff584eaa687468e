/*
 * Message ports that never wait for the receiver: a remote port is checked
 * with the bus daemon only, sends return before the receiver answers, and a
 * receiver that never answers costs a bounded number of calls in flight.
 */
#include <gtest/gtest.h>
#include <host_control.h>
#include <message_port.h>

#include <chrono>
#include <string>

#include "RawBus.h"
#include "StuckReceiver.h"
#include "TestSupport.h"

namespace {

using namespace tilvane::test;

int64_t MillisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

void NothingCB(int, const char*, const char*, bool, bundle*, void*)
{
}

/* Has `stuck` answer until no call to it is left in flight; false when
 * they did not settle within 5 s. */
bool AnswerUntilSettled(StuckReceiver& stuck)
{
    return IterateMainContextUntil(
        [&] {
            stuck.Answer();
            return tilvane::host::UnansweredDeliveries("com.example.stuck") == 0;
        },
        5000);
}

/* The line that says the stuck receiver answers again, `dropped` messages later. */
std::string AnswersAgainLine(int dropped)
{
    return "application com.example.stuck answers again; " + std::to_string(dropped) + " message(s) to it were dropped";
}

class PortDeliveryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::StartLogCapture();
        tilvane::host::SetConfigurationText("[message-port]\nmax-unanswered = 4\nunanswered-quiet-ms = 0\n");
        tilvane::host::SetOwnAppId("com.example.sender");
    }
    void TearDown() override { tilvane::host::Reset(); }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::PlatformSandbox m_sandbox;
};

TEST_F(PortDeliveryTest, AReceiverThatNeverAnswersIsCheckedAndSentToWithoutWaiting)
{
    ASSERT_TRUE(m_bus.IsRunning());
    StuckReceiver stuck("com.example.stuck", {"inbox"});
    ASSERT_TRUE(stuck.Ready()) << stuck.Error();
    bundle* message = bundle_create();
    bundle_add_str(message, "event", "changed");

    const auto start = std::chrono::steady_clock::now();
    bool exist = false;
    EXPECT_EQ(message_port_check_remote_port("com.example.stuck", "inbox", &exist), MESSAGE_PORT_ERROR_NONE);
    EXPECT_TRUE(exist);
    EXPECT_EQ(message_port_check_remote_port("com.example.stuck", "elsewhere", &exist), MESSAGE_PORT_ERROR_NONE);
    EXPECT_FALSE(exist);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "elsewhere", message), MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE) << i;
    }
    EXPECT_EQ(tilvane::host::UnansweredDeliveries("com.example.stuck"), 4);
    /* Beyond the bound a send is dropped, with one log line for the whole run. */
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_MAX_EXCEEDED);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_MAX_EXCEEDED);
    EXPECT_LT(MillisecondsSince(start), 2000) << "nothing may wait for the receiver";
    EXPECT_EQ(CountLines("tilvane-platform", "messages to com.example.stuck dropped: 4 earlier message(s) are unanswered"),
              1);

    /* Once it answers, the calls settle and sending goes on. */
    ASSERT_TRUE(AnswerUntilSettled(stuck));
    EXPECT_EQ(stuck.Answer(), 4);
    EXPECT_EQ(CountLines("tilvane-platform", AnswersAgainLine(2)), 1);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE);
    bundle_free(message);
}

TEST_F(PortDeliveryTest, OverTheBoundSendsAreDroppedOnlyOnceTheReceiverHasBeenQuiet)
{
    ASSERT_TRUE(m_bus.IsRunning());
    /* A receiver that is slow but answers is not cut off by a burst. */
    tilvane::host::SetConfigurationText("[message-port]\nmax-unanswered = 2\nunanswered-quiet-ms = 300\n");
    StuckReceiver stuck("com.example.stuck", {"inbox"});
    ASSERT_TRUE(stuck.Ready()) << stuck.Error();
    bundle* message = bundle_create();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE) << i;
    }
    /* Quiet for longer than the window: now it is taken for one that does not read. */
    IterateMainContextUntil([] { return false; }, 400);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_MAX_EXCEEDED);
    ASSERT_TRUE(AnswerUntilSettled(stuck));
    EXPECT_EQ(CountLines("tilvane-platform", AnswersAgainLine(1)), 1);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE);
    bundle_free(message);
}

TEST_F(PortDeliveryTest, UnansweredDeliveriesStopCountingAfterTheirTimeout)
{
    ASSERT_TRUE(m_bus.IsRunning());
    tilvane::host::SetConfigurationText(
        "[message-port]\nmax-unanswered = 2\nunanswered-quiet-ms = 0\ndelivery-timeout-ms = 300\n");
    StuckReceiver stuck("com.example.stuck", {"inbox"});
    ASSERT_TRUE(stuck.Ready()) << stuck.Error();
    bundle* message = bundle_create();
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_MAX_EXCEEDED);
    IterateMainContextUntil([] { return false; }, 400);
    EXPECT_EQ(tilvane::host::UnansweredDeliveries("com.example.stuck"), 0);
    EXPECT_EQ(message_port_send_message("com.example.stuck", "inbox", message), MESSAGE_PORT_ERROR_NONE);
    bundle_free(message);
}

/* Another application's view of the port, from the bus daemon alone. */
int CheckOwnerPort(bool expected)
{
    tilvane::host::SetOwnAppId("com.example.checker");
    bool exist = !expected;
    if (message_port_check_remote_port("com.example.owner", "inbox", &exist) != 0) {
        return 10;
    }
    return exist == expected ? 0 : 11;
}

TEST_F(PortDeliveryTest, RegisteringAPortOwnsItsBusNameAndUnregisteringReleasesIt)
{
    ASSERT_TRUE(m_bus.IsRunning());
    /* Forked before this process connects. */
    tilvane::test::ChildProcess whileRegistered([](int) { return CheckOwnerPort(true); });
    tilvane::test::ChildProcess afterwards([](int) { return CheckOwnerPort(false); });
    ASSERT_TRUE(whileRegistered.Started());
    ASSERT_TRUE(afterwards.Started());

    tilvane::host::SetOwnAppId("com.example.owner");
    const int id = message_port_register_local_port("inbox", NothingCB, nullptr);
    ASSERT_GT(id, 0);
    ASSERT_TRUE(whileRegistered.Go());
    EXPECT_EQ(whileRegistered.Wait(10000), 0);

    EXPECT_EQ(message_port_unregister_local_port(id), MESSAGE_PORT_ERROR_NONE);
    ASSERT_TRUE(afterwards.Go());
    EXPECT_EQ(afterwards.Wait(10000), 0);
}

TEST_F(PortDeliveryTest, APortWhoseNameAnotherConnectionHoldsCannotBeRegistered)
{
    ASSERT_TRUE(m_bus.IsRunning());
    /* A squatter owns the port's name, not the application's. */
    tilvane::test::ChildProcess holder([](int readyFd) {
        GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
        if (connection == nullptr) {
            return 11;
        }
        if (!tilvane::test::OwnRawName(connection, tilvane::host::BusNameForPort("com.example.me", "inbox"))) {
            return 12;
        }
        tilvane::test::ChildProcess::SignalReady(readyFd);
        g_usleep(10 * G_USEC_PER_SEC);
        return 0;
    });
    ASSERT_TRUE(holder.Started());
    ASSERT_TRUE(holder.Go());
    ASSERT_TRUE(holder.WaitReady());

    tilvane::host::SetOwnAppId("com.example.me");
    EXPECT_EQ(message_port_register_local_port("inbox", NothingCB, nullptr), MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE);
    EXPECT_EQ(CountLines("tilvane-platform", "port inbox of com.example.me is held by another connection"), 1);
    EXPECT_GT(message_port_register_local_port("other", NothingCB, nullptr), 0);
}

}  // namespace
