/*
 * The platform log. One line per call, written to standard error in a
 * dlogutil-like form: time, priority letter, tag and pid, then the message.
 * TILVANE_LOG_LEVEL (V, D, I, W, E, F or a priority number) sets the lowest
 * priority written; the default is D.
 */
#ifndef TILVANE_PLATFORM_DLOG_H
#define TILVANE_PLATFORM_DLOG_H

#include <errno.h>
#include <stdarg.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
    DLOG_SILENT,
    DLOG_PRIO_MAX,
} log_priority;

typedef enum {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO,
    LOG_ID_SYSTEM,
    LOG_ID_APPS,
    LOG_ID_MAX,
} log_id_t;

typedef enum {
    DLOG_ERROR_NONE = 0,
    DLOG_ERROR_INVALID_PARAMETER = -EINVAL,
    DLOG_ERROR_NOT_PERMITTED = -EPERM,
} dlog_error_e;

int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
int __dlog_vprint(log_id_t log_id, int prio, const char *tag, const char *fmt, va_list ap);

int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
