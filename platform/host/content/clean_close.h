/*
 * The record of an orderly close of a database file: a small file beside it
 * ("<path>-clean") written when the last connection closed it and the
 * write-ahead log was gone, naming the file as it was then (device, inode,
 * size, modification and change times). Opening the file consumes the record;
 * the open is "after a clean close" only when the record names the file as it
 * is now and no write-ahead log is left. Any write to the file afterwards, a
 * crash (no record), or a log left behind makes the next open unclean.
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

/* True when the file's header is that of an SQLite database whose recorded
 * size in pages matches the file's size. */
bool HeaderMatchesFile(const std::string& path);

}  // namespace content
}  // namespace tilvane

#endif
