/*
 * The host's application registry: package manager, application information
 * and the web-application store's list, all reading one registry file under
 * the platform root, and the control API that fills it.
 */
#include <app_info.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <package_manager.h>
#include <qeb_app_list.h>
#include <sys/wait.h>
#include <tzplatform_config.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"

using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;
using namespace tilvane::test;

namespace {

using Metadata = std::vector<std::pair<std::string, std::string>>;

RegisteredPackage NewsPackage()
{
    return RegisteredPackage{"org.example.news",
                             {RegisteredApplication{"org.example.news.main", {{"first", "1"}, {"second", "two"}}},
                              RegisteredApplication{"org.example.news.widget", {{"only", ""}}}},
                             "NewsStoreId"};
}

RegisteredPackage WeatherPackage()
{
    return RegisteredPackage{"org.example.weather",
                             {RegisteredApplication{"org.example.weather.main", {{"k", "v"}}}},
                             ""};
}

std::string RegistryFile()
{
    return std::string(tzplatform_getenv(TZ_SYS_DB)) + "/.tilvane-app-registry.db";
}

std::string PackageOf(const char* appId, int* result)
{
    char* packageId = nullptr;
    *result = package_manager_get_package_id_by_app_id(appId, &packageId);
    std::string text = packageId != nullptr ? packageId : "";
    free(packageId);
    return text;
}

Metadata MetadataOf(const char* appId)
{
    app_info_h info = nullptr;
    Metadata metadata;
    if (app_info_create(appId, &info) != APP_MANAGER_ERROR_NONE) {
        return metadata;
    }
    app_info_foreach_metadata(
        info,
        [](const char* key, const char* value, void* data) {
            static_cast<Metadata*>(data)->emplace_back(key, value);
            return true;
        },
        &metadata);
    app_info_destroy(info);
    return metadata;
}

std::vector<std::string> PackageIds()
{
    std::vector<std::string> ids;
    int result = package_manager_foreach_package_info(
        [](package_info_h info, void* data) {
            char* name = nullptr;
            if (package_info_get_package(info, &name) == PACKAGE_MANAGER_ERROR_NONE) {
                static_cast<std::vector<std::string>*>(data)->push_back(name);
                free(name);
            }
            return true;
        },
        &ids);
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NONE);
    return ids;
}

class AppRegistryTest : public ::testing::Test
{
protected:
    PlatformSandbox m_sandbox;
};

TEST_F(AppRegistryTest, EmptyRegistryHasNoPackages)
{
    EXPECT_TRUE(tilvane::host::ListPackages().empty());
    EXPECT_TRUE(PackageIds().empty());
}

TEST_F(AppRegistryTest, RegistryIsAnSqliteFileUnderTheDatabaseDirectoryInWalMode)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    ASSERT_TRUE(FileExists(RegistryFile()));
    RawDatabase db(RegistryFile());
    ASSERT_TRUE(db.IsOpen());
    EXPECT_EQ(db.Scalar("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(db.Scalar("SELECT package_id FROM packages"), "org.example.news");
}

TEST_F(AppRegistryTest, InstallThenListGivesAppsMetadataAndStoreIdInOrder)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    std::vector<RegisteredPackage> packages = tilvane::host::ListPackages();
    ASSERT_EQ(packages.size(), 2u);
    EXPECT_EQ(packages[0].packageId, "org.example.news");
    EXPECT_EQ(packages[0].webAppId, "NewsStoreId");
    ASSERT_EQ(packages[0].applications.size(), 2u);
    EXPECT_EQ(packages[0].applications[0].appId, "org.example.news.main");
    EXPECT_EQ(packages[0].applications[0].metadata, (Metadata{{"first", "1"}, {"second", "two"}}));
    EXPECT_EQ(packages[0].applications[1].appId, "org.example.news.widget");
    EXPECT_EQ(packages[0].applications[1].metadata, (Metadata{{"only", ""}}));
    EXPECT_EQ(packages[1].packageId, "org.example.weather");
    EXPECT_EQ(packages[1].webAppId, "");
}

TEST_F(AppRegistryTest, ReinstallReplacesThePackage)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    RegisteredPackage changed{"org.example.news", {RegisteredApplication{"org.example.news.tv", {{"x", "y"}}}}, ""};
    ASSERT_TRUE(tilvane::host::InstallPackage(changed));
    std::vector<RegisteredPackage> packages = tilvane::host::ListPackages();
    ASSERT_EQ(packages.size(), 1u);
    ASSERT_EQ(packages[0].applications.size(), 1u);
    EXPECT_EQ(packages[0].applications[0].appId, "org.example.news.tv");
    EXPECT_EQ(packages[0].webAppId, "");
    int result = 0;
    PackageOf("org.example.news.main", &result);
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);
}

TEST_F(AppRegistryTest, InvalidPackagesAreRefusedAndNothingIsWritten)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    struct Case {
        RegisteredPackage package;
        std::string reason;
    };
    std::vector<Case> cases = {
        {RegisteredPackage{"", {}, ""}, "package id is empty"},
        {RegisteredPackage{"p", {RegisteredApplication{"", {}}}, ""}, "application id is empty"},
        {RegisteredPackage{"p", {RegisteredApplication{"a", {}}, RegisteredApplication{"a", {}}}, ""},
         "'a' is given twice"},
        {RegisteredPackage{"p", {RegisteredApplication{"a", {{"k", "1"}, {"k", "2"}}}}, ""},
         "metadata key 'k' of 'a' is given twice"},
        {RegisteredPackage{"p", {RegisteredApplication{"a", {{"", "1"}}}}, ""}, "metadata key of 'a' is empty"},
        {RegisteredPackage{"p", {RegisteredApplication{"org.example.weather.main", {}}}, ""},
         "belongs to the package 'org.example.weather'"},
        {RegisteredPackage{std::string(1024, 'p'), {}, ""}, "longer than 1023"},
        {RegisteredPackage{"p", {}, std::string(1024, 'w')}, "longer than 1023"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(tilvane::host::InstallPackage(c.package, &error)) << c.reason;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
    std::vector<RegisteredPackage> packages = tilvane::host::ListPackages();
    ASSERT_EQ(packages.size(), 1u);
    EXPECT_EQ(packages[0].packageId, "org.example.weather");
}

TEST_F(AppRegistryTest, RemovePackageRemovesAppsMetadataAndStoreEntry)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    ASSERT_TRUE(tilvane::host::RemovePackage("org.example.news"));
    EXPECT_EQ(PackageIds(), (std::vector<std::string>{"org.example.weather"}));
    app_info_h info = nullptr;
    EXPECT_EQ(app_info_create("org.example.news.main", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
    RawDatabase db(RegistryFile());
    EXPECT_EQ(db.Count("metadata"), 1);
    EXPECT_EQ(db.Count("web_apps"), 0);

    std::string error;
    EXPECT_FALSE(tilvane::host::RemovePackage("org.example.news", &error));
    EXPECT_NE(error.find("no package 'org.example.news'"), std::string::npos) << error;
}

TEST_F(AppRegistryTest, PackageIdByAppId)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    int result = -1;
    EXPECT_EQ(PackageOf("org.example.news.widget", &result), "org.example.news");
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(PackageOf("org.example.unknown", &result), "");
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);
    /* A package id is not an application id. */
    EXPECT_EQ(PackageOf("org.example.news", &result), "");
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);

    char* out = nullptr;
    EXPECT_EQ(package_manager_get_package_id_by_app_id(nullptr, &out), PACKAGE_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(package_manager_get_package_id_by_app_id("org.example.news.main", nullptr),
              PACKAGE_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(out, nullptr);
}

TEST_F(AppRegistryTest, ForeachPackageInfoWalksInInstallOrderAndStopsOnFalse)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    EXPECT_EQ(PackageIds(), (std::vector<std::string>{"org.example.weather", "org.example.news"}));

    int calls = 0;
    EXPECT_EQ(package_manager_foreach_package_info(
                  [](package_info_h, void* data) {
                      ++*static_cast<int*>(data);
                      return false;
                  },
                  &calls),
              PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(package_manager_foreach_package_info(nullptr, nullptr), PACKAGE_MANAGER_ERROR_INVALID_PARAMETER);
}

struct AppWalk {
    std::vector<std::string> appIds;
    std::vector<package_info_app_component_type_e> types;
    int stopAfter = -1;
    int foreachResult = -100;
    package_info_app_component_type_e requested = PACKAGE_INFO_APP_COMPONENT_TYPE_ALL;
};

bool CollectApp(package_info_app_component_type_e type, const char* appId, void* data)
{
    AppWalk* walk = static_cast<AppWalk*>(data);
    walk->appIds.push_back(appId);
    walk->types.push_back(type);
    return walk->stopAfter < 0 || static_cast<int>(walk->appIds.size()) < walk->stopAfter;
}

bool WalkAppsOfFirstPackage(package_info_h info, void* data)
{
    AppWalk* walk = static_cast<AppWalk*>(data);
    walk->foreachResult = package_info_foreach_app_from_package(info, walk->requested, CollectApp, walk);
    return false;
}

TEST_F(AppRegistryTest, ForeachAppFromPackageWalksAppsInOrderAndStopsOnFalse)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    AppWalk all;
    ASSERT_EQ(package_manager_foreach_package_info(WalkAppsOfFirstPackage, &all), PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(all.foreachResult, PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(all.appIds, (std::vector<std::string>{"org.example.news.main", "org.example.news.widget"}));
    EXPECT_EQ(all.types, (std::vector<package_info_app_component_type_e>{PACKAGE_INFO_APP_COMPONENT_TYPE_UI,
                                                                         PACKAGE_INFO_APP_COMPONENT_TYPE_UI}));

    AppWalk first;
    first.stopAfter = 1;
    ASSERT_EQ(package_manager_foreach_package_info(WalkAppsOfFirstPackage, &first), PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(first.appIds, (std::vector<std::string>{"org.example.news.main"}));

    AppWalk services;
    services.requested = PACKAGE_INFO_APP_COMPONENT_TYPE_SERVICE;
    ASSERT_EQ(package_manager_foreach_package_info(WalkAppsOfFirstPackage, &services), PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_EQ(services.foreachResult, PACKAGE_MANAGER_ERROR_NONE);
    EXPECT_TRUE(services.appIds.empty());

    EXPECT_EQ(package_info_foreach_app_from_package(nullptr, PACKAGE_INFO_APP_COMPONENT_TYPE_ALL, CollectApp, &all),
              PACKAGE_MANAGER_ERROR_INVALID_PARAMETER);
}

TEST_F(AppRegistryTest, GetPackageRejectsNullArguments)
{
    char* name = nullptr;
    EXPECT_EQ(package_info_get_package(nullptr, &name), PACKAGE_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(name, nullptr);
}

TEST_F(AppRegistryTest, AppInfoGivesMetadataInDeclarationOrder)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    EXPECT_EQ(MetadataOf("org.example.news.main"), (Metadata{{"first", "1"}, {"second", "two"}}));
    EXPECT_EQ(MetadataOf("org.example.news.widget"), (Metadata{{"only", ""}}));
}

TEST_F(AppRegistryTest, AppInfoUnknownAppAndBadArguments)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    app_info_h info = nullptr;
    EXPECT_EQ(app_info_create("org.example.nothing", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
    EXPECT_EQ(app_info_create("", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(app_info_create(nullptr, &info), APP_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_info_create("org.example.news.main", nullptr), APP_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_info_foreach_metadata(nullptr, [](const char*, const char*, void*) { return true; }, nullptr),
              APP_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app_info_destroy(nullptr), APP_MANAGER_ERROR_INVALID_PARAMETER);
}

TEST_F(AppRegistryTest, MetadataWalkStopsOnFalse)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    app_info_h info = nullptr;
    ASSERT_EQ(app_info_create("org.example.news.main", &info), APP_MANAGER_ERROR_NONE);
    std::vector<std::string> keys;
    EXPECT_EQ(app_info_foreach_metadata(
                  info,
                  [](const char* key, const char*, void* data) {
                      static_cast<std::vector<std::string>*>(data)->push_back(key);
                      return false;
                  },
                  &keys),
              APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(keys, (std::vector<std::string>{"first"}));
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);
}

TEST_F(AppRegistryTest, AppInfoHandleKeepsWhatItReadAtCreation)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    app_info_h info = nullptr;
    ASSERT_EQ(app_info_create("org.example.news.main", &info), APP_MANAGER_ERROR_NONE);
    ASSERT_TRUE(tilvane::host::RemovePackage("org.example.news"));
    int count = 0;
    app_info_foreach_metadata(
        info,
        [](const char*, const char*, void* data) {
            ++*static_cast<int*>(data);
            return true;
        },
        &count);
    EXPECT_EQ(count, 2);
    app_info_destroy(info);
    EXPECT_TRUE(MetadataOf("org.example.news.main").empty());
}

TEST_F(AppRegistryTest, MetadataKeysMayBeUris)
{
    RegisteredPackage package{
        "p", {RegisteredApplication{"a", {{"http://developer.example/tv/metadata/use.preview", "a b: c/d"}}}}, ""};
    ASSERT_TRUE(tilvane::host::InstallPackage(package));
    EXPECT_EQ(MetadataOf("a"), (Metadata{{"http://developer.example/tv/metadata/use.preview", "a b: c/d"}}));
}

TEST_F(AppRegistryTest, WebAppListRecordLayout)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage())); /* no store id: not listed */
    ASSERT_TRUE(tilvane::host::InstallPackage(
        RegisteredPackage{"org.example.radio", {RegisteredApplication{"org.example.radio.main", {}}}, "R4D10"}));
    void* list = nullptr;
    int count = 0;
    ASSERT_EQ(qeb_get_app_list(65535, 65535, 65535, 1, 0, 0, &list, &count), QEB_APP_LIST_ERROR_NONE);
    ASSERT_EQ(count, 2);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(QEB_APP_RECORD_SIZE, 2288);
    const char* records = static_cast<const char*>(list);
    EXPECT_STREQ(records + 0, "NewsStoreId");
    EXPECT_STREQ(records + 1024, "org.example.news");
    EXPECT_STREQ(records + 2288, "R4D10");
    EXPECT_STREQ(records + 2288 + 1024, "org.example.radio");
    /* Everything else in a record is zero. */
    for (int i = static_cast<int>(strlen("NewsStoreId")); i < 1024; ++i) {
        ASSERT_EQ(records[i], 0) << i;
    }
    for (int i = 1024 + static_cast<int>(strlen("org.example.news")); i < 2288; ++i) {
        ASSERT_EQ(records[i], 0) << i;
    }
    free(list);
}

TEST_F(AppRegistryTest, WebAppListOfLongestTextsKeepsTheirTerminators)
{
    std::string storeId(1023, 'w');
    std::string packageId(1023, 'p');
    ASSERT_TRUE(tilvane::host::InstallPackage(RegisteredPackage{packageId, {}, storeId}));
    void* list = nullptr;
    int count = 0;
    ASSERT_EQ(qeb_get_app_list(0, 0, 0, 0, 0, 0, &list, &count), QEB_APP_LIST_ERROR_NONE);
    ASSERT_EQ(count, 1);
    const char* record = static_cast<const char*>(list);
    EXPECT_EQ(std::string(record), storeId);
    EXPECT_EQ(std::string(record + 1024), packageId);
    free(list);
}

TEST_F(AppRegistryTest, WebAppListEmptyAndBadArguments)
{
    void* list = reinterpret_cast<void*>(0x1);
    int count = 7;
    ASSERT_EQ(qeb_get_app_list(65535, 65535, 65535, 1, 0, 0, &list, &count), QEB_APP_LIST_ERROR_NONE);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(qeb_get_app_list(0, 0, 0, 0, 0, 0, nullptr, &count), QEB_APP_LIST_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(qeb_get_app_list(0, 0, 0, 0, 0, 0, &list, nullptr), QEB_APP_LIST_ERROR_INVALID_PARAMETER);
}

TEST_F(AppRegistryTest, EveryCallCanBeMadeToFail)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    char* text = nullptr;
    tilvane::host::FailNextCalls("package_manager_get_package_id_by_app_id", 1);
    EXPECT_EQ(package_manager_get_package_id_by_app_id("org.example.news.main", &text),
              PACKAGE_MANAGER_ERROR_SYSTEM_ERROR);
    EXPECT_EQ(text, nullptr);

    tilvane::host::FailNextCalls("package_manager_foreach_package_info", 1);
    EXPECT_EQ(package_manager_foreach_package_info([](package_info_h, void*) { return true; }, nullptr),
              PACKAGE_MANAGER_ERROR_SYSTEM_ERROR);

    AppWalk walk;
    tilvane::host::FailNextCalls("package_info_foreach_app_from_package", 1);
    package_manager_foreach_package_info(WalkAppsOfFirstPackage, &walk);
    EXPECT_EQ(walk.foreachResult, PACKAGE_MANAGER_ERROR_IO_ERROR);
    EXPECT_TRUE(walk.appIds.empty());

    int getResult = 0;
    tilvane::host::FailNextCalls("package_info_get_package", 1);
    package_manager_foreach_package_info(
        [](package_info_h info, void* data) {
            char* name = nullptr;
            *static_cast<int*>(data) = package_info_get_package(info, &name);
            free(name);
            return false;
        },
        &getResult);
    EXPECT_EQ(getResult, PACKAGE_MANAGER_ERROR_IO_ERROR);

    app_info_h info = nullptr;
    tilvane::host::FailNextCalls("app_info_create", 1);
    EXPECT_EQ(app_info_create("org.example.news.main", &info), APP_MANAGER_ERROR_DB_FAILED);
    ASSERT_EQ(app_info_create("org.example.news.main", &info), APP_MANAGER_ERROR_NONE);
    tilvane::host::FailNextCalls("app_info_foreach_metadata", 1);
    EXPECT_EQ(app_info_foreach_metadata(info, [](const char*, const char*, void*) { return true; }, nullptr),
              APP_MANAGER_ERROR_IO_ERROR);
    tilvane::host::FailNextCalls("app_info_destroy", 1);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_IO_ERROR);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);

    void* list = nullptr;
    int count = 0;
    tilvane::host::FailNextCalls("qeb_get_app_list", 1);
    EXPECT_EQ(qeb_get_app_list(0, 0, 0, 0, 0, 0, &list, &count), QEB_APP_LIST_ERROR_DB_FAILED);
    EXPECT_EQ(list, nullptr);
}

TEST_F(AppRegistryTest, AnotherProcessSeesChangesAndIsSeen)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    /* Read once here, so that this process has used the file before the change. */
    ASSERT_EQ(PackageIds(), (std::vector<std::string>{"org.example.weather"}));

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        /* The child sees what the parent installed, then installs and removes. */
        char* packageId = nullptr;
        bool sawParent = package_manager_get_package_id_by_app_id("org.example.weather.main", &packageId) ==
                             PACKAGE_MANAGER_ERROR_NONE &&
                         std::string(packageId) == "org.example.weather";
        free(packageId);
        bool installed = tilvane::host::InstallPackage(NewsPackage());
        bool removed = tilvane::host::RemovePackage("org.example.weather");
        _exit(sawParent && installed && removed ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    EXPECT_EQ(PackageIds(), (std::vector<std::string>{"org.example.news"}));
    int result = 0;
    EXPECT_EQ(PackageOf("org.example.news.main", &result), "org.example.news");
    EXPECT_EQ(MetadataOf("org.example.news.main"), (Metadata{{"first", "1"}, {"second", "two"}}));
    app_info_h info = nullptr;
    EXPECT_EQ(app_info_create("org.example.weather.main", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
}

TEST_F(AppRegistryTest, LookupsSeeEveryChangeThoughTheConnectionIsKept)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    int result = -1;
    ASSERT_EQ(PackageOf("org.example.weather.main", &result), "org.example.weather");

    /* Another process (its lookups start from the connection this one kept)
     * reads, then changes the registry. */
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int childResult = -1;
        const bool read = PackageOf("org.example.weather.main", &childResult) == "org.example.weather";
        const bool changed =
            tilvane::host::InstallPackage(NewsPackage()) && tilvane::host::RemovePackage("org.example.weather");
        const bool seen = PackageOf("org.example.news.widget", &childResult) == "org.example.news" &&
                          PackageOf("org.example.weather.main", &childResult).empty();
        _exit(read && changed && seen ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    EXPECT_EQ(PackageOf("org.example.weather.main", &result), "");
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);
    EXPECT_EQ(PackageOf("org.example.news.main", &result), "org.example.news");
    EXPECT_EQ(MetadataOf("org.example.news.main"), (Metadata{{"first", "1"}, {"second", "two"}}));
}

TEST_F(AppRegistryTest, LookupsFollowARegistryFileThatWasReplaced)
{
    ASSERT_TRUE(tilvane::host::InstallPackage(WeatherPackage()));
    int result = -1;
    ASSERT_EQ(PackageOf("org.example.weather.main", &result), "org.example.weather");

    /* The file goes away (as when the platform's data is wiped) and a new one holds another package. */
    for (const char* suffix : {"", "-wal", "-shm"}) {
        unlink((RegistryFile() + suffix).c_str());
    }
    EXPECT_EQ(PackageOf("org.example.weather.main", &result), "");
    EXPECT_EQ(result, PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE);
    ASSERT_TRUE(tilvane::host::InstallPackage(NewsPackage()));
    EXPECT_EQ(PackageOf("org.example.news.main", &result), "org.example.news");
    EXPECT_EQ(PackageOf("org.example.weather.main", &result), "");
    EXPECT_EQ(MetadataOf("org.example.news.widget"), (Metadata{{"only", ""}}));
}

TEST_F(AppRegistryTest, TwoConnectionsWritingAtOnceBothLand)
{
    /* Several processes write the file at once; the busy timeout serialises them. */
    const int kChildren = 4;
    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            bool ok = true;
            for (int j = 0; j < 10; ++j) {
                std::string id = "pkg." + std::to_string(i) + "." + std::to_string(j);
                ok = tilvane::host::InstallPackage(RegisteredPackage{id, {RegisteredApplication{id + ".app", {}}}, ""}) &&
                     ok;
            }
            _exit(ok ? 0 : 1);
        }
        children.push_back(child);
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(tilvane::host::ListPackages().size(), static_cast<size_t>(kChildren * 10));
}

}  // namespace
