/*
 * The application's log handler (tilvane_publisher.h): the platform log's
 * lines go to it, or nowhere when there is none (log/log_sink.h).
 */
#include <mutex>

#include "log/log_sink.h"
#include "tilvane_publisher.h"

namespace tilvane {
namespace client {
namespace {

struct Handler {
    std::mutex mutex;
    LogHandler handler;
};

Handler& TheHandler()
{
    static Handler* handler = new Handler();
    return *handler;
}

void ForwardLineCB(int priority, const char* tag, const char* message, void* /*userData*/)
{
    LogHandler handler;
    {
        Handler& h = TheHandler();
        std::lock_guard<std::mutex> lock(h.mutex);
        handler = h.handler;
    }
    if (handler) {
        handler(priority, tag, message);
    }
}

}  // namespace

void SetLogHandler(LogHandler handler)
{
    const bool installed = static_cast<bool>(handler);
    {
        Handler& h = TheHandler();
        std::lock_guard<std::mutex> lock(h.mutex);
        h.handler = std::move(handler);
    }
    host::SetLogSink(installed ? ForwardLineCB : host::DropLogLine, nullptr);
}

}  // namespace client
}  // namespace tilvane
