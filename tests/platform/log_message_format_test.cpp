/*
 * The log formats the conversions of the service's lines itself and leaves
 * every other format to vsnprintf: either way a message is byte for byte
 * what printf makes of it, on standard error and in capture.
 */
#include <dlog.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <string>
#include <vector>

#include <host_control.h>

#include "StderrCapture.h"
#include "log/message_format.h"

namespace {

using tilvane::test::StderrCapture;

template <typename... Args>
std::string Printf(const char* fmt, Args... args)
{
    const int size = snprintf(nullptr, 0, fmt, args...);
    std::string text(static_cast<size_t>(size) + 1, '\0');
    snprintf(&text[0], text.size(), fmt, args...);
    text.resize(static_cast<size_t>(size));
    return text;
}

/* Logs `fmt` with `args` and expects printf's text in capture and at the end
 * of the line on standard error; `direct` says which way it is formatted. */
template <typename... Args>
void ExpectLikePrintf(bool direct, const char* fmt, Args... args)
{
    SCOPED_TRACE(fmt);
    EXPECT_EQ(direct, tilvane::host::FormatsDirectly(fmt));
    const std::string expected = Printf(fmt, args...);
    tilvane::host::ClearCapturedLog();
    StderrCapture err;
    const int written = __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tag", fmt, args...);
    const std::string line = err.Stop();

    EXPECT_EQ(tilvane::host::CapturedMessages(), std::vector<std::string>{expected});
    const std::string tail = " I/tag(" + std::to_string(getpid()) + "): " + expected + "\n";
    ASSERT_GE(line.size(), tail.size());
    EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
    EXPECT_EQ(line.size(), tail.size() + 18) << "the time stamp is 18 bytes: " << line;
    EXPECT_EQ(written, static_cast<int>(line.size()));
}

class LogMessageFormatTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("TILVANE_LOG_LEVEL");
        tilvane::host::Reset();
        tilvane::host::StartLogCapture();
    }
    void TearDown() override { tilvane::host::Reset(); }
};

TEST_F(LogMessageFormatTest, TheServicesConversionsAreWrittenAsPrintfWritesThem)
{
    ExpectLikePrintf(true, "%s: %s(%d) > generated query = %s", "TilesProvider.cpp", "CheckCaller", 512,
                     "(tile_id = 'x') AND package_name = 'org.example.app'");
    ExpectLikePrintf(true, "plain text and a number %d", 1);
    ExpectLikePrintf(true, "%s", "");
    ExpectLikePrintf(true, "%d %i %d", INT_MIN, INT_MAX, 0);
    ExpectLikePrintf(true, "%ld %lu %li", LONG_MIN, ULONG_MAX, -1L);
    ExpectLikePrintf(true, "%lld %llu %lli", LLONG_MIN, ULLONG_MAX, 9LL);
    ExpectLikePrintf(true, "%zu %zd", SIZE_MAX, static_cast<ssize_t>(-1));
    ExpectLikePrintf(true, "%jd %ju %td", INTMAX_MIN, UINTMAX_MAX, static_cast<ptrdiff_t>(-5));
    ExpectLikePrintf(true, "%hhd %hhu %hd %hu", 300, 300, 70000, 70000);
    ExpectLikePrintf(true, "%u %x %X %lx %llX", 4000000000u, 0xdeadbeefu, 0xdeadbeefu, 0x1234abcdUL,
                     0xABCDEF0123456789ULL);
    ExpectLikePrintf(true, "[%c%c%c]", 'a', ' ', 'z');
    ExpectLikePrintf(true, "a%cb", 0);
    ExpectLikePrintf(true, "100%% of %s", "it");
}

TEST_F(LogMessageFormatTest, ANullStringIsWrittenAsPrintfWritesIt)
{
    /* Read at run time, so that the compiler does not warn of the null. */
    const char* volatile none = nullptr;
    const char* text = none;
    ExpectLikePrintf(true, "[%s] and [%s]", text, "some");
    EXPECT_EQ(tilvane::host::CapturedMessages(), std::vector<std::string>{"[(null)] and [some]"});
}

TEST_F(LogMessageFormatTest, AMessageLongerThanTheLineBufferIsWrittenWhole)
{
    const std::string longText(3000, 'y');
    ExpectLikePrintf(true, "<%s> %d", longText.c_str(), 3000);
}

TEST_F(LogMessageFormatTest, FlagsWidthsPrecisionsAndOtherConversionsGoToPrintf)
{
    ExpectLikePrintf(false, "%5d|%-5s|", 42, "ab");
    ExpectLikePrintf(false, "%.2f", 3.14159);
    ExpectLikePrintf(false, "%p", reinterpret_cast<void*>(0x1234));
    ExpectLikePrintf(false, "%08x", 0xbeefu);
    ExpectLikePrintf(false, "%.3s", "abcdef");
    /* Formatted in part before the width is met: printf starts over. */
    ExpectLikePrintf(false, "%s and %d then %5d", "direct", 1, 7);
    /* Longer than the first attempt of printf. */
    ExpectLikePrintf(false, "%-1500s|%d", "x", 2);
}

}  // namespace
