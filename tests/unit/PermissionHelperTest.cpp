/*
 * CPermissionHelper: permission levels from the white list, the accelerator
 * row, launcher-support metadata and declared privileges; the recovery of a
 * missing accelerator row; the column tables and projections.
 */
#include <gtest/gtest.h>

#include <bundle.h>
#include <dlog.h>
#include <host_control.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DbHelper.h"
#include "PermissionHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"

using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;
using namespace tilvane::test;

namespace {

using Level = CPermissionHelper::PermissionLevel;
using Metadata = std::vector<std::pair<std::string, std::string>>;
namespace Accel = TilesModel::Accelerators;
namespace Internal = TilesInternalModel::Accelerators;

const char kTag[] = "tilvane";

class PermissionHelperTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_pDb = std::make_unique<CDbHelper>(m_dir.Path() + "/", ".preview.db", 15);
        ASSERT_NE(m_pDb->GetConnection(), nullptr);
    }

    /* Installs package `packageId` with one application "<packageId>.app". */
    std::string Install(const std::string& packageId, const Metadata& metadata)
    {
        std::string appId = packageId + ".app";
        std::string error;
        EXPECT_TRUE(tilvane::host::InstallPackage(
            RegisteredPackage{packageId, {RegisteredApplication{appId, metadata}}, ""}, &error))
            << error;
        return appId;
    }

    void AddAcceleratorRow(const std::string& packageId)
    {
        RawDatabase db(DbPath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('" + Escaped(packageId) + "')"),
                  0);
    }

    int64_t RowsOf(const std::string& packageId)
    {
        RawDatabase db(DbPath());
        return std::stoll(
            db.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = '" + Escaped(packageId) + "'"));
    }

    int64_t AllAcceleratorRows()
    {
        RawDatabase db(DbPath());
        return db.Count("accelerators");
    }

    static std::string Escaped(const std::string& text)
    {
        std::string out;
        for (char c : text) {
            out += c;
            if (c == '\'') {
                out += '\'';
            }
        }
        return out;
    }

    std::string DbPath() const { return m_dir.File(".preview.db"); }

    PlatformSandbox m_sandbox;
    TempDir m_dir;
    std::unique_ptr<CDbHelper> m_pDb;
    CPermissionHelper m_helper;
};

/* ---- privilege strings and the white list ---------------------------------- */

TEST_F(PermissionHelperTest, PrivilegeStrings)
{
    EXPECT_EQ(CPermissionHelper::READ_TILES, "com.quillon.px.permission.READ_TILES");
    EXPECT_EQ(CPermissionHelper::WRITE_TILES, "com.quillon.px.permission.WRITE_TILES");
    EXPECT_EQ(CPermissionHelper::READ_TILES_MVPD, "com.quillon.px.permission.READ_TILES_MVPD");
    EXPECT_EQ(CPermissionHelper::WRITE_TILES_MVPD, "com.quillon.px.permission.WRITE_TILES_MVPD");
    EXPECT_EQ(CPermissionHelper::READ_TILES_INTERNAL, "com.quillon.px.permission.READ_TILES_INTERNAL");
    EXPECT_EQ(CPermissionHelper::WRITE_TILES_INTERNAL, "com.quillon.px.permission.WRITE_TILES_INTERNAL");
    EXPECT_EQ(CPermissionHelper::PERMISSION_LEVEL_NONE, 0);
    EXPECT_EQ(CPermissionHelper::PERMISSION_LEVEL_PUBLIC, 1);
    EXPECT_EQ(CPermissionHelper::PERMISSION_LEVEL_MVPD, 3);
    EXPECT_EQ(CPermissionHelper::PERMISSION_LEVEL_INTERNAL, 4);
}

TEST_F(PermissionHelperTest, PermissionLevelOfEachPrivilegeComparedExactly)
{
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::READ_TILES), 1);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::WRITE_TILES), 1);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::READ_TILES_MVPD), 3);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::WRITE_TILES_MVPD), 3);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::READ_TILES_INTERNAL), 4);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::WRITE_TILES_INTERNAL), 0);
    EXPECT_EQ(m_helper.GetPermissionLevel(""), 0);
    EXPECT_EQ(m_helper.GetPermissionLevel(CPermissionHelper::READ_TILES + " "), 0);
    EXPECT_EQ(m_helper.GetPermissionLevel("com.quillon.px.permission.READ_TILE"), 0);
    EXPECT_EQ(m_helper.GetPermissionLevel("com.quillon.px.permission.read_tiles"), 0);
}

TEST_F(PermissionHelperTest, WhiteListedServicesGetLevel4ForReadingAndWritingWhateverTheyDeclare)
{
    for (const std::string packageId : {"DownloadManager", "ContentServiceManager"}) {
        SCOPED_TRACE(packageId);
        /* What they declare (here: the lowest privileges) is not looked at. */
        std::string appId = Install(packageId, {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
                                                {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}});
        tilvane::host::ClearCapturedLog();
        EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), 4);
        EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, packageId, m_pDb.get()), 4);
        /* Without any application or database at all. */
        EXPECT_EQ(m_helper.GetReadPermissionLevel("", packageId, nullptr), 4);
        EXPECT_EQ(m_helper.GetWritePermissionLevel("", packageId, nullptr), 4);
        EXPECT_EQ(CountLines(kTag, "Start get"), 0);
        EXPECT_TRUE(m_helper.CheckPermissionWhiteList(packageId));
    }
    EXPECT_EQ(AllAcceleratorRows(), 0);
}

TEST_F(PermissionHelperTest, WhiteListHoldsExactlyTheTwoServices)
{
    EXPECT_TRUE(m_helper.CheckPermissionWhiteList("DownloadManager"));
    EXPECT_TRUE(m_helper.CheckPermissionWhiteList("ContentServiceManager"));
    EXPECT_FALSE(m_helper.CheckPermissionWhiteList("downloadmanager"));
    EXPECT_FALSE(m_helper.CheckPermissionWhiteList("DownloadManager.app"));
    EXPECT_FALSE(m_helper.CheckPermissionWhiteList("org.example.news"));
    EXPECT_FALSE(m_helper.CheckPermissionWhiteList(""));
}

/* ---- the accelerator row ---------------------------------------------------- */

TEST_F(PermissionHelperTest, AcceleratorRowGivesLevel1AndMetadataIsNotConsulted)
{
    std::string appId = Install("org.example.owner",
                                {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_INTERNAL},
                                 {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_MVPD}});
    AddAcceleratorRow("org.example.owner");
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.owner", m_pDb.get()), 1);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.owner", m_pDb.get()), 1);
    EXPECT_EQ(CountLines(kTag, "Start get"), 0);
    EXPECT_EQ(tilvane::host::CallCount("app_info_create"), 0);
    EXPECT_EQ(RowsOf("org.example.owner"), 1);
}

TEST_F(PermissionHelperTest, AcceleratorRowOfMvpdDeclarationStillGivesOnly1)
{
    std::string appId = Install("org.example.mvpd",
                                {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_MVPD}});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.mvpd", m_pDb.get()), 3);
    AddAcceleratorRow("org.example.mvpd");
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.mvpd", m_pDb.get()), 1);
}

TEST_F(PermissionHelperTest, AcceleratorRowWithoutApplicationInRegistryGivesLevel1)
{
    AddAcceleratorRow("org.example.gone");
    EXPECT_EQ(m_helper.GetReadPermissionLevel("org.example.gone.app", "org.example.gone", m_pDb.get()), 1);
}

TEST_F(PermissionHelperTest, AcceleratorRowOfAnotherPackageGivesNothing)
{
    std::string appId = Install("org.example.plain", {});
    AddAcceleratorRow("org.example.other");
    AddAcceleratorRow("org.example.plainer");
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.plain", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.plain", m_pDb.get()), 0);
}

/* The package id is pasted into the level query between single quotes. A
 * quote in the id makes the statement invalid, so a package that owns a row
 * is not found by that query and falls through to its metadata. */
TEST_F(PermissionHelperTest, PastedPackageIdWithQuoteMissesItsOwnRow)
{
    const std::string packageId = "org.example.o'brien";
    std::string appId = Install(packageId, {});
    AddAcceleratorRow(packageId);
    ASSERT_EQ(RowsOf(packageId), 1);
    /* The bound lookup finds the row ... */
    EXPECT_GT(m_helper.GetAcceleratorID(m_pDb.get(), packageId), 0);
    /* ... the pasted level query does not: no level although the row exists. */
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), 0);
    EXPECT_EQ(CountLines(kTag, "Start get GetSupportNimbeCB for [org.example.o'brien]"), 1);
}

/* A package id that closes the quote and adds a condition reaches other
 * packages' rows in the level query, but the name read back must equal the
 * id, so it gains no level from them. */
TEST_F(PermissionHelperTest, PastedPackageIdWithConditionGainsNoLevel)
{
    const std::string packageId = "x' OR '1'='1";
    std::string appId = Install(packageId, {});
    AddAcceleratorRow("org.example.victim");
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, packageId, m_pDb.get()), 0);
}

/* ---- declared privileges ------------------------------------------------------ */

TEST_F(PermissionHelperTest, EachDeclaredReadPrivilege)
{
    const std::vector<std::pair<std::string, int>> cases = {
        {CPermissionHelper::READ_TILES, 1},
        {CPermissionHelper::READ_TILES_MVPD, 3},
        {CPermissionHelper::READ_TILES_INTERNAL, 4},
        /* Write privileges and unknown texts under the read key count for nothing. */
        {CPermissionHelper::WRITE_TILES, 0},
        {CPermissionHelper::WRITE_TILES_MVPD, 0},
        {"com.quillon.px.permission.READ_TILES_ALL", 0},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        std::string packageId = "org.example.reader" + std::to_string(index++);
        std::string appId = Install(packageId, {{Internal::ACCELERATOR_READ_PERMISSION, c.first}});
        tilvane::host::ClearCapturedLog();
        EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), c.second);
        EXPECT_EQ(CountLines(kTag, "m_readPermission is not empty for [" + packageId + "]"), c.second > 0 ? 1 : 0);
        /* A read privilege gives no write level. */
        EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, packageId, m_pDb.get()), 0);
    }
    EXPECT_EQ(AllAcceleratorRows(), 0);
}

TEST_F(PermissionHelperTest, EachDeclaredWritePrivilege)
{
    const std::vector<std::pair<std::string, int>> cases = {
        {CPermissionHelper::WRITE_TILES, 1},
        {CPermissionHelper::WRITE_TILES_MVPD, 3},
        {CPermissionHelper::WRITE_TILES_INTERNAL, 0},
        {CPermissionHelper::READ_TILES_INTERNAL, 0},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        std::string packageId = "org.example.writer" + std::to_string(index++);
        std::string appId = Install(packageId, {{Internal::ACCELERATOR_WRITE_PERMISSION, c.first}});
        tilvane::host::ClearCapturedLog();
        EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, packageId, m_pDb.get()), c.second);
        EXPECT_EQ(CountLines(kTag, "m_writePermission is not empty for [" + packageId + "]"), c.second > 0 ? 1 : 0);
        EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), 0);
    }
}

/* A write level of 4 is reachable only through the white list. */
TEST_F(PermissionHelperTest, WriteTilesInternalGivesNoWriteLevel)
{
    std::string appId = Install("org.example.internal",
                                {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_INTERNAL},
                                 {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_INTERNAL}});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.internal", m_pDb.get()), 4);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.internal", m_pDb.get()), 0);
    /* The write callback does not recognise it: the walk goes on. */
    EXPECT_TRUE(m_helper.GetWritePermission(Internal::ACCELERATOR_WRITE_PERMISSION,
                                            CPermissionHelper::WRITE_TILES_INTERNAL.c_str()));
}

TEST_F(PermissionHelperTest, WriteTilesInternalWithLauncherSupportGives1)
{
    std::string appId = Install("org.example.launcher",
                                {{AppMetadata::USE_ACCELERATOR, "true"},
                                 {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_INTERNAL}});
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.launcher", m_pDb.get()), 1);
}

TEST_F(PermissionHelperTest, WriteTilesInternalWithAcceleratorRowGives1)
{
    std::string appId = Install("org.example.rowed",
                                {{Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_INTERNAL}});
    AddAcceleratorRow("org.example.rowed");
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.rowed", m_pDb.get()), 1);
}

TEST_F(PermissionHelperTest, DeclaredPrivilegeOverridesLauncherSupport)
{
    std::string appId = Install("org.example.both",
                                {{AppMetadata::USE_PREVIEW, ""},
                                 {Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_MVPD},
                                 {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_MVPD}});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.both", m_pDb.get()), 3);
    /* The read call made the row; from now on the row decides. */
    EXPECT_EQ(RowsOf("org.example.both"), 1);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.both", m_pDb.get()), 1);
}

TEST_F(PermissionHelperTest, DeclaredPrivilegeDoesNotLeakToTheNextCaller)
{
    std::string internalApp = Install("org.example.high",
                                      {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_INTERNAL},
                                       {Internal::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES_MVPD}});
    std::string plainApp = Install("org.example.low", {});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(internalApp, "org.example.high", m_pDb.get()), 4);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(internalApp, "org.example.high", m_pDb.get()), 3);
    EXPECT_EQ(m_helper.GetReadPermissionLevel(plainApp, "org.example.low", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(plainApp, "org.example.low", m_pDb.get()), 0);
}

TEST_F(PermissionHelperTest, UnknownApplicationGetsNothing)
{
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel("org.example.ghost.app", "org.example.ghost", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel("org.example.ghost.app", "org.example.ghost", m_pDb.get()), 0);
    EXPECT_EQ(CountLines(kTag, "Start get"), 0);
}

TEST_F(PermissionHelperTest, MetadataPassesAreLoggedInOrder)
{
    std::string appId = Install("org.example.logged",
                                {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES}});
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.logged", m_pDb.get()), 1);
    std::vector<std::string> expected = {
        "Start get GetSupportNimbeCB for [org.example.logged]", "End get GetSupportNimbeCB for [org.example.logged]",
        "Start get GetReadPermissionCB for [org.example.logged]", "success to call metadata callback",
        "End get GetReadPermissionCB for [org.example.logged]", "m_readPermission is not empty for [org.example.logged]"};
    int previous = -1;
    for (const std::string& text : expected) {
        int index = tilvane::test::IndexOfLine(text);
        EXPECT_GT(index, previous) << text;
        previous = index;
    }
    for (const auto& line : LinesContaining(kTag, "for [org.example.logged]")) {
        EXPECT_EQ(line.priority, DLOG_INFO);
        EXPECT_EQ(line.message.rfind("PermissionHelper.cpp: GetReadPermissionLevel(", 0), 0u) << line.message;
    }

    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.logged", m_pDb.get()), 0);
    EXPECT_EQ(CountLines(kTag, "Start get GetWritePermissionCB for [org.example.logged]"), 1);
    EXPECT_EQ(CountLines(kTag, "End get GetWritePermissionCB for [org.example.logged]"), 1);
    EXPECT_EQ(CountLines(kTag, "m_writePermission is not empty"), 0);
}

TEST_F(PermissionHelperTest, FailedMetadataWalkIsLoggedAndTheProcedureGoesOn)
{
    std::string appId = Install("org.example.flaky",
                                {{AppMetadata::USE_ACCELERATOR, "1"},
                                 {Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_MVPD}});
    /* The launcher-support pass fails: no recovery; the privilege pass still runs. */
    tilvane::host::FailNextCalls("app_info_foreach_metadata", 1);
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.flaky", m_pDb.get()), 3);
    EXPECT_EQ(CountLines(kTag, "failed to call metadata callback"), 1);
    EXPECT_EQ(CountLines(kTag, "Need to recover"), 0);
    EXPECT_EQ(RowsOf("org.example.flaky"), 0);

    /* Both passes fail: nothing is found, level 0. */
    tilvane::host::FailNextCalls("app_info_foreach_metadata", 2);
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.flaky", m_pDb.get()), 0);
    EXPECT_EQ(CountLines(kTag, "failed to call metadata callback"), 2);
}

TEST_F(PermissionHelperTest, FailedAppInfoCreateLeavesLevelAtZero)
{
    std::string appId = Install("org.example.nocreate",
                                {{Internal::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES_INTERNAL}});
    tilvane::host::FailNextCalls("app_info_create", 1);
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.nocreate", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.nocreate", m_pDb.get()), 4);
}

/* ---- launcher-support metadata and recovery -------------------------------- */

TEST_F(PermissionHelperTest, LauncherSupportMetadataGives1AndCreatesExactlyOneRow)
{
    for (const char* key : {AppMetadata::USE_ACCELERATOR, AppMetadata::USE_PREVIEW}) {
        SCOPED_TRACE(key);
        std::string packageId = std::string("org.example.launcher.") + (key == AppMetadata::USE_PREVIEW ? "p" : "a");
        /* The value is never looked at: an empty one counts. */
        std::string appId = Install(packageId, {{"org.example.other.key", "x"}, {key, ""}});
        tilvane::host::ClearCapturedLog();
        EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, packageId, m_pDb.get()), 1);
        EXPECT_EQ(CountLines(kTag, "Need to recover [" + packageId + "] to acceleartors"), 1);
        EXPECT_EQ(RowsOf(packageId), 1);
    }
    EXPECT_EQ(AllAcceleratorRows(), 2);
    /* The new row is bare: every other column has its default. */
    RawDatabase db(DbPath());
    EXPECT_EQ(db.Scalar("SELECT accelerator_enabled || '|' || accelerator_position || '|' || "
                        "IFNULL(accelerator_title, 'NULL') FROM accelerators LIMIT 1"),
              "0|-1|NULL");
}

TEST_F(PermissionHelperTest, SecondRequestFindsTheRowAndDoesNotRecoverAgain)
{
    std::string appId = Install("org.example.tv", {{AppMetadata::USE_PREVIEW, "true"}});
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.tv", m_pDb.get()), 1);
    EXPECT_EQ(RowsOf("org.example.tv"), 1);
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.tv", m_pDb.get()), 1);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.tv", m_pDb.get()), 1);
    EXPECT_EQ(CountLines(kTag, "Need to recover"), 0);
    EXPECT_EQ(CountLines(kTag, "Start get"), 0);
    EXPECT_EQ(RowsOf("org.example.tv"), 1);
}

TEST_F(PermissionHelperTest, LauncherSupportWithNullHelperGivesZeroAndNoRow)
{
    std::string appId = Install("org.example.nulldb", {{AppMetadata::USE_ACCELERATOR, "true"}});
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.nulldb", nullptr), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(appId, "org.example.nulldb", nullptr), 0);
    EXPECT_EQ(CountLines(kTag, "Need to recover [org.example.nulldb] to acceleartors"), 2);
    EXPECT_EQ(AllAcceleratorRows(), 0);
}

TEST_F(PermissionHelperTest, LauncherSupportKeyMustMatchExactly)
{
    std::string appId = Install("org.example.near", {{"http://developer.quillon.com/tv/metadata/use.accelerators", "1"},
                                                     {"/tv/metadata/use.preview", "1"},
                                                     {"http://other.example/tv/metadata/use.preview", "1"}});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.near", m_pDb.get()), 0);
    EXPECT_EQ(AllAcceleratorRows(), 0);
}

TEST_F(PermissionHelperTest, EmptyPackageIdNeverMatchesARowNorCreatesOne)
{
    AddAcceleratorRow("org.example.someone");
    {
        RawDatabase db(DbPath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_title) VALUES ('no package')"), 0);
    }
    std::string plainApp = Install("org.example.plain", {});
    EXPECT_FALSE(m_helper.CheckPermissionWhiteList(""));
    EXPECT_EQ(m_helper.GetReadPermissionLevel(plainApp, "", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetWritePermissionLevel(plainApp, "", m_pDb.get()), 0);
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), ""), -1);

    /* With the launcher-support key the level is given, but no row is made. */
    std::string launcherApp = Install("org.example.launcher", {{AppMetadata::USE_ACCELERATOR, "1"}});
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.GetReadPermissionLevel(launcherApp, "", m_pDb.get()), 1);
    EXPECT_EQ(CountLines(kTag, "appPkgName is empty"), 1);
    EXPECT_EQ(AllAcceleratorRows(), 2);
}

TEST_F(PermissionHelperTest, GetAcceleratorIdBindsThePackageId)
{
    EXPECT_EQ(m_helper.GetAcceleratorID(nullptr, "org.example.a"), -1);
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), "org.example.a"), -1);
    AddAcceleratorRow("org.example.z");
    AddAcceleratorRow("org.example.a");
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), "org.example.a"), 2);
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), "org.example.z"), 1);
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), "x' OR '1'='1"), -1);
}

TEST_F(PermissionHelperTest, RecoverReturnsTheExistingRowWithoutAddingOne)
{
    AddAcceleratorRow("org.example.a");
    AddAcceleratorRow("org.example.b");
    EXPECT_EQ(m_helper.RecoverAcceleratorID("org.example.b", m_pDb.get()), 2);
    EXPECT_EQ(AllAcceleratorRows(), 2);
    EXPECT_EQ(m_helper.RecoverAcceleratorID("org.example.c", m_pDb.get()), 3);
    EXPECT_EQ(m_helper.RecoverAcceleratorID("org.example.c", m_pDb.get()), 3);
    EXPECT_EQ(AllAcceleratorRows(), 3);
    EXPECT_EQ(m_helper.GetAcceleratorID(m_pDb.get(), "org.example.c"), 3);
}

TEST_F(PermissionHelperTest, RecoverFailures)
{
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(m_helper.RecoverAcceleratorID("", m_pDb.get()), -1);
    EXPECT_EQ(CountLines(kTag, "appPkgName is empty"), 1);
    EXPECT_EQ(m_helper.RecoverAcceleratorID("org.example.a", nullptr), -1);
    std::vector<tilvane::host::LogLine> nullLines = LinesContaining(kTag, "m_pDbHelper is NULL !!");
    ASSERT_EQ(nullLines.size(), 1u);
    EXPECT_EQ(nullLines[0].priority, DLOG_ERROR);

    /* A helper whose database cannot be opened has no connection. */
    CContentHelper unopenable("/proc/tilvane-no-such-dir/", ".preview.db", 15);
    EXPECT_EQ(m_helper.RecoverAcceleratorID("org.example.a", &unopenable), -1);
    EXPECT_EQ(CountLines(kTag, "Failed to connect preview DB"), 1);
    EXPECT_EQ(AllAcceleratorRows(), 0);
}

/* ---- metadata callbacks ---------------------------------------------------------- */

TEST_F(PermissionHelperTest, SupportNimbeCallbackStopsOnNullKeyOrUserData)
{
    bool flag = false;
    tilvane::host::ClearCapturedLog();
    EXPECT_FALSE(CPermissionHelper::GetSupportNimbeCB(nullptr, "v", &flag));
    EXPECT_FALSE(CPermissionHelper::GetSupportNimbeCB(AppMetadata::USE_PREVIEW, "v", nullptr));
    EXPECT_EQ(CountLines(kTag, "metadata_key or user data is NULL pointer, skip "), 2);
    EXPECT_FALSE(flag);
    EXPECT_TRUE(CPermissionHelper::GetSupportNimbeCB("other", "v", &flag));
    EXPECT_FALSE(flag);
    EXPECT_TRUE(CPermissionHelper::GetSupportNimbeCB(AppMetadata::USE_ACCELERATOR, nullptr, &flag));
    EXPECT_TRUE(flag);
}

TEST_F(PermissionHelperTest, ReadPermissionCallbackStopsAtTheFirstRecognisedPrivilege)
{
    const char* key = Internal::ACCELERATOR_READ_PERMISSION;
    EXPECT_TRUE(m_helper.GetReadPermission("other.key", CPermissionHelper::READ_TILES.c_str()));
    EXPECT_TRUE(m_helper.GetReadPermission(key, "something else"));
    EXPECT_FALSE(m_helper.GetReadPermission(key, CPermissionHelper::READ_TILES_MVPD.c_str()));
    EXPECT_FALSE(CPermissionHelper::GetReadPermissionCB(key, CPermissionHelper::READ_TILES.c_str(), nullptr));

    /* Through the registry: the first recognised declaration wins. */
    std::string appId = Install("org.example.first", {{key, "unknown"}, {"other", "x"}});
    EXPECT_EQ(m_helper.GetReadPermissionLevel(appId, "org.example.first", m_pDb.get()), 0);
}

/* ---- column validation ------------------------------------------------------------ */

class PermissionHelperValidateColumnsTest : public PermissionHelperTest
{
protected:
    bool Validate(const std::vector<std::string>& keys, const std::string& uri, int level)
    {
        bundle* values = bundle_create();
        for (const std::string& key : keys) {
            bundle_add_str(values, key.c_str(), "v");
        }
        bool valid = m_helper.ValidateColumns(values, uri, static_cast<Level>(level));
        bundle_free(values);
        return valid;
    }
};

TEST_F(PermissionHelperValidateColumnsTest, InternalAcceleratorColumnsNeedLevel4)
{
    for (const char* column : {Internal::ACCELERATOR_POSITION, Internal::ACCELERATOR_APP_PKG_NAME}) {
        SCOPED_TRACE(column);
        EXPECT_FALSE(Validate({column}, Accel::CONTENT_URI, 1));
        EXPECT_FALSE(Validate({column}, Accel::CONTENT_URI, 3));
        EXPECT_TRUE(Validate({column}, Accel::CONTENT_URI, 4));
    }
    EXPECT_TRUE(Validate({Accel::ACCELERATOR_TITLE, Accel::ACCELERATOR_ICON}, Accel::CONTENT_URI, 1));
    EXPECT_FALSE(Validate({Accel::ACCELERATOR_TITLE}, Accel::CONTENT_URI, 0));
}

TEST_F(PermissionHelperValidateColumnsTest, TileAndSectionColumnsNeedLevel1)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {TilesModel::Tiles::CONTENT_URI, TilesModel::Tiles::TILE_TITLE},
        {TilesModel::Tiles::CONTENT_URI, TilesModel::Tiles::TILE_SECTION_RAW_ID},
        {TilesModel::Tiles::CONTENT_URI, TilesModel::Tiles::TILE_EXTRA_APP_ID},
        {TilesModel::Sections::CONTENT_URI, TilesModel::Sections::SECTION_TITLE},
        {TilesModel::Sections::CONTENT_URI, TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        EXPECT_TRUE(Validate({c.second}, c.first, 1));
        EXPECT_TRUE(Validate({c.second}, c.first, 3));
        EXPECT_TRUE(Validate({c.second}, c.first, 4));
        EXPECT_FALSE(Validate({c.second}, c.first, 0));
    }
}

TEST_F(PermissionHelperValidateColumnsTest, EmptyBundleIsValidForAnyTableAndLevel)
{
    for (const std::string uri : {Accel::CONTENT_URI, TilesModel::Sections::CONTENT_URI,
                                  TilesModel::Tiles::CONTENT_URI, "content://unknown/table"}) {
        for (int level : {0, 1, 3, 4}) {
            EXPECT_TRUE(Validate({}, uri, level)) << uri << " " << level;
        }
    }
}

TEST_F(PermissionHelperValidateColumnsTest, UnknownTableRefusesEveryKey)
{
    tilvane::host::ClearCapturedLog();
    EXPECT_FALSE(Validate({TilesModel::Tiles::TILE_TITLE}, "content://unknown/table", 4));
    EXPECT_EQ(CountLines(kTag, "ValidateColumnForPermission : unknown table"), 1);
}

TEST_F(PermissionHelperValidateColumnsTest, TwoRefusedKeysAreBothLogged)
{
    tilvane::host::ClearCapturedLog();
    EXPECT_FALSE(Validate({Internal::ACCELERATOR_POSITION, Accel::ACCELERATOR_TITLE, Internal::ACCELERATOR_APP_PKG_NAME},
                          Accel::CONTENT_URI, 1));
    EXPECT_EQ(CountLines(kTag, "Permission to modify [ "), 2);
    EXPECT_EQ(CountLines(kTag, "ValidateColumnForPermission : Permission to modify [ accelerator_position ] is not granted"), 1);
    EXPECT_EQ(
        CountLines(kTag, "ValidateColumnForPermission : Permission to modify [ accelerator_app_pkg_name ] is not granted"),
        1);
    /* Every key is looked at, the accepted one too. */
    EXPECT_EQ(CountLines(kTag,
                         "ValidateColumnForPermission : client permission = 1 permission of [ accelerator_title ] in "
                         "Table [ content://com.quillon.px.tiles/accelerators ] = 1"),
              1);
    EXPECT_EQ(CountLines(kTag, "client permission = 1 permission of [ accelerator_position ] in Table [ "
                               "content://com.quillon.px.tiles/accelerators ] = 4"),
              1);
}

/* Unknown names are added to the table at level 0 and pass at every level. */
TEST_F(PermissionHelperValidateColumnsTest, UnknownColumnPassesAtEveryLevel)
{
    for (int level : {0, 1, 3, 4}) {
        EXPECT_TRUE(Validate({"no_such_column"}, TilesModel::Tiles::CONTENT_URI, level)) << level;
    }
}

/* ---- projections ------------------------------------------------------------------ */

std::vector<std::string> Project(CPermissionHelper& helper, const std::string& uri, std::vector<std::string> request,
                                 int level)
{
    return helper.GetAllowedProjectionForPermission(uri, request, static_cast<Level>(level));
}

TEST_F(PermissionHelperTest, EmptyProjectionOfAccelerators)
{
    const std::vector<std::string> publicColumns = {Accel::_ID,          Accel::ACCELERATOR_TITLE,
                                                    Accel::ACCELERATOR_ICON, Accel::ACCELERATOR_ICON_UNFOCUSED,
                                                    Accel::ACCELERATOR_ENABLED, Accel::ACCELERATOR_ID};
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {}, 1), publicColumns);
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {}, 3), publicColumns);
    std::vector<std::string> internalColumns = publicColumns;
    internalColumns.insert(internalColumns.end(),
                           {Internal::ACCELERATOR_POSITION, Internal::ACCELERATOR_APP_PKG_NAME,
                            Internal::ACCELERATOR_READ_PERMISSION, Internal::ACCELERATOR_WRITE_PERMISSION,
                            Internal::ACCELERATOR_QEB_WEB_APP_ID});
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {}, 4), internalColumns);
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {}, 4).size(), 11u);
    EXPECT_TRUE(Project(m_helper, Accel::CONTENT_URI, {}, 0).empty());
}

TEST_F(PermissionHelperTest, EmptyProjectionOfSectionsAndTiles)
{
    namespace S = TilesModel::Sections;
    namespace T = TilesModel::Tiles;
    const std::vector<std::string> sections = {S::_ID, S::SECTION_ID, S::SECTION_TITLE, S::SECTION_POSITION,
                                               S::SECTION_ACCELERATOR_RAW_ID, S::SECTION_TITLE_DISPLAY_MODE,
                                               S::SECTION_SUBTITLE_DISPLAY_MODE};
    const std::vector<std::string> tiles = {
        T::_ID,              T::TILE_ID,           T::TILE_SECTION_RAW_ID,  T::TILE_TYPE,
        T::TILE_TITLE,       T::TILE_SUBTITLE,     T::TILE_DISPLAY_FROM,    T::TILE_DISPLAY_UNTIL,
        T::TILE_ACTION_PLAY, T::TILE_ACTION_CLICK, T::TILE_ACTION_TYPE,     T::TILE_ACTION_DETAILS,
        T::TILE_IMAGE_URL,   T::TILE_IMAGE_PATH,   T::TILE_IMAGE_WIDTH,     T::TILE_IMAGE_HEIGHT,
        T::TILE_IMAGE_RATIO, T::TILE_SOURCE_ICON,  T::TILE_SOURCE_ICON_PATH, T::TILE_ACTION_PRE_PLAY,
        T::TILE_ACTION_POST_PLAY, T::TILE_PLAYABLE, T::TILE_PROGRESS,       T::TILE_NOTIFICATION,
        T::TILE_FAVORITE,    T::TILE_POSITION,     T::TILE_EXTRA_APP_ID};
    for (int level : {1, 3, 4}) {
        EXPECT_EQ(Project(m_helper, S::CONTENT_URI, {}, level), sections) << level;
        EXPECT_EQ(Project(m_helper, T::CONTENT_URI, {}, level), tiles) << level;
    }
    EXPECT_EQ(Project(m_helper, S::CONTENT_URI, {}, 1).size(), 7u);
    EXPECT_EQ(Project(m_helper, T::CONTENT_URI, {}, 1).size(), 27u);
    EXPECT_TRUE(Project(m_helper, S::CONTENT_URI, {}, 0).empty());
    EXPECT_TRUE(Project(m_helper, T::CONTENT_URI, {}, 0).empty());
    EXPECT_TRUE(Project(m_helper, "content://unknown/table", {}, 4).empty());
}

/* The tiles default projection names every column of the table. */
TEST_F(PermissionHelperTest, DefaultTilesProjectionSelectsAgainstTheRealTable)
{
    std::vector<std::string> projection = Project(m_helper, TilesModel::Tiles::CONTENT_URI, {}, 1);
    auto cursor = m_pDb->GetConnection()->SelectRequest("tiles", projection, "", "");
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(cursor->GetColumnCount(), 27);
}

TEST_F(PermissionHelperTest, RequestedProjectionDropsWhatTheLevelMayNotRead)
{
    tilvane::host::ClearCapturedLog();
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {Accel::ACCELERATOR_TITLE, Internal::ACCELERATOR_APP_PKG_NAME}, 1),
              (std::vector<std::string>{Accel::ACCELERATOR_TITLE}));
    EXPECT_EQ(CountLines(kTag, "GetAllowedProjectionForPermission : tablePermissions[accelerator_title] = 1"), 1);
    EXPECT_EQ(CountLines(kTag, "GetAllowedProjectionForPermission : tablePermissions[accelerator_app_pkg_name] = 4"), 1);
    EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {Accel::ACCELERATOR_TITLE, Internal::ACCELERATOR_APP_PKG_NAME}, 4),
              (std::vector<std::string>{Accel::ACCELERATOR_TITLE, Internal::ACCELERATOR_APP_PKG_NAME}));
}

TEST_F(PermissionHelperTest, RequestedProjectionKeepsOrderAndDuplicates)
{
    namespace T = TilesModel::Tiles;
    EXPECT_EQ(Project(m_helper, T::CONTENT_URI, {T::TILE_TITLE, T::_ID, T::TILE_TITLE}, 1),
              (std::vector<std::string>{T::TILE_TITLE, T::_ID, T::TILE_TITLE}));
    /* Known columns are dropped at level 0, not the request as a whole. */
    EXPECT_TRUE(Project(m_helper, T::CONTENT_URI, {T::TILE_TITLE, T::_ID}, 0).empty());
    /* A name of an unknown table is dropped. */
    EXPECT_TRUE(Project(m_helper, "content://unknown/table", {"a", "b"}, 4).empty());
}

/* Names no table lists pass at every level, expressions included. */
TEST_F(PermissionHelperTest, UnknownProjectionNamesPassAtEveryLevel)
{
    const std::string expression = "(SELECT group_concat(accelerator_app_pkg_name) FROM accelerators)";
    for (int level : {0, 1, 3, 4}) {
        EXPECT_EQ(Project(m_helper, Accel::CONTENT_URI, {expression}, level), (std::vector<std::string>{expression}))
            << level;
        EXPECT_EQ(Project(m_helper, TilesModel::Tiles::CONTENT_URI, {"count(*)", TilesModel::Tiles::TILE_TITLE}, level),
                  level >= 1 ? (std::vector<std::string>{"count(*)", TilesModel::Tiles::TILE_TITLE})
                             : (std::vector<std::string>{"count(*)"}))
            << level;
    }
    /* Consequence: a level-1 client reads every package's name although the
     * column itself is refused to it. */
    AddAcceleratorRow("org.example.a");
    AddAcceleratorRow("org.example.b");
    std::vector<std::string> projection = Project(m_helper, Accel::CONTENT_URI, {expression}, 1);
    auto cursor = m_pDb->GetConnection()->SelectRequest("accelerators", projection, "accelerator_app_pkg_name='org.example.a'", "");
    ASSERT_NE(cursor, nullptr);
    ASSERT_EQ(cursor->Step(), 0);
    std::string names;
    ASSERT_TRUE(cursor->GetString(0, names));
    EXPECT_EQ(names, "org.example.a,org.example.b");
}

}  // namespace
