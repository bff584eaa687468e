#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <string>
#include <vector>

#include <host_control.h>

#include "TestSupport.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using namespace tilvane::test;

namespace {

const char kMarker[] = "/tmp/.cs_tiles_erased";
const char kTag[] = "tilvane";

/* The erase marker is one file for the whole machine: tests that use it hold
 * this lock, so that two test processes never see each other's marker. */
class MarkerLock
{
public:
    /* Close-on-exec, so that a bus daemon started by the test never holds it;
     * waits at most a minute, then goes on without it. */
    MarkerLock() : m_fd(open("/tmp/.tilvane-erase-marker-tests-2.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        for (int i = 0; m_fd >= 0 && i < 600; ++i) {
            if (flock(m_fd, LOCK_EX | LOCK_NB) == 0) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::remove(kMarker);
    }
    ~MarkerLock()
    {
        std::remove(kMarker);
        if (m_fd >= 0) {
            flock(m_fd, LOCK_UN);
            close(m_fd);
        }
    }

private:
    int m_fd;
};

class ResetTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::UseVirtualClock(true); }
    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    std::string DatabasePath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }

    /* Starts the provider once so the database exists, then adds sections and
     * tiles under two accelerators and one package of the content hub. */
    void StartWithContent()
    {
        CTilesProvider::GetInstance();
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'Qx7TmWp2Lc'), "
                          "(102, 'Hb4NzRk9Fs'), (103, 'org.example.other');"
                          "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 101), (2, 102), (3, 103);"
                          "INSERT INTO tiles (tile_section_raw_id) VALUES (1), (2), (3);"),
                  0);
    }
    int64_t Count(const std::string& table) const
    {
        RawDatabase db(DatabasePath());
        return db.Count(table);
    }

    MarkerLock m_markerLock;
    PlatformSandbox m_sandbox;
    PrivateBus m_bus;
};

TEST_F(ResetTest, FactoryResetValuesOneAndTwoClearOncePerBoot)
{
    for (int value : {1, 2}) {
        std::remove(kMarker);
        tilvane::host::RemoveConfigurationKey("db/qeb/factory_reset");
        StartWithContent();
        const int64_t accelerators = Count("accelerators");
        ASSERT_TRUE(tilvane::host::SetConfigurationKey("db/qeb/factory_reset", value));
        tilvane::host::ClearCapturedLog();
        CTilesProvider* provider = CTilesProvider::GetInstance();
        EXPECT_EQ(CountLines(kTag, "Use vconf callback : " + std::to_string(value)), 1);
        EXPECT_EQ(CountLines(kTag, "This is Factory reset or reset booting"), 1);
        EXPECT_EQ(CountLines(kTag, "sections/tiles were cleared!"), 1);
        EXPECT_EQ(Count("tiles"), 0);
        EXPECT_EQ(Count("sections"), 0);
        EXPECT_EQ(Count("accelerators"), accelerators);
        EXPECT_TRUE(FileExists(kMarker));
        EXPECT_FALSE(CTilesProviderTestAccess::PowerOffSubscribed(provider));
        EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 0);
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();

        // A restart in the same boot clears nothing.
        {
            RawDatabase db(DatabasePath());
            ASSERT_EQ(db.Exec("INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (7, 103);"), 0);
        }
        tilvane::host::ClearCapturedLog();
        CTilesProvider::GetInstance();
        EXPECT_EQ(CountLines(kTag, "Tiles are already erased"), 1);
        EXPECT_EQ(CountLines(kTag, "sections/tiles were cleared!"), 0);
        EXPECT_EQ(Count("sections"), 1);
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("DELETE FROM tiles; DELETE FROM sections; DELETE FROM accelerators;"), 0);
    }
}

TEST_F(ResetTest, FactoryResetValuesZeroAndThreeClearNothing)
{
    for (int value : {0, 3}) {
        tilvane::host::RemoveConfigurationKey("db/qeb/factory_reset");
        StartWithContent();
        ASSERT_TRUE(tilvane::host::SetConfigurationKey("db/qeb/factory_reset", value));
        CTilesProvider::GetInstance();
        EXPECT_EQ(CountLines(kTag, "Use vconf callback : " + std::to_string(value)), 1);
        EXPECT_EQ(Count("tiles"), 3);
        EXPECT_EQ(Count("sections"), 3);
        EXPECT_FALSE(FileExists(kMarker));
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("DELETE FROM tiles; DELETE FROM sections; DELETE FROM accelerators WHERE _id > 100;"), 0);
    }
    EXPECT_EQ(CountLines(kTag, "sections/tiles were cleared!"), 0);
}

TEST_F(ResetTest, WithoutTheKeyPowerOffIsSubscribedAndTheCheckerDoesNotRun)
{
    StartWithContent();
    tilvane::host::ClearCapturedLog();
    CTilesProvider* provider = CTilesProvider::GetInstance();
    EXPECT_EQ(CountLines(kTag, "Use power off callback to get reset event"), 1);
    EXPECT_TRUE(CTilesProviderTestAccess::PowerOffSubscribed(provider));
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 1);
    EXPECT_EQ(CountLines(kTag, "This is Factory reset or reset booting"), 0);
    EXPECT_FALSE(FileExists(kMarker));
    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 0);
}

TEST_F(ResetTest, AFailedPowerOffSubscriptionLeavesTheFlagClear)
{
    tilvane::host::FailNextCalls("device_power_subscribe_poweroff", 1);
    CTilesProvider* provider = CTilesProvider::GetInstance();
    EXPECT_FALSE(CTilesProviderTestAccess::PowerOffSubscribed(provider));
    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
    EXPECT_EQ(tilvane::host::CallCount("device_power_unsubscribe_poweroff"), 0);
}

TEST_F(ResetTest, PowerOffTypesTwelveAndFifteenClearNothing)
{
    StartWithContent();
    CTilesProvider::GetInstance();
    EXPECT_EQ(tilvane::host::RaisePowerOff(12), 1);
    EXPECT_EQ(tilvane::host::RaisePowerOff(15), 1);
    EXPECT_EQ(CountLines(kTag, "Power Off"), 2);
    EXPECT_EQ(Count("tiles"), 3);
    EXPECT_EQ(Count("sections"), 3);
}

TEST_F(ResetTest, PowerOffTypesThirteenAndFourteenClearAndReturnZero)
{
    for (int type : {13, 14}) {
        StartWithContent();
        CTilesProvider* provider = CTilesProvider::GetInstance();
        EXPECT_EQ(CTilesProvider::PowerOffCB(type, provider), 0);
        EXPECT_EQ(CountLines(kTag, "Factory reset or service reset : " + std::to_string(type)), 1);
        EXPECT_EQ(Count("tiles"), 0);
        EXPECT_EQ(Count("sections"), 0);
        EXPECT_EQ(Count("accelerators"), 9);
        EXPECT_FALSE(FileExists(kMarker));
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("DELETE FROM tiles; DELETE FROM sections; DELETE FROM accelerators WHERE _id > 100;"), 0);
    }
    EXPECT_EQ(CTilesProvider::PowerOffCB(13, nullptr), 0);
}

TEST_F(ResetTest, APowerOffRaisedThroughThePlatformClears)
{
    StartWithContent();
    CTilesProvider::GetInstance();
    EXPECT_EQ(tilvane::host::RaisePowerOff(13), 1);
    EXPECT_EQ(Count("tiles"), 0);
    EXPECT_EQ(Count("sections"), 0);
}

TEST_F(ResetTest, ContentHubValueTwoOnlyLogs)
{
    StartWithContent();
    CTilesProvider::GetInstance();
    EXPECT_EQ(tilvane::host::KeyWatcherCount("memory/korro/halcyon_reset_event"), 1);
    ASSERT_TRUE(tilvane::host::SetConfigurationKey("memory/korro/halcyon_reset_event", 2));
    ASSERT_TRUE(IterateMainContextUntil(
        [] { return CountLines("tilvane", "halcyon reset callback called value = 2") == 1; }, 2000));
    EXPECT_EQ(CountLines(kTag, "halcyon reset"), 1);
    EXPECT_EQ(Count("sections"), 3);
    EXPECT_EQ(Count("tiles"), 3);
}

TEST_F(ResetTest, ContentHubValueOneClearsTheTwoPackagesOnly)
{
    StartWithContent();
    CTilesProvider::GetInstance();
    ASSERT_TRUE(tilvane::host::SetConfigurationKey("memory/korro/halcyon_reset_event", 1));
    ASSERT_TRUE(IterateMainContextUntil([] { return CountLines("tilvane", "ClearTiles Request") == 1; }, 2000));
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.Column("SELECT _id FROM sections"), (std::vector<std::string>{"3"}));
    EXPECT_EQ(db.Column("SELECT tile_section_raw_id FROM tiles"), (std::vector<std::string>{"3"}));
    EXPECT_EQ(db.Count("accelerators"), 9);
    EXPECT_LT(IndexOfLine("Delete section ID : Qx7TmWp2Lc[1]"), IndexOfLine("Delete section ID : Hb4NzRk9Fs[2]"));
    EXPECT_EQ(CountLines(kTag, "halcyon reset"), 2);
}

TEST_F(ResetTest, AFailedContentHubWatchIsLoggedAndStartGoesOn)
{
    tilvane::host::FailNextCalls("vconf_notify_key_changed", 1);
    CTilesProvider::GetInstance();
    EXPECT_EQ(CountLines(kTag, "register Halcyon reset callback failed, ret = -1"), 1);
    EXPECT_EQ(tilvane::host::KeyWatcherCount("memory/korro/halcyon_reset_event"), 0);
}

TEST_F(ResetTest, ConstructionAndDestructionOrderOfTheChangeManager)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    ASSERT_NE(CTilesProviderTestAccess::AppSectionChangeManager(provider), nullptr);
    const int backupOpened = IndexOfLine("database opened: " + m_sandbox.DatabaseDirectory() + ".preview.db.sqlite");
    const int refreshed = IndexOfLine("Finish refreshing Launcher Item  ");
    const int watcher = IndexOfLine("Use power off callback to get reset event");
    EXPECT_GE(backupOpened, 0);
    EXPECT_LT(IndexOfLine("database opened: " + DatabasePath()), backupOpened);
    EXPECT_LT(backupOpened, refreshed);
    EXPECT_LT(refreshed, watcher);
    EXPECT_LT(watcher, IndexOfLine("local port preview-event-receiver registered"));

    tilvane::host::ClearCapturedLog();
    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
    const int portsGone = IndexOfLine("local port launcher_event_port unregistered");
    const int backupClosed = IndexOfLine("database closed: " + m_sandbox.DatabaseDirectory() + ".preview.db.sqlite");
    int mainClosed = -1;
    const std::vector<tilvane::host::LogLine> lines = tilvane::host::CapturedLog();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message == "database closed: " + DatabasePath()) {
            mainClosed = static_cast<int>(i);
        }
    }
    EXPECT_GE(portsGone, 0);
    EXPECT_LT(portsGone, backupClosed);
    EXPECT_LT(backupClosed, mainClosed);
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 0);
    EXPECT_EQ(tilvane::host::CallCount("device_power_unsubscribe_poweroff"), 1);
}

}  // namespace
