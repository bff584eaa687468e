/*
 * The web-application store's list: one entry per web application, naming
 * the store's id of the application and the package that holds it.
 */
#ifndef TILVANE_PLATFORM_QEB_APP_LIST_H
#define TILVANE_PLATFORM_QEB_APP_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QEB_APP_LIST_ERROR_NONE = 0,
    QEB_APP_LIST_ERROR_INVALID_PARAMETER = -1,
    QEB_APP_LIST_ERROR_OUT_OF_MEMORY = -2,
    QEB_APP_LIST_ERROR_DB_FAILED = -3
};

/* Layout of one record of the list. Both texts are NUL-terminated; the rest
 * of the record is zero. */
enum {
    QEB_APP_RECORD_SIZE = 2288,
    QEB_APP_RECORD_WEB_APP_ID_OFFSET = 0,
    QEB_APP_RECORD_PACKAGE_OFFSET = 1024,
    QEB_APP_RECORD_TEXT_MAX = 1023 /* longest text of either field, without its NUL */
};

/* Fills `*list` with `*count` records of QEB_APP_RECORD_SIZE bytes each, in
 * the order the applications were installed; the caller frees the array with
 * free(). An empty store gives a count of 0 and a NULL list. The first six
 * arguments select parts of the store (kinds, regions, sort order); the host's
 * store has no such parts and returns every entry whatever their values. */
int qeb_get_app_list(int type, int subtype, int region, int sort, int offset, int reserved, void **list,
                     int *count);

#ifdef __cplusplus
}
#endif

#endif
