/*
 * Reading the rows of a select reply (requests/row_codec.h has their form)
 * into the client library's RowSet.
 */
#include "client/row_decoder.h"

#include <cstring>

#include "requests/row_codec.h"

namespace tilvane {
namespace host {

namespace {

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool U8(uint8_t& value)
    {
        if (m_at + 1 > m_size) {
            return false;
        }
        value = m_data[m_at++];
        return true;
    }
    bool U32(uint32_t& value) { return LittleEndian(value); }
    bool U64(uint64_t& value) { return LittleEndian(value); }
    bool Bytes(size_t length, const uint8_t*& start)
    {
        if (length > m_size - m_at) {
            return false;
        }
        start = m_data + m_at;
        m_at += length;
        return true;
    }
    bool AtEnd() const { return m_at == m_size; }
    size_t Left() const { return m_size - m_at; }

private:
    /* An unsigned number of sizeof(T) bytes, least significant first. */
    template <typename T>
    bool LittleEndian(T& value)
    {
        if (m_at + sizeof(T) > m_size) {
            return false;
        }
        value = 0;
        for (size_t i = 0; i < sizeof(T); ++i) {
            value |= static_cast<T>(m_data[m_at + i]) << (8 * i);
        }
        m_at += sizeof(T);
        return true;
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

}  // namespace

namespace {

/* A length-prefixed run of bytes. */
bool ReadRun(Reader& reader, const uint8_t*& start, uint32_t& length)
{
    return reader.U32(length) && reader.Bytes(length, start);
}

/* One cell: its tag, then its value. */
bool DecodeCell(Reader& reader, client::Cell& cell)
{
    using client::Cell;
    uint8_t tag = 0;
    if (!reader.U8(tag)) {
        return false;
    }
    uint64_t bits = 0;
    uint32_t length = 0;
    const uint8_t* start = nullptr;
    switch (tag) {
    case kTagNull:
        cell.type = Cell::Type::Null;
        return true;
    case kTagInteger:
        if (!reader.U64(bits)) {
            return false;
        }
        cell.type = Cell::Type::Integer;
        cell.integer = static_cast<int64_t>(bits);
        return true;
    case kTagReal:
        if (!reader.U64(bits)) {
            return false;
        }
        cell.type = Cell::Type::Real;
        std::memcpy(&cell.real, &bits, sizeof bits);
        return true;
    case kTagText:
        if (!ReadRun(reader, start, length)) {
            return false;
        }
        cell.type = Cell::Type::Text;
        cell.text.assign(reinterpret_cast<const char*>(start), length);
        return true;
    case kTagBlob:
        if (!ReadRun(reader, start, length)) {
            return false;
        }
        cell.type = Cell::Type::Blob;
        cell.blob.assign(start, start + length);
        return true;
    default:
        return false;
    }
}

}  // namespace

bool DecodeRows(const uint8_t* data, size_t size, client::RowSet& rows)
{
    Reader reader(data, size);
    uint8_t format = 0;
    uint32_t columnCount = 0;
    if (!reader.U8(format) || format != kRowFormat || !reader.U32(columnCount) || columnCount > size) {
        return false;
    }
    rows.columns.clear();
    rows.rows.clear();
    for (uint32_t i = 0; i < columnCount; ++i) {
        uint32_t length = 0;
        const uint8_t* start = nullptr;
        if (!ReadRun(reader, start, length)) {
            return false;
        }
        rows.columns.emplace_back(reinterpret_cast<const char*>(start), length);
    }
    uint32_t rowCount = 0;
    /* Every cell takes at least its tag byte, so the counts are checked
     * against what is left before anything is reserved: a result without
     * columns has no rows, and decoding stays linear in `size`. */
    if (!reader.U32(rowCount) || (columnCount == 0 && rowCount > 0) ||
        static_cast<uint64_t>(rowCount) * columnCount > reader.Left()) {
        return false;
    }
    rows.rows.reserve(rowCount);
    for (uint32_t r = 0; r < rowCount; ++r) {
        std::vector<client::Cell> row(columnCount);
        for (client::Cell& cell : row) {
            if (!DecodeCell(reader, cell)) {
                return false;
            }
        }
        rows.rows.push_back(std::move(row));
    }
    return reader.AtEnd();
}

}  // namespace host
}  // namespace tilvane
