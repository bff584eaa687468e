/*
 * Power-off notification on the host. A power-off of type N is the bus signal
 * org.tilvane.Power.PowerOff(i type) (signal_bus.h); RaisePowerOff of the
 * control API calls this process's subscribers at once and emits the signal
 * for the others.
 */
#include "device_power.h"

#include <mutex>
#include <vector>

#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "bus/signal_bus.h"
#include "dlog.h"
#include "host_control/system.h"
#include "host_control/base.h"

namespace tilvane {
namespace host {
namespace {

#define POWER_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)

struct Subscriber {
    device_power_poweroff_cb callback;
    void* userData;
};

struct PowerState {
    std::mutex mutex;
    std::vector<Subscriber> subscribers;
};

PowerState& ThePowerState()
{
    static PowerState* state = new PowerState();
    return *state;
}

int NotifySubscribers(int type)
{
    std::vector<Subscriber> subscribers;
    {
        PowerState& s = ThePowerState();
        std::lock_guard<std::mutex> lock(s.mutex);
        subscribers = s.subscribers;
    }
    POWER_LOGD("power-off of type %d: %zu subscriber(s)", type, subscribers.size());
    for (const Subscriber& subscriber : subscribers) {
        subscriber.callback(type, subscriber.userData);
    }
    return static_cast<int>(subscribers.size());
}

void OnPowerOffSignal(GVariant* parameters)
{
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(i)"))) {
        return;
    }
    gint32 type = 0;
    g_variant_get(parameters, "(i)", &type);
    NotifySubscribers(type);
}

}  // namespace

int RaisePowerOff(int type)
{
    const int called = NotifySubscribers(type);
    signals::Emit(signals::kPowerInterface, signals::kPowerOff, g_variant_new("(i)", type));
    return called;
}

int PowerOffSubscriberCount()
{
    PowerState& s = ThePowerState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return static_cast<int>(s.subscribers.size());
}

void ForgetPowerOffSubscribers()
{
    PowerState& s = ThePowerState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.subscribers.clear();
}

namespace {
/* Reset(): no power-off subscriber. */
const ResetHook kResetForgetPowerOffSubscribers(6, ForgetPowerOffSubscribers);
}  // namespace

}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

extern "C" int device_power_subscribe_poweroff(device_power_poweroff_cb cb, void* user_data)
{
    if (ShouldFail("device_power_subscribe_poweroff")) {
        return DEVICE_ERROR_OPERATION_FAILED;
    }
    if (cb == nullptr) {
        return DEVICE_ERROR_INVALID_PARAMETER;
    }
    {
        PowerState& s = ThePowerState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const Subscriber& subscriber : s.subscribers) {
            if (subscriber.callback == cb) {
                return DEVICE_ERROR_ALREADY_IN_PROGRESS;
            }
        }
        s.subscribers.push_back(Subscriber{cb, user_data});
    }
    if (!signals::Subscribe(signals::kPowerInterface, signals::kPowerOff, OnPowerOffSignal)) {
        POWER_LOGD("no message bus: power-off is seen within this process only");
    }
    return DEVICE_ERROR_NONE;
}

extern "C" int device_power_unsubscribe_poweroff(device_power_poweroff_cb cb)
{
    if (ShouldFail("device_power_unsubscribe_poweroff")) {
        return DEVICE_ERROR_OPERATION_FAILED;
    }
    if (cb == nullptr) {
        return DEVICE_ERROR_INVALID_PARAMETER;
    }
    PowerState& s = ThePowerState();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (auto it = s.subscribers.begin(); it != s.subscribers.end(); ++it) {
        if (it->callback == cb) {
            s.subscribers.erase(it);
            return DEVICE_ERROR_NONE;
        }
    }
    return DEVICE_ERROR_INVALID_PARAMETER;
}
