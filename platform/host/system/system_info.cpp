/*
 * System information on the host: boolean values from the settings store
 * (settings_store.h), set by tilvanectl system-info or the control API.
 */
#include "system_info.h"

#include "config/settings_store.h"
#include "host_control/system.h"
#include "host_control/base.h"

namespace tilvane {
namespace host {

bool SetSystemInfoBool(int key, bool value)
{
    return settings::WriteSystemInfo(key, value);
}

}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

extern "C" int system_info_get_value_bool(int key, bool* value)
{
    if (ShouldFail("system_info_get_value_bool")) {
        return SYSTEM_INFO_ERROR_IO_ERROR;
    }
    if (value == nullptr) {
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    }
    bool stored = false;
    switch (settings::ReadSystemInfo(key, stored)) {
    case settings::ReadResult::Found:
        *value = stored;
        return SYSTEM_INFO_ERROR_NONE;
    case settings::ReadResult::Missing:
        if (key == SYSTEM_INFO_KEY_GLAZE_MODE_SUPPORTED) {
            *value = false;
            return SYSTEM_INFO_ERROR_NONE;
        }
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    default:
        return SYSTEM_INFO_ERROR_IO_ERROR;
    }
}
