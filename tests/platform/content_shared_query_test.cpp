#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <host_control.h>

#include "ContentDbConnection.h"
#include "SharedQueryObject.h"

namespace {

/* A cursor with a fixed shape and no rows. */
class ShapeCursor : public ISQLiteCursor
{
public:
    explicit ShapeCursor(int columns) : m_columns(columns) {}
    int Step() override { return STEP_DONE; }
    int Reset() override { return 0; }
    int GetColumnCount() const override { return m_columns; }
    std::string GetColumnName(int column) const override { return "c" + std::to_string(column); }
    int GetColumnType(int) const override { return 5; }
    bool GetInt(int, int&) const override { return false; }
    bool GetInt64(int, int64_t&) const override { return false; }
    bool GetDouble(int, double&) const override { return false; }
    bool GetString(int, std::string&) const override { return false; }
    bool GetBlob(int, std::vector<unsigned char>&) const override { return false; }
    bool IsNull(int) const override { return true; }

private:
    int m_columns;
};

class ContentSharedQueryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        CSharedQueryObject::Clear();
    }
    void TearDown() override
    {
        CSharedQueryObject::Clear();
        tilvane::host::Reset();
    }
};

TEST_F(ContentSharedQueryTest, IdsIncreaseFromOneAndNameTheSharedRows)
{
    EXPECT_EQ(-1, CSharedQueryObject::GetRequestID());
    std::string name;
    int columns = 0;
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(3), "tiles", name, columns));
    EXPECT_EQ(1, CSharedQueryObject::GetRequestID());
    EXPECT_EQ("tiles#1", name);
    EXPECT_EQ(3, columns);

    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(5), "apps", name, columns));
    EXPECT_EQ(2, CSharedQueryObject::GetRequestID());
    EXPECT_EQ("apps#2", name);
    EXPECT_EQ(5, columns);
    EXPECT_EQ(2u, CSharedQueryObject::GetStoredCount());
}

TEST_F(ContentSharedQueryTest, NullCursorIsRefused)
{
    const int lastId = CSharedQueryObject::GetRequestID();
    std::string name = "unchanged";
    int columns = 9;
    EXPECT_EQ(-1, CSharedQueryObject::StoreCursor(nullptr, "tiles", name, columns));
    EXPECT_EQ("unchanged", name);
    EXPECT_EQ(9, columns);
    EXPECT_EQ(0u, CSharedQueryObject::GetStoredCount());
    EXPECT_EQ(lastId, CSharedQueryObject::GetRequestID());
}

TEST_F(ContentSharedQueryTest, TakeRemovesTheCursorOnce)
{
    auto cursor = std::make_shared<ShapeCursor>(2);
    std::string name;
    int columns = 0;
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(cursor, "t", name, columns));
    const int id = CSharedQueryObject::GetRequestID();
    EXPECT_EQ(nullptr, CSharedQueryObject::TakeCursor(id + 100));
    EXPECT_EQ(1u, CSharedQueryObject::GetStoredCount());

    std::shared_ptr<ISQLiteCursor> taken = CSharedQueryObject::TakeCursor(id);
    EXPECT_EQ(cursor.get(), taken.get());
    EXPECT_EQ(0u, CSharedQueryObject::GetStoredCount());
    EXPECT_EQ(nullptr, CSharedQueryObject::TakeCursor(id));
}

TEST_F(ContentSharedQueryTest, ClearDropsEverything)
{
    std::string name;
    int columns = 0;
    auto kept = std::make_shared<ShapeCursor>(1);
    std::weak_ptr<ShapeCursor> watch = kept;
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::move(kept), "a", name, columns));
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(1), "b", name, columns));
    EXPECT_FALSE(watch.expired());
    CSharedQueryObject::Clear();
    EXPECT_EQ(0u, CSharedQueryObject::GetStoredCount());
    EXPECT_TRUE(watch.expired());
    // Ids keep increasing after a clear.
    const int lastId = CSharedQueryObject::GetRequestID();
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(1), "c", name, columns));
    EXPECT_EQ(lastId + 1, CSharedQueryObject::GetRequestID());
    EXPECT_EQ("c#" + std::to_string(lastId + 1), name);
}

TEST_F(ContentSharedQueryTest, LastStoredIdIsPerThread)
{
    std::string name;
    int columns = 0;
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(1), "main", name, columns));
    const int mainId = CSharedQueryObject::GetRequestID();

    int before = 0;
    int after = 0;
    std::thread other([&] {
        before = CSharedQueryObject::GetRequestID();
        std::string otherName;
        int otherColumns = 0;
        CSharedQueryObject::StoreCursor(std::make_shared<ShapeCursor>(1), "other", otherName, otherColumns);
        after = CSharedQueryObject::GetRequestID();
    });
    other.join();
    EXPECT_EQ(-1, before);
    EXPECT_EQ(mainId + 1, after);
    EXPECT_EQ(mainId, CSharedQueryObject::GetRequestID());
    EXPECT_EQ(2u, CSharedQueryObject::GetStoredCount());
}

TEST_F(ContentSharedQueryTest, StoredSelectCursorStillReadsAfterItsConnectionIsGone)
{
    char pattern[] = "/tmp/content-shared-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    const std::string dir = pattern;
    {
        CContentDbConnection connection(dir, "shared.db");
        ASSERT_TRUE(connection.OpenOperation());
        std::string error;
        ASSERT_EQ(0, connection.ExcuteSQL("CREATE TABLE t (a TEXT, b INTEGER); INSERT INTO t VALUES ('x', 1), "
                                          "('y', 2);",
                                          error));
        std::vector<std::string> projection;
        std::string name;
        int columns = 0;
        ASSERT_EQ(0, CSharedQueryObject::StoreCursor(connection.SelectRequest("t", projection, "", "b"), "t", name,
                                                     columns));
        EXPECT_EQ(2, columns);
    }
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(CSharedQueryObject::GetRequestID());
    ASSERT_NE(nullptr, cursor);
    std::vector<std::string> values;
    while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
        std::string value;
        ASSERT_TRUE(cursor->GetString(0, value));
        values.push_back(value);
    }
    EXPECT_EQ((std::vector<std::string>{"x", "y"}), values);
    cursor.reset();
    EXPECT_EQ(0, std::system(("rm -rf '" + dir + "'").c_str()));
}

}  // namespace
