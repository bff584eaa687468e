/*
 * The registry's side of identities: the platform's id syntax, the user of
 * each package, and the bus policy written at install.
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <host_control.h>

#include "TestProcess.h"
#include "TestSupport.h"

using tilvane::host::InstallPackage;
using tilvane::host::IsValidPlatformId;
using tilvane::host::ListPackages;
using tilvane::host::RegisteredApplication;
using tilvane::host::RegisteredPackage;
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
        {Package("org.example.f", "org.example.f.main", 0), "user 0 is a platform user"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(InstallPackage(c.package, &error)) << c.error;
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    EXPECT_TRUE(ListPackages().empty());
}

TEST_F(IdentityRegistryTest, TheDevelopmentModeKeepsAcceptingAnyId)
{
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n");
    EXPECT_TRUE(InstallPackage(Package("org.example.o'brien", "org.example.o'brien.main")));
    ASSERT_EQ(ListPackages().size(), 1u);
    EXPECT_EQ(ListPackages()[0].packageId, "org.example.o'brien");
}

TEST_F(IdentityRegistryTest, EachPackageGetsAUserOfItsOwn)
{
    tilvane::host::SetConfigurationText(
        "[identity]\nmode = verified\nfirst-app-user = 7000\nlast-app-user = 7002\n");
    ASSERT_TRUE(InstallPackage(Package("org.example.one", "org.example.one.main")));
    ASSERT_TRUE(InstallPackage(Package("org.example.two", "org.example.two.main", 7001)));
    ASSERT_TRUE(InstallPackage(Package("org.example.three", "org.example.three.main")));
    /* Installing again keeps the user. */
    ASSERT_TRUE(InstallPackage(Package("org.example.one", "org.example.one.main")));
    std::vector<RegisteredPackage> packages = ListPackages();
    ASSERT_EQ(packages.size(), 3u);
    EXPECT_EQ(packages[0].packageId, "org.example.two");
    EXPECT_EQ(packages[0].userId, 7001);
    EXPECT_EQ(packages[1].packageId, "org.example.three");
    EXPECT_EQ(packages[1].userId, 7002);
    EXPECT_EQ(packages[2].packageId, "org.example.one");
    EXPECT_EQ(packages[2].userId, 7000);

    std::string error;
    EXPECT_FALSE(InstallPackage(Package("org.example.four", "org.example.four.main"), &error));
    EXPECT_EQ(error, "no free user is left in 7000..7002");
    EXPECT_FALSE(InstallPackage(Package("org.example.four", "org.example.four.main", 7001), &error));
    EXPECT_EQ(error, "user 7001 belongs to the package 'org.example.two'");
    EXPECT_EQ(ListPackages().size(), 3u);
}

TEST_F(IdentityRegistryTest, TheBusPolicyBindsEachPackagesNamesToItsUser)
{
    ASSERT_TRUE(InstallPackage(Package("org.example.news", "org.example.news.main", 5001)));
    const std::string path = m_sandbox.Root() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf";
    const std::string policy = tilvane::test::ReadAll(path);
    EXPECT_NE(policy.find("<policy user=\"0\">\n    <allow own_prefix=\"org.tilvane\"/>"), std::string::npos) << policy;
    EXPECT_NE(policy.find("<policy user=\"5001\">\n"
                          "    <allow own=\"org.tilvane.App.Aorg_2eexample_2enews\"/>\n"
                          "    <allow own=\"org.tilvane.App.Aorg_2eexample_2enews_2emain\"/>\n"
                          "  </policy>"),
              std::string::npos)
        << policy;
    /* Removing the package takes its rule away. */
    ASSERT_TRUE(tilvane::host::RemovePackage("org.example.news"));
    EXPECT_EQ(tilvane::test::ReadAll(path).find("5001"), std::string::npos);
}

}  // namespace
