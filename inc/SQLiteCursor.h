/*
 * Content library: a cursor over the rows of a select. It steps a live SQLite
 * statement; the statement is released when the last reference to the cursor
 * goes, also after the connection that made it has been closed.
 */
#ifndef TILVANE_SQLITE_CURSOR_H
#define TILVANE_SQLITE_CURSOR_H

#include <cstdint>
#include <string>
#include <vector>

class ISQLiteCursor
{
public:
    /* Results of Step(). */
    enum StepResult
    {
        STEP_ROW = 0,   /* the cursor stands on a row */
        STEP_DONE = 1,  /* there are no more rows */
        STEP_ERROR = -1 /* SQLite failed; the message is in the log */
    };

    virtual ~ISQLiteCursor() = default;

    /* Moves to the next row (the first row on the first call). */
    virtual int Step() = 0;
    /* Starts again before the first row. */
    virtual int Reset() = 0;

    virtual int GetColumnCount() const = 0;
    virtual std::string GetColumnName(int column) const = 0;
    /* SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB or SQLITE_NULL of the
     * current row's value; SQLITE_NULL when the cursor stands on no row. */
    virtual int GetColumnType(int column) const = 0;

    /* Typed reads of the current row. A read fails (false, `value` untouched)
     * when the cursor stands on no row, the column does not exist, the value is
     * NULL, or the value cannot be represented in the requested type (a text
     * that is not a whole number, an integer out of the int range). */
    virtual bool GetInt(int column, int& value) const = 0;
    virtual bool GetInt64(int column, int64_t& value) const = 0;
    virtual bool GetDouble(int column, double& value) const = 0;
    /* Any non-NULL value reads as text (numbers in SQLite's own rendering). */
    virtual bool GetString(int column, std::string& value) const = 0;
    virtual bool GetBlob(int column, std::vector<unsigned char>& value) const = 0;
    virtual bool IsNull(int column) const = 0;
};

#endif
