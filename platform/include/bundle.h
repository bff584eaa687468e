/*
 * Bundles: string-keyed property sets. They carry row values (keys are column
 * names), message-port messages and events. Values are strings.
 */
#ifndef TILVANE_PLATFORM_BUNDLE_H
#define TILVANE_PLATFORM_BUNDLE_H

#include <errno.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _bundle_t bundle;
typedef unsigned char bundle_raw;

typedef enum {
    BUNDLE_ERROR_NONE = 0,
    BUNDLE_ERROR_OUT_OF_MEMORY = -ENOMEM,
    BUNDLE_ERROR_INVALID_PARAMETER = -EINVAL,
    BUNDLE_ERROR_KEY_NOT_AVAILABLE = -ENOKEY,
    BUNDLE_ERROR_KEY_EXISTS = -EEXIST,
} bundle_error_e;

/* Called once per entry, in the order in which the entries were added. */
typedef void (*bundle_iterate_cb_t)(const char *key, const char *val, void *data);

bundle *bundle_create(void);
int bundle_free(bundle *b);
bundle *bundle_dup(bundle *b);

/* Adds a string entry; a key that is already present is refused with BUNDLE_ERROR_KEY_EXISTS. */
int bundle_add_str(bundle *b, const char *key, const char *str);
/* The older name of bundle_add_str. */
int bundle_add(bundle *b, const char *key, const char *val);

/* Points *str at the bundle's own copy of the value; the caller does not free it. */
int bundle_get_str(bundle *b, const char *key, char **str);
/* The value, or NULL when the key is absent (get_last_result() then tells why). */
const char *bundle_get_val(bundle *b, const char *key);

/* Removes an entry. Removing a key that the bundle does not hold succeeds. */
int bundle_del(bundle *b, const char *key);

int bundle_get_count(bundle *b);
void bundle_iterate(bundle *b, bundle_iterate_cb_t callback, void *cb_data);

/* Transport form: a base64 text that bundle_decode turns back into an equal bundle. */
int bundle_encode(bundle *b, bundle_raw **raw, int *len);
int bundle_free_encoded_rawdata(bundle_raw **raw);
bundle *bundle_decode(const bundle_raw *raw, const int len);

/* Result of the last bundle call on this thread that reports through it. */
int get_last_result(void);

#ifdef __cplusplus
}
#endif

#endif
