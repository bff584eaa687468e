#include "TextWidth.h"

#include <glib.h>

#include <algorithm>

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

std::string FormatTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows)
{
    std::vector<size_t> widths;
    for (const std::string& column : header) {
        widths.push_back(DisplayWidth(column));
    }
    for (const auto& row : rows) {
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            widths[c] = std::max(widths[c], DisplayWidth(row[c]));
        }
    }
    std::string text;
    auto addLine = [&](const std::vector<std::string>& cells) {
        for (size_t c = 0; c < cells.size(); ++c) {
            text += c + 1 < cells.size() && c < widths.size() ? PadToWidth(cells[c], widths[c] + 2) : cells[c];
        }
        text += "\n";
    };
    addLine(header);
    for (const auto& row : rows) {
        addLine(row);
    }
    return text;
}

}  // namespace tilvanectl
