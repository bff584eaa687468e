/*
 * The application id a process runs as, and the bus name that stands for an
 * application id on the message bus. Internal to the host platform; tests use
 * the functions of host_control.h.
 */
#ifndef TILVANE_PLATFORM_APP_IDENTITY_H
#define TILVANE_PLATFORM_APP_IDENTITY_H

#include <string>

namespace tilvane {
namespace host {

/* Every application's bus name starts with this, followed by its escaped id. */
constexpr const char* kAppBusNamePrefix = "org.tilvane.App.A";
/* Every port's bus name starts with this, its application's escaped id, then
 * ".H" and a digest of the port's name: the names of one application's ports
 * share a prefix, which the bus policy grants to that application's user
 * alone (own_prefix). */
constexpr const char* kPortBusNamePrefix = "org.tilvane.Port.A";
/* The namespace of all application bus names (for NameOwnerChanged matches). */
constexpr const char* kAppBusNameNamespace = "org.tilvane.App";

/* The override set with SetOwnAppId, else TILVANE_APP_ID, else the program's
 * short name. */
std::string CurrentAppId();

/* `prefix` followed by `text` with every byte outside [A-Za-z0-9] written as
 * "_" and two lower-case hex digits; empty when `text` is empty or the name
 * would pass the bus's 255-byte limit. */
std::string EscapedBusName(const char* prefix, const std::string& text);

/* kPortBusNamePrefix and the escaped `appId`: the prefix of every port name
 * of that application; empty when the id cannot own a name. */
std::string PortBusNamePrefix(const std::string& appId);

/* Forgets the override. */
void ClearOwnAppIdOverride();

}  // namespace host
}  // namespace tilvane

#endif
