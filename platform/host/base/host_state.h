/*
 * Internal hooks shared by the host platform's source files. Not part of any
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

/* True while log capture is on; read without a lock. */
bool LogCaptureOn();
/* Keeps a formatted log line when capture is on; cheap when it is off. */
void CaptureLogLine(int priority, const char* tag, const std::string& message);

/* Called by sleep()/usleep(): records the duration and, on the virtual clock,
 * advances it. Returns true when the caller must not sleep for real. */
bool RecordSleepAndAdvance(int64_t durationUs);

/* The root set by SetPlatformRoot, empty when none is set. */
std::string PlatformRootOverride();

/* Owned by tzplatform.cpp: the absolute platform root (SetPlatformRoot's, else
 * TILVANE_PLATFORM_ROOT's, else <cwd>/tilvane-data). */
std::string PlatformRootDirectory();

/* Owned by dlog.cpp: forget the minimum priority so that the next line reads
 * TILVANE_LOG_LEVEL again. */
void ForgetLogLevel();

/* Owned by service_app.cpp: drop every registered event handler. */
void ClearAppEventHandlers();

/* Owned by message_port.cpp: close the bus connection, forget local ports,
 * recorded sends and the own application id override. */
void ResetMessagePorts();

/* Owned by request_glue.cpp: forget the data-control callbacks, requests in
 * flight and the bus names the request interfaces own. */
void ResetRequestInterfaces();

/* Owned by vconf.cpp, device_power.cpp and signal_bus.cpp: drop key watchers
 * and power-off subscribers, close the notification bus connection. */
void ForgetKeyWatchers();
void ForgetPowerOffSubscribers();
void CloseSignalBus();

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
