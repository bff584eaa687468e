#include "TextWidth.h"

#include <glib.h>

namespace tilvanectl {

size_t DisplayWidth(const std::string& text)
{
    /* Invalid UTF-8 is counted byte by byte, so that nothing is lost. */
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        return text.size();
    }
    size_t width = 0;
    for (const char* p = text.data(); p < text.data() + text.size(); p = g_utf8_next_char(p)) {
        const gunichar c = g_utf8_get_char(p);
        if (g_unichar_iszerowidth(c)) {
            continue;
        }
        width += g_unichar_iswide(c) ? 2 : 1;
    }
    return width;
}

std::string PadToWidth(const std::string& text, size_t width)
{
    const size_t have = DisplayWidth(text);
    return have >= width ? text : text + std::string(width - have, ' ');
}

}  // namespace tilvanectl
