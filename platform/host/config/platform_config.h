/*
 * The platform integrator's configuration: one key file (GLib key-file syntax,
 * "[group]" and "key = value" lines) that decides how the host platform runs.
 * Applications never write it; docs/configuration.md lists every group and key.
 *
 * Where it is read from:
 *   1. the file named by TILVANE_CONFIG, when that is set: a file it names
 *      that does not exist or cannot be read is a problem (Resolve), never
 *      silently replaced by another file;
 *   2. otherwise <platform root>/etc/tilvane.conf (config/paths.h), when it
 *      exists;
 *   3. nothing: every key has its built-in default.
 * What the platform knows of the service it runs (its application id, its
 * data-control provider id and tables, ...) is such a default, given by
 * data/service-defaults.conf, which is built in: a key the file does not set
 * reads as that file sets it.
 * It is read once per process, on first use, and again on Reload (a service
 * told SIGHUP); the control API's SetConfigurationText replaces it for tests.
 *
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_PLATFORM_CONFIG_H
#define TILVANE_PLATFORM_PLATFORM_CONFIG_H

#include <cstdint>
#include <mutex>
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

/* Where the configuration was looked for and what came of it. */
struct Resolution {
    /* The file that was read or looked for; "" when none was named and the
     * platform root has none (or a test text is in force). */
    std::string path;
    /* TILVANE_CONFIG named it. */
    bool named = false;
    /* It was read. */
    bool read = false;
    /* Why a named file, or a file that exists, could not be used; "" when
     * nothing went wrong. The built-in defaults are then in force. */
    std::string problem;
};

/* Reads the configuration when it was not read yet and says where it came
 * from. A problem is written to the log once, unless `quiet` (a service that
 * reports it itself and stops) asked for the first read. */
Resolution Resolve(bool quiet = false);

struct Entry {
    std::string group;
    std::string key;
    std::string value;
};

/* Every key the configuration sets, group by group in the file's order. */
std::vector<Entry> Entries();

/* One key whose value a reload found changed. */
struct Change {
    std::string group;
    std::string key;
    /* "" when the key was not set. */
    std::string before;
    std::string after;
    /* False: the key cannot change while the service runs; the value read
     * at start stays in force until the next start. */
    bool applied = false;
};

/* Reads the file again. Keys that may change at run time (config_keys.h)
 * take their new values; every other key keeps the value read before. False,
 * with `problem` and nothing changed, when the file cannot be read now. */
bool Reload(std::vector<Change>& changes, std::string& problem);

/* Changes whenever what was read is dropped (Forget, SetConfigurationText):
 * for callers that keep values they read on a hot path. */
uint64_t Generation();

/* A value computed from the configuration and kept until the configuration
 * changes: for what every request asks (the statement budgets, whether
 * confinement is strict), where looking keys up again costs more than the
 * request's own work. `read` runs again after every change of Generation(). */
template <typename T>
class FollowedValue
{
public:
    explicit FollowedValue(T (*read)()) : m_read(read) {}

    T Get()
    {
        const uint64_t now = Generation();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_known || now != m_generation) {
            m_value = m_read();
            m_generation = now;
            m_known = true;
        }
        return m_value;
    }

private:
    T (*m_read)();
    std::mutex m_mutex;
    bool m_known = false;
    uint64_t m_generation = 0;
    T m_value{};
};

}  // namespace config
}  // namespace host
}  // namespace tilvane

#endif
