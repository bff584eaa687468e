#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>
#include <dlog.h>
#include <host_control.h>

#include "TestSupport.h"

#include "ContentDbConnection.h"
#include "ContentHelper.h"

namespace {

using ScratchDir = tilvane::test::TempDir;

off_t SizeOf(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

/* Reads the first column of `sql` over a connection, as text. */
std::vector<std::string> Column(CContentDbConnection* connection, const std::string& sql)
{
    std::vector<std::string> values;
    sqlite3_stmt* statement = nullptr;
    std::string error;
    if (connection == nullptr || connection->PrepareCMD(sql, &statement, nullptr, error) != 0) {
        ADD_FAILURE() << "cannot run " << sql << ": " << error;
        return values;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        values.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "NULL");
    }
    sqlite3_finalize(statement);
    return values;
}

std::string Scalar(CContentDbConnection* connection, const std::string& sql)
{
    std::vector<std::string> values = Column(connection, sql);
    return values.empty() ? std::string() : values[0];
}

/* The schema of a small catalogue: shelves and the items on them. */
class CatalogueHelper : public CContentHelper
{
public:
    CatalogueHelper(const std::string& directory, int version = 1)
        : CContentHelper(directory, "catalogue.db", version)
    {
    }

    void OnConfigure(CContentDbConnection* connection) override
    {
        ++configured;
        configureResult = connection->SetForeignKeyConstraintsEnabled(true);
    }

    void OnCreate(CContentDbConnection* connection) override
    {
        ++created;
        // The helper's own connection is already the one being prepared.
        sameConnection = GetConnection() == connection;
        insideTransaction = connection->InTransaction();
        std::string error;
        createResult = GetConnection()->ExcuteSQL(
            "CREATE TABLE shelf (id INTEGER PRIMARY KEY, name TEXT NOT NULL);"
            "CREATE TABLE item (id INTEGER PRIMARY KEY, title TEXT, "
            "shelf_id INTEGER NOT NULL REFERENCES shelf(id) ON DELETE CASCADE);",
            error);
    }

    void OnUpgrade(CContentDbConnection* connection, int oldVersion, int newVersion) override
    {
        upgrades.emplace_back(oldVersion, newVersion);
        std::string error;
        upgradeResult = connection->ExcuteSQL("ALTER TABLE item ADD COLUMN rating INTEGER DEFAULT 0", error);
    }

    int configured = 0;
    int configureResult = -100;
    int created = 0;
    int createResult = -100;
    bool sameConnection = false;
    bool insideTransaction = false;
    int upgradeResult = -100;
    std::vector<std::pair<int, int>> upgrades;
};

class ContentHelperTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        ASSERT_FALSE(m_dir.Path().empty());
    }
    void TearDown() override { tilvane::host::Reset(); }

    std::string DbPath() const { return m_dir.File("catalogue.db"); }

    /* A healthy catalogue holding `rows` items of 200 bytes each, closed. */
    void MakeFilledCatalogue(int rows)
    {
        CatalogueHelper helper(m_dir.Path());
        ASSERT_TRUE(helper.ConnectDB());
        CContentDbConnection* connection = helper.GetConnection();
        ASSERT_EQ(0, connection->BeginTransaction());
        BundlePtr shelf = MakeBundle({{"id", "1"}, {"name", "main"}});
        ASSERT_EQ(0, connection->InsertRequest("shelf", shelf.get()));
        for (int i = 0; i < rows; ++i) {
            BundlePtr item = MakeBundle({{"title", std::string(200, static_cast<char>('a' + i % 26))},
                                         {"shelf_id", "1"}});
            ASSERT_EQ(0, connection->InsertRequest("item", item.get()));
        }
        ASSERT_EQ(0, connection->EndTransaction(true));
    }

    ScratchDir m_dir;
};

TEST_F(ContentHelperTest, OnCreateRunsOnceForANewFileAndNotOnReopen)
{
    {
        CatalogueHelper helper(m_dir.Path(), 3);
        ASSERT_TRUE(helper.ConnectDB());
        EXPECT_EQ(1, helper.created);
        EXPECT_EQ(0, helper.createResult);
        EXPECT_TRUE(helper.sameConnection);
        EXPECT_TRUE(helper.insideTransaction);
        EXPECT_TRUE(helper.upgrades.empty());
        EXPECT_EQ("3", Scalar(helper.GetConnection(), "PRAGMA user_version"));
        // Connecting again while connected changes nothing.
        ASSERT_TRUE(helper.ConnectDB());
        EXPECT_EQ(1, helper.created);
    }
    CatalogueHelper reopened(m_dir.Path(), 3);
    ASSERT_TRUE(reopened.ConnectDB());
    EXPECT_EQ(0, reopened.created);
    EXPECT_TRUE(reopened.upgrades.empty());
    EXPECT_EQ(1, reopened.configured);
    EXPECT_EQ("2", Scalar(reopened.GetConnection(),
                          "SELECT count(*) FROM sqlite_master WHERE type='table' AND name IN ('shelf','item')"));
}

TEST_F(ContentHelperTest, OnUpgradeGetsTheStoredAndNewVersionsAndKeepsData)
{
    {
        CatalogueHelper helper(m_dir.Path(), 1);
        ASSERT_TRUE(helper.ConnectDB());
        BundlePtr shelf = MakeBundle({{"id", "1"}, {"name", "kept shelf"}});
        ASSERT_EQ(0, helper.GetConnection()->InsertRequest("shelf", shelf.get()));
        BundlePtr item = MakeBundle({{"title", "kept item"}, {"shelf_id", "1"}});
        ASSERT_EQ(0, helper.GetConnection()->InsertRequest("item", item.get()));
    }
    CatalogueHelper upgraded(m_dir.Path(), 2);
    ASSERT_TRUE(upgraded.ConnectDB());
    EXPECT_EQ(0, upgraded.created);
    ASSERT_EQ(1u, upgraded.upgrades.size());
    EXPECT_EQ(std::make_pair(1, 2), upgraded.upgrades[0]);
    EXPECT_EQ(0, upgraded.upgradeResult);
    CContentDbConnection* connection = upgraded.GetConnection();
    EXPECT_EQ("2", Scalar(connection, "PRAGMA user_version"));
    EXPECT_EQ("kept item|0|kept shelf",
              Scalar(connection, "SELECT item.title || '|' || item.rating || '|' || shelf.name "
                                 "FROM item JOIN shelf ON shelf.id = item.shelf_id"));

    upgraded.DisconnectDB();
    CatalogueHelper again(m_dir.Path(), 2);
    ASSERT_TRUE(again.ConnectDB());
    EXPECT_TRUE(again.upgrades.empty());
}

TEST_F(ContentHelperTest, ForeignKeysAreEnforcedOnEveryConnection)
{
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    EXPECT_EQ(0, helper.configureResult);

    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "first connection" : "after reconnecting");
        CContentDbConnection* connection = helper.GetConnection();
        ASSERT_NE(nullptr, connection);
        std::string error;
        ASSERT_EQ(0, connection->ExcuteSQL("DELETE FROM shelf; DELETE FROM item;", error)) << error;

        BundlePtr orphan = MakeBundle({{"title", "orphan"}, {"shelf_id", "99"}});
        EXPECT_EQ(SQLITE_CONSTRAINT, connection->InsertRequest("item", orphan.get()));
        EXPECT_EQ("0", Scalar(connection, "SELECT count(*) FROM item"));

        BundlePtr shelf = MakeBundle({{"id", "5"}, {"name", "s"}});
        ASSERT_EQ(0, connection->InsertRequest("shelf", shelf.get()));
        for (int i = 0; i < 3; ++i) {
            BundlePtr item = MakeBundle({{"title", "t" + std::to_string(i)}, {"shelf_id", "5"}});
            ASSERT_EQ(0, connection->InsertRequest("item", item.get()));
        }
        ASSERT_EQ(0, connection->DeleteRequest("shelf", "id = ?", {"5"}));
        EXPECT_EQ("0", Scalar(connection, "SELECT count(*) FROM item"));

        helper.DisconnectDB();
    }
    EXPECT_EQ(2, helper.configured);
    EXPECT_EQ(1, helper.created);
}

TEST_F(ContentHelperTest, ChildColumnOfAForeignKeyGetsAnIndex)
{
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    CContentDbConnection* connection = helper.GetConnection();
    std::vector<std::string> indexes =
        Column(connection, "SELECT name FROM sqlite_master WHERE type='index' AND tbl_name='item'");
    ASSERT_EQ(1u, indexes.size());
    EXPECT_EQ("shelf_id", Scalar(connection, "SELECT name FROM pragma_index_info('" + indexes[0] + "')"));
    // The table without foreign keys has none.
    EXPECT_EQ("0", Scalar(connection, "SELECT count(*) FROM sqlite_master WHERE type='index' AND tbl_name='shelf'"));
    // A lookup by parent uses it.
    sqlite3_stmt* statement = nullptr;
    std::string error;
    ASSERT_EQ(0, connection->PrepareCMD("EXPLAIN QUERY PLAN SELECT * FROM item WHERE shelf_id = 1", &statement,
                                        nullptr, error));
    std::string detail;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        detail += reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
    }
    sqlite3_finalize(statement);
    EXPECT_NE(std::string::npos, detail.find(indexes[0])) << detail;
}

TEST_F(ContentHelperTest, LookupColumnOfTheConfigurationIsIndexedAtEveryOpen)
{
    tilvane::host::SetConfigurationText("[content]\nlookup-indexes =\n");
    {
        CatalogueHelper helper(m_dir.Path());
        ASSERT_TRUE(helper.ConnectDB());
        EXPECT_EQ("0", Scalar(helper.GetConnection(),
                              "SELECT count(*) FROM sqlite_master WHERE type='index' AND tbl_name='shelf'"));
    }
    // A database made before the column was named gets its index when opened.
    tilvane::host::SetConfigurationText("[content]\nlookup-indexes = shelf.name;shelf.missing;nothing.name;bad\n");
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    CContentDbConnection* connection = helper.GetConnection();
    EXPECT_EQ((std::vector<std::string>{"idx_shelf_name"}),
              Column(connection, "SELECT name FROM sqlite_master WHERE type='index' AND tbl_name='shelf'"));
    EXPECT_EQ("name", Scalar(connection, "SELECT name FROM pragma_index_info('idx_shelf_name')"));
    EXPECT_EQ(0, helper.created);
}

TEST_F(ContentHelperTest, QueryIntegersReadsTheFirstRowWithBoundArguments)
{
    MakeFilledCatalogue(3);
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    CContentDbConnection* connection = helper.GetConnection();
    std::vector<int64_t> row = {42};
    ASSERT_EQ(0, connection->QueryIntegers("SELECT count(*), max(id), ?1 + 0 FROM item WHERE shelf_id = ?2",
                                           {"7", "1"}, row));
    EXPECT_EQ((std::vector<int64_t>{3, 3, 7}), row);
    // A quote in an argument is a value, never text of the statement.
    ASSERT_EQ(0, connection->QueryIntegers("SELECT count(*) FROM shelf WHERE name = ?1", {"main' OR '1'='1"}, row));
    EXPECT_EQ((std::vector<int64_t>{0}), row);
    // No row: empty.
    ASSERT_EQ(0, connection->QueryIntegers("SELECT id FROM item WHERE id < 0", {}, row));
    EXPECT_TRUE(row.empty());
    // A statement that does not prepare: its SQLite code.
    EXPECT_EQ(SQLITE_ERROR, connection->QueryIntegers("SELECT nothing FROM nowhere", {}, row));
    EXPECT_TRUE(row.empty());
}

TEST_F(ContentHelperTest, DisconnectThenGetConnectionReopens)
{
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    helper.DisconnectDB();
    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(nullptr, connection);
    EXPECT_TRUE(connection->IsOpen());
    EXPECT_EQ(DbPath(), connection->GetPath());
    EXPECT_EQ(2, helper.configured);
}

TEST_F(ContentHelperTest, GetConnectionConnectsLazily)
{
    CatalogueHelper helper(m_dir.Path());
    EXPECT_FALSE(tilvane::test::FileExists(DbPath()));
    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(nullptr, connection);
    EXPECT_TRUE(tilvane::test::FileExists(DbPath()));
    EXPECT_EQ(1, helper.created);
    EXPECT_EQ(connection, helper.GetConnection());
}

TEST_F(ContentHelperTest, OpeningAndClosingAreLogged)
{
    tilvane::host::StartLogCapture();
    {
        CatalogueHelper helper(m_dir.Path());
        ASSERT_TRUE(helper.ConnectDB());
    }
    bool opened = false;
    bool closed = false;
    for (const auto& line : tilvane::host::CapturedLog()) {
        if (line.tag != "tilvane-content" || line.priority != DLOG_DEBUG) {
            continue;
        }
        opened |= line.message == "database opened: " + DbPath();
        closed |= line.message == "database closed: " + DbPath();
    }
    EXPECT_TRUE(opened);
    EXPECT_TRUE(closed);
}

TEST_F(ContentHelperTest, HealthyDatabaseIsNotCorrupt)
{
    MakeFilledCatalogue(50);
    CatalogueHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    EXPECT_FALSE(helper.CheckDBCorruption());
    // Also without connecting first.
    CatalogueHelper fresh(m_dir.Path());
    EXPECT_FALSE(fresh.CheckDBCorruption());
}

TEST_F(ContentHelperTest, FileOfRandomBytesIsCorruptAndCanBeDeleted)
{
    {
        std::ofstream out(DbPath(), std::ios::binary);
        std::srand(11);
        for (int i = 0; i < 16384; ++i) {
            out.put(static_cast<char>(std::rand() & 0xff));
        }
    }
    CatalogueHelper helper(m_dir.Path());
    EXPECT_FALSE(helper.ConnectDB());
    EXPECT_EQ(0, helper.created);
    EXPECT_TRUE(helper.CheckDBCorruption());

    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(nullptr, connection);
    EXPECT_TRUE(connection->DeleteDatabase(helper.GetDirectory(), helper.GetFileName()));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath()));

    ASSERT_TRUE(helper.ConnectDB());
    EXPECT_EQ(1, helper.created);
    EXPECT_FALSE(helper.CheckDBCorruption());
}

TEST_F(ContentHelperTest, TruncatedDatabaseIsCorrupt)
{
    MakeFilledCatalogue(2000);
    ASSERT_FALSE(tilvane::test::FileExists(DbPath() + "-wal"));  // checkpointed when the last connection closed
    const off_t size = SizeOf(DbPath());
    ASSERT_GT(size, 100 * 1024);
    ASSERT_EQ(0, truncate(DbPath().c_str(), size / 2));

    CatalogueHelper helper(m_dir.Path());
    helper.ConnectDB();
    EXPECT_TRUE(helper.CheckDBCorruption());
}

TEST_F(ContentHelperTest, DamagedPagesAreFoundByTheQuickCheck)
{
    MakeFilledCatalogue(2000);
    const off_t size = SizeOf(DbPath());
    ASSERT_GT(size, 64 * 4096);
    {
        // Page 1 (the header and the schema) stays intact, so the file still
        // opens; pages further in are overwritten.
        std::fstream file(DbPath(), std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(file.is_open());
        file.seekp(10 * 4096);
        std::srand(3);
        for (int i = 0; i < 20 * 4096; ++i) {
            file.put(static_cast<char>(std::rand() & 0xff));
        }
    }
    CatalogueHelper helper(m_dir.Path());
    EXPECT_TRUE(helper.ConnectDB());
    EXPECT_TRUE(helper.CheckDBCorruption());
}

TEST_F(ContentHelperTest, QuickCheckFindingsCountAsCorruption)
{
    // A NULL in a column whose declared schema says NOT NULL: the file reads
    // fine, and the quick check reports the row instead of "ok".
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(DbPath().c_str(), &db));
    char* error = nullptr;
    int rc = sqlite3_exec(db,
                          "CREATE TABLE t (x TEXT); INSERT INTO t VALUES (NULL);"
                          "PRAGMA writable_schema=ON;"
                          "UPDATE sqlite_master SET sql='CREATE TABLE t (x TEXT NOT NULL)' WHERE name='t';"
                          "PRAGMA writable_schema=OFF;",
                          nullptr, nullptr, &error);
    EXPECT_EQ(SQLITE_OK, rc) << (error != nullptr ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);

    tilvane::host::StartLogCapture();
    CContentHelper helper(m_dir.Path(), "catalogue.db", 1);
    ASSERT_TRUE(helper.ConnectDB());
    EXPECT_TRUE(helper.CheckDBCorruption());
    bool reported = false;
    for (const auto& line : tilvane::host::CapturedLog()) {
        reported |= line.tag == "tilvane-content" && line.message.find("NULL value in t.x") != std::string::npos;
    }
    EXPECT_TRUE(reported);
}

TEST_F(ContentHelperTest, InjectedOpenFailureLeavesNoConnection)
{
    tilvane::host::FailNextCalls("CContentDbConnection::OpenOperation", 1);
    CatalogueHelper helper(m_dir.Path());
    EXPECT_FALSE(helper.ConnectDB());
    EXPECT_EQ(0, helper.configured);
    EXPECT_EQ(0, helper.created);
    CContentDbConnection* connection = helper.GetConnection();
    ASSERT_NE(nullptr, connection);
    EXPECT_TRUE(connection->IsOpen());
    EXPECT_EQ(1, helper.created);
}

TEST_F(ContentHelperTest, InjectedTransactionFailureFailsTheSchemaAndLeavesNoVersion)
{
    tilvane::host::FailNextCalls("CContentDbConnection::BeginTransaction", 1);
    {
        CatalogueHelper helper(m_dir.Path(), 4);
        EXPECT_FALSE(helper.ConnectDB());
        EXPECT_EQ(0, helper.created);
    }
    CatalogueHelper retry(m_dir.Path(), 4);
    ASSERT_TRUE(retry.ConnectDB());
    EXPECT_EQ(1, retry.created);
    EXPECT_EQ("4", Scalar(retry.GetConnection(), "PRAGMA user_version"));
}

TEST_F(ContentHelperTest, UnopenableLocationGivesNoConnection)
{
    CContentHelper helper(m_dir.File("missing/dir"), "x.db", 1);
    EXPECT_FALSE(helper.ConnectDB());
    EXPECT_EQ(nullptr, helper.GetConnection());
    EXPECT_TRUE(helper.CheckDBCorruption());
}

TEST_F(ContentHelperTest, TableNameIsTheLastSegmentOfTheUri)
{
    EXPECT_EQ("tiles", CContentHelper::GetTableNameFromUri("content://a.b/tiles"));
    EXPECT_EQ("tiles", CContentHelper::GetTableNameFromUri("content://a.b/x/tiles"));
    EXPECT_EQ("tiles", CContentHelper::GetTableNameFromUri("content://a.b/tiles/"));
    EXPECT_EQ("", CContentHelper::GetTableNameFromUri("content://a.b"));
    EXPECT_EQ("", CContentHelper::GetTableNameFromUri("content://a.b/"));
    EXPECT_EQ("", CContentHelper::GetTableNameFromUri(""));
}

TEST_F(ContentHelperTest, TableNameIgnoresAQueryAFragmentAndTrailingSlashes)
{
    const std::pair<const char*, const char*> uris[] = {
        {"content://a.b/tiles?limit=1", "tiles"}, {"content://a.b/x/tiles#top", "tiles"},
        {"content://a.b/tiles//?q#f", "tiles"},   {"a.b/sections", "sections"},
        {"content://a.b/?q=tiles/x", ""},         {"no-slash-at-all", ""},
    };
    for (const auto& uri : uris) {
        EXPECT_EQ(uri.second, CContentHelper::GetTableNameFromUri(uri.first)) << uri.first;
    }
}

TEST_F(ContentHelperTest, SqlFormatIsTheValueItself)
{
    EXPECT_EQ("it's", CContentHelper::ToSQLFormat("it's"));
    EXPECT_EQ("a\"b", CContentHelper::ToSQLFormat(std::string("a\"b")));
    EXPECT_EQ("", CContentHelper::ToSQLFormat(static_cast<const char*>(nullptr)));
    CContentHelper helper("/some/dir", "f.db", 7);
    EXPECT_EQ("/some/dir", helper.GetDirectory());
    EXPECT_EQ("f.db", helper.GetFileName());
    EXPECT_EQ(7, helper.GetVersion());
}

}  // namespace
