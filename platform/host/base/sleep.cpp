/*
 * sleep() and usleep() of the host platform. The platform library is linked
 * statically into the executable, so these definitions take the place of the
 * C library's for every call made by the system and its tests. Each sleep is
 * recorded; on the virtual clock it only advances the clock.
 *
 * A real sleep ends early when a termination of the service application is
 * pending (termination.cpp): the start-up retry loops, which run before the
 * main loop exists, then run out at once and the service shuts down in order.
 */
#include <errno.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "base/host_state.h"

namespace tilvane {
namespace host {
namespace {

int64_t MonotonicUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

/* Sleeps for real for the whole duration, resuming after signal handlers,
 * unless a termination is pending or arrives meanwhile. */
void SleepFor(int64_t durationUs)
{
    const int64_t deadline = MonotonicUs() + durationUs;
    struct pollfd termination = {TerminationFd(), POLLIN, 0};
    while (!TerminationPending()) {
        const int64_t left = deadline - MonotonicUs();
        if (left <= 0) {
            return;
        }
        struct timespec timeout;
        timeout.tv_sec = static_cast<time_t>(left / 1000000);
        timeout.tv_nsec = static_cast<long>((left % 1000000) * 1000);
        if (termination.fd < 0) {
            nanosleep(&timeout, nullptr);
            continue;
        }
        if (ppoll(&termination, 1, &timeout, nullptr) < 0 && errno != EINTR) {
            return;
        }
    }
}

}  // namespace
}  // namespace host
}  // namespace tilvane

extern "C" unsigned int sleep(unsigned int seconds)
{
    const int64_t durationUs = static_cast<int64_t>(seconds) * 1000000;
    if (tilvane::host::RecordSleepAndAdvance(durationUs)) {
        return 0;
    }
    tilvane::host::SleepFor(durationUs);
    return 0;
}

extern "C" int usleep(useconds_t usec)
{
    const int64_t durationUs = static_cast<int64_t>(usec);
    if (tilvane::host::RecordSleepAndAdvance(durationUs)) {
        return 0;
    }
    tilvane::host::SleepFor(durationUs);
    return 0;
}
