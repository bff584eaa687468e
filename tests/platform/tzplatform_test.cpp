#include <gtest/gtest.h>
#include <host_control.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <tzplatform_config.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool IsDirectory(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class TzplatformTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        unsetenv("TILVANE_PLATFORM_ROOT");
        char pattern[] = "/tmp/tilvane-tzplatform-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        root_ = pattern;
    }

    void TearDown() override
    {
        tilvane::host::Reset();
        unsetenv("TILVANE_PLATFORM_ROOT");
        if (!originalCwd_.empty()) {
            fs::current_path(originalCwd_);
        }
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }

    void ChangeToRoot()
    {
        originalCwd_ = fs::current_path().string();
        fs::current_path(root_);
    }

    std::string root_;
    std::string originalCwd_;
};

TEST_F(TzplatformTest, PathsUnderOverrideRootAreCreated)
{
    tilvane::host::SetPlatformRoot(root_);
    ASSERT_FALSE(IsDirectory(root_ + "/opt/dbspace"));

    const char* db = tzplatform_getenv(TZ_SYS_DB);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(std::string(db), root_ + "/opt/dbspace");
    EXPECT_TRUE(IsDirectory(db));

    const char* apps = tzplatform_getenv(TZ_USER_APP);
    ASSERT_NE(apps, nullptr);
    EXPECT_EQ(std::string(apps), root_ + "/opt/usr/apps");
    EXPECT_TRUE(IsDirectory(apps));
}

TEST_F(TzplatformTest, EnvironmentRoot)
{
    setenv("TILVANE_PLATFORM_ROOT", (root_ + "/from-env/").c_str(), 1);
    const char* db = tzplatform_getenv(TZ_SYS_DB);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(std::string(db), root_ + "/from-env/opt/dbspace");
    EXPECT_TRUE(IsDirectory(db));
}

TEST_F(TzplatformTest, RelativeEnvironmentRootIsMadeAbsolute)
{
    ChangeToRoot();
    const std::string cwd = fs::current_path().string();
    setenv("TILVANE_PLATFORM_ROOT", "relative/root", 1);
    const char* db = tzplatform_getenv(TZ_SYS_DB);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db[0], '/');
    EXPECT_EQ(std::string(db), cwd + "/relative/root/opt/dbspace");
    EXPECT_TRUE(IsDirectory(db));
}

TEST_F(TzplatformTest, DefaultRootIsUnderWorkingDirectory)
{
    ChangeToRoot();
    const std::string cwd = fs::current_path().string();
    const char* apps = tzplatform_getenv(TZ_USER_APP);
    ASSERT_NE(apps, nullptr);
    EXPECT_EQ(std::string(apps), cwd + "/tilvane-data/opt/usr/apps");
    EXPECT_TRUE(IsDirectory(apps));
}

TEST_F(TzplatformTest, OverrideWinsOverEnvironmentAndEmptyGoesBack)
{
    setenv("TILVANE_PLATFORM_ROOT", (root_ + "/env").c_str(), 1);
    tilvane::host::SetPlatformRoot(root_ + "/override");
    EXPECT_EQ(std::string(tzplatform_getenv(TZ_SYS_DB)), root_ + "/override/opt/dbspace");
    tilvane::host::SetPlatformRoot("");
    EXPECT_EQ(std::string(tzplatform_getenv(TZ_SYS_DB)), root_ + "/env/opt/dbspace");
}

TEST_F(TzplatformTest, ResetDropsOverride)
{
    setenv("TILVANE_PLATFORM_ROOT", (root_ + "/env").c_str(), 1);
    tilvane::host::SetPlatformRoot(root_ + "/override");
    tilvane::host::Reset();
    EXPECT_EQ(std::string(tzplatform_getenv(TZ_SYS_DB)), root_ + "/env/opt/dbspace");
}

TEST_F(TzplatformTest, ReturnedTextOutlivesRootChange)
{
    tilvane::host::SetPlatformRoot(root_ + "/first");
    const char* first = tzplatform_getenv(TZ_SYS_DB);
    tilvane::host::SetPlatformRoot(root_ + "/second");
    const char* second = tzplatform_getenv(TZ_SYS_DB);
    EXPECT_EQ(std::string(first), root_ + "/first/opt/dbspace");
    EXPECT_EQ(std::string(second), root_ + "/second/opt/dbspace");
    /* Asking again for a path already handed out gives the same text. */
    tilvane::host::SetPlatformRoot(root_ + "/first");
    EXPECT_EQ(tzplatform_getenv(TZ_SYS_DB), first);
}

TEST_F(TzplatformTest, UnknownVariableIsNull)
{
    tilvane::host::SetPlatformRoot(root_);
    EXPECT_EQ(tzplatform_getenv(static_cast<tzplatform_variable>(12345)), nullptr);
    EXPECT_EQ(tzplatform_getenv(static_cast<tzplatform_variable>(0)), nullptr);
}

}  // namespace
