#include <gtest/gtest.h>

#include <glib.h>

#include <cstdio>
#include <cstdlib>

#include "config/platform_config.h"
#include "TestSupport.h"

namespace config = tilvane::host::config;

namespace {

class PlatformConfigTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        /* These tests start from a platform root without a configuration file
         * (the sandbox writes one that chooses the development identity mode). */
        std::remove((m_sandbox.Root() + "/etc/tilvane.conf").c_str());
        config::Forget();
    }
    void TearDown() override
    {
        unsetenv("TILVANE_CONFIG");
        tilvane::host::Reset();
    }
    tilvane::test::PlatformSandbox m_sandbox;
};

TEST_F(PlatformConfigTest, WithoutAFileEveryKeyHasItsDefault)
{
    EXPECT_EQ(config::String("identity", "mode", "development"), "development");
    EXPECT_TRUE(config::Bool("strict", "confinement", true));
    EXPECT_EQ(config::Integer("limits", "tiles", 7), 7);
    EXPECT_TRUE(config::StringList("identity", "platform-users").empty());
    EXPECT_FALSE(config::Has("identity", "mode"));
    EXPECT_EQ(config::Source(), "");
}

TEST_F(PlatformConfigTest, TheFileUnderThePlatformRootIsRead)
{
    g_mkdir_with_parents((m_sandbox.Root() + "/etc").c_str(), 0755);
    tilvane::test::WriteFile(m_sandbox.Root() + "/etc/tilvane.conf",
                             "[identity]\nmode = verified\nplatform-users = 0; 1000 ,2000\n"
                             "[strict]\nconfinement = true\n[limits]\ntiles = 500\n");
    EXPECT_EQ(config::String("identity", "mode", "development"), "verified");
    EXPECT_EQ(config::StringList("identity", "platform-users"), (std::vector<std::string>{"0", "1000", "2000"}));
    EXPECT_TRUE(config::Bool("strict", "confinement", false));
    EXPECT_EQ(config::Integer("limits", "tiles", 7), 500);
    EXPECT_EQ(config::Source(), m_sandbox.Root() + "/etc/tilvane.conf");
}

TEST_F(PlatformConfigTest, TilvaneConfigNamesAnotherFile)
{
    tilvane::test::TempDir other;
    tilvane::test::WriteFile(other.File("mine.conf"), "[strict]\nconfinement = true\n");
    setenv("TILVANE_CONFIG", other.File("mine.conf").c_str(), 1);
    config::Forget();
    EXPECT_TRUE(config::Bool("strict", "confinement", false));
}

TEST_F(PlatformConfigTest, AValueOfTheWrongTypeGivesTheDefault)
{
    tilvane::host::SetConfigurationText("[limits]\ntiles = many\n[strict]\nconfinement = perhaps\n");
    EXPECT_EQ(config::Integer("limits", "tiles", 7), 7);
    EXPECT_FALSE(config::Bool("strict", "confinement", false));
}

TEST_F(PlatformConfigTest, ABrokenFileIsLoggedAndDefaultsApply)
{
    g_mkdir_with_parents((m_sandbox.Root() + "/etc").c_str(), 0755);
    tilvane::test::WriteFile(m_sandbox.Root() + "/etc/tilvane.conf", "this is not a key file\n");
    EXPECT_EQ(config::String("identity", "mode", "development"), "development");
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "cannot be read"), 1);
}

}  // namespace
