/*
 * The JSON Lines reader of tilvanectl data insert --bulk, on its own so that
 * tests and fuzzers can call it.
 */
#ifndef TILVANECTL_JSON_LINES_H
#define TILVANECTL_JSON_LINES_H

#include <iosfwd>
#include <string>
#include <vector>

#include <tilvane_client.h>

namespace tilvanectl {

/* One line: a flat object of string or number values, in order. */
bool ParseJsonLine(const std::string& line, tilvane::client::Values& values, std::string& error);

/* Every line of `in` that is not blank is one row. On a mistake, false and
 * `error` holds "<name>:<line>: <what>". */
bool ReadJsonLines(std::istream& in, const std::string& name, std::vector<tilvane::client::Values>& rows,
                   std::string& error);

}  // namespace tilvanectl

#endif
