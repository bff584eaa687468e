#include <gtest/gtest.h>

#include <vector>

#include <device_power.h>
#include <host_control.h>

#include "TestSupport.h"

using namespace tilvane::test;

namespace {

int RecordPowerOffCB(int type, void* userData)
{
    static_cast<std::vector<int>*>(userData)->push_back(type);
    return 0;
}

int OtherPowerOffCB(int type, void* userData)
{
    static_cast<std::vector<int>*>(userData)->push_back(type + 1000);
    return 0;
}

TEST(DevicePower, RaisedPowerOffReachesEverySubscriberUntilUnsubscribed)
{
    PlatformSandbox sandbox;
    std::vector<int> types;
    ASSERT_EQ(device_power_subscribe_poweroff(RecordPowerOffCB, &types), DEVICE_ERROR_NONE);
    EXPECT_EQ(device_power_subscribe_poweroff(RecordPowerOffCB, &types), DEVICE_ERROR_ALREADY_IN_PROGRESS);
    ASSERT_EQ(device_power_subscribe_poweroff(OtherPowerOffCB, &types), DEVICE_ERROR_NONE);
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 2);

    EXPECT_EQ(tilvane::host::RaisePowerOff(13), 2);
    EXPECT_EQ(types, (std::vector<int>{13, 1013}));

    EXPECT_EQ(device_power_unsubscribe_poweroff(OtherPowerOffCB), DEVICE_ERROR_NONE);
    EXPECT_EQ(device_power_unsubscribe_poweroff(OtherPowerOffCB), DEVICE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tilvane::host::RaisePowerOff(2), 1);
    EXPECT_EQ(types, (std::vector<int>{13, 1013, 2}));
    EXPECT_EQ(device_power_subscribe_poweroff(nullptr, nullptr), DEVICE_ERROR_INVALID_PARAMETER);
}

TEST(DevicePower, InjectedFailuresFailSubscribeAndUnsubscribe)
{
    PlatformSandbox sandbox;
    std::vector<int> types;
    tilvane::host::FailNextCalls("device_power_subscribe_poweroff", 1);
    EXPECT_EQ(device_power_subscribe_poweroff(RecordPowerOffCB, &types), DEVICE_ERROR_OPERATION_FAILED);
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 0);
    ASSERT_EQ(device_power_subscribe_poweroff(RecordPowerOffCB, &types), DEVICE_ERROR_NONE);
    tilvane::host::FailNextCalls("device_power_unsubscribe_poweroff", 1);
    EXPECT_EQ(device_power_unsubscribe_poweroff(RecordPowerOffCB), DEVICE_ERROR_OPERATION_FAILED);
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 1);
    tilvane::host::Reset();
    EXPECT_EQ(tilvane::host::PowerOffSubscriberCount(), 0);
}

TEST(DevicePower, APowerOffRaisedByAnotherProcessReachesTheSubscriber)
{
    PlatformSandbox sandbox;
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    ChildProcess child([](int /*readyFd*/) { return tilvane::host::RaisePowerOff(14) == 0 ? 0 : 1; });
    ASSERT_TRUE(child.Started());

    std::vector<int> types;
    ASSERT_EQ(device_power_subscribe_poweroff(RecordPowerOffCB, &types), DEVICE_ERROR_NONE);
    ASSERT_TRUE(child.Go());
    EXPECT_EQ(child.Wait(10000), 0);
    ASSERT_TRUE(IterateMainContextUntil([&] { return !types.empty(); }, 5000));
    EXPECT_EQ(types, (std::vector<int>{14}));
}

}  // namespace
