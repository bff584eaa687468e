#include <TilvaneLog.h>
#include <dlog.h>
#include <gtest/gtest.h>

#include <ctime>

#include "StderrCapture.h"
#include "TestSupport.h"
#include "log/journal_format.h"
#include "log/log_settings.h"
#include <host_control.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using tilvane::test::Lines;
using tilvane::test::StderrCapture;

/* Splits "MM-DD HH:MM:SS.mmm P/TAG(PID): message" into its parts; false when
 * the line does not have that shape. */
struct ParsedLine {
    char priority = 0;
    std::string tag;
    long pid = 0;
    std::string message;
};

bool ParseLine(const std::string& line, ParsedLine& parsed)
{
    const std::string stamp = "NN-NN NN:NN:NN.NNN ";
    if (line.size() < stamp.size() + 2) {
        return false;
    }
    for (size_t i = 0; i < stamp.size(); ++i) {
        const bool digit = line[i] >= '0' && line[i] <= '9';
        if (stamp[i] == 'N' ? !digit : line[i] != stamp[i]) {
            return false;
        }
    }
    size_t pos = stamp.size();
    parsed.priority = line[pos];
    if (std::string("VDIWEF").find(parsed.priority) == std::string::npos || line[pos + 1] != '/') {
        return false;
    }
    pos += 2;
    const size_t open = line.find('(', pos);
    const size_t close = line.find("): ", pos);
    if (open == std::string::npos || close == std::string::npos || open >= close || open == pos) {
        return false;
    }
    parsed.tag = line.substr(pos, open - pos);
    const std::string pid = line.substr(open + 1, close - open - 1);
    if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    parsed.pid = std::stol(pid);
    parsed.message = line.substr(close + 3);
    return true;
}


class DlogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("TILVANE_LOG_LEVEL");
        tilvane::host::Reset();
    }
    void TearDown() override
    {
        unsetenv("TILVANE_LOG_LEVEL");
        tilvane::host::Reset();
    }

    /* Sets the minimum priority as a fresh process started with it would see it. */
    static void SetLevel(const char* level)
    {
        setenv("TILVANE_LOG_LEVEL", level, 1);
        tilvane::host::Reset();
    }
};

TEST_F(DlogTest, CaptureKeepsPriorityTagAndMessage)
{
    tilvane::host::StartLogCapture();
    const int64_t before = tilvane::host::Now();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "count=%d name=%s", 42, "tiles");
    dlog_print(DLOG_ERROR, "other", "failed: %s\n", "disk");
    const int64_t after = tilvane::host::Now();

    const auto lines = tilvane::host::CapturedLog();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, DLOG_INFO);
    EXPECT_EQ(lines[0].tag, "tilvane");
    EXPECT_EQ(lines[0].message, "count=42 name=tiles");
    EXPECT_GE(lines[0].timeUs, before);
    EXPECT_LE(lines[0].timeUs, after);
    EXPECT_EQ(lines[1].priority, DLOG_ERROR);
    EXPECT_EQ(lines[1].tag, "other");
    EXPECT_EQ(lines[1].message, "failed: disk"); /* trailing newline dropped */

    EXPECT_EQ(tilvane::host::CapturedMessages("other"), std::vector<std::string>{"failed: disk"});
    EXPECT_EQ(tilvane::host::CapturedMessages().size(), 2u);
}

TEST_F(DlogTest, CaptureOffKeepsNothing)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "before capture");
    tilvane::host::StartLogCapture();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "during capture");
    tilvane::host::StopLogCapture();
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "after capture");
    EXPECT_EQ(tilvane::host::CapturedMessages(), std::vector<std::string>{"during capture"});
    tilvane::host::ClearCapturedLog();
    EXPECT_TRUE(tilvane::host::CapturedLog().empty());
}

/* "MM-DD HH:MM" of the local time now. */
std::string LocalMinute()
{
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof text, "%m-%d %H:%M", &local);
    return text;
}

TEST_F(DlogTest, StderrLineShape)
{
    StderrCapture capture;
    const std::string before = LocalMinute();
    const int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "hello %s %d", "world", 7);
    const std::string after = LocalMinute();
    const std::string text = capture.Stop();
    /* The stamp is the local time of the line: month, day, hour and minute. */
    EXPECT_TRUE(text.compare(0, 11, before) == 0 || text.compare(0, 11, after) == 0) << text << " " << before;

    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
    ParsedLine parsed;
    ASSERT_TRUE(ParseLine(text.substr(0, text.size() - 1), parsed)) << text;
    EXPECT_EQ(parsed.priority, 'I');
    EXPECT_EQ(parsed.tag, "tilvane");
    EXPECT_EQ(parsed.pid, static_cast<long>(getpid()));
    EXPECT_EQ(parsed.message, "hello world 7");
    EXPECT_NE(text.find(" I/tilvane("), std::string::npos) << text;
    EXPECT_EQ(written, static_cast<int>(text.size()));
}

TEST_F(DlogTest, PriorityLetters)
{
    StderrCapture capture;
    const int priorities[] = {DLOG_VERBOSE, DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR, DLOG_FATAL};
    SetLevel("V");
    for (int prio : priorities) {
        __dlog_print(LOG_ID_MAIN, prio, "tag", "p%d", prio);
    }
    const auto lines = Lines(capture.Stop());
    ASSERT_EQ(lines.size(), 6u);
    const char letters[] = {'V', 'D', 'I', 'W', 'E', 'F'};
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_NE(lines[i].find(std::string(" ") + letters[i] + "/tag("), std::string::npos) << lines[i];
        EXPECT_NE(lines[i].find("): p" + std::to_string(priorities[i])), std::string::npos) << lines[i];
    }
}

TEST_F(DlogTest, ServiceLogMacroPrefix)
{
    tilvane::host::StartLogCapture();
    StderrCapture capture;
    LOGI("provider ready: %d", 3);
    const std::string text = capture.Stop();
    EXPECT_NE(text.find(" I/tilvane("), std::string::npos) << text;
    EXPECT_NE(text.find("): dlog_test.cpp: TestBody("), std::string::npos) << text;
    EXPECT_NE(text.find(") > provider ready: 3\n"), std::string::npos) << text;
    const auto messages = tilvane::host::CapturedMessages("tilvane");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].rfind("dlog_test.cpp: TestBody(", 0), 0u) << messages[0];
}

TEST_F(DlogTest, DefaultLevelWritesDebugButNotVerbose)
{
    StderrCapture capture;
    const int verbose = __dlog_print(LOG_ID_MAIN, DLOG_VERBOSE, "tag", "verbose line");
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "tag", "debug line");
    const auto lines = Lines(capture.Stop());
    EXPECT_EQ(verbose, 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("D/tag("), std::string::npos);
    EXPECT_NE(lines[0].find("debug line"), std::string::npos);
}

TEST_F(DlogTest, MinimumPriorityFiltersStderrButNotCapture)
{
    SetLevel("W");
    tilvane::host::StartLogCapture();
    StderrCapture capture;
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "tag", "debug line"), 0);
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "info line"), 0);
    EXPECT_GT(__dlog_print(LOG_ID_MAIN, DLOG_WARN, "tag", "warn line"), 0);
    EXPECT_GT(__dlog_print(LOG_ID_MAIN, DLOG_ERROR, "tag", "error line"), 0);
    const auto lines = Lines(capture.Stop());

    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("W/tag("), std::string::npos);
    EXPECT_NE(lines[0].find("warn line"), std::string::npos);
    EXPECT_NE(lines[1].find("error line"), std::string::npos);
    EXPECT_EQ(tilvane::host::CapturedMessages("tag"),
              (std::vector<std::string>{"debug line", "info line", "warn line", "error line"}));
}

TEST_F(DlogTest, TheConfigurationsLevelAppliesUnlessTheEnvironmentNamesOne)
{
    tilvane::host::LogSettings settings;
    settings.level = "W";
    tilvane::host::SetConfiguredLogSettings(settings);
    EXPECT_EQ(tilvane::host::CurrentLogLevelLetter(), 'W');
    {
        StderrCapture capture;
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "info line");
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, "tag", "warn line");
        const auto lines = Lines(capture.Stop());
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find("warn line"), std::string::npos);
    }
    setenv("TILVANE_LOG_LEVEL", "I", 1);
    tilvane::host::SetConfiguredLogSettings(settings);
    EXPECT_EQ(tilvane::host::CurrentLogLevelLetter(), 'I');
}

TEST_F(DlogTest, WhenStandardErrorIsTheJournalLinesCarryTheirPriorityAndNoTimeStamp)
{
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_INFO, "tilvane", "a line"), "<6>tilvane: a line\n");
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_DEBUG, "t", "d"), "<7>t: d\n");
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_VERBOSE, "t", "v"), "<7>t: v\n");
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_WARN, "t", "w"), "<4>t: w\n");
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_ERROR, "t", "e"), "<3>t: e\n");
    EXPECT_EQ(tilvane::host::JournalLine(DLOG_FATAL, "t", "f"), "<2>t: f\n");

    StderrCapture capture;
    struct stat info;
    ASSERT_EQ(fstat(STDERR_FILENO, &info), 0);
    const std::string stream = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    for (const std::string& value : {std::string("garbage"), std::to_string(info.st_dev) + ":1", stream}) {
        setenv("JOURNAL_STREAM", value.c_str(), 1);
        tilvane::host::Reset();
        EXPECT_EQ(tilvane::host::StandardErrorIsJournal(), value == stream) << value;
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, "tag", "warned");
    }
    unsetenv("JOURNAL_STREAM");
    tilvane::host::Reset();
    const auto lines = Lines(capture.Stop());
    ASSERT_EQ(lines.size(), 3u);
    ParsedLine parsed;
    EXPECT_TRUE(ParseLine(lines[0], parsed)) << lines[0];
    EXPECT_TRUE(ParseLine(lines[1], parsed)) << lines[1];
    EXPECT_EQ(lines[2], "<4>tag: warned");
}

TEST_F(DlogTest, LevelByNameAndNumber)
{
    struct Case {
        const char* level;
        int lowestWritten;
    };
    const Case cases[] = {{"error", DLOG_ERROR}, {"Info", DLOG_INFO}, {"6", DLOG_ERROR},
                          {"verbose", DLOG_VERBOSE}, {"e", DLOG_ERROR}, {"nonsense", DLOG_DEBUG}};
    for (const Case& c : cases) {
        SetLevel(c.level);
        StderrCapture capture;
        for (int prio = DLOG_VERBOSE; prio <= DLOG_FATAL; ++prio) {
            __dlog_print(LOG_ID_MAIN, prio, "tag", "p%d", prio);
        }
        const auto lines = Lines(capture.Stop());
        ASSERT_EQ(lines.size(), static_cast<size_t>(DLOG_FATAL - c.lowestWritten + 1)) << c.level;
        EXPECT_NE(lines[0].find("): p" + std::to_string(c.lowestWritten)), std::string::npos)
            << c.level << ": " << lines[0];
    }
}

TEST_F(DlogTest, NullTagOrFormatIsInvalid)
{
    EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, nullptr, "x"), DLOG_ERROR_INVALID_PARAMETER);
    const char* noFormat = nullptr;
    EXPECT_EQ(dlog_print(DLOG_INFO, "tag", noFormat), DLOG_ERROR_INVALID_PARAMETER);
    va_list unused{};
    EXPECT_EQ(__dlog_vprint(LOG_ID_MAIN, DLOG_INFO, "tag", nullptr, unused), DLOG_ERROR_INVALID_PARAMETER);
}

TEST_F(DlogTest, LongMessageIsWrittenWhole)
{
    const std::string longText(5000, 'x');
    tilvane::host::StartLogCapture();
    StderrCapture capture;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "[%s]", longText.c_str());
    const auto lines = Lines(capture.Stop());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("[" + longText + "]"), std::string::npos);
    EXPECT_EQ(tilvane::host::CapturedMessages(), std::vector<std::string>{"[" + longText + "]"});
}

TEST_F(DlogTest, ConcurrentLinesStayWhole)
{
    constexpr int kThreads = 4;
    constexpr int kLinesPerThread = 300;
    tilvane::host::StartLogCapture();
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLinesPerThread; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "thread %d line %d %s", t, i,
                             "padding-padding-padding-padding-padding");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = Lines(capture.Stop());
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLinesPerThread));
    std::vector<int> nextLine(kThreads, 0);
    for (const std::string& line : lines) {
        ParsedLine parsed;
        ASSERT_TRUE(ParseLine(line, parsed)) << line;
        ASSERT_EQ(parsed.tag, "tag");
        int thread = -1;
        int index = -1;
        char padding[64] = {};
        ASSERT_EQ(sscanf(parsed.message.c_str(), "thread %d line %d %63s", &thread, &index, padding), 3) << line;
        ASSERT_STREQ(padding, "padding-padding-padding-padding-padding") << line;
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
        /* Each thread's lines appear whole and in the order it wrote them. */
        ASSERT_EQ(index, nextLine[thread]++) << line;
    }
    EXPECT_EQ(tilvane::host::CapturedLog().size(), static_cast<size_t>(kThreads * kLinesPerThread));
}

/* Lines longer than the log's buffer on the stack are built on the heap:
 * they too leave in one write each (below the pipe's atomic size here). */
TEST_F(DlogTest, LongLinesOfTwoThreadsStayWhole)
{
    constexpr int kLinesPerThread = 200;
    /* The site's limit of bytes would stop these lines: off here. */
    setenv("TILVANE_LOG_RATE_BURST", "0", 1);
    tilvane::host::Reset();
    StderrCapture capture;
    std::vector<std::thread> threads;
    for (char letter : {'a', 'b'}) {
        threads.emplace_back([letter] {
            const std::string body(3000, letter);
            for (int i = 0; i < kLinesPerThread; ++i) {
                __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", "%c %d %s", letter, i, body.c_str());
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = Lines(capture.Stop());
    unsetenv("TILVANE_LOG_RATE_BURST");
    ASSERT_EQ(lines.size(), static_cast<size_t>(2 * kLinesPerThread));
    int next[2] = {0, 0};
    for (const std::string& line : lines) {
        ParsedLine parsed;
        ASSERT_TRUE(ParseLine(line, parsed)) << line.substr(0, 80);
        const char letter = parsed.message[0];
        ASSERT_TRUE(letter == 'a' || letter == 'b') << line.substr(0, 80);
        const std::string expected =
            std::string(1, letter) + " " + std::to_string(next[letter - 'a']++) + " " + std::string(3000, letter);
        ASSERT_EQ(parsed.message, expected) << line.substr(0, 80);
    }
}

}  // namespace
