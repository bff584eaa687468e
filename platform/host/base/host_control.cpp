/*
 * The base room's part of the test control API: failure injection, call
 * counters and the virtual clock, under one mutex; and Reset(), which runs
 * the reset hooks every room registered (base/reset_hooks.h).
 */
#include "host_control/base.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "base/host_state.h"
#include "base/reset_hooks.h"

namespace tilvane {
namespace host {
namespace {

struct State {
    std::mutex mutex;
    /* Remaining injected failures per function; -1 means "until cleared". */
    std::map<std::string, int> failures;
    /* Calls to let pass before the failures of `failures` begin. */
    std::map<std::string, int> passesBeforeFailure;
    std::map<std::string, int, std::less<>> callCounts;
    /* The counter of a name, found by the address of the caller's text (a
     * literal, most often); checked against the name before it is used. */
    std::unordered_map<const char*, std::map<std::string, int, std::less<>>::iterator> countByAddress;
    bool virtualClock = false;
    int64_t virtualNowUs = 0;
    std::vector<int64_t> sleeps;
};

/* The rooms' reset hooks: (layer, hook) in the order they registered. */
std::vector<std::pair<int, void (*)()>>& Hooks()
{
    static auto* hooks = new std::vector<std::pair<int, void (*)()>>();
    return *hooks;
}

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

namespace {

/* With the state's lock: one more call of `function`. A request passes
 * here several times, so the common case costs no string and no search by
 * name. */
void CountCall(State& s, const char* function)
{
    auto known = s.countByAddress.find(function);
    if (known != s.countByAddress.end() && std::strcmp(known->second->first.c_str(), function) == 0) {
        ++known->second->second;
        return;
    }
    auto counter = s.callCounts.find(function);
    if (counter == s.callCounts.end()) {
        counter = s.callCounts.emplace(function, 0).first;
    }
    ++counter->second;
    s.countByAddress[function] = counter;
}

}  // namespace

bool ShouldFail(const char* function)
{
    if (function == nullptr) {
        return false;
    }
    State& s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    CountCall(s, function);
    if (s.failures.empty()) {
        return false;
    }
    const std::string name(function);
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

ResetHook::ResetHook(int layer, void (*reset)())
{
    Hooks().emplace_back(layer, reset);
}

void Reset()
{
    {
        State& s = TheState();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.failures.clear();
        s.passesBeforeFailure.clear();
        s.callCounts.clear();
        s.countByAddress.clear();
        s.virtualClock = false;
        s.virtualNowUs = 0;
        s.sleeps.clear();
    }
    /* The rooms from the top down; hooks register before main, never here. */
    std::vector<std::pair<int, void (*)()>> hooks = Hooks();
    std::stable_sort(hooks.begin(), hooks.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& hook : hooks) {
        hook.second();
    }
}

}  // namespace host
}  // namespace tilvane
