/*
 * One scripted session against the real service on a private bus, compared
 * line by line with the log the same session wrote when it was recorded
 * (tests/data/session.log). Every request kind of both request interfaces,
 * refusals, a sync end mark, preview events, both resets and the stop are
 * in it. Timestamps, process ids and source line numbers are left out of
 * the comparison; the level, the source file, the function and the message
 * of each line of the service's own tag are compared.
 *
 * To record the reference again (only when a change of the log is meant):
 *   TILVANE_RECORD_SESSION_LOG=1 build/dev/tests/tilvane_integration_tests --gtest_filter='SessionLogTest.*'
 */
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <host_control.h>

#include "PermissionHelper.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "tilvane_schema.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

constexpr const char* kProviderId = tilvane::client::schema::kProviderId;
const char kNews[] = "org.example.news.ui";
const char kStranger[] = "org.example.nobody.ui";
const char kLauncher[] = "ContentServiceManager";
const char kListener[] = "org.example.listener";
const char kSports[] = "org.example.sports.ui";

std::string ReferencePath()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../data/session.log";
}

/* "MM-DD hh:mm:ss.mmm L/tag(pid): file: function(line) > message" becomes
 * "L file: function > message" for the lines of `tag`; other lines are dropped. */
std::vector<std::string> Normalise(const std::string& log, const std::string& tag, const std::string& root)
{
    static const std::regex line(R"(^\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} ([A-Z])/([^(]+)\(\d+\): (.*)$)");
    static const std::regex position(R"(^([^:]+): (\S+)\(\d+\) > )");
    std::vector<std::string> lines;
    std::istringstream in(log);
    std::string text;
    while (std::getline(in, text)) {
        std::smatch match;
        if (!std::regex_match(text, match, line) || match[2].str() != tag) {
            continue;
        }
        std::string message = std::regex_replace(match[3].str(), position, "$1: $2 > ");
        for (size_t at = message.find(root); at != std::string::npos; at = message.find(root, at)) {
            message.replace(at, root.size(), "<root>");
        }
        lines.push_back(match[1].str() + " " + message);
    }
    return lines;
}

/* The first line where the two texts differ, with its number, for the failure message. */
std::string FirstDifference(const std::string& actual, const std::string& expected)
{
    std::istringstream a(actual);
    std::istringstream e(expected);
    std::string actualLine;
    std::string expectedLine;
    for (int number = 1;; ++number) {
        bool moreActual = static_cast<bool>(std::getline(a, actualLine));
        bool moreExpected = static_cast<bool>(std::getline(e, expectedLine));
        if (!moreActual && !moreExpected) {
            return "none";
        }
        if (!moreActual || !moreExpected || actualLine != expectedLine) {
            return "line " + std::to_string(number) + "\n  recorded: " + (moreExpected ? expectedLine : "(end)") +
                   "\n  now:      " + (moreActual ? actualLine : "(end)");
        }
    }
}

std::string Join(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

class SessionLogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
        InstallApplication("org.example.news", kNews, true);
        InstallApplication("org.example.nobody", kStranger, false);
        InstallApplication("org.example.sports", kSports, false);
    }

    void TearDown() override { tilvane::host::Reset(); }

    static void InstallApplication(const std::string& packageId, const std::string& appId, bool privileged)
    {
        tilvane::host::RegisteredPackage package;
        package.packageId = packageId;
        std::vector<std::pair<std::string, std::string>> metadata;
        if (privileged) {
            metadata = {{AppMetadata::USE_PREVIEW, "true"},
                        {TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
                        {TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}};
        }
        package.applications.push_back({appId, metadata});
        ASSERT_TRUE(tilvane::host::InstallPackage(package));
    }

    std::vector<std::string> Environment(const std::string& appId) const
    {
        return {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_APP_ID=" + appId,
                std::string("TILVANE_DATA_CONTROL_PROVIDER_ID=") + kProviderId, "TILVANE_LOG_LEVEL=W"};
    }

    void StartService()
    {
        std::vector<std::string> environment = Environment(kServiceAppId);
        environment.back() = "TILVANE_LOG_LEVEL=D";
        m_service = std::make_unique<Process>(std::vector<std::string>{TILVANE_SERVICE_BINARY}, environment,
                                              m_logs.File("service.out"), m_logs.File("service.err"));
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
    }

    /* Runs tilvanectl to its end; its exit status. */
    int Ctl(const std::string& appId, const std::vector<std::string>& words)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY};
        argv.insert(argv.end(), words.begin(), words.end());
        std::string name = "tool-" + std::to_string(++m_tools);
        Process tool(argv, Environment(appId), m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        int status = tool.Wait(30000);
        m_toolOutput += name + ": " + ReadAll(m_logs.File(name + ".out")) + ReadAll(m_logs.File(name + ".err"));
        return status;
    }

    /* Waits for the `count`th occurrence of `text` in the service's log. */
    bool ServiceLogged(const std::string& text, int count = 1)
    {
        return tilvane::test::IterateMainContextUntil(
            [&] {
                std::string log = m_service->Err();
                int found = 0;
                for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
                    ++found;
                }
                return found >= count;
            },
            20000);
    }

    void RunDataSession();
    void RunEventsAndResets();

    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
    std::unique_ptr<Process> m_listener;
    std::string m_toolOutput;
    int m_tools = 0;
};

void SessionLogTest::RunDataSession()
{
    // The first read makes the application's launcher entry: accelerator 1.
    EXPECT_EQ(Ctl(kNews, {"data", "select", "accelerators", "--columns", "_id"}), 0);
    EXPECT_EQ(Ctl(kNews, {"data", "insert", "sections", "section_id=news-section", "section_accelerator_raw_id=1"}), 0);

    // Content library: insert, bulk insert, select, update, bulk update, row ids, delete.
    EXPECT_EQ(Ctl(kNews, {"data", "insert", "tiles", "tile_id=news1", "tile_section_raw_id=1"}), 0);
    std::string bulk = m_logs.File("bulk-insert.jsonl");
    tilvane::test::WriteFile(bulk, "{\"tile_id\": \"news2\", \"tile_section_raw_id\": 1}\n"
                                   "{\"tile_id\": \"news3\", \"tile_section_raw_id\": 1}\n");
    EXPECT_EQ(Ctl(kNews, {"data", "insert", "tiles", "--bulk", bulk}), 0);
    EXPECT_EQ(Ctl(kNews, {"data", "select", "tiles", "--columns", "tile_id", "--order", "tile_id"}), 0);
    EXPECT_EQ(Ctl(kNews, {"data", "update", "tiles", "--where", "tile_id = 'news1'", "tile_title=First"}), 0);
    std::string bulkUpdate = m_logs.File("bulk-update.jsonl");
    tilvane::test::WriteFile(bulkUpdate, "{\"bulk_update_row_id_key\": \"2\", \"tile_title\": \"Second\"}\n"
                                         "{\"bulk_update_row_id_key\": \"3\", \"tile_title\": \"Third\"}\n");
    EXPECT_EQ(Ctl(kNews, {"data", "update", "tiles", "--bulk", bulkUpdate}), 0);
    EXPECT_EQ(Ctl(kNews, {"data", "ids", "tiles"}), 0);
    EXPECT_EQ(Ctl(kNews, {"data", "delete", "tiles", "--where", "tile_id = 'news3'"}), 0);

    // Data control: insert, select, update, delete.
    const std::vector<std::string> dataControl = {"--interface", "data-control"};
    auto viaDataControl = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 3, dataControl.begin(), dataControl.end());
        return words;
    };
    EXPECT_EQ(Ctl(kNews, viaDataControl({"data", "insert", "tiles", "tile_id=news4", "tile_section_raw_id=1"})), 0);
    EXPECT_EQ(Ctl(kNews, viaDataControl({"data", "select", "tiles", "--columns", "tile_id", "--order", "tile_id"})), 0);
    EXPECT_EQ(Ctl(kNews, viaDataControl({"data", "update", "tiles", "--where", "tile_id = 'news4'", "tile_title=Four"})),
              0);
    EXPECT_EQ(Ctl(kNews, viaDataControl({"data", "delete", "tiles", "--where", "tile_id = 'news4'"})), 0);
    EXPECT_EQ(Ctl(kLauncher, viaDataControl({"data", "select", "sections", "--columns", "section_id"})), 0);

    // An application whose launcher entry, sections and tiles were written
    // before: its rows are found through the chain of row ids.
    {
        tilvane::test::RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (50, 'org.example.sports');"
                          "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES "
                          "(60, 'sports-a', 50), (61, 'sports-b', 50);"
                          "INSERT INTO tiles (_id, tile_id, tile_section_raw_id) VALUES "
                          "(70, 's1', 60), (71, 's2', 61), (72, 's3', 61);"),
                  0);
    }
    EXPECT_EQ(Ctl(kSports, {"data", "select", "tiles", "--columns", "tile_id", "--order", "tile_id"}), 0);
    EXPECT_EQ(Ctl(kSports, {"data", "ids", "tiles"}), 0);
    EXPECT_EQ(Ctl(kSports, viaDataControl({"data", "select", "sections", "--columns", "section_id"})), 0);
    EXPECT_EQ(Ctl(kSports, {"data", "delete", "tiles", "--where", "tile_id = 's3'"}), 0);

    // Refusals: a caller of level 0 on both interfaces, and a table no request may write.
    EXPECT_EQ(Ctl(kStranger, {"data", "select", "tiles"}), 1);
    EXPECT_EQ(Ctl(kStranger, {"data", "insert", "tiles", "tile_id=x", "tile_section_raw_id=1"}), 1);
    EXPECT_EQ(Ctl(kStranger, {"data", "ids", "tiles"}), 1);
    EXPECT_EQ(Ctl(kStranger, viaDataControl({"data", "select", "tiles"})), 1);
    EXPECT_EQ(Ctl(kStranger, viaDataControl({"data", "delete", "tiles", "--all"})), 1);
    EXPECT_EQ(Ctl(kLauncher, {"data", "insert", "accelerators", "accelerator_title=x"}), 1);
    EXPECT_EQ(Ctl(kLauncher, {"data", "update", "accelerators", "--where", "1 = 1", "accelerator_title=x"}), 1);
    EXPECT_EQ(Ctl(kLauncher, {"data", "delete", "accelerators", "--all"}), 1);

    // The end mark of a client's batch: relayed as an event, nothing written.
    EXPECT_EQ(Ctl(kNews, {"data", "insert", "tiles", std::string(TilesModel::EVENT_TILES_SYNC_KEY) + "=" +
                                                         TilesModel::EVENT_TILES_SYNC_STATUS_END,
                          "tile_section_raw_id=1"}),
              0);
}

void SessionLogTest::RunEventsAndResets()
{
    EXPECT_EQ(Ctl("org.example.trigger", {"events", "trigger"}), 0);

    // Power-off 13 is a factory reset: every section and tile goes.
    EXPECT_EQ(Ctl("org.example.power", {"power-off", "13"}), 0);
    EXPECT_TRUE(ServiceLogged("sections/tiles were cleared!")) << m_service->Err();
    EXPECT_EQ(Ctl("org.example.power", {"power-off", "2"}), 0);
    EXPECT_TRUE(ServiceLogged("Power Off", 2)) << m_service->Err();

    // The content-hub reset key.
    EXPECT_EQ(Ctl("org.example.settings", {"key", "set", "memory/korro/halcyon_reset_event", "1"}), 0);
    EXPECT_TRUE(ServiceLogged("halcyon reset")) << m_service->Err();
    EXPECT_TRUE(ServiceLogged("ClearTiles", 1)) << m_service->Err();
}

TEST_F(SessionLogTest, ASessionOfEveryRequestKindLogsAsRecorded)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartService());

    std::vector<std::string> listen = {TILVANECTL_BINARY, "events", "subscribe"};
    m_listener = std::make_unique<Process>(listen, Environment(kListener), m_logs.File("listener.out"),
                                           m_logs.File("listener.err"));
    ASSERT_TRUE(ServiceLogged(std::string("[") + kListener + "] was added")) << m_service->Err();

    RunDataSession();
    RunEventsAndResets();

    m_listener->Signal(SIGTERM);
    EXPECT_EQ(m_listener->Wait(10000), 0);
    ASSERT_TRUE(ServiceLogged(std::string("[") + kListener + "] was removed")) << m_service->Err();
    m_service->Signal(SIGTERM);
    ASSERT_EQ(m_service->Wait(20000), 0) << m_service->Err();

    std::string actual = Join(Normalise(m_service->Err(), "tilvane", m_root.Path()));
    ASSERT_GT(actual.size(), 1000u) << m_service->Err();
    if (getenv("TILVANE_RECORD_SESSION_LOG") != nullptr && !HasFailure()) {
        std::ofstream(ReferencePath()) << actual;
    }
    std::string expected = ReadAll(ReferencePath());
    ASSERT_FALSE(expected.empty()) << "no reference log at " << ReferencePath();
    EXPECT_TRUE(actual == expected) << "first difference at " << FirstDifference(actual, expected) << "\ntools:\n"
                                    << m_toolOutput;
}

/* The comparison itself: what is dropped and what is kept. */
TEST(SessionLogNormaliseTest, KeepsLevelFileFunctionAndMessageOfTheTagOnly)
{
    std::string log = "11-23 02:10:00.123 I/tilvane(4242): TilesProvider.cpp: GetPackageId(250) > at /tmp/r/x\n"
                      "11-23 02:10:00.124 D/tilvane-platform(4242): bundle.cpp: Encode(12) > other\n"
                      "11-23 02:10:00.125 E/tilvane(4242): DbHelper.cpp: OnCreate(7) > a (1) > b\n";
    EXPECT_EQ(Normalise(log, "tilvane", "/tmp/r"),
              (std::vector<std::string>{"I TilesProvider.cpp: GetPackageId > at <root>/x",
                                        "E DbHelper.cpp: OnCreate > a (1) > b"}));
}

}  // namespace
