/*
 * How wide a UTF-8 text is on a terminal: one column per code point, two for
 * the East Asian wide and full-width ones, none for combining marks. Used to
 * align tables and help rows.
 */
#ifndef TILVANECTL_TEXT_WIDTH_H
#define TILVANECTL_TEXT_WIDTH_H

#include <string>

namespace tilvanectl {

size_t DisplayWidth(const std::string& text);

/* `text` followed by blanks up to `width` columns (nothing added when it is
 * already as wide). */
std::string PadToWidth(const std::string& text, size_t width);

}  // namespace tilvanectl

#endif
