/*
 * Process-wide state of the host platform that tests can steer: failure
 * injection, call counters, log capture, the virtual clock and the platform
 * root override. One mutex guards all of it.
 */
#include "host_control.h"
#include "config/platform_config.h"

#include <time.h>

#include <map>
#include <atomic>
#include <mutex>
#include <utility>

#include "base/host_state.h"
#include "app/idle_trim.h"

namespace tilvane {
namespace host {
namespace {

struct State {
    std::mutex mutex;
    /* Remaining injected failures per function; -1 means "until cleared". */
    std::map<std::string, int> failures;
    /* Calls to let pass before the failures of `failures` begin. */
    std::map<std::string, int> passesBeforeFailure;
    std::map<std::string, int> callCounts;
    bool capturing = false;
    /* Mirror of `capturing` that the log reads without taking the mutex. */
    std::atomic<bool> capturingFast{false};
    std::vector<LogLine> captured;
    bool virtualClock = false;
    int64_t virtualNowUs = 0;
    std::vector<int64_t> sleeps;
    std::string platformRoot;
};

State& TheState()
{
    /* Never destroyed: platform calls made while the process exits (from
     * other threads or static destructors) must still find it. */
    static State* state = new State();
    return *state;
}

int64_t MonotonicUs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t NowLocked(const State& s)
{
    return s.virtualClock ? s.virtualNowUs : MonotonicUs();
}

}  // namespace

void FailNextCalls(const std::string& function, int count)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (count == 0) {
        s.failures.erase(function);
    } else {
        s.failures[function] = count < 0 ? -1 : count;
    }
}

void FailCallsAfter(const std::string& function, int passes, int count)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (count == 0) {
        s.failures.erase(function);
        s.passesBeforeFailure.erase(function);
        return;
    }
    s.failures[function] = count < 0 ? -1 : count;
    s.passesBeforeFailure[function] = passes;
}

void ClearFailures()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.failures.clear();
    s.passesBeforeFailure.clear();
}

bool ShouldFail(const char* function)
{
    if (function == nullptr) {
        return false;
    }
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    const std::string name(function);
    ++s.callCounts[name];
    auto it = s.failures.find(name);
    if (it == s.failures.end()) {
        return false;
    }
    auto pass = s.passesBeforeFailure.find(name);
    if (pass != s.passesBeforeFailure.end() && pass->second > 0) {
        --pass->second;
        return false;
    }
    if (it->second > 0 && --it->second == 0) {
        s.failures.erase(it);
    }
    return true;
}

int CallCount(const std::string& function)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.callCounts.find(function);
    return it == s.callCounts.end() ? 0 : it->second;
}

void StartLogCapture()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.capturing = true;
    s.capturingFast = true;
}

void StopLogCapture()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.capturing = false;
    s.capturingFast = false;
}

std::vector<LogLine> CapturedLog()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.captured;
}

std::vector<std::string> CapturedMessages(const std::string& tag)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::string> messages;
    for (const LogLine& line : s.captured) {
        if (tag.empty() || line.tag == tag) {
            messages.push_back(line.message);
        }
    }
    return messages;
}

void ClearCapturedLog()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captured.clear();
}

bool LogCaptureOn()
{
    return TheState().capturingFast.load(std::memory_order_relaxed);
}

void CaptureLogLine(int priority, const char* tag, const std::string& message)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.capturing) {
        return;
    }
    s.captured.push_back(LogLine{priority, tag != nullptr ? tag : "", message, NowLocked(s)});
}

int64_t Now()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return NowLocked(s);
}

void UseVirtualClock(bool on)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (on && !s.virtualClock) {
        /* The virtual clock starts at zero and moves only by recorded sleeps. */
        s.virtualNowUs = 0;
    }
    s.virtualClock = on;
}

bool VirtualClockInUse()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.virtualClock;
}

std::vector<int64_t> RecordedSleeps()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.sleeps;
}

bool RecordSleepAndAdvance(int64_t durationUs)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sleeps.push_back(durationUs);
    if (s.virtualClock) {
        s.virtualNowUs += durationUs;
        return true;
    }
    return false;
}

void SetPlatformRoot(const std::string& root)
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.platformRoot = root;
}

std::string PlatformRootOverride()
{
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.platformRoot;
}

void Reset()
{
    {
        State& s = TheState();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.failures.clear();
        s.passesBeforeFailure.clear();
        s.callCounts.clear();
        s.capturing = false;
        s.capturingFast = false;
        s.captured.clear();
        s.virtualClock = false;
        s.virtualNowUs = 0;
        s.sleeps.clear();
        s.platformRoot.clear();
    }
    ForgetLogLevel();
    ClearAppEventHandlers();
    ResetMessagePorts();
    ForgetKeyWatchers();
    ForgetPowerOffSubscribers();
    CloseSignalBus();
    config::Forget();
    CancelIdleTrim();
}

}  // namespace host
}  // namespace tilvane
