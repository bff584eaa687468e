/*
 * The platform integrator's configuration: one key file (GLib key-file syntax,
 * "[group]" and "key = value" lines) that decides how the host platform runs.
 * Applications never write it; docs/configuration.md lists every group and key.
 *
 * Where it is read from, first match wins:
 *   1. the file named by TILVANE_CONFIG;
 *   2. <platform root>/etc/tilvane.conf (config/paths.h);
 *   3. nothing: every key has its built-in default.
 * What the platform knows of the service it runs (its application id, its
 * data-control provider id and tables, ...) is such a default, given by
 * data/service-defaults.conf, which is built in: a key the file does not set
 * reads as that file sets it.
 * It is read once per process, on first use; the control API's
 * SetConfigurationText replaces it for tests.
 *
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_PLATFORM_CONFIG_H
#define TILVANE_PLATFORM_PLATFORM_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

namespace tilvane {
namespace host {
namespace config {

/* The value of `key` in `group`, or `fallback` when the file does not set it
 * (or sets a value that does not read as the type). */
std::string String(const char* group, const char* key, const std::string& fallback);
bool Bool(const char* group, const char* key, bool fallback);
int64_t Integer(const char* group, const char* key, int64_t fallback);
/* A ";"- or ","-separated list; empty when the key is not set. */
std::vector<std::string> StringList(const char* group, const char* key);
/* The items of a ";"- or ","-separated list, blanks trimmed, empty ones left out. */
std::vector<std::string> SplitList(const std::string& text);
/* True when the file sets `key` in `group`. */
bool Has(const char* group, const char* key);

/* The built-in default of `key` (data/service-defaults.conf), "" for none. */
std::string Default(const char* group, const char* key);

/* The file that was read, or "" when the built-in defaults are in force (or a
 * test text replaced it). */
std::string Source();

/* Forgets what was read, so that the next use reads again. */
void Forget();

/* Changes whenever what was read is dropped (Forget, SetConfigurationText):
 * for callers that keep values they read on a hot path. */
uint64_t Generation();

}  // namespace config
}  // namespace host
}  // namespace tilvane

#endif
