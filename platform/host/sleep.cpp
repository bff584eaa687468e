/*
 * sleep() and usleep() of the host platform. The platform library is linked
 * statically into the executable, so these definitions take the place of the
 * C library's for every call made by the system and its tests. Each sleep is
 * recorded; on the virtual clock it only advances the clock.
 */
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>

#include "host_state.h"

namespace tilvane {
namespace host {
namespace {

/* Sleeps for real for the whole duration, resuming after signal handlers. */
void SleepFor(int64_t durationUs)
{
    struct timespec request;
    request.tv_sec = static_cast<time_t>(durationUs / 1000000);
    request.tv_nsec = static_cast<long>((durationUs % 1000000) * 1000);
    struct timespec remaining = {0, 0};
    while (nanosleep(&request, &remaining) != 0) {
        if (errno != EINTR) {
            return;
        }
        request = remaining;
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
