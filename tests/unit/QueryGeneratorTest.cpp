/*
 * CQueryGenerator: the row filters that confine a request to the caller's
 * accelerators, sections and tiles, and the where clause built from them.
 */
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ContentHelper.h"
#include "DbHelper.h"
#include "PermissionHelper.h"
#include "QueryGenerator.h"
#include "TestSupport.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

const char kTag[] = "tilvane";
const CPermissionHelper::PermissionLevel kPublic = CPermissionHelper::PERMISSION_LEVEL_PUBLIC;
const CPermissionHelper::PermissionLevel kMvpd = CPermissionHelper::PERMISSION_LEVEL_MVPD;
const CPermissionHelper::PermissionLevel kInternal = CPermissionHelper::PERMISSION_LEVEL_INTERNAL;

class QueryGeneratorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_pDb = std::make_unique<CDbHelper>(m_dir.Path() + "/", ".preview.db", 15);
        ASSERT_NE(m_pDb->GetConnection(), nullptr);
        m_pGenerator = std::make_unique<CQueryGenerator>(m_pDb.get());
    }

    void Exec(const std::string& sql)
    {
        std::string error;
        ASSERT_EQ(m_pDb->GetConnection()->ExcuteSQL(sql, error), 0) << error << "\n" << sql;
    }

    /* The first column of every row that `where` selects from `table`. */
    std::vector<std::string> Select(const std::string& table, const std::string& column, const std::string& where)
    {
        std::vector<std::string> projection = {column};
        std::vector<std::string> values;
        auto cursor = m_pDb->GetConnection()->SelectRequest(table, projection, where, column);
        EXPECT_NE(cursor, nullptr) << where;
        while (cursor != nullptr && cursor->Step() == 0) {
            std::string value;
            cursor->GetString(0, value);
            values.push_back(value);
        }
        return values;
    }

    /* Two packages: "org.example.a" owns accelerator 1, sections 3, 7 and 12
     * and tiles 100 to 102; "org.example.b" owns accelerator 2, section 20
     * and tile 200. */
    void AddTwoPackages()
    {
        Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1, 'org.example.a'), "
             "(2, 'org.example.b');"
             "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (3, 1), (7, 1), (12, 1), (20, 2);"
             "INSERT INTO tiles (_id, tile_section_raw_id, tile_title) VALUES (100, 3, 'a3'), (101, 7, 'a7'), "
             "(102, 12, 'a12'), (200, 20, 'b20');");
    }

    PlatformSandbox m_sandbox;
    TempDir m_dir;
    std::unique_ptr<CDbHelper> m_pDb;
    std::unique_ptr<CQueryGenerator> m_pGenerator;
};

TEST_F(QueryGeneratorTest, AcceleratorsFilterText)
{
    EXPECT_EQ(m_pGenerator->GetAcceleratorsFilter("org.example.a"), "accelerator_app_pkg_name='org.example.a'");
    EXPECT_EQ(CountLines(kTag, "accelerators filter = accelerator_app_pkg_name='org.example.a'"), 1);
    EXPECT_EQ(m_pGenerator->GetAcceleratorsFilter(""), "accelerator_app_pkg_name=''");
}

TEST_F(QueryGeneratorTest, SectionsFilterListsTheSectionsAcceleratorIds)
{
    AddTwoPackages();
    Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (5, 'org.example.a')");
    EXPECT_EQ(m_pGenerator->GetSectionsFilter("org.example.a"), "section_accelerator_raw_id IN (1,5)");
    EXPECT_EQ(CountLines(kTag, "sections filter = section_accelerator_raw_id IN (1,5"), 1);
    EXPECT_EQ(m_pGenerator->GetSectionsFilter("org.example.b"), "section_accelerator_raw_id IN (2)");
}

TEST_F(QueryGeneratorTest, ClientWithNoAcceleratorGetsEmptyParenthesesThatMatchNothing)
{
    AddTwoPackages();
    std::string sections = m_pGenerator->GetSectionsFilter("org.example.nobody");
    EXPECT_EQ(sections, "section_accelerator_raw_id IN ()");
    EXPECT_TRUE(Select("sections", "_id", sections).empty());
    std::string tiles = m_pGenerator->GetTilesFilter("org.example.nobody");
    EXPECT_EQ(tiles, "tile_section_raw_id IN ()");
    EXPECT_TRUE(Select("tiles", "_id", tiles).empty());
}

TEST_F(QueryGeneratorTest, TilesFilterOfSections3_7_12)
{
    AddTwoPackages();
    tilvane::host::ClearCapturedLog();
    std::string tiles = m_pGenerator->GetTilesFilter("org.example.a");
    EXPECT_EQ(tiles, std::string(TilesModel::Tiles::TILE_SECTION_RAW_ID) + " IN (3,7,12)");
    EXPECT_EQ(CountLines(kTag, "tiles filter = tile_section_raw_id IN (3,7"), 2);
    EXPECT_EQ(CountLines(kTag, "tiles filter = tile_section_raw_id IN (3,7,12"), 1);
    EXPECT_EQ(Select("tiles", "_id", tiles), (std::vector<std::string>{"100", "101", "102"}));
}

TEST_F(QueryGeneratorTest, NullDatabaseGivesNoAccess)
{
    CQueryGenerator generator(nullptr);
    EXPECT_EQ(generator.GetSectionsFilter("org.example.a"), "1 = 0");
    EXPECT_EQ(generator.GetTilesFilter("org.example.a"), "1 = 0");
    EXPECT_EQ(CountLines(kTag, "database is null"), 2);
    EXPECT_EQ(generator.GenerateQuery("tiles", "tile_title = 'x'", "org.example.a", kPublic), "1 = 0 AND tile_title = 'x'");
    /* The accelerators filter needs no query. */
    EXPECT_EQ(generator.GenerateQuery("accelerators", "", "org.example.a", kPublic),
              "accelerator_app_pkg_name='org.example.a'");
}

TEST_F(QueryGeneratorTest, FailedSelectGivesNoAccess)
{
    /* A database without the tables: every select fails. */
    TempDir other;
    CContentHelper bare(other.Path() + "/", "bare.db", 1);
    ASSERT_NE(bare.GetConnection(), nullptr);
    CQueryGenerator generator(&bare);
    EXPECT_EQ(generator.GetSectionsFilter("org.example.a"), "1 = 0");
    EXPECT_EQ(CountLines(kTag, "cursor is null"), 1);
    EXPECT_EQ(generator.GetTilesFilter("org.example.a"), "1 = 0");
    EXPECT_EQ(CountLines(kTag, "cursor is null"), 3);
}

TEST_F(QueryGeneratorTest, TilesFilterOnAFailedSectionsFilterFindsNoSections)
{
    /* Accelerators exist, sections do not: the sections filter works, the tiles select fails. */
    TempDir other;
    CContentHelper bare(other.Path() + "/", "bare.db", 1);
    std::string error;
    ASSERT_EQ(bare.GetConnection()->ExcuteSQL(
                  "CREATE TABLE accelerators (_id INTEGER PRIMARY KEY, accelerator_app_pkg_name TEXT);"
                  "INSERT INTO accelerators VALUES (1, 'org.example.a');"
                  "CREATE TABLE sections (_id INTEGER PRIMARY KEY, section_accelerator_raw_id INTEGER);"
                  "INSERT INTO sections VALUES (4, 1);",
                  error),
              0)
        << error;
    CQueryGenerator generator(&bare);
    EXPECT_EQ(generator.GetTilesFilter("org.example.a"), "tile_section_raw_id IN (4)");
    /* With the accelerators table gone, the sections filter is "1 = 0" and the
     * tiles filter built on it lists no section. */
    ASSERT_EQ(bare.GetConnection()->ExcuteSQL("DROP TABLE accelerators", error), 0) << error;
    EXPECT_EQ(generator.GetTilesFilter("org.example.a"), "tile_section_raw_id IN ()");
}

TEST_F(QueryGeneratorTest, GenerateQueryPerTableAndLevel)
{
    AddTwoPackages();
    for (CPermissionHelper::PermissionLevel level : {kPublic, kMvpd}) {
        EXPECT_EQ(m_pGenerator->GenerateQuery("accelerators", "", "org.example.a", level),
                  "accelerator_app_pkg_name='org.example.a'");
        EXPECT_EQ(m_pGenerator->GenerateQuery("sections", "", "org.example.a", level),
                  "section_accelerator_raw_id IN (1)");
        EXPECT_EQ(m_pGenerator->GenerateQuery("tiles", "tile_title = 'a3'", "org.example.a", level),
                  "tile_section_raw_id IN (3,7,12) AND tile_title = 'a3'");
    }
    EXPECT_EQ(m_pGenerator->GenerateQuery("tiles", "", "org.example.a", CPermissionHelper::PERMISSION_LEVEL_NONE),
              "tile_section_raw_id IN (3,7,12)");
}

TEST_F(QueryGeneratorTest, InternalLevelIsNotConfined)
{
    AddTwoPackages();
    for (const char* table : {"accelerators", "sections", "tiles"}) {
        EXPECT_EQ(m_pGenerator->GenerateQuery(table, "", "org.example.a", kInternal), "1 = 1") << table;
        EXPECT_EQ(m_pGenerator->GenerateQuery(table, "_id > 2", "org.example.a", kInternal), "1 = 1 AND _id > 2")
            << table;
    }
    EXPECT_EQ(Select("tiles", "_id", m_pGenerator->GenerateQuery("tiles", "", "", kInternal)).size(), 4u);
}

TEST_F(QueryGeneratorTest, UnknownTableGivesNoRestriction)
{
    EXPECT_EQ(m_pGenerator->GenerateQuery("other", "a = 1", "org.example.a", kPublic), "");
    EXPECT_EQ(m_pGenerator->GenerateQuery("content://com.quillon.px.tiles/tiles", "", "org.example.a", kPublic), "");
    EXPECT_EQ(m_pGenerator->GenerateQuery("other", "", "org.example.a", kInternal), "");
}

TEST_F(QueryGeneratorTest, SecondStatementAfterSemicolonIsCut)
{
    AddTwoPackages();
    tilvane::host::ClearCapturedLog();
    std::string query =
        m_pGenerator->GenerateQuery("tiles", "tile_title = 'a3'; DELETE FROM tiles", "org.example.a", kPublic);
    EXPECT_EQ(query, "tile_section_raw_id IN (3,7,12) AND tile_title = 'a3'");
    EXPECT_EQ(CountLines(kTag, "found Semicolon in where : [tile_title = 'a3'; DELETE FROM tiles] -> [tile_title = 'a3']"),
              1);
    EXPECT_EQ(Select("tiles", "_id", query), (std::vector<std::string>{"100"}));
    RawDatabase db(m_dir.File(".preview.db"));
    EXPECT_EQ(db.Count("tiles"), 4);
}

TEST_F(QueryGeneratorTest, OnlySemicolonGivesTheFilterAlone)
{
    AddTwoPackages();
    EXPECT_EQ(m_pGenerator->GenerateQuery("sections", ";", "org.example.b", kPublic), "section_accelerator_raw_id IN (2)");
    EXPECT_EQ(CountLines(kTag, "found Semicolon in where : [;] -> []"), 1);
    EXPECT_EQ(m_pGenerator->GenerateQuery("accelerators", ";;x", "org.example.b", kInternal), "1 = 1");
}

TEST_F(QueryGeneratorTest, NoSemicolonNoLog)
{
    m_pGenerator->GenerateQuery("accelerators", "a = 1", "p", kPublic);
    EXPECT_EQ(CountLines(kTag, "found Semicolon"), 0);
}

/* The filter and the client's where clause are joined without parentheses,
 * so a client's OR binds looser than the AND and escapes the filter. */
TEST_F(QueryGeneratorTest, UnparenthesisedJoinLetsAnOrEscapeTheFilter)
{
    AddTwoPackages();
    std::string query = m_pGenerator->GenerateQuery("tiles", "tile_title = 'a3' OR 1 = 1", "org.example.a", kPublic);
    EXPECT_EQ(query, "tile_section_raw_id IN (3,7,12) AND tile_title = 'a3' OR 1 = 1");
    /* Every tile is reached, the other package's tile 200 included. */
    EXPECT_EQ(Select("tiles", "_id", query), (std::vector<std::string>{"100", "101", "102", "200"}));

    std::string accelerators =
        m_pGenerator->GenerateQuery("accelerators", "_id = 0 OR 1 = 1", "org.example.a", kPublic);
    EXPECT_EQ(accelerators, "accelerator_app_pkg_name='org.example.a' AND _id = 0 OR 1 = 1");
    EXPECT_EQ(Select("accelerators", "accelerator_app_pkg_name", accelerators),
              (std::vector<std::string>{"org.example.a", "org.example.b"}));
}

/* The package id is pasted between quotes in the accelerators filter, not
 * escaped: a package id that closes the quote widens the filter. */
TEST_F(QueryGeneratorTest, PastedPackageIdWidensTheFilter)
{
    AddTwoPackages();
    const std::string packageId = "x' OR '1'='1";
    EXPECT_EQ(m_pGenerator->GetAcceleratorsFilter(packageId), "accelerator_app_pkg_name='x' OR '1'='1'");
    EXPECT_EQ(m_pGenerator->GetSectionsFilter(packageId), "section_accelerator_raw_id IN (1,2)");
    std::string tiles = m_pGenerator->GenerateQuery("tiles", "", packageId, kPublic);
    EXPECT_EQ(tiles, "tile_section_raw_id IN (3,7,12,20)");
    EXPECT_EQ(Select("tiles", "_id", tiles).size(), 4u);

    /* A plain quote in the id breaks the select: no access at all. */
    EXPECT_EQ(m_pGenerator->GetSectionsFilter("org.example.o'brien"), "1 = 0");
}

}  // namespace
