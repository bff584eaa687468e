/*
 * The integrator's configuration file (platform_config.h).
 */
#include "config/platform_config.h"

#include <glib.h>

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

#define CONFIG_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
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
    KeyFilePtr file;
};

ConfigState& TheConfigState()
{
    static ConfigState* state = new ConfigState();
    return *state;
}

/* Bumped whenever what was read is dropped. */
std::atomic<uint64_t> g_generation{0};

std::string DefaultPath()
{
    const char* fromEnvironment = std::getenv("TILVANE_CONFIG");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return fromEnvironment;
    }
    return PlatformRootDirectory() + "/etc/tilvane.conf";
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
GKeyFile* ReadLocked(ConfigState& s)
{
    if (s.loaded) {
        return s.file.get();
    }
    s.loaded = true;
    s.file.reset(g_key_file_new());
    GError* error = nullptr;
    if (s.testText) {
        if (!g_key_file_load_from_data(s.file.get(), s.testTextValue.c_str(), s.testTextValue.size(),
                                       G_KEY_FILE_NONE, &error)) {
            CONFIG_LOGE("configuration text: %s", error->message);
            g_error_free(error);
        }
        return s.file.get();
    }
    const std::string path = DefaultPath();
    if (!g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
        return s.file.get();
    }
    if (!g_key_file_load_from_file(s.file.get(), path.c_str(), G_KEY_FILE_NONE, &error)) {
        /* A broken file is the integrator's mistake: say so, run on defaults. */
        CONFIG_LOGE("configuration %s cannot be read (%s); built-in defaults are used", path.c_str(),
                    error->message);
        g_error_free(error);
        s.file.reset(g_key_file_new());
        return s.file.get();
    }
    s.source = path;
    CONFIG_LOGI("configuration read from %s", path.c_str());
    return s.file.get();
}

/* With the state's mutex held: what was read, with the defaults beside it. */
GKeyFile* LoadedLocked(ConfigState& s)
{
    if (s.loaded) {
        return s.file.get();
    }
    GKeyFile* file = ReadLocked(s);
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
