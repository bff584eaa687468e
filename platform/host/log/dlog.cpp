/*
 * The platform log on the host: one line per call on standard error,
 *   "MM-DD HH:MM:SS.mmm P/TAG(PID): message"
 * written with a single write() so that lines of concurrent threads never mix.
 *
 * What is written is rate-limited per call site (per format string), as
 * journald limits a service: in each interval (TILVANE_LOG_RATE_INTERVAL_MS,
 * default 10000) a site writes at most a burst of lines (TILVANE_LOG_RATE_BURST,
 * default 2000; 0 turns the limit off). Further lines of that site are neither
 * formatted nor written, and the first line it writes in a later interval is
 * preceded by one line saying how many were suppressed. Lines are also held
 * to byte budgets per application and for the service as a whole
 * (log_budget.h). Log capture (tests) keeps every line, suppressed or not.
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
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host_control/log.h"
#include "base/host_state.h"
#include "base/request_report.h"
#include "base/reset_hooks.h"
#include "log/journal_format.h"
#include "log/line_buffer.h"
#include "log/log_budget.h"
#include "log/log_capture.h"
#include "log/log_settings.h"
#include "log/log_sink.h"
#include "log/message_format.h"
#include "log/system_reasons.h"

namespace tilvane {
namespace host {
namespace {

/* 0 means "not read yet". */
std::atomic<int> gMinimumPriority{0};

constexpr int64_t kDefaultBurst = 2000;
constexpr int64_t kDefaultIntervalMs = 10000;
/* A site that logs long lines is held to bytes as well as lines: a filter
 * logged once per row with the text so far would otherwise write megabytes
 * within its burst. */
constexpr int64_t kDefaultBurstBytes = 256 * 1024;
/* Call sites followed one by one; lines of further sites share one budget. */
constexpr size_t kMaxSites = 4096;

struct SiteBudget {
    int64_t windowStartUs = 0;
    int64_t written = 0;
    int64_t writtenBytes = 0;
    int64_t suppressed = 0;
};

/* Guarded by LogAccountingMutex() (log_budget.h), which the byte budgets
 * share. */
struct RateLimit {
    bool loaded = false;
    /* Counts the times `sites` was emptied (see LineTicket). */
    uint64_t generation = 1;
    int64_t burst = kDefaultBurst;
    int64_t burstBytes = kDefaultBurstBytes;
    int64_t intervalUs = kDefaultIntervalMs * 1000;
    std::unordered_map<const char*, SiteBudget> sites;
    std::atomic<int64_t> formatted{0};
    int64_t suppressedTotal = 0;
};

/* Where a line was let through, from its admission to its counting: its
 * site's budget is valid while the generation is the current one. */
struct LineTicket {
    SiteBudget* site = nullptr;
    uint64_t generation = 0;
    LogBudgetTicket budgets;
};

RateLimit& TheRateLimit()
{
    static RateLimit* limit = new RateLimit();
    return *limit;
}

/* The configuration's settings (log_settings.h), under their own lock. */
struct Configured {
    std::mutex mutex;
    LogSettings settings;
};

Configured& TheConfigured()
{
    static Configured* configured = new Configured();
    return *configured;
}

LogSettings ConfiguredSettings()
{
    Configured& c = TheConfigured();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.settings;
}

/* The environment's value of `variable`, else the configuration's, else
 * `fallback`. */
int64_t ReadNonNegative(const char* variable, int64_t configured, int64_t fallback)
{
    if (configured >= 0) {
        fallback = configured;
    }
    const char* text = getenv(variable);
    if (text == nullptr || *text == '\0') {
        return fallback;
    }
    char* end = nullptr;
    const long long value = strtoll(text, &end, 10);
    return (*end == '\0' && value >= 0) ? static_cast<int64_t>(value) : fallback;
}

/* A clock read on every line: the coarse one costs no system call and is
 * fine enough for intervals of seconds. */
int64_t MonotonicUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void LoadLimitsLocked(RateLimit& limit)
{
    if (!limit.loaded) {
        const LogSettings configured = ConfiguredSettings();
        limit.burst = ReadNonNegative("TILVANE_LOG_RATE_BURST", configured.rateBurst, kDefaultBurst);
        limit.burstBytes = ReadNonNegative("TILVANE_LOG_RATE_BYTES", configured.rateBytes, kDefaultBurstBytes);
        const int64_t intervalMs =
            ReadNonNegative("TILVANE_LOG_RATE_INTERVAL_MS", configured.rateIntervalMs, kDefaultIntervalMs);
        limit.intervalUs = (intervalMs > 0 ? intervalMs : kDefaultIntervalMs) * 1000;
        limit.loaded = true;
    }
}

/* With the accounting lock: whether the site of `fmt` may write a line now.
 * *suppressedBefore is set to the lines it suppressed in its previous
 * interval, to be reported first. */
bool AdmitLineLocked(const char* fmt, int64_t* suppressedBefore, LineTicket& ticket)
{
    RateLimit& limit = TheRateLimit();
    LoadLimitsLocked(limit);
    *suppressedBefore = 0;
    if (limit.burst == 0) {
        return true;
    }
    auto found = limit.sites.find(fmt);
    if (found == limit.sites.end()) {
        found = limit.sites.emplace(limit.sites.size() < kMaxSites ? fmt : nullptr, SiteBudget()).first;
    }
    SiteBudget& site = found->second;
    ticket.site = &site;
    ticket.generation = limit.generation;
    const int64_t now = MonotonicUs();
    if (site.written == 0 && site.suppressed == 0) {
        site.windowStartUs = now;
    } else if (now - site.windowStartUs >= limit.intervalUs) {
        *suppressedBefore = site.suppressed;
        site = SiteBudget();
        site.windowStartUs = now;
    }
    if (site.written < limit.burst && (limit.burstBytes == 0 || site.writtenBytes < limit.burstBytes)) {
        ++site.written;
        return true;
    }
    ++site.suppressed;
    ++limit.suppressedTotal;
    return false;
}

/* Counts a written line: its message's bytes against its site, the whole
 * line's against the byte budgets. */
void CountWrittenLine(const LineTicket& ticket, size_t messageBytes, size_t lineBytes)
{
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(LogAccountingMutex());
    if (ticket.site != nullptr && ticket.generation == limit.generation) {
        ticket.site->writtenBytes += static_cast<int64_t>(messageBytes);
    }
    CountBudgetedBytesLocked(ticket.budgets, lineBytes);
}

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
        const char* fromEnvironment = getenv("TILVANE_LOG_LEVEL");
        level = fromEnvironment != nullptr && *fromEnvironment != '\0'
                    ? ParseLogLevel(fromEnvironment)
                    : ParseLogLevel(ConfiguredSettings().level.c_str());
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

void WriteAll(const char* data, size_t left)
{
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

/* Writes `value` as `width` decimal digits at `out`. */
void PutDigits(char* out, int value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

/* The local time of `second`. A thread keeps the last second it converted:
 * the lines of a request fall within one, and localtime_r reads the time
 * zone once per process anyway. */
const struct tm& LocalTime(time_t second)
{
    struct Converted {
        time_t second = -1;
        struct tm local = {};
    };
    thread_local Converted last;
    if (last.second != second) {
        localtime_r(&second, &last.local);
        last.second = second;
    }
    return last.local;
}

/* Appends "MM-DD HH:MM:SS.mmm P/": formatted by hand, as this runs for every
 * line a request writes and printf's machinery cost more than the rest of
 * the line. */
void AppendStamp(LineBuffer& line, int prio)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const struct tm& local = LocalTime(tv.tv_sec);
    char stamp[] = "MM-DD HH:MM:SS.mmm P/";
    PutDigits(stamp, local.tm_mon + 1, 2);
    PutDigits(stamp + 3, local.tm_mday, 2);
    PutDigits(stamp + 6, local.tm_hour, 2);
    PutDigits(stamp + 9, local.tm_min, 2);
    PutDigits(stamp + 12, local.tm_sec, 2);
    PutDigits(stamp + 15, static_cast<int>(tv.tv_usec / 1000), 3);
    stamp[19] = PriorityLetter(prio);
    line.Append(stamp, sizeof stamp - 1);
}

/* Appends "(PID): "; the process's id is read on every line, as a forked
 * child writes its own. */
void AppendPid(LineBuffer& line)
{
    char text[24];
    char* end = text + sizeof text;
    char* p = end;
    *--p = ' ';
    *--p = ':';
    *--p = ')';
    unsigned pid = static_cast<unsigned>(getpid());
    do {
        *--p = static_cast<char>('0' + pid % 10);
        pid /= 10;
    } while (pid != 0);
    *--p = '(';
    line.Append(p, static_cast<size_t>(end - p));
}

/* The sink, under its lock; `set` says without the lock whether there is
 * one, so that lines to standard error take no lock for it. */
struct Sink {
    std::mutex mutex;
    std::atomic<bool> set{false};
    LogSink sink = nullptr;
    void* userData = nullptr;
};

Sink& TheSink()
{
    static Sink* sink = new Sink();
    return *sink;
}

/* True when a sink took the line. */
bool SendToSink(int prio, const char* tag, const char* message)
{
    Sink& s = TheSink();
    if (!s.set.load(std::memory_order_acquire)) {
        return false;
    }
    LogSink sink = nullptr;
    void* userData = nullptr;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        sink = s.sink;
        userData = s.userData;
    }
    if (sink == nullptr) {
        return false;
    }
    sink(prio, tag, message, userData);
    return true;
}

/* Writes one line of `message` (`size` bytes, NUL-terminated) with a single
 * write(); returns the bytes of the line. */
size_t WriteLine(int prio, const char* tag, const char* message, size_t size)
{
    if (SendToSink(prio, tag, message)) {
        return size;
    }
    LineBuffer line;
    if (StandardErrorIsJournal()) {
        AppendJournalLine(line, prio, tag, message, size);
    } else {
        AppendStamp(line, prio);
        line.Append(tag);
        AppendPid(line);
        line.Append(message, size);
        line.Append('\n');
    }
    WriteAll(line.data(), line.size());
    return line.size();
}

size_t WriteLine(int prio, const char* tag, const std::string& message)
{
    return WriteLine(prio, tag, message.c_str(), message.size());
}

/* The suppression lines a line owes to the byte budgets. */
void WriteBudgetNotes(const LogBudgetNotes& notes)
{
    if (notes.appSuppressed > 0) {
        WriteLine(DLOG_WARN, kPlatformLogTag,
                  std::to_string(notes.appSuppressed) + " lines suppressed (log budget of application " + notes.app +
                      ")");
    }
    if (notes.serviceSuppressed > 0) {
        WriteLine(DLOG_WARN, kPlatformLogTag,
                  std::to_string(notes.serviceSuppressed) + " lines suppressed (log budget of the service)");
    }
}

/* Whether a line of `fmt` at `prio` is written: the minimum priority, the
 * rate limit of its site and the byte budgets, decided under one lock; the
 * suppression lines it owes are written first. */
bool Admitted(int prio, const char* fmt, LineTicket& ticket)
{
    if (prio < MinimumPriority()) {
        return false;
    }
    int64_t suppressedBefore = 0;
    LogBudgetNotes notes;
    bool admitted = false;
    {
        std::lock_guard<std::mutex> lock(LogAccountingMutex());
        admitted = AdmitLineLocked(fmt, &suppressedBefore, ticket) && AdmitBudgetedLineLocked(notes, ticket.budgets);
    }
    if (suppressedBefore > 0) {
        WriteLine(DLOG_WARN, kPlatformLogTag, std::to_string(suppressedBefore) + " lines suppressed (\"" + fmt + "\")");
    }
    WriteBudgetNotes(notes);
    return admitted;
}

}  // namespace

void SetLogSink(LogSink sink, void* userData)
{
    Sink& s = TheSink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sink = sink;
    s.userData = userData;
    s.set.store(sink != nullptr, std::memory_order_release);
}

void DropLogLine(int /*priority*/, const char* /*tag*/, const char* /*message*/, void* /*userData*/)
{
}

namespace {

/* Reset(): capture off, the level and the limits read again, nothing counted. */
void ResetLog()
{
    {
        Configured& c = TheConfigured();
        std::lock_guard<std::mutex> lock(c.mutex);
        c.settings = LogSettings();
    }
    ForgetJournalStream();
    ResetLogCapture();
    gMinimumPriority.store(0, std::memory_order_release);
    ForgetLogBudgets();
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(LogAccountingMutex());
    limit.loaded = false;
    limit.sites.clear();
    ++limit.generation;
    limit.formatted = 0;
    limit.suppressedTotal = 0;
}

const ResetHook kResetLog(1, ResetLog);

}  // namespace

void SetConfiguredLogSettings(const LogSettings& settings)
{
    {
        Configured& c = TheConfigured();
        std::lock_guard<std::mutex> lock(c.mutex);
        c.settings = settings;
    }
    gMinimumPriority.store(0, std::memory_order_release);
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(LogAccountingMutex());
    limit.loaded = false;
}

char CurrentLogLevelLetter()
{
    const int level = MinimumPriority();
    return level == DLOG_SILENT ? 'S' : PriorityLetter(level);
}

LogRateCounters LogRateCountersNow()
{
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(LogAccountingMutex());
    return LogRateCounters{limit.formatted.load(), limit.suppressedTotal};
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
    // The lines of a request that is being reported are read for its reason
    // (system_reasons.h); those below INFO never are.
    const bool capture = LogCaptureOn() || (prio >= DLOG_INFO && RequestReportOpen());
    LineTicket ticket;
    const bool write = Admitted(prio, fmt, ticket);
    if (!write && !capture) {
        return 0;
    }
    TheRateLimit().formatted.fetch_add(1, std::memory_order_relaxed);
    LineBuffer message;
    AppendMessage(message, fmt, ap);
    while (!message.empty() && message.back() == '\n') {
        message.Truncate(message.size() - 1);
    }
    const std::string_view text(message.CStr(), message.size());
    CaptureLogLine(prio, tag, text);
    NoteSystemLogLine(prio, tag, text);
    if (!write) {
        return 0;
    }
    const size_t written = WriteLine(prio, tag, message.CStr(), message.size());
    CountWrittenLine(ticket, message.size(), written);
    return static_cast<int>(written);
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
