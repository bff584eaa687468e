/*
 * Who a caller on the message bus is: the operating-system user that the bus
 * daemon reports for its connection, and the users each application id is
 * bound to (its package's in the application registry, or the platform's).
 * In the development identity mode (identity/identity_mode.h) nothing is
 * checked. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_CREDENTIALS_H
#define TILVANE_PLATFORM_CREDENTIALS_H

#include <gio/gio.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "identity/identity_mode.h"

namespace tilvane {
namespace host {
namespace identity {

/* The users that may act as `appId`; false when the id is bound to nobody
 * (not installed, not a platform id) or the registry cannot be read. */
bool BoundUsers(const std::string& appId, std::vector<uid_t>& users);

/* The user of the connection `uniqueName` as the bus reports it, cached per
 * unique name; false when the bus does not know the name (gone). */
bool ConnectionUser(GDBusConnection* connection, const std::string& uniqueName, uid_t& uid);
/* Drops the cached user of a connection that left the bus. */
void ForgetConnection(GDBusConnection* connection, const std::string& uniqueName);
void ForgetAllConnections();

/* In verified mode: true when the connection `sender` runs as a user bound
 * to `appId`; otherwise `reason` says why not, for the one log line of the
 * refusal. Always true in development mode. */
bool SenderMayActAs(GDBusConnection* connection, const std::string& sender, const std::string& appId,
                    std::string& reason);

/* In verified mode: true when `uid`, the user of the peer `who` (as its
 * socket reports it), is bound to `appId`; otherwise `reason` says why not,
 * in the words SenderMayActAs uses. Always true in development mode. */
bool UserMayActAs(uid_t uid, const std::string& who, const std::string& appId, std::string& reason);

/* In verified mode: true when the connection `sender` runs as a platform
 * user; `reason` as above. Always true in development mode. */
bool SenderIsPlatform(GDBusConnection* connection, const std::string& sender, std::string& reason);

}  // namespace identity
}  // namespace host
}  // namespace tilvane

#endif
