/*
 * Content library internals: the cursor that SelectRequest hands out. It steps
 * the select's statement itself (rows are never copied) and holds the
 * Database, so it stays usable after its connection is gone.
 */
#ifndef TILVANE_CONTENT_SQLITE_STATEMENT_CURSOR_H
#define TILVANE_CONTENT_SQLITE_STATEMENT_CURSOR_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"
#include "content/database.h"
#include "content/statement_cache.h"

class CSQLiteStatementCursor : public ISQLiteCursor
{
public:
    /* `statement` must be a prepared, bound select on `database`. */
    CSQLiteStatementCursor(std::shared_ptr<tilvane::content::Database> database,
                           tilvane::content::StatementLease statement);
    ~CSQLiteStatementCursor() override;

    CSQLiteStatementCursor(const CSQLiteStatementCursor&) = delete;
    CSQLiteStatementCursor& operator=(const CSQLiteStatementCursor&) = delete;

    int Step() override;
    int Reset() override;

    int GetColumnCount() const override;
    std::string GetColumnName(int column) const override;
    int GetColumnType(int column) const override;

    bool GetInt(int column, int& value) const override;
    bool GetInt64(int column, int64_t& value) const override;
    bool GetDouble(int column, double& value) const override;
    bool GetString(int column, std::string& value) const override;
    bool GetBlob(int column, std::vector<unsigned char>& value) const override;
    bool IsNull(int column) const override;

    /* Steps to the end under one hold of the database's lock, handing the
     * statement to `row` on each row (read its columns there, once each);
     * `row` returns false to stop there. STEP_DONE at the end, STEP_ROW when
     * `row` stopped, STEP_ERROR when a step fails. For encoders that copy
     * every cell: no lock and no copy per cell. */
    int ForEachRemainingRow(const std::function<bool(sqlite3_stmt*)>& row);

private:
    enum class Position
    {
        BeforeFirst,
        OnRow,
        AfterLast,
        Failed,
    };

    /* The cursor stands on the row `stmt` has just reached; its storage
     * classes are taken now. Caller holds the mutex. */
    void StandOnRow(sqlite3_stmt* stmt);
    /* After the last step of `stmt`, which gave `rc` (not a row): done, or
     * failed with its reason recorded and logged. */
    int AfterLastStep(sqlite3_stmt* stmt, int rc);
    /* The storage class of `column` in the current row; SQLITE_NULL when there
     * is no row or no such column. Caller holds the mutex. */
    int TypeOf(int column) const;

    std::shared_ptr<tilvane::content::Database> m_pDatabase;
    tilvane::content::StatementLease m_statement;
    std::vector<std::string> m_columnNames;
    // Storage classes of the current row, taken when the row is reached: a
    // conversion made by one read must not change what the next read sees.
    std::vector<int> m_rowTypes;
    Position m_position = Position::BeforeFirst;
};

#endif
