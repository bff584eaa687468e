/*
 * Log lines for the journal. A service that systemd starts has its standard
 * error connected to the journal, and says so in JOURNAL_STREAM
 * ("<device>:<inode>" of that stream). When standard error is that stream, a
 * line is written as the journal reads it: its priority as a syslog prefix
 * ("<6>" for information) and no time stamp or process id of its own (the
 * journal records both), so that `journalctl -p` filters by priority:
 *
 *   <6>tilvane: TilesProvider.cpp: isDBFileExist(87) > DB file is not exist
 *
 * Anywhere else (a terminal, a file, a pipe the stream was passed on to)
 * lines keep their own form with time stamp, priority letter and pid.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_JOURNAL_FORMAT_H
#define TILVANE_PLATFORM_JOURNAL_FORMAT_H

#include <cstddef>
#include <string>

#include "log/line_buffer.h"

namespace tilvane {
namespace host {

/* True when standard error is the journal stream JOURNAL_STREAM names;
 * decided once per process. */
bool StandardErrorIsJournal();

/* The syslog priority (0 emergency .. 7 debug) of a DLOG_* priority. */
int SyslogPriority(int dlogPriority);

/* The journal's form of one line, with its newline. */
std::string JournalLine(int dlogPriority, const char* tag, const std::string& message);
void AppendJournalLine(LineBuffer& line, int dlogPriority, const char* tag, const char* message, size_t size);

/* Forgets the decision, so that the next line looks again (tests). */
void ForgetJournalStream();

}  // namespace host
}  // namespace tilvane

#endif
