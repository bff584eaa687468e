/*
 * The log's rate limit: per call site (format string), a burst of lines per
 * interval reaches standard error, then one line says how many were
 * suppressed; suppressed lines are not formatted, and capture keeps them all.
 */
#include <dlog.h>
#include <gtest/gtest.h>

#include "StderrCapture.h"
#include <host_control.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using tilvane::test::StderrCapture;

int CountOccurrences(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

int CountLines(const std::string& text)
{
    return CountOccurrences(text, "\n");
}

/* Two call sites of their own. */
void LogFromSiteA(int i)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "site A line %d", i);
}

void LogFromSiteB(int i)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "site B line %d", i);
}

class LogRateLimitTest : public ::testing::Test {
protected:
    void SetUp() override { Configure("5", "300"); }
    void TearDown() override
    {
        unsetenv("TILVANE_LOG_RATE_BURST");
        unsetenv("TILVANE_LOG_RATE_INTERVAL_MS");
        unsetenv("TILVANE_LOG_RATE_BYTES");
        tilvane::host::Reset();
    }

    static void Configure(const char* burst, const char* intervalMs)
    {
        setenv("TILVANE_LOG_RATE_BURST", burst, 1);
        setenv("TILVANE_LOG_RATE_INTERVAL_MS", intervalMs, 1);
        unsetenv("TILVANE_LOG_LEVEL");
        tilvane::host::Reset();
    }
};

TEST_F(LogRateLimitTest, ABurstPerSiteIsWrittenAndTheRestIsNeitherWrittenNorFormatted)
{
    StderrCapture err;
    for (int i = 0; i < 20; ++i) {
        LogFromSiteA(i);
    }
    for (int i = 0; i < 3; ++i) {
        LogFromSiteB(i);
    }
    const std::string text = err.Stop();

    EXPECT_EQ(CountOccurrences(text, "site A line"), 5) << text;
    EXPECT_NE(text.find("site A line 4\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("site A line 5\n"), std::string::npos) << text;
    /* Another call site has a budget of its own. */
    EXPECT_EQ(CountOccurrences(text, "site B line"), 3) << text;
    EXPECT_EQ(CountLines(text), 8) << text;

    const tilvane::host::LogRateCounters counters = tilvane::host::LogRateCountersNow();
    EXPECT_EQ(counters.suppressed, 15);
    /* Only the lines written were formatted. */
    EXPECT_EQ(counters.formatted, 8);
}

TEST_F(LogRateLimitTest, ASiteSharedByFourThreadsWritesItsBurstOnceAndCountsEveryOtherLine)
{
    Configure("50", "600000");
    StderrCapture err;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 100; ++i) {
                LogFromSiteA(i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::string text = err.Stop();

    EXPECT_EQ(CountOccurrences(text, "site A line"), 50) << text;
    EXPECT_EQ(CountLines(text), 50) << text;
    const tilvane::host::LogRateCounters counters = tilvane::host::LogRateCountersNow();
    EXPECT_EQ(counters.suppressed, 350);
    EXPECT_EQ(counters.formatted, 50);
}

TEST_F(LogRateLimitTest, TheFirstLineOfALaterIntervalSaysHowManyWereSuppressed)
{
    StderrCapture err;
    for (int i = 0; i < 12; ++i) {
        LogFromSiteA(i);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    LogFromSiteA(100);
    const std::string text = err.Stop();

    const size_t notice = text.find("W/tilvane-platform(");
    ASSERT_NE(notice, std::string::npos) << text;
    EXPECT_NE(text.find("): 7 lines suppressed (\"site A line %d\")\n", notice), std::string::npos) << text;
    const size_t later = text.find("site A line 100\n");
    ASSERT_NE(later, std::string::npos) << text;
    EXPECT_LT(notice, later);
    EXPECT_EQ(CountOccurrences(text, "lines suppressed"), 1) << text;
    EXPECT_EQ(CountOccurrences(text, "site A line"), 6 + 1) << text; /* 5 + 1 written, + the notice names it */
}

TEST_F(LogRateLimitTest, CaptureKeepsEveryLineWhileStandardErrorIsLimited)
{
    tilvane::host::StartLogCapture();
    StderrCapture err;
    for (int i = 0; i < 20; ++i) {
        LogFromSiteA(i);
    }
    const std::string text = err.Stop();

    EXPECT_EQ(CountOccurrences(text, "site A line"), 5) << text;
    const std::vector<std::string> captured = tilvane::host::CapturedMessages("tilvane");
    ASSERT_EQ(captured.size(), 20u);
    EXPECT_EQ(captured[19], "site A line 19");
    EXPECT_EQ(tilvane::host::LogRateCountersNow().suppressed, 15);
}

/* A site of long lines: a filter logged with the text so far. */
void LogLongLine(const std::string& text)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "long line %s", text.c_str());
}

TEST_F(LogRateLimitTest, ASiteOfLongLinesIsHeldToItsBytesAsWellAsItsLines)
{
    setenv("TILVANE_LOG_RATE_BYTES", "3000", 1);
    Configure("100", "300");
    StderrCapture err;
    for (int i = 0; i < 10; ++i) {
        LogLongLine(std::string(1000, static_cast<char>('a' + i)));
    }
    LogFromSiteA(0);
    const std::string text = err.Stop();

    /* 0, 1,010 and 2,020 bytes written before each of the first three lines;
     * the fourth would start past the 3,000 bytes of the site's budget. */
    EXPECT_EQ(CountOccurrences(text, "long line "), 3) << text;
    EXPECT_NE(text.find("long line " + std::string(1000, 'c') + "\n"), std::string::npos) << text;
    EXPECT_EQ(text.find(std::string(1000, 'd')), std::string::npos) << text;
    /* Other sites keep their own budget. */
    EXPECT_EQ(CountOccurrences(text, "site A line 0"), 1) << text;
    const tilvane::host::LogRateCounters counters = tilvane::host::LogRateCountersNow();
    EXPECT_EQ(counters.suppressed, 7);
    EXPECT_EQ(counters.formatted, 4);
}

TEST_F(LogRateLimitTest, ABurstOfZeroTurnsTheLimitOff)
{
    Configure("0", "300");
    StderrCapture err;
    for (int i = 0; i < 50; ++i) {
        LogFromSiteA(i);
    }
    const std::string text = err.Stop();
    EXPECT_EQ(CountOccurrences(text, "site A line"), 50);
    EXPECT_EQ(tilvane::host::LogRateCountersNow().suppressed, 0);
}

TEST_F(LogRateLimitTest, LinesBelowTheMinimumPriorityDoNotUseTheBudget)
{
    setenv("TILVANE_LOG_LEVEL", "I", 1);
    tilvane::host::Reset();
    StderrCapture err;
    for (int i = 0; i < 10; ++i) {
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "tilvane", "hidden %d", i);
    }
    const std::string text = err.Stop();
    unsetenv("TILVANE_LOG_LEVEL");
    EXPECT_EQ(text, "");
    const tilvane::host::LogRateCounters counters = tilvane::host::LogRateCountersNow();
    EXPECT_EQ(counters.formatted, 0);
    EXPECT_EQ(counters.suppressed, 0);
}

}  // namespace
