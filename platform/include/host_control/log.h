/*
 * Test control API, log: the lines the platform log wrote, and its rate
 * limit's counters. Part of host_control.h (for tests only).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_LOG_H
#define TILVANE_PLATFORM_HOST_CONTROL_LOG_H

#include <cstdint>
#include <string>
#include <vector>

namespace tilvane {
namespace host {

struct LogLine {
    int priority;        /* a log_priority value */
    std::string tag;
    std::string message; /* the formatted text, without a trailing newline */
    int64_t timeUs;      /* Now() when the line was written */
};

/* While capture is on, every line that __dlog_print writes (whatever its
 * priority) is also kept in memory, in order. */
void StartLogCapture();
void StopLogCapture();
std::vector<LogLine> CapturedLog();
/* Only the messages, optionally of one tag. */
std::vector<std::string> CapturedMessages(const std::string& tag = std::string());
void ClearCapturedLog();

/* The log's rate limit (dlog.cpp): lines formatted, and lines that the limit
 * kept from standard error, since the last Reset(). */
struct LogRateCounters {
    int64_t formatted;
    int64_t suppressed;
};
LogRateCounters LogRateCountersNow();

}  // namespace host
}  // namespace tilvane

#endif
