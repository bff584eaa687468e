#include <gtest/gtest.h>

#include <fstream>

#include <string>
#include <vector>

#include <bundle.h>
#include <message_port.h>

#include "MessageHelper.h"
#include "TestSupport.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using tilvane::host::LogLine;
using namespace tilvane::test;

namespace {

class TilesProviderTest : public ::testing::Test
{
protected:
    void TearDown() override { ReleaseProvider(); }

    /* ReleaseInstance, also freeing the message helper the service keeps for
     * the process's life. */
    static void ReleaseProvider() { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    std::string DatabasePath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }

    /* Number of times the tiles database helper was built. */
    int DatabaseOpenings() const { return tilvane::test::CountExactLines("tilvane-content", "database opened: " + DatabasePath()); }

    void CreateHealthyDatabaseWithOneAccelerator()
    {
        CTilesProvider::GetInstance();
        ReleaseProvider();
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('pkg.kept')"), 0);
    }

    PlatformSandbox m_sandbox;
    // The provider registers its preview-event port at start.
    tilvane::test::PrivateBus m_bus;
};

TEST_F(TilesProviderTest, GetInstanceTwiceReturnsTheSameObjectBuiltOnce)
{
    tilvane::host::UseVirtualClock(true);
    CTilesProvider* first = CTilesProvider::GetInstance();
    CTilesProvider* second = CTilesProvider::GetInstance();

    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(DatabaseOpenings(), 1);
}

TEST_F(TilesProviderTest, ReleaseInstanceWithoutAnInstanceDoesNothing)
{
    CTilesProvider::ReleaseInstance();
    CTilesProvider::ReleaseInstance();

    EXPECT_EQ(DatabaseOpenings(), 0);
    EXPECT_EQ(CountLines("", "database closed"), 0);
    EXPECT_EQ(CountLines("", "lock destroyed"), 0);
}

TEST_F(TilesProviderTest, GetInstanceAfterReleaseBuildsAFreshInstance)
{
    tilvane::host::UseVirtualClock(true);
    CTilesProvider::GetInstance();
    ReleaseProvider();
    EXPECT_EQ(tilvane::test::CountExactLines("tilvane-content", "database closed: " + DatabasePath()), 1);

    CTilesProvider* fresh = CTilesProvider::GetInstance();

    EXPECT_NE(fresh, nullptr);
    EXPECT_EQ(DatabaseOpenings(), 2);
    EXPECT_EQ(tilvane::test::CountExactLines("tilvane-content", "database closed: " + DatabasePath()), 1);
}

TEST_F(TilesProviderTest, MissingDatabaseFileLogsThreeLinesATenthOfASecondApartBeforeTheHelperIsBuilt)
{
    ASSERT_FALSE(FileExists(DatabasePath()));

    CTilesProvider::GetInstance();

    std::vector<LogLine> lines = LinesContaining("tilvane", "DB file is not exist");
    ASSERT_EQ(lines.size(), 3u);
    for (const LogLine& line : lines) {
        EXPECT_EQ(line.priority, DLOG_INFO);
        EXPECT_EQ(line.message.rfind("TilesProvider.cpp: isDBFileExist(", 0), 0u) << line.message;
        EXPECT_NE(line.message.find(") > DB file is not exist"), std::string::npos) << line.message;
    }
    EXPECT_GE(lines[1].timeUs - lines[0].timeUs, 95000);
    EXPECT_GE(lines[2].timeUs - lines[1].timeUs, 95000);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), (std::vector<int64_t>{100000, 100000, 100000}));

    int lastMissing = -1;
    std::vector<LogLine> all = tilvane::host::CapturedLog();
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].message.find("DB file is not exist") != std::string::npos) {
            lastMissing = static_cast<int>(i);
        }
    }
    int opened = tilvane::test::IndexOfExactLine("database opened: " + DatabasePath());
    ASSERT_GE(opened, 0);
    EXPECT_LT(lastMissing, opened);
    EXPECT_TRUE(FileExists(DatabasePath()));
}

TEST_F(TilesProviderTest, ExistingDatabaseFileIsFoundWithoutWaiting)
{
    tilvane::host::UseVirtualClock(true);
    CreateHealthyDatabaseWithOneAccelerator();
    tilvane::host::ClearCapturedLog();
    tilvane::host::Reset();
    tilvane::host::SetPlatformRoot(m_sandbox.Root());
    tilvane::host::StartLogCapture();

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "DB file is not exist"), 0);
    EXPECT_TRUE(tilvane::host::RecordedSleeps().empty());
}

TEST_F(TilesProviderTest, StartCreatesTheThreeTables)
{
    tilvane::host::UseVirtualClock(true);
    CTilesProvider::GetInstance();

    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    EXPECT_EQ(db.TableInfo("accelerators").size(), 9u);
    EXPECT_EQ(db.TableInfo("sections").size(), 7u);
    EXPECT_EQ(db.TableInfo("tiles").size(), 27u);
}

TEST_F(TilesProviderTest, HealthyDatabaseKeepsItsRows)
{
    tilvane::host::UseVirtualClock(true);
    CreateHealthyDatabaseWithOneAccelerator();

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "----------remove original file-----------"), 0);
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.Column("SELECT accelerator_app_pkg_name FROM accelerators WHERE accelerator_app_pkg_name = 'pkg.kept'"),
              (std::vector<std::string>{"pkg.kept"}));
}

TEST_F(TilesProviderTest, DatabaseOfRandomBytesIsRemovedAndRecreatedEmpty)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::test::WriteFile(DatabasePath(), RandomBytes(64 * 1024, 7));

    CTilesProvider::GetInstance();

    std::vector<LogLine> removal = LinesContaining("tilvane", "----------remove original file-----------");
    ASSERT_EQ(removal.size(), 1u);
    EXPECT_EQ(removal[0].priority, DLOG_INFO);
    EXPECT_EQ(removal[0].message.rfind("TilesProvider.cpp: CTilesProvider(", 0), 0u) << removal[0].message;

    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    // Only the live-television entries that every start makes.
    EXPECT_EQ(db.Column("SELECT COUNT(*) FROM accelerators WHERE substr(accelerator_app_pkg_name, 1, 7) <> 'livetv_'"),
              (std::vector<std::string>{"0"}));
    EXPECT_EQ(db.Count("sections"), 0);
    EXPECT_EQ(db.Count("tiles"), 0);
    EXPECT_EQ(db.Scalar("PRAGMA integrity_check"), "ok");
}

TEST_F(TilesProviderTest, TruncatedDatabaseIsRemovedAndRecreatedEmpty)
{
    tilvane::host::UseVirtualClock(true);
    {
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("PRAGMA journal_mode = DELETE; CREATE TABLE filler (a TEXT);"
                          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
                          "INSERT INTO filler SELECT hex(randomblob(100)) FROM n;"),
                  0);
    }
    tilvane::test::TruncateFile(DatabasePath(), tilvane::test::FileSize(DatabasePath()) / 2);

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "----------remove original file-----------"), 1);
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
}

TEST_F(TilesProviderTest, DatabaseDamagedAfterAnOrderlyShutdownIsRemovedAtTheNextStart)
{
    tilvane::host::UseVirtualClock(true);
    CTilesProvider::GetInstance();
    {
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("CREATE TABLE filler (a TEXT);"
                          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
                          "INSERT INTO filler SELECT hex(randomblob(100)) FROM n;"),
                  0);
    }
    ReleaseProvider();
    // The orderly close left its record: the next start checks the header only,
    // unless the file changed since.
    ASSERT_TRUE(tilvane::test::FileExists(DatabasePath() + "-clean"));
    {
        std::fstream file(DatabasePath(), std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(file.is_open());
        file.seekp(10 * 4096);
        const std::string noise = tilvane::test::RandomBytes(20 * 4096, 9);
        file.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "----------remove original file-----------"), 1);
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
}

TEST_F(TilesProviderTest, StartAfterAnOrderlyShutdownSkipsTheFullCheckAndKeepsTheRows)
{
    tilvane::host::UseVirtualClock(true);
    CreateHealthyDatabaseWithOneAccelerator();
    CTilesProvider::GetInstance();
    ReleaseProvider();
    tilvane::host::ClearCapturedLog();

    CTilesProvider::GetInstance();

    EXPECT_EQ(tilvane::test::CountExactLines("tilvane-content",
                                             DatabasePath() + " was closed cleanly and not changed since: header "
                                                              "checked, quick check skipped"),
              1);
    EXPECT_EQ(CountLines("tilvane", "----------remove original file-----------"), 0);
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.Column("SELECT accelerator_app_pkg_name FROM accelerators WHERE accelerator_app_pkg_name = 'pkg.kept'"),
              (std::vector<std::string>{"pkg.kept"}));
}

TEST_F(TilesProviderTest, DestructionClosesTheDatabaseBeforeDeletingTheLock)
{
    tilvane::host::UseVirtualClock(true);
    CTilesProvider::GetInstance();
    tilvane::host::ClearCapturedLog();

    ReleaseProvider();

    int closed = tilvane::test::IndexOfExactLine("database closed: " + DatabasePath());
    int lockGone = IndexOfLine("lock destroyed: CTilesProviderLock");
    ASSERT_GE(closed, 0);
    ASSERT_GE(lockGone, 0);
    EXPECT_LT(closed, lockGone);
}

TEST_F(TilesProviderTest, StartRegistersThePreviewEventPortAndSubscribesTheDownloadManager)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::SetOwnAppId("com.quillon.px.tilvane");
    CTilesProvider* provider = CTilesProvider::GetInstance();

    bool exists = false;
    ASSERT_EQ(message_port_check_remote_port("com.quillon.px.tilvane", "preview-event-receiver", &exists), 0);
    EXPECT_TRUE(exists);
    CMessageHelper* helper = CTilesProviderTestAccess::SyncEventHelper(provider);
    ASSERT_NE(helper, nullptr);
    EXPECT_NE(CTilesProviderTestAccess::PermissionHelper(provider), nullptr);
    // Init subscribed the download manager: a send now tries it (and finds it absent).
    bundle* event = bundle_create();
    bundle_add_str(event, "sync", "end");
    EXPECT_EQ(helper->Send(event, false), -22);
    bundle_free(event);
    EXPECT_EQ(CountLines("tilvane", "Target AppID [DownloadManager] or port [image_update_db] is not exist"), 1);
}

/* The message helper and its port live until the process ends: releasing the
 * provider does not take the port down. */
TEST_F(TilesProviderTest, ReleaseLeavesThePreviewEventPortRegistered)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::SetOwnAppId("com.quillon.px.tilvane");
    CTilesProvider* provider = CTilesProvider::GetInstance();
    CMessageHelper* helper = CTilesProviderTestAccess::SyncEventHelper(provider);

    CTilesProvider::ReleaseInstance();

    bool exists = false;
    ASSERT_EQ(message_port_check_remote_port("com.quillon.px.tilvane", "preview-event-receiver", &exists), 0);
    EXPECT_TRUE(exists);
    delete helper;
}

}  // namespace
