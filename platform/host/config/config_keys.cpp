/*
 * The table of the configuration's keys (config_keys.h).
 */
#include "config/config_keys.h"

#include <glib.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dlog.h"
#include "base/host_state.h"

#define CONFIG_KEYS_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace config {

const std::vector<KeyInfo>& KnownKeys()
{
    using K = KeyKind;
    static const std::vector<KeyInfo> keys = {
        {"service", "app-id", K::Text, kBuiltIn, false},
        {"message-port", "max-unanswered", K::Integer, "1024", true},
        {"message-port", "unanswered-quiet-ms", K::Integer, "1000", true},
        {"message-port", "delivery-timeout-ms", K::Integer, "10000", true},
        {"strict", "confinement", K::Boolean, "false", false},
        {"strict", "trusted-senders", K::List, "", false},
        {"strict", "sections-per-package", K::Integer, "64", true},
        {"strict", "tiles-per-package", K::Integer, "1024", true},
        {"strict", "value-bytes", K::Integer, "16384", true},
        {"strict", "where-bytes", K::Integer, "8192", true},
        {"identity", "mode", K::Text, "verified", false},
        {"identity", "platform-users", K::List, "0", false},
        {"identity", "platform-ids", K::List, "", false},
        {"identity", "first-app-user", K::Integer, "5000", false},
        {"identity", "last-app-user", K::Integer, "59999", false},
        {"identity", "signal-linger-ms", K::Integer, "200", false},
        {"identity-users", "*", K::List, "", false},
        {"files", "group", K::Text, "", false},
        {"data-control", "provider-id", K::Text, kBuiltIn, false},
        {"data-control", "data-ids", K::List, kBuiltIn, false},
        {"content", "lookup-indexes", K::List, kBuiltIn, false},
        {"content", "check-after-crash", K::Text, "background", false},
        {"maintenance", "database", K::Text, kBuiltIn, false},
        {"maintenance", "launcher-table", K::Text, kBuiltIn, false},
        {"maintenance", "launcher-package-column", K::Text, kBuiltIn, false},
        {"maintenance", "launcher-metadata", K::List, kBuiltIn, false},
        {"budget", "statement-ms", K::Integer, "2000", true},
        {"budget", "value-bytes", K::Integer, "2097152", true},
        {"budget", "like-pattern-bytes", K::Integer, "64", true},
        {"budget", "heap-bytes", K::Integer, "67108864", true},
        {"bus", "max-message-bytes", K::Integer, "33554432", true},
        {"bus", "reconnect-ms", K::Integer, "10000", true},
        {"log", "level", K::Text, "D", true},
        {"log", "rate-burst", K::Integer, "2000", true},
        {"log", "rate-interval-ms", K::Integer, "10000", true},
        {"log", "rate-bytes", K::Integer, "262144", true},
        {"log", "app-bytes", K::Integer, "524288", true},
        {"log", "service-bytes", K::Integer, "4194304", true},
        {"log", "budget-interval-ms", K::Integer, "10000", true},
        {"stats", "enabled", K::Boolean, "true", true},
        {"memory", "heap-block-bytes", K::Integer, "4194304", false},
        {"memory", "kept-heap-bytes", K::Integer, "16777216", false},
        {"request-socket", "enabled", K::Boolean, "true", false},
        {"request-socket", "max-connections", K::Integer, "256", true},
        {"request-socket", "max-connections-per-user", K::Integer, "32", true},
        {"request-socket", "idle-close-ms", K::Integer, "60000", true},
        {"request-socket", "large-request-bytes", K::Integer, "262144", true},
        {"request-socket", "large-idle-close-ms", K::Integer, "1000", true},
        {"request-socket", "unsent-bytes", K::Integer, "4194304", true},
    };
    return keys;
}

const KeyInfo* FindKey(std::string_view group, std::string_view key)
{
    // Views, not strings: the settings readers look a key up on every request.
    for (const KeyInfo& info : KnownKeys()) {
        if (group == info.group && (key == info.key || std::strcmp(info.key, "*") == 0)) {
            return &info;
        }
    }
    return nullptr;
}

namespace {

std::string Trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string NormalisedList(const std::string& value)
{
    std::string joined;
    gchar** parts = g_strsplit_set(value.c_str(), ";,", -1);
    for (gchar** part = parts; part != nullptr && *part != nullptr; ++part) {
        const std::string item = Trimmed(*part);
        if (!item.empty()) {
            joined += (joined.empty() ? "" : ";") + item;
        }
    }
    g_strfreev(parts);
    return joined;
}

}  // namespace

std::string NormalisedValue(KeyKind kind, const std::string& value)
{
    const std::string text = Trimmed(value);
    if (kind == KeyKind::Integer) {
        char* end = nullptr;
        const long long number = std::strtoll(text.c_str(), &end, 10);
        return !text.empty() && *end == '\0' ? std::to_string(number) : text;
    }
    if (kind == KeyKind::Boolean) {
        if (text == "true" || text == "1") {
            return "true";
        }
        if (text == "false" || text == "0") {
            return "false";
        }
        return text;
    }
    return kind == KeyKind::List ? NormalisedList(text) : text;
}

std::string DefaultText(const KeyInfo& info)
{
    return info.defaultText != kBuiltIn ? std::string(info.defaultText) : Default(info.group, info.key);
}

bool IsDefaultValue(const KeyInfo& info, const std::string& value)
{
    return NormalisedValue(info.kind, value) == NormalisedValue(info.kind, DefaultText(info));
}

namespace {

/* The table's default of `group` and `key` as text; "" with one error line
 * when the table does not know the key (a key read that was not added to it). */
std::string DefaultOfKnownKey(const char* group, const char* key)
{
    const KeyInfo* info = FindKey(group, key);
    if (info == nullptr) {
        CONFIG_KEYS_LOGE("configuration key [%s] %s is read but not in the table of keys", group, key);
        return std::string();
    }
    return DefaultText(*info);
}

}  // namespace

namespace {

/* A setting as last read on this thread. */
struct KeptSetting {
    const char* groupAt = nullptr;
    const char* keyAt = nullptr;
    std::string group;
    std::string key;
    int64_t least = 0;
    int64_t value = 0;
};

/* Integer and boolean settings read on this thread since the configuration
 * last changed. A request asks for several of them (the request socket's
 * budgets, the reply limit); each read would otherwise look its key up in the
 * key file and parse the value. An entry is found by the addresses of the
 * names the caller passed (its literals), confirmed by the names themselves. */
struct KeptSettings {
    static constexpr size_t kMost = 32;
    uint64_t generation = 0;
    bool known = false;
    std::vector<KeptSetting> entries;
};

template <typename Read>
int64_t Kept(const char* group, const char* key, int64_t least, Read&& read)
{
    thread_local KeptSettings kept;
    const uint64_t now = Generation();
    if (!kept.known || kept.generation != now) {
        kept.entries.clear();
        kept.generation = now;
        kept.known = true;
    }
    for (const KeptSetting& entry : kept.entries) {
        if (entry.groupAt == group && entry.keyAt == key && entry.least == least && entry.group == group &&
            entry.key == key) {
            return entry.value;
        }
    }
    const int64_t value = read();
    if (kept.entries.size() < KeptSettings::kMost) {
        kept.entries.push_back(KeptSetting{group, key, group, key, least, value});
    }
    return value;
}

int64_t ReadIntegerSetting(const char* group, const char* key, int64_t least)
{
    const int64_t fallback = std::strtoll(DefaultOfKnownKey(group, key).c_str(), nullptr, 10);
    const int64_t value = Integer(group, key, fallback);
    return value >= least ? value : fallback;
}

bool ReadBoolSetting(const char* group, const char* key)
{
    return Bool(group, key, NormalisedValue(KeyKind::Boolean, DefaultOfKnownKey(group, key)) == "true");
}

}  // namespace

int64_t IntegerSetting(const char* group, const char* key, int64_t least)
{
    return Kept(group, key, least, [&] { return ReadIntegerSetting(group, key, least); });
}

bool BoolSetting(const char* group, const char* key)
{
    /* A least that no integer read uses tells a boolean's entry apart. */
    return Kept(group, key, INT64_MAX, [&] { return ReadBoolSetting(group, key) ? 1 : 0; }) != 0;
}

std::string StringSetting(const char* group, const char* key)
{
    return String(group, key, DefaultOfKnownKey(group, key));
}

namespace {

std::string WhereText(const Resolution& where)
{
    if (where.path.empty()) {
        return "configuration: none (TILVANE_CONFIG is not set and the platform root has no etc/tilvane.conf)";
    }
    return "configuration " + where.path + (where.named ? " (named by TILVANE_CONFIG)" : "");
}

}  // namespace

ConfigurationReport DescribeConfiguration(const Resolution& where, const std::vector<Entry>& entries)
{
    ConfigurationReport report;
    std::string differing;
    size_t count = 0;
    for (const Entry& entry : entries) {
        const KeyInfo* info = FindKey(entry.group, entry.key);
        if (info == nullptr) {
            report.unknown.push_back(WhereText(where) + ": unknown key [" + entry.group + "] " + entry.key +
                                     " is ignored");
            continue;
        }
        if (!IsDefaultValue(*info, entry.value)) {
            differing += (count++ == 0 ? "" : ", ") + ("[" + entry.group + "] " + entry.key + " = " + entry.value);
        }
    }
    report.summary = WhereText(where);
    if (where.path.empty()) {
        report.summary += "; every key has its built-in default";
    } else if (count == 0) {
        report.summary += ": every key has its default";
    } else {
        report.summary += ": " + std::to_string(count) + (count == 1 ? " key differs" : " keys differ") +
                          " from the defaults: " + differing;
    }
    return report;
}

std::string DescribeChange(const Change& change)
{
    auto shown = [](const std::string& value) { return value.empty() ? std::string("(unset)") : value; };
    return "[" + change.group + "] " + change.key + " " + shown(change.before) + " -> " + shown(change.after);
}

}  // namespace config
}  // namespace host
}  // namespace tilvane
