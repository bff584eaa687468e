#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <host_control.h>

#include "TestSupport.h"

#include "ContentDbConnection.h"
#include "SQLiteCursor.h"

namespace {

using ScratchDir = tilvane::test::TempDir;

class ContentCursorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        ASSERT_FALSE(m_dir.Path().empty());
        m_connection.reset(new CContentDbConnection(m_dir.Path(), "cursor.db"));
        ASSERT_TRUE(m_connection->OpenOperation());
        std::string error;
        ASSERT_EQ(0, m_connection->ExcuteSQL(
                         "CREATE TABLE v (id INTEGER PRIMARY KEY, i INTEGER, big INTEGER, d REAL, t TEXT, "
                         "n TEXT, raw BLOB, loose);"
                         "INSERT INTO v VALUES (1, 42, 5000000000, 2.75, 'hello', NULL, x'00ff10', '12x');"
                         "INSERT INTO v VALUES (2, -7, -5000000000, -0.5, '', NULL, x'', '123');"
                         "INSERT INTO v VALUES (3, 2147483647, -2147483648, 3.0, 'third', 'set', NULL, ' 5');",
                         error))
            << error;
    }

    void TearDown() override
    {
        m_connection.reset();
        tilvane::host::Reset();
    }

    std::shared_ptr<ISQLiteCursor> SelectAll()
    {
        std::vector<std::string> projection{"id", "i", "big", "d", "t", "n", "raw", "loose"};
        return m_connection->SelectRequest("v", projection, "", "id");
    }

    ScratchDir m_dir;
    std::unique_ptr<CContentDbConnection> m_connection;
};

enum Column
{
    kId,
    kInt,
    kBig,
    kDouble,
    kText,
    kNull,
    kBlob,
    kLoose,
};

TEST_F(ContentCursorTest, StepsOverEveryRowThenStaysDone)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    std::vector<int> ids;
    int rc;
    while ((rc = cursor->Step()) == ISQLiteCursor::STEP_ROW) {
        int id = 0;
        ASSERT_TRUE(cursor->GetInt(kId, id));
        ids.push_back(id);
    }
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, rc);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), ids);
    // A finished cursor does not start over by itself.
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, cursor->Step());
    int id = 0;
    EXPECT_FALSE(cursor->GetInt(kId, id));
}

TEST_F(ContentCursorTest, ResetStartsAgainBeforeTheFirstRow)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    EXPECT_EQ(0, cursor->Reset());
    int id = 0;
    EXPECT_FALSE(cursor->GetInt(kId, id));
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_TRUE(cursor->GetInt(kId, id));
    EXPECT_EQ(1, id);
}

TEST_F(ContentCursorTest, ResetKeepsTheBoundArguments)
{
    std::vector<std::string> projection{"t"};
    auto cursor = m_connection->SelectRequest("v", projection, "id = ?", {"3"}, "", "");
    ASSERT_NE(nullptr, cursor);
    std::string text;
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, cursor->Step());
    ASSERT_EQ(0, cursor->Reset());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_TRUE(cursor->GetString(0, text));
    EXPECT_EQ("third", text);
}

TEST_F(ContentCursorTest, ColumnNamesCountAndTypes)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(8, cursor->GetColumnCount());
    EXPECT_EQ("id", cursor->GetColumnName(0));
    EXPECT_EQ("loose", cursor->GetColumnName(7));
    EXPECT_EQ("", cursor->GetColumnName(8));
    EXPECT_EQ("", cursor->GetColumnName(-1));

    // No row yet.
    EXPECT_EQ(SQLITE_NULL, cursor->GetColumnType(kInt));
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    EXPECT_EQ(SQLITE_INTEGER, cursor->GetColumnType(kInt));
    EXPECT_EQ(SQLITE_FLOAT, cursor->GetColumnType(kDouble));
    EXPECT_EQ(SQLITE_TEXT, cursor->GetColumnType(kText));
    EXPECT_EQ(SQLITE_NULL, cursor->GetColumnType(kNull));
    EXPECT_EQ(SQLITE_BLOB, cursor->GetColumnType(kBlob));
    EXPECT_EQ(SQLITE_NULL, cursor->GetColumnType(99));
}

TEST_F(ContentCursorTest, TypedReadsOfTheFirstRow)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());

    int i = 0;
    ASSERT_TRUE(cursor->GetInt(kInt, i));
    EXPECT_EQ(42, i);

    int64_t big = 0;
    ASSERT_TRUE(cursor->GetInt64(kBig, big));
    EXPECT_EQ(INT64_C(5000000000), big);
    int narrow = 123;
    EXPECT_FALSE(cursor->GetInt(kBig, narrow));
    EXPECT_EQ(123, narrow);

    double d = 0;
    ASSERT_TRUE(cursor->GetDouble(kDouble, d));
    EXPECT_DOUBLE_EQ(2.75, d);
    ASSERT_TRUE(cursor->GetDouble(kInt, d));
    EXPECT_DOUBLE_EQ(42.0, d);
    // 2.75 is not a whole number.
    int64_t fromDouble = 9;
    EXPECT_FALSE(cursor->GetInt64(kDouble, fromDouble));
    EXPECT_EQ(9, fromDouble);

    std::string text;
    ASSERT_TRUE(cursor->GetString(kText, text));
    EXPECT_EQ("hello", text);
    ASSERT_TRUE(cursor->GetString(kInt, text));
    EXPECT_EQ("42", text);
    // Reading the integer as text first does not change how it reads as an integer.
    ASSERT_TRUE(cursor->GetInt(kInt, i));
    EXPECT_EQ(42, i);
    EXPECT_EQ(SQLITE_INTEGER, cursor->GetColumnType(kInt));

    std::vector<unsigned char> blob;
    ASSERT_TRUE(cursor->GetBlob(kBlob, blob));
    EXPECT_EQ((std::vector<unsigned char>{0x00, 0xff, 0x10}), blob);
    int64_t fromBlob = 0;
    EXPECT_FALSE(cursor->GetInt64(kBlob, fromBlob));

    // "12x" is not wholly an integer.
    int64_t loose = 77;
    EXPECT_FALSE(cursor->GetInt64(kLoose, loose));
    EXPECT_EQ(77, loose);
    EXPECT_FALSE(cursor->GetDouble(kLoose, d));
    ASSERT_TRUE(cursor->GetString(kLoose, text));
    EXPECT_EQ("12x", text);
}

TEST_F(ContentCursorTest, NullFailsEveryTypedRead)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    EXPECT_TRUE(cursor->IsNull(kNull));
    EXPECT_FALSE(cursor->IsNull(kInt));

    int i = 5;
    int64_t i64 = 6;
    double d = 7.0;
    std::string text = "untouched";
    std::vector<unsigned char> blob{1};
    EXPECT_FALSE(cursor->GetInt(kNull, i));
    EXPECT_FALSE(cursor->GetInt64(kNull, i64));
    EXPECT_FALSE(cursor->GetDouble(kNull, d));
    EXPECT_FALSE(cursor->GetString(kNull, text));
    EXPECT_FALSE(cursor->GetBlob(kNull, blob));
    EXPECT_EQ(5, i);
    EXPECT_EQ(6, i64);
    EXPECT_DOUBLE_EQ(7.0, d);
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(std::vector<unsigned char>{1}, blob);

    // A column that does not exist fails the same way.
    EXPECT_FALSE(cursor->GetInt(8, i));
    EXPECT_FALSE(cursor->GetString(-1, text));
}

TEST_F(ContentCursorTest, ReadsOfLaterRowsAndEdgeValues)
{
    auto cursor = SelectAll();
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());

    int64_t big = 0;
    ASSERT_TRUE(cursor->GetInt64(kBig, big));
    EXPECT_EQ(INT64_C(-5000000000), big);
    std::string empty = "x";
    ASSERT_TRUE(cursor->GetString(kText, empty));
    EXPECT_EQ("", empty);
    std::vector<unsigned char> blob{9};
    ASSERT_TRUE(cursor->GetBlob(kBlob, blob));
    EXPECT_TRUE(blob.empty());
    // A text that is wholly an integer reads as one.
    int64_t loose = 0;
    ASSERT_TRUE(cursor->GetInt64(kLoose, loose));
    EXPECT_EQ(123, loose);

    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    int i = 0;
    ASSERT_TRUE(cursor->GetInt(kInt, i));
    EXPECT_EQ(2147483647, i);
    ASSERT_TRUE(cursor->GetInt(kBig, i));
    EXPECT_EQ(-2147483647 - 1, i);
    // 3.0 is a whole number.
    ASSERT_TRUE(cursor->GetInt(kDouble, i));
    EXPECT_EQ(3, i);
    // Leading blanks are not part of an integer.
    EXPECT_FALSE(cursor->GetInt64(kLoose, loose));
    EXPECT_FALSE(cursor->IsNull(kNull));
}

TEST_F(ContentCursorTest, StepErrorIsReportedAndLogged)
{
    std::string error;
    ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE checked (x TEXT)", error));
    ASSERT_EQ(0, m_connection->ExcuteSQL("INSERT INTO checked VALUES ('a'), ('b')", error));
    tilvane::host::StartLogCapture();
    // abs() of the smallest integer overflows while the statement runs.
    std::vector<std::string> projection{"abs(-9223372036854775807 - 1)"};
    auto cursor = m_connection->SelectRequest("checked", projection, "", "");
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(ISQLiteCursor::STEP_ERROR, cursor->Step());
    EXPECT_EQ(ISQLiteCursor::STEP_ERROR, cursor->Step());
    bool logged = false;
    for (const auto& line : tilvane::host::CapturedLog()) {
        logged |= line.tag == "tilvane-content" && line.message.find("integer overflow") != std::string::npos;
    }
    EXPECT_TRUE(logged);
}

}  // namespace
