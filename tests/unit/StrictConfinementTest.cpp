/*
 * The statements strict confinement checks an insert with: they count a
 * package's rows from its accelerators down, through indexes, so that their
 * cost follows the package's rows and not the table's.
 */
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "DbHelper.h"
#include "StrictConfinement.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using tilvane::test::PlatformSandbox;
using tilvane::test::TempDir;

const char kFile[] = ".preview.db";

class StrictConfinementTest : public ::testing::Test
{
protected:
    /* The plan SQLite makes for `sql` on a database the service made. */
    std::string PlanOf(const std::string& sql)
    {
        {
            CDbHelper helper(m_dir.Path() + "/", kFile, 15);
            EXPECT_NE(helper.GetConnection(), nullptr);
        }
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open(m_dir.File(kFile).c_str(), &db), SQLITE_OK);
        sqlite3_stmt* statement = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db, ("EXPLAIN QUERY PLAN " + sql).c_str(), -1, &statement, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        std::string plan;
        while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
            plan += reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
            plan += "\n";
        }
        sqlite3_finalize(statement);
        sqlite3_close(db);
        return plan;
    }

    PlatformSandbox m_sandbox;
    TempDir m_dir;
};

TEST_F(StrictConfinementTest, TilesOfAPackageAreCountedThroughIndexesWithoutScanningTheTable)
{
    const std::string sql = CStrictConfinement::OwnedAndCountStatement("tiles");
    ASSERT_FALSE(sql.empty());
    const std::string plan = PlanOf(sql);
    EXPECT_EQ(plan.find("SCAN tiles"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("SCAN sections"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("SCAN accelerators"), std::string::npos) << plan;
    EXPECT_NE(plan.find("idx_accelerators_accelerator_app_pkg_name"), std::string::npos) << plan;
    EXPECT_NE(plan.find("idx_tiles_tile_section_raw_id"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("TEMP"), std::string::npos) << plan;
}

TEST_F(StrictConfinementTest, SectionsOfAPackageAreCountedThroughIndexesWithoutScanningTheTable)
{
    const std::string sql = CStrictConfinement::OwnedAndCountStatement("sections");
    ASSERT_FALSE(sql.empty());
    const std::string plan = PlanOf(sql);
    EXPECT_EQ(plan.find("SCAN sections"), std::string::npos) << plan;
    EXPECT_EQ(plan.find("SCAN accelerators"), std::string::npos) << plan;
    EXPECT_NE(plan.find("idx_sections_section_accelerator_raw_id"), std::string::npos) << plan;
}

TEST_F(StrictConfinementTest, AcceleratorsHaveNoOwnerStatement)
{
    EXPECT_EQ(CStrictConfinement::OwnedAndCountStatement("accelerators"), "");
}

}  // namespace
