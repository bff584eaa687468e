/*
 * The registry's side of identities: the platform's id syntax, the user of
 * each package, and the bus policy written at install.
 */
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include <host_control.h>

#include "TestProcess.h"
#include "TestSupport.h"

using namespace tilvane::host;
using tilvane::test::PlatformSandbox;

namespace {

RegisteredPackage Package(const std::string& packageId, const std::string& appId, int64_t userId = -1)
{
    RegisteredPackage package{packageId, {RegisteredApplication{appId, {}}}, ""};
    package.userId = userId;
    return package;
}

class IdentityRegistryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        /* Installing in the verified mode asks the bus to reload its policy:
         * keep that away from whatever bus the environment names. */
        const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        m_hadAddress = address != nullptr;
        m_address = address != nullptr ? address : "";
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        tilvane::host::SetConfigurationText("[identity]\nmode = verified\nplatform-users = 0\n");
    }
    void TearDown() override
    {
        if (m_hadAddress) {
            setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
        }
    }

    PlatformSandbox m_sandbox;
    bool m_hadAddress = false;
    std::string m_address;
};

TEST(PlatformIdSyntax, LettersDigitsDotUnderscoreDashALetterFirstAtMost128)
{
    for (const char* valid : {"a", "org.example.news", "DownloadManager", "livetv_mbr_1", "x-y.z_0"}) {
        EXPECT_TRUE(IsValidPlatformId(valid)) << valid;
    }
    EXPECT_TRUE(IsValidPlatformId("a" + std::string(127, 'b')));
    std::string rule;
    for (const std::string& invalid : {std::string(""), std::string("x' OR '1'='1"), std::string("a b"),
                                      std::string("a/b"), std::string("9lives"), std::string(".hidden"),
                                      std::string("a;b"), std::string("caf\xc3\xa9"), "a" + std::string(128, 'b')}) {
        rule.clear();
        EXPECT_FALSE(IsValidPlatformId(invalid, &rule)) << invalid;
        EXPECT_EQ(rule, "an id is 1 to 128 letters, digits, '.', '_' or '-', starting with a letter");
    }
}

TEST_F(IdentityRegistryTest, InstallRefusesIdsOutsideThePlatformSyntax)
{
    struct Case {
        RegisteredPackage package;
        std::string error;
    };
    const std::vector<Case> cases = {
        {Package("x' OR '1'='1", "org.example.a"), "the package id 'x' OR '1'='1' is refused: an id is 1 to 128"},
        {Package("org.example.b", "org.example/b"), "the application id 'org.example/b' is refused"},
        {Package("org.example.c", "org.example c"), "the application id 'org.example c' is refused"},
        {Package("org.example.d", "a" + std::string(128, 'd')), "is refused: an id is 1 to 128"},
        {Package("org.example.e", "DownloadManager"), "'DownloadManager' is one of the platform's own ids"},
        {Package("DownloadManager", "org.example.g.main"), "the package id 'DownloadManager' is one of the platform's"},
        {Package("contentservicemanager", "org.example.h.main"),
         "the package id 'contentservicemanager' is one of the platform's own ids ('ContentServiceManager'): an id "
         "may not equal a platform id, the service's id or any id of another package, whatever the case"},
        {Package("org.example.i", "COM.QUILLON.PX.TILVANE"), "own ids ('com.quillon.px.tilvane')"},
        {Package("org.example.j", "tilvanectl"), "the application id 'tilvanectl' is one of the platform's own ids"},
        {Package("org.example.f", "org.example.f.main", 0), "user 0 is a platform user"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(InstallPackage(c.package, &error)) << c.error;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    EXPECT_TRUE(ListPackages().empty());
}

TEST_F(IdentityRegistryTest, NoIdOfAPackageMayEqualAnIdOfAnotherPackageWhateverTheCase)
{
    ASSERT_TRUE(InstallPackage(Package("org.example.news", "org.example.news.ui", 1)));
    struct Case {
        RegisteredPackage package;
        std::string error;
    };
    const std::vector<Case> cases = {
        /* A package named like another's application would own its bus name. */
        {Package("org.example.news.ui", "org.example.x.main", 2),
         "the package id 'org.example.news.ui' is application 'org.example.news.ui' of the package 'org.example.news'"},
        {Package("Org.Example.News.UI", "org.example.x.main", 2), "is application 'org.example.news.ui'"},
        {Package("org.example.x", "org.example.NEWS", 2),
         "the application id 'org.example.NEWS' is the package 'org.example.news': an id may not equal a platform "
         "id, the service's id or any id of another package, whatever the case"},
        {Package("org.example.x", "ORG.EXAMPLE.NEWS.UI", 2), "is application 'org.example.news.ui' of the package"},
        {Package("org.example.x", "org.example.news.ui", 2), "belongs to the package 'org.example.news'"},
        /* The service's id as configured counts as the platform's too. */
        {Package("org.example.service", "org.example.y", 3), "one of the platform's own ids ('org.example.service')"},
    };
    tilvane::host::SetConfigurationText(
        "[identity]\nmode = verified\nplatform-users = 0\n[service]\napp-id = org.example.service\n");
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(InstallPackage(c.package, &error)) << c.error;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    ASSERT_EQ(ListPackages().size(), 1u);
    /* Its own package may repeat its ids in any case, and be installed again. */
    EXPECT_TRUE(InstallPackage(Package("org.example.news", "Org.Example.News", 1)));
}

TEST_F(IdentityRegistryTest, TheDevelopmentModeKeepsAcceptingAnyId)
{
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n");
    EXPECT_TRUE(InstallPackage(Package("org.example.o'brien", "org.example.o'brien.main")));
    ASSERT_EQ(ListPackages().size(), 1u);
    EXPECT_EQ(ListPackages()[0].packageId, "org.example.o'brien");
}

/* The accounts of users 1, 2 and 3 (daemon, bin and sys on Debian). */
bool SmallAccountsExist()
{
    return getpwuid(1) != nullptr && getpwuid(2) != nullptr && getpwuid(3) != nullptr;
}

TEST_F(IdentityRegistryTest, EachPackageGetsAnExistingAccountOfItsOwn)
{
    if (!SmallAccountsExist()) {
        GTEST_SKIP() << "needs accounts for users 1, 2 and 3";
    }
    tilvane::host::SetConfigurationText("[identity]\nmode = verified\nfirst-app-user = 1\nlast-app-user = 3\n");
    ASSERT_TRUE(InstallPackage(Package("org.example.one", "org.example.one.main")));
    ASSERT_TRUE(InstallPackage(Package("org.example.two", "org.example.two.main", 2)));
    ASSERT_TRUE(InstallPackage(Package("org.example.three", "org.example.three.main")));
    /* Installing again keeps the user. */
    ASSERT_TRUE(InstallPackage(Package("org.example.one", "org.example.one.main")));
    std::vector<RegisteredPackage> packages = ListPackages();
    ASSERT_EQ(packages.size(), 3u);
    EXPECT_EQ(packages[0].packageId, "org.example.two");
    EXPECT_EQ(packages[0].userId, 2);
    EXPECT_EQ(packages[1].packageId, "org.example.three");
    EXPECT_EQ(packages[1].userId, 3);
    EXPECT_EQ(packages[2].packageId, "org.example.one");
    EXPECT_EQ(packages[2].userId, 1);

    std::string error;
    EXPECT_FALSE(InstallPackage(Package("org.example.four", "org.example.four.main"), &error));
    EXPECT_EQ(error.rfind("no free user account is left in 1..3: create an account for the package in that range "
                          "(for example: useradd --system --uid 1 app1), or set [identity] first-app-user and "
                          "last-app-user to a range of existing accounts",
                          0),
              0u)
        << error;
    EXPECT_FALSE(InstallPackage(Package("org.example.four", "org.example.four.main", 2), &error));
    EXPECT_EQ(error, "user 2 belongs to the package 'org.example.two'");
    EXPECT_EQ(ListPackages().size(), 3u);
}

TEST_F(IdentityRegistryTest, AUserWithoutAnAccountIsNeverBound)
{
    /* No account exists in this range (it is above every system's accounts
     * but nobody's, 65534, and below the 32-bit users of containers). */
    uid_t unused = 64000;
    while (getpwuid(unused) != nullptr && unused < 64100) {
        ++unused;
    }
    ASSERT_EQ(getpwuid(unused), nullptr);
    const std::string range = std::to_string(unused) + ".." + std::to_string(unused);
    tilvane::host::SetConfigurationText("[identity]\nmode = verified\nfirst-app-user = " + std::to_string(unused) +
                                        "\nlast-app-user = " + std::to_string(unused) + "\n");
    std::string error;
    EXPECT_FALSE(InstallPackage(Package("org.example.one", "org.example.one.main"), &error));
    EXPECT_NE(error.find("no free user account is left in " + range), std::string::npos) << error;
    EXPECT_FALSE(InstallPackage(Package("org.example.one", "org.example.one.main", unused), &error));
    EXPECT_EQ(error, "user " + std::to_string(unused) +
                         " has no account on this system, and the bus closes the connections of a user it cannot "
                         "look up: create the account, or name an existing user in the manifest's 'user' line");
    EXPECT_TRUE(ListPackages().empty());

    /* The development mode runs every process as one user: no account is looked at. */
    tilvane::host::SetConfigurationText("[identity]\nmode = development\nfirst-app-user = " + std::to_string(unused) +
                                        "\nlast-app-user = " + std::to_string(unused) + "\n");
    EXPECT_TRUE(InstallPackage(Package("org.example.one", "org.example.one.main"), &error)) << error;
    ASSERT_EQ(ListPackages().size(), 1u);
    EXPECT_EQ(ListPackages()[0].userId, static_cast<int64_t>(unused));
}

TEST_F(IdentityRegistryTest, TheBusPolicyBindsEachPackagesNamesToItsUser)
{
    ASSERT_TRUE(InstallPackage(Package("org.example.news", "org.example.news.main", 1)));
    const std::string path = m_sandbox.Root() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf";
    const std::string policy = tilvane::test::ReadAll(path);
    EXPECT_NE(policy.find("<policy user=\"0\">\n    <allow own_prefix=\"org.tilvane\"/>"), std::string::npos) << policy;
    EXPECT_NE(policy.find("<policy user=\"1\">\n"
                          "    <allow own=\"org.tilvane.App.Aorg_2eexample_2enews\"/>\n"
                          "    <allow own_prefix=\"org.tilvane.Port.Aorg_2eexample_2enews\"/>\n"
                          "    <allow own=\"org.tilvane.App.Aorg_2eexample_2enews_2emain\"/>\n"
                          "    <allow own_prefix=\"org.tilvane.Port.Aorg_2eexample_2enews_2emain\"/>\n"
                          "  </policy>"),
              std::string::npos)
        << policy;
    /* The ports of an application are named under the prefix granted. */
    EXPECT_EQ(tilvane::host::BusNameForPort("org.example.news.main", "inbox").rfind(
                  "org.tilvane.Port.Aorg_2eexample_2enews_2emain.H", 0),
              0u);
    /* The policy is the platform's only, whatever the umask. */
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    /* Removing the package takes its rule away. */
    ASSERT_TRUE(tilvane::host::RemovePackage("org.example.news"));
    EXPECT_EQ(tilvane::test::ReadAll(path).find("<policy user=\"1\">"), std::string::npos);
}

}  // namespace
