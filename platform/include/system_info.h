/*
 * System information: fixed capabilities of the device, read by number.
 *
 * On the host a boolean value is a platform setting kept beside the
 * configuration keys (tilvanectl system-info set, or the control API).
 */
#ifndef TILVANE_PLATFORM_SYSTEM_INFO_H
#define TILVANE_PLATFORM_SYSTEM_INFO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_IO_ERROR = -5
};

/* Whether the display has the glaze mode. False unless it was set. */
#define SYSTEM_INFO_KEY_GLAZE_MODE_SUPPORTED 583

/* Reads boolean value number `key`. Key 583 reads false when it was never
 * set; any other key that was never set is SYSTEM_INFO_ERROR_INVALID_PARAMETER. */
int system_info_get_value_bool(int key, bool *value);

#ifdef __cplusplus
}
#endif

#endif
