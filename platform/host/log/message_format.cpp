/*
 * Log messages without printf's machinery (message_format.h): vsnprintf spent
 * about 2,000 instructions on a line of a request, more than the rest of the
 * line's writing together.
 */
#include "log/message_format.h"

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

#include <cstddef>
#include <cstring>

namespace tilvane {
namespace host {
namespace {

enum class Length { None, Char, Short, Long, LongLong, Max, Size, Diff };

/* One conversion: its length modifier and its letter. */
struct Directive {
    Length length = Length::None;
    char conversion = 0;
};

Length ReadLength(const char*& p)
{
    switch (*p) {
    case 'h':
        ++p;
        return *p == 'h' ? (++p, Length::Char) : Length::Short;
    case 'l':
        ++p;
        return *p == 'l' ? (++p, Length::LongLong) : Length::Long;
    case 'j': ++p; return Length::Max;
    case 'z': ++p; return Length::Size;
    case 't': ++p; return Length::Diff;
    default: return Length::None;
    }
}

/* Reads the conversion after a '%' at `p`; false for one that is written by
 * vsnprintf (flags, width, precision, other letters, wide characters). */
bool ReadDirective(const char*& p, Directive& directive)
{
    directive.length = ReadLength(p);
    directive.conversion = *p;
    switch (directive.conversion) {
    case 'd': case 'i': case 'u': case 'x': case 'X':
        break;
    case 'c': case 's':
        if (directive.length != Length::None) {
            return false;
        }
        break;
    case '%':
        if (directive.length != Length::None) {
            return false;
        }
        break;
    default:
        return false;
    }
    ++p;
    return true;
}

/* The next argument of a signed conversion, as the length modifier reads it. */
int64_t SignedArgument(Length length, va_list* ap)
{
    switch (length) {
    case Length::Char: return static_cast<signed char>(va_arg(*ap, int));
    case Length::Short: return static_cast<short>(va_arg(*ap, int));
    case Length::Long: return va_arg(*ap, long);
    case Length::LongLong: return va_arg(*ap, long long);
    case Length::Max: return va_arg(*ap, intmax_t);
    case Length::Size: return va_arg(*ap, ssize_t);
    case Length::Diff: return va_arg(*ap, ptrdiff_t);
    case Length::None: break;
    }
    return va_arg(*ap, int);
}

uint64_t UnsignedArgument(Length length, va_list* ap)
{
    switch (length) {
    case Length::Char: return static_cast<unsigned char>(va_arg(*ap, unsigned int));
    case Length::Short: return static_cast<unsigned short>(va_arg(*ap, unsigned int));
    case Length::Long: return va_arg(*ap, unsigned long);
    case Length::LongLong: return va_arg(*ap, unsigned long long);
    case Length::Max: return va_arg(*ap, uintmax_t);
    case Length::Size: return va_arg(*ap, size_t);
    case Length::Diff: return static_cast<uint64_t>(va_arg(*ap, ptrdiff_t));
    case Length::None: break;
    }
    return va_arg(*ap, unsigned int);
}

/* Appends `value` in `base` (10 or 16), with a minus sign when `negative`. */
void AppendNumber(LineBuffer& out, uint64_t value, bool negative, unsigned base, bool upper)
{
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char text[24];
    char* end = text + sizeof text;
    char* p = end;
    do {
        *--p = digits[value % base];
        value /= base;
    } while (value != 0);
    if (negative) {
        *--p = '-';
    }
    out.Append(p, static_cast<size_t>(end - p));
}

void AppendConversion(LineBuffer& out, const Directive& directive, va_list* ap)
{
    switch (directive.conversion) {
    case 'd':
    case 'i': {
        const int64_t value = SignedArgument(directive.length, ap);
        const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
        AppendNumber(out, magnitude, value < 0, 10, false);
        break;
    }
    case 'u': AppendNumber(out, UnsignedArgument(directive.length, ap), false, 10, false); break;
    case 'x': AppendNumber(out, UnsignedArgument(directive.length, ap), false, 16, false); break;
    case 'X': AppendNumber(out, UnsignedArgument(directive.length, ap), false, 16, true); break;
    case 'c': out.Append(static_cast<char>(static_cast<unsigned char>(va_arg(*ap, int)))); break;
    case 's': {
        const char* text = va_arg(*ap, const char*);
        out.Append(text != nullptr ? text : "(null)");
        break;
    }
    default: out.Append('%'); break;
    }
}

/* Formats `fmt` into `out`; false as soon as it meets a conversion it leaves
 * to vsnprintf (`*ap` is then partly read). The arguments are read through a
 * pointer, so that every helper advances the same list on every ABI. */
bool AppendDirectly(LineBuffer& out, const char* fmt, va_list* ap)
{
    const char* p = fmt;
    for (;;) {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            out.Append(p);
            return true;
        }
        out.Append(p, static_cast<size_t>(percent - p));
        p = percent + 1;
        Directive directive;
        if (!ReadDirective(p, directive)) {
            return false;
        }
        AppendConversion(out, directive, ap);
    }
}

void AppendPrintf(LineBuffer& out, const char* fmt, va_list ap)
{
    constexpr size_t kFirstTry = 256;
    va_list first;
    va_copy(first, ap);
    const int needed = vsnprintf(out.Room(kFirstTry), kFirstTry + 1, fmt, first);
    va_end(first);
    if (needed < 0) {
        return;
    }
    if (static_cast<size_t>(needed) > kFirstTry) {
        vsnprintf(out.Room(static_cast<size_t>(needed)), static_cast<size_t>(needed) + 1, fmt, ap);
    }
    out.Commit(static_cast<size_t>(needed));
}

}  // namespace

void AppendMessage(LineBuffer& out, const char* fmt, va_list ap)
{
    const size_t start = out.size();
    va_list direct;
    va_copy(direct, ap);
    const bool done = AppendDirectly(out, fmt, &direct);
    va_end(direct);
    if (!done) {
        out.Truncate(start);
        AppendPrintf(out, fmt, ap);
    }
}

bool FormatsDirectly(const char* fmt)
{
    for (const char* p = std::strchr(fmt, '%'); p != nullptr; p = std::strchr(p, '%')) {
        ++p;
        Directive directive;
        if (!ReadDirective(p, directive)) {
            return false;
        }
    }
    return true;
}

}  // namespace host
}  // namespace tilvane
