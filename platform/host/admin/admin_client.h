/*
 * The operator's side of the service's operator interface
 * (admin_interface.h), for tilvanectl's `stats` and `db` commands: each call
 * goes to the service's application name (TILVANE_SERVICE_APP_ID, else the
 * configuration's [service] app-id, else the built-in id) on the process's
 * bus connection and waits for the answer. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_ADMIN_CLIENT_H
#define TILVANE_PLATFORM_ADMIN_CLIENT_H

#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace admin {

struct AdminAnswer {
    bool ok = false;
    /* Why not, when not ok: the service's reason, or what went wrong on the
     * way ("the service ... does not run on the bus"). */
    std::string error;
    /* True when the service refused to do it (a refusal leaves everything as
     * it was); false for other failures. */
    bool refused = false;
    /* The statistics' JSON, or a backup's or a restore's summary. */
    std::string text;
    /* Check: the database is healthy, and what was found. */
    bool healthy = false;
    std::vector<std::string> findings;
};

/* The application id of the service the calls go to. */
std::string ServiceAppId();

AdminAnswer GetStatistics();
AdminAnswer ResetStatistics();
/* The copy is written to `fd`, opened for writing by the caller. */
AdminAnswer Backup(int fd);
/* The copy is read from `fd`, opened for reading by the caller. */
AdminAnswer Restore(int fd);
AdminAnswer Check();

}  // namespace admin
}  // namespace host
}  // namespace tilvane

#endif
