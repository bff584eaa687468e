/*
 * Rows on the wire: one byte string for a whole select result.
 *
 *   u8  format (1)
 *   u32 column count, then per column: u32 length, name bytes
 *   u32 row count
 *   per row, per cell: u8 tag, then
 *     0 NULL     nothing
 *     1 INTEGER  8 bytes, signed, little-endian
 *     2 REAL     8 bytes, IEEE 754 double, little-endian
 *     3 TEXT     u32 length, bytes
 *     4 BLOB     u32 length, bytes
 * All u32 are little-endian. The client reads them with client/row_decoder.h.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_ROW_CODEC_H
#define TILVANE_PLATFORM_ROW_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>


struct sqlite3_stmt;
class ISQLiteCursor;

namespace tilvane {
namespace host {

constexpr uint8_t kRowFormat = 1;
enum RowTag : uint8_t { kTagNull = 0, kTagInteger = 1, kTagReal = 2, kTagText = 3, kTagBlob = 4 };

class RowEncoder {
public:
    /* `maxBytes`: the encoding stops growing once it would pass this many
     * bytes (a cell that would pass it is left out), and Over() says so. */
    explicit RowEncoder(const std::vector<std::string>& columns, size_t maxBytes = SIZE_MAX);
    void Null();
    void Integer(int64_t value);
    void Real(double value);
    void Text(const char* data, size_t length);
    void Blob(const void* data, size_t length);
    void EndRow() { ++m_rows; }
    /* The current row of `statement`, `count` columns, each read once in its
     * own storage class straight from SQLite's buffers. */
    void StatementRow(sqlite3_stmt* statement, int count);
    /* The finished encoding (row count filled in). */
    std::string Finish();
    /* True when a cell was left out for the byte ceiling. */
    bool Over() const { return m_over; }
    size_t Bytes() const { return m_used; }

private:
    /* False (and Over() from then on) when `bytes` more would pass the ceiling. */
    bool Room(size_t bytes);
    /* Where the next `bytes` go; they count as written. */
    char* Grow(size_t bytes);
    /* A tag and a length, then `length` bytes of `data`. */
    void Tagged(uint8_t tag, const void* data, size_t length);
    /* The buffer is kept longer than what was written (m_used), so that a
     * cell is written without a call per byte run; Finish() cuts it. */
    std::string m_bytes;
    size_t m_used = 0;
    size_t m_maxBytes = SIZE_MAX;
    bool m_over = false;
    size_t m_rowCountAt = 0;
    uint32_t m_rows = 0;
};

/* How encoding a select's rows ended. */
enum class RowsEncoding { Done, Failed, TooLarge };

/* Steps `statement` to its end and encodes its rows, in at most `maxBytes`:
 * Failed when SQLite fails, TooLarge (and nothing in `encoded`) as soon as
 * the rows would need more. */
RowsEncoding EncodeStatementRows(sqlite3_stmt* statement, std::string& encoded, size_t maxBytes = SIZE_MAX);
/* The same for a cursor. */
RowsEncoding EncodeCursorRows(ISQLiteCursor& cursor, std::string& encoded, size_t maxBytes = SIZE_MAX);

}  // namespace host
}  // namespace tilvane

#endif
