#include "BulkParts.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>


namespace tilvanectl {
namespace {

using tilvane::client::Values;

/* Why one row is more than a request may carry; "" when it is not. */
std::string RowOverLimits(const Values& row)
{
    using namespace tilvane::client;
    size_t bytes = 0;
    for (const auto& entry : row) {
        if (entry.first.size() > kMaxColumnNameBytes) {
            return "a column name of " + std::to_string(entry.first.size()) + " bytes; a name may have at most " +
                   std::to_string(kMaxColumnNameBytes);
        }
        bytes += entry.first.size() + entry.second.size();
    }
    if (row.size() > kMaxRowColumns) {
        return std::to_string(row.size()) + " columns; a row may have at most " + std::to_string(kMaxRowColumns);
    }
    if (bytes > kMaxRowBytes) {
        return std::to_string(bytes) + " bytes of column names and values; a row may have at most " +
               std::to_string(kMaxRowBytes);
    }
    return std::string();
}

}  // namespace

bool SplitIntoParts(const std::vector<Values>& rows, std::vector<BulkPart>& parts, std::string& error)
{
    using namespace tilvane::client;
    parts.clear();
    size_t partBytes = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        const std::string over = RowOverLimits(rows[i]);
        if (!over.empty()) {
            error = "row " + std::to_string(i + 1) + " has " + over + " (the limit of one request)";
            return false;
        }
        const size_t bytes = RowBytesSent(rows[i]);
        if (parts.empty() || parts.back().count == kMaxBulkRows || partBytes + bytes > kMaxBulkBytes) {
            parts.push_back(BulkPart{i, 0});
            partBytes = 0;
        }
        ++parts.back().count;
        partBytes += bytes;
    }
    return true;
}

Progress::Progress(size_t rows, size_t parts) : m_rows(rows), m_parts(parts), m_shown(isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (m_written) {
        std::fputc('\n', stderr);
    }
}

void Progress::Done(size_t rows, size_t parts)
{
    if (!m_shown) {
        return;
    }
    std::fprintf(stderr, "\rinserting: %zu of %zu rows (part %zu of %zu)", rows, m_rows, parts, m_parts);
    std::fflush(stderr);
    m_written = true;
}

}  // namespace tilvanectl
