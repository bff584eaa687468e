/*
 * Application information: an installed application and the metadata that its
 * package declares for it (key/value pairs, in the order they were declared).
 *
 * A handle holds what the registry said when it was created.
 */
#ifndef TILVANE_PLATFORM_APP_INFO_H
#define TILVANE_PLATFORM_APP_INFO_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the application information functions. */
typedef enum {
    APP_MANAGER_ERROR_NONE = 0,
    APP_MANAGER_ERROR_INVALID_PARAMETER = -22,
    APP_MANAGER_ERROR_OUT_OF_MEMORY = -12,
    APP_MANAGER_ERROR_IO_ERROR = -5,
    APP_MANAGER_ERROR_NO_SUCH_APP = -0x01110001, /* no installed application has the id */
    APP_MANAGER_ERROR_DB_FAILED = -0x01110002    /* the registry cannot be read */
} app_manager_error_e;

typedef struct app_info_s *app_info_h;

/* Called once per metadata entry; return false to stop the walk. An entry
 * declared without a value is given as "". */
typedef bool (*app_info_metadata_cb)(const char *metadata_key, const char *metadata_value, void *user_data);

/* Reads the application `app_id` from the registry into a new handle, which the
 * caller releases with app_info_destroy. NO_SUCH_APP for an unknown id. */
int app_info_create(const char *app_id, app_info_h *app_info);

/* Calls `callback` for each metadata entry of the application, in order. A
 * callback that returns false ends the walk; the result is still NONE. */
int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void *user_data);

/* The id of the application's package, in a new string the caller frees. */
int app_info_get_package(app_info_h app_info, char **package);

int app_info_destroy(app_info_h app_info);

#ifdef __cplusplus
}
#endif

#endif
