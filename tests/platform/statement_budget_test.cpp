/*
 * The statement budgets of the content library's connections: the time
 * budget interrupts a request's statement (and nothing outside a request),
 * values and LIKE patterns are held to their lengths, the heap to its limit
 * (and what a failed statement took is given back), temporary storage stays
 * in memory, and the linear instr() and replace() give SQLite's own results.
 */
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <host_control.h>

#include "ContentDbConnection.h"
#include "SQLiteCursor.h"
#include "TestSupport.h"
#include "content/statement_budget.h"
#include "base/request_report.h"

namespace {

using tilvane::content::StatementBudgetScope;

/* Counts to `n` in a recursive CTE: a statement of a few hundred ms for
 * millions. */
std::string CountTo(long n)
{
    return "EXISTS (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<" + std::to_string(n) +
           ") SELECT 1 FROM c WHERE x<0)";
}

class StatementBudgetTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::StartLogCapture();
    }

    void TearDown() override
    {
        m_connection.reset();
        tilvane::host::Reset();
        /* The heap limit belongs to the process: back to the default. */
        sqlite3_hard_heap_limit64(tilvane::content::ConfiguredStatementBudgets().heapBytes);
    }

    /* A connection opened under `budgets`, with a table of `rows` rows. */
    void Open(const std::string& budgets, int rows = 10)
    {
        tilvane::host::SetConfigurationText("[budget]\n" + budgets);
        m_connection.reset(new CContentDbConnection(m_dir.Path(), "budget.db"));
        ASSERT_TRUE(m_connection->OpenOperation());
        std::string error;
        ASSERT_EQ(m_connection->ExcuteSQL("CREATE TABLE t (_id INTEGER PRIMARY KEY, v TEXT);"
                                          "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<" +
                                              std::to_string(rows) + ") INSERT INTO t (v) SELECT 'v' || x FROM c;",
                                          error),
                  0)
            << error;
    }

    /* Steps a select of `projection` from t where `where` to its end. */
    int Select(const std::string& projection, const std::string& where, const std::string& order = "")
    {
        std::vector<std::string> columns = {projection};
        std::shared_ptr<ISQLiteCursor> cursor = m_connection->SelectRequest("t", columns, where, {}, order, "");
        if (!cursor) {
            return ISQLiteCursor::STEP_ERROR;
        }
        int step = ISQLiteCursor::STEP_ROW;
        while ((step = cursor->Step()) == ISQLiteCursor::STEP_ROW) {
        }
        return step;
    }

    tilvane::test::TempDir m_dir;
    std::unique_ptr<CContentDbConnection> m_connection;
};

TEST_F(StatementBudgetTest, ARequestsStatementIsInterruptedAtItsTimeBudget)
{
    ASSERT_NO_FATAL_FAILURE(Open("statement-ms = 100\n"));
    tilvane::host::RequestReportScope report;
    {
        StatementBudgetScope budget("org.example.app", "Content.Select");
        EXPECT_EQ(Select("_id", CountTo(1000000000)), ISQLiteCursor::STEP_ERROR);
        EXPECT_EQ(budget.Failure(), tilvane::content::kTimeBudgetText);
    }
    EXPECT_EQ(report.Report().budget, tilvane::content::kTimeBudgetText);
    EXPECT_EQ(tilvane::test::CountLines("tilvane-content", "request Content.Select of org.example.app failed: "
                                                           "statement ran past its time budget (time budget 100 ms)"),
              1);
    /* The connection answers the next statement at once. */
    StatementBudgetScope next("org.example.app", "Content.Select");
    EXPECT_EQ(Select("_id", "_id = 1"), ISQLiteCursor::STEP_DONE);
    EXPECT_TRUE(next.Failure().empty());
}

TEST_F(StatementBudgetTest, EachStatementHasTheWholeBudgetAndNothingOutsideARequestIsTimed)
{
    ASSERT_NO_FATAL_FAILURE(Open("statement-ms = 1\n"));
    /* Outside a request: a statement far over the budget runs to its end. */
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Select("_id", CountTo(300000)), ISQLiteCursor::STEP_DONE);
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    /* In a request whose budget is four times what one statement took, six
     * such statements: together past it, each within it. */
    const long budgetMs = std::max<long>(4 * took, 20);
    tilvane::host::SetConfigurationText("[budget]\nstatement-ms = " + std::to_string(budgetMs) + "\n");
    StatementBudgetScope budget("org.example.app", "Content.BulkInsert");
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(Select("_id", CountTo(300000)), ISQLiteCursor::STEP_DONE) << i;
    }
    EXPECT_TRUE(budget.Failure().empty());
}

TEST_F(StatementBudgetTest, WithoutTheProgressHandlerNothingIsInterrupted)
{
    ASSERT_NO_FATAL_FAILURE(Open("statement-ms = 1\n"));
    tilvane::content::SetStatementTimingInstalled(false);
    {
        StatementBudgetScope budget("org.example.app", "Content.Select");
        EXPECT_EQ(Select("_id", CountTo(300000)), ISQLiteCursor::STEP_DONE);
    }
    tilvane::content::SetStatementTimingInstalled(true);
    StatementBudgetScope budget("org.example.app", "Content.Select");
    EXPECT_EQ(Select("_id", CountTo(300000)), ISQLiteCursor::STEP_ERROR);
    EXPECT_EQ(budget.Failure(), tilvane::content::kTimeBudgetText);
}

TEST_F(StatementBudgetTest, ValuesRowsAndPatternsAreHeldToTheirLengths)
{
    ASSERT_NO_FATAL_FAILURE(Open("value-bytes = 100000\nlike-pattern-bytes = 20\n"));
    tilvane::host::RequestReportScope report;
    EXPECT_EQ(Select("length(randomblob(100001))", "_id = 1"), ISQLiteCursor::STEP_ERROR);
    EXPECT_EQ(report.Report().budget, tilvane::content::kValueBudgetText);
    EXPECT_EQ(Select("length(randomblob(100000))", "_id = 1"), ISQLiteCursor::STEP_DONE);
    EXPECT_EQ(Select("_id", "v LIKE '%" + std::string(19, '_') + "'"), ISQLiteCursor::STEP_DONE);

    tilvane::host::RequestReportScope patterns;
    EXPECT_EQ(Select("_id", "v LIKE '%" + std::string(20, '_') + "'"), ISQLiteCursor::STEP_ERROR);
    EXPECT_EQ(patterns.Report().budget, tilvane::content::kPatternBudgetText);
}

TEST_F(StatementBudgetTest, ASortPastTheHeapBudgetFailsAndGivesItsMemoryBack)
{
    ASSERT_NO_FATAL_FAILURE(Open("heap-bytes = 16777216\n", 100));
    const sqlite3_int64 before = sqlite3_memory_used();
    tilvane::host::RequestReportScope report;
    {
        StatementBudgetScope budget("org.example.app", "Content.Select");
        /* 100 values of 500 kB sorted: 50 MB. */
        EXPECT_EQ(Select("randomblob(500000)", "", "random()"), ISQLiteCursor::STEP_ERROR);
        EXPECT_EQ(budget.Failure(), tilvane::content::kMemoryBudgetText);
    }
    EXPECT_EQ(report.Report().budget, tilvane::content::kMemoryBudgetText);
    EXPECT_LT(sqlite3_memory_used() - before, 1024 * 1024);
    EXPECT_EQ(Select("length(randomblob(500000))", ""), ISQLiteCursor::STEP_DONE);
}

TEST_F(StatementBudgetTest, TemporaryStorageIsMemory)
{
    ASSERT_NO_FATAL_FAILURE(Open(""));
    EXPECT_EQ(tilvane::test::RawDatabase(m_dir.File("budget.db")).Scalar("PRAGMA temp_store"), "0");
    sqlite3* db = m_connection->GetHandle();
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA temp_store", -1, &statement, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(statement, 0), 2) << "2 is MEMORY";
    sqlite3_finalize(statement);
}

/* The linear instr() and replace() against SQLite's own, on a connection
 * that has them. */
class LinearFunctionsTest : public StatementBudgetTest
{
protected:
    std::string Evaluate(sqlite3* db, const std::string& expression)
    {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, ("SELECT quote(" + expression + ")").c_str(), -1, &statement, nullptr) !=
            SQLITE_OK) {
            return std::string("prepare: ") + sqlite3_errmsg(db);
        }
        std::string value;
        if (sqlite3_step(statement) == SQLITE_ROW) {
            value = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        } else {
            value = std::string("error: ") + sqlite3_errmsg(db);
        }
        sqlite3_finalize(statement);
        return value;
    }
};

TEST_F(LinearFunctionsTest, InstrAndReplaceGiveSQLitesOwnResults)
{
    ASSERT_NO_FATAL_FAILURE(Open(""));
    sqlite3* plain = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &plain), SQLITE_OK);
    const std::vector<std::string> expressions = {
        "instr('hello', 'l')", "instr('hello', 'z')", "instr('hello', '')", "instr('', '')", "instr('', 'a')",
        "instr(NULL, 'a')", "instr('a', NULL)", "instr('ééa', 'a')", "instr('aéb', 'éb')", "instr(x'00ff00', x'ff')",
        "instr(x'0102', '')", "instr(12345, 34)", "instr(1.5, '.')", "instr(x'41c3a9', 'é')", "instr('abcabc', 'cab')",
        "instr(x'80', x'80')", "instr('a' || char(0) || 'b', 'b')", "instr('aaab', 'aab')",
        "replace('hello', 'l', 'L')", "replace('aaa', 'aa', 'b')", "replace('abc', '', 'x')", "replace(NULL, 'a', 'b')",
        "replace('abc', NULL, 'b')", "replace('abc', 'b', NULL)", "replace(12321, 2, 9)", "replace('xyz', 'q', 'r')",
        "replace(x'616263', 'b', 'B')", "replace('ééé', 'é', 'e')", "replace('abab', 'ab', '')", "replace('', 'a', 'b')",
        "typeof(replace(5, 'x', 'y'))", "typeof(instr('a', 'a'))"};
    for (const std::string& expression : expressions) {
        EXPECT_EQ(Evaluate(m_connection->GetHandle(), expression), Evaluate(plain, expression)) << expression;
    }
    /* What took SQLite's own seconds: a text of 1 MiB, one of 0.5 MiB. */
    const std::string huge = "instr(printf('%.*c', 1048576, 'a'), printf('%.*c', 524288, 'a') || 'b')";
    EXPECT_EQ(Evaluate(m_connection->GetHandle(), huge), "0");
    EXPECT_EQ(Evaluate(m_connection->GetHandle(),
                       "length(replace(printf('%.*c', 1048576, 'a'), printf('%.*c', 524288, 'a') || 'b', 'x'))"),
              "1048576");
    sqlite3_close(plain);
}

TEST_F(LinearFunctionsTest, AReplacementPastTheLengthBudgetFails)
{
    ASSERT_NO_FATAL_FAILURE(Open("value-bytes = 1000\n"));
    EXPECT_EQ(Evaluate(m_connection->GetHandle(), "length(replace(printf('%.*c', 500, 'a'), 'a', 'bb'))"), "1000");
    EXPECT_EQ(Evaluate(m_connection->GetHandle(), "replace(printf('%.*c', 501, 'a'), 'a', 'bb')"),
              "error: string or blob too big");
}

}  // namespace
