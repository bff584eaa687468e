#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <host_control.h>
#include <message_port.h>

#include "AppSectionChangeManager.h"
#include "AppSectionChangeManagerTestAccess.h"
#include "DbHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"

using tilvane::host::SentMessage;
using namespace tilvane::test;

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

const char kService[] = "com.quillon.px.tilvane";
const char kTag[] = "tilvane";
const char kPkgKey[] = "accelerator_app_pkg_name";

class Bundle
{
public:
    explicit Bundle(const Entries& entries) : m_bundle(bundle_create())
    {
        for (const auto& entry : entries) {
            bundle_add_str(m_bundle, entry.first.c_str(), entry.second.c_str());
        }
    }
    ~Bundle() { bundle_free(m_bundle); }
    bundle* Get() const { return m_bundle; }

private:
    bundle* m_bundle;
};

class ChangeManagerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::SetOwnAppId(kService);
        tilvane::host::UseVirtualClock(true);
        tilvane::host::RecordSentMessages(true);
        m_main.reset(new CDbHelper(m_sandbox.DatabaseDirectory(), ".preview.db", 15));
        ASSERT_NE(m_main->GetConnection(), nullptr);
    }
    void TearDown() override
    {
        m_manager.reset();
        m_main.reset();
    }

    CAppSectionChangeManager* Build()
    {
        m_manager.reset(new CAppSectionChangeManager(m_main.get()));
        return m_manager.get();
    }
    std::string MainPath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }
    std::string BackupPath() const { return m_sandbox.DatabaseDirectory() + ".preview.db.sqlite"; }

    static std::vector<std::string> Packages(const std::string& path)
    {
        RawDatabase db(path);
        return db.Column("SELECT accelerator_app_pkg_name FROM accelerators ORDER BY _id");
    }
    static std::string WebAppId(const std::string& path, const std::string& package)
    {
        RawDatabase db(path);
        return db.Scalar("SELECT accelerator_qeb_web_app_id FROM accelerators WHERE accelerator_app_pkg_name = '" +
                         package + "'");
    }

    void OnAcceleratorPort(const Entries& entries)
    {
        Bundle message(entries);
        CAppSectionChangeManager::MessagePortCB(CAppSectionChangeManagerTestAccess::AcceleratorPortId(m_manager.get()),
                                                "com.example.client", "replies", false, message.Get(),
                                                m_manager.get());
    }
    void OnLauncherPort(const Entries& entries)
    {
        Bundle message(entries);
        CAppSectionChangeManager::MessagePortCB(
            CAppSectionChangeManagerTestAccess::LauncherEventPortId(m_manager.get()), "com.example.launcher", nullptr,
            false, message.Get(), m_manager.get());
    }
    static std::vector<SentMessage> SentTo(const std::string& port)
    {
        std::vector<SentMessage> found;
        for (const SentMessage& sent : tilvane::host::SentMessages()) {
            if (sent.port == port) {
                found.push_back(sent);
            }
        }
        return found;
    }
    static std::string Entry(const SentMessage& sent, const std::string& key)
    {
        for (const auto& entry : sent.entries) {
            if (entry.first == key) {
                return entry.second;
            }
        }
        return "<absent>";
    }

    PlatformSandbox m_sandbox;
    PrivateBus m_bus;
    std::unique_ptr<CDbHelper> m_main;
    std::unique_ptr<CAppSectionChangeManager> m_manager;
};

const std::vector<std::string> kSixPreinstalled = {"livetv_antenna", "livetv_mbr_1",  "livetv_mbr_2",
                                                   "livetv_mbr_3",   "livetv_mbr_4", "livetv_none_mbr"};

TEST_F(ChangeManagerTest, WithoutGlazeModeSixPreinstalledPackagesAreInBothDatabases)
{
    Build();
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
    EXPECT_EQ(Packages(BackupPath()), kSixPreinstalled);
    EXPECT_EQ(CountLines(kTag, "Added an package"), 6);
    EXPECT_EQ(CountLines(kTag, "glaze-app is needed to add preinstalled package"), 0);
    RawDatabase db(MainPath());
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.tizen.glaze-app'"),
              "0");
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_enabled = '1'"), "6");
    EXPECT_GT(CAppSectionChangeManagerTestAccess::AcceleratorPortId(m_manager.get()), 0);
    EXPECT_GT(CAppSectionChangeManagerTestAccess::LauncherEventPortId(m_manager.get()), 0);
}

TEST_F(ChangeManagerTest, WithGlazeModeTheGlazeAppIsTheSeventhWithoutStoreId)
{
    ASSERT_TRUE(tilvane::host::SetSystemInfoBool(583, true));
    Build();
    std::vector<std::string> seven = kSixPreinstalled;
    seven.push_back("org.tizen.glaze-app");
    EXPECT_EQ(Packages(MainPath()), seven);
    EXPECT_EQ(CountLines(kTag, "glaze-app is needed to add preinstalled package"), 1);
    EXPECT_EQ(WebAppId(MainPath(), "org.tizen.glaze-app"), "NULL");
}

TEST_F(ChangeManagerTest, PortRegistrationIsRetriedOnceASecond)
{
    tilvane::host::FailNextCalls("message_port_register_local_port", 3);
    Build();
    EXPECT_EQ(CountLines(kTag, "failed to message_port_register_local_port(accelerator_port) : "), 3);
    EXPECT_EQ(CountLines(kTag, "message port is ready : 2"), 1);
    EXPECT_EQ(CountLines(kTag, "failed to message_port_register_local_port(launcher_event_port)"), 0);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), (std::vector<int64_t>{1000000, 1000000, 1000000}));
    EXPECT_GT(CAppSectionChangeManagerTestAccess::AcceleratorPortId(m_manager.get()), 0);
}

TEST_F(ChangeManagerTest, AfterSixtyFailuresEachPortStaysNegativeAndStartGoesOn)
{
    tilvane::host::FailNextCalls("message_port_register_local_port", -1);
    Build();
    EXPECT_EQ(CountLines(kTag, "failed to message_port_register_local_port(accelerator_port)"), 60);
    EXPECT_EQ(CountLines(kTag, "failed to message_port_register_local_port(launcher_event_port)"), 60);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>(120, 1000000));
    EXPECT_LT(CAppSectionChangeManagerTestAccess::AcceleratorPortId(m_manager.get()), 0);
    EXPECT_LT(CAppSectionChangeManagerTestAccess::LauncherEventPortId(m_manager.get()), 0);
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
}

TEST_F(ChangeManagerTest, AnActionThatIsNoNumberInstallsAsZeroDoesAndTheIdIsReplied)
{
    Build();
    OnAcceleratorPort({{"action", "abc"}, {kPkgKey, "org.example.abc"}, {"accelerator_title", "Abc"}});
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.example.zero"}});
    RawDatabase db(MainPath());
    const std::string abcId = db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.abc'");
    const std::string zeroId =
        db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.zero'");
    ASSERT_FALSE(abcId.empty());
    ASSERT_FALSE(zeroId.empty());
    EXPECT_EQ(db.Scalar("SELECT accelerator_title FROM accelerators WHERE _id = " + abcId), "Abc");
    std::vector<SentMessage> replies = SentTo("replies");
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].appId, "com.example.client");
    EXPECT_EQ(replies[0].entries, (Entries{{"_id", abcId}, {kPkgKey, "org.example.abc"}}));
    EXPECT_EQ(Entry(replies[1], "_id"), zeroId);
    EXPECT_EQ(CountLines(kTag, "Accelerator Id = " + abcId), 1);
    EXPECT_EQ(Packages(BackupPath()).size(), 8u);
}

TEST_F(ChangeManagerTest, ActionTwoDoesNothing)
{
    Build();
    OnAcceleratorPort({{"action", "2"}, {kPkgKey, "org.example.two"}});
    OnAcceleratorPort({{kPkgKey, "org.example.noaction"}});
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
    EXPECT_TRUE(SentTo("replies").empty());
    EXPECT_EQ(CountLines(kTag, "uninstall app"), 0);
}

TEST_F(ChangeManagerTest, AnExistingPackageGetsItsIdWithoutAnInsert)
{
    Build();
    RawDatabase db(MainPath());
    const std::string id = db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_2'");
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "livetv_mbr_2"}, {"accelerator_title", "New"}});
    EXPECT_EQ(db.Count("accelerators"), 6);
    EXPECT_EQ(db.Scalar("SELECT accelerator_title FROM accelerators WHERE _id = " + id), "NULL");
    std::vector<SentMessage> replies = SentTo("replies");
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(Entry(replies[0], "_id"), id);
}

TEST_F(ChangeManagerTest, AFailedInstallRepliesMinusOne)
{
    Build();
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, ""}});
    OnAcceleratorPort({{"action", "0"}});
    std::vector<SentMessage> replies = SentTo("replies");
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].entries, (Entries{{"_id", "-1"}, {kPkgKey, ""}}));
    EXPECT_EQ(Entry(replies[1], "_id"), "-1");
    EXPECT_EQ(CountLines(kTag, "Length of pAppPkgName is zero"), 1);
    EXPECT_EQ(CountLines(kTag, "pAppPkgName is NULL"), 1);
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
}

TEST_F(ChangeManagerTest, UninstallRemovesFromBothDatabasesAndAnUnknownPackageChangesNothingSilently)
{
    Build();
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.example.gone"}});
    ASSERT_EQ(Packages(BackupPath()).size(), 7u);
    OnAcceleratorPort({{"action", "1"}, {kPkgKey, "org.example.gone"}});
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
    EXPECT_EQ(Packages(BackupPath()), kSixPreinstalled);

    tilvane::host::ClearCapturedLog();
    Bundle message(Entries{{kPkgKey, "org.example.never"}});
    m_manager->HandleAppUninstall(message.Get());
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
    EXPECT_TRUE(tilvane::host::CapturedMessages(kTag).empty());
}

TEST_F(ChangeManagerTest, VisibilityChangesUpdateAndAreForwarded)
{
    Build();
    OnLauncherPort({{"visibility", "hidden"}, {kPkgKey, "livetv_mbr_1"}});
    RawDatabase db(MainPath());
    EXPECT_EQ(db.Scalar("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"),
              "0");
    RawDatabase backup(BackupPath());
    EXPECT_EQ(
        backup.Scalar("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"),
        "1");
    std::vector<SentMessage> forwarded = SentTo("CONTENT_SERVICE_ACCELERATOR_EVENT_PORT");
    ASSERT_EQ(forwarded.size(), 1u);
    EXPECT_EQ(forwarded[0].appId, "ContentServiceManager");
    EXPECT_EQ(forwarded[0].entries, (Entries{{"visibility", "hidden"}, {kPkgKey, "livetv_mbr_1"}}));
    // Nobody listens as ContentServiceManager here.
    EXPECT_EQ(CountLines(kTag, "failed to send hidden event"), 1);

    OnLauncherPort({{"visibility", "visible"}, {kPkgKey, "livetv_mbr_1"}});
    EXPECT_EQ(db.Scalar("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"),
              "1");
    EXPECT_EQ(SentTo("CONTENT_SERVICE_ACCELERATOR_EVENT_PORT").size(), 2u);
}

TEST_F(ChangeManagerTest, VisibilityOfAnotherCaseOrEmptyIsIgnored)
{
    Build();
    for (const char* visibility : {"Visible", "HIDDEN", ""}) {
        OnLauncherPort({{"visibility", visibility}, {kPkgKey, "livetv_mbr_1"}});
    }
    OnLauncherPort({{kPkgKey, "livetv_mbr_1"}});
    RawDatabase db(MainPath());
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_enabled = '1'"), "6");
    EXPECT_TRUE(SentTo("CONTENT_SERVICE_ACCELERATOR_EVENT_PORT").empty());
    EXPECT_EQ(CountLines(kTag, " event"), 0);
}

TEST_F(ChangeManagerTest, AFailedUpdateIsNotForwarded)
{
    Build();
    {
        RawDatabase db(MainPath());
        ASSERT_EQ(db.Exec("CREATE TRIGGER refuse BEFORE UPDATE ON accelerators BEGIN SELECT RAISE(ABORT, 'no'); END;"),
                  0);
    }
    OnLauncherPort({{"visibility", "hidden"}, {kPkgKey, "livetv_mbr_1"}});
    EXPECT_EQ(CountLines(kTag, "failed to update hidden event"), 1);
    EXPECT_TRUE(SentTo("CONTENT_SERVICE_ACCELERATOR_EVENT_PORT").empty());
}

TEST_F(ChangeManagerTest, AMessageOnAnotherPortIsLoggedAndDropped)
{
    Build();
    Bundle message({{"action", "0"}, {kPkgKey, "org.example.other"}, {"visibility", "hidden"}});
    CAppSectionChangeManager::MessagePortCB(9999, "com.example.client", "replies", false, message.Get(),
                                            m_manager.get());
    CAppSectionChangeManager::MessagePortCB(9999, nullptr, nullptr, false, message.Get(), m_manager.get());
    EXPECT_EQ(CountLines(kTag, "received message from com.example.client:replies"), 1);
    EXPECT_EQ(CountLines(kTag, "received message from Message port"), 1);
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
}

TEST_F(ChangeManagerTest, LiveTelevisionPrefixNeedsTheUnderscore)
{
    Build();
    ASSERT_TRUE(tilvane::host::InstallPackage({"livetv", {{"livetv.app", {}}}, "StoreLivetv"}));
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "livetv_"}});
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "livetv"}});
    EXPECT_EQ(WebAppId(MainPath(), "livetv_"), "NULL");
    EXPECT_EQ(WebAppId(MainPath(), "livetv"), "StoreLivetv");
}

TEST_F(ChangeManagerTest, PlatformPrefixGetsNoStoreIdButALeadingPartIsLookedUp)
{
    Build();
    ASSERT_TRUE(tilvane::host::InstallPackage({"org.korro.tv", {{"org.korro.tv.app", {}}}, "StoreKorro"}));
    ASSERT_TRUE(tilvane::host::InstallPackage({"org.kor", {{"org.kor.app", {}}}, "StoreKor"}));
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.korro.tv"}});
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.kor"}});
    EXPECT_EQ(WebAppId(MainPath(), "org.korro.tv"), "NULL");
    EXPECT_EQ(WebAppId(MainPath(), "org.kor"), "StoreKor");
    EXPECT_EQ(CountLines(kTag, "WebappId = StoreKor"), 1);
}

TEST_F(ChangeManagerTest, APackageAbsentFromTheStoreListGetsAnEmptyStoreId)
{
    Build();
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.example.nostore"}});
    EXPECT_EQ(WebAppId(MainPath(), "org.example.nostore"), "");
    EXPECT_EQ(WebAppId(BackupPath(), "org.example.nostore"), "");
    EXPECT_EQ(CountLines(kTag, "Not found this package [org.example.nostore]"), 1);
}

TEST_F(ChangeManagerTest, AStoreListThatCannotBeReadLeavesAnEmptyStoreIdAndStillInserts)
{
    Build();
    tilvane::host::FailNextCalls("qeb_get_app_list", 1);
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.example.nolist"}});
    EXPECT_EQ(CountLines(kTag, "failed to get app list"), 1);
    EXPECT_EQ(WebAppId(MainPath(), "org.example.nolist"), "");
}

TEST_F(ChangeManagerTest, AnExistingPackageIsNotAddedToABackupThatLacksIt)
{
    Build();
    {
        RawDatabase backup(BackupPath());
        ASSERT_EQ(backup.Exec("DELETE FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_3'"), 0);
    }
    Bundle message(Entries{{kPkgKey, "livetv_mbr_3"}});
    EXPECT_GT(m_manager->HandleAppInstall(message.Get()), 0);
    RawDatabase backup(BackupPath());
    EXPECT_EQ(backup.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_3'"), "0");
}

TEST_F(ChangeManagerTest, LookupsOfAnUnknownPackageFindNothing)
{
    Build();
    EXPECT_EQ(m_manager->GetAcceleratorID(m_main.get(), "org.example.unknown"), -1);
    EXPECT_TRUE(m_manager->GetSectionID(m_main.get(), "org.example.unknown").empty());
    EXPECT_EQ(m_manager->GetAcceleratorID(nullptr, "livetv_antenna"), -1);
    EXPECT_GT(m_manager->GetAcceleratorID(m_main.get(), "livetv_antenna"), 0);
}

TEST_F(ChangeManagerTest, ClearingAPackageDeletesItsSectionsAndTilesOnly)
{
    Build();
    RawDatabase db(MainPath());
    const std::string a = db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'");
    const std::string b = db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_2'");
    const std::string c = db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_3'");
    ASSERT_EQ(db.Exec("INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (0, " + a + "), (11, " + a +
                      "), (12, " + a + "), (21, " + b + "), (31, " + c + ");"),
              0);
    ASSERT_EQ(db.Exec("INSERT INTO tiles (tile_section_raw_id) VALUES (11), (12), (21), (31), (0);"), 0);

    EXPECT_EQ(m_manager->GetSectionID(m_main.get(), "livetv_mbr_1"), (std::vector<int64_t>{11, 12}));
    m_manager->ClearTiles({"livetv_mbr_1", "livetv_mbr_2"});
    EXPECT_EQ(db.Column("SELECT _id FROM sections ORDER BY _id"), (std::vector<std::string>{"0", "31"}));
    EXPECT_EQ(db.Column("SELECT tile_section_raw_id FROM tiles ORDER BY tile_section_raw_id"),
              (std::vector<std::string>{"0", "31"}));
    EXPECT_EQ(db.Count("accelerators"), 6);
    EXPECT_EQ(Packages(BackupPath()), kSixPreinstalled);
    EXPECT_EQ(CountLines(kTag, "ClearTiles Request"), 1);
    EXPECT_EQ(CountLines(kTag, "Delete section ID : livetv_mbr_1[11]"), 1);
    EXPECT_EQ(CountLines(kTag, "Delete section ID : livetv_mbr_2[21]"), 1);
    EXPECT_EQ(CountLines(kTag, "[0]"), 0);
}

TEST_F(ChangeManagerTest, WithoutAMainHelperClearingLogsOncePerName)
{
    m_manager.reset(new CAppSectionChangeManager(nullptr));
    tilvane::host::ClearCapturedLog();
    m_manager->ClearTiles({"a", "b", "c"});
    EXPECT_EQ(CountLines(kTag, "m_pDbHelper is NULL !!"), 3);
    m_manager->ClearTiles({});
    EXPECT_EQ(CountLines(kTag, "m_pDbHelper is NULL !!"), 3);
}

TEST_F(ChangeManagerTest, WithAHelperThatCannotConnectClearingLogsOncePerName)
{
    // The helper's database would lie under a regular file: it never opens.
    tilvane::test::TempDir elsewhere;
    tilvane::test::WriteFile(elsewhere.File("not-a-directory"), "");
    CDbHelper unopenable(elsewhere.File("not-a-directory") + "/", ".preview.db", 15);
    ASSERT_EQ(unopenable.GetConnection(), nullptr);
    m_manager.reset(new CAppSectionChangeManager(&unopenable));
    tilvane::host::ClearCapturedLog();

    m_manager->ClearTiles({"a", "b", "c"});

    std::vector<tilvane::host::LogLine> lines = tilvane::test::LinesContaining(kTag, "pConnection is NULL !!");
    ASSERT_EQ(lines.size(), 3u);
    for (const tilvane::host::LogLine& line : lines) {
        EXPECT_EQ(line.priority, DLOG_ERROR);
    }
    EXPECT_EQ(CountLines(kTag, "m_pDbHelper is NULL !!"), 0);
    EXPECT_EQ(CountLines(kTag, "ClearTiles Request"), 1);
    m_manager.reset();
}

TEST_F(ChangeManagerTest, RecoveryFromInstalledPackagesTakesOnlyLauncherPackages)
{
    Build();
    ASSERT_TRUE(tilvane::host::InstallPackage(
        {"org.example.preview", {{"org.example.preview.a", {{AppMetadata::USE_PREVIEW, ""}}}}, ""}));
    ASSERT_TRUE(tilvane::host::InstallPackage(
        {"org.example.accel", {{"org.example.accel.a", {{"other", "x"}, {AppMetadata::USE_ACCELERATOR, "1"}}}}, ""}));
    ASSERT_TRUE(tilvane::host::InstallPackage({"org.example.plain", {{"org.example.plain.a", {{"other", "x"}}}}, ""}));
    EXPECT_TRUE(m_manager->RecoverInstalledPackages());
    std::vector<std::string> expected = kSixPreinstalled;
    expected.push_back("org.example.preview");
    expected.push_back("org.example.accel");
    EXPECT_EQ(Packages(MainPath()), expected);
    EXPECT_EQ(Packages(BackupPath()), expected);
    EXPECT_EQ(CountLines(kTag, "Recovered package org.example.preview"), 1);
    EXPECT_EQ(CountLines(kTag, "Add Nimbe Package : org.example.accel"), 1);
    EXPECT_EQ(CountLines(kTag, "org.example.plain"), 0);

    tilvane::host::FailNextCalls("package_manager_foreach_package_info", 1);
    EXPECT_FALSE(m_manager->RecoverInstalledPackages());
    EXPECT_EQ(CountLines(kTag, "foreach_package_info error : "), 1);
}

TEST_F(ChangeManagerTest, RefreshFromBackupRestoresMissingEntriesOnly)
{
    Build();
    OnAcceleratorPort({{"action", "0"}, {kPkgKey, "org.example.kept"}});
    RawDatabase db(MainPath());
    ASSERT_EQ(db.Exec("DELETE FROM accelerators WHERE accelerator_app_pkg_name IN ('org.example.kept', 'livetv_mbr_4')"),
              0);
    const std::string antenna =
        db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_antenna'");
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('org.example.mainonly')"), 0);
    tilvane::host::ClearCapturedLog();

    EXPECT_TRUE(m_manager->RefreshLauncherItemFromBackup());
    EXPECT_EQ(CountLines(kTag, "BackupDB : package(7)"), 1);
    EXPECT_EQ(CountLines(kTag, "Finish refreshing Launcher Item  "), 1);
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.kept'"), "1");
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_4'"), "1");
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_antenna'"), "1");
    EXPECT_EQ(db.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_antenna'"), antenna);
    EXPECT_EQ(db.Count("accelerators"), 8);
}

TEST_F(ChangeManagerTest, RefreshFromAnEmptyBackupCountsZero)
{
    Build();
    {
        RawDatabase backup(BackupPath());
        ASSERT_EQ(backup.Exec("DELETE FROM accelerators"), 0);
    }
    tilvane::host::ClearCapturedLog();
    EXPECT_TRUE(m_manager->RefreshLauncherItemFromBackup());
    EXPECT_EQ(CountLines(kTag, "BackupDB : package(0)"), 1);
    EXPECT_EQ(CountLines(kTag, "Finish refreshing Launcher Item  "), 1);
    EXPECT_EQ(Packages(MainPath()), kSixPreinstalled);
}

TEST_F(ChangeManagerTest, RefreshWithoutABackupHelperFailsAndChangesNothing)
{
    Build();
    CDbHelper*& backup = CAppSectionChangeManagerTestAccess::BackupDbHelper(m_manager.get());
    delete backup;
    backup = nullptr;
    RawDatabase db(MainPath());
    ASSERT_EQ(db.Exec("DELETE FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_4'"), 0);
    EXPECT_FALSE(m_manager->RefreshLauncherItemFromBackup());
    EXPECT_EQ(CountLines(kTag, "Skip! : Preview DB backup is not opened"), 1);
    EXPECT_EQ(db.Count("accelerators"), 5);
}

TEST_F(ChangeManagerTest, DestructionUnregistersBothPorts)
{
    Build();
    bool exists = true;
    ASSERT_EQ(message_port_check_remote_port(kService, "accelerator_port", &exists), 0);
    EXPECT_TRUE(exists);
    m_manager.reset();
    ASSERT_EQ(message_port_check_remote_port(kService, "accelerator_port", &exists), 0);
    EXPECT_FALSE(exists);
    ASSERT_EQ(message_port_check_remote_port(kService, "launcher_event_port", &exists), 0);
    EXPECT_FALSE(exists);
    EXPECT_EQ(CountLines(kTag, "failed to message_port_unregister_local_port"), 0);
}

}  // namespace
