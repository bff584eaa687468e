/*
 * What the platform knows of the service it runs is configuration: the
 * built-in defaults of data/service-defaults.conf, which any key of the
 * integrator's file replaces, and which every reader of the configuration
 * sees as if the file had set them.
 */
#include <gtest/gtest.h>
#include <host_control.h>

#include <fstream>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "config/platform_config.h"

namespace config = tilvane::host::config;
using tilvane::test::PlatformSandbox;

namespace {

/* The key-file text of data/service-defaults.conf as the tree has it. */
std::string DefaultsFile()
{
    std::ifstream in(std::string(TILVANE_DATA_DIR_FOR_UNITS) + "/service-defaults.conf");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

TEST(ServiceDefaults, TheServicesNamesAreTheBuiltInConfiguration)
{
    PlatformSandbox sandbox;
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n");
    const std::string file = DefaultsFile();
    ASSERT_NE(file.find("provider-id = content://com.quillon.px.tiles"), std::string::npos) << file;
    EXPECT_EQ(config::String("data-control", "provider-id", "none"), "content://com.quillon.px.tiles");
    EXPECT_EQ(config::StringList("data-control", "data-ids"),
              (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    EXPECT_EQ(config::String("service", "app-id", "none"), "com.quillon.px.tilvane");
    EXPECT_TRUE(config::Has("content", "lookup-indexes"));
    EXPECT_EQ(config::Default("data-control", "provider-id"), "content://com.quillon.px.tiles");
    EXPECT_EQ(config::Default("data-control", "nosuch"), "");
}

TEST(ServiceDefaults, TheIntegratorsKeysReplaceThemOneByOne)
{
    PlatformSandbox sandbox;
    tilvane::host::SetConfigurationText("[data-control]\nprovider-id = content://org.example.other\n"
                                        "[content]\nlookup-indexes =\n");
    EXPECT_EQ(config::String("data-control", "provider-id", "none"), "content://org.example.other");
    EXPECT_EQ(config::StringList("data-control", "data-ids"),
              (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    EXPECT_TRUE(config::StringList("content", "lookup-indexes").empty());
    EXPECT_EQ(config::Default("data-control", "provider-id"), "content://com.quillon.px.tiles");
}
