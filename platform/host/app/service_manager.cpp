/*
 * The service manager's notifications (service_manager.h).
 */
#include "app/service_manager.h"

#include <glib.h>
#include <systemd/sd-daemon.h>

#include "base/host_state.h"
#include "dlog.h"

#define MANAGER_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, ::tilvane::host::kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace service_manager {
namespace {

guint g_watchdogTimer = 0;

gboolean PingCB(gpointer /*data*/)
{
    sd_notify(0, "WATCHDOG=1");
    return G_SOURCE_CONTINUE;
}

}  // namespace

void NotifyReady(const std::string& status)
{
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void NotifyReloading()
{
    sd_notify(0, "RELOADING=1\nSTATUS=reading the configuration again");
}

void NotifyStopping(const std::string& status)
{
    sd_notify(0, ("STOPPING=1\nSTATUS=" + status).c_str());
}

uint64_t StartWatchdog()
{
    uint64_t intervalUs = 0;
    if (g_watchdogTimer != 0 || sd_watchdog_enabled(0, &intervalUs) <= 0 || intervalUs == 0) {
        return 0;
    }
    /* Twice per interval, so that one late turn of the loop is no miss. */
    const guint periodMs = static_cast<guint>(intervalUs / 2000 > 0 ? intervalUs / 2000 : 1);
    g_watchdogTimer = g_timeout_add(periodMs, PingCB, nullptr);
    sd_notify(0, "WATCHDOG=1");
    MANAGER_LOGI("watchdog: the loop pings the service manager every %u ms (interval %llu ms)", periodMs,
                 static_cast<unsigned long long>(intervalUs / 1000));
    return intervalUs;
}

void StopWatchdog()
{
    if (g_watchdogTimer != 0) {
        g_source_remove(g_watchdogTimer);
        g_watchdogTimer = 0;
    }
}

}  // namespace service_manager
}  // namespace host
}  // namespace tilvane
