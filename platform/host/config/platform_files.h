/*
 * The modes of the files the platform writes: the tiles database and its
 * backup, the application registry, the settings store (all in the database
 * directory, tzplatform_getenv(TZ_SYS_DB)) and the bus policy. None of them is
 * any application's to read or write.
 *
 *   files        0600, or 0640 with the group [files] group names
 *   directory    the database directory 0700, or 0750 with that group
 *
 * A file is created with its mode whatever the umask (created empty, then
 * set with fchmod), by the platform user that first needs it; when that user
 * is root and the database directory belongs to another user (the service's,
 * on a device), the file is handed to the directory's owner, so that the
 * service can open what an installer run by root made. SQLite gives a
 * database's journal, WAL and shared-memory files the database's own mode.
 *
 * At a service's start, the modes of existing files are corrected (one log
 * line names every file that changed).
 *
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_PLATFORM_FILES_H
#define TILVANE_PLATFORM_PLATFORM_FILES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace files {

/* 0600, or 0640 when the configuration names a group for the platform. */
mode_t FileMode();
/* 0700, or 0750 with that group. */
mode_t DirectoryMode();

/* Makes `path` exist as an empty file with FileMode() when it does not exist
 * yet (never following a symbolic link). True when it exists afterwards. */
bool CreateFile(const std::string& path);

/* Replaces the contents of `path` in one step (a new file renamed over it),
 * with FileMode(); false with `error` filled when it cannot. */
bool WriteFile(const std::string& path, const std::string& text, std::string& error);

/* Brings the database directory, every file in it and each of `more` (files
 * outside it, such as the bus policy) to their modes; returns one text per
 * file that changed ("<path> 0644 -> 0600"). Files it cannot change are
 * reported as "<path> 0644: <reason>". */
std::vector<std::string> CorrectModes(const std::vector<std::string>& more);

/* CorrectModes, with one log line when something changed. */
void CorrectModesAtStart(const std::vector<std::string>& more);

}  // namespace files
}  // namespace host
}  // namespace tilvane

#endif
