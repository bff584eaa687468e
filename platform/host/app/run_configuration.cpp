/*
 * The configuration of a running service application (run_configuration.h).
 */
#include "app/run_configuration.h"

#include "app/service_manager.h"
#include "base/host_state.h"
#include "config/config_keys.h"
#include "content/statement_budget.h"
#include "dlog.h"
#include "log/log_budget.h"
#include "log/log_settings.h"
#include "stats/request_stats.h"

#define RUN_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define RUN_LOGW(...) __dlog_print(LOG_ID_MAIN, DLOG_WARN, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)
#define RUN_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace run_configuration {
namespace {

int64_t NonNegativeSetting(const char* group, const char* key, int64_t fallback)
{
    const int64_t value = config::Integer(group, key, fallback);
    return value >= 0 ? value : fallback;
}

/* The log's byte budgets ([log] app-bytes, service-bytes, budget-interval-ms). */
void ApplyLogBudgets()
{
    LogBudgets budgets = DefaultLogBudgets();
    budgets.appBytes = NonNegativeSetting("log", "app-bytes", budgets.appBytes);
    budgets.serviceBytes = NonNegativeSetting("log", "service-bytes", budgets.serviceBytes);
    budgets.intervalMs = NonNegativeSetting("log", "budget-interval-ms", budgets.intervalMs);
    SetLogBudgets(budgets);
}

void ApplyLogSettings()
{
    LogSettings settings;
    settings.level = config::String("log", "level", "");
    settings.rateBurst = NonNegativeSetting("log", "rate-burst", -1);
    settings.rateIntervalMs = NonNegativeSetting("log", "rate-interval-ms", -1);
    settings.rateBytes = NonNegativeSetting("log", "rate-bytes", -1);
    SetConfiguredLogSettings(settings);
}

}  // namespace

void ApplyRunTimeSettings()
{
    ApplyLogSettings();
    ApplyLogBudgets();
    content::ReapplyStatementBudgets();
    const bool statistics = config::BoolSetting("stats", "enabled");
    stats::SetEnabled(statistics);
    content::SetStatementTimesCounted(statistics);
}

void LogAtStart(const config::Resolution& where)
{
    const config::ConfigurationReport report = config::DescribeConfiguration(where, config::Entries());
    RUN_LOGI("%s", report.summary.c_str());
    for (const std::string& line : report.unknown) {
        RUN_LOGW("%s", line.c_str());
    }
}

void Reload()
{
    service_manager::NotifyReloading();
    std::vector<config::Change> changes;
    std::string problem;
    if (!config::Reload(changes, problem)) {
        RUN_LOGE("configuration read again (SIGHUP): %s; nothing changed", problem.c_str());
    } else {
        ApplyRunTimeSettings();
        if (changes.empty()) {
            RUN_LOGI("configuration read again (SIGHUP): nothing changed");
        }
        for (const config::Change& change : changes) {
            if (change.applied) {
                RUN_LOGI("configuration read again (SIGHUP): %s", config::DescribeChange(change).c_str());
            } else {
                RUN_LOGW("configuration read again (SIGHUP): %s takes effect at the next start",
                         config::DescribeChange(change).c_str());
            }
        }
    }
    service_manager::NotifyReady("serving requests");
}

}  // namespace run_configuration
}  // namespace host
}  // namespace tilvane
