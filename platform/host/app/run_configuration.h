/*
 * The integrator's configuration as a running service application uses it:
 * the settings that may change while it runs (the log's level, rate limit and
 * byte budgets, the statement budgets, statistics on or off) applied at start
 * and again when the file is read anew on SIGHUP, and the lines that say
 * what was read. Every other key keeps the value read at start until the
 * next start (config_keys.h says which is which). Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_RUN_CONFIGURATION_H
#define TILVANE_PLATFORM_RUN_CONFIGURATION_H

#include "config/platform_config.h"

namespace tilvane {
namespace host {
namespace run_configuration {

/* Hands the run-time settings to the log, the content library and the
 * statistics. */
void ApplyRunTimeSettings();

/* Once at start, at information priority: where the configuration came
 * from and every key that differs from its default; a warning for each key
 * the platform does not know. */
void LogAtStart(const config::Resolution& where);

/* Reads the configuration again, applies what may change and logs one line
 * per changed key ("configuration read again: [log] level D -> I"), or why
 * nothing changed. */
void Reload();

}  // namespace run_configuration
}  // namespace host
}  // namespace tilvane

#endif
