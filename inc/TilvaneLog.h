/*
 * Logging of the service. Every line goes to the platform log under the tag
 * "tilvane" and starts with "<source file>: <function>(<line>) > ".
 */
#ifndef TILVANE_LOG_H
#define TILVANE_LOG_H

#include <dlog.h>

#ifdef LOG_TAG
#undef LOG_TAG
#endif
#define LOG_TAG "tilvane"

/* The base name of a source path, computed at compile time. */
constexpr const char* TilvaneSourceFileName(const char* path)
{
    const char* name = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            name = p + 1;
        }
    }
    return name;
}

/* A line in the name of `func`: for a piece shared by several functions,
 * each of which keeps its own name in the lines the piece writes for it. */
#define TILVANE_LOG_AS(prio, func, fmt, ...)                                                           \
    __dlog_print(LOG_ID_MAIN, prio, LOG_TAG, "%s: %s(%d) > " fmt, TilvaneSourceFileName(__FILE__), \
                 func, __LINE__, ##__VA_ARGS__)

#define TILVANE_LOG(prio, fmt, ...) TILVANE_LOG_AS(prio, __func__, fmt, ##__VA_ARGS__)

#define LOGD(fmt, ...) TILVANE_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) TILVANE_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) TILVANE_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) TILVANE_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)

#define LOGD_AS(func, fmt, ...) TILVANE_LOG_AS(DLOG_DEBUG, func, fmt, ##__VA_ARGS__)
#define LOGI_AS(func, fmt, ...) TILVANE_LOG_AS(DLOG_INFO, func, fmt, ##__VA_ARGS__)
#define LOGE_AS(func, fmt, ...) TILVANE_LOG_AS(DLOG_ERROR, func, fmt, ##__VA_ARGS__)

#endif
