/*
 * Every key of the integrator's configuration that the platform knows: its
 * group, its name, its built-in default as text, and whether a running
 * service takes a new value when it is told to read the file again (SIGHUP).
 * docs/configuration.md describes each. The table is what the service's start
 * line ("... keys differ from the defaults") and a reload's lines compare
 * with, and what tells a key the platform does not know (a misspelt one) from
 * the others. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_CONFIG_KEYS_H
#define TILVANE_PLATFORM_CONFIG_KEYS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "config/platform_config.h"

namespace tilvane {
namespace host {
namespace config {

enum class KeyKind { Text, Integer, Boolean, List };

/* The default of a key whose default is what the platform knows of the
 * service it runs: the built-in data/service-defaults.conf says it. */
inline constexpr const char* kBuiltIn = "(built in)";

struct KeyInfo {
    const char* group;
    /* "*": any key of the group (the group's keys are names of the
     * integrator's choosing, such as the platform ids of [identity-users]). */
    const char* key;
    KeyKind kind;
    const char* defaultText;
    /* Taken by a running service when the file is read again. */
    bool reloadable;
};

const std::vector<KeyInfo>& KnownKeys();

/* The entry of `group` and `key`, or null when the platform does not know it. */
const KeyInfo* FindKey(std::string_view group, std::string_view key);

/* `value` written the way the key's kind compares: integers as numbers,
 * booleans as "true"/"false", lists as their items joined by ";", text
 * trimmed. A value that does not read as the kind stays as it is written. */
std::string NormalisedValue(KeyKind kind, const std::string& value);

/* The key's default as text. */
std::string DefaultText(const KeyInfo& info);

/* The value of a key of the table read as its kind, or the table's default
 * when the file does not set it or sets a value that does not read as the
 * kind. An integer below `least` reads as the default too (a budget of 0 or
 * less where that means nothing). Every key the platform reads is read so,
 * so that the table's default is the one in force; a key that is not in the
 * table reads as 0, false or "" and writes one error line. Integer and
 * boolean settings are kept per thread until the configuration changes
 * (Generation()), so that reading one on a request's path costs a few
 * comparisons; a key missing from the table says so once per change. */
int64_t IntegerSetting(const char* group, const char* key, int64_t least = INT64_MIN);
bool BoolSetting(const char* group, const char* key);
std::string StringSetting(const char* group, const char* key);

/* True when `value` means the same as the key's default. */
bool IsDefaultValue(const KeyInfo& info, const std::string& value);

/* What a service says of its configuration at start: `summary`, where it
 * came from and every key that differs from its default; `unknown`, one line
 * per key the platform does not know (and ignores). */
struct ConfigurationReport {
    std::string summary;
    std::vector<std::string> unknown;
};
ConfigurationReport DescribeConfiguration(const Resolution& where, const std::vector<Entry>& entries);

/* "[log] level D -> I" of a change a reload found. */
std::string DescribeChange(const Change& change);

}  // namespace config
}  // namespace host
}  // namespace tilvane

#endif
