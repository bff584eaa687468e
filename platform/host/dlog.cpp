/*
 * The platform log on the host: one line per call on standard error,
 *   "MM-DD HH:MM:SS.mmm P/TAG(PID): message"
 * written with a single write() so that lines of concurrent threads never mix.
 */
#include "dlog.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "host_state.h"
#include "request_report.h"

namespace tilvane {
namespace host {
namespace {

/* 0 means "not read yet". */
std::atomic<int> gMinimumPriority{0};

int ParseLogLevel(const char* text)
{
    if (text == nullptr || *text == '\0') {
        return DLOG_DEBUG;
    }
    std::string value;
    for (const char* p = text; *p != '\0'; ++p) {
        value.push_back(static_cast<char>(tolower(static_cast<unsigned char>(*p))));
    }
    if (isdigit(static_cast<unsigned char>(value[0]))) {
        char* end = nullptr;
        long number = strtol(value.c_str(), &end, 10);
        if (*end == '\0' && number >= DLOG_VERBOSE && number <= DLOG_SILENT) {
            return static_cast<int>(number);
        }
        return DLOG_DEBUG;
    }
    struct Name {
        const char* letter;
        const char* word;
        const char* alias;
        int priority;
    };
    static const Name names[] = {
        {"v", "verbose", "verbose", DLOG_VERBOSE}, {"d", "debug", "debug", DLOG_DEBUG},
        {"i", "info", "information", DLOG_INFO},   {"w", "warn", "warning", DLOG_WARN},
        {"e", "error", "err", DLOG_ERROR},         {"f", "fatal", "fatal", DLOG_FATAL},
        {"s", "silent", "none", DLOG_SILENT},
    };
    for (const Name& n : names) {
        if (value == n.letter || value == n.word || value == n.alias) {
            return n.priority;
        }
    }
    return DLOG_DEBUG;
}

int MinimumPriority()
{
    int level = gMinimumPriority.load(std::memory_order_acquire);
    if (level == 0) {
        level = ParseLogLevel(getenv("TILVANE_LOG_LEVEL"));
        gMinimumPriority.store(level, std::memory_order_release);
    }
    return level;
}

char PriorityLetter(int prio)
{
    switch (prio) {
    case DLOG_VERBOSE: return 'V';
    case DLOG_DEBUG: return 'D';
    case DLOG_INFO: return 'I';
    case DLOG_WARN: return 'W';
    case DLOG_ERROR: return 'E';
    case DLOG_FATAL: return 'F';
    default: return '?';
    }
}

std::string FormatMessage(const char* fmt, va_list ap)
{
    char small[512];
    va_list copy;
    va_copy(copy, ap);
    int needed = vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string();
    }
    if (static_cast<size_t>(needed) < sizeof small) {
        return std::string(small, static_cast<size_t>(needed));
    }
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&text[0], text.size(), fmt, ap);
    text.resize(static_cast<size_t>(needed));
    return text;
}

void WriteAll(const std::string& line)
{
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t written = write(STDERR_FILENO, data, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

}  // namespace

void ForgetLogLevel()
{
    gMinimumPriority.store(0, std::memory_order_release);
}

}  // namespace host
}  // namespace tilvane

extern "C" int __dlog_vprint(log_id_t log_id, int prio, const char* tag, const char* fmt, va_list ap)
{
    using namespace tilvane::host;
    if (tag == nullptr || fmt == nullptr || log_id < LOG_ID_MAIN || log_id >= LOG_ID_MAX) {
        return DLOG_ERROR_INVALID_PARAMETER;
    }
    if (prio == DLOG_DEFAULT) {
        prio = DLOG_INFO;
    }
    if (prio < DLOG_VERBOSE || prio > DLOG_FATAL) {
        return DLOG_ERROR_INVALID_PARAMETER;
    }

    // A line that is neither written nor captured is not even formatted.
    if (prio < MinimumPriority() && !LogCaptureOn() && !RequestReportOpen()) {
        return 0;
    }
    std::string message = FormatMessage(fmt, ap);
    while (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    CaptureLogLine(prio, tag, message);
    NoteLogLine(prio, tag, message);
    if (prio < MinimumPriority()) {
        return 0;
    }

    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm local;
    localtime_r(&tv.tv_sec, &local);
    char stamp[64];
    snprintf(stamp, sizeof stamp, "%02d-%02d %02d:%02d:%02d.%03d %c/", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(tv.tv_usec / 1000),
             PriorityLetter(prio));
    char pid[32];
    snprintf(pid, sizeof pid, "(%d): ", static_cast<int>(getpid()));

    std::string line;
    line.reserve(message.size() + 64);
    line.append(stamp).append(tag).append(pid).append(message).push_back('\n');
    WriteAll(line);
    return static_cast<int>(line.size());
}

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int result = __dlog_vprint(log_id, prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

extern "C" int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int result = __dlog_vprint(LOG_ID_APPS, prio, tag, fmt, ap);
    va_end(ap);
    return result;
}
