/*
 * The service's statistics (request_stats.h).
 */
#include "stats/request_stats.h"

#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>

namespace tilvane {
namespace host {
namespace stats {
namespace {

struct StatsState {
    std::mutex mutex;
    Snapshot snapshot;
};

int64_t WallClockUs()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

StatsState& TheStatsState()
{
    static StatsState* state = [] {
        StatsState* fresh = new StatsState();
        fresh->snapshot.sinceUs = WallClockUs();
        return fresh;
    }();
    return *state;
}

std::atomic<bool> g_enabled{true};
thread_local RequestScope::Record* t_current = nullptr;

void AddKind(const RequestScope::Record& record, int64_t endToEndUs)
{
    StatsState& s = TheStatsState();
    std::lock_guard<std::mutex> lock(s.mutex);
    KindStats& kind = s.snapshot.kinds[*record.interfaceName + "." + *record.method];
    ++kind.requests;
    if (record.refusal.empty()) {
        ++kind.answered;
    } else {
        /* A request that ran past a budget failed because of it, whatever
         * answer its failure took. */
        const std::string reason =
            record.budgets != 0 ? std::string("budget-") + BudgetName(record.firstBudget) : record.refusal;
        ++kind.refused[reason];
    }
    for (size_t b = 0; b < kBudgets; ++b) {
        if ((record.budgets & (1u << b)) != 0) {
            ++kind.budgetHits[BudgetName(static_cast<Budget>(b))];
        }
    }
    kind.statementUs.Merge(record.statementUs);
    kind.endToEndUs.Add(endToEndUs);
}

}  // namespace

const char* BudgetName(Budget budget)
{
    switch (budget) {
    case Budget::Time: return "time";
    case Budget::Memory: return "memory";
    case Budget::Length: return "length";
    case Budget::Pattern: return "pattern";
    case Budget::Reply: return "reply";
    }
    return "unknown";
}

void Histogram::Add(int64_t us)
{
    if (us < 0) {
        us = 0;
    }
    const auto bound = std::lower_bound(kLatencyBoundsUs.begin(), kLatencyBoundsUs.end(), us);
    ++counts[static_cast<size_t>(bound - kLatencyBoundsUs.begin())];
    ++total;
    sumUs += us;
    maxUs = std::max(maxUs, us);
}

void Histogram::Merge(const Histogram& other)
{
    for (size_t i = 0; i < kLatencyBuckets; ++i) {
        counts[i] += other.counts[i];
    }
    total += other.total;
    sumUs += other.sumUs;
    maxUs = std::max(maxUs, other.maxUs);
}

int64_t MonotonicUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

RequestScope::RequestScope(const std::string& interfaceName, const std::string& method, int64_t arrivedUs)
    : m_counting(g_enabled.load(std::memory_order_relaxed)), m_previous(t_current)
{
    if (!m_counting) {
        return;
    }
    m_record.interfaceName = &interfaceName;
    m_record.method = &method;
    m_record.arrivedUs = arrivedUs;
    t_current = &m_record;
}

RequestScope::~RequestScope()
{
    if (!m_counting) {
        return;
    }
    t_current = m_previous;
    AddKind(m_record, MonotonicUs() - m_record.arrivedUs);
}

void NoteRefusal(const char* reason)
{
    RequestScope::Record* record = t_current;
    if (record != nullptr && record->refusal.empty() && reason != nullptr) {
        record->refusal = reason;
    }
}

void NoteBudgetHit(Budget budget)
{
    RequestScope::Record* record = t_current;
    if (record == nullptr) {
        return;
    }
    if (record->budgets == 0) {
        record->firstBudget = budget;
    }
    record->budgets |= 1u << static_cast<unsigned>(budget);
}

void NoteStatement(int64_t us)
{
    RequestScope::Record* record = t_current;
    if (record != nullptr) {
        record->statementUs.Add(us);
    }
}

bool CountingRequest()
{
    return t_current != nullptr;
}

void NoteMessage(const char* droppedReason)
{
    if (!g_enabled.load(std::memory_order_relaxed)) {
        return;
    }
    StatsState& s = TheStatsState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (droppedReason == nullptr) {
        ++s.snapshot.messages.sent;
        return;
    }
    ++s.snapshot.messages.dropped;
    ++s.snapshot.messages.droppedBy[droppedReason];
}

Snapshot Take()
{
    StatsState& s = TheStatsState();
    std::lock_guard<std::mutex> lock(s.mutex);
    Snapshot copy = s.snapshot;
    copy.enabled = g_enabled.load();
    return copy;
}

void Reset()
{
    StatsState& s = TheStatsState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.snapshot = Snapshot();
    s.snapshot.sinceUs = WallClockUs();
}

void SetEnabled(bool enabled)
{
    g_enabled.store(enabled);
}

bool Enabled()
{
    return g_enabled.load();
}

/* ---- JSON ------------------------------------------------------------------ */

namespace {

std::string Quote(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string CountsJson(const std::map<std::string, uint64_t>& counts)
{
    std::string out = "{";
    for (const auto& entry : counts) {
        out += (out.size() > 1 ? ", " : "") + Quote(entry.first) + ": " + std::to_string(entry.second);
    }
    return out + "}";
}

std::string HistogramJson(const Histogram& histogram)
{
    std::string buckets;
    for (const uint64_t count : histogram.counts) {
        buckets += (buckets.empty() ? "" : ", ") + std::to_string(count);
    }
    return "{\"count\": " + std::to_string(histogram.total) + ", \"sum\": " + std::to_string(histogram.sumUs) +
           ", \"max\": " + std::to_string(histogram.maxUs) + ", \"buckets\": [" + buckets + "]}";
}

std::string KindJson(const std::string& key, const KindStats& kind)
{
    const size_t dot = key.find('.');
    return "{\"interface\": " + Quote(key.substr(0, dot)) + ", \"kind\": " + Quote(key.substr(dot + 1)) +
           ", \"requests\": " + std::to_string(kind.requests) + ", \"answered\": " + std::to_string(kind.answered) +
           ", \"refused\": " + CountsJson(kind.refused) + ", \"budget_hits\": " + CountsJson(kind.budgetHits) +
           ",\n      \"statement_us\": " + HistogramJson(kind.statementUs) +
           ",\n      \"end_to_end_us\": " + HistogramJson(kind.endToEndUs) + "}";
}

}  // namespace

std::string ToJson(const Snapshot& snapshot, const std::map<std::string, std::string>& extra)
{
    std::string bounds;
    for (const int64_t bound : kLatencyBoundsUs) {
        bounds += (bounds.empty() ? "" : ", ") + std::to_string(bound);
    }
    std::string out = "{\n  \"since_us\": " + std::to_string(snapshot.sinceUs) +
                      ",\n  \"enabled\": " + (snapshot.enabled ? "true" : "false") +
                      ",\n  \"latency_bounds_us\": [" + bounds + "],\n  \"requests\": [";
    bool first = true;
    for (const auto& entry : snapshot.kinds) {
        out += (first ? "\n    " : ",\n    ") + KindJson(entry.first, entry.second);
        first = false;
    }
    out += snapshot.kinds.empty() ? "],\n" : "\n  ],\n";
    out += "  \"messages\": {\"sent\": " + std::to_string(snapshot.messages.sent) +
           ", \"dropped\": " + std::to_string(snapshot.messages.dropped) +
           ", \"dropped_by\": " + CountsJson(snapshot.messages.droppedBy) + "}";
    for (const auto& member : extra) {
        out += ",\n  " + Quote(member.first) + ": " + member.second;
    }
    return out + "\n}\n";
}

}  // namespace stats
}  // namespace host
}  // namespace tilvane
