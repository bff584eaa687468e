#include "app/bus_supervision.h"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "base/host_state.h"
#include "bus/bus_connection.h"
#include "bus/signal_bus.h"
#include "config/config_keys.h"
#include "dlog.h"

namespace tilvane {
namespace host {
namespace {

#define SUPERVISION_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define SUPERVISION_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

constexpr unsigned kFirstPauseMs = 100;
constexpr unsigned kLongestPauseMs = 1000;

/* The loop's thread only. */
struct Supervision {
    void (*giveUp)() = nullptr;
    guint timer = 0;
    int64_t lostAtUs = 0;
    unsigned pauseMs = 0;
};

Supervision& TheSupervision()
{
    static Supervision* supervision = new Supervision();
    return *supervision;
}

int64_t ReconnectBudgetMs()
{
    return config::IntegerSetting("bus", "reconnect-ms", 1);
}

/* Every name and port owned again, and the notifications subscribed again. */
bool Restored(std::string& why)
{
    if (!RestoreBusConnection(why)) {
        return false;
    }
    if (!signals::Reconnect()) {
        why = "the notification connection cannot be opened";
        return false;
    }
    return true;
}

gboolean AttemptCB(gpointer /*data*/)
{
    Supervision& s = TheSupervision();
    s.timer = 0;
    std::string why;
    const bool back = Restored(why);
    const int64_t elapsedMs = (g_get_monotonic_time() - s.lostAtUs) / 1000;
    if (back) {
        SUPERVISION_LOGI("message bus connection back after %lld ms: every name and port is owned again",
                         static_cast<long long>(elapsedMs));
        return G_SOURCE_REMOVE;
    }
    if (elapsedMs >= ReconnectBudgetMs()) {
        SUPERVISION_LOGE("message bus connection not back after %lld ms (%s); ending with a failure so that the "
                         "service is started again",
                         static_cast<long long>(elapsedMs), why.c_str());
        if (s.giveUp != nullptr) {
            s.giveUp();
        }
        return G_SOURCE_REMOVE;
    }
    s.pauseMs = std::min(std::max(s.pauseMs * 2, kFirstPauseMs), kLongestPauseMs);
    s.timer = g_timeout_add(s.pauseMs, AttemptCB, nullptr);
    return G_SOURCE_REMOVE;
}

void OnConnectionLost()
{
    Supervision& s = TheSupervision();
    if (s.giveUp == nullptr || s.timer != 0) {
        return;  // not supervised, or an attempt is already due
    }
    s.lostAtUs = g_get_monotonic_time();
    s.pauseMs = 0;
    s.timer = g_idle_add(AttemptCB, nullptr);
}

}  // namespace

void StartBusSupervision(void (*giveUp)())
{
    TheSupervision().giveUp = giveUp;
    SetConnectionLostHandler(OnConnectionLost);
}

void StopBusSupervision()
{
    SetConnectionLostHandler(nullptr);
    Supervision& s = TheSupervision();
    if (s.timer != 0) {
        g_source_remove(s.timer);
        s.timer = 0;
    }
    s.giveUp = nullptr;
}

}  // namespace host
}  // namespace tilvane
