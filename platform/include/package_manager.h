/*
 * Package manager: the installed packages and the applications each one holds.
 *
 * Every call reads the platform's application registry afresh, so a package
 * installed or removed by another process is seen by the next call.
 */
#ifndef TILVANE_PLATFORM_PACKAGE_MANAGER_H
#define TILVANE_PLATFORM_PACKAGE_MANAGER_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the package manager and package information functions. */
typedef enum {
    PACKAGE_MANAGER_ERROR_NONE = 0,
    PACKAGE_MANAGER_ERROR_INVALID_PARAMETER = -22,
    PACKAGE_MANAGER_ERROR_OUT_OF_MEMORY = -12,
    PACKAGE_MANAGER_ERROR_IO_ERROR = -5,
    PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE = -0x01150001, /* the id names no installed package or application */
    PACKAGE_MANAGER_ERROR_SYSTEM_ERROR = -0x01150002     /* the registry cannot be read */
} package_manager_error_e;

/* Kinds of application a package holds. */
typedef enum {
    PACKAGE_INFO_APP_COMPONENT_TYPE_ALL = 0,
    PACKAGE_INFO_APP_COMPONENT_TYPE_UI = 1,
    PACKAGE_INFO_APP_COMPONENT_TYPE_SERVICE = 2,
    PACKAGE_INFO_APP_COMPONENT_TYPE_WIDGET = 3,
    PACKAGE_INFO_APP_COMPONENT_TYPE_WATCH = 4
} package_info_app_component_type_e;

/* One installed package, valid only inside the callback that receives it. */
typedef struct package_info_s *package_info_h;

/* Called once per installed package; return false to stop the walk. */
typedef bool (*package_manager_package_info_cb)(package_info_h package_info, void *user_data);
/* Called once per application of a package; return false to stop the walk. */
typedef bool (*package_info_app_cb)(package_info_app_component_type_e comp_type, const char *app_id,
                                    void *user_data);

/* The id of the package that holds `app_id`, in a string the caller frees
 * with free(). NO_SUCH_PACKAGE when no installed package holds it. */
int package_manager_get_package_id_by_app_id(const char *app_id, char **package_id);

/* Calls `callback` for every installed package, in the order of installation.
 * A callback that returns false ends the walk; the result is still NONE. */
int package_manager_foreach_package_info(package_manager_package_info_cb callback, void *user_data);

/* Calls `callback` for every application of the package whose kind matches
 * `comp_type` (ALL matches every kind), in the package's order. Applications
 * of the host's registry are all UI applications. */
int package_info_foreach_app_from_package(package_info_h package_info, package_info_app_component_type_e comp_type,
                                          package_info_app_cb callback, void *user_data);

/* The package's id, in a string the caller frees with free(). */
int package_info_get_package(package_info_h package_info, char **package);

#ifdef __cplusplus
}
#endif

#endif
