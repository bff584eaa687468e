/*
 * What the service manager (systemd, a unit of Type=notify) is told: that the
 * service is ready once it serves requests, that it reloads its
 * configuration, that it stops; and, when the unit asks for a watchdog
 * (WatchdogSec=, seen as WATCHDOG_USEC), a ping at half that interval from a
 * timer of the service's own loop, so that the pings stop when the loop stops
 * turning (a statement that never ends, a callback that never returns) and
 * the manager restarts the service. Without NOTIFY_SOCKET nothing is sent
 * (sd_notify). Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_SERVICE_MANAGER_H
#define TILVANE_PLATFORM_SERVICE_MANAGER_H

#include <cstdint>
#include <string>

namespace tilvane {
namespace host {
namespace service_manager {

void NotifyReady(const std::string& status);
void NotifyReloading();
void NotifyStopping(const std::string& status);

/* Starts the watchdog's pings on the GLib default main context; the
 * interval the unit asked for in microseconds, 0 when it asked for none. */
uint64_t StartWatchdog();
void StopWatchdog();

}  // namespace service_manager
}  // namespace host
}  // namespace tilvane

#endif
