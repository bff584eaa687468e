/*
 * Content library: the budgets of the statements a request runs.
 *
 * Every connection the library opens gets, at configuration:
 *   - a time budget: a progress handler that interrupts a statement running
 *     past `[budget] statement-ms` while a request is served on the thread
 *     (StatementBudgetScope); a statement's time counts from its first step
 *     (SQLite's trace hook says when a statement starts), stepping and the
 *     work between its steps alike;
 *   - value limits: no string or blob, and no row, longer than
 *     `[budget] value-bytes` (SQLITE_LIMIT_LENGTH; SQLITE_LIMIT_SQL_LENGTH the
 *     same), no LIKE or GLOB pattern longer than `[budget] like-pattern-bytes`;
 *   - temporary storage in memory (temp_store), so that sorts, temporary
 *     tables and indices and statement journals never make a file: they are
 *     held to the heap budget below;
 *   - instr() and replace() that run in time linear in their arguments
 *     (bounded_functions.h): SQLite's own cost the product of their lengths,
 *     within one step that no progress handler interrupts.
 * The process's SQLite heap is held to `[budget] heap-bytes`
 * (sqlite3_hard_heap_limit64) from the first connection on.
 *
 * A request whose statement runs past a budget fails with its reason (the
 * texts below) recorded in the request's report, and one log line names the
 * application when the request ends.
 */
#ifndef TILVANE_CONTENT_STATEMENT_BUDGET_H
#define TILVANE_CONTENT_STATEMENT_BUDGET_H

#include <cstdint>
#include <string>

#include <sqlite3.h>

namespace tilvane {
namespace content {

/* The reasons a client is given. */
inline constexpr char kTimeBudgetText[] = "statement ran past its time budget";
inline constexpr char kMemoryBudgetText[] = "statement ran past its memory budget";
inline constexpr char kValueBudgetText[] =
    "statement ran past its length budget: a value, a row or the statement's text is too long";
inline constexpr char kPatternBudgetText[] =
    "statement ran past its length budget: a LIKE or GLOB pattern is too long";

struct StatementBudgets
{
    /* 0: statements are not timed. */
    int64_t statementMs;
    int64_t valueBytes;
    int64_t likePatternBytes;
    /* 0: no heap limit. */
    int64_t heapBytes;
};

/* The integrator's budgets, or their defaults (docs/configuration.md). */
StatementBudgets ConfiguredStatementBudgets();

/* Puts the budgets on a connection that was just opened (limits, temporary
 * storage, the progress handler and the trace hook, the linear functions),
 * and the heap limit on the process the first time. SQLite's result code. */
int ApplyStatementBudgets(sqlite3* db);

/* Puts the budgets as the configuration now says on the process (the heap
 * limit) and on every open connection (the length limits): after the
 * configuration was read again. The time budget is read by every request. */
void ReapplyStatementBudgets();

/* Whether the time of each statement of a request is told to the
 * statistics (stats/request_stats.h): the trace hook's profile events are
 * installed on every open connection while they are counted, none while the
 * statistics are switched off. */
void SetStatementTimesCounted(bool counted);

/* Installs (true) or removes the time budget's progress handler and trace
 * hook on every open connection; for the benchmarks that weigh its cost. */
void SetStatementTimingInstalled(bool installed);

/* Arms the time budget for the statements run on this thread until
 * destruction: one request of `app`. Scopes do not nest (an inner one takes
 * over until it ends). When a budget was exceeded, the destructor writes one
 * log line naming the application. */
class StatementBudgetScope
{
public:
    StatementBudgetScope(std::string app, std::string request);
    ~StatementBudgetScope();
    StatementBudgetScope(const StatementBudgetScope&) = delete;
    StatementBudgetScope& operator=(const StatementBudgetScope&) = delete;

    /* The reason of the first budget the request ran past, "" for none. */
    const std::string& Failure() const { return m_failure; }

    /* Internal to the budget's hooks. */
    void StatementStarted(int64_t nowUs) { m_statementStartUs = nowUs; }
    bool OverTime(int64_t nowUs);
    void Fail(const char* reason);

private:
    std::string m_app;
    std::string m_request;
    int64_t m_budgetUs;
    int64_t m_statementStartUs;
    std::string m_failure;
    StatementBudgetScope* m_previous;
};

/* After a statement on `db` failed: when the failure came from a budget
 * (interrupted by the time budget, a value over its length, the heap at its
 * limit), records the budget's reason for the request and returns it;
 * otherwise null. */
const char* NoteStatementFailure(sqlite3* db);

}  // namespace content
}  // namespace tilvane

#endif
