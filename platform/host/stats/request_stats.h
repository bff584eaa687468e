/*
 * What the service has done since it started (or since the counters were
 * reset): per request interface and kind ("Content.Insert",
 * "DataControl.Select", ...) the requests, how many were answered and how
 * many refused or failed, by reason, the budgets they ran past, and
 * histograms of the time their statements took and of the time from the
 * call's arrival to its reply; and the message-port messages the process
 * sent and dropped.
 *
 * The request interfaces open a RequestScope around each call on the thread
 * that serves it and tell it how the call ended (NoteRefusal); the content
 * library tells it how long each statement took and which budget a
 * statement ran past; the message ports tell every send's result. Nothing
 * is counted while statistics are switched off ([stats] enabled).
 *
 * Counting costs one thread-local record per request, filled without a lock,
 * and one short lock when the request ends. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_REQUEST_STATS_H
#define TILVANE_PLATFORM_REQUEST_STATS_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

namespace tilvane {
namespace host {
namespace stats {

/* Upper bounds of the latency buckets in microseconds; the last bucket holds
 * everything above the last bound. */
inline constexpr std::array<int64_t, 16> kLatencyBoundsUs = {
    50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000, 50000, 100000, 200000, 500000, 1000000, 2000000, 5000000};
inline constexpr size_t kLatencyBuckets = kLatencyBoundsUs.size() + 1;

struct Histogram {
    std::array<uint64_t, kLatencyBuckets> counts{};
    uint64_t total = 0;
    int64_t sumUs = 0;
    int64_t maxUs = 0;
    void Add(int64_t us);
    void Merge(const Histogram& other);
};

struct KindStats {
    uint64_t requests = 0;
    uint64_t answered = 0;
    /* Refused or failed, by reason ("permission-level", "strict-where-clause",
     * "budget-time", ...; docs/tools.md lists them). */
    std::map<std::string, uint64_t> refused;
    /* Budgets run past, by BudgetName. */
    std::map<std::string, uint64_t> budgetHits;
    Histogram statementUs;
    Histogram endToEndUs;
};

struct MessageStats {
    uint64_t sent = 0;
    uint64_t dropped = 0;
    /* Dropped, by reason ("port-not-found", "receiver-not-answering", ...). */
    std::map<std::string, uint64_t> droppedBy;
};

struct Snapshot {
    /* Wall-clock time (microseconds since the epoch) the counting began. */
    int64_t sinceUs = 0;
    bool enabled = true;
    /* Keyed "Interface.Method". */
    std::map<std::string, KindStats> kinds;
    MessageStats messages;
};

/* The budgets a statement or a reply can run past. */
enum class Budget { Time, Memory, Length, Pattern, Reply };
inline constexpr size_t kBudgets = 5;
const char* BudgetName(Budget budget);

/* One request while it is served: the interface ("Content", "DataControl")
 * and method name, and when the call arrived (MonotonicUs()). Scopes do not
 * nest; an inner one takes over until it ends. */
class RequestScope {
public:
    RequestScope(const std::string& interfaceName, const std::string& method, int64_t arrivedUs);
    ~RequestScope();
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

    /* What is counted of the request until it ends. */
    struct Record {
        const std::string* interfaceName = nullptr;
        const std::string* method = nullptr;
        int64_t arrivedUs = 0;
        std::string refusal;
        uint32_t budgets = 0;
        Budget firstBudget = Budget::Time;
        Histogram statementUs;
    };

private:
    bool m_counting;
    Record m_record;
    Record* m_previous;
};

/* The monotonic clock the scopes use, in microseconds. */
int64_t MonotonicUs();

/* The request served on this thread was refused or failed for `reason`; the
 * first reason of a request is kept. Nothing outside a scope. */
void NoteRefusal(const char* reason);
/* A statement, or the reply, of the request served on this thread ran past
 * `budget`. */
void NoteBudgetHit(Budget budget);
/* A statement of the request served on this thread took `us`. */
void NoteStatement(int64_t us);
/* True while a request is being counted on this thread (statements outside
 * a request are not timed). */
bool CountingRequest();

/* A message-port message was sent, or dropped for `reason` (null: sent). */
void NoteMessage(const char* droppedReason);

Snapshot Take();
/* Every counter back to zero; the snapshot's time starts again. */
void Reset();
void SetEnabled(bool enabled);
bool Enabled();

/* The snapshot as JSON: {"since": ..., "enabled": ..., "latency_bounds_us":
 * [...], "requests": [{"interface", "kind", "requests", "answered",
 * "refused": {...}, "budget_hits": {...}, "statement_us": {...},
 * "end_to_end_us": {...}}], "messages": {...}, and `extra` members as given
 * (already JSON)}. */
std::string ToJson(const Snapshot& snapshot, const std::map<std::string, std::string>& extra);

}  // namespace stats
}  // namespace host
}  // namespace tilvane

#endif
