/*
 * The real service on a private bus, used by three client processes (two
 * applications and the launcher) through tilvanectl on both request request interfaces.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PermissionHelper.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "tilvane_schema.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

constexpr const char* kProviderId = tilvane::client::schema::kProviderId;

/* A process started with the test's platform root and bus, its output in a file. */
class Process
{
public:
    Process(const std::vector<std::string>& argv, const std::string& root, const std::string& appId,
            const std::string& outputPath, const char* logLevel = "W")
        : m_outputPath(outputPath)
    {
        m_pid = fork();
        if (m_pid == 0) {
            int fd = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
            setenv("TILVANE_PLATFORM_ROOT", root.c_str(), 1);
            setenv("TILVANE_APP_ID", appId.c_str(), 1);
            setenv("TILVANE_DATA_CONTROL_PROVIDER_ID", kProviderId, 1);
            setenv("TILVANE_LOG_LEVEL", logLevel, 1);
            std::vector<char*> args;
            for (const std::string& arg : argv) {
                args.push_back(const_cast<char*>(arg.c_str()));
            }
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
    }

    ~Process()
    {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    std::string Output() const
    {
        std::ifstream in(m_outputPath);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    bool WaitForOutput(const std::string& text, int seconds) const
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            if (Output().find(text) != std::string::npos) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    /* Waits for the exit (sending `signal` first when not 0); the exit status or -1. */
    int Wait(int signal, int seconds)
    {
        if (signal != 0) {
            kill(m_pid, signal);
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_reaped = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

private:
    std::string m_outputPath;
    pid_t m_pid = -1;
    bool m_reaped = false;
};

struct Outcome
{
    int status;
    std::string output;
};

class RequestInterfacesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
        InstallApplication("org.example.news", "org.example.news.ui");
        InstallApplication("org.example.sports", "org.example.sports.ui");
        tilvane::host::RegisteredPackage nobody;
        nobody.packageId = "org.example.nobody";
        nobody.applications.push_back({"org.example.nobody.ui", {}});
        ASSERT_TRUE(tilvane::host::InstallPackage(nobody));
        StartService();
    }

    void TearDown() override
    {
        if (m_service != nullptr) {
            m_service->Wait(SIGTERM, 20);
        }
        tilvane::host::Reset();
    }

    /* A launcher-supporting application that declares the public privileges:
     * its launcher entry is made by its first request. */
    static void InstallApplication(const std::string& packageId, const std::string& appId)
    {
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter(packageId, appId));
    }

    void StartService()
    {
        m_service = std::make_unique<Process>(std::vector<std::string>{TILVANE_SERVICE_BINARY}, m_root.Path(),
                                              kServiceAppId, m_logs.File("service-" + std::to_string(++m_starts) + ".log"),
                                              "D");
        // The preview-event port is the last thing the service sets up.
        ASSERT_TRUE(m_service->WaitForOutput("local port preview-event-receiver registered", 30)) << m_service->Output();
    }

    void RestartService()
    {
        ASSERT_EQ(m_service->Wait(SIGTERM, 20), 0) << m_service->Output();
        m_service.reset();
        StartService();
    }

    Outcome Ctl(const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        Process tool(argv, m_root.Path(), appId, m_logs.File("tool-" + std::to_string(++m_tools) + ".out"));
        int status = tool.Wait(0, 30);
        return {status, tool.Output()};
    }

    /* The application's own accelerator id, as its first (confined) read makes it. */
    std::string OwnAcceleratorId(const std::string& appId)
    {
        Outcome read = Ctl(appId, {"data", "select", "accelerators", "--columns", "_id", "--json"});
        EXPECT_EQ(read.status, 0) << read.output;
        std::smatch match;
        EXPECT_TRUE(std::regex_search(read.output, match, std::regex("\"_id\": ([0-9]+)"))) << read.output;
        return match.size() > 1 ? match[1].str() : "";
    }

    std::string InsertedRowId(const Outcome& outcome)
    {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(outcome.output, match, std::regex("inserted row ([0-9]+)"))) << outcome.output;
        return match.size() > 1 ? match[1].str() : "";
    }

    /* The tile ids a caller reads, on one interface, as "a,b,c". */
    std::string TileIds(const std::string& appId, const std::string& interface)
    {
        Outcome read = Ctl(appId, {"data", "select", "tiles", "--interface", interface, "--columns", "tile_id", "--order",
                                   "tile_id", "--json"});
        EXPECT_EQ(read.status, 0) << read.output;
        std::string ids;
        std::regex pattern("\"tile_id\": \"([^\"]*)\"");
        for (auto it = std::sregex_iterator(read.output.begin(), read.output.end(), pattern); it != std::sregex_iterator();
             ++it) {
            ids += (ids.empty() ? "" : ",") + (*it)[1].str();
        }
        return ids;
    }

    /* Gives an application a section and two tiles, one per interface. */
    void PublishContent(const std::string& appId, const std::string& prefix)
    {
        std::string accelerator = OwnAcceleratorId(appId);
        ASSERT_FALSE(accelerator.empty());
        Outcome section = Ctl(appId, {"data", "insert", "sections", "section_id=" + prefix + "-section",
                                      "section_accelerator_raw_id=" + accelerator});
        ASSERT_EQ(section.status, 0) << section.output;
        std::string sectionId = InsertedRowId(section);
        m_sections[appId] = sectionId;

        Outcome viaContent = Ctl(appId, {"data", "insert", "tiles", "--interface", "content", "tile_id=" + prefix + "1",
                                         "tile_section_raw_id=" + sectionId});
        ASSERT_EQ(viaContent.status, 0) << viaContent.output;
        Outcome viaDataControl = Ctl(appId, {"data", "insert", "tiles", "--interface", "data-control",
                                             "tile_id=" + prefix + "2", "tile_section_raw_id=" + sectionId});
        ASSERT_EQ(viaDataControl.status, 0) << viaDataControl.output;
    }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
    std::map<std::string, std::string> m_sections;
    int m_starts = 0;
    int m_tools = 0;
};

TEST_F(RequestInterfacesTest, ApplicationsLauncherAndStrangersOnBothInterfaces)
{
    PublishContent("org.example.news.ui", "news");
    PublishContent("org.example.sports.ui", "sports");

    // Each application reads only its own rows, on both request interfaces.
    for (const char* interface : {"content", "data-control"}) {
        EXPECT_EQ(TileIds("org.example.news.ui", interface), "news1,news2") << interface;
        EXPECT_EQ(TileIds("org.example.sports.ui", interface), "sports1,sports2") << interface;
        // The launcher reads everything.
        EXPECT_EQ(TileIds("ContentServiceManager", interface), "news1,news2,sports1,sports2") << interface;
    }

    // A caller without privileges is refused: a write with -13; a select, which
    // answers only yes or no (no result on the content interface, the refusal's text
    // on the data-control interface), with the same reason on both.
    Outcome stranger = Ctl("org.example.nobody.ui", {"data", "select", "tiles"});
    EXPECT_EQ(stranger.status, 1);
    EXPECT_NE(stranger.output.find("refused: permission level too low"), std::string::npos) << stranger.output;
    Outcome strangerDataControl = Ctl("org.example.nobody.ui", {"data", "select", "tiles", "--interface", "data-control"});
    EXPECT_EQ(strangerDataControl.status, 1);
    EXPECT_NE(strangerDataControl.output.find("refused: permission level too low"), std::string::npos)
        << strangerDataControl.output;
    Outcome strangerInsert =
        Ctl("org.example.nobody.ui", {"data", "insert", "tiles", "tile_id=x", "tile_section_raw_id=1"});
    EXPECT_EQ(strangerInsert.status, 1);
    EXPECT_NE(strangerInsert.output.find("permission denied (-13)"), std::string::npos) << strangerInsert.output;

    // Accelerators are never inserted through a request.
    Outcome accelerator = Ctl("ContentServiceManager", {"data", "insert", "accelerators", "accelerator_title=x"});
    EXPECT_EQ(accelerator.status, 1);
    EXPECT_NE(accelerator.output.find("invalid URI (-22)"), std::string::npos) << accelerator.output;
}

TEST_F(RequestInterfacesTest, ABulkWhoseThirdRowFailsLeavesNoRow)
{
    PublishContent("org.example.news.ui", "news");
    std::string section = m_sections["org.example.news.ui"];
    std::string file = m_logs.File("bulk.jsonl");
    tilvane::test::WriteFile(file, "{\"tile_id\": \"bulk1\", \"tile_section_raw_id\": " + section +
                                       "}\n"
                                       "{\"tile_id\": \"bulk2\", \"tile_section_raw_id\": " +
                                       section +
                                       "}\n"
                                       "{\"tile_id\": \"bulk3\", \"tile_section_raw_id\": 999999}\n"
                                       "{\"tile_id\": \"bulk4\", \"tile_section_raw_id\": " +
                                       section + "}\n");

    Outcome bulk = Ctl("org.example.news.ui", {"data", "insert", "tiles", "--bulk", file});

    EXPECT_EQ(bulk.status, 1) << bulk.output;
    EXPECT_EQ(TileIds("org.example.news.ui", "content"), "news1,news2");
}

TEST_F(RequestInterfacesTest, AContentBulkInsertMakesASubscriberPrintOneSyncEvent)
{
    PublishContent("org.example.news.ui", "news");
    std::string section = m_sections["org.example.news.ui"];
    Process subscriber({TILVANECTL_BINARY, "events", "subscribe"}, m_root.Path(), "org.example.listener",
                       m_logs.File("subscriber.out"));
    ASSERT_TRUE(subscriber.WaitForOutput("subscribed to preview events", 20)) << subscriber.Output();

    std::string file = m_logs.File("bulk.jsonl");
    tilvane::test::WriteFile(file, "{\"tile_id\": \"bulk1\", \"tile_section_raw_id\": " + section +
                                       "}\n{\"tile_id\": \"bulk2\", \"tile_section_raw_id\": " + section + "}\n");
    Outcome bulk = Ctl("org.example.news.ui", {"data", "insert", "tiles", "--bulk", file});
    ASSERT_EQ(bulk.status, 0) << bulk.output;

    ASSERT_TRUE(subscriber.WaitForOutput("sync=end", 20)) << subscriber.Output();
    EXPECT_EQ(subscriber.Wait(SIGTERM, 20), 0);
    std::string output = subscriber.Output();
    size_t events = 0;
    for (size_t at = output.find("sync=end"); at != std::string::npos; at = output.find("sync=end", at + 1)) {
        ++events;
    }
    EXPECT_EQ(events, 1u) << output;
    EXPECT_NE(output.find(std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + "=org.example.news"),
              std::string::npos)
        << output;
    EXPECT_NE(output.find(std::string(TilesModel::Tiles::TILE_SECTION_RAW_ID) + "=" + section), std::string::npos)
        << output;
}

TEST_F(RequestInterfacesTest, DataWrittenBeforeARestartIsReadBackAfterIt)
{
    PublishContent("org.example.news.ui", "news");

    RestartService();

    EXPECT_EQ(TileIds("org.example.news.ui", "content"), "news1,news2");
    EXPECT_EQ(TileIds("org.example.news.ui", "data-control"), "news1,news2");
}

}  // namespace
