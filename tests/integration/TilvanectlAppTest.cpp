/*
 * tilvanectl app: installs the example manifests into the registry of a
 * temporary platform root, lists and removes them, and refuses malformed
 * manifests without writing anything.
 */
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <app_info.h>
#include <host_control.h>

#include "TestSupport.h"

using tilvane::test::TempDir;
using tilvane::test::WriteFile;

namespace {

struct Outcome
{
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class TilvanectlAppTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
    }
    void TearDown() override { tilvane::host::Reset(); }

    Outcome Run(const std::vector<std::string>& args)
    {
        const std::string outPath = m_scratch.File("out.txt");
        const std::string errPath = m_scratch.File("err.txt");
        pid_t child = fork();
        if (child == 0) {
            if (freopen(outPath.c_str(), "w", stdout) == nullptr || freopen(errPath.c_str(), "w", stderr) == nullptr) {
                _exit(126);
            }
            setenv("TILVANE_PLATFORM_ROOT", m_root.Path().c_str(), 1);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(TILVANECTL_BINARY));
            for (const std::string& arg : args) {
                argv.push_back(const_cast<char*>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(TILVANECTL_BINARY, argv.data());
            _exit(127);
        }
        Outcome outcome;
        int status = 0;
        if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
            outcome.exitCode = WEXITSTATUS(status);
        }
        outcome.out = ReadAll(outPath);
        outcome.err = ReadAll(errPath);
        return outcome;
    }

    static std::string Example(const std::string& name) { return std::string(TILVANE_EXAMPLES_DIR) + "/apps/" + name; }

    tilvane::test::DevelopmentRoot m_root;
    TempDir m_scratch;
};

TEST_F(TilvanectlAppTest, InstallExampleThenListShowsItsAppsAndMetadata)
{
    Outcome install = Run({"app", "install", Example("launcher.manifest")});
    ASSERT_EQ(install.exitCode, 0) << install.err;
    EXPECT_NE(install.out.find("installed org.example.videos"), std::string::npos) << install.out;

    Outcome list = Run({"app", "list"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    EXPECT_EQ(list.out,
              "package org.example.videos\n"
              "  webapp VideoStore0042\n"
              "  app org.example.videos.main\n"
              "    metadata http://developer.quillon.com/tv/metadata/use.preview = true\n");

    /* The platform's own reading of the registry agrees. */
    std::vector<tilvane::host::RegisteredPackage> packages = tilvane::host::ListPackages();
    ASSERT_EQ(packages.size(), 1u);
    ASSERT_EQ(packages[0].applications.size(), 1u);
    EXPECT_EQ(packages[0].applications[0].metadata,
              (std::vector<std::pair<std::string, std::string>>{
                  {"http://developer.quillon.com/tv/metadata/use.preview", "true"}}));
}

TEST_F(TilvanectlAppTest, EveryExampleInstalls)
{
    for (const char* name : {"news.manifest", "weather.manifest", "launcher.manifest", "privileges.manifest"}) {
        Outcome install = Run({"app", "install", Example(name)});
        EXPECT_EQ(install.exitCode, 0) << name << ": " << install.err;
    }
    std::vector<tilvane::host::RegisteredPackage> packages = tilvane::host::ListPackages();
    ASSERT_EQ(packages.size(), 4u);
    EXPECT_EQ(packages[0].packageId, "org.example.news");
    EXPECT_EQ(packages[0].webAppId, "NewsStore0001");
    EXPECT_EQ(packages[1].applications.size(), 2u);
    EXPECT_EQ(packages[3].packageId, "org.example.privileges");
    EXPECT_EQ(packages[3].applications.size(), 6u);

    Outcome list = Run({"app", "list"});
    EXPECT_NE(list.out.find("  app org.example.privileges.writeinternal\n"
                            "    metadata accelerator_write_permission = "
                            "com.quillon.px.permission.WRITE_TILES_INTERNAL\n"),
              std::string::npos)
        << list.out;
}

TEST_F(TilvanectlAppTest, MalformedManifestIsRefusedNamingTheLineAndNothingIsWritten)
{
    ASSERT_EQ(Run({"app", "install", Example("news.manifest")}).exitCode, 0);
    const std::string before = Run({"app", "list"}).out;

    struct Case {
        std::string text;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"# header\npackage = org.example.bad\napp = org.example.bad.main\nmetadata only-a-key-no-equals\n"
         "frobnicate\n",
         ":4: expected 'NAME = VALUE'"},
        {"package = org.example.bad\n\nmetadata = k v\napp = a\n", ":3: 'metadata' before any 'app' line"},
        {"package = org.example.bad\napp = a\ncolour = blue\n", ":3: unknown name 'colour'"},
        {"package = org.example.bad\npackage = org.example.other\n", ":2: 'package' is given a second time"},
        {"package = org.example.bad\napp = a\napp = a\n", ":3: application 'a' is given a second time"},
        {"package = org.example.bad\napp = a\nmetadata = k 1\nmetadata = k 2\n", ":4: metadata key 'k'"},
        {"package = org example bad\n", ":1: 'package' needs one package id"},
        {"app = a\n# no package\n", ":2: no 'package' line"},
        {"package = org.example.bad\n", ":1: no 'app' line"},
    };
    for (const Case& c : cases) {
        const std::string path = m_scratch.File("manifest.txt");
        WriteFile(path, c.text);
        Outcome install = Run({"app", "install", path});
        EXPECT_EQ(install.exitCode, 1) << c.text;
        EXPECT_NE(install.err.find(path + c.message), std::string::npos) << install.err;
        EXPECT_NE(install.err.find("nothing was installed"), std::string::npos) << install.err;
    }
    /* The first mistake is reported: line 4 of the first case, not line 5. */
    WriteFile(m_scratch.File("manifest.txt"), cases[0].text);
    EXPECT_EQ(Run({"app", "install", m_scratch.File("manifest.txt")}).err.find("manifest.txt:5: "),
              std::string::npos);

    EXPECT_EQ(Run({"app", "list"}).out, before);
    app_info_h info = nullptr;
    EXPECT_EQ(app_info_create("org.example.bad.main", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
}

TEST_F(TilvanectlAppTest, ApplicationOfAnotherPackageIsRefused)
{
    ASSERT_EQ(Run({"app", "install", Example("news.manifest")}).exitCode, 0);
    const std::string path = m_scratch.File("thief.txt");
    WriteFile(path, "package = org.example.thief\napp = org.example.news.main\n");
    Outcome install = Run({"app", "install", path});
    EXPECT_EQ(install.exitCode, 1);
    EXPECT_NE(install.err.find("belongs to the package 'org.example.news'"), std::string::npos) << install.err;
    EXPECT_EQ(tilvane::host::ListPackages().size(), 1u);
}

TEST_F(TilvanectlAppTest, RemoveWorksAndUnknownPackageFails)
{
    ASSERT_EQ(Run({"app", "install", Example("news.manifest")}).exitCode, 0);
    ASSERT_EQ(Run({"app", "install", Example("weather.manifest")}).exitCode, 0);
    Outcome remove = Run({"app", "remove", "org.example.news"});
    EXPECT_EQ(remove.exitCode, 0) << remove.err;
    EXPECT_EQ(remove.out, "removed org.example.news\n");
    Outcome list = Run({"app", "list"});
    EXPECT_EQ(list.out.find("org.example.news"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("package org.example.weather"), std::string::npos) << list.out;

    Outcome again = Run({"app", "remove", "org.example.news"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_NE(again.err.find("no package 'org.example.news' is installed"), std::string::npos) << again.err;

    ASSERT_EQ(Run({"app", "remove", "org.example.weather"}).exitCode, 0);
    EXPECT_EQ(Run({"app", "list"}).out, "no packages installed\n");
}

TEST_F(TilvanectlAppTest, WrongCommandLinesAreUsageErrors)
{
    EXPECT_EQ(Run({"app"}).exitCode, 2);
    EXPECT_EQ(Run({"app", "install"}).exitCode, 2);
    EXPECT_EQ(Run({"app", "remove"}).exitCode, 2);
    EXPECT_EQ(Run({"app", "list", "extra"}).exitCode, 2);
    EXPECT_EQ(Run({"app", "frobnicate"}).exitCode, 2);
    Outcome missing = Run({"app", "install", m_scratch.File("absent.txt")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("absent.txt: cannot be read"), std::string::npos) << missing.err;
    EXPECT_EQ(Run({"app", "--help"}).exitCode, 0);
}

}  // namespace
