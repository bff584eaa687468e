/*
 * What the real service keeps holding when things go wrong around it, on a
 * private bus with client processes (tests/stress/StressClient.cpp):
 *   - SIGKILL at random moments during bulk inserts: the database passes its
 *     integrity check, no bulk is stored in part, nothing acknowledged is lost;
 *   - several clients with mixed requests at once: nothing acknowledged lost;
 *   - the disk fills up during bulk inserts (a preloaded fault-injecting VFS
 *     makes every write after the Nth fail with SQLITE_FULL): every bulk
 *     answered with success is stored whole, every other one not at all;
 *   - requests beyond the decoding limits are refused and the service goes on.
 */
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PermissionHelper.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

const char kReady[] = "local port preview-event-receiver registered";


/* The words after `prefix ` of every line that starts with it. */
std::vector<std::string> Marked(const std::string& text, const std::string& prefix)
{
    std::vector<std::string> found;
    for (const std::string& line : Lines(text)) {
        if (line.rfind(prefix + " ", 0) == 0) {
            found.push_back(line.substr(prefix.size() + 1));
        }
    }
    return found;
}

/* Sets a variable of this process (which the programs it starts inherit
 * first) and puts the old value back at destruction. */
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : m_name(name)
    {
        const char* old = std::getenv(name);
        m_had = old != nullptr;
        m_old = m_had ? old : "";
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv()
    {
        if (m_had) {
            setenv(m_name.c_str(), m_old.c_str(), 1);
        } else {
            unsetenv(m_name.c_str());
        }
    }

private:
    std::string m_name;
    std::string m_old;
    bool m_had = false;
};

class RobustnessTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
    }

    void TearDown() override
    {
        if (m_service) {
            m_service->Signal(SIGTERM);
            m_service->Wait(20000);
        }
        tilvane::host::Reset();
    }

    /* The service logs what the tests wait for, whatever the caller's level. */
    ScopedEnv m_logLevel{"TILVANE_LOG_LEVEL", "D"};

    static void InstallWriter(const std::string& packageId, const std::string& appId)
    {
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter(packageId, appId));
    }

    std::vector<std::string> Environment(const std::string& appId) const
    {
        return {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_APP_ID=" + appId,
                "TILVANE_DATA_CONTROL_PROVIDER_ID=content://com.quillon.px.tiles", "TILVANE_LOG_LEVEL=D"};
    }

    void StartService(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> environment = Environment(kServiceAppId);
        environment.insert(environment.end(), extra.begin(), extra.end());
        const std::string name = "service-" + std::to_string(++m_starts);
        m_service = std::make_unique<Process>(std::vector<std::string>{TILVANE_SERVICE_BINARY}, environment,
                                              m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        ASSERT_TRUE(m_service->WaitFor(kReady, true, 30000)) << m_service->Err();
    }

    std::unique_ptr<Process> StartClient(const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANE_STRESS_CLIENT};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string name = "client-" + std::to_string(++m_clients);
        return std::make_unique<Process>(argv, Environment(appId), m_logs.File(name + ".out"),
                                         m_logs.File(name + ".err"));
    }

    /* Makes the application's section (through the service); its row id. */
    std::string SectionOf(const std::string& appId)
    {
        const std::string output = m_logs.File("section-" + appId);
        std::unique_ptr<Process> client = StartClient(appId, {"mixed", appId, "0", "1", output});
        EXPECT_EQ(0, client->Wait(30000)) << client->Err();
        const std::vector<std::string> section = Marked(ReadAll(output), "section");
        EXPECT_EQ(1u, section.size()) << ReadAll(output) << (m_service ? m_service->Err() : "");
        return section.empty() ? "" : section[0];
    }

    std::string DatabasePath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }

    /* Tiles stored per title (the bulk's marker), in the service's database
     * or in `file`. */
    std::map<std::string, int> RowsPerMarker(const std::string& prefix, const std::string& file = "") const
    {
        std::map<std::string, int> counts;
        RawDatabase db(file.empty() ? DatabasePath() : file);
        for (const std::string& title :
             db.Column("SELECT tile_title FROM tiles WHERE tile_title LIKE '" + prefix + "-%'")) {
            ++counts[title];
        }
        return counts;
    }

    std::string IntegrityCheck(const std::string& file = "") const
    {
        std::vector<std::string> result = RawDatabase(file.empty() ? DatabasePath() : file).Column("PRAGMA integrity_check");
        return result.size() == 1 ? result[0] : "findings: " + std::to_string(result.size());
    }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
    int m_starts = 0;
    int m_clients = 0;
};

TEST_F(RobustnessTest, KillsDuringBulkInsertsLeaveNoPartialBulkAndLoseNothingAcknowledged)
{
    constexpr int kKills = 10;
    constexpr int kRows = 5;
    InstallWriter("org.example.bulk", "org.example.bulk.ui");
    StartService();
    const std::string section = SectionOf("org.example.bulk.ui");
    ASSERT_FALSE(section.empty());

    const std::string output = m_logs.File("bulk.out");
    std::unique_ptr<Process> client =
        StartClient("org.example.bulk.ui", {"bulk", section, "k", "100000", std::to_string(kRows), output});
    std::mt19937 random(20261123);
    for (int kill = 0; kill < kKills; ++kill) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 500));
        m_service->Signal(SIGKILL);
        ASSERT_EQ(128 + SIGKILL, m_service->Wait(10000));
        StartService();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    tilvane::test::WriteFile(output + ".stop", "");
    ASSERT_EQ(0, client->Wait(30000)) << client->Err();
    m_service->Signal(SIGTERM);
    ASSERT_EQ(0, m_service->Wait(20000)) << m_service->Err();
    m_service.reset();

    const std::string text = ReadAll(output);
    const std::vector<std::string> acknowledged = Marked(text, "ack");
    const std::vector<std::string> failed = Marked(text, "fail");
    const std::map<std::string, int> stored = RowsPerMarker("k");
    EXPECT_EQ("ok", IntegrityCheck());
    EXPECT_GT(acknowledged.size(), 0u);
    for (const auto& entry : stored) {
        EXPECT_EQ(kRows, entry.second) << "bulk " << entry.first << " is stored in part";
    }
    for (const std::string& marker : acknowledged) {
        EXPECT_EQ(1u, stored.count(marker)) << "acknowledged bulk " << marker << " is missing";
    }
    std::printf("[ kills ] %d kills, %zu bulks acknowledged, %zu not, %zu stored\n", kKills, acknowledged.size(),
                failed.size(), stored.size());
}

TEST_F(RobustnessTest, SeveralClientsWithMixedRequestsLoseNothingAcknowledged)
{
    constexpr int kClients = 5;
    constexpr int kRequests = 300;
    for (int c = 0; c < kClients; ++c) {
        InstallWriter("org.example.load" + std::to_string(c), "org.example.load" + std::to_string(c) + ".ui");
    }
    StartService();
    std::vector<std::unique_ptr<Process>> clients;
    std::vector<std::string> outputs;
    for (int c = 0; c < kClients; ++c) {
        const std::string app = "org.example.load" + std::to_string(c) + ".ui";
        outputs.push_back(m_logs.File("load-" + std::to_string(c) + ".out"));
        clients.push_back(StartClient(app, {"mixed", "load" + std::to_string(c), std::to_string(kRequests),
                                            std::to_string(1000 + c), outputs.back()}));
    }
    for (auto& client : clients) {
        ASSERT_EQ(0, client->Wait(120000)) << client->Err();
    }
    RawDatabase db(DatabasePath());
    const std::vector<std::string> tiles = db.Column("SELECT tile_id FROM tiles WHERE tile_id LIKE 'load%'");
    const std::set<std::string> present(tiles.begin(), tiles.end());
    size_t inserted = 0;
    size_t deleted = 0;
    for (const std::string& output : outputs) {
        const std::string text = ReadAll(output);
        EXPECT_EQ(1u, Marked(text, "section").size()) << text;
        EXPECT_NE(std::string::npos, text.find("\ndone\n")) << text;
        EXPECT_TRUE(Marked(text, "missing").empty()) << text;
        std::set<std::string> live;
        for (const std::string& line : Lines(text)) {
            if (line.rfind("ins ", 0) == 0) {
                live.insert(line.substr(4));
                ++inserted;
            } else if (line.rfind("del ", 0) == 0) {
                live.erase(line.substr(4));
                EXPECT_EQ(0u, present.count(line.substr(4))) << "deleted tile " << line.substr(4) << " is back";
                ++deleted;
            }
        }
        for (const std::string& tile : live) {
            EXPECT_EQ(1u, present.count(tile)) << "acknowledged tile " << tile << " is missing";
        }
    }
    EXPECT_GT(inserted, 0u);
    EXPECT_GT(deleted, 0u);
    EXPECT_EQ("ok", IntegrityCheck());
    std::printf("[ load ] %d clients x %d requests: %zu tiles inserted, %zu deleted\n", kClients, kRequests, inserted,
                deleted);
}

/* tilvanectl as the platform, to its end: its exit code. */
int PlatformTool(const std::string& root, const TempDir& logs, const std::vector<std::string>& words)
{
    static int runs = 0;
    std::vector<std::string> argv = {TILVANECTL_BINARY};
    argv.insert(argv.end(), words.begin(), words.end());
    const std::string name = "tool-" + std::to_string(++runs);
    Process tool(argv, {"TILVANE_PLATFORM_ROOT=" + root, "TILVANE_APP_ID=tilvanectl"}, logs.File(name + ".out"),
                 logs.File(name + ".err"));
    const int code = tool.Wait(60000);
    EXPECT_EQ(0, code) << tool.Err();
    return code;
}

TEST_F(RobustnessTest, BackupsTakenDuringLoadAreWholeAndOneRestoresToAnIdenticalDatabase)
{
    constexpr int kRows = 5;
    constexpr int kBackups = 5;
    InstallWriter("org.example.bulk", "org.example.bulk.ui");
    InstallWriter("org.example.load", "org.example.load.ui");
    StartService();
    const std::string section = SectionOf("org.example.bulk.ui");
    ASSERT_FALSE(section.empty());
    const std::string output = m_logs.File("bulk.out");
    std::unique_ptr<Process> bulks =
        StartClient("org.example.bulk.ui", {"bulk", section, "b", "100000", std::to_string(kRows), output});
    std::unique_ptr<Process> mixed =
        StartClient("org.example.load.ui", {"mixed", "load", "400", "7", m_logs.File("mixed.out")});
    std::vector<std::string> backups;
    for (int b = 0; b < kBackups; ++b) {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        backups.push_back(m_logs.File("backup-" + std::to_string(b) + ".db"));
        ASSERT_EQ(0, PlatformTool(m_root.Path(), m_logs, {"db", "backup", backups.back()}));
    }
    tilvane::test::WriteFile(output + ".stop", "");
    ASSERT_EQ(0, bulks->Wait(30000)) << bulks->Err();
    ASSERT_EQ(0, mixed->Wait(120000)) << mixed->Err();

    /* Each copy is one moment of the database: sound, and no bulk in part.
     * The load went on between them: each holds more bulks than the one
     * before. */
    size_t previous = 0;
    for (const std::string& backup : backups) {
        EXPECT_EQ("ok", IntegrityCheck(backup)) << backup;
        EXPECT_TRUE(RawDatabase(backup).Column("PRAGMA foreign_key_check").empty()) << backup;
        const std::map<std::string, int> stored = RowsPerMarker("b", backup);
        for (const auto& entry : stored) {
            EXPECT_EQ(kRows, entry.second) << backup << ": bulk " << entry.first << " is in part";
        }
        EXPECT_GT(stored.size(), previous) << backup;
        previous = stored.size();
    }
    /* The database went on changing after the copies; restoring the
     * middle one makes it that copy again, row for row. */
    const std::vector<std::string> tables = {"accelerators", "sections", "tiles"};
    const std::string middle = backups[kBackups / 2];
    ASSERT_NE(RawDatabase(DatabasePath()).Dump(tables), RawDatabase(middle).Dump(tables));
    ASSERT_EQ(0, PlatformTool(m_root.Path(), m_logs, {"db", "restore", middle}));
    EXPECT_EQ(RawDatabase(DatabasePath()).Dump(tables), RawDatabase(middle).Dump(tables));
    EXPECT_EQ("ok", IntegrityCheck());
    /* The service serves the restored rows at once. */
    const std::string after = m_logs.File("after.out");
    std::unique_ptr<Process> client = StartClient("org.example.bulk.ui", {"bulk", section, "after", "1", "1", after});
    ASSERT_EQ(0, client->Wait(30000)) << client->Err();
    EXPECT_EQ(1u, Marked(ReadAll(after), "ack").size()) << ReadAll(after);
    EXPECT_EQ(1, RowsPerMarker("after")["after-0"]);
    EXPECT_EQ(RowsPerMarker("b"), RowsPerMarker("b", middle));
}

TEST_F(RobustnessTest, BulksWhileTheDiskFillsAreStoredWholeOrAnsweredWithAFailure)
{
    constexpr int kBulks = 60;
    constexpr int kRows = 4;
    InstallWriter("org.example.bulk", "org.example.bulk.ui");
    const std::string startFile = m_logs.File("disk-fills");
    /* Under AddressSanitizer the preloaded library comes before its runtime. */
    const char* asan = std::getenv("ASAN_OPTIONS");
    ScopedEnv sanitizer("ASAN_OPTIONS",
                        std::string("verify_asan_link_order=0") + (asan != nullptr ? std::string(":") + asan : ""));
    StartService({"LD_PRELOAD=" + std::string(TILVANE_FAULT_VFS_PRELOAD), "TILVANE_FAULT_VFS_FULL_AFTER=40",
                  "TILVANE_FAULT_VFS_START_FILE=" + startFile});
    const std::string section = SectionOf("org.example.bulk.ui");
    ASSERT_FALSE(section.empty());

    tilvane::test::WriteFile(startFile, "");
    const std::string output = m_logs.File("full.out");
    std::unique_ptr<Process> client = StartClient(
        "org.example.bulk.ui", {"bulk", section, "f", std::to_string(kBulks), std::to_string(kRows), output});
    ASSERT_EQ(0, client->Wait(60000)) << client->Err();

    const std::string text = ReadAll(output);
    const std::vector<std::string> acknowledged = Marked(text, "ack");
    const std::vector<std::string> failed = Marked(text, "fail");
    ASSERT_EQ(static_cast<size_t>(kBulks), acknowledged.size() + failed.size()) << text;
    /* The disk did fill up during the run. */
    EXPECT_GT(acknowledged.size(), 0u) << text;
    EXPECT_GT(failed.size(), 0u) << text;
    EXPECT_NE(std::string::npos, m_service->Err().find("database or disk is full"));

    m_service->Signal(SIGTERM);
    EXPECT_EQ(0, m_service->Wait(20000)) << m_service->Err();
    m_service.reset();
    const std::map<std::string, int> stored = RowsPerMarker("f");
    for (const std::string& marker : acknowledged) {
        auto it = stored.find(marker);
        EXPECT_TRUE(it != stored.end() && it->second == kRows) << "acknowledged bulk " << marker << " is not stored whole";
    }
    for (const std::string& entry : failed) {
        const std::string marker = entry.substr(0, entry.find(' '));
        EXPECT_EQ(0u, stored.count(marker)) << "bulk " << entry << " was answered with a failure but is stored";
    }
    EXPECT_EQ("ok", IntegrityCheck());
    std::printf("[ full disk ] %zu bulks acknowledged and stored, %zu answered with a failure\n", acknowledged.size(),
                failed.size());
}

TEST_F(RobustnessTest, RequestsBeyondTheDecodingLimitsAreRefusedAndTheServiceGoesOn)
{
    InstallWriter("org.example.big", "org.example.big.ui");
    StartService();
    const std::string section = SectionOf("org.example.big.ui");
    ASSERT_FALSE(section.empty());
    const std::string output = m_logs.File("oversized.out");
    std::unique_ptr<Process> client = StartClient("org.example.big.ui", {"oversized", section, kServiceAppId, output});
    ASSERT_EQ(0, client->Wait(60000)) << client->Err();

    const std::string text = ReadAll(output);
    const std::vector<std::string> keys = Marked(text, "keys");
    const std::vector<std::string> rows = Marked(text, "rows");
    const std::vector<std::string> bytes = Marked(text, "bytes");
    const std::vector<std::string> after = Marked(text, "after");
    ASSERT_EQ(1u, keys.size()) << text;
    ASSERT_EQ(1u, rows.size()) << text;
    ASSERT_EQ(1u, bytes.size()) << text;
    ASSERT_EQ(1u, after.size()) << text;
    EXPECT_NE(std::string::npos, keys[0].find("invalid request: the values are over the bundle limits")) << text;
    EXPECT_NE(std::string::npos, rows[0].find("invalid request: the rows are over the bulk or bundle limits")) << text;
    EXPECT_NE(std::string::npos, bytes[0].find("invalid request: the rows are over the bulk or bundle limits")) << text;
    EXPECT_EQ("done", after[0]) << text;
    /* A message-port send does not wait for the receiver, so the sender is
     * not told; the receiver drops the message over the limits with one line. */
    ASSERT_EQ(1u, Marked(text, "port").size()) << text;
    const std::string log = m_service->Err();
    size_t lines = 0;
    for (const std::string& line : Lines(log)) {
        lines += line.find("message for port accelerator_port from org.example.big.ui dropped: over the bundle limits") !=
                 std::string::npos;
    }
    EXPECT_EQ(1u, lines) << log;
    EXPECT_EQ("0", RawDatabase(DatabasePath()).Column("SELECT count(*) FROM tiles WHERE tile_id IN ('r', 'b')").at(0));
}

}  // namespace
