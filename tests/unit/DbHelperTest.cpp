#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "DbHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"

using namespace tilvane::test;

namespace {

const char kFile[] = ".preview.db";

struct ExpectedColumn
{
    std::string name;
    std::string type;
    const char* defaultValue; /* nullptr: no default */
};

void ExpectColumns(const std::vector<ColumnInfo>& actual, const std::vector<ExpectedColumn>& expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("column " + std::to_string(i) + " " + expected[i].name);
        EXPECT_EQ(actual[i].name, expected[i].name);
        EXPECT_EQ(actual[i].type, expected[i].type);
        EXPECT_EQ(actual[i].hasDefault, expected[i].defaultValue != nullptr);
        if (expected[i].defaultValue != nullptr) {
            EXPECT_EQ(actual[i].defaultValue, expected[i].defaultValue);
        }
        EXPECT_EQ(actual[i].primaryKey, i == 0);
    }
}

class DbHelperTest : public ::testing::Test
{
protected:
    PlatformSandbox m_sandbox;
    TempDir m_dir;

    std::string Path() const { return m_dir.File(kFile); }
    std::string Directory() const { return m_dir.Path() + "/"; }
};

TEST_F(DbHelperTest, FreshDatabaseHasExactlyTheThreeTables)
{
    {
        CDbHelper helper(Directory(), kFile, 15);
        ASSERT_NE(helper.GetConnection(), nullptr);
    }
    RawDatabase db(Path());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    EXPECT_EQ(db.Scalar("PRAGMA user_version"), "15");
}

TEST_F(DbHelperTest, AcceleratorsTableColumnsTypesAndDefaults)
{
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());
    ExpectColumns(db.TableInfo("accelerators"), {
                                                    {"_id", "INTEGER", nullptr},
                                                    {"accelerator_title", "TEXT", nullptr},
                                                    {"accelerator_icon", "TEXT", nullptr},
                                                    {"accelerator_icon_unfocused", "TEXT", nullptr},
                                                    {"accelerator_enabled", "INTEGER", "0"},
                                                    {"accelerator_id", "TEXT", nullptr},
                                                    {"accelerator_position", "INTEGER", "-1"},
                                                    {"accelerator_app_pkg_name", "TEXT", nullptr},
                                                    {"accelerator_qeb_web_app_id", "TEXT", nullptr},
                                                });
}

TEST_F(DbHelperTest, SectionsTableColumnsTypesAndDefaults)
{
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());
    ExpectColumns(db.TableInfo("sections"), {
                                                {"_id", "INTEGER", nullptr},
                                                {"section_id", "TEXT", nullptr},
                                                {"section_title", "TEXT", nullptr},
                                                {"section_position", "INTEGER", "-1"},
                                                {"section_accelerator_raw_id", "INTEGER", nullptr},
                                                {"section_title_display_mode", "TEXT", "'HIGHLIGHTED_ONLY'"},
                                                {"section_subtitle_display_mode", "TEXT", "'HIGHLIGHTED_ONLY'"},
                                            });
}

TEST_F(DbHelperTest, TilesTableColumnsTypesAndDefaults)
{
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());
    ExpectColumns(db.TableInfo("tiles"), {
                                             {"_id", "INTEGER", nullptr},
                                             {"tile_id", "TEXT", nullptr},
                                             {"tile_section_raw_id", "INTEGER", nullptr},
                                             {"tile_type", "TEXT", nullptr},
                                             {"tile_title", "TEXT", nullptr},
                                             {"tile_subtitle", "TEXT", nullptr},
                                             {"tile_display_from", "INTEGER", "0"},
                                             {"tile_display_until", "INTEGER", "0"},
                                             {"tile_action_play", "TEXT", nullptr},
                                             {"tile_action_click", "TEXT", nullptr},
                                             {"tile_action_type", "TEXT", "'APP_LAUNCH'"},
                                             {"tile_action_details", "TEXT", nullptr},
                                             {"tile_image_url", "TEXT", nullptr},
                                             {"tile_source_icon", "TEXT", nullptr},
                                             {"tile_action_pre_play", "TEXT", nullptr},
                                             {"tile_action_post_play", "TEXT", nullptr},
                                             {"tile_playable", "INTEGER", "0"},
                                             {"tile_progress", "INTEGER", "0"},
                                             {"tile_notification", "INTEGER", "0"},
                                             {"tile_favorite", "INTEGER", "0"},
                                             {"tile_position", "INTEGER", "-1"},
                                             {"tile_extra_app_id", "TEXT", nullptr},
                                             {"tile_image_width", "INTEGER", "0"},
                                             {"tile_image_height", "INTEGER", "0"},
                                             {"tile_image_ratio", "TEXT", "'1:1'"},
                                             {"tile_image_path", "TEXT", nullptr},
                                             {"tile_source_icon_path", "TEXT", nullptr},
                                         });
}

/* SQLite keeps the statement text as it was given, without "IF NOT EXISTS". */
TEST_F(DbHelperTest, CreateStatementsAreBuiltTextForText)
{
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());

    EXPECT_EQ(db.Scalar("SELECT sql FROM sqlite_master WHERE name = 'accelerators'"),
              "CREATE TABLE accelerators ( _id INTEGER PRIMARY KEY AUTOINCREMENT, accelerator_title TEXT, "
              "accelerator_icon TEXT, accelerator_icon_unfocused TEXT, accelerator_enabled INTEGER DEFAULT 0, "
              "accelerator_id TEXT, accelerator_position INTEGER DEFAULT -1, accelerator_app_pkg_name TEXT, "
              "accelerator_qeb_web_app_id TEXT)");
    EXPECT_EQ(db.Scalar("SELECT sql FROM sqlite_master WHERE name = 'sections'"),
              "CREATE TABLE sections ( _id INTEGER PRIMARY KEY AUTOINCREMENT, section_id  TEXT, section_title TEXT, "
              "section_position INTEGER DEFAULT -1, section_accelerator_raw_id INTEGER References \"accelerators\" "
              "( _id ) ON DELETE CASCADE, section_title_display_mode TEXT DEFAULT 'HIGHLIGHTED_ONLY', "
              "section_subtitle_display_mode TEXT DEFAULT 'HIGHLIGHTED_ONLY')");
    EXPECT_EQ(db.Scalar("SELECT sql FROM sqlite_master WHERE name = 'tiles'"),
              "CREATE TABLE tiles ( _id INTEGER PRIMARY KEY AUTOINCREMENT, tile_id TEXT, tile_section_raw_id INTEGER "
              "References \"sections\"( _id ) ON DELETE CASCADE, tile_type TEXT, tile_title TEXT, tile_subtitle TEXT, "
              "tile_display_from INTEGER DEFAULT 0, tile_display_until INTEGER DEFAULT 0, tile_action_play TEXT, "
              "tile_action_click TEXT, tile_action_type TEXT DEFAULT 'APP_LAUNCH', tile_action_details TEXT, "
              "tile_image_url TEXT, tile_source_icon TEXT, tile_action_pre_play TEXT, tile_action_post_play TEXT, "
              "tile_playable INTEGER DEFAULT 0, tile_progress INTEGER DEFAULT 0, tile_notification INTEGER DEFAULT 0, "
              "tile_favorite INTEGER DEFAULT 0, tile_position INTEGER DEFAULT -1, tile_extra_app_id TEXT, "
              "tile_image_width INTEGER DEFAULT 0, tile_image_height INTEGER DEFAULT 0, tile_image_ratio TEXT DEFAULT "
              "'1:1', tile_image_path TEXT, tile_source_icon_path TEXT)");
}

TEST_F(DbHelperTest, TileWithoutOptionalValuesReadsBackTheDefaults)
{
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('pkg.a');"
                      "INSERT INTO sections (section_accelerator_raw_id) VALUES (1);"
                      "INSERT INTO tiles (tile_section_raw_id, tile_title) VALUES (1, 'a tile');"),
              0);

    EXPECT_EQ(db.Scalar("SELECT tile_action_type FROM tiles"), "APP_LAUNCH");
    EXPECT_EQ(db.Scalar("SELECT tile_position FROM tiles"), "-1");
    EXPECT_EQ(db.Scalar("SELECT tile_image_ratio FROM tiles"), TilesModel::Tiles::TileImageRatio::TILE_IMAGE_RATIO_1BY1);
    EXPECT_EQ(db.Scalar("SELECT typeof(tile_position) FROM tiles"), "integer");
    EXPECT_EQ(db.Scalar("SELECT section_subtitle_display_mode FROM sections"),
              TilesModel::Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY);
    EXPECT_EQ(db.Scalar("SELECT accelerator_enabled FROM accelerators"), "0");
    EXPECT_EQ(db.Scalar("SELECT accelerator_position FROM accelerators"), "-1");
}

TEST_F(DbHelperTest, DeletingAnAcceleratorRemovesItsSectionsAndTheirTiles)
{
    CDbHelper helper(Directory(), kFile, 15);
    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(connection, nullptr);
    std::string error;
    ASSERT_EQ(connection->ExcuteSQL("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (1, 'a'), (2, 'b');"
                                    "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (10, 1), (11, 1), "
                                    "(20, 2);"
                                    "INSERT INTO tiles (tile_section_raw_id) VALUES (10), (10), (11), (20);",
                                    error),
              0)
        << error;

    ASSERT_EQ(connection->DeleteRequest("accelerators", "_id = ?", {"1"}), 0);

    RawDatabase db(Path());
    EXPECT_EQ(db.Column("SELECT _id FROM accelerators"), (std::vector<std::string>{"2"}));
    EXPECT_EQ(db.Column("SELECT _id FROM sections"), (std::vector<std::string>{"20"}));
    EXPECT_EQ(db.Column("SELECT tile_section_raw_id FROM tiles"), (std::vector<std::string>{"20"}));
}

TEST_F(DbHelperTest, ForeignKeysAreEnforcedOnTheHelpersConnection)
{
    CDbHelper helper(Directory(), kFile, 15);
    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(connection, nullptr);
    std::string error;
    EXPECT_NE(connection->ExcuteSQL("INSERT INTO sections (section_accelerator_raw_id) VALUES (99)", error), 0);

    RawDatabase db(Path());
    EXPECT_EQ(db.Count("sections"), 0);
}

TEST_F(DbHelperTest, DatabaseOfAnOlderVersionIsLeftAsItIs)
{
    {
        RawDatabase db(Path());
        ASSERT_EQ(db.Exec("CREATE TABLE accelerators (_id INTEGER PRIMARY KEY, name TEXT);"
                          "INSERT INTO accelerators (name) VALUES ('old row');"
                          "PRAGMA user_version = 14;"),
                  0);
    }

    {
        CDbHelper helper(Directory(), kFile, 15);
        ASSERT_NE(helper.GetConnection(), nullptr);
    }

    RawDatabase db(Path());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators"}));
    EXPECT_EQ(db.Column("SELECT name FROM accelerators"), (std::vector<std::string>{"old row"}));
    EXPECT_EQ(db.TableInfo("accelerators").size(), 2u);
}

TEST_F(DbHelperTest, ReopeningAnExistingDatabaseKeepsItsRows)
{
    {
        CDbHelper helper(Directory(), kFile, 15);
        std::string error;
        ASSERT_EQ(helper.GetConnection()->ExcuteSQL("INSERT INTO accelerators (accelerator_title) VALUES ('kept')", error),
                  0);
    }
    CDbHelper helper(Directory(), kFile, 15);
    RawDatabase db(Path());
    EXPECT_EQ(db.Column("SELECT accelerator_title FROM accelerators"), (std::vector<std::string>{"kept"}));
}

TEST_F(DbHelperTest, WithoutAConnectionEachTableLogsDatabaseIsNull)
{
    CDbHelper helper(m_dir.Path() + "/missing/directory/", kFile, 15);
    ASSERT_EQ(helper.GetConnection(), nullptr);
    tilvane::host::ClearCapturedLog();

    helper.OnCreate(nullptr);

    std::vector<tilvane::host::LogLine> lines = LinesContaining("tilvane", "Database is NULL");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].priority, DLOG_INFO);
    EXPECT_EQ(lines[0].message.rfind("DbHelper.cpp: createAcceleratorsTable(", 0), 0u) << lines[0].message;
    EXPECT_EQ(lines[1].message.rfind("DbHelper.cpp: createSectionsTable(", 0), 0u) << lines[1].message;
    EXPECT_EQ(lines[2].message.rfind("DbHelper.cpp: createTilesTable(", 0), 0u) << lines[2].message;
    EXPECT_NE(lines[2].message.find(") > Database is NULL"), std::string::npos);
}

TEST_F(DbHelperTest, AFailingStatementIsLoggedAndTheOtherTablesAreStillCreated)
{
    {
        RawDatabase db(Path());
        // An index that takes the accelerators table's name makes its CREATE fail.
        ASSERT_EQ(db.Exec("CREATE TABLE other (a); CREATE INDEX accelerators ON other(a); PRAGMA user_version = 15;"), 0);
    }
    CDbHelper helper(Directory(), kFile, 15);
    tilvane::host::ClearCapturedLog();

    helper.OnCreate(helper.GetConnection());

    std::vector<tilvane::host::LogLine> lines = LinesContaining("tilvane", "SQLite error msg : ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].message.find("createAcceleratorsTable("), std::string::npos);
    EXPECT_NE(lines[0].message.find("SQLite error msg : there is already an index named accelerators"),
              std::string::npos)
        << lines[0].message;

    RawDatabase db(Path());
    EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"other", "sections", "tiles"}));
}

TEST_F(DbHelperTest, ProviderAndDataIds)
{
    CDbHelper helper(Directory(), kFile, 15);
    EXPECT_EQ(helper.GetProviderID(), TilesModel::Tiles::CONTENT_URI);
    EXPECT_EQ(helper.GetDataID(), "tiles");
}

}  // namespace

namespace {

/* Every request looks its caller's launcher entry up by package name. */
TEST_F(DbHelperTest, PackageNameOfTheLauncherEntriesIsIndexed)
{
    {
        CDbHelper helper(Directory(), kFile, 15);
        ASSERT_NE(helper.GetConnection(), nullptr);
    }
    RawDatabase db(Path());
    EXPECT_EQ(db.Column("SELECT name FROM pragma_index_info('idx_accelerators_accelerator_app_pkg_name')"),
              (std::vector<std::string>{"accelerator_app_pkg_name"}));
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(Path().c_str(), &raw), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(raw,
                                 "EXPLAIN QUERY PLAN SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = "
                                 "'org.example.a'",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    std::string plan;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        plan += reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
    }
    sqlite3_finalize(statement);
    sqlite3_close(raw);
    EXPECT_NE(plan.find("idx_accelerators_accelerator_app_pkg_name"), std::string::npos) << plan;
}

}  // namespace
