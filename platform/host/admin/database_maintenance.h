/*
 * Backup, restore and check of the service's tiles database, for the
 * operator's interface (admin_interface.h). Each runs on the service's loop,
 * between requests, with connections of its own to the database file.
 *
 *   Backup   SQLite's online backup of the database, as it is at one moment,
 *            into a private file beside it (".preview.db.backup", mode of the
 *            platform's files), made a plain rollback-journal database, then
 *            its bytes written to the caller's file descriptor; the private
 *            file is removed.
 *   Restore  the caller's bytes into a private file (".preview.db.restore"),
 *            which must be a database whose integrity check passes, whose
 *            foreign keys hold, with the live database's schema version, the
 *            same tables with the same columns and the same indexes,
 *            triggers and views; then SQLite's online
 *            backup from it into the live database, one transaction: every
 *            connection (the service's own among them) sees the new content
 *            at once, and a failure leaves the database as it was.
 *   Check    integrity and foreign keys of the live database, and its
 *            launcher entries against the application registry: an entry
 *            whose package is not installed (and is no platform id), a
 *            package with more than one entry, and, as notes, installed
 *            packages that support the launcher and have no entry yet.
 *
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_DATABASE_MAINTENANCE_H
#define TILVANE_PLATFORM_DATABASE_MAINTENANCE_H

#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace admin {

/* <TZ_SYS_DB>/.preview.db: the database the service keeps. */
std::string TilesDatabasePath();

/* False with `error` when no copy could be written. */
bool BackupTo(int fd, std::string& summary, std::string& error);

/* False with `refusal` (the reason; the database unchanged) when the copy is
 * refused or cannot be put in place. */
bool RestoreFrom(int fd, std::string& summary, std::string& refusal);

struct CheckReport {
    bool healthy = true;
    /* "problem: ..." and "note: ..." lines, "ok: ..." for each check passed. */
    std::vector<std::string> findings;
};
CheckReport CheckDatabase();

}  // namespace admin
}  // namespace host
}  // namespace tilvane

#endif
