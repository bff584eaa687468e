#include <gtest/gtest.h>
#include <host_control.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int64_t ElapsedUs(Clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - since).count();
}

class SleepTest : public ::testing::Test {
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override { tilvane::host::Reset(); }
};

TEST_F(SleepTest, VirtualUsleepRecordsAndReturnsAtOnce)
{
    tilvane::host::UseVirtualClock(true);
    const auto start = Clock::now();
    EXPECT_EQ(usleep(500000), 0);
    EXPECT_EQ(usleep(500000), 0);
    EXPECT_LT(ElapsedUs(start), 100000);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), (std::vector<int64_t>{500000, 500000}));
    EXPECT_EQ(tilvane::host::Now(), 1000000);
}

TEST_F(SleepTest, VirtualSleepRecordsSeconds)
{
    tilvane::host::UseVirtualClock(true);
    const auto start = Clock::now();
    EXPECT_EQ(sleep(3), 0u);
    EXPECT_LT(ElapsedUs(start), 100000);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>{3000000});
}

TEST_F(SleepTest, RealUsleepSleepsAndIsRecorded)
{
    const auto start = Clock::now();
    EXPECT_EQ(usleep(100000), 0);
    EXPECT_GE(ElapsedUs(start), 100000);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>{100000});
}

TEST_F(SleepTest, RealSleepSleeps)
{
    const auto start = Clock::now();
    EXPECT_EQ(sleep(1), 0u);
    EXPECT_GE(ElapsedUs(start), 1000000);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>{1000000});
}

void IgnoreSignal(int) {}

TEST_F(SleepTest, RealUsleepResumesAfterSignal)
{
    struct sigaction action = {};
    action.sa_handler = IgnoreSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction previous = {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);

    /* A signal 50 ms into a 200 ms sleep must not shorten it. */
    timer_t timer;
    struct sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGALRM;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    struct itimerspec when = {};
    when.it_value.tv_nsec = 50 * 1000 * 1000;
    ASSERT_EQ(timer_settime(timer, 0, &when, nullptr), 0);

    const auto start = Clock::now();
    EXPECT_EQ(usleep(200000), 0);
    EXPECT_GE(ElapsedUs(start), 200000);

    timer_delete(timer);
    sigaction(SIGALRM, &previous, nullptr);
}

TEST_F(SleepTest, ZeroDurationIsRecorded)
{
    tilvane::host::UseVirtualClock(true);
    EXPECT_EQ(usleep(0), 0);
    EXPECT_EQ(tilvane::host::RecordedSleeps(), std::vector<int64_t>{0});
}

}  // namespace
