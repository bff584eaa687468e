/*
 * The service is never alive and unreachable. Its bus connection is taken
 * away three ways: the bus daemon drops it for a message over the daemon's
 * limit (a service configured with a larger limit than its bus has), the
 * daemon is killed and started again at the same address, and the daemon is
 * killed for good. In the first two the service owns every name and port
 * again and answers requests of both interfaces, message ports and
 * configuration-key changes within its reconnect budget; in the last it ends
 * with exit code 3 once that budget is spent, for its unit to restart it.
 */
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>
#include <tilvane_schema.h>

#include "PreviewApps.h"
#include "ServiceUnderTest.h"
#include "TestProcess.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using namespace tilvane::client;
using namespace tilvane::test;

constexpr const char* kProviderId = tilvane::client::schema::kProviderId;
const char kCaller[] = "org.example.news.ui";

/* A bus at a fixed address, so that a daemon started again listens where the
 * service connected before; `configFile` instead of the tests' default. */
std::vector<std::string> FixedAddressBus(const TempDir& dir, const std::string& configFile)
{
    return {"--config-file=" + configFile, "--address=unix:path=" + dir.File("bus")};
}

/* The tests' bus configuration with another message limit. */
std::string ConfigWithMessageLimit(const TempDir& dir, size_t bytes)
{
    std::string text = tilvane::test::ReadAll(PrivateBus::DefaultConfigFile());
    const std::string limit = "<limit name=\"max_message_size\">33554432</limit>";
    text.replace(text.find(limit), limit.size(),
                 "<limit name=\"max_message_size\">" + std::to_string(bytes) + "</limit>");
    const std::string path = dir.File("small-messages.conf");
    tilvane::test::WriteFile(path, text);
    return path;
}

class BusLossTest : public tilvane::test::ServiceUnderTestFixture
{
protected:
    void SetUp() override
    {
        ServiceUnderTestFixture::SetUp();
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", kCaller));
        tilvane::host::SetOwnAppId(kCaller);
    }

    void StartService(const std::string& configuration)
    {
        tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n" + configuration);
        m_service = tilvane::test::StartServiceUnderTest(m_root.Path(), m_logs);
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
        ASSERT_TRUE(m_service->WaitFor("main loop running", true, 30000)) << m_service->Err();
    }

    /* Runs tilvanectl as `appId` to its end; its exit status. */
    int Ctl(const std::string& appId, const std::vector<std::string>& words)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY};
        argv.insert(argv.end(), words.begin(), words.end());
        const std::string name = "tool-" + std::to_string(++m_tools);
        Process tool(argv,
                     {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_APP_ID=" + appId,
                      std::string("TILVANE_DATA_CONTROL_PROVIDER_ID=") + kProviderId, "TILVANE_LOG_LEVEL=W"},
                     m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        return tool.Wait(30000);
    }

    /* Both request interfaces, the service's three ports and its watch on
     * configuration keys work. */
    void ExpectEverythingAnswers(const std::string& context)
    {
        tilvane::client::Result content =
            m_client.Select(TilesModel::Sections::CONTENT_URI, {TilesModel::Sections::SECTION_ID}, "", {}, "", "");
        EXPECT_TRUE(content.Ok()) << context << ": " << tilvane::client::Explain(content);
        tilvane::client::Result dataControl =
            DataControlClient(kProviderId).Select("sections", {TilesModel::Sections::SECTION_ID}, "", "");
        EXPECT_TRUE(dataControl.Ok()) << context << ": " << tilvane::client::Explain(dataControl);
        for (const char* port : {"accelerator_port", "launcher_event_port", "preview-event-receiver"}) {
            bool exists = false;
            EXPECT_EQ(message_port_check_remote_port(kServiceAppId, port, &exists), 0);
            EXPECT_TRUE(exists) << context << ": port " << port;
        }
        /* The operator's interface is on the new connection too. */
        EXPECT_EQ(Ctl("tilvanectl", {"stats", "--json"}), 0) << context;
        const size_t before = m_service->Err().size();
        EXPECT_EQ(Ctl("org.example.settings", {"key", "set", "memory/korro/halcyon_reset_event", "1"}), 0);
        EXPECT_TRUE(tilvane::test::IterateMainContextUntil(
            [&] { return m_service->Err().find("halcyon reset", before) != std::string::npos; }, 10000))
            << context << ": the key change did not reach the service";
    }

    TempDir m_busDir;
    ContentClient m_client;
    int m_tools = 0;
};

TEST_F(BusLossTest, ADaemonStartedAgainFindsTheServiceWithEveryNameAndPort)
{
    PrivateBus bus(FixedAddressBus(m_busDir, PrivateBus::DefaultConfigFile()));
    ASSERT_TRUE(bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartService("[bus]\nreconnect-ms = 10000\n"));
    ExpectEverythingAnswers("before");

    const auto lost = std::chrono::steady_clock::now();
    ASSERT_TRUE(bus.Restart());
    ASSERT_TRUE(m_service->WaitFor("message bus connection back after", true, 10000)) << m_service->Err();
    const auto back = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - lost);
    std::printf("service back on the bus %lld ms after the daemon was started again\n",
                static_cast<long long>(back.count()));
    ExpectEverythingAnswers("after the daemon was started again");
    EXPECT_NE(m_service->Err().find("message bus connection lost"), std::string::npos);
}

TEST_F(BusLossTest, ADaemonThatDropsTheConnectionForAnOversizedReplyFindsTheServiceAgain)
{
    /* The integrator's limit (the default, 32 MiB) is above this bus's 1 MiB:
     * a select of 2 MB is sent, and the daemon drops the connection. The
     * reply takes the bus: no direct request socket. */
    PrivateBus bus(FixedAddressBus(m_busDir, ConfigWithMessageLimit(m_busDir, 1024 * 1024)));
    ASSERT_TRUE(bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartService("[bus]\nreconnect-ms = 10000\n[request-socket]\nenabled = false\n"));
    {
        tilvane::test::RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news');"
                          "INSERT INTO sections (_id, section_id, section_accelerator_raw_id, section_title) "
                          "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<4) "
                          "SELECT 100 + x, 's' || x, 101, printf('%.*c', 500000, 'x') FROM c;"),
                  0);
    }
    tilvane::client::Result oversized = m_client.Select(
        TilesModel::Sections::CONTENT_URI, {TilesModel::Sections::SECTION_TITLE}, "", {}, "", "");
    EXPECT_FALSE(oversized.Ok());
    ASSERT_TRUE(m_service->WaitFor("message bus connection back after", true, 10000)) << m_service->Err();
    ExpectEverythingAnswers("after the daemon dropped the connection");
}

TEST_F(BusLossTest, ADaemonThatNeverComesBackEndsTheServiceWithExitCode3)
{
    PrivateBus bus(FixedAddressBus(m_busDir, PrivateBus::DefaultConfigFile()));
    ASSERT_TRUE(bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartService("[bus]\nreconnect-ms = 1500\n"));

    const auto lost = std::chrono::steady_clock::now();
    bus.Stop();
    EXPECT_EQ(m_service->Wait(20000), 3) << m_service->Err();
    const auto ended = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - lost);
    std::printf("service ended %lld ms after the daemon went (reconnect budget 1500 ms)\n",
                static_cast<long long>(ended.count()));
    EXPECT_GE(ended.count(), 1500);
    const std::string log = m_service->Err();
    const size_t givenUp = log.find("message bus connection not back after");
    ASSERT_NE(givenUp, std::string::npos) << log;
    /* The orderly end of a SIGTERM: the database closed, the lock gone. */
    EXPECT_NE(log.find("database closed: ", givenUp), std::string::npos) << log;
    EXPECT_NE(log.find("service application terminated", givenUp), std::string::npos) << log;
    m_service.reset();
}

}  // namespace
