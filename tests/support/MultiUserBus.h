/*
 * A dbus-daemon of its own for one test that processes of other users may
 * use too: its socket lies in a folder everyone can reach. Started by the
 * constructor, which points DBUS_SESSION_BUS_ADDRESS at it; the destructor
 * stops it and puts the variable back (a PrivateBus with its own options).
 */
#ifndef TILVANE_TEST_MULTI_USER_BUS_H
#define TILVANE_TEST_MULTI_USER_BUS_H

#include <string>

#include "TestSupport.h"

namespace tilvane {
namespace test {

class MultiUserBus
{
public:
    /* With no `configFile`, everyone may connect, own any name and call
     * anyone, as on a session bus; otherwise the daemon runs with that file
     * (its own <listen> is replaced by the socket of this bus). */
    explicit MultiUserBus(const std::string& configFile = std::string());
    ~MultiUserBus();
    MultiUserBus(const MultiUserBus&) = delete;
    MultiUserBus& operator=(const MultiUserBus&) = delete;

    bool IsRunning() const { return m_bus.IsRunning(); }
    const std::string& Address() const { return m_bus.Address(); }

private:
    TempDir m_dir;
    PrivateBus m_bus;
};

/* True when this process may run others as any user (CI runs as root). */
bool CanSwitchUsers();

/* `argv` prefixed so that it runs as `uid` (group `uid`, no supplementary
 * groups), through setpriv. */
std::vector<std::string> AsUser(unsigned uid, const std::vector<std::string>& argv);

/* The user of an account name, -1 when there is none. */
int UserIdOf(const char* name);

struct RunResult {
    int status; /* the exit code, -1 when it did not end within 30 s */
    std::string out;
    std::string err;
};

/* Runs `argv` with `environment` added (as `uid`, or as this process's user
 * when uid < 0), its output kept in files of `logs`, and waits for it. */
RunResult RunAs(const TempDir& logs, int uid, const std::vector<std::string>& argv,
                const std::vector<std::string>& environment);

}  // namespace test
}  // namespace tilvane

#endif
