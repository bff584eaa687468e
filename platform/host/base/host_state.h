/*
 * What the base room shares with the rooms above it: the platform's log tag,
 * the clock's record of sleeps and the termination signals. Not part of any
 * public interface: the system and the tests use host_control.h instead.
 */
#ifndef TILVANE_PLATFORM_HOST_STATE_H
#define TILVANE_PLATFORM_HOST_STATE_H

#include <cstdint>
#include <string>

namespace tilvane {
namespace host {

/* Tag under which the host platform writes its own log lines. */
constexpr const char* kPlatformLogTag = "tilvane-platform";

/* Called by sleep()/usleep(): records the duration and, on the virtual clock,
 * advances it. Returns true when the caller must not sleep for real. */
bool RecordSleepAndAdvance(int64_t durationUs);

/* Owned by termination.cpp: SIGTERM/SIGINT of a running service application.
 * The handlers are installed by service_app_main before its create callback;
 * the descriptor is readable while a termination is pending. Sleeps return at
 * once and retried registrations fail at once while it is pending. */
void InstallTerminationHandlers();
void RestoreTerminationHandlers();
bool TerminationPending();
int PendingTerminationSignal();
int TerminationFd();
void ClearTermination();

}  // namespace host
}  // namespace tilvane

#endif
