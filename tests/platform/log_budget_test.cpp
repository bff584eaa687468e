/*
 * The log's byte budgets: an application's lines (logged while a
 * LogSourceScope names it) stop at its budget for the interval, the
 * service's lines at the service's, each followed in a later interval by one
 * "N lines suppressed" line; one application's budget does not touch
 * another's, and capture keeps every line.
 */
#include <dlog.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <string>
#include <thread>

#include <host_control.h>

#include "StderrCapture.h"
#include "TestSupport.h"
#include "log/log_budget.h"

namespace {

using tilvane::host::LogBudgets;
using tilvane::host::LogSourceScope;
using tilvane::test::StderrCapture;

constexpr int kIntervalMs = 200;

/* Lines a budget of `budget` bytes lets through: until their bytes reach it,
 * so the last one passes it. Every line of LogHundredLines has the length of
 * the first one written that contains `who`. */
int LinesWithin(const std::string& text, const std::string& who, int budget)
{
    const size_t at = text.find(who + " line");
    const size_t start = text.rfind('\n', at) == std::string::npos ? 0 : text.rfind('\n', at) + 1;
    const int length = static_cast<int>(text.find('\n', at) + 1 - start);
    return (budget + length - 1) / length;
}

int CountOccurrences(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

/* 100 lines of about 100 bytes. */
void LogHundredLines(const char* who)
{
    for (int i = 0; i < 100; ++i) {
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "%s line %03d ..................................................",
                     who, i);
    }
}

class LogBudgetTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        /* The per-site limit off: only the budgets act. */
        setenv("TILVANE_LOG_RATE_BURST", "0", 1);
    }
    void TearDown() override
    {
        unsetenv("TILVANE_LOG_RATE_BURST");
        tilvane::host::Reset();
    }
};

TEST_F(LogBudgetTest, AnApplicationsLinesStopAtItsBudgetAndAnotherApplicationIsNotTouched)
{
    tilvane::host::SetLogBudgets(LogBudgets{2048, 0, kIntervalMs});
    StderrCapture capture;
    {
        LogSourceScope flooder("org.example.flooder");
        LogHundredLines("flooder");
    }
    {
        LogSourceScope other("org.example.other");
        LogHundredLines("other");
    }
    LogHundredLines("service");
    std::this_thread::sleep_for(std::chrono::milliseconds(kIntervalMs + 50));
    {
        LogSourceScope flooder("org.example.flooder");
        LogHundredLines("flooder");
    }
    const std::string text = capture.Stop();

    /* 2 KiB of lines in each interval, for each application. */
    const int perInterval = LinesWithin(text, "flooder", 2048);
    const int flooderLines = CountOccurrences(text, "flooder line");
    EXPECT_EQ(flooderLines, 2 * perInterval);
    EXPECT_EQ(CountOccurrences(text, "other line"), LinesWithin(text, "other", 2048));
    EXPECT_EQ(CountOccurrences(text, "service line"), 100);
    EXPECT_EQ(CountOccurrences(text, " lines suppressed (log budget of application org.example.flooder)"), 1);
    EXPECT_EQ(CountOccurrences(text, std::to_string(100 - flooderLines / 2) +
                                         " lines suppressed (log budget of application org.example.flooder)"),
              1)
        << text;
    EXPECT_EQ(CountOccurrences(text, "log budget of application org.example.other"), 0);
}

TEST_F(LogBudgetTest, TwoApplicationsLoggingOnTwoThreadsAtOnceAreEachHeldToTheirOwnBudget)
{
    /* An interval no run of this test outlasts: every line falls in the first. */
    tilvane::host::SetLogBudgets(LogBudgets{2048, 0, 600000});
    StderrCapture capture;
    std::thread alpha([] {
        LogSourceScope scope("org.example.alpha");
        LogHundredLines("alpha");
    });
    std::thread bravo([] {
        LogSourceScope scope("org.example.bravo");
        LogHundredLines("bravo");
    });
    alpha.join();
    bravo.join();
    LogHundredLines("service");
    const std::string text = capture.Stop();

    EXPECT_EQ(CountOccurrences(text, "alpha line"), LinesWithin(text, "alpha", 2048)) << text;
    EXPECT_EQ(CountOccurrences(text, "bravo line"), LinesWithin(text, "bravo", 2048)) << text;
    EXPECT_LT(CountOccurrences(text, "alpha line"), 100);
    EXPECT_EQ(CountOccurrences(text, "service line"), 100);
}

TEST_F(LogBudgetTest, EveryLineCountsAgainstTheServicesBudget)
{
    tilvane::host::SetLogBudgets(LogBudgets{0, 4096, kIntervalMs});
    tilvane::host::StartLogCapture();
    StderrCapture capture;
    {
        LogSourceScope app("org.example.app");
        LogHundredLines("app");
    }
    LogHundredLines("service");
    std::this_thread::sleep_for(std::chrono::milliseconds(kIntervalMs + 50));
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "next interval");
    const std::string text = capture.Stop();

    const int written = CountOccurrences(text, "app line") + CountOccurrences(text, "service line");
    EXPECT_EQ(written, LinesWithin(text, "app", 4096));
    EXPECT_EQ(CountOccurrences(text, "service line"), 0) << "the application's lines spent the service's budget";
    EXPECT_EQ(CountOccurrences(text, std::to_string(200 - written) + " lines suppressed (log budget of the service)"), 1)
        << text;
    EXPECT_EQ(CountOccurrences(text, "next interval"), 1);
    /* Capture keeps what the budget kept from standard error. */
    EXPECT_EQ(tilvane::test::CountLines("tilvane", "service line"), 100);
}

TEST_F(LogBudgetTest, ZeroTurnsABudgetOff)
{
    tilvane::host::SetLogBudgets(LogBudgets{0, 0, kIntervalMs});
    StderrCapture capture;
    for (int round = 0; round < 10; ++round) {
        LogSourceScope app("org.example.app");
        LogHundredLines("app");
    }
    const std::string text = capture.Stop();
    EXPECT_EQ(CountOccurrences(text, "app line"), 1000);
    EXPECT_EQ(CountOccurrences(text, "lines suppressed"), 0);
}

}  // namespace
