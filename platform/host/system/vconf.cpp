/*
 * Configuration keys on the host. Values are kept in the settings store
 * (settings_store.h); a set announces itself with the bus signal
 * org.tilvane.Configuration.KeyChanged(s key, i value) (signal_bus.h). Watchers
 * of this process are called through an idle source on the GLib default main
 * context, and those of other processes when the signal reaches them.
 */
#include "vconf.h"

#include <glib.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "config/settings_store.h"
#include "bus/signal_bus.h"
#include "dlog.h"
#include "host_control/system.h"
#include "host_control/base.h"

struct _keynode_t {
    std::string name;
    int value;
};

namespace tilvane {
namespace host {
namespace {

#define VCONF_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define VCONF_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

struct Watch {
    std::string key;
    vconf_callback_fn callback;
    void* userData;
};

struct VconfState {
    std::mutex mutex;
    std::vector<Watch> watches;
};

VconfState& TheVconfState()
{
    static VconfState* state = new VconfState();
    return *state;
}

/* Calls the watchers of `key` registered at this moment. Main context only. */
void NotifyWatchers(const std::string& key, int value)
{
    std::vector<Watch> matching;
    {
        VconfState& s = TheVconfState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const Watch& watch : s.watches) {
            if (watch.key == key) {
                matching.push_back(watch);
            }
        }
    }
    VCONF_LOGD("key %s changed to %d: %zu watcher(s)", key.c_str(), value, matching.size());
    for (const Watch& watch : matching) {
        _keynode_t node{key, value};
        watch.callback(&node, watch.userData);
    }
}

struct PendingChange {
    std::string key;
    int value;
};

gboolean DeliverChangeCB(gpointer data)
{
    const PendingChange* change = static_cast<const PendingChange*>(data);
    NotifyWatchers(change->key, change->value);
    return G_SOURCE_REMOVE;
}

void FreeChangeCB(gpointer data)
{
    delete static_cast<PendingChange*>(data);
}

void PostLocalChange(const std::string& key, int value)
{
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, DeliverChangeCB, new PendingChange{key, value}, FreeChangeCB);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

void OnKeyChangedSignal(GVariant* parameters)
{
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(si)"))) {
        return;
    }
    const gchar* key = nullptr;
    gint32 value = 0;
    g_variant_get(parameters, "(&si)", &key, &value);
    NotifyWatchers(key, value);
}

}  // namespace

bool SetConfigurationKey(const std::string& key, int value)
{
    if (key.empty() || !settings::WriteKey(key, value)) {
        return false;
    }
    PostLocalChange(key, value);
    signals::Emit(signals::kConfigurationInterface, signals::kKeyChanged, g_variant_new("(si)", key.c_str(), value));
    return true;
}

bool RemoveConfigurationKey(const std::string& key)
{
    return settings::RemoveKey(key);
}

int KeyWatcherCount(const std::string& key)
{
    VconfState& s = TheVconfState();
    std::lock_guard<std::mutex> lock(s.mutex);
    int count = 0;
    for (const Watch& watch : s.watches) {
        count += watch.key == key ? 1 : 0;
    }
    return count;
}

void ForgetKeyWatchers()
{
    VconfState& s = TheVconfState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.watches.clear();
}

namespace {
/* Reset(): no key watcher. */
const ResetHook kResetForgetKeyWatchers(6, ForgetKeyWatchers);
}  // namespace

}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

extern "C" int vconf_get_int(const char* key, int* value)
{
    if (ShouldFail("vconf_get_int")) {
        return VCONF_ERROR;
    }
    if (key == nullptr || *key == '\0' || value == nullptr) {
        return VCONF_ERROR;
    }
    int stored = 0;
    switch (settings::ReadKey(key, stored)) {
    case settings::ReadResult::Found:
        *value = stored;
        return VCONF_OK;
    case settings::ReadResult::Missing:
        return VCONF_ERROR_FILE_NO_ENT;
    default:
        return VCONF_ERROR;
    }
}

extern "C" int vconf_set_int(const char* key, int value)
{
    if (ShouldFail("vconf_set_int")) {
        return VCONF_ERROR;
    }
    if (key == nullptr || *key == '\0') {
        return VCONF_ERROR;
    }
    return SetConfigurationKey(key, value) ? VCONF_OK : VCONF_ERROR;
}

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data)
{
    if (ShouldFail("vconf_notify_key_changed")) {
        return VCONF_ERROR;
    }
    if (key == nullptr || *key == '\0' || cb == nullptr) {
        return VCONF_ERROR;
    }
    {
        VconfState& s = TheVconfState();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const Watch& watch : s.watches) {
            if (watch.key == key && watch.callback == cb && watch.userData == user_data) {
                return VCONF_ERROR;
            }
        }
        s.watches.push_back(Watch{key, cb, user_data});
    }
    if (!signals::Subscribe(signals::kConfigurationInterface, signals::kKeyChanged, OnKeyChangedSignal)) {
        VCONF_LOGD("no message bus: key %s is watched within this process only", key);
    }
    return VCONF_OK;
}

extern "C" int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb)
{
    if (ShouldFail("vconf_ignore_key_changed")) {
        return VCONF_ERROR;
    }
    if (key == nullptr || cb == nullptr) {
        return VCONF_ERROR;
    }
    VconfState& s = TheVconfState();
    std::lock_guard<std::mutex> lock(s.mutex);
    bool removed = false;
    for (auto it = s.watches.begin(); it != s.watches.end();) {
        if (it->key == key && it->callback == cb) {
            it = s.watches.erase(it);
            removed = true;
        } else {
            ++it;
        }
    }
    return removed ? VCONF_OK : VCONF_ERROR;
}

extern "C" int vconf_keynode_get_int(keynode_t* keynode)
{
    return keynode != nullptr ? keynode->value : VCONF_ERROR;
}

extern "C" const char* vconf_keynode_get_name(keynode_t* keynode)
{
    return keynode != nullptr ? keynode->name.c_str() : nullptr;
}
