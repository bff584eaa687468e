/*
 * The operator's interface of a running service (admin_interface.xml):
 * statistics (stats/request_stats.h) and the backup, restore and check of
 * the tiles database (database_maintenance.h), for platform users only.
 * The service application exports it on its bus connection and on every
 * connection that replaces a lost one; calls run on the GLib default
 * main context, where requests run, so each comes between two requests.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_ADMIN_INTERFACE_H
#define TILVANE_PLATFORM_ADMIN_INTERFACE_H

#include <gio/gio.h>

namespace tilvane {
namespace host {
namespace admin {

inline constexpr char kAdminPath[] = "/org/tilvane/Admin";
inline constexpr char kAdminInterface[] = "org.tilvane.Admin";
inline constexpr char kErrorNotAuthorized[] = "org.tilvane.Admin.Error.NotAuthorized";
inline constexpr char kErrorRefused[] = "org.tilvane.Admin.Error.Refused";
inline constexpr char kErrorFailed[] = "org.tilvane.Admin.Error.Failed";

/* Exports the interface on every bus connection the process opens from now
 * on (before the first one is opened: the service application's start). */
void ExportAdminInterfaceOnEveryConnection();

}  // namespace admin
}  // namespace host
}  // namespace tilvane

#endif
