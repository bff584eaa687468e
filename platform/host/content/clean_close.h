/*
 * The record of an orderly close of a database file: a small file beside it
 * ("<path>-clean") written when the last connection closed it and the
 * write-ahead log was gone, naming the file as it was then (device, inode,
 * size, modification and change times). Opening the file consumes the record;
 * the open is "after a clean close" only when the record names the file as it
 * is now and no write-ahead log is left. Any write to the file afterwards, a
 * crash (no record), or a log left behind makes the next open unclean.
 *
 * Beside it, while a connection of this library has the file open, an empty
 * "<path>-inuse" record, made at open and removed with the clean record's
 * writing. An open that finds it and no clean record follows an unclean stop
 * of a process of ours (a crash, a kill, a power loss) that had the file open:
 * SQLite's journal recovery brings such a file back to its last commit, so the
 * full check may run in the background (content/background_check.h). A file
 * without either record (written by anything else) gets the full check at
 * open, and so does a file named by a "<path>-corrupt" record, which a check
 * in the background leaves when it finds damage.
 */
#ifndef TILVANE_CONTENT_CLEAN_CLOSE_H
#define TILVANE_CONTENT_CLEAN_CLOSE_H

#include <string>

namespace tilvane {
namespace content {

/* Called before a connection opens `path`: reads and removes the record, and
 * remembers whether this open follows a clean close. */
void ConsumeCleanCloseRecord(const std::string& path);

/* Called after a connection to `path` closed: writes the record when no
 * write-ahead log is left (no other connection has the file open). */
void WriteCleanCloseRecord(const std::string& path);

/* True when the last open of `path` in this process followed a clean close. */
bool OpenedAfterCleanClose(const std::string& path);

/* True when the last open of `path` in this process followed an unclean stop
 * of a process of ours that had it open (no clean record, the in-use record
 * left, no record of damage). */
bool OpenedAfterUncleanStop(const std::string& path);

/* While the full check of `path` is owed (it was left to the background and
 * has not passed), no clean record is written: the next open checks again. */
void SetFullCheckOwed(const std::string& path, bool owed);

/* Leaves the record that the next open must run the full check. */
void RecordDamageFound(const std::string& path);

/* True when the file's header is that of an SQLite database whose recorded
 * size in pages matches the file's size. */
bool HeaderMatchesFile(const std::string& path);

}  // namespace content
}  // namespace tilvane

#endif
