/*
 * The integrator's configuration file (platform_config.h).
 */
#include "config/platform_config.h"
#include "config/config_keys.h"

#include <glib.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <atomic>
#include <mutex>

#include "dlog.h"
#include "host_control/config.h"
#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "config/paths.h"
#include "service_defaults.h"

#define CONFIG_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace config {
namespace {

struct KeyFileFree {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFilePtr = std::unique_ptr<GKeyFile, KeyFileFree>;

struct ConfigState {
    std::mutex mutex;
    bool loaded = false;
    bool testText = false;
    std::string testTextValue;
    std::string source;
    Resolution resolution;
    KeyFilePtr file;
};

ConfigState& TheConfigState()
{
    static ConfigState* state = new ConfigState();
    return *state;
}

/* Bumped whenever what was read is dropped. */
std::atomic<uint64_t> g_generation{0};

/* The file to read: the one TILVANE_CONFIG names, else the platform root's. */
Resolution Locate()
{
    Resolution where;
    const char* fromEnvironment = std::getenv("TILVANE_CONFIG");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        where.path = fromEnvironment;
        where.named = true;
        return where;
    }
    const std::string fallback = PlatformRootDirectory() + "/etc/tilvane.conf";
    if (g_file_test(fallback.c_str(), G_FILE_TEST_EXISTS)) {
        where.path = fallback;
    }
    return where;
}

/* Parses the file of `where` into `file`; false with where.problem set. */
bool ParseFile(Resolution& where, GKeyFile* file)
{
    if (where.named && !g_file_test(where.path.c_str(), G_FILE_TEST_EXISTS)) {
        where.problem = "the configuration file " + where.path + " named by TILVANE_CONFIG does not exist";
        return false;
    }
    GError* error = nullptr;
    if (!g_key_file_load_from_file(file, where.path.c_str(), G_KEY_FILE_NONE, &error)) {
        where.problem = "configuration " + where.path + " cannot be read (" + error->message + ")";
        g_error_free(error);
        return false;
    }
    return true;
}

/* The built-in defaults (data/service-defaults.conf), parsed once. */
GKeyFile* Defaults()
{
    static GKeyFile* defaults = [] {
        GKeyFile* file = g_key_file_new();
        g_key_file_load_from_data(file, kServiceDefaults, sizeof kServiceDefaults - 1, G_KEY_FILE_NONE, nullptr);
        return file;
    }();
    return defaults;
}

/* Gives `file` every default it does not set itself. */
void AddDefaults(GKeyFile* file)
{
    gchar** groups = g_key_file_get_groups(Defaults(), nullptr);
    for (gchar** group = groups; *group != nullptr; ++group) {
        gchar** keys = g_key_file_get_keys(Defaults(), *group, nullptr, nullptr);
        for (gchar** key = keys; keys != nullptr && *key != nullptr; ++key) {
            if (!g_key_file_has_key(file, *group, *key, nullptr)) {
                gchar* value = g_key_file_get_value(Defaults(), *group, *key, nullptr);
                g_key_file_set_value(file, *group, *key, value);
                g_free(value);
            }
        }
        g_strfreev(keys);
    }
    g_strfreev(groups);
}

/* With the state's mutex held: the file (or the test's text) as it was read. */
GKeyFile* ReadLocked(ConfigState& s, bool quiet = false)
{
    if (s.loaded) {
        return s.file.get();
    }
    s.loaded = true;
    s.file.reset(g_key_file_new());
    s.resolution = Resolution();
    GError* error = nullptr;
    if (s.testText) {
        if (!g_key_file_load_from_data(s.file.get(), s.testTextValue.c_str(), s.testTextValue.size(),
                                       G_KEY_FILE_NONE, &error)) {
            CONFIG_LOGE("configuration text: %s", error->message);
            g_error_free(error);
        }
        return s.file.get();
    }
    s.resolution = Locate();
    if (s.resolution.path.empty()) {
        return s.file.get();
    }
    if (!ParseFile(s.resolution, s.file.get())) {
        /* A broken or missing file is the integrator's mistake: a service
         * stops on it (Resolve); any other program says so and runs on the
         * defaults. */
        if (!quiet) {
            CONFIG_LOGE("%s; built-in defaults are used", s.resolution.problem.c_str());
        }
        s.file.reset(g_key_file_new());
        return s.file.get();
    }
    s.resolution.read = true;
    s.source = s.resolution.path;
    return s.file.get();
}

/* With the state's mutex held: what was read, with the defaults beside it. */
GKeyFile* LoadedLocked(ConfigState& s, bool quiet = false)
{
    if (s.loaded) {
        return s.file.get();
    }
    GKeyFile* file = ReadLocked(s, quiet);
    AddDefaults(file);
    return file;
}

template <typename Fn>
auto WithFile(Fn read) -> decltype(read(static_cast<GKeyFile*>(nullptr)))
{
    ConfigState& s = TheConfigState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return read(LoadedLocked(s));
}

}  // namespace

bool Has(const char* group, const char* key)
{
    return WithFile([&](GKeyFile* file) { return g_key_file_has_key(file, group, key, nullptr) != FALSE; });
}

std::string String(const char* group, const char* key, const std::string& fallback)
{
    return WithFile([&](GKeyFile* file) {
        gchar* value = g_key_file_get_string(file, group, key, nullptr);
        if (value == nullptr) {
            return fallback;
        }
        std::string text(value);
        g_free(value);
        return text;
    });
}

/* A typed value of the file, read with `get`; `fallback` when it is missing
 * or not of the type. */
template <typename T, typename Get>
T TypedValue(const char* group, const char* key, T fallback, Get get)
{
    return WithFile([&](GKeyFile* file) {
        GError* error = nullptr;
        const auto value = get(file, group, key, &error);
        if (error != nullptr) {
            g_error_free(error);
            return fallback;
        }
        return static_cast<T>(value);
    });
}

bool Bool(const char* group, const char* key, bool fallback)
{
    return TypedValue(group, key, fallback, g_key_file_get_boolean);
}

int64_t Integer(const char* group, const char* key, int64_t fallback)
{
    return TypedValue(group, key, fallback, g_key_file_get_int64);
}

std::vector<std::string> StringList(const char* group, const char* key)
{
    return SplitList(String(group, key, std::string()));
}

std::vector<std::string> SplitList(const std::string& text)
{
    std::vector<std::string> items;
    gchar** parts = g_strsplit_set(text.c_str(), ";,", -1);
    for (gchar** part = parts; part != nullptr && *part != nullptr; ++part) {
        gchar* item = g_strstrip(*part);
        if (*item != '\0') {
            items.emplace_back(item);
        }
    }
    g_strfreev(parts);
    return items;
}

std::string Default(const char* group, const char* key)
{
    gchar* value = g_key_file_get_string(Defaults(), group, key, nullptr);
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
}

std::string Source()
{
    return WithFile([&](GKeyFile*) { return TheConfigState().source; });
}

uint64_t Generation()
{
    return g_generation.load(std::memory_order_acquire);
}

void Forget()
{
    ConfigState& s = TheConfigState();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++g_generation;
    s.loaded = false;
    s.testText = false;
    s.testTextValue.clear();
    s.source.clear();
    s.file.reset();
}

Resolution Resolve(bool quiet)
{
    ConfigState& s = TheConfigState();
    std::lock_guard<std::mutex> lock(s.mutex);
    LoadedLocked(s, quiet);
    return s.resolution;
}

namespace {

/* Every key of `file`, group by group. */
std::vector<Entry> EntriesOf(GKeyFile* file)
{
    std::vector<Entry> entries;
    gchar** groups = g_key_file_get_groups(file, nullptr);
    for (gchar** group = groups; group != nullptr && *group != nullptr; ++group) {
        gchar** keys = g_key_file_get_keys(file, *group, nullptr, nullptr);
        for (gchar** key = keys; key != nullptr && *key != nullptr; ++key) {
            gchar* value = g_key_file_get_value(file, *group, *key, nullptr);
            entries.push_back(Entry{*group, *key, value != nullptr ? value : ""});
            g_free(value);
        }
        g_strfreev(keys);
    }
    g_strfreev(groups);
    return entries;
}

std::string ValueOf(GKeyFile* file, const std::string& group, const std::string& key)
{
    gchar* value = g_key_file_get_value(file, group.c_str(), key.c_str(), nullptr);
    std::string text = value != nullptr ? value : "";
    g_free(value);
    return text;
}

bool Sets(GKeyFile* file, const std::string& group, const std::string& key)
{
    return g_key_file_has_key(file, group.c_str(), key.c_str(), nullptr) != FALSE;
}

/* Compares one key of the old and the new file; a key that may not change
 * while the service runs is put back in `next` as it was. */
void CompareKey(GKeyFile* before, GKeyFile* next, const std::string& group, const std::string& key,
                std::vector<Change>& changes)
{
    const bool wasSet = Sets(before, group, key);
    const bool isSet = Sets(next, group, key);
    const std::string was = ValueOf(before, group, key);
    const std::string is = ValueOf(next, group, key);
    if (wasSet == isSet && was == is) {
        return;
    }
    const KeyInfo* info = FindKey(group, key);
    Change change{group, key, was, is, info != nullptr && info->reloadable};
    if (!change.applied) {
        if (wasSet) {
            g_key_file_set_value(next, group.c_str(), key.c_str(), was.c_str());
        } else {
            g_key_file_remove_key(next, group.c_str(), key.c_str(), nullptr);
        }
    }
    changes.push_back(change);
}

}  // namespace

std::vector<Entry> Entries()
{
    return WithFile([&](GKeyFile* file) { return EntriesOf(file); });
}

bool Reload(std::vector<Change>& changes, std::string& problem)
{
    ConfigState& s = TheConfigState();
    std::lock_guard<std::mutex> lock(s.mutex);
    GKeyFile* before = LoadedLocked(s, true);
    Resolution where = s.testText ? Resolution() : Locate();
    KeyFilePtr next(g_key_file_new());
    if (s.testText) {
        g_key_file_load_from_data(next.get(), s.testTextValue.c_str(), s.testTextValue.size(), G_KEY_FILE_NONE,
                                  nullptr);
    } else if (!where.path.empty() && !ParseFile(where, next.get())) {
        problem = where.problem;
        return false;
    }
    AddDefaults(next.get());
    std::vector<std::pair<std::string, std::string>> seen;
    for (GKeyFile* file : {before, next.get()}) {
        for (const Entry& entry : EntriesOf(file)) {
            const auto key = std::make_pair(entry.group, entry.key);
            if (std::find(seen.begin(), seen.end(), key) == seen.end()) {
                seen.push_back(key);
                CompareKey(before, next.get(), entry.group, entry.key, changes);
            }
        }
    }
    ++g_generation;
    s.file = std::move(next);
    s.resolution = where;
    s.resolution.read = !where.path.empty();
    s.source = where.path;
    return true;
}

namespace {
/* Reset(): the file is read again on next use. */
const ResetHook kResetConfiguration(2, Forget);
}  // namespace

}  // namespace config

void SetConfigurationText(const std::string& keyFileText)
{
    config::ConfigState& s = config::TheConfigState();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++config::g_generation;
    s.loaded = false;
    s.testText = true;
    s.testTextValue = keyFileText;
    s.source.clear();
    s.file.reset();
}

}  // namespace host
}  // namespace tilvane
