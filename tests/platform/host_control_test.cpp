#include <dlog.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

class HostControlTest : public ::testing::Test {
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override { tilvane::host::Reset(); }
};

TEST_F(HostControlTest, NothingFailsByDefault)
{
    EXPECT_FALSE(tilvane::host::ShouldFail("some_function"));
    EXPECT_FALSE(tilvane::host::ShouldFail(nullptr));
}

TEST_F(HostControlTest, FailNextCallsCountsDown)
{
    tilvane::host::FailNextCalls("f", 2);
    EXPECT_TRUE(tilvane::host::ShouldFail("f"));
    EXPECT_FALSE(tilvane::host::ShouldFail("g"));
    EXPECT_TRUE(tilvane::host::ShouldFail("f"));
    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
}

TEST_F(HostControlTest, FailForeverUntilCleared)
{
    tilvane::host::FailNextCalls("f", -1);
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(tilvane::host::ShouldFail("f")) << i;
    }
    tilvane::host::ClearFailures();
    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
}

TEST_F(HostControlTest, FailNextCallsReplacesEarlierCount)
{
    tilvane::host::FailNextCalls("f", 5);
    tilvane::host::FailNextCalls("f", 1);
    EXPECT_TRUE(tilvane::host::ShouldFail("f"));
    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
    tilvane::host::FailNextCalls("f", 3);
    tilvane::host::FailNextCalls("f", 0);
    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
}

TEST_F(HostControlTest, CallCountCountsFailedAndPassedCalls)
{
    EXPECT_EQ(tilvane::host::CallCount("f"), 0);
    tilvane::host::FailNextCalls("f", 1);
    tilvane::host::ShouldFail("f");
    tilvane::host::ShouldFail("f");
    tilvane::host::ShouldFail("f");
    tilvane::host::ShouldFail("g");
    EXPECT_EQ(tilvane::host::CallCount("f"), 3);
    EXPECT_EQ(tilvane::host::CallCount("g"), 1);
    /* ClearFailures keeps the counters. */
    tilvane::host::ClearFailures();
    EXPECT_EQ(tilvane::host::CallCount("f"), 3);
}

TEST_F(HostControlTest, ResetClearsEverything)
{
    tilvane::host::FailNextCalls("f", -1);
    tilvane::host::ShouldFail("f");
    tilvane::host::StartLogCapture();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "kept");
    tilvane::host::UseVirtualClock(true);
    usleep(10);
    tilvane::host::SetPlatformRoot("/nonexistent-root");

    tilvane::host::Reset();

    EXPECT_FALSE(tilvane::host::ShouldFail("f"));
    EXPECT_EQ(tilvane::host::CallCount("f"), 1); /* only the call just made */
    EXPECT_TRUE(tilvane::host::CapturedLog().empty());
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "not kept");
    EXPECT_TRUE(tilvane::host::CapturedLog().empty());
    EXPECT_FALSE(tilvane::host::VirtualClockInUse());
    EXPECT_TRUE(tilvane::host::RecordedSleeps().empty());
}

TEST_F(HostControlTest, ConcurrentShouldFailConsumesExactCount)
{
    constexpr int kFailures = 1000;
    tilvane::host::FailNextCalls("f", kFailures);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&failed] {
            for (int i = 0; i < 500; ++i) {
                if (tilvane::host::ShouldFail("f")) {
                    ++failed;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failed.load(), kFailures);
    EXPECT_EQ(tilvane::host::CallCount("f"), 8 * 500);
}

TEST_F(HostControlTest, NowIsMonotonicOnTheRealClock)
{
    const int64_t first = tilvane::host::Now();
    usleep(2000);
    const int64_t second = tilvane::host::Now();
    EXPECT_GE(second - first, 2000);
}

TEST_F(HostControlTest, VirtualClockMovesOnlyBySleeps)
{
    tilvane::host::UseVirtualClock(true);
    EXPECT_TRUE(tilvane::host::VirtualClockInUse());
    const int64_t start = tilvane::host::Now();
    EXPECT_EQ(start, 0);
    EXPECT_EQ(tilvane::host::Now(), start);
    usleep(250);
    sleep(2);
    EXPECT_EQ(tilvane::host::Now(), start + 250 + 2000000);
    tilvane::host::UseVirtualClock(false);
    EXPECT_FALSE(tilvane::host::VirtualClockInUse());
}

TEST_F(HostControlTest, CapturedLineTimeFollowsVirtualClock)
{
    tilvane::host::UseVirtualClock(true);
    tilvane::host::StartLogCapture();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "first");
    usleep(1500);
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "second");
    const auto lines = tilvane::host::CapturedLog();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].timeUs, 0);
    EXPECT_EQ(lines[1].timeUs, 1500);
}

}  // namespace
