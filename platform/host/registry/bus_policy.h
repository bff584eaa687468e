/*
 * The bus daemon's policy for the installed applications: on a system-style
 * bus started with data/dbus/tilvane-bus.conf, only the user bound to an
 * application may own its bus name, and only platform users may own the
 * platform's names or raise configuration-key and power-off signals.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_BUS_POLICY_H
#define TILVANE_PLATFORM_BUS_POLICY_H

#include <string>
#include <vector>

#include "host_control/registry.h"

namespace tilvane {
namespace host {

/* The folder the base configuration includes: <platform root>/etc/dbus/tilvane-bus.d. */
std::string BusPolicyDirectory();

/* BusPolicyDirectory()/tilvane-apps.conf: written with the platform's file
 * mode (platform_files.h), for the bus daemon (root, or the platform group). */
std::string BusPolicyFile();

/* The policy file's text for `packages` and the configured platform users. */
std::string BusPolicyText(const std::vector<RegisteredPackage>& packages);

/* In the verified identity mode: writes the policy of the registry's packages
 * to BusPolicyDirectory()/tilvane-apps.conf and asks the bus at
 * DBUS_SESSION_BUS_ADDRESS to reload its configuration. Failures are logged. */
void UpdateBusPolicy();

}  // namespace host
}  // namespace tilvane

#endif
