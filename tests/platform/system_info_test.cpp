#include <gtest/gtest.h>

#include <host_control.h>
#include <system_info.h>

#include "TestSupport.h"

using tilvane::test::ChildProcess;
using tilvane::test::PlatformSandbox;

namespace {

TEST(SystemInfo, GlazeModeIsFalseUntilSet)
{
    PlatformSandbox sandbox;
    bool value = true;
    ASSERT_EQ(system_info_get_value_bool(583, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_FALSE(value);
    ASSERT_TRUE(tilvane::host::SetSystemInfoBool(583, true));
    ASSERT_EQ(system_info_get_value_bool(583, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_TRUE(value);
    ASSERT_TRUE(tilvane::host::SetSystemInfoBool(583, false));
    ASSERT_EQ(system_info_get_value_bool(583, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_FALSE(value);
}

TEST(SystemInfo, UnknownKeysNullOutputAndInjectedFailuresAreErrors)
{
    PlatformSandbox sandbox;
    bool value = false;
    EXPECT_EQ(system_info_get_value_bool(12345, &value), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(system_info_get_value_bool(583, nullptr), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(tilvane::host::SetSystemInfoBool(583, true));
    tilvane::host::FailNextCalls("system_info_get_value_bool", 1);
    value = false;
    EXPECT_EQ(system_info_get_value_bool(583, &value), SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_FALSE(value);
}

TEST(SystemInfo, AValueSetByAnotherProcessIsRead)
{
    PlatformSandbox sandbox;
    ChildProcess child([](int) { return tilvane::host::SetSystemInfoBool(583, true) ? 0 : 1; });
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Go());
    ASSERT_EQ(child.Wait(10000), 0);
    bool value = false;
    ASSERT_EQ(system_info_get_value_bool(583, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_TRUE(value);
}

}  // namespace
