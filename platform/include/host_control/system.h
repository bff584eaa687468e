/*
 * Test control API, system: configuration keys, power-off and system
 * information, kept in a settings file under the platform's database
 * directory and shared by every process on the same platform root. Part of
 * host_control.h (for tests and tools).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_SYSTEM_H
#define TILVANE_PLATFORM_HOST_CONTROL_SYSTEM_H

#include <string>

namespace tilvane {
namespace host {

/* Sets the integer key as vconf_set_int does (no failure injection): watchers
 * in this process run from the GLib default main context, watchers in other
 * processes when the bus signal reaches them. */
bool SetConfigurationKey(const std::string& key, int value);
/* Removes the key, so that vconf_get_int reports it missing; no notification. */
bool RemoveConfigurationKey(const std::string& key);
/* How many vconf_notify_key_changed registrations this process has for `key`. */
int KeyWatcherCount(const std::string& key);
/* A power-off of `type`: calls this process's subscribers at once (returns how
 * many) and emits the bus signal that reaches other processes. */
int RaisePowerOff(int type);
/* How many device_power_subscribe_poweroff callbacks this process has. */
int PowerOffSubscriberCount();
/* The boolean value that system_info_get_value_bool(key) reads. */
bool SetSystemInfoBool(int key, bool value);

}  // namespace host
}  // namespace tilvane

#endif
