/*
 * Test control API, base: failure injection, call counts, the clock and
 * sleeps, and putting the whole platform back to a fresh process's state.
 * Part of host_control.h (for tests only: the system never calls it).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_BASE_H
#define TILVANE_PLATFORM_HOST_CONTROL_BASE_H

#include <cstdint>
#include <string>
#include <vector>

namespace tilvane {
namespace host {

/* ---- failure injection ---------------------------------------------------- */

/* The next `count` calls of the platform function `function` (its C or C++ name,
 * for example "register_insert_db_callback" or "bundle_del") fail with that
 * function's own error result. A count of -1 makes every call fail until
 * ClearFailures(). */
void FailNextCalls(const std::string& function, int count);
/* The same after letting `passes` calls of `function` succeed first. */
void FailCallsAfter(const std::string& function, int passes, int count);
void ClearFailures();
/* Used by the platform functions themselves: true when this call must fail. */
bool ShouldFail(const char* function);
/* How many calls of `function` have been seen since the last Reset(),
 * failed or not. Counted only for functions that consult ShouldFail. */
int CallCount(const std::string& function);

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

/* ---- everything ---------------------------------------------------------- */

/* Clears failures, counters, captured lines, recorded sleeps, registered app
 * event handlers and the platform root override, turns the virtual clock and
 * log capture off, and makes the log read TILVANE_LOG_LEVEL again. It also
 * closes the message-port bus connection, forgets local ports, recorded sends
 * and the own application id override, and forgets key watchers and power-off
 * subscribers (closing the notification bus connection), and reads the
 * integrator's configuration file again on next use; stored keys stay.
 * Each room of the platform puts back its own part (base/reset_hooks.h). */
void Reset();

}  // namespace host
}  // namespace tilvane

#endif
