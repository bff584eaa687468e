/*
 * The full check of a database file (SQLite's quick check), and the same
 * check run in the background after an unclean stop.
 *
 * After a crash, a kill or a power loss, SQLite's journal recovery brings the
 * file back to its last commit when it is first read; the header and the
 * schema are read at open. The quick check reads every page, 84 MB with 100k
 * tiles, more than a second with a cold page cache; in the background it runs
 * on a thread of its own at idle CPU and I/O priority, on a read-only
 * connection of its own, while the service serves. When it finds damage it
 * logs it as the check at open does, leaves a record so that the next open
 * runs the full check (content/clean_close.h), and calls the handler set with
 * SetDamageFoundHandler on the default main context. Internal to the host
 * platform.
 */
#ifndef TILVANE_CONTENT_BACKGROUND_CHECK_H
#define TILVANE_CONTENT_BACKGROUND_CHECK_H

#include <sqlite3.h>

#include <string>
#include <vector>

namespace tilvane {
namespace content {

/* Reads the schema table: the first page and the schema must be readable
 * (and a journal or log left by a crash is recovered). SQLite's code, logged
 * when it is not SQLITE_OK. */
int ReadSchema(sqlite3* db, const std::string& path);

/* PRAGMA quick_check on `db` after reading its schema: SQLite's code of a
 * failure (logged), else SQLITE_OK with the check's findings in `results`
 * ("ok" alone for a healthy file). */
int QuickCheck(sqlite3* db, const std::string& path, std::vector<std::string>& results);

/* True when the check's outcome condemns the file: a finding other than "ok",
 * or a code that says the file cannot be read. */
bool CheckCondemns(int rc, const std::vector<std::string>& results);

/* The first page of every table (its root and the path to its first row)
 * reads without error. */
bool TableRootsReadable(sqlite3* db, const std::string& path);

/* Starts the full check of `path` in the background; a check of it already
 * running is left to run. */
void StartBackgroundCheck(const std::string& path);

/* Stops a check of `path` that runs (interrupted, not reported) and waits for
 * its thread. */
void StopBackgroundCheck(const std::string& path);

/* Waits until no check runs; true when none ran or all ended. */
bool WaitForBackgroundChecks(int timeoutMs);

/* How many checks run in the background now (any file); cheap enough for
 * every commit. */
int RunningBackgroundChecks();

/* What runs on the default main context after damage was found in `path`;
 * null for nothing beyond the log line and the record. */
void SetDamageFoundHandler(void (*handler)(const char* path));

}  // namespace content
}  // namespace tilvane

#endif
