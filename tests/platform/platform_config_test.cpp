#include <gtest/gtest.h>

#include <glib.h>

#include <cstdio>
#include <cstdlib>

#include "config/config_keys.h"
#include "config/platform_config.h"
#include "confinement_policy.h"
#include "content/statement_budget.h"
#include "log/log_budget.h"
#include "requests/reply_budget.h"
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

TEST_F(PlatformConfigTest, ANamedFileThatIsMissingIsAProblemAndTheRootFileIsNotReadInstead)
{
    g_mkdir_with_parents((m_sandbox.Root() + "/etc").c_str(), 0755);
    tilvane::test::WriteFile(m_sandbox.Root() + "/etc/tilvane.conf", "[identity]\nmode = verified\n");
    setenv("TILVANE_CONFIG", (m_sandbox.Root() + "/absent.conf").c_str(), 1);
    config::Forget();
    const config::Resolution quiet = config::Resolve(true);
    EXPECT_TRUE(quiet.named);
    EXPECT_FALSE(quiet.read);
    EXPECT_EQ(quiet.problem, "the configuration file " + m_sandbox.Root() +
                                 "/absent.conf named by TILVANE_CONFIG does not exist");
    EXPECT_EQ(config::String("identity", "mode", "default"), "default");
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "does not exist"), 0);
    /* Another program says so once and runs on the defaults. */
    config::Forget();
    EXPECT_EQ(config::String("identity", "mode", "default"), "default");
    EXPECT_EQ(config::String("identity", "mode", "default"), "default");
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "named by TILVANE_CONFIG does not exist; built-in defaults "
                                                            "are used"),
              1);
}

TEST_F(PlatformConfigTest, AReloadTakesWhatMayChangeAtRunTimeAndKeepsTheRest)
{
    const std::string path = m_sandbox.Root() + "/etc/tilvane.conf";
    g_mkdir_with_parents((m_sandbox.Root() + "/etc").c_str(), 0755);
    tilvane::test::WriteFile(path, "[identity]\nmode = development\n[log]\nlevel = I\n[budget]\nstatement-ms = 100\n");
    EXPECT_EQ(config::Integer("budget", "statement-ms", 0), 100);
    const uint64_t generation = config::Generation();
    tilvane::test::WriteFile(path, "[identity]\nmode = verified\n[log]\nlevel = D\n[stats]\nenabled = false\n");
    std::vector<config::Change> changes;
    std::string problem;
    ASSERT_TRUE(config::Reload(changes, problem)) << problem;
    EXPECT_NE(config::Generation(), generation);
    std::vector<std::string> described;
    for (const config::Change& change : changes) {
        described.push_back(config::DescribeChange(change) + (change.applied ? "" : " (kept)"));
    }
    EXPECT_EQ(described, (std::vector<std::string>{"[identity] mode development -> verified (kept)",
                                                   "[log] level I -> D", "[budget] statement-ms 100 -> (unset)",
                                                   "[stats] enabled (unset) -> false"}));
    EXPECT_EQ(config::String("identity", "mode", ""), "development");
    EXPECT_EQ(config::String("log", "level", ""), "D");
    EXPECT_FALSE(config::Has("budget", "statement-ms"));
    EXPECT_FALSE(config::Bool("stats", "enabled", true));

    /* A file that cannot be read now changes nothing. */
    tilvane::test::WriteFile(path, "[log\nlevel = E\n");
    changes.clear();
    EXPECT_FALSE(config::Reload(changes, problem));
    EXPECT_EQ(problem.rfind("configuration " + path + " cannot be read (", 0), 0u) << problem;
    EXPECT_TRUE(changes.empty());
    EXPECT_EQ(config::String("log", "level", ""), "D");
}

TEST_F(PlatformConfigTest, TheStartLineNamesTheKeysThatDifferFromTheirDefaultsAndTheUnknownOnes)
{
    tilvane::host::SetConfigurationText("[identity]\nplatform-users = 0\nmode = development\n"
                                        "[data-control]\ndata-ids = accelerators, sections ,tiles\n"
                                        "[budget]\nstatement-ms = 02000\nheap-bytes = 1024\n"
                                        "[identity-users]\nDownloadManager = 5\n[budget]\nstatment-ms = 1\n");
    config::Resolution where;
    where.path = "/etc/tilvane/tilvane.conf";
    where.read = true;
    const config::ConfigurationReport report = config::DescribeConfiguration(where, config::Entries());
    EXPECT_EQ(report.summary, "configuration /etc/tilvane/tilvane.conf: 3 keys differ from the defaults: [identity] "
                              "mode = development, [budget] heap-bytes = 1024, [identity-users] DownloadManager = 5");
    EXPECT_EQ(report.unknown, (std::vector<std::string>{"configuration /etc/tilvane/tilvane.conf: unknown key "
                                                        "[budget] statment-ms is ignored"}));
    EXPECT_EQ(config::DescribeConfiguration(config::Resolution(), {}).summary,
              "configuration: none (TILVANE_CONFIG is not set and the platform root has no etc/tilvane.conf); every "
              "key has its built-in default");
}

/* The table's defaults are the values in force when nothing is configured:
 * the start line compares with what the service really uses. */
TEST_F(PlatformConfigTest, TheKeyTablesDefaultsAreTheDefaultsInForce)
{
    tilvane::host::SetConfigurationText("");
    auto defaultOf = [](const char* group, const char* key) {
        const config::KeyInfo* info = config::FindKey(group, key);
        return info != nullptr ? DefaultText(*info) : std::string("unknown");
    };
    const tilvane::content::StatementBudgets budgets = tilvane::content::ConfiguredStatementBudgets();
    EXPECT_EQ(defaultOf("budget", "statement-ms"), std::to_string(budgets.statementMs));
    EXPECT_EQ(defaultOf("budget", "value-bytes"), std::to_string(budgets.valueBytes));
    EXPECT_EQ(defaultOf("budget", "like-pattern-bytes"), std::to_string(budgets.likePatternBytes));
    EXPECT_EQ(defaultOf("budget", "heap-bytes"), std::to_string(budgets.heapBytes));
    const tilvane::host::LogBudgets logBudgets = tilvane::host::DefaultLogBudgets();
    EXPECT_EQ(defaultOf("log", "app-bytes"), std::to_string(logBudgets.appBytes));
    EXPECT_EQ(defaultOf("log", "service-bytes"), std::to_string(logBudgets.serviceBytes));
    EXPECT_EQ(defaultOf("log", "budget-interval-ms"), std::to_string(logBudgets.intervalMs));
    EXPECT_EQ(defaultOf("bus", "max-message-bytes"), std::to_string(tilvane::host::requests::MaxMessageBytes()));
    EXPECT_EQ(defaultOf("strict", "sections-per-package"), std::to_string(confinement_policy_max_sections_per_package()));
    EXPECT_EQ(defaultOf("strict", "tiles-per-package"), std::to_string(confinement_policy_max_tiles_per_package()));
    EXPECT_EQ(defaultOf("strict", "value-bytes"), std::to_string(confinement_policy_max_value_bytes()));
    EXPECT_EQ(defaultOf("strict", "where-bytes"), std::to_string(confinement_policy_max_where_bytes()));
    EXPECT_EQ(defaultOf("strict", "confinement"), confinement_policy_is_strict() ? "true" : "false");
}

}  // namespace
