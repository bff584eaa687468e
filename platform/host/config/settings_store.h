/*
 * The platform settings on the host: integer configuration keys and boolean
 * system-information values, in one SQLite file under the platform's database
 * directory, shared by every process on the same platform root.
 */
#ifndef TILVANE_PLATFORM_SETTINGS_STORE_H
#define TILVANE_PLATFORM_SETTINGS_STORE_H

#include <string>

namespace tilvane {
namespace host {
namespace settings {

enum class ReadResult { Found, Missing, Failed };

ReadResult ReadKey(const std::string& key, int& value);
bool WriteKey(const std::string& key, int value);
/* True when the key existed and is gone. */
bool RemoveKey(const std::string& key);

ReadResult ReadSystemInfo(int key, bool& value);
bool WriteSystemInfo(int key, bool value);

}  // namespace settings
}  // namespace host
}  // namespace tilvane

#endif
