/*
 * Where the platform log's lines go: standard error (the default, what the
 * service and the tools want), or a sink that a library's user chose. The
 * client library (packaging/client_library.cpp) starts with a sink that drops
 * every line, so that an application sees nothing on its standard error
 * unless it installs a log handler. The level and the rate limit apply before
 * the sink. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_LOG_SINK_H
#define TILVANE_PLATFORM_LOG_SINK_H

namespace tilvane {
namespace host {

/* One line: its priority (DLOG_*), tag and message (without the time stamp
 * and pid of the standard-error form). */
using LogSink = void (*)(int priority, const char* tag, const char* message, void* userData);

/* Sends every written line to `sink` from now on; a null sink restores
 * standard error. Safe from any thread. */
void SetLogSink(LogSink sink, void* userData);

/* A sink that drops every line. */
void DropLogLine(int priority, const char* tag, const char* message, void* userData);

}  // namespace host
}  // namespace tilvane

#endif
