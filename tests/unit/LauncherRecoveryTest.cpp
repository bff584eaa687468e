#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include <host_control.h>
#include <tzplatform_config.h>

#include "AppSectionChangeManager.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using namespace tilvane::test;

namespace {

const char kTag[] = "tilvane";

class LauncherRecoveryTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::UseVirtualClock(true); }
    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    std::string DatabasePath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }
    static std::string PackageDbPath()
    {
        return std::string(tzplatform_getenv(TZ_USER_APP)) + "/ContentServiceManager/data/PkgInfo.db";
    }
    static void WritePackageDb(const std::string& package)
    {
        std::string directory = std::string(tzplatform_getenv(TZ_USER_APP)) + "/ContentServiceManager";
        mkdir(directory.c_str(), 0755);
        mkdir((directory + "/data").c_str(), 0755);
        RawDatabase db(PackageDbPath());
        ASSERT_EQ(db.Exec("CREATE TABLE pkg_info (pkg_name TEXT); INSERT INTO pkg_info VALUES ('" + package + "');"), 0);
    }

    PlatformSandbox m_sandbox;
    PrivateBus m_bus;
};

TEST_F(LauncherRecoveryTest, RecoveryIsNeededOnlyAfterCorruptionAndNotAfterRecovery)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    EXPECT_FALSE(provider->NeedRecoveryLauncherList());
    EXPECT_EQ(CountLines(kTag, "Need Recovery Launcher App List"), 0);
    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();

    WriteFile(DatabasePath(), RandomBytes(8192, 7));
    ASSERT_TRUE(tilvane::host::InstallPackage(
        {"org.example.preview", {{"org.example.preview.a", {{AppMetadata::USE_PREVIEW, ""}}}}, ""}));
    provider = CTilesProvider::GetInstance();
    EXPECT_TRUE(provider->NeedRecoveryLauncherList());
    EXPECT_EQ(CountLines(kTag, "Need Recovery Launcher App List"), 1);
    EXPECT_TRUE(provider->InstalledPackagesRecovery());
    EXPECT_FALSE(provider->NeedRecoveryLauncherList());
    RawDatabase db(DatabasePath());
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.preview'"), "1");
}

TEST_F(LauncherRecoveryTest, WithoutAChangeManagerBothRecoveriesSucceed)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    CAppSectionChangeManager*& manager = CTilesProviderTestAccess::AppSectionChangeManager(provider);
    delete manager;
    manager = nullptr;
    EXPECT_TRUE(provider->InstalledPackagesRecovery());
    EXPECT_TRUE(provider->CheckLauncherItems());
    EXPECT_FALSE(CTilesProviderTestAccess::DbCorrupted(provider));
}

TEST_F(LauncherRecoveryTest, CheckLauncherItemsRefreshesFromTheBackup)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    RawDatabase db(DatabasePath());
    ASSERT_EQ(db.Exec("DELETE FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"), 0);
    EXPECT_TRUE(provider->CheckLauncherItems());
    EXPECT_EQ(db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"), "1");
}

TEST_F(LauncherRecoveryTest, VerifyWithoutAPackageDatabaseWaitsThreeTimesAndFails)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    tilvane::host::ClearCapturedLog();
    const size_t sleepsBefore = tilvane::host::RecordedSleeps().size();
    EXPECT_FALSE(provider->VerifyAccelerator());
    EXPECT_EQ(CountLines(kTag, "DB file is not exist"), 3);
    EXPECT_EQ(CountLines(kTag, "Cannot open PkgInfo.db"), 1);
    EXPECT_EQ(CountLines(kTag, "+++++++++++++++++++++++++ OUT ++++++++++++++++++++++++++++"), 1);
    std::vector<int64_t> sleeps = tilvane::host::RecordedSleeps();
    ASSERT_EQ(sleeps.size(), sleepsBefore + 3);
    EXPECT_EQ(std::vector<int64_t>(sleeps.begin() + sleepsBefore, sleeps.end()),
              (std::vector<int64_t>{100000, 100000, 100000}));
}

TEST_F(LauncherRecoveryTest, VerifyFindsTheFirstPackagesEntry)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    WritePackageDb("livetv_mbr_3");
    EXPECT_TRUE(provider->VerifyAccelerator());
    EXPECT_EQ(CountLines(kTag, "Matched package row ID : "), 1);
}

TEST_F(LauncherRecoveryTest, VerifyTriesThreeTimesWhenThePackageHasNoEntry)
{
    CTilesProvider* provider = CTilesProvider::GetInstance();
    WritePackageDb("org.example.absent");
    EXPECT_FALSE(provider->VerifyAccelerator());
    EXPECT_EQ(CountLines(kTag, "Try again : "), 3);
    EXPECT_EQ(CountLines(kTag, "Try again : 2"), 1);
}

}  // namespace
