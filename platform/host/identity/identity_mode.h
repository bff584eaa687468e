/*
 * Who may be whom, as the integrator's configuration says: the identity mode,
 * the users trusted as the platform and the platform's own application ids.
 * Internal to the host platform.
 *
 * Two identity modes, chosen by the integrator's configuration ([identity]
 * mode):
 *   verified     (the default) an application id is believed only from a
 *                connection of the user it is bound to: the user of its
 *                package in the application registry, or, for the platform's
 *                own ids, the users the configuration names. Configuration
 *                key changes and power-off signals count only from platform
 *                users. The checks themselves are bus/credentials.h's.
 *   development  every process runs as one user and is believed to be the
 *                application it claims; nothing is checked. No security
 *                boundary.
 */
#ifndef TILVANE_PLATFORM_IDENTITY_MODE_H
#define TILVANE_PLATFORM_IDENTITY_MODE_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace identity {

enum class Mode { Verified, Development };

/* The mode the configuration chooses (verified when it names none). */
Mode CurrentMode();
/* Writes the mode's start-up line to the platform log (info), once per
 * process: when it first connects to the bus. */
void LogModeOnce();

/* The users the configuration trusts as the platform ([identity]
 * platform-users; root when unset). */
std::vector<uid_t> PlatformUsers();
bool IsPlatformUser(uid_t uid);

/* True when `id` is one of the platform's own application ids. */
bool IsPlatformAppId(const std::string& id);

/* True when `id` equals, case ignored, one of the platform's own ids or the
 * service's id ([service] app-id); `platformId` is the one it equals. No
 * package may take such an id in the verified mode. */
bool IsLikePlatformId(const std::string& id, std::string& platformId);

/* The user of the process that sent the message-port message whose callback
 * runs on this thread, as the bus reported it (the port layer sets it around
 * the callback); false outside such a callback or when it is not known (the
 * development mode does not ask). */
bool CurrentMessageSender(uid_t& uid);

class ScopedMessageSender
{
public:
    ScopedMessageSender(bool known, uid_t uid);
    ~ScopedMessageSender();
    ScopedMessageSender(const ScopedMessageSender&) = delete;
    ScopedMessageSender& operator=(const ScopedMessageSender&) = delete;

private:
    bool m_wasKnown;
    uid_t m_previous;
};

/* A user given as a number or a name; false when it is neither. */
bool ParseUser(const std::string& text, uid_t& uid);
/* "1000,1001". */
std::string UsersText(const std::vector<uid_t>& users);

}  // namespace identity
}  // namespace host
}  // namespace tilvane

#endif
