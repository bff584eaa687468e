/*
 * Power-off notification: the power service tells its subscribers that the
 * device is going down, and why (the power-off type).
 *
 * On the host a power-off is a signal on the session bus, raised by another
 * process (tilvanectl power-off) or by the control API. Callbacks run on the
 * GLib default main context.
 */
#ifndef TILVANE_PLATFORM_DEVICE_POWER_H
#define TILVANE_PLATFORM_DEVICE_POWER_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DEVICE_ERROR_NONE = 0,
    DEVICE_ERROR_INVALID_PARAMETER = -22,
    DEVICE_ERROR_ALREADY_IN_PROGRESS = -114, /* the callback is subscribed already */
    DEVICE_ERROR_OPERATION_FAILED = -0x01140001
};

/* Called with the power-off type; the result is not used by the platform. */
typedef int (*device_power_poweroff_cb)(int type, void *user_data);

/* Adds `cb` with `user_data` to the subscribers. */
int device_power_subscribe_poweroff(device_power_poweroff_cb cb, void *user_data);
/* Removes `cb`; DEVICE_ERROR_INVALID_PARAMETER when it is not subscribed. */
int device_power_unsubscribe_poweroff(device_power_poweroff_cb cb);

#ifdef __cplusplus
}
#endif

#endif
