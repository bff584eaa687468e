/*
 * Log lines for the journal (journal_format.h).
 */
#include "log/journal_format.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "dlog.h"

namespace tilvane {
namespace host {
namespace {

/* 0 not decided yet, 1 the journal, 2 anything else. */
std::atomic<int> g_journal{0};

bool DecideJournal()
{
    const char* stream = getenv("JOURNAL_STREAM");
    if (stream == nullptr || *stream == '\0') {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) {
        return false;
    }
    struct stat info;
    if (fstat(STDERR_FILENO, &info) != 0) {
        return false;
    }
    return static_cast<unsigned long long>(info.st_dev) == device &&
           static_cast<unsigned long long>(info.st_ino) == inode;
}

}  // namespace

bool StandardErrorIsJournal()
{
    int decided = g_journal.load(std::memory_order_acquire);
    if (decided == 0) {
        decided = DecideJournal() ? 1 : 2;
        g_journal.store(decided, std::memory_order_release);
    }
    return decided == 1;
}

int SyslogPriority(int dlogPriority)
{
    switch (dlogPriority) {
    case DLOG_FATAL: return 2;  /* critical */
    case DLOG_ERROR: return 3;  /* error */
    case DLOG_WARN: return 4;   /* warning */
    case DLOG_INFO: return 6;   /* informational */
    default: return 7;          /* debug, verbose */
    }
}

void AppendJournalLine(LineBuffer& line, int dlogPriority, const char* tag, const char* message, size_t size)
{
    const char prefix[] = {'<', static_cast<char>('0' + SyslogPriority(dlogPriority)), '>'};
    line.Append(prefix, sizeof prefix);
    line.Append(tag);
    line.Append(": ", 2);
    line.Append(message, size);
    line.Append('\n');
}

std::string JournalLine(int dlogPriority, const char* tag, const std::string& message)
{
    LineBuffer line;
    AppendJournalLine(line, dlogPriority, tag, message.data(), message.size());
    return std::string(line.data(), line.size());
}

void ForgetJournalStream()
{
    g_journal.store(0, std::memory_order_release);
}

}  // namespace host
}  // namespace tilvane
