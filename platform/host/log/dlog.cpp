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
#include <unordered_map>

#include "host_control/log.h"
#include "base/host_state.h"
#include "base/request_report.h"
#include "base/reset_hooks.h"
#include "log/journal_format.h"
#include "log/log_budget.h"
#include "log/log_capture.h"
#include "log/log_settings.h"
#include "log/log_sink.h"
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

struct RateLimit {
    std::mutex mutex;
    bool loaded = false;
    int64_t burst = kDefaultBurst;
    int64_t burstBytes = kDefaultBurstBytes;
    int64_t intervalUs = kDefaultIntervalMs * 1000;
    std::unordered_map<const char*, SiteBudget> sites;
    int64_t formatted = 0;
    int64_t suppressedTotal = 0;
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

/* Whether the site of `fmt` may write a line now. *suppressedBefore is set to
 * the lines it suppressed in its previous interval, to be reported first. */
bool AdmitLine(const char* fmt, int64_t* suppressedBefore)
{
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(limit.mutex);
    if (!limit.loaded) {
        const LogSettings configured = ConfiguredSettings();
        limit.burst = ReadNonNegative("TILVANE_LOG_RATE_BURST", configured.rateBurst, kDefaultBurst);
        limit.burstBytes = ReadNonNegative("TILVANE_LOG_RATE_BYTES", configured.rateBytes, kDefaultBurstBytes);
        const int64_t intervalMs =
            ReadNonNegative("TILVANE_LOG_RATE_INTERVAL_MS", configured.rateIntervalMs, kDefaultIntervalMs);
        limit.intervalUs = (intervalMs > 0 ? intervalMs : kDefaultIntervalMs) * 1000;
        limit.loaded = true;
    }
    *suppressedBefore = 0;
    if (limit.burst == 0) {
        return true;
    }
    const char* key = (limit.sites.size() < kMaxSites || limit.sites.count(fmt) != 0) ? fmt : nullptr;
    SiteBudget& site = limit.sites[key];
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

/* Counts the bytes of a line that AdmitLine let through against its site. */
void CountWrittenBytes(const char* fmt, size_t bytes)
{
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(limit.mutex);
    auto site = limit.sites.find(fmt);
    if (site == limit.sites.end()) {
        site = limit.sites.find(nullptr);
    }
    if (site != limit.sites.end()) {
        site->second.writtenBytes += static_cast<int64_t>(bytes);
    }
}

void CountFormatted()
{
    RateLimit& limit = TheRateLimit();
    std::lock_guard<std::mutex> lock(limit.mutex);
    ++limit.formatted;
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

/* Writes `value` as `width` decimal digits at `out`. */
void PutDigits(char* out, int value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

/* Appends "MM-DD HH:MM:SS.mmm P/": formatted by hand, as this runs for every
 * line a request writes and printf's machinery cost more than the rest of
 * the line. */
void AppendStamp(std::string& line, int prio)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm local;
    localtime_r(&tv.tv_sec, &local);
    char stamp[] = "MM-DD HH:MM:SS.mmm P/";
    PutDigits(stamp, local.tm_mon + 1, 2);
    PutDigits(stamp + 3, local.tm_mday, 2);
    PutDigits(stamp + 6, local.tm_hour, 2);
    PutDigits(stamp + 9, local.tm_min, 2);
    PutDigits(stamp + 12, local.tm_sec, 2);
    PutDigits(stamp + 15, static_cast<int>(tv.tv_usec / 1000), 3);
    stamp[19] = PriorityLetter(prio);
    line.append(stamp, sizeof stamp - 1);
}

/* Appends "(PID): "; the process's id is read on every line, as a forked
 * child writes its own. */
void AppendPid(std::string& line)
{
    line.push_back('(');
    line.append(std::to_string(static_cast<int>(getpid())));
    line.append("): ", 3);
}

struct Sink {
    std::mutex mutex;
    LogSink sink = nullptr;
    void* userData = nullptr;
};

Sink& TheSink()
{
    static Sink* sink = new Sink();
    return *sink;
}

/* True when a sink took the line. */
bool SendToSink(int prio, const char* tag, const std::string& message)
{
    LogSink sink = nullptr;
    void* userData = nullptr;
    {
        Sink& s = TheSink();
        std::lock_guard<std::mutex> lock(s.mutex);
        sink = s.sink;
        userData = s.userData;
    }
    if (sink == nullptr) {
        return false;
    }
    sink(prio, tag, message.c_str(), userData);
    return true;
}

size_t WriteLine(int prio, const char* tag, const std::string& message)
{
    if (SendToSink(prio, tag, message)) {
        return message.size();
    }
    if (StandardErrorIsJournal()) {
        const std::string line = JournalLine(prio, tag, message);
        WriteAll(line);
        return line.size();
    }
    std::string line;
    line.reserve(message.size() + 64);
    AppendStamp(line, prio);
    line.append(tag);
    AppendPid(line);
    line.append(message).push_back('\n');
    WriteAll(line);
    return line.size();
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
 * rate limit of its site and the byte budgets; the suppression lines it owes
 * are written first. */
bool Admitted(int prio, const char* fmt)
{
    if (prio < MinimumPriority()) {
        return false;
    }
    int64_t suppressedBefore = 0;
    const bool siteAdmits = AdmitLine(fmt, &suppressedBefore);
    if (suppressedBefore > 0) {
        WriteLine(DLOG_WARN, kPlatformLogTag, std::to_string(suppressedBefore) + " lines suppressed (\"" + fmt + "\")");
    }
    if (!siteAdmits) {
        return false;
    }
    LogBudgetNotes notes;
    const bool budgetAdmits = AdmitBudgetedLine(notes);
    WriteBudgetNotes(notes);
    return budgetAdmits;
}

}  // namespace

void SetLogSink(LogSink sink, void* userData)
{
    Sink& s = TheSink();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.sink = sink;
    s.userData = userData;
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
    std::lock_guard<std::mutex> lock(limit.mutex);
    limit.loaded = false;
    limit.sites.clear();
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
    std::lock_guard<std::mutex> lock(limit.mutex);
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
    std::lock_guard<std::mutex> lock(limit.mutex);
    return LogRateCounters{limit.formatted, limit.suppressedTotal};
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
    const bool write = Admitted(prio, fmt);
    if (!write && !capture) {
        return 0;
    }
    CountFormatted();
    std::string message = FormatMessage(fmt, ap);
    while (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    CaptureLogLine(prio, tag, message);
    NoteSystemLogLine(prio, tag, message);
    if (!write) {
        return 0;
    }
    CountWrittenBytes(fmt, message.size());
    const size_t written = WriteLine(prio, tag, message);
    CountBudgetedBytes(written);
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
