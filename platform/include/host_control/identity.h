/*
 * Test control API, identity: the application id this process runs as, the
 * bus names of application ids and the identity mode. Part of host_control.h
 * (for tests and tools).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_IDENTITY_H
#define TILVANE_PLATFORM_HOST_CONTROL_IDENTITY_H

#include <cstddef>
#include <string>

namespace tilvane {
namespace host {

/* The longest package or application id the platform issues. */
constexpr size_t kMaxPlatformIdLength = 128;
/* True when `id` has the platform's id syntax: 1 to kMaxPlatformIdLength
 * letters, digits, '.', '_' or '-', a letter first. Otherwise `rule` (when
 * given) states the rule it breaks. */
bool IsValidPlatformId(const std::string& id, std::string* rule = nullptr);

/* Makes this process run as `appId` (an empty id goes back to TILVANE_APP_ID,
 * else the program's short name). Takes effect for the bus connection that the
 * next message-port call opens: set it first, or after Reset(). */
void SetOwnAppId(const std::string& appId);
std::string OwnAppId();

/* The bus name that application `appId` owns ("" when the id cannot have
 * one: empty, or too long for the bus), and the way back. */
std::string BusNameForAppId(const std::string& appId);
bool AppIdForBusName(const std::string& busName, std::string& appId);

/* True in the verified identity mode (the configuration's [identity] mode). */
bool IdentitiesVerified();

/* Whether configuration-key changes and power-off raised by this process
 * count: always in the development identity mode; in the verified mode only
 * when it runs as a platform user. */
bool CountsAsPlatform();

}  // namespace host
}  // namespace tilvane

#endif
