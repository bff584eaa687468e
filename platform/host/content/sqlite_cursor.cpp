#include "content/sqlite_statement_cursor.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "content/content_log.h"
#include "content/statement_budget.h"

using tilvane::content::Database;
using tilvane::content::StatementLease;

namespace {

/* A text that is wholly an integer: an optional sign and digits, nothing else. */
bool ParseWholeInteger(const char* text, int64_t& value)
{
    if (text == nullptr) {
        return false;
    }
    const char* digits = text;
    if (*digits == '+' || *digits == '-') {
        ++digits;
    }
    if (*digits < '0' || *digits > '9') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    long long parsed = std::strtoll(text, &end, 10);
    if (errno == ERANGE || end == nullptr || *end != '\0') {
        return false;
    }
    value = static_cast<int64_t>(parsed);
    return true;
}

/* A text that is wholly a finite number. */
bool ParseWholeNumber(const char* text, double& value)
{
    if (text == nullptr || *text == '\0') {
        return false;
    }
    const char* start = text;
    if (*start == '+' || *start == '-') {
        ++start;
    }
    if (!((*start >= '0' && *start <= '9') || *start == '.')) {
        return false;  // no leading blanks, no "inf" or "nan"
    }
    errno = 0;
    char* end = nullptr;
    double parsed = std::strtod(text, &end);
    if (errno == ERANGE || end == nullptr || *end != '\0' || !std::isfinite(parsed)) {
        return false;
    }
    value = parsed;
    return true;
}

/* A double that is exactly an integer within the int64 range. */
bool WholeDouble(double d, int64_t& value)
{
    // 2^63 is exactly representable; every double below it in magnitude that
    // has no fraction fits in int64.
    constexpr double kLimit = 9223372036854775808.0;
    if (!std::isfinite(d) || d < -kLimit || d >= kLimit || std::trunc(d) != d) {
        return false;
    }
    value = static_cast<int64_t>(d);
    return true;
}

}  // namespace

CSQLiteStatementCursor::CSQLiteStatementCursor(std::shared_ptr<Database> database, StatementLease statement)
    : m_pDatabase(std::move(database)), m_statement(std::move(statement))
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    int count = stmt != nullptr ? sqlite3_column_count(stmt) : 0;
    m_columnNames.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        m_columnNames.emplace_back(name != nullptr ? name : "");
    }
}

CSQLiteStatementCursor::~CSQLiteStatementCursor()
{
    // The statement goes back to its connection's cache (or is finalised) under
    // the database's lock; the Database itself may go right after.
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    m_statement.Release();
}

void CSQLiteStatementCursor::StandOnRow(sqlite3_stmt* stmt)
{
    m_position = Position::OnRow;
    m_rowTypes.resize(m_columnNames.size());
    for (size_t i = 0; i < m_rowTypes.size(); ++i) {
        m_rowTypes[i] = sqlite3_column_type(stmt, static_cast<int>(i));
    }
}

int CSQLiteStatementCursor::Step()
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    if (stmt == nullptr) {
        return STEP_ERROR;
    }
    if (m_position == Position::AfterLast) {
        // Stepping a finished statement again would start it over.
        return STEP_DONE;
    }
    if (m_position == Position::Failed) {
        return STEP_ERROR;
    }

    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        StandOnRow(stmt);
        return STEP_ROW;
    }
    m_rowTypes.clear();
    return AfterLastStep(stmt, rc);
}

int CSQLiteStatementCursor::AfterLastStep(sqlite3_stmt* stmt, int rc)
{
    if (rc == SQLITE_DONE) {
        m_position = Position::AfterLast;
        return STEP_DONE;
    }
    m_position = Position::Failed;
    tilvane::content::NoteStatementFailure(m_pDatabase->Handle());
    CONTENT_LOGE("step of \"%s\" failed: %s (%d)", sqlite3_sql(stmt), sqlite3_errmsg(m_pDatabase->Handle()), rc);
    return STEP_ERROR;
}

int CSQLiteStatementCursor::ForEachRemainingRow(const std::function<bool(sqlite3_stmt*)>& row)
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    if (stmt == nullptr || m_position == Position::Failed) {
        return STEP_ERROR;
    }
    if (m_position == Position::AfterLast) {
        return STEP_DONE;
    }
    m_rowTypes.clear();
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        if (!row(stmt)) {
            StandOnRow(stmt);
            return STEP_ROW;
        }
    }
    return AfterLastStep(stmt, rc);
}

int CSQLiteStatementCursor::Reset()
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    if (stmt == nullptr) {
        return SQLITE_MISUSE;
    }
    // reset repeats the error of a failed step; the statement is ready again
    // either way, and the bindings stay.
    sqlite3_reset(stmt);
    m_rowTypes.clear();
    m_position = Position::BeforeFirst;
    return SQLITE_OK;
}

int CSQLiteStatementCursor::GetColumnCount() const
{
    return static_cast<int>(m_columnNames.size());
}

std::string CSQLiteStatementCursor::GetColumnName(int column) const
{
    if (column < 0 || static_cast<size_t>(column) >= m_columnNames.size()) {
        return std::string();
    }
    return m_columnNames[static_cast<size_t>(column)];
}

int CSQLiteStatementCursor::TypeOf(int column) const
{
    if (m_position != Position::OnRow || column < 0 || static_cast<size_t>(column) >= m_rowTypes.size()) {
        return SQLITE_NULL;
    }
    return m_rowTypes[static_cast<size_t>(column)];
}

int CSQLiteStatementCursor::GetColumnType(int column) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    return TypeOf(column);
}

bool CSQLiteStatementCursor::GetInt64(int column, int64_t& value) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    switch (TypeOf(column)) {
    case SQLITE_INTEGER:
        value = sqlite3_column_int64(stmt, column);
        return true;
    case SQLITE_FLOAT:
        return WholeDouble(sqlite3_column_double(stmt, column), value);
    case SQLITE_TEXT:
        return ParseWholeInteger(reinterpret_cast<const char*>(sqlite3_column_text(stmt, column)), value);
    default:  // NULL, BLOB, no row, no such column
        return false;
    }
}

bool CSQLiteStatementCursor::GetInt(int column, int& value) const
{
    int64_t wide = 0;
    if (!GetInt64(column, wide) || wide < INT_MIN || wide > INT_MAX) {
        return false;
    }
    value = static_cast<int>(wide);
    return true;
}

bool CSQLiteStatementCursor::GetDouble(int column, double& value) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    sqlite3_stmt* stmt = m_statement.get();
    switch (TypeOf(column)) {
    case SQLITE_INTEGER:
        value = static_cast<double>(sqlite3_column_int64(stmt, column));
        return true;
    case SQLITE_FLOAT:
        value = sqlite3_column_double(stmt, column);
        return true;
    case SQLITE_TEXT:
        return ParseWholeNumber(reinterpret_cast<const char*>(sqlite3_column_text(stmt, column)), value);
    default:
        return false;
    }
}

bool CSQLiteStatementCursor::GetString(int column, std::string& value) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    if (TypeOf(column) == SQLITE_NULL) {
        return false;
    }
    sqlite3_stmt* stmt = m_statement.get();
    // text first, then bytes: the length is that of the text form.
    const unsigned char* text = sqlite3_column_text(stmt, column);
    int bytes = sqlite3_column_bytes(stmt, column);
    if (text == nullptr) {
        if (sqlite3_errcode(m_pDatabase->Handle()) == SQLITE_NOMEM) {
            CONTENT_LOGE("out of memory reading column %d", column);
            return false;
        }
        value.clear();  // a zero-length blob
        return true;
    }
    value.assign(reinterpret_cast<const char*>(text), static_cast<size_t>(bytes));
    return true;
}

bool CSQLiteStatementCursor::GetBlob(int column, std::vector<unsigned char>& value) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    if (TypeOf(column) == SQLITE_NULL) {
        return false;
    }
    sqlite3_stmt* stmt = m_statement.get();
    const unsigned char* data = static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column));
    int bytes = sqlite3_column_bytes(stmt, column);
    if (data == nullptr || bytes <= 0) {
        value.clear();
        return true;
    }
    value.assign(data, data + bytes);
    return true;
}

bool CSQLiteStatementCursor::IsNull(int column) const
{
    std::lock_guard<std::recursive_mutex> lock(m_pDatabase->Mutex());
    return TypeOf(column) == SQLITE_NULL;
}
