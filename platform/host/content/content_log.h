/*
 * Logging of the content library. Lines go to the platform log under their own
 * tag, so that the service's lines and the library's can be told apart.
 */
#ifndef TILVANE_CONTENT_LOG_H
#define TILVANE_CONTENT_LOG_H

#include <dlog.h>

namespace tilvane {
namespace content {

constexpr const char* kLogTag = "tilvane-content";

}  // namespace content
}  // namespace tilvane

/* Messages are written as they are, without a source prefix: some of them
 * ("database opened: <path>", "database closed: <path>") are read by tools. */
#define CONTENT_LOG(prio, fmt, ...) \
    __dlog_print(LOG_ID_MAIN, prio, ::tilvane::content::kLogTag, fmt, ##__VA_ARGS__)

#define CONTENT_LOGD(fmt, ...) CONTENT_LOG(DLOG_DEBUG, fmt, ##__VA_ARGS__)
#define CONTENT_LOGI(fmt, ...) CONTENT_LOG(DLOG_INFO, fmt, ##__VA_ARGS__)
#define CONTENT_LOGW(fmt, ...) CONTENT_LOG(DLOG_WARN, fmt, ##__VA_ARGS__)
#define CONTENT_LOGE(fmt, ...) CONTENT_LOG(DLOG_ERROR, fmt, ##__VA_ARGS__)

#endif
