/*
 * The lines the platform log wrote, kept for tests while capture is on
 * (host_control/log.h).
 */
#include "log/log_capture.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "host_control/base.h"
#include "host_control/log.h"

namespace tilvane {
namespace host {
namespace {

struct Capture {
    std::mutex mutex;
    bool on = false;
    /* Mirror of `on` that the log reads without taking the mutex. */
    std::atomic<bool> onFast{false};
    std::vector<LogLine> lines;
};

Capture& TheCapture()
{
    /* Never destroyed: lines logged while the process exits must find it. */
    static Capture* capture = new Capture();
    return *capture;
}

void SetCapturing(bool on)
{
    Capture& c = TheCapture();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.on = on;
    c.onFast = on;
}

}  // namespace

void StartLogCapture()
{
    SetCapturing(true);
}

void StopLogCapture()
{
    SetCapturing(false);
}

std::vector<LogLine> CapturedLog()
{
    Capture& c = TheCapture();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.lines;
}

std::vector<std::string> CapturedMessages(const std::string& tag)
{
    Capture& c = TheCapture();
    std::lock_guard<std::mutex> lock(c.mutex);
    std::vector<std::string> messages;
    for (const LogLine& line : c.lines) {
        if (tag.empty() || line.tag == tag) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

void ClearCapturedLog()
{
    Capture& c = TheCapture();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.lines.clear();
}

bool LogCaptureOn()
{
    return TheCapture().onFast.load(std::memory_order_relaxed);
}

void CaptureLogLine(int priority, const char* tag, std::string_view message)
{
    if (!LogCaptureOn()) {
        return;
    }
    const int64_t now = Now();
    Capture& c = TheCapture();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (!c.on) {
        return;
    }
    c.lines.push_back(LogLine{priority, tag != nullptr ? tag : "", std::string(message), now});
}

void ResetLogCapture()
{
    SetCapturing(false);
    ClearCapturedLog();
}

}  // namespace host
}  // namespace tilvane
