#include <gtest/gtest.h>

#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>

#include "config/config_keys.h"
#include "config/platform_config.h"
#include "confinement_policy.h"
#include "content/statement_budget.h"
#include "log/log_budget.h"
#include "log/log_capture.h"
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

/* Every key the platform reads is read through the table, so a module's
 * default is the table's and what the file sets is taken. */
TEST_F(PlatformConfigTest, SettingsReadTheTablesDefaultUnlessTheFileSetsAUsableValue)
{
    tilvane::host::SetConfigurationText("[request-socket]\nmax-connections = 10\nunsent-bytes = many\n"
                                        "[bus]\nreconnect-ms = 0\n[strict]\nconfinement = true\n");
    EXPECT_EQ(config::IntegerSetting("request-socket", "max-connections"), 10);
    EXPECT_EQ(config::IntegerSetting("request-socket", "unsent-bytes"), 4194304);
    EXPECT_EQ(config::IntegerSetting("request-socket", "idle-close-ms"), 60000);
    EXPECT_EQ(config::IntegerSetting("bus", "reconnect-ms", 1), 10000);
    EXPECT_EQ(config::IntegerSetting("bus", "reconnect-ms"), 0);
    EXPECT_TRUE(config::BoolSetting("strict", "confinement"));
    EXPECT_TRUE(config::BoolSetting("request-socket", "enabled"));
    EXPECT_EQ(config::StringSetting("identity", "mode"), "verified");
    EXPECT_EQ(config::StringSetting("service", "app-id"), config::Default("service", "app-id"));
}

/* Settings are kept between reads: a change of the configuration is still
 * seen by the next read on the same thread, and a name passed from a buffer
 * that later holds another name reads that other key. */
TEST_F(PlatformConfigTest, AKeptSettingFollowsTheConfigurationAndTheNameItIsAskedBy)
{
    tilvane::host::SetConfigurationText("[request-socket]\nmax-connections = 10\nenabled = false\n");
    EXPECT_EQ(config::IntegerSetting("request-socket", "max-connections"), 10);
    EXPECT_FALSE(config::BoolSetting("request-socket", "enabled"));
    EXPECT_EQ(config::IntegerSetting("request-socket", "max-connections"), 10);

    tilvane::host::SetConfigurationText("[request-socket]\nmax-connections = 3\n");
    EXPECT_EQ(config::IntegerSetting("request-socket", "max-connections"), 3);
    EXPECT_TRUE(config::BoolSetting("request-socket", "enabled"));

    char key[32];
    std::snprintf(key, sizeof key, "%s", "max-connections");
    EXPECT_EQ(config::IntegerSetting("request-socket", key), 3);
    std::snprintf(key, sizeof key, "%s", "idle-close-ms");
    EXPECT_EQ(config::IntegerSetting("request-socket", key), 60000);
    /* The same key with another floor is read on its own. */
    tilvane::host::SetConfigurationText("[bus]\nreconnect-ms = 0\n");
    EXPECT_EQ(config::IntegerSetting("bus", "reconnect-ms"), 0);
    EXPECT_EQ(config::IntegerSetting("bus", "reconnect-ms", 1), 10000);
}

TEST_F(PlatformConfigTest, ASettingThatIsNotInTheTableReadsAsNothingAndSaysSo)
{
    tilvane::host::SetConfigurationText("");
    tilvane::host::StartLogCapture();
    EXPECT_EQ(config::IntegerSetting("request-socket", "max-conections"), 0);
    EXPECT_FALSE(config::BoolSetting("bus", "enabled"));
    size_t lines = 0;
    for (const auto& line : tilvane::host::CapturedLog()) {
        lines += line.priority == DLOG_ERROR &&
                 (line.message == "configuration key [request-socket] max-conections is read but not in the table of keys" ||
                  line.message == "configuration key [bus] enabled is read but not in the table of keys");
    }
    tilvane::host::StopLogCapture();
    EXPECT_EQ(lines, 2u);
}

std::set<std::string> TableKeys()
{
    std::set<std::string> known;
    for (const config::KeyInfo& info : config::KnownKeys()) {
        known.insert(std::string(info.group) + " " + info.key);
    }
    return known;
}

/* "group key" of every row of docs/configuration.md's table of keys. */
std::set<std::string> KeysOfTheGuide()
{
    std::ifstream doc(TILVANE_CONFIGURATION_DOC);
    EXPECT_TRUE(doc.good());
    const std::regex row(R"(^\| `([a-z-]+)` \| ([^|]+) \|)");
    const std::regex name(R"(`([a-z*-]+)`)");
    std::set<std::string> documented;
    for (std::string line; std::getline(doc, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, row)) {
            continue;
        }
        const std::string group = match[1];
        const std::string keys = match[2];
        if (group == "identity-users") {
            documented.insert(group + " *");
            continue;
        }
        for (auto it = std::sregex_iterator(keys.begin(), keys.end(), name); it != std::sregex_iterator(); ++it) {
            documented.insert(group + " " + (*it)[1].str());
        }
    }
    return documented;
}

/* "group key" of every ".TP" entry under a ".SS [group]" of tilvane.conf(5):
 * the ".B" or ".BR" line after it names one key or several. */
std::set<std::string> KeysOfTheManualPage()
{
    std::ifstream page(TILVANE_CONFIGURATION_MAN);
    EXPECT_TRUE(page.good());
    const std::regex section(R"(^\.SS \[(.+)\])");
    const std::regex name(R"(([a-z][a-z\\-]*))");
    std::set<std::string> documented;
    std::string group;
    bool entry = false;
    for (std::string line; std::getline(page, line);) {
        line = std::regex_replace(line, std::regex(R"(\\-)"), "-");
        std::smatch match;
        if (std::regex_search(line, match, section)) {
            group = match[1];
        } else if (line.rfind(".SH", 0) == 0) {
            group.clear();
        } else if (entry && !group.empty() && line.rfind(".I ", 0) == 0) {
            documented.insert(group + " *");
        } else if (entry && !group.empty() && (line.rfind(".B ", 0) == 0 || line.rfind(".BR ", 0) == 0)) {
            const std::string keys = line.substr(line.find(' ') + 1);
            for (auto it = std::sregex_iterator(keys.begin(), keys.end(), name); it != std::sregex_iterator(); ++it) {
                documented.insert(group + " " + (*it)[1].str());
            }
        }
        entry = line == ".TP";
    }
    return documented;
}

/* The keys the guide and the manual page describe are the keys of the table:
 * a key the platform reads but the table lacks would be reported at start as
 * unknown and ignored, and an undocumented one is unknown to the integrator. */
TEST_F(PlatformConfigTest, TheDocumentedKeysAreTheKeysOfTheTable)
{
    EXPECT_EQ(KeysOfTheGuide(), TableKeys());
    EXPECT_EQ(KeysOfTheManualPage(), TableKeys());
}

}  // namespace
