/*
 * Control API of the host platform, for tests only: the system never calls it.
 *
 * It lets a test make platform calls fail on purpose, read the lines that the
 * platform log wrote, replace real sleeping by a recorded virtual clock, and
 * raise application events. Everything here is process-wide; Reset() puts it
 * back to the state of a fresh process.
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_H
#define TILVANE_PLATFORM_HOST_CONTROL_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "service_app.h"

namespace tilvane {
namespace host {

/* ---- failure injection ---------------------------------------------------- */

/* The next `count` calls of the platform function `function` (its C or C++ name,
 * for example "register_insert_db_callback" or "bundle_del") fail with that
 * function's own error result. A count of -1 makes every call fail until
 * ClearFailures(). */
void FailNextCalls(const std::string& function, int count);
/* The same after letting `passes` calls of `function` succeed first. */
void FailCallsAfter(const std::string& function, int passes, int count);
void ClearFailures();
/* Used by the platform functions themselves: true when this call must fail. */
bool ShouldFail(const char* function);
/* How many calls of `function` have been seen since the last Reset(),
 * failed or not. Counted only for functions that consult ShouldFail. */
int CallCount(const std::string& function);

/* ---- log capture --------------------------------------------------------- */

struct LogLine {
    int priority;        /* a log_priority value */
    std::string tag;
    std::string message; /* the formatted text, without a trailing newline */
    int64_t timeUs;      /* Now() when the line was written */
};

/* While capture is on, every line that __dlog_print writes (whatever its
 * priority) is also kept in memory, in order. */
void StartLogCapture();
void StopLogCapture();
std::vector<LogLine> CapturedLog();
/* Only the messages, optionally of one tag. */
std::vector<std::string> CapturedMessages(const std::string& tag = std::string());
void ClearCapturedLog();

/* The log's rate limit (dlog.cpp): lines formatted, and lines that the limit
 * kept from standard error, since the last Reset(). */
struct LogRateCounters {
    int64_t formatted;
    int64_t suppressed;
};
LogRateCounters LogRateCountersNow();

/* ---- time -------------------------------------------------------------- */

/* Monotonic microseconds; on the virtual clock, the sum of the sleeps recorded. */
int64_t Now();

/* With the virtual clock on, sleep() and usleep() return at once, add their
 * duration to the clock and record it. Off (the default), they sleep for real. */
void UseVirtualClock(bool on);
bool VirtualClockInUse();
/* Durations in microseconds of the sleeps requested since the last Reset(),
 * real or virtual. */
std::vector<int64_t> RecordedSleeps();

/* ---- service application ------------------------------------------------ */

/* The event types of the handlers registered with service_app_add_event_handler
 * (and not removed), in registration order. */
std::vector<app_event_type_e> RegisteredAppEventTypes();
/* Calls every handler registered for `type`; returns how many were called. */
int RaiseAppEvent(app_event_type_e type);
/* Ends service_app_main's loop as SIGTERM would, from any thread. */
void RequestTermination();

/* ---- paths ---------------------------------------------------------------- */

/* Makes tzplatform_getenv resolve under `root` instead of TILVANE_PLATFORM_ROOT
 * or the default; an empty root goes back to those. */
void SetPlatformRoot(const std::string& root);

/* ---- application registry --------------------------------------------------
 * The installed packages that package_manager_*, app_info_* and
 * qeb_get_app_list read. The registry is an SQLite file under the platform's
 * database directory (tzplatform_getenv(TZ_SYS_DB)), shared by every process
 * on the same platform root. Used by tests and by tilvanectl. */

struct RegisteredApplication {
    std::string appId;
    /* Metadata key/value pairs in declaration order; keys are unique. */
    std::vector<std::pair<std::string, std::string>> metadata;
};

struct RegisteredPackage {
    std::string packageId;
    std::vector<RegisteredApplication> applications;
    /* The web-application store's id of the package; empty when it has none. */
    std::string webAppId;
    /* The operating-system user the package's applications run as; -1 lets
     * InstallPackage keep the package's previous user or allocate a free one
     * from [identity] first-app-user .. last-app-user. */
    int64_t userId = -1;
};

/* The longest package or application id the platform issues. */
constexpr size_t kMaxPlatformIdLength = 128;
/* True when `id` has the platform's id syntax: 1 to kMaxPlatformIdLength
 * letters, digits, '.', '_' or '-', a letter first. Otherwise `rule` (when
 * given) states the rule it breaks. */
bool IsValidPlatformId(const std::string& id, std::string* rule = nullptr);

/* Installs `package`, replacing a package of the same id. Refused (false, with
 * the reason in `error`) when the package id is empty, an application id is
 * empty, repeated or held by another package, a metadata key is empty or
 * repeated within one application, or a text is too long for the store's list
 * (1023 bytes); in the verified identity mode also when a package or
 * application id breaks the platform's id syntax or the user is a platform
 * user; in every mode when the user is another package's. Nothing is written
 * when it is refused. In the verified mode the bus policy of the installed
 * packages is written again (<platform root>/etc/dbus/tilvane-bus.d). */
bool InstallPackage(const RegisteredPackage& package, std::string* error = nullptr);
/* Removes the package with its applications, metadata and store entry. False
 * when no such package is installed or the registry cannot be written. */
bool RemovePackage(const std::string& packageId, std::string* error = nullptr);
/* Every installed package in the order of installation; empty on failure. */
std::vector<RegisteredPackage> ListPackages();
/* The same, false when the registry cannot be read (it is the platform's
 * own: an application's user cannot open it). */
bool ReadInstalledPackages(std::vector<RegisteredPackage>& packages);

/* ---- application identity and message ports ------------------------------- */

/* Makes this process run as `appId` (an empty id goes back to TILVANE_APP_ID,
 * else the program's short name). Takes effect for the bus connection that the
 * next message-port call opens: set it first, or after Reset(). */
void SetOwnAppId(const std::string& appId);
std::string OwnAppId();

/* The bus name that application `appId` owns ("" when the id cannot have
 * one: empty, or too long for the bus), and the way back. */
std::string BusNameForAppId(const std::string& appId);
bool AppIdForBusName(const std::string& busName, std::string& appId);
/* The bus name that a process owns while its port `port` of application
 * `appId` is registered (docs/messaging.md). */
std::string BusNameForPort(const std::string& appId, const std::string& port);

/* Waits up to `timeoutMs` until every message-port message this process sent
 * has been answered by its receiver (a receiver answers once it has checked
 * the sender, before the port's callback runs); the refusals among the
 * answers ("<error name>: <text>", oldest first) are moved to `refusals`.
 * False when some are still unanswered. */
bool WaitForDeliveryAnswers(int timeoutMs, std::vector<std::string>* refusals);

/* True in the verified identity mode (the configuration's [identity] mode). */
bool IdentitiesVerified();

/* Whether configuration-key changes and power-off raised by this process
 * count: always in the development identity mode; in the verified mode only
 * when it runs as a platform user. */
bool CountsAsPlatform();
/* How many message-port deliveries to `appId` wait for their answer. */
int UnansweredDeliveries(const std::string& appId);

/* One message_port_send_message* call that got past its argument checks. */
struct SentMessage {
    std::string appId;     /* the receiving application */
    std::string port;      /* its port */
    std::string localPort; /* the sender's local port, "" for a plain send */
    std::vector<std::pair<std::string, std::string>> entries; /* the bundle, in order */
    int result;            /* what the call returned */
    int64_t timeUs;        /* Now() when it returned */
};

/* While recording is on (off after Reset()), every send is kept, in order. */
void RecordSentMessages(bool on);
std::vector<SentMessage> SentMessages();
void ClearSentMessages();

/* ---- configuration keys, power-off and system information ----------------
 * Kept in a settings file under the platform's database directory, shared by
 * every process on the same platform root. */

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

/* ---- the integrator's configuration -------------------------------------- */

/* Replaces the configuration file (platform_config.h) of this process by
 * `keyFileText`, read on next use; Reset() goes back to the file. */
void SetConfigurationText(const std::string& keyFileText);

/* ---- everything ---------------------------------------------------------- */

/* Clears failures, counters, captured lines, recorded sleeps, registered app
 * event handlers and the platform root override, turns the virtual clock and
 * log capture off, and makes the log read TILVANE_LOG_LEVEL again. It also
 * closes the message-port bus connection, forgets local ports, recorded sends
 * and the own application id override, and forgets key watchers and power-off
 * subscribers (closing the notification bus connection), and reads the
 * integrator's configuration file again on next use; stored keys stay. */
void Reset();

}  // namespace host
}  // namespace tilvane

#endif
