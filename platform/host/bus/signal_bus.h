/*
 * Platform notifications between processes: broadcast signals on the session
 * bus (DBUS_SESSION_BUS_ADDRESS), on a connection of their own beside the
 * message-port one.
 *
 *   path      /org/tilvane/Platform
 *   org.tilvane.Configuration.KeyChanged(s key, i value)
 *   org.tilvane.Power.PowerOff(i type)
 *
 * A subscription's callback runs on the GLib default main context. Signals
 * that this process emitted itself are not handed back to it: the emitter
 * notifies its own watchers directly.
 */
#ifndef TILVANE_PLATFORM_SIGNAL_BUS_H
#define TILVANE_PLATFORM_SIGNAL_BUS_H

#include <gio/gio.h>

namespace tilvane {
namespace host {
namespace signals {

constexpr char kPath[] = "/org/tilvane/Platform";
constexpr char kConfigurationInterface[] = "org.tilvane.Configuration";
constexpr char kKeyChanged[] = "KeyChanged";
constexpr char kPowerInterface[] = "org.tilvane.Power";
constexpr char kPowerOff[] = "PowerOff";

/* Handler of one kind of signal; gets the signal's parameters. */
typedef void (*SignalHandler)(GVariant* parameters);

/* Makes sure signals `interface`.`member` from other processes reach
 * `handler`. False when there is no usable bus (the caller then works within
 * the process only). Subscribing the same member twice is a no-op. */
bool Subscribe(const char* interface, const char* member, SignalHandler handler);

/* Opens a connection in place of a lost one, with every subscription made
 * so far; true when there is one (or nothing is subscribed). */
bool Reconnect();

/* Emits a signal (taking a floating `parameters`) and flushes it, so that it
 * leaves before a short-lived process ends. False without a usable bus. */
bool Emit(const char* interface, const char* member, GVariant* parameters);

}  // namespace signals
}  // namespace host
}  // namespace tilvane

#endif
