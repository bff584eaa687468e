/*
 * Data control, SQL provider side: a provider registers four request
 * callbacks; the platform calls them on the GLib default main context, one
 * request at a time, and answers the client with what the callback sent
 * through the data_control_provider_send_* functions while it ran.
 *
 * The process serves the provider id given in TILVANE_DATA_CONTROL_PROVIDER_ID
 * ("scheme://authority"). While callbacks are registered it owns the bus name
 * of that authority (see docs/messaging.md, "The request interfaces").
 *
 * Results: DATA_CONTROL_ERROR_NONE or a negative DATA_CONTROL_ERROR_*.
 */
#ifndef TILVANE_PLATFORM_DATA_CONTROL_H
#define TILVANE_PLATFORM_DATA_CONTROL_H

#include <errno.h>

#include "bundle.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DATA_CONTROL_ERROR_NONE = 0,
    DATA_CONTROL_ERROR_OUT_OF_MEMORY = -ENOMEM,
    DATA_CONTROL_ERROR_IO_ERROR = -EIO,
    DATA_CONTROL_ERROR_INVALID_PARAMETER = -EINVAL,
    DATA_CONTROL_ERROR_PERMISSION_DENIED = -EACCES,
    DATA_CONTROL_ERROR_MAX_EXCEEDED = -EOVERFLOW
} data_control_error_e;

/* The provider id and data id a request was sent to; valid during the callback. */
typedef struct data_control_s* data_control_h;

typedef void (*data_control_provider_sql_insert_request_cb)(int request_id, data_control_h provider,
                                                            bundle* insert_data, void* user_data);
typedef void (*data_control_provider_sql_select_request_cb)(int request_id, data_control_h provider,
                                                            const char** column_list, int column_count,
                                                            const char* where, const char* order, void* user_data);
typedef void (*data_control_provider_sql_update_request_cb)(int request_id, data_control_h provider,
                                                            bundle* update_data, const char* where, void* user_data);
typedef void (*data_control_provider_sql_delete_request_cb)(int request_id, data_control_h provider,
                                                            const char* where, void* user_data);

typedef struct {
    data_control_provider_sql_insert_request_cb insert_cb;
    data_control_provider_sql_select_request_cb select_cb;
    data_control_provider_sql_update_request_cb update_cb;
    data_control_provider_sql_delete_request_cb delete_cb;
} data_control_provider_sql_cb;

/* Registers (or replaces) the callbacks. INVALID_PARAMETER for a null record;
 * IO_ERROR when the provider's bus name cannot be owned. */
int data_control_provider_sql_register_cb(data_control_provider_sql_cb* callback, void* user_data);
/* Removes them and gives up the bus name. */
int data_control_provider_sql_unregister_cb(void);

/* The application id of the client of a request in progress (caller frees).
 * INVALID_PARAMETER for an unknown request id or a null out pointer. */
int data_control_provider_get_client_appid(int request_id, char** appid);
/* The provider id / data id of the handle (caller frees). */
int data_control_sql_get_provider_id(data_control_h provider, char** provider_id);
int data_control_sql_get_data_id(data_control_h provider, char** data_id);

/* malloc'd "SELECT cols FROM <data id>[ WHERE where][ ORDER BY order]"; the
 * columns joined by ", ", or "*" when there are none. Null on bad input. */
char* data_control_provider_create_select_statement(data_control_h provider, const char** column_list,
                                                    int column_count, const char* where, const char* order);

/* Answers of a request in progress. Each may be sent once per request;
 * INVALID_PARAMETER for an unknown or already answered request. */
int data_control_provider_send_insert_result(int request_id, long long row_id);
/* db_handle is an sqlite3_stmt*: it is stepped to its end and its rows sent;
 * the caller finalises it afterwards. IO_ERROR when stepping fails. */
int data_control_provider_send_select_result(int request_id, void* db_handle);
int data_control_provider_send_update_result(int request_id);
int data_control_provider_send_delete_result(int request_id);
int data_control_provider_send_error(int request_id, const char* error);

#ifdef __cplusplus
}
#endif

#endif
