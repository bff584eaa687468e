/*
 * tilvanectl data insert --bulk for files beyond what one request may carry:
 * the rows cut into parts that each fit one bulk (tilvane_client.h's limits),
 * and a progress line while the parts go out on a terminal.
 */
#ifndef TILVANECTL_BULK_PARTS_H
#define TILVANECTL_BULK_PARTS_H

#include <cstddef>
#include <string>
#include <vector>

#include <tilvane_client.h>

namespace tilvanectl {

/* Rows [first, first + count) of the file. */
struct BulkPart {
    size_t first = 0;
    size_t count = 0;
};

/* Cuts `rows` into parts of at most kMaxBulkRows rows and kMaxBulkBytes as
 * sent. False, with `error` naming the row and the limit, when one row alone
 * is more than a request may carry. */
bool SplitIntoParts(const std::vector<tilvane::client::Values>& rows, std::vector<BulkPart>& parts,
                    std::string& error);

/* "inserting: 4096 of 10000 rows (part 1 of 3)" on standard error, rewritten
 * in place, when standard error is a terminal; nothing otherwise. The line is
 * ended when the progress goes. */
class Progress {
public:
    Progress(size_t rows, size_t parts);
    ~Progress();
    void Done(size_t rows, size_t parts);

private:
    const size_t m_rows;
    const size_t m_parts;
    const bool m_shown;
    bool m_written = false;
};

}  // namespace tilvanectl

#endif
