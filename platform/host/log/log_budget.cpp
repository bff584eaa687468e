#include "log/log_budget.h"

#include <time.h>

#include <mutex>
#include <unordered_map>

namespace tilvane {
namespace host {
namespace {

/* Defaults: see docs/configuration.md, "[log]". */
constexpr int64_t kDefaultAppBytes = 512 * 1024;
constexpr int64_t kDefaultServiceBytes = 4 * 1024 * 1024;
constexpr int64_t kDefaultIntervalMs = 10000;
/* Applications followed one by one; lines of further ones share one budget. */
constexpr size_t kMaxSources = 1024;

struct Window {
    int64_t startUs = 0;
    int64_t bytes = 0;
    int64_t suppressed = 0;
};

struct BudgetState {
    std::mutex mutex;
    /* Counts the times `apps` was emptied: a ticket's window is valid while
     * its generation is the current one. */
    uint64_t generation = 1;
    LogBudgets budgets = DefaultLogBudgets();
    Window service;
    std::unordered_map<std::string, Window> apps;
};

BudgetState& TheBudgetState()
{
    static BudgetState* state = new BudgetState();
    return *state;
}

thread_local const std::string* t_source = nullptr;

int64_t MonotonicUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

/* Starts a new interval when the window's is over; what it suppressed in the
 * one before goes to `owed`. */
void Roll(Window& window, int64_t nowUs, int64_t intervalUs, int64_t& owed)
{
    if (window.startUs == 0 || nowUs - window.startUs >= intervalUs) {
        owed = window.suppressed;
        window = Window();
        window.startUs = nowUs;
    }
}

bool WithinBudget(const Window& window, int64_t budget)
{
    return budget == 0 || window.bytes < budget;
}

/* With the state's lock: the window of the current source, if there is one. */
Window* SourceWindow(BudgetState& s, std::string& name)
{
    if (t_source == nullptr || s.budgets.appBytes == 0) {
        return nullptr;
    }
    auto it = s.apps.find(*t_source);
    if (it == s.apps.end() && s.apps.size() >= kMaxSources) {
        name = "(other applications)";
        return &s.apps[std::string()];
    }
    name = *t_source;
    return &s.apps[*t_source];
}

}  // namespace

LogBudgets DefaultLogBudgets()
{
    return LogBudgets{kDefaultAppBytes, kDefaultServiceBytes, kDefaultIntervalMs};
}

void SetLogBudgets(const LogBudgets& budgets)
{
    BudgetState& s = TheBudgetState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.budgets = budgets;
    if (s.budgets.intervalMs <= 0) {
        s.budgets.intervalMs = kDefaultIntervalMs;
    }
}

LogSourceScope::LogSourceScope(const std::string& app) : m_previous(t_source), m_app(app)
{
    t_source = &m_app;
}

LogSourceScope::~LogSourceScope()
{
    t_source = m_previous;
}

std::mutex& LogAccountingMutex()
{
    return TheBudgetState().mutex;
}

bool AdmitBudgetedLineLocked(LogBudgetNotes& notes, LogBudgetTicket& ticket)
{
    BudgetState& s = TheBudgetState();
    const int64_t nowUs = MonotonicUs();
    const int64_t intervalUs = s.budgets.intervalMs * 1000;
    std::string name;
    Window* app = SourceWindow(s, name);
    ticket.appWindow = app;
    ticket.generation = s.generation;
    if (app != nullptr) {
        Roll(*app, nowUs, intervalUs, notes.appSuppressed);
        notes.app = notes.appSuppressed > 0 ? name : std::string();
        if (!WithinBudget(*app, s.budgets.appBytes)) {
            ++app->suppressed;
            return false;
        }
    }
    if (s.budgets.serviceBytes == 0) {
        return true;
    }
    Roll(s.service, nowUs, intervalUs, notes.serviceSuppressed);
    if (!WithinBudget(s.service, s.budgets.serviceBytes)) {
        ++s.service.suppressed;
        return false;
    }
    return true;
}

void CountBudgetedBytesLocked(const LogBudgetTicket& ticket, size_t bytes)
{
    BudgetState& s = TheBudgetState();
    s.service.bytes += static_cast<int64_t>(bytes);
    std::string name;
    Window* app = ticket.generation == s.generation ? static_cast<Window*>(ticket.appWindow) : SourceWindow(s, name);
    if (app != nullptr) {
        app->bytes += static_cast<int64_t>(bytes);
    }
}

void ForgetLogBudgets()
{
    BudgetState& s = TheBudgetState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.budgets = DefaultLogBudgets();
    s.service = Window();
    s.apps.clear();
    ++s.generation;
}

}  // namespace host
}  // namespace tilvane
