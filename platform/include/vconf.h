/*
 * Configuration keys: named integer values shared by every process of the
 * platform, with notification of changes.
 *
 * On the host the keys live in one SQLite file under the platform's database
 * directory (tzplatform_getenv(TZ_SYS_DB)). A change made with vconf_set_int
 * is announced on the session bus, so a process watching the key with
 * vconf_notify_key_changed sees changes made by any process. Callbacks run on
 * the GLib default main context (the service-application loop).
 */
#ifndef TILVANE_PLATFORM_VCONF_H
#define TILVANE_PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/* Results. */
enum {
    VCONF_OK = 0,
    VCONF_ERROR = -1,              /* bad argument, or the store cannot be used */
    VCONF_ERROR_FILE_NO_ENT = -17  /* no key of that name exists */
};

/* A changed key as its watchers see it; valid only during the callback. */
typedef struct _keynode_t keynode_t;

typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);

/* Reads the integer key `key` into `*value`. A key that was never set (or was
 * removed) gives VCONF_ERROR_FILE_NO_ENT and leaves `*value` as it is. */
int vconf_get_int(const char *key, int *value);
/* Creates or changes the key, then notifies every watcher of it, in this and
 * in other processes. */
int vconf_set_int(const char *key, int value);

/* Calls `cb` with `user_data` each time `key` is set. The same pair registered
 * twice is refused (VCONF_ERROR). */
int vconf_notify_key_changed(const char *key, vconf_callback_fn cb, void *user_data);
/* Removes the registrations of `cb` for `key`; VCONF_ERROR when there is none. */
int vconf_ignore_key_changed(const char *key, vconf_callback_fn cb);

/* The key's new value and its name. */
int vconf_keynode_get_int(keynode_t *keynode);
const char *vconf_keynode_get_name(keynode_t *keynode);

#ifdef __cplusplus
}
#endif

#endif
