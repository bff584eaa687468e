/*
 * The message of a log line, formatted from its printf format and arguments.
 * The conversions the service's lines use (%s %d %i %u %x %X %c %% with the
 * length modifiers hh h l ll j z t, no flags, width or precision) are written
 * here directly; any other format goes to vsnprintf. Both give the same
 * bytes: glibc's, "(null)" for a null string included. Internal to the log
 * room.
 */
#ifndef TILVANE_PLATFORM_MESSAGE_FORMAT_H
#define TILVANE_PLATFORM_MESSAGE_FORMAT_H

#include <stdarg.h>

#include "log/line_buffer.h"

namespace tilvane {
namespace host {

/* Appends the formatted message to `out`; `ap` is left for the caller to end. */
void AppendMessage(LineBuffer& out, const char* fmt, va_list ap);

/* Whether AppendMessage formats `fmt` itself (true) or hands it to vsnprintf. */
bool FormatsDirectly(const char* fmt);

}  // namespace host
}  // namespace tilvane

#endif
