/*
 * How wide a UTF-8 text is on a terminal: one column per code point, two for
 * the East Asian wide and full-width ones, none for combining marks. Used to
 * align tables and help rows.
 */
#ifndef TILVANECTL_TEXT_WIDTH_H
#define TILVANECTL_TEXT_WIDTH_H

#include <string>
#include <vector>

namespace tilvanectl {

size_t DisplayWidth(const std::string& text);

/* `text` followed by blanks up to `width` columns (nothing added when it is
 * already as wide). */
std::string PadToWidth(const std::string& text, size_t width);

/* The header and the rows as lines of aligned columns, two blanks apart. */
std::string FormatTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);

}  // namespace tilvanectl

#endif
