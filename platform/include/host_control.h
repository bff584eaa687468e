/*
 * Control API of the host platform, for tests only: the system never calls it.
 *
 * It lets a test make platform calls fail on purpose, read the lines that the
 * platform log wrote, replace real sleeping by a recorded virtual clock, and
 * raise application events. Everything here is process-wide; Reset() puts it
 * back to the state of a fresh process.
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_H
#define TILVANE_PLATFORM_HOST_CONTROL_H

#include <cstdint>
#include <string>
#include <vector>

#include "service_app.h"

namespace tilvane {
namespace host {

/* ---- failure injection ---------------------------------------------------- */

/* The next `count` calls of the platform function `function` (its C or C++ name,
 * for example "register_insert_db_callback" or "bundle_del") fail with that
 * function's own error result. A count of -1 makes every call fail until
 * ClearFailures(). */
void FailNextCalls(const std::string& function, int count);
void ClearFailures();
/* Used by the platform functions themselves: true when this call must fail. */
bool ShouldFail(const char* function);
/* How many calls of `function` have been seen since the last Reset(),
 * failed or not. Counted only for functions that consult ShouldFail. */
int CallCount(const std::string& function);

/* ---- log capture --------------------------------------------------------- */

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

/* ---- time -------------------------------------------------------------- */

/* Monotonic microseconds; on the virtual clock, the sum of the sleeps recorded. */
int64_t Now();

/* With the virtual clock on, sleep() and usleep() return at once, add their
 * duration to the clock and record it. Off (the default), they sleep for real. */
void UseVirtualClock(bool on);
bool VirtualClockInUse();
/* Durations in microseconds of the sleeps requested since the last Reset(),
 * real or virtual. */
std::vector<int64_t> RecordedSleeps();

/* ---- service application ------------------------------------------------ */

/* The event types of the handlers registered with service_app_add_event_handler
 * (and not removed), in registration order. */
std::vector<app_event_type_e> RegisteredAppEventTypes();
/* Calls every handler registered for `type`; returns how many were called. */
int RaiseAppEvent(app_event_type_e type);
/* Ends service_app_main's loop as SIGTERM would, from any thread. */
void RequestTermination();

/* ---- paths ---------------------------------------------------------------- */

/* Makes tzplatform_getenv resolve under `root` instead of TILVANE_PLATFORM_ROOT
 * or the default; an empty root goes back to those. */
void SetPlatformRoot(const std::string& root);

/* ---- everything ---------------------------------------------------------- */

/* Clears failures, counters, captured lines, recorded sleeps, registered app
 * event handlers and the platform root override, turns the virtual clock and
 * log capture off, and makes the log read TILVANE_LOG_LEVEL again. */
void Reset();

}  // namespace host
}  // namespace tilvane

#endif
