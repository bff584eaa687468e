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

#define TILVANE_LOG(prio, fmt, ...)                                                                      \
    __dlog_print(LOG_ID_MAIN, prio, LOG_TAG, "%s: %s(%d) > " fmt, TilvaneSourceFileName(__FILE__), \
                 __func__, __LINE__, ##__VA_ARGS__)

#define LOGD(fmt, ...) TILVANE_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define LOGI(fmt, ...) TILVANE_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define LOGW(fmt, ...) TILVANE_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define LOGE(fmt, ...) TILVANE_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)

#endif
