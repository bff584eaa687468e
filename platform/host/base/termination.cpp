/*
 * Termination requests (SIGTERM, SIGINT) of a running service application.
 *
 * service_app_main installs the handlers before the create callback runs, so a
 * signal is never lost while the application is still starting: the handler
 * only records the signal and makes an eventfd readable. The main loop watches
 * that descriptor; sleep() and usleep() wait on it, so a pending termination
 * makes every sleep of a start-up retry loop return at once; and the platform
 * registrations that such loops retry fail at once while it is pending. The
 * create callback then ends quickly, the loop is never entered and the
 * terminate callback runs the orderly shutdown.
 */
#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "base/host_state.h"

namespace tilvane {
namespace host {
namespace {

std::atomic<int> gPendingSignal{0};
std::atomic<int> gEventFd{-1};
struct sigaction gPreviousTerm;
struct sigaction gPreviousInt;
bool gInstalled = false;

void OnTerminationSignal(int signum)
{
    const int savedErrno = errno;
    int expected = 0;
    gPendingSignal.compare_exchange_strong(expected, signum);
    const int fd = gEventFd.load();
    if (fd >= 0) {
        const uint64_t one = 1;
        ssize_t ignored = write(fd, &one, sizeof one);
        (void)ignored;
    }
    errno = savedErrno;
}

void Drain(int fd)
{
    uint64_t value = 0;
    while (read(fd, &value, sizeof value) > 0) {
    }
}

}  // namespace

int TerminationFd()
{
    int fd = gEventFd.load();
    if (fd < 0) {
        const int created = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        int expected = -1;
        if (gEventFd.compare_exchange_strong(expected, created)) {
            fd = created;
        } else {
            close(created);
            fd = expected;
        }
    }
    return fd;
}

void InstallTerminationHandlers()
{
    ClearTermination();
    struct sigaction action = {};
    action.sa_handler = OnTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, &gPreviousTerm);
    sigaction(SIGINT, &action, &gPreviousInt);
    gInstalled = true;
}

void RestoreTerminationHandlers()
{
    if (!gInstalled) {
        return;
    }
    sigaction(SIGTERM, &gPreviousTerm, nullptr);
    sigaction(SIGINT, &gPreviousInt, nullptr);
    gInstalled = false;
}

int PendingTerminationSignal()
{
    return gPendingSignal.load();
}

bool TerminationPending()
{
    return gPendingSignal.load() != 0;
}

void ClearTermination()
{
    gPendingSignal.store(0);
    Drain(TerminationFd());
}

}  // namespace host
}  // namespace tilvane
