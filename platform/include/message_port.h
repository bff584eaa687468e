/*
 * Message ports: named mailboxes of an application. An application registers
 * local ports and receives bundles sent to them by other applications, which
 * name it by its application id.
 *
 * Callbacks of a local port run on the application's main loop (the GLib
 * default main context). The receiver learns the sender's application id from
 * the platform, never from the message.
 */
#ifndef TILVANE_PLATFORM_MESSAGE_PORT_H
#define TILVANE_PLATFORM_MESSAGE_PORT_H

#include <errno.h>
#include <stdbool.h>

#include "bundle.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    MESSAGE_PORT_ERROR_NONE = 0,
    MESSAGE_PORT_ERROR_IO_ERROR = -EIO,
    MESSAGE_PORT_ERROR_OUT_OF_MEMORY = -ENOMEM,
    MESSAGE_PORT_ERROR_INVALID_PARAMETER = -EINVAL,
    MESSAGE_PORT_ERROR_PORT_NOT_FOUND = -0x01130000 | 0x01,
    MESSAGE_PORT_ERROR_CERTIFICATE_NOT_MATCH = -0x01130000 | 0x02,
    MESSAGE_PORT_ERROR_MAX_EXCEEDED = -0x01130000 | 0x03,
    MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE = -0x01130000 | 0x04,
    /* The bus's policy refuses the application's (or the port's) name to
     * this process's user. */
    MESSAGE_PORT_ERROR_PERMISSION_DENIED = -EACCES,
} message_port_error_e;

/* Called for each message that arrives on a local port. `remote_port` is the
 * sender's local port when it sent with one, NULL otherwise. The message
 * belongs to the platform and is freed after the callback returns. */
typedef void (*message_port_message_cb)(int local_port_id, const char *remote_app_id, const char *remote_port,
                                        bool trusted_remote_port, bundle *message, void *user_data);

/* Registers `local_port` for this application. Returns a positive local port
 * id, or a negative error. Registering a name again returns the same id and
 * replaces the callback and user data. */
int message_port_register_local_port(const char *local_port, message_port_message_cb callback, void *user_data);

/* MESSAGE_PORT_ERROR_PORT_NOT_FOUND when the id is not registered. */
int message_port_unregister_local_port(int local_port_id);

/* Sends a copy of `message` to `remote_port` of `remote_app_id`.
 * MESSAGE_PORT_ERROR_PORT_NOT_FOUND at once when that application does not run
 * or has not registered that port. */
int message_port_send_message(const char *remote_app_id, const char *remote_port, bundle *message);

/* As message_port_send_message; the receiver's callback gets the name of the
 * local port `local_port_id` as its remote port, so that it can answer. */
int message_port_send_message_with_local_port(const char *remote_app_id, const char *remote_port, bundle *message,
                                              int local_port_id);

/* Sets *exist to whether `remote_app_id` runs and has registered `remote_port`.
 * Returns 0 in both cases; an error only when the question cannot be asked. */
int message_port_check_remote_port(const char *remote_app_id, const char *remote_port, bool *exist);

/* Called on the application's loop when a watched remote port goes. */
typedef void (*message_port_registration_event_cb)(const char *remote_app_id, const char *remote_port,
                                                   bool trusted_remote_port, void *user_data);

/* Watches `remote_port` of `remote_app_id`: `unregistered_cb` is called each
 * time the port goes, that is when the application unregisters it or leaves
 * the bus; at once (from the loop) when the application does not run now.
 * *watcher_id is set for message_port_remove_registration_event_cb.
 * MESSAGE_PORT_ERROR_MAX_EXCEEDED when the process already has 4096 watches;
 * MESSAGE_PORT_ERROR_IO_ERROR without a bus. */
int message_port_add_unregistered_cb(const char *remote_app_id, const char *remote_port, bool trusted_remote_port,
                                     message_port_registration_event_cb unregistered_cb, void *user_data,
                                     int *watcher_id);

/* Ends a watch. MESSAGE_PORT_ERROR_INVALID_PARAMETER for an unknown id. */
int message_port_remove_registration_event_cb(int watcher_id);

#ifdef __cplusplus
}
#endif

#endif
