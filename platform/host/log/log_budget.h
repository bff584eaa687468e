/*
 * The log's byte budgets per source, as journald holds each service to a
 * rate. Every line the per-site rate limit lets through (dlog.cpp) counts
 * against the budget of the service as a whole; a line logged while the
 * service handles a request of an application on either request interface
 * (LogSourceScope) counts against that application's budget as well.
 * (Messages on message ports, whose handling the subscription bounds and the
 * per-site limits already bound, count against the service's budget only.) In each interval a
 * budget lets lines through until their bytes reach it; further lines are
 * dropped, and the first line of that source in a later interval is preceded
 * by one line saying how many were:
 *
 *   N lines suppressed (log budget of application org.example.app)
 *   N lines suppressed (log budget of the service)
 *
 * The service's own texts do not change; log capture (tests) keeps every
 * line. Internal to the host platform; the service application sets the
 * budgets from the integrator's configuration ([log]) before it starts.
 */
#ifndef TILVANE_PLATFORM_LOG_BUDGET_H
#define TILVANE_PLATFORM_LOG_BUDGET_H

#include <cstdint>
#include <mutex>
#include <string>

namespace tilvane {
namespace host {

struct LogBudgets {
    /* Bytes per interval; 0: no budget. */
    int64_t appBytes;
    int64_t serviceBytes;
    int64_t intervalMs;
};

/* The defaults (docs/configuration.md says why). */
LogBudgets DefaultLogBudgets();
void SetLogBudgets(const LogBudgets& budgets);

/* Lines logged on this thread until destruction are the application's. */
class LogSourceScope {
public:
    explicit LogSourceScope(const std::string& app);
    ~LogSourceScope();
    LogSourceScope(const LogSourceScope&) = delete;
    LogSourceScope& operator=(const LogSourceScope&) = delete;

private:
    const std::string* m_previous;
    std::string m_app;
};

/* What a line owes before it is written: the suppression lines of earlier
 * intervals. */
struct LogBudgetNotes {
    int64_t appSuppressed = 0;
    std::string app;
    int64_t serviceSuppressed = 0;
};

/* The lock of the log's accounting. The rate limit of call sites (dlog.cpp)
 * and these budgets share it, so that a line takes one lock to be let
 * through and one to be counted. */
std::mutex& LogAccountingMutex();

/* Where a line was let through, kept from its admission to its counting. */
struct LogBudgetTicket {
    void* appWindow = nullptr;
    uint64_t generation = 0;
};

/* With LogAccountingMutex() held, before a line is formatted: whether the
 * budgets let it through now. */
bool AdmitBudgetedLineLocked(LogBudgetNotes& notes, LogBudgetTicket& ticket);
/* With LogAccountingMutex() held: the bytes of a line that was written. */
void CountBudgetedBytesLocked(const LogBudgetTicket& ticket, size_t bytes);
/* Back to the defaults, with nothing counted (host reset). */
void ForgetLogBudgets();

}  // namespace host
}  // namespace tilvane

#endif
