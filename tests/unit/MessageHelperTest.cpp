/*
 * CMessageHelper: subscriptions, requests on its port, delivery of events,
 * the background re-send, and the registration retries of Init.
 *
 * Subscribers are ports of this process (delivered through the main context)
 * or of forked processes (delivered over the private bus).
 */
#include <bundle_ptr.h>
#include <gtest/gtest.h>
#include <message_port.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "MessageHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

const char kServiceAppId[] = "com.quillon.px.tilvane";
const char kReceiverPort[] = "preview-event-receiver";
const uint32_t kSendingInBackground = 4276944897u;

struct Received {
    std::string remoteAppId;
    bool hasRemotePort;
    std::string remotePort;
    Entries entries;
};

void RecordCB(int /*localPortId*/, const char* remoteAppId, const char* remotePort, bool /*trusted*/,
              bundle* message, void* userData)
{
    Received received{remoteAppId != nullptr ? remoteAppId : "", remotePort != nullptr,
                      remotePort != nullptr ? remotePort : "", BundleEntries(message)};
    static_cast<std::vector<Received>*>(userData)->push_back(received);
}

const Entries kEvent = {{"accelerator_app_pkg_name", "com.example.pkg"}, {"sync", "end"}};

/* The body of a process that runs as `appId` with the port `port`, is ready
 * once the port is registered, and ends at the first message: 0 when it is
 * kEvent from the service, sent from no port of its own. */
std::function<int(int)> ReceiverOfOneEvent(std::string appId, std::string port)
{
    return [appId, port](int readyFd) {
        tilvane::host::SetOwnAppId(appId);
        std::vector<Received> received;
        if (message_port_register_local_port(port.c_str(), RecordCB, &received) <= 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        if (!IterateMainContextUntil([&] { return !received.empty(); }, 10000)) {
            return 11;
        }
        const Received& first = received[0];
        return first.remoteAppId == kServiceAppId && !first.hasRemotePort && first.entries == kEvent ? 0 : 12;
    };
}

/* The entries of the last subscriber-list dump, as "appID : [..], PortName : [..]" lines. */
std::vector<std::string> LastDump()
{
    std::vector<std::string> dump;
    for (const std::string& message : tilvane::host::CapturedMessages("tilvane")) {
        if (message.find("============ Preview Event Listener App List ==============") != std::string::npos) {
            dump.clear();
        } else if (message.find("appID : [") != std::string::npos) {
            dump.push_back(message.substr(message.find("appID : [")));
        }
    }
    return dump;
}

std::vector<tilvane::host::SentMessage> SuccessfulSends()
{
    std::vector<tilvane::host::SentMessage> sends;
    for (const tilvane::host::SentMessage& sent : tilvane::host::SentMessages()) {
        if (sent.result == 0) {
            sends.push_back(sent);
        }
    }
    return sends;
}

class MessageHelperTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        tilvane::host::SetOwnAppId(kServiceAppId);
        tilvane::host::RecordSentMessages(true);
    }

    /* Registers this process's port "listener", which records into
     * `received`, and subscribes it; false when it could not be registered. */
    bool SubscribeListener(std::vector<Received>& received)
    {
        if (message_port_register_local_port("listener", RecordCB, &received) <= 0) {
            return false;
        }
        m_helper.SubscribalRequest(kServiceAppId, "listener");
        return true;
    }

    /* Sends kEvent with `retry`, its first attempt failing; the result of Send. */
    int SendFailingOnce(bool retry)
    {
        tilvane::host::FailNextCalls("message_port_send_message", 1);
        return m_helper.Send(m_failingOnce.get(), retry);
    }

    /* Runs the main context for a while so that anything queued arrives. */
    static void Settle() { IterateMainContextUntil([] { return false; }, 200); }

    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
    CMessageHelper m_helper{kReceiverPort};
    /* The event SendFailingOnce sends: it outlives the retries in the background. */
    BundlePtr m_failingOnce = MakeBundle(kEvent);
};

/* ---- the subscriber list ------------------------------------------------------ */

TEST_F(MessageHelperTest, EmptyPortSubscriptionIsStoredUnderTheEmptyKey)
{
    m_helper.SubscribalRequest("com.example.app", "");
    EXPECT_EQ(CountLines("tilvane", "Start SubscribalRequest"), 1);
    EXPECT_EQ(CountLines("tilvane", "[com.example.app] was added - []"), 1);
    EXPECT_EQ(LastDump(), (std::vector<std::string>{"appID : [com.example.app], PortName : []"}));
    EXPECT_EQ(CountLines("tilvane", "==========================================================="), 1);

    /* The empty key gives an empty port, which cannot be checked. */
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "failed to message_port_check_remote_port"), 1);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
}

TEST_F(MessageHelperTest, SubscribingTwiceKeepsOneEntry)
{
    std::vector<Received> received;
    ASSERT_TRUE(SubscribeListener(received));
    m_helper.SubscribalRequest(kServiceAppId, "listener");
    EXPECT_EQ(LastDump(), (std::vector<std::string>{"appID : [com.quillon.px.tilvane], PortName : "
                                                    "[listener_com.quillon.px.tilvane]"}));

    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), 0);
    Settle();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].entries, kEvent);
    EXPECT_EQ(SuccessfulSends().size(), 1u);
}

TEST_F(MessageHelperTest, SubscribersAreKeptInKeyOrder)
{
    m_helper.SubscribalRequest("com.example.b", "port");
    m_helper.SubscribalRequest("com.example.a", "port");
    m_helper.SubscribalRequest("com.example.c", "aport");
    EXPECT_EQ(LastDump(), (std::vector<std::string>{"appID : [com.example.c], PortName : [aport_com.example.c]",
                                                    "appID : [com.example.a], PortName : [port_com.example.a]",
                                                    "appID : [com.example.b], PortName : [port_com.example.b]"}));
}

TEST_F(MessageHelperTest, UnsubscribeRemovesTheEntryWhateverItsValue)
{
    m_helper.SubscribalRequest("com.example.app", "events");
    m_helper.UnsubscribalRequest("com.example.app", "events");
    EXPECT_EQ(CountLines("tilvane", "Start UnsubscribalRequest"), 1);
    EXPECT_EQ(CountLines("tilvane", "[com.example.app] was removed"), 1);
    EXPECT_TRUE(LastDump().empty());

    /* "p" + "_" + "x_y" and "p_x" + "_" + "y" make the same key: the entry
     * goes, although it was stored for another application id. */
    m_helper.SubscribalRequest("x_y", "p");
    EXPECT_EQ(LastDump(), (std::vector<std::string>{"appID : [x_y], PortName : [p_x_y]"}));
    m_helper.UnsubscribalRequest("y", "p_x");
    EXPECT_TRUE(LastDump().empty());

    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
}

TEST_F(MessageHelperTest, PortNameIsTakenBackFromTheKey)
{
    EXPECT_EQ(m_helper.GetLocalPortNameFromKey("listener_com.example.app", "com.example.app"), "listener");
    EXPECT_EQ(m_helper.GetLocalPortNameFromKey("image_update_db_DownloadManager", "DownloadManager"),
              "image_update_db");
    EXPECT_EQ(m_helper.GetLocalPortNameFromKey("a_b_b", "b"), "a_b");
    EXPECT_EQ(m_helper.GetLocalPortNameFromKey("", "com.example.app"), "");
    EXPECT_EQ(m_helper.GetLocalPortNameFromKey("_com.example.app", "com.example.app"), "");
}

/* ---- Send ------------------------------------------------------------------------ */

TEST_F(MessageHelperTest, SendWithoutSubscribersReturnsMinus22AndSendsNothing)
{
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "Start SendEvent"), 1);
    EXPECT_EQ(CountLines("tilvane", "Sending "), 0);

    EXPECT_EQ(m_helper.Send(nullptr, true), -22);
    EXPECT_EQ(CountLines("tilvane", "Error : pMessage is NULL"), 1);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
    EXPECT_EQ(tilvane::host::CallCount("message_port_check_remote_port"), 0);
}

TEST_F(MessageHelperTest, VanishedSubscriberIsSkippedAndTheNextOneStillReceives)
{
    std::vector<Received> received;
    int gone = message_port_register_local_port("gone", RecordCB, &received);
    ASSERT_GT(gone, 0);
    ASSERT_GT(message_port_register_local_port("listener", RecordCB, &received), 0);
    /* Key order: "absent_..." < "gone_..." < "listener_...". */
    m_helper.SubscribalRequest("com.example.absent", "absent");
    m_helper.SubscribalRequest(kServiceAppId, "gone");
    m_helper.SubscribalRequest(kServiceAppId, "listener");
    ASSERT_EQ(message_port_unregister_local_port(gone), 0);

    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), 0);
    EXPECT_EQ(CountLines("tilvane", "Sending 1th event"), 1);
    EXPECT_EQ(CountLines("tilvane", "Sending 3th event"), 1);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [com.example.absent] or port [absent] is not exist"), 1);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [com.quillon.px.tilvane] or port [gone] is not exist"), 1);
    EXPECT_EQ(CountLines("tilvane", "OK - appID: com.quillon.px.tilvane, portName : listener"), 1);

    Settle();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].remoteAppId, kServiceAppId);
    EXPECT_FALSE(received[0].hasRemotePort);
    std::vector<tilvane::host::SentMessage> sends = SuccessfulSends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].port, "listener");
}

TEST_F(MessageHelperTest, ASubscriberWhoseProcessEndedIsSkipped)
{
    /* The subscriber runs in another process, receives one event, and ends. */
    ChildProcess subscriber(ReceiverOfOneEvent("com.example.subscriber", "events"));
    ASSERT_TRUE(subscriber.Started());
    ASSERT_TRUE(subscriber.Go());
    ASSERT_TRUE(subscriber.WaitReady());

    m_helper.SubscribalRequest("com.example.subscriber", "events");
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), 0);
    EXPECT_EQ(subscriber.Wait(15000), 0);
    /* The bus drops the ended process's names a moment after it has ended. */
    ASSERT_TRUE(IterateMainContextUntil(
        [] {
            bool exist = true;
            return message_port_check_remote_port("com.example.subscriber", "events", &exist) ==
                       MESSAGE_PORT_ERROR_NONE &&
                   !exist;
        },
        5000));

    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [com.example.subscriber] or port [events] is not exist"), 1);
    EXPECT_EQ(SuccessfulSends().size(), 1u);
}

TEST_F(MessageHelperTest, FailedSendWithRetryGoesOnInTheBackgroundFiveTimesOneSecondApart)
{
    tilvane::host::UseVirtualClock(true);
    std::vector<Received> received;
    ASSERT_TRUE(SubscribeListener(received));

    int result = SendFailingOnce(true);
    EXPECT_EQ(static_cast<uint32_t>(result), kSendingInBackground);
    EXPECT_EQ(CountLines("tilvane", "NG - appID: com.quillon.px.tilvane"), 1);

    /* The detached thread ends after its fifth one-second sleep. */
    ASSERT_TRUE(IterateMainContextUntil(
        [&] { return received.size() >= 5 && tilvane::host::RecordedSleeps().size() >= 5; }, 10000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Settle();

    EXPECT_EQ(received.size(), 5u);
    for (const Received& r : received) {
        EXPECT_EQ(r.entries, kEvent);
    }
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>(5, 1000000));

    std::vector<tilvane::host::SentMessage> all = tilvane::host::SentMessages();
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[0].result, MESSAGE_PORT_ERROR_IO_ERROR);
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_EQ(all[i].result, 0);
        EXPECT_EQ(all[i].port, "listener");
        EXPECT_EQ(all[i].entries, kEvent);
    }
    for (size_t i = 2; i < all.size(); ++i) {
        EXPECT_EQ(all[i].timeUs - all[i - 1].timeUs, 1000000) << i;
    }
    std::vector<tilvane::host::LogLine> ok =
        LinesContaining("tilvane", "OK - appID: com.quillon.px.tilvane, portName : listener");
    ASSERT_EQ(ok.size(), 5u);
    for (size_t i = 1; i < ok.size(); ++i) {
        EXPECT_EQ(ok[i].timeUs - ok[i - 1].timeUs, 1000000) << i;
    }
}

TEST_F(MessageHelperTest, FailedSendWithoutRetryReturnsTheFailure)
{
    tilvane::host::UseVirtualClock(true);
    std::vector<Received> received;
    ASSERT_TRUE(SubscribeListener(received));

    EXPECT_EQ(SendFailingOnce(false), MESSAGE_PORT_ERROR_IO_ERROR);
    Settle();
    EXPECT_TRUE(received.empty());
    EXPECT_TRUE(tilvane::host::RecordedSleeps().empty());
    EXPECT_EQ(tilvane::host::SentMessages().size(), 1u);
}

TEST_F(MessageHelperTest, SendEventSkipsAMissingPortAndReportsAFailedCheck)
{
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(CMessageHelper::SendEvent("com.example.absent", "events", event.get()), 0);
    EXPECT_EQ(CountLines("tilvane", "SKIP : remote port is not exist"), 1);

    tilvane::host::FailNextCalls("message_port_check_remote_port", 1);
    EXPECT_EQ(CMessageHelper::SendEvent("com.example.absent", "events", event.get()), 0);
    std::vector<tilvane::host::LogLine> failed =
        LinesContaining("tilvane", "message_port_check_remote_port has failed for com.example.absent");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].priority, DLOG_ERROR);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
}

TEST_F(MessageHelperTest, SendEventThreadWithoutDataEndsAtOnce)
{
    EXPECT_EQ(CMessageHelper::SendEventThread(nullptr), nullptr);
    EXPECT_EQ(CountLines("tilvane", "pData is NULL"), 1);
    EXPECT_TRUE(tilvane::host::RecordedSleeps().empty());
}

/* ---- Init -------------------------------------------------------------------------- */

TEST_F(MessageHelperTest, InitRegistersThePortAndSubscribesTheDownloadManager)
{
    ASSERT_EQ(m_helper.Init(), 0);
    bool exist = false;
    ASSERT_EQ(message_port_check_remote_port(kServiceAppId, kReceiverPort, &exist), 0);
    EXPECT_TRUE(exist);
    EXPECT_EQ(CountLines("tilvane", "message port is ready"), 0);

    /* Subscribing and unsubscribing others never removes it. */
    m_helper.SubscribalRequest("com.example.app", "events");
    m_helper.UnsubscribalRequest("com.example.app", "events");
    EXPECT_EQ(LastDump(), (std::vector<std::string>{"appID : [DownloadManager], PortName : "
                                                    "[image_update_db_DownloadManager]"}));
    ASSERT_EQ(m_helper.Init(), 0);
    m_helper.SubscribalRequest("com.example.app", "");
    m_helper.UnsubscribalRequest("com.example.app", "");
    EXPECT_EQ(LastDump().size(), 1u);

    /* Not running: skipped. */
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [DownloadManager] or port [image_update_db] is not exist"), 1);
}

TEST_F(MessageHelperTest, TheDownloadManagerReceivesEventsOverTheBus)
{
    ChildProcess downloadManager(ReceiverOfOneEvent("DownloadManager", "image_update_db"));
    ASSERT_TRUE(downloadManager.Started());
    ASSERT_TRUE(downloadManager.Go());
    ASSERT_TRUE(downloadManager.WaitReady());

    ASSERT_EQ(m_helper.Init(), 0);
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), 0);
    EXPECT_EQ(CountLines("tilvane", "OK - appID: DownloadManager, portName : image_update_db"), 1);
    EXPECT_EQ(downloadManager.Wait(15000), 0);
}

TEST_F(MessageHelperTest, InitGivesUpAfterSixtyRetriesOneSecondApart)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::FailNextCalls("message_port_register_local_port", -1);
    EXPECT_EQ(m_helper.Init(), -1);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>(60, 1000000));
    EXPECT_EQ(tilvane::host::CallCount("message_port_register_local_port"), 61);
    std::vector<tilvane::host::LogLine> failed =
        LinesContaining("tilvane", "failed to message_port_register_local_port : -5");
    ASSERT_EQ(failed.size(), 60u);
    EXPECT_EQ(failed.back().timeUs - failed.front().timeUs, 59 * 1000000);
    EXPECT_EQ(CountLines("tilvane", "message port is ready"), 0);

    /* Nothing was subscribed. */
    tilvane::host::ClearFailures();
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "Sending "), 0);
}

TEST_F(MessageHelperTest, InitSucceedsAfterSomeFailuresAndSaysHowMany)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::FailNextCalls("message_port_register_local_port", 3);
    EXPECT_EQ(m_helper.Init(), 0);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>(3, 1000000));
    EXPECT_EQ(CountLines("tilvane", "failed to message_port_register_local_port : -5"), 3);
    std::vector<tilvane::host::LogLine> ready = LinesContaining("tilvane", "message port is ready : 3");
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready[0].timeUs, 3 * 1000000);

    BundlePtr event = MakeBundle(kEvent);
    m_helper.Send(event.get(), true);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [DownloadManager] or port [image_update_db] is not exist"), 1);
}

TEST_F(MessageHelperTest, InitSucceedsOnTheLastRetry)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::FailNextCalls("message_port_register_local_port", 60);
    EXPECT_EQ(m_helper.Init(), 0);
    EXPECT_EQ(tilvane::host::RecordedSleeps().size(), 60u);
    EXPECT_EQ(CountLines("tilvane", "message port is ready : 60"), 1);
}

TEST_F(MessageHelperTest, TheDestructorLeavesThePortRegistered)
{
    {
        CMessageHelper helper("another-receiver");
        ASSERT_EQ(helper.Init(), 0);
    }
    bool exist = false;
    ASSERT_EQ(message_port_check_remote_port(kServiceAppId, "another-receiver", &exist), 0);
    EXPECT_TRUE(exist);
}

/* ---- requests on the port ------------------------------------------------------------- */

TEST_F(MessageHelperTest, RequestCallbackRefusesWhatItCannotUse)
{
    BundlePtr subscribe = MakeBundle({{"request_type", "SubscribePreviewEvent"}});
    CMessageHelper::RequestCallback(1, "com.example.app", "events", false, subscribe.get(), nullptr);
    std::vector<tilvane::host::LogLine> noHelper = LinesContaining("tilvane", "Error : pUserData is NULL");
    ASSERT_EQ(noHelper.size(), 1u);
    EXPECT_EQ(noHelper[0].priority, DLOG_ERROR);
    EXPECT_EQ(CountLines("tilvane", "Start RequestCallback [com.example.app] [events]"), 1);

    BundlePtr noType = MakeBundle({{"something", "else"}});
    CMessageHelper::RequestCallback(1, "com.example.app", "events", false, noType.get(), &m_helper);
    CMessageHelper::RequestCallback(1, "com.example.app", nullptr, false, subscribe.get(), &m_helper);
    CMessageHelper::RequestCallback(1, nullptr, "events", false, subscribe.get(), &m_helper);
    std::vector<tilvane::host::LogLine> wrong = LinesContaining("tilvane", "Error : requested information is wrong");
    ASSERT_EQ(wrong.size(), 3u);
    EXPECT_EQ(wrong[0].priority, DLOG_ERROR);

    BundlePtr unknown = MakeBundle({{"request_type", "RefreshPreviewEvent"}});
    CMessageHelper::RequestCallback(1, "com.example.app", "events", false, unknown.get(), &m_helper);
    EXPECT_EQ(CountLines("tilvane", "Not defined Preview Event"), 1);

    /* A trigger without its target port does nothing. */
    BundlePtr trigger = MakeBundle({{"request_type", "TriggerPreviewEvent"}});
    CMessageHelper::RequestCallback(1, "com.example.app", "events", false, trigger.get(), &m_helper);
    EXPECT_EQ(CountLines("tilvane", "Start TestTriggerPreviewEventRequest"), 0);

    EXPECT_EQ(CountLines("tilvane", "Start SubscribalRequest"), 0);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
}

TEST_F(MessageHelperTest, TriggerSendsTheTestEventDirectlyToTheRequester)
{
    ASSERT_EQ(m_helper.Init(), 0);
    std::vector<Received> received;
    std::vector<Received> subscriber;
    int replies = message_port_register_local_port("replies", RecordCB, &received);
    ASSERT_GT(replies, 0);
    ASSERT_TRUE(SubscribeListener(subscriber));

    BundlePtr trigger = MakeBundle({{"request_type", "TriggerPreviewEvent"}, {"replaceTargetPortName", "replies"}});
    ASSERT_EQ(message_port_send_message_with_local_port(kServiceAppId, kReceiverPort, trigger.get(), replies), 0);
    ASSERT_TRUE(IterateMainContextUntil([&] { return !received.empty(); }, 5000));
    Settle();

    EXPECT_EQ(CountLines("tilvane", "Start TestTriggerPreviewEventRequest"), 1);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].remoteAppId, kServiceAppId);
    EXPECT_EQ(received[0].entries,
              (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "livetv_antenna"},
                       {TilesModel::Tiles::TILE_SECTION_RAW_ID, ""},
                       {"sync", "end"}}));
    EXPECT_EQ(received[0].entries.at(0).first, "accelerator_app_pkg_name");
    EXPECT_EQ(received[0].entries.at(1).first, "tile_section_raw_id");
    /* Subscribers do not get the test event, and the requester was not subscribed. */
    EXPECT_TRUE(subscriber.empty());
    EXPECT_EQ(CountLines("tilvane", "Start SubscribalRequest"), 1);
}

TEST_F(MessageHelperTest, AnotherProcessSubscribesReceivesAndUnsubscribesOverThePort)
{
    /* The subscriber process: subscribes, reports the first event on its
     * ready pipe, unsubscribes, then waits to see whether more arrive. */
    ChildProcess subscriber([](int readyFd) {
        tilvane::host::SetOwnAppId("com.example.subscriber");
        std::vector<Received> received;
        int port = message_port_register_local_port("events", RecordCB, &received);
        if (port <= 0) {
            return 10;
        }
        BundlePtr subscribe = MakeBundle({{"request_type", "SubscribePreviewEvent"}});
        if (message_port_send_message_with_local_port(kServiceAppId, kReceiverPort, subscribe.get(), port) != 0) {
            return 11;
        }
        if (!IterateMainContextUntil([&] { return !received.empty(); }, 10000)) {
            return 12;
        }
        if (received[0].remoteAppId != kServiceAppId || received[0].entries != kEvent) {
            return 13;
        }
        BundlePtr unsubscribe = MakeBundle({{"request_type", "UnsubscribePreviewEvent"}});
        if (message_port_send_message_with_local_port(kServiceAppId, kReceiverPort, unsubscribe.get(), port) != 0) {
            return 14;
        }
        ChildProcess::SignalReady(readyFd);
        IterateMainContextUntil([] { return false; }, 1500);
        return received.size() == 1 ? 0 : 15;
    });
    ASSERT_TRUE(subscriber.Started());
    ASSERT_EQ(m_helper.Init(), 0);
    ASSERT_TRUE(subscriber.Go());

    ASSERT_TRUE(IterateMainContextUntil(
        [] { return CountLines("tilvane", "[com.example.subscriber] was added - [events]") == 1; }, 10000));
    EXPECT_EQ(CountLines("tilvane", "Start RequestCallback [com.example.subscriber] [events]"), 1);
    BundlePtr event = MakeBundle(kEvent);
    EXPECT_EQ(m_helper.Send(event.get(), true), 0);
    EXPECT_EQ(CountLines("tilvane", "OK - appID: com.example.subscriber, portName : events"), 1);

    ASSERT_TRUE(subscriber.WaitReady());
    ASSERT_TRUE(IterateMainContextUntil(
        [] { return CountLines("tilvane", "[com.example.subscriber] was removed") == 1; }, 10000));
    /* Only the download manager is left, and it does not run. */
    EXPECT_EQ(m_helper.Send(event.get(), true), -22);
    EXPECT_EQ(CountLines("tilvane", "OK - appID: com.example.subscriber"), 1);
    EXPECT_EQ(subscriber.Wait(15000), 0);
}

}  // namespace
