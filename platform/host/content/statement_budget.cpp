#include "content/statement_budget.h"

#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

#include "config/config_keys.h"
#include "content/bounded_functions.h"
#include "content/content_log.h"
#include "content/database.h"
#include "base/request_report.h"
#include "stats/request_stats.h"

namespace tilvane {
namespace content {
namespace {

/* SQLite's own ceiling for a length limit. */
constexpr int64_t kMaxLengthLimit = 1000000000;
/* The progress handler runs every this many virtual-machine steps: a few
 * microseconds apart, often enough that an interruption comes within a
 * millisecond of the budget's end, rarely enough to cost nothing measurable. */
constexpr int kProgressSteps = 1000;

thread_local StatementBudgetScope* t_scope = nullptr;
/* When the statement running on this thread began, for the statistics of the
 * request it serves (request_stats.h); 0 when none is timed. */
thread_local int64_t t_statementStartUs = 0;
std::atomic<bool> g_timingInstalled{true};
/* Statements' times are counted for the statistics (SQLITE_TRACE_PROFILE). */
std::atomic<bool> g_statementTimesCounted{true};

/* The coarse clock costs no system call; its few milliseconds of resolution
 * are nothing beside a budget of seconds. */
int64_t MonotonicUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int ProgressCB(void* /*userData*/)
{
    StatementBudgetScope* scope = t_scope;
    return scope != nullptr && scope->OverTime(MonotonicUs()) ? 1 : 0;
}

/* A statement begins running (SQLITE_TRACE_STMT): the programs of its
 * triggers (their text a comment, "-- ...") are part of it and do not start
 * its time again. Or it has run to its end or been reset
 * (SQLITE_TRACE_PROFILE): the statistics of the request count its time,
 * read from the precise clock (SQLite's own figure has a resolution of
 * milliseconds). */
int TraceCB(unsigned type, void* /*userData*/, void* /*statement*/, void* text)
{
    if (type == SQLITE_TRACE_PROFILE) {
        if (t_statementStartUs != 0) {
            host::stats::NoteStatement(host::stats::MonotonicUs() - t_statementStartUs);
            t_statementStartUs = 0;
        }
        return 0;
    }
    StatementBudgetScope* scope = t_scope;
    const char* sql = static_cast<const char*>(text);
    if (type != SQLITE_TRACE_STMT || (sql != nullptr && std::strncmp(sql, "--", 2) == 0)) {
        return 0;
    }
    if (scope != nullptr) {
        scope->StatementStarted(MonotonicUs());
    }
    if (host::stats::CountingRequest()) {
        t_statementStartUs = host::stats::MonotonicUs();
    }
    return 0;
}

void InstallTiming(sqlite3* db, bool installed)
{
    if (installed) {
        sqlite3_progress_handler(db, kProgressSteps, ProgressCB, nullptr);
        sqlite3_trace_v2(db, SQLITE_TRACE_STMT | (g_statementTimesCounted.load() ? SQLITE_TRACE_PROFILE : 0), TraceCB,
                         nullptr);
    } else {
        sqlite3_progress_handler(db, 0, nullptr, nullptr);
        sqlite3_trace_v2(db, 0, nullptr, nullptr);
    }
}

int LengthLimit(int64_t bytes)
{
    return static_cast<int>(bytes < kMaxLengthLimit ? bytes : kMaxLengthLimit);
}

void ApplyLengthLimits(sqlite3* db, const StatementBudgets& budgets)
{
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, LengthLimit(budgets.valueBytes));
    sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, LengthLimit(budgets.valueBytes));
    sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, LengthLimit(budgets.likePatternBytes));
}

host::stats::Budget StatisticsBudget(const std::string& reason)
{
    using host::stats::Budget;
    if (reason == kTimeBudgetText) {
        return Budget::Time;
    }
    if (reason == kMemoryBudgetText) {
        return Budget::Memory;
    }
    return reason == kPatternBudgetText ? Budget::Pattern : Budget::Length;
}

/* What the log line of a request that ran past `reason` says of the budget. */
std::string BudgetOf(const std::string& reason, const StatementBudgets& budgets)
{
    if (reason == kTimeBudgetText) {
        return "time budget " + std::to_string(budgets.statementMs) + " ms";
    }
    if (reason == kMemoryBudgetText) {
        return "heap budget " + std::to_string(budgets.heapBytes) + " bytes";
    }
    if (reason == kPatternBudgetText) {
        return "pattern budget " + std::to_string(budgets.likePatternBytes) + " bytes";
    }
    return "length budget " + std::to_string(budgets.valueBytes) + " bytes";
}

StatementBudgets ReadStatementBudgets()
{
    StatementBudgets budgets;
    budgets.statementMs = host::config::IntegerSetting("budget", "statement-ms", 0);
    budgets.valueBytes = host::config::IntegerSetting("budget", "value-bytes", 1);
    budgets.likePatternBytes = host::config::IntegerSetting("budget", "like-pattern-bytes", 1);
    budgets.heapBytes = host::config::IntegerSetting("budget", "heap-bytes", 0);
    return budgets;
}

}  // namespace

StatementBudgets ConfiguredStatementBudgets()
{
    static host::config::FollowedValue<StatementBudgets> budgets(ReadStatementBudgets);
    return budgets.Get();
}

int ApplyStatementBudgets(sqlite3* db)
{
    const StatementBudgets budgets = ConfiguredStatementBudgets();
    sqlite3_hard_heap_limit64(budgets.heapBytes);
    ApplyLengthLimits(db, budgets);
    InstallTiming(db, g_timingInstalled.load());
    const int rc = RegisterLinearFunctions(db);
    if (rc != SQLITE_OK) {
        return rc;
    }
    return sqlite3_exec(db, "PRAGMA temp_store=MEMORY", nullptr, nullptr, nullptr);
}

void ReapplyStatementBudgets()
{
    const StatementBudgets budgets = ConfiguredStatementBudgets();
    sqlite3_hard_heap_limit64(budgets.heapBytes);
    Database::ForEachOpenHandle([&budgets](sqlite3* db) { ApplyLengthLimits(db, budgets); });
}

void SetStatementTimesCounted(bool counted)
{
    if (g_statementTimesCounted.exchange(counted) == counted) {
        return;
    }
    const bool installed = g_timingInstalled.load();
    Database::ForEachOpenHandle([installed](sqlite3* db) { InstallTiming(db, installed); });
}

void SetStatementTimingInstalled(bool installed)
{
    g_timingInstalled.store(installed);
    Database::ForEachOpenHandle([installed](sqlite3* db) { InstallTiming(db, installed); });
}

StatementBudgetScope::StatementBudgetScope(std::string app, std::string request)
    : m_app(std::move(app)), m_request(std::move(request)), m_budgetUs(ConfiguredStatementBudgets().statementMs * 1000),
      m_statementStartUs(MonotonicUs()), m_previous(t_scope)
{
    t_scope = this;
}

StatementBudgetScope::~StatementBudgetScope()
{
    t_scope = m_previous;
    if (!m_failure.empty()) {
        CONTENT_LOGE("request %s of %s failed: %s (%s)", m_request.c_str(), m_app.c_str(), m_failure.c_str(),
                     BudgetOf(m_failure, ConfiguredStatementBudgets()).c_str());
    }
}

bool StatementBudgetScope::OverTime(int64_t nowUs)
{
    if (m_budgetUs <= 0 || nowUs - m_statementStartUs <= m_budgetUs) {
        return false;
    }
    Fail(kTimeBudgetText);
    return true;
}

void StatementBudgetScope::Fail(const char* reason)
{
    if (m_failure.empty()) {
        m_failure = reason;
        host::RecordBudgetFailure(reason);
        host::stats::NoteBudgetHit(StatisticsBudget(m_failure));
    }
}

const char* NoteStatementFailure(sqlite3* db)
{
    if (db == nullptr) {
        return nullptr;
    }
    StatementBudgetScope* scope = t_scope;
    const char* reason = nullptr;
    switch (sqlite3_errcode(db)) {
    case SQLITE_INTERRUPT:
        reason = scope != nullptr && scope->Failure() == kTimeBudgetText ? kTimeBudgetText : nullptr;
        break;
    case SQLITE_TOOBIG:
        reason = kValueBudgetText;
        break;
    case SQLITE_NOMEM:
        reason = kMemoryBudgetText;
        break;
    case SQLITE_ERROR:
        reason = std::strcmp(sqlite3_errmsg(db), "LIKE or GLOB pattern too complex") == 0 ? kPatternBudgetText : nullptr;
        break;
    default:
        break;
    }
    if (reason == nullptr) {
        return nullptr;
    }
    if (scope != nullptr) {
        scope->Fail(reason);
    } else {
        host::RecordBudgetFailure(reason);
    }
    return reason;
}

}  // namespace content
}  // namespace tilvane
