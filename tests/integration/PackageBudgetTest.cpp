/*
 * What one application (or one package) can make the service keep or write:
 *   - preview-event subscriptions: a package's application id and its bare
 *     package id each subscribed 128 made-up ports and left, and every other
 *     application was refused until a restart. Now one package holds at most
 *     128 of the 256, and the subscriptions of an application that leaves the
 *     bus are dropped;
 *   - log lines: an application of level 0 sending requests or messages for a
 *     minute made the service write 12.4 MB. Now its lines (those the service
 *     writes while serving its request or its message) are held to its own
 *     byte budget per interval, with one "N lines suppressed" line per
 *     interval, while another application's lines are still written.
 */
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <bundle.h>
#include <host_control.h>
#include <tilvane_client.h>

#include "PreviewApps.h"
#include "ServiceUnderTest.h"
#include "StuckReceiver.h"
#include "TestProcess.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using namespace tilvane::test;

/* The log budgets of the flooding tests: bytes an application may log in an interval. */
constexpr int kAppBytes = 8192;
constexpr int kIntervalMs = 500;

int CountOf(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

/* A bundle with one request type, freed with the object. */
class Request
{
public:
    explicit Request(const char* type) : m_bundle(bundle_create()) { bundle_add_str(m_bundle, "request_type", type); }
    ~Request() { bundle_free(m_bundle); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    bundle* Get() const { return m_bundle; }

private:
    bundle* m_bundle;
};

class PackageBudgetTest : public tilvane::test::ServiceUnderTestFixture
{
protected:
    void StartService(const std::string& configuration, const std::vector<std::string>& environment = {})
    {
        tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n" + configuration);
        m_service = tilvane::test::StartServiceUnderTest(m_root.Path(), m_logs, environment);
        ASSERT_TRUE(m_service->WaitFor("main loop running", true, 30000)) << m_service->Err();
    }

    /* Installs the flooder org.example.nobody.ui without any privilege
     * (level 0: every request refused) and a writer, org.example.writer.ui,
     * and starts the service with small log budgets, so that a few seconds
     * show them (kAppBytes an interval of kIntervalMs), the per-site limit off. */
    void StartWithAFlooderAndSmallLogBudgets()
    {
        tilvane::host::RegisteredPackage nobody;
        nobody.packageId = "org.example.nobody";
        nobody.applications.push_back({"org.example.nobody.ui", {}});
        ASSERT_TRUE(tilvane::host::InstallPackage(nobody));
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.writer", "org.example.writer.ui"));
        ASSERT_NO_FATAL_FAILURE(StartService("[log]\napp-bytes = " + std::to_string(kAppBytes) +
                                                 "\nservice-bytes = 262144\nbudget-interval-ms = " +
                                                 std::to_string(kIntervalMs) + "\n",
                                             {"TILVANE_LOG_RATE_BURST=0"}));
    }

    /* `count` subscriptions of `receiver` from made-up ports "<prefix>N". */
    void Subscribe(StuckReceiver& receiver, const std::string& prefix, int count)
    {
        Request subscribe("SubscribePreviewEvent");
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(receiver.Send(kServiceAppId, "preview-event-receiver", prefix + std::to_string(i),
                                    subscribe.Get()),
                      "");
        }
    }

    tilvane::test::PrivateBus m_bus;
};

TEST_F(PackageBudgetTest, OnePackageCannotFillTheSubscriberListAndItsSubscriptionsGoWithIt)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.flood", "org.example.flood.ui"));
    ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", "org.example.news.ui"));
    ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.writer", "org.example.writer.ui"));
    /* The log limits off: every line of the list is counted below. */
    ASSERT_NO_FATAL_FAILURE(StartService("[log]\napp-bytes = 0\nservice-bytes = 0\n", {"TILVANE_LOG_RATE_BURST=0"}));
    StuckReceiver viewer("org.example.viewer", {"events0"});
    ASSERT_TRUE(viewer.Ready()) << viewer.Error();
    {
        StuckReceiver application("org.example.flood.ui", {});
        StuckReceiver barePackage("org.example.flood", {});
        ASSERT_TRUE(application.Ready() && barePackage.Ready()) << application.Error() << barePackage.Error();
        ASSERT_NO_FATAL_FAILURE(Subscribe(application, "a", 128));
        ASSERT_NO_FATAL_FAILURE(Subscribe(barePackage, "b", 128));
        ASSERT_NO_FATAL_FAILURE(Subscribe(viewer, "events", 1));
        ASSERT_TRUE(m_service->WaitFor("[org.example.viewer] was added - [events0]", true, 10000)) << m_service->Err();
        const std::string log = m_service->Err();
        EXPECT_EQ(CountOf(log, "[org.example.flood.ui] was added - [a"), 128);
        EXPECT_EQ(CountOf(log, "[org.example.flood] was added"), 0);
        EXPECT_EQ(CountOf(log, "[org.example.flood] was not added - [b"), 128);
        EXPECT_EQ(CountOf(log, "the list is full"), 0);
    }
    /* Both flooders left the bus: their subscriptions went with them. */
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] { return CountOf(m_service->Err(), "[org.example.flood.ui] was dropped - [a") == 128; }, 10000))
        << m_service->Err();
    EXPECT_EQ(CountOf(m_service->Err(), "[org.example.viewer] was dropped"), 0);

    /* The list has room for others again: 128 ports of another package. */
    StuckReceiver news("org.example.news.ui", {});
    ASSERT_TRUE(news.Ready()) << news.Error();
    ASSERT_NO_FATAL_FAILURE(Subscribe(news, "n", 128));
    ASSERT_TRUE(m_service->WaitFor("[org.example.news.ui] was added - [n127]", true, 10000)) << m_service->Err();
    EXPECT_EQ(CountOf(m_service->Err(), "[org.example.news.ui] was added - [n"), 128);
    EXPECT_EQ(CountOf(m_service->Err(), "was not added - [n"), 0);

    /* The subscriber that stayed gets the events. */
    tilvane::host::SetOwnAppId("org.example.writer.ui");
    tilvane::client::ContentClient client;
    tilvane::client::Result removed =
        client.Delete(TilesModel::Tiles::CONTENT_URI, std::string(TilesModel::Tiles::TILE_ID) + " = ?", {"none"});
    EXPECT_TRUE(removed.Ok()) << tilvane::client::Explain(removed);
    EXPECT_TRUE(m_service->WaitFor("OK - appID: org.example.viewer, portName : events0", true, 10000))
        << m_service->Err();
}

TEST_F(PackageBudgetTest, ALevelZeroApplicationFloodingRequestsIsHeldToItsLogBudget)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartWithAFlooderAndSmallLogBudgets());
    tilvane::host::SetOwnAppId("org.example.nobody.ui");
    tilvane::client::ContentClient client;
    const size_t before = m_service->Err().size();
    /* Another application's request during the flood. */
    Process other({TILVANECTL_BINARY, "data", "select", "tiles"},
                  {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_APP_ID=org.example.writer.ui",
                   "TILVANE_LOG_LEVEL=W"},
                  m_logs.File("other.out"), m_logs.File("other.err"));
    const auto start = std::chrono::steady_clock::now();
    int requests = 0;
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(3 * kIntervalMs + 200)) {
        tilvane::client::Result refused =
            client.Select(TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", {}, "", "");
        ASSERT_FALSE(refused.Ok());
        ++requests;
    }
    /* A line in a later interval reports what was suppressed in the last. */
    std::this_thread::sleep_for(std::chrono::milliseconds(kIntervalMs));
    ASSERT_FALSE(client.Select(TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", {}, "", "").Ok());

    const std::string log = m_service->Err().substr(before);
    if (getenv("TILVANE_SHOW_LOG") != nullptr) {
        std::printf("%s\n", log.substr(0, 6000).c_str());
    }
    std::printf("%d requests of a level-0 application in %d ms: %zu bytes of log\n", requests, 3 * kIntervalMs + 200,
                log.size());
    const int notes = CountOf(log, " lines suppressed (log budget of application org.example.nobody.ui)");
    EXPECT_GE(notes, 3) << log.substr(0, 4000);
    EXPECT_LE(notes, 5);
    /* Five intervals at most were begun, each with its budget, one line over
     * it and the note of the one before. */
    EXPECT_LE(log.size(), 5u * (kAppBytes + 1024));
    EXPECT_EQ(CountOf(log, "log budget of the service"), 0);
    EXPECT_EQ(other.Wait(10000), 0) << other.Err();
    EXPECT_GT(CountOf(log, "AppId = org.example.writer.ui"), 0) << "the other application's lines were dropped";
    /* The application's lines are the service's own texts. */
    EXPECT_GT(CountOf(log, "SelectRequest(511) > failed by permission"), 0);
}

TEST_F(PackageBudgetTest, ALevelZeroApplicationFloodingMessagesIsHeldToItsLogBudget)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartWithAFlooderAndSmallLogBudgets());
    StuckReceiver flooder("org.example.nobody.ui", {});
    StuckReceiver writer("org.example.writer.ui", {});
    ASSERT_TRUE(flooder.Ready() && writer.Ready()) << flooder.Error() << writer.Error();
    const size_t before = m_service->Err().size();
    Request unknown("NoSuchRequest");
    const auto start = std::chrono::steady_clock::now();
    int messages = 0;
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(3 * kIntervalMs + 200)) {
        ASSERT_EQ(flooder.Send(kServiceAppId, "preview-event-receiver", "flood", unknown.Get()), "");
        ++messages;
    }
    /* Another application's message during the flood is still logged. */
    ASSERT_EQ(writer.Send(kServiceAppId, "preview-event-receiver", "writer", unknown.Get()), "");
    std::this_thread::sleep_for(std::chrono::milliseconds(kIntervalMs));
    ASSERT_EQ(flooder.Send(kServiceAppId, "preview-event-receiver", "flood", unknown.Get()), "");
    ASSERT_TRUE(m_service->WaitFor("Start RequestCallback [org.example.writer.ui]", true, 10000)) << m_service->Err();
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] {
            return CountOf(m_service->Err().substr(before),
                           " lines suppressed (log budget of application org.example.nobody.ui)") >= 3;
        },
        10000))
        << m_service->Err().substr(before, 4000);

    const std::string log = m_service->Err().substr(before);
    std::printf("%d messages of a level-0 application in %d ms: %zu bytes of log\n", messages, 3 * kIntervalMs + 200,
                log.size());
    ASSERT_GT(messages, 100) << "too few messages to spend the budget";
    const int notes = CountOf(log, " lines suppressed (log budget of application org.example.nobody.ui)");
    EXPECT_LE(notes, 5);
    EXPECT_LE(log.size(), 5u * (kAppBytes + 1024));
    EXPECT_EQ(CountOf(log, "log budget of the service"), 0);
    /* The lines that were written are the service's own texts. */
    EXPECT_GT(CountOf(log, "Start RequestCallback [org.example.nobody.ui]"), 0);
}

}  // namespace
