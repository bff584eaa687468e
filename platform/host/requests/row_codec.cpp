/*
 * The encoding of select results that both request interfaces send (row_codec.h).
 */
#include "requests/row_codec.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>

#include "SQLiteCursor.h"
#include "content/sqlite_statement_cursor.h"

namespace tilvane {
namespace host {

namespace {

/* Room for the first rows; the buffer doubles after that. */
constexpr size_t kInitialReserve = 16 * 1024;

char* PutU32At(char* out, uint32_t value)
{
    out[0] = static_cast<char>(value & 0xff);
    out[1] = static_cast<char>((value >> 8) & 0xff);
    out[2] = static_cast<char>((value >> 16) & 0xff);
    out[3] = static_cast<char>((value >> 24) & 0xff);
    return out + 4;
}

std::vector<std::string> StatementColumnNames(sqlite3_stmt* statement)
{
    const int count = sqlite3_column_count(statement);
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const char* name = sqlite3_column_name(statement, i);
        names.emplace_back(name != nullptr ? name : "");
    }
    return names;
}

}  // namespace

RowEncoder::RowEncoder(const std::vector<std::string>& columns, size_t maxBytes) : m_maxBytes(maxBytes)
{
    m_bytes.resize(kInitialReserve);
    *Grow(1) = static_cast<char>(kRowFormat);
    PutU32At(Grow(4), static_cast<uint32_t>(columns.size()));
    for (const std::string& name : columns) {
        char* at = PutU32At(Grow(4 + name.size()), static_cast<uint32_t>(name.size()));
        std::memcpy(at, name.data(), name.size());
    }
    m_rowCountAt = m_used;
    PutU32At(Grow(4), 0);
}

char* RowEncoder::Grow(size_t bytes)
{
    if (m_bytes.size() - m_used < bytes) {
        m_bytes.resize(std::max(m_bytes.size() * 2, m_used + bytes));
    }
    char* at = &m_bytes[m_used];
    m_used += bytes;
    return at;
}

bool RowEncoder::Room(size_t bytes)
{
    if (m_over || bytes > m_maxBytes || m_used > m_maxBytes - bytes) {
        m_over = true;
        return false;
    }
    return true;
}

void RowEncoder::Null()
{
    if (Room(1)) {
        *Grow(1) = static_cast<char>(kTagNull);
    }
}

void RowEncoder::Integer(int64_t value)
{
    if (Room(9)) {
        char* at = Grow(9);
        *at = static_cast<char>(kTagInteger);
        const uint64_t bits = static_cast<uint64_t>(value);
        PutU32At(PutU32At(at + 1, static_cast<uint32_t>(bits)), static_cast<uint32_t>(bits >> 32));
    }
}

void RowEncoder::Real(double value)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    if (Room(9)) {
        char* at = Grow(9);
        *at = static_cast<char>(kTagReal);
        PutU32At(PutU32At(at + 1, static_cast<uint32_t>(bits)), static_cast<uint32_t>(bits >> 32));
    }
}

void RowEncoder::Tagged(uint8_t tag, const void* data, size_t length)
{
    if (!Room(5 + length)) {
        return;
    }
    char* at = Grow(5 + length);
    *at = static_cast<char>(tag);
    at = PutU32At(at + 1, static_cast<uint32_t>(length));
    if (length > 0) {
        std::memcpy(at, data, length);
    }
}

void RowEncoder::Text(const char* data, size_t length)
{
    Tagged(kTagText, data, length);
}

void RowEncoder::Blob(const void* data, size_t length)
{
    Tagged(kTagBlob, data, length);
}

void RowEncoder::StatementRow(sqlite3_stmt* statement, int count)
{
    for (int i = 0; i < count; ++i) {
        switch (sqlite3_column_type(statement, i)) {
        case SQLITE_INTEGER:
            Integer(sqlite3_column_int64(statement, i));
            break;
        case SQLITE_FLOAT:
            Real(sqlite3_column_double(statement, i));
            break;
        case SQLITE_TEXT: {
            // text first, then bytes: the length is that of the text form.
            const unsigned char* text = sqlite3_column_text(statement, i);
            Text(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(statement, i)));
            break;
        }
        case SQLITE_BLOB: {
            const void* blob = sqlite3_column_blob(statement, i);
            Blob(blob, static_cast<size_t>(sqlite3_column_bytes(statement, i)));
            break;
        }
        default:
            Null();
            break;
        }
    }
    EndRow();
}

std::string RowEncoder::Finish()
{
    PutU32At(&m_bytes[m_rowCountAt], m_rows);
    m_bytes.resize(m_used);
    return std::move(m_bytes);
}

RowsEncoding EncodeStatementRows(sqlite3_stmt* statement, std::string& encoded, size_t maxBytes)
{
    const int count = sqlite3_column_count(statement);
    RowEncoder encoder(StatementColumnNames(statement), maxBytes);
    for (;;) {
        const int step = sqlite3_step(statement);
        if (step == SQLITE_DONE) {
            break;
        }
        if (step != SQLITE_ROW) {
            return RowsEncoding::Failed;
        }
        encoder.StatementRow(statement, count);
        if (encoder.Over()) {
            return RowsEncoding::TooLarge;
        }
    }
    if (encoder.Over()) {
        return RowsEncoding::TooLarge;
    }
    encoded = encoder.Finish();
    return RowsEncoding::Done;
}

namespace {

/* One cell of a cursor's current row, by its type; `text` and `blob` are
 * scratch buffers kept across cells. */
void EncodeCursorCell(ISQLiteCursor& cursor, int i, RowEncoder& encoder, std::string& text,
                      std::vector<unsigned char>& blob)
{
    switch (cursor.GetColumnType(i)) {
    case SQLITE_INTEGER: {
        int64_t value = 0;
        cursor.GetInt64(i, value);
        encoder.Integer(value);
        break;
    }
    case SQLITE_FLOAT: {
        double value = 0.0;
        cursor.GetDouble(i, value);
        encoder.Real(value);
        break;
    }
    case SQLITE_TEXT:
        cursor.GetString(i, text);
        encoder.Text(text.data(), text.size());
        break;
    case SQLITE_BLOB:
        cursor.GetBlob(i, blob);
        encoder.Blob(blob.data(), blob.size());
        break;
    default:
        encoder.Null();
        break;
    }
}

/* The rows of a cursor of any kind, cell by cell through its interface. */
RowsEncoding EncodeEachCursorRow(ISQLiteCursor& cursor, int count, RowEncoder& encoder)
{
    std::string text;
    std::vector<unsigned char> blob;
    for (;;) {
        const int step = cursor.Step();
        if (step == ISQLiteCursor::STEP_DONE) {
            return RowsEncoding::Done;
        }
        if (step != ISQLiteCursor::STEP_ROW) {
            return RowsEncoding::Failed;
        }
        for (int i = 0; i < count; ++i) {
            EncodeCursorCell(cursor, i, encoder, text, blob);
        }
        encoder.EndRow();
        if (encoder.Over()) {
            return RowsEncoding::TooLarge;
        }
    }
}

}  // namespace

RowsEncoding EncodeCursorRows(ISQLiteCursor& cursor, std::string& encoded, size_t maxBytes)
{
    const int count = cursor.GetColumnCount();
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        names.push_back(cursor.GetColumnName(i));
    }
    RowEncoder encoder(names, maxBytes);
    RowsEncoding ended = RowsEncoding::Done;
    // The content library's own cursor: every cell straight from its statement,
    // under one hold of the connection's lock.
    if (auto* direct = dynamic_cast<CSQLiteStatementCursor*>(&cursor)) {
        const int step = direct->ForEachRemainingRow([&encoder, count](sqlite3_stmt* statement) {
            encoder.StatementRow(statement, count);
            return !encoder.Over();
        });
        ended = step == ISQLiteCursor::STEP_DONE ? RowsEncoding::Done
                : encoder.Over()                 ? RowsEncoding::TooLarge
                                                 : RowsEncoding::Failed;
    } else {
        ended = EncodeEachCursorRow(cursor, count, encoder);
    }
    if (ended == RowsEncoding::Done && encoder.Over()) {
        ended = RowsEncoding::TooLarge;  // the column names alone
    }
    if (ended == RowsEncoding::Done) {
        encoded = encoder.Finish();
    }
    return ended;
}

}  // namespace host
}  // namespace tilvane
