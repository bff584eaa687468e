/*
 * The log's settings from the integrator's configuration ([log] level,
 * rate-burst, rate-interval-ms, rate-bytes). The log lives below the
 * configuration, so the service application hands them over at start and
 * again when the configuration is read anew (SIGHUP). The environment
 * (TILVANE_LOG_LEVEL, TILVANE_LOG_RATE_BURST, TILVANE_LOG_RATE_INTERVAL_MS,
 * TILVANE_LOG_RATE_BYTES) overrides each setting it names; without either,
 * the built-in defaults apply (level D, 2000 lines, 10000 ms, 262144 bytes).
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_LOG_SETTINGS_H
#define TILVANE_PLATFORM_LOG_SETTINGS_H

#include <cstdint>
#include <string>

namespace tilvane {
namespace host {

struct LogSettings {
    /* "" for the default; otherwise as TILVANE_LOG_LEVEL takes it. */
    std::string level;
    /* -1 for the default. */
    int64_t rateBurst = -1;
    int64_t rateIntervalMs = -1;
    int64_t rateBytes = -1;
};

void SetConfiguredLogSettings(const LogSettings& settings);

/* The letter of the lowest priority written now (V D I W E F S). */
char CurrentLogLevelLetter();

}  // namespace host
}  // namespace tilvane

#endif
