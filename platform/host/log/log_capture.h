/*
 * Log capture (host_control/log.h) as the log itself uses it: whether lines
 * are kept, and keeping one. Internal to the log room.
 */
#ifndef TILVANE_PLATFORM_LOG_CAPTURE_H
#define TILVANE_PLATFORM_LOG_CAPTURE_H

#include <string>
#include <string_view>

namespace tilvane {
namespace host {

/* True while log capture is on; read without a lock. */
bool LogCaptureOn();
/* Keeps a formatted log line when capture is on; cheap when it is off. */
void CaptureLogLine(int priority, const char* tag, std::string_view message);
/* Capture off, nothing kept (the log room's reset). */
void ResetLogCapture();

}  // namespace host
}  // namespace tilvane

#endif
