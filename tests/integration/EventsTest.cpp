/*
 * Preview events between processes on a private bus: the real service with
 * `tilvanectl events subscribe` and `tilvanectl events trigger`, and a
 * subscriber tool receiving events that a message helper delivers with Send.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <bundle.h>
#include <host_control.h>

#include "MessageHelper.h"
#include "ProcessesUnderRoot.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"

using namespace tilvane::test;

namespace {

const char kTestEventLine[] = "accelerator_app_pkg_name=livetv_antenna tile_section_raw_id= sync=end";



class EventsTest : public tilvane::test::ProcessesUnderRootTest
{
protected:
    Process* Tool(const std::string& appId, const std::vector<std::string>& words, const std::string& name)
    {
        std::vector<std::string> args = {TILVANECTL_BINARY, "--app-id", appId, "events"};
        args.insert(args.end(), words.begin(), words.end());
        return Start(args, name);
    }

    Process* Service()
    {
        return Start({TILVANE_SERVICE_BINARY}, "service",
                     {"TILVANE_LOG_LEVEL=D", std::string("TILVANE_APP_ID=") + kServiceAppId});
    }
};

TEST_F(EventsTest, TriggerPrintsTheTestEventOfTheRunningServiceAndSubscribersDoNotGetIt)
{
    ASSERT_TRUE(m_bus.IsRunning());
    Process* service = Service();
    ASSERT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();

    Process* subscriber = Tool("com.example.subscriber", {"subscribe"}, "subscriber");
    ASSERT_TRUE(subscriber->WaitFor("subscribed to preview events of com.quillon.px.tilvane", true, 10000))
        << subscriber->Err();
    ASSERT_TRUE(service->WaitFor("[com.example.subscriber] was added - [tilvanectl-events]", true, 10000))
        << service->Err();

    Process* trigger = Tool("com.example.trigger", {"trigger"}, "trigger");
    ASSERT_EQ(trigger->Wait(15000), 0) << trigger->Err();
    EXPECT_EQ(trigger->Out(), std::string(kTestEventLine) + "\n");
    std::string serviceLog = service->Err();
    EXPECT_NE(serviceLog.find("Start RequestCallback [com.example.trigger] [tilvanectl-events]"), std::string::npos);
    EXPECT_NE(serviceLog.find("OK - appID: com.example.trigger, portName : tilvanectl-events"), std::string::npos);
    /* The trigger did not subscribe. */
    EXPECT_EQ(serviceLog.find("[com.example.trigger] was added"), std::string::npos);

    /* The test event goes to the requester only. */
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(subscriber->Out(), "");

    subscriber->Signal(SIGTERM);
    EXPECT_EQ(subscriber->Wait(10000), 0) << subscriber->Err();
    EXPECT_NE(subscriber->Err().find("unsubscribed after 0 event(s)"), std::string::npos) << subscriber->Err();
    EXPECT_TRUE(service->WaitFor("[com.example.subscriber] was removed", true, 10000)) << service->Err();

    service->Signal(SIGTERM);
    EXPECT_EQ(service->Wait(20000), 0) << service->Err();
}

TEST_F(EventsTest, TriggerWithoutTheServiceFailsAtOnceWithAClearMessage)
{
    ASSERT_TRUE(m_bus.IsRunning());
    auto start = std::chrono::steady_clock::now();
    Process* trigger = Tool("com.example.trigger", {"trigger"}, "trigger");
    EXPECT_EQ(trigger->Wait(10000), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    EXPECT_NE(trigger->Err().find("the service 'com.quillon.px.tilvane' is not running"), std::string::npos)
        << trigger->Err();
    EXPECT_EQ(trigger->Out(), "");

    Process* subscriber = Tool("com.example.subscriber", {"subscribe", "--service", "com.example.none"}, "sub");
    EXPECT_EQ(subscriber->Wait(10000), 1);
    EXPECT_NE(subscriber->Err().find("the service 'com.example.none' is not running"), std::string::npos)
        << subscriber->Err();
}

TEST_F(EventsTest, TriggerWaitsForTheTestEventOnlyUntilItsTimeout)
{
    /* A service that takes requests but never answers them: this process
     * owns the service's id, with the port registered and its main context
     * never run. */
    ASSERT_TRUE(m_bus.IsRunning());
    PlatformSandbox sandbox;
    tilvane::host::SetOwnAppId(kServiceAppId);
    CMessageHelper helper("preview-event-receiver");
    ASSERT_EQ(helper.Init(), 0);

    Process* trigger = Tool("com.example.trigger", {"trigger", "--timeout", "1"}, "trigger");
    EXPECT_EQ(trigger->Wait(10000), 1);
    EXPECT_NE(trigger->Err().find("no test event from 'com.quillon.px.tilvane' within 1 s"), std::string::npos)
        << trigger->Err();
}

TEST_F(EventsTest, SubscribersPrintEventsSentToThemAndNothingAfterUnsubscribing)
{
    /* The service side is a message helper in this process, so that the test
     * can make it Send. */
    ASSERT_TRUE(m_bus.IsRunning());
    PlatformSandbox sandbox;
    tilvane::host::SetOwnAppId(kServiceAppId);
    CMessageHelper helper("preview-event-receiver");
    ASSERT_EQ(helper.Init(), 0);

    Process* first = Tool("com.example.first", {"subscribe", "--port", "first-port"}, "first");
    Process* second = Tool("com.example.second", {"subscribe"}, "second");
    ASSERT_TRUE(IterateMainContextUntil(
        [] {
            return CountLines("tilvane", "[com.example.first] was added - [first-port]") == 1 &&
                   CountLines("tilvane", "[com.example.second] was added - [tilvanectl-events]") == 1;
        },
        10000));

    bundle* event = bundle_create();
    bundle_add_str(event, "accelerator_app_pkg_name", "com.example.pkg");
    bundle_add_str(event, "tile_section_raw_id", "7");
    bundle_add_str(event, "sync", "end");
    EXPECT_EQ(helper.Send(event, true), 0);
    const std::string line = "accelerator_app_pkg_name=com.example.pkg tile_section_raw_id=7 sync=end\n";
    EXPECT_TRUE(first->WaitFor(line, false, 10000)) << first->Err();
    EXPECT_TRUE(second->WaitFor(line, false, 10000)) << second->Err();

    /* The first one stops: it unsubscribes on its way out. */
    first->Signal(SIGTERM);
    EXPECT_EQ(first->Wait(10000, true), 0) << first->Err();
    ASSERT_TRUE(IterateMainContextUntil(
        [] { return CountLines("tilvane", "[com.example.first] was removed") == 1; }, 10000));

    EXPECT_EQ(helper.Send(event, true), 0);
    EXPECT_TRUE(second->WaitFor(line + line, false, 10000)) << second->Err();
    EXPECT_EQ(first->Out(), line);
    /* The helper no longer even tries the first one. */
    EXPECT_EQ(CountLines("tilvane", "OK - appID: com.example.first"), 1);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [com.example.first]"), 0);
    EXPECT_EQ(CountLines("tilvane", "OK - appID: com.example.second"), 2);
    bundle_free(event);

    second->Signal(SIGINT);
    EXPECT_EQ(second->Wait(10000, true), 0) << second->Err();
    EXPECT_NE(second->Err().find("unsubscribed after 2 event(s)"), std::string::npos) << second->Err();
}

}  // namespace
