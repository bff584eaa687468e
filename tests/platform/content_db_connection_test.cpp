#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>
#include <dlog.h>
#include <host_control.h>

#include "TestSupport.h"

#include "ContentDbConnection.h"
#include "../../platform/host/content/statement_cache.h"

namespace {

using ScratchDir = tilvane::test::TempDir;

/* Reads with SQLite directly, around the library. */
std::vector<std::string> RawColumn(const std::string& path, const std::string& sql)
{
    std::vector<std::string> values;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << path;
        return values;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << sqlite3_errmsg(db);
        sqlite3_close(db);
        return values;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(statement, 0);
        values.emplace_back(text != nullptr ? std::string(reinterpret_cast<const char*>(text),
                                                          sqlite3_column_bytes(statement, 0))
                                            : "NULL");
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return values;
}

std::string RawScalar(const std::string& path, const std::string& sql)
{
    std::vector<std::string> values = RawColumn(path, sql);
    return values.empty() ? std::string() : values[0];
}

/* Steps `cursor` to its end; the rows it gave. */
int StepToEnd(ISQLiteCursor& cursor)
{
    int rows = 0;
    while (cursor.Step() == ISQLiteCursor::STEP_ROW) {
        ++rows;
    }
    return rows;
}

int CountStatements(sqlite3* db)
{
    int count = 0;
    for (sqlite3_stmt* s = sqlite3_next_stmt(db, nullptr); s != nullptr; s = sqlite3_next_stmt(db, s)) {
        ++count;
    }
    return count;
}

class ContentDbConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        ASSERT_FALSE(m_dir.Path().empty());
        m_connection.reset(new CContentDbConnection(m_dir.Path(), "test.db"));
        ASSERT_TRUE(m_connection->OpenOperation());
        std::string error;
        ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE items (id INTEGER PRIMARY KEY, name TEXT, "
                                             "count INTEGER, price REAL, note TEXT DEFAULT 'none')",
                                             error))
            << error;
    }

    void TearDown() override
    {
        m_connection.reset();
        tilvane::host::Reset();
    }

    int Insert(const std::vector<std::pair<std::string, std::string>>& entries)
    {
        BundlePtr values = MakeBundle(entries);
        return m_connection->InsertRequest("items", values.get());
    }

    std::string DbPath() const { return m_dir.File("test.db"); }

    ScratchDir m_dir;
    std::unique_ptr<CContentDbConnection> m_connection;
};

TEST_F(ContentDbConnectionTest, PathPutsOneSlashBetweenDirectoryAndFile)
{
    CContentDbConnection plain("/data/dir", "a.db");
    CContentDbConnection slashed("/data/dir/", "a.db");
    EXPECT_EQ("/data/dir/a.db", plain.GetPath());
    EXPECT_EQ("/data/dir/a.db", slashed.GetPath());
    EXPECT_FALSE(plain.IsOpen());
    EXPECT_EQ(nullptr, plain.GetHandle());
}

TEST_F(ContentDbConnectionTest, OpenUsesWalJournalNormalSyncAndBusyTimeout)
{
    EXPECT_TRUE(m_connection->IsOpen());
    EXPECT_TRUE(tilvane::test::FileExists(DbPath()));
    sqlite3* db = m_connection->GetHandle();
    ASSERT_NE(nullptr, db);

    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA journal_mode", -1, &statement, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(statement));
    EXPECT_STREQ("wal", reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
    sqlite3_finalize(statement);

    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA synchronous", -1, &statement, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(statement));
    EXPECT_EQ(1, sqlite3_column_int(statement, 0));  // NORMAL
    sqlite3_finalize(statement);

    ASSERT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, "PRAGMA busy_timeout", -1, &statement, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(statement));
    EXPECT_EQ(5000, sqlite3_column_int(statement, 0));
    sqlite3_finalize(statement);
}

TEST_F(ContentDbConnectionTest, OpenOfGarbageFileFailsButKeepsHandleForDeletion)
{
    const std::string path = m_dir.File("garbage.db");
    {
        std::ofstream out(path, std::ios::binary);
        std::srand(7);
        for (int i = 0; i < 8192; ++i) {
            out.put(static_cast<char>(std::rand() & 0xff));
        }
    }
    CContentDbConnection garbage(m_dir.Path(), "garbage.db");
    EXPECT_FALSE(garbage.OpenOperation());
    EXPECT_TRUE(garbage.IsOpen());
    EXPECT_NE(nullptr, garbage.GetHandle());

    EXPECT_TRUE(garbage.DeleteDatabase(m_dir.Path(), "garbage.db"));
    EXPECT_FALSE(tilvane::test::FileExists(path));
    EXPECT_FALSE(garbage.IsOpen());
}

TEST_F(ContentDbConnectionTest, OpenInMissingDirectoryFails)
{
    CContentDbConnection missing(m_dir.File("no/such/dir"), "x.db");
    EXPECT_FALSE(missing.OpenOperation());
    EXPECT_FALSE(missing.IsOpen());
    BundlePtr values = MakeBundle({{"name", "a"}});
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_NOT_OPEN, missing.InsertRequest("items", values.get()));
}

TEST_F(ContentDbConnectionTest, HostileValuesAreStoredByteForByte)
{
    const std::string hostile = "it's \"quoted\"; '); DROP TABLE items; --";
    const std::string alsoHostile = "\"); DROP TABLE x; --";
    ASSERT_EQ(0, Insert({{"name", hostile}, {"note", alsoHostile}}));
    ASSERT_EQ(0, Insert({{"name", "plain"}, {"note", "x'y"}}));

    EXPECT_EQ("2", RawScalar(DbPath(), "SELECT count(*) FROM items"));
    EXPECT_EQ("1", RawScalar(DbPath(), "SELECT count(*) FROM sqlite_master WHERE type='table' AND name='items'"));
    std::vector<std::string> names = RawColumn(DbPath(), "SELECT name FROM items ORDER BY id");
    ASSERT_EQ(2u, names.size());
    EXPECT_EQ(hostile, names[0]);
    EXPECT_EQ("plain", names[1]);
    EXPECT_EQ(alsoHostile, RawScalar(DbPath(), "SELECT note FROM items WHERE id=1"));

    // Where arguments are bound as well.
    std::vector<std::string> projection{"name"};
    auto cursor = m_connection->SelectRequest("items", projection, "note = ?", {alsoHostile}, "", "");
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    std::string read;
    ASSERT_TRUE(cursor->GetString(0, read));
    EXPECT_EQ(hostile, read);
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, cursor->Step());
}

TEST_F(ContentDbConnectionTest, TableNamesAreQuoted)
{
    std::string error;
    ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE \"odd \"\"name\" (v TEXT)", error)) << error;
    BundlePtr values = MakeBundle({{"v", "1"}});
    EXPECT_EQ(0, m_connection->InsertRequest("odd \"name", values.get()));
    EXPECT_EQ("1", RawScalar(DbPath(), "SELECT v FROM \"odd \"\"name\""));
}

TEST_F(ContentDbConnectionTest, ASelectNamesATableWithQuotesInItsNameWithEveryClause)
{
    std::string error;
    ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE \"odd \"\"name\" (v INTEGER, w TEXT);"
                                         "INSERT INTO \"odd \"\"name\" VALUES (1, 'a'), (2, 'b'), (3, 'c'), (4, 'd')",
                                         error))
        << error;
    std::vector<std::string> projection{"w", "v"};
    auto cursor = m_connection->SelectRequest("odd \"name", projection, "v > ?", {"1"}, "v DESC", "2");
    ASSERT_NE(nullptr, cursor);
    std::string w;
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_TRUE(cursor->GetString(0, w));
    EXPECT_EQ("d", w);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    ASSERT_TRUE(cursor->GetString(0, w));
    EXPECT_EQ("c", w);
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, cursor->Step());

    std::vector<std::string> every;
    auto all = m_connection->SelectRequest("odd \"name", every, "", "");
    ASSERT_NE(nullptr, all);
    EXPECT_EQ(4, StepToEnd(*all));
}

TEST_F(ContentDbConnectionTest, ColumnNamesWithAndWithoutQuotesReachTheirColumns)
{
    std::string error;
    ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE mixed (plain TEXT, \"we\"\"ird\" TEXT, \"\"\"lead\" TEXT, "
                                         "\"end\"\"\" TEXT)",
                                         error))
        << error;
    BundlePtr values = MakeBundle({{"plain", "p"}, {"we\"ird", "w"}, {"\"lead", "l"}, {"end\"", "e"}});
    ASSERT_EQ(0, m_connection->InsertRequest("mixed", values.get()));
    EXPECT_EQ("p|w|l|e", RawScalar(DbPath(), "SELECT plain || '|' || \"we\"\"ird\" || '|' || \"\"\"lead\" || '|' || "
                                             "\"end\"\"\" FROM mixed"));

    BundlePtr changed = MakeBundle({{"\"lead", "L"}, {"plain", "P"}});
    ASSERT_EQ(0, m_connection->UpdateRequest("mixed", changed.get(), "", {}));
    EXPECT_EQ("P|w|L|e", RawScalar(DbPath(), "SELECT plain || '|' || \"we\"\"ird\" || '|' || \"\"\"lead\" || '|' || "
                                             "\"end\"\"\" FROM mixed"));
}

TEST_F(ContentDbConnectionTest, RowsOfTheSameKeysReuseOneCachedStatement)
{
    // The table made in SetUp used sqlite3_exec; nothing is cached yet.
    sqlite3* db = m_connection->GetHandle();
    EXPECT_EQ(0, CountStatements(db));
    const uint64_t before = tilvane::content::PreparedStatementCount();
    const int rows = 100;
    for (int i = 0; i < rows; ++i) {
        ASSERT_EQ(0, Insert({{"name", "row" + std::to_string(i)}, {"count", std::to_string(i)}}));
    }
    EXPECT_EQ(1u, tilvane::content::PreparedStatementCount() - before);
    ASSERT_EQ(1, CountStatements(db));
    sqlite3_stmt* cached = sqlite3_next_stmt(db, nullptr);
    EXPECT_EQ(rows, sqlite3_stmt_status(cached, SQLITE_STMTSTATUS_RUN, 0));
    EXPECT_EQ(std::to_string(rows), RawScalar(DbPath(), "SELECT count(*) FROM items"));
    EXPECT_EQ("99", RawScalar(DbPath(), "SELECT count FROM items WHERE name='row99'"));

    // Other keys make another statement; the first stays cached.
    ASSERT_EQ(0, Insert({{"count", "5"}, {"name", "swapped"}}));
    EXPECT_EQ(2u, tilvane::content::PreparedStatementCount() - before);
    ASSERT_EQ(0, Insert({{"name", "again"}, {"count", "6"}}));
    EXPECT_EQ(2u, tilvane::content::PreparedStatementCount() - before);
}

TEST_F(ContentDbConnectionTest, InsertsOfAnotherShapeAfterARepeatedOneWriteTheirOwnColumns)
{
    std::string error;
    ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE others (name TEXT, count INTEGER, name2 TEXT)", error))
        << error;
    ASSERT_EQ(0, Insert({{"name", "a"}, {"count", "1"}}));
    ASSERT_EQ(0, Insert({{"name", "b"}, {"count", "2"}}));
    // The same columns on another table.
    BundlePtr other = MakeBundle({{"name", "c"}, {"count", "3"}});
    ASSERT_EQ(0, m_connection->InsertRequest("others", other.get()));
    // A name that only begins like the last one's, then fewer and more columns.
    BundlePtr longer = MakeBundle({{"name2", "d"}, {"count", "4"}});
    ASSERT_EQ(0, m_connection->InsertRequest("others", longer.get()));
    ASSERT_EQ(0, Insert({{"name", "e"}}));
    ASSERT_EQ(0, Insert({{"name", "f"}, {"count", "6"}, {"price", "6.5"}}));
    ASSERT_EQ(0, Insert({}));

    EXPECT_EQ((std::vector<std::string>{"a|1|NULL", "b|2|NULL", "e|NULL|NULL", "f|6|6.5", "NULL|NULL|NULL"}),
              RawColumn(DbPath(), "SELECT ifnull(name, 'NULL') || '|' || ifnull(count, 'NULL') || '|' || "
                                  "ifnull(price, 'NULL') FROM items ORDER BY id"));
    EXPECT_EQ((std::vector<std::string>{"c|3|NULL", "NULL|4|d"}),
              RawColumn(DbPath(), "SELECT ifnull(name, 'NULL') || '|' || count || '|' || ifnull(name2, 'NULL') "
                                  "FROM others ORDER BY rowid"));
}

TEST_F(ContentDbConnectionTest, NumbersBoundAsTextTakeTheColumnAffinity)
{
    ASSERT_EQ(0, Insert({{"name", "n"}, {"count", "42"}, {"price", "2.5"}}));
    EXPECT_EQ("integer", RawScalar(DbPath(), "SELECT typeof(count) FROM items"));
    EXPECT_EQ("real", RawScalar(DbPath(), "SELECT typeof(price) FROM items"));
    EXPECT_EQ("text", RawScalar(DbPath(), "SELECT typeof(name) FROM items"));
}

TEST_F(ContentDbConnectionTest, EmptyBundleInsertsDefaults)
{
    ASSERT_EQ(0, Insert({}));
    EXPECT_EQ("1", RawScalar(DbPath(), "SELECT count(*) FROM items"));
    EXPECT_EQ("none", RawScalar(DbPath(), "SELECT note FROM items"));
    EXPECT_EQ("NULL", RawScalar(DbPath(), "SELECT name FROM items"));
}

TEST_F(ContentDbConnectionTest, InvalidArgumentsAreRefused)
{
    BundlePtr values = MakeBundle({{"name", "a"}});
    BundlePtr empty = MakeBundle({});
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_INVALID_ARGUMENT, m_connection->InsertRequest("items", nullptr));
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_INVALID_ARGUMENT, m_connection->InsertRequest("", values.get()));
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_INVALID_ARGUMENT,
              m_connection->UpdateRequest("items", empty.get(), "", {}));
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_INVALID_ARGUMENT,
              m_connection->UpdateRequest("items", nullptr, "", {}));
    EXPECT_EQ(CContentDbConnection::CONNECTION_ERROR_INVALID_ARGUMENT, m_connection->DeleteRequest("", "", {}));
    EXPECT_EQ("0", RawScalar(DbPath(), "SELECT count(*) FROM items"));
}

TEST_F(ContentDbConnectionTest, FailuresReturnTheSQLiteCodeAndLogItsMessage)
{
    tilvane::host::StartLogCapture();
    BundlePtr values = MakeBundle({{"name", "a"}});
    EXPECT_EQ(SQLITE_ERROR, m_connection->InsertRequest("missing_table", values.get()));
    BundlePtr badColumn = MakeBundle({{"no_such_column", "a"}});
    EXPECT_EQ(SQLITE_ERROR, m_connection->InsertRequest("items", badColumn.get()));

    ASSERT_EQ(0, Insert({{"id", "1"}, {"name", "first"}}));
    EXPECT_EQ(SQLITE_CONSTRAINT, Insert({{"id", "1"}, {"name", "duplicate"}}));
    EXPECT_EQ("first", RawScalar(DbPath(), "SELECT name FROM items WHERE id=1"));

    bool sawTableMessage = false;
    bool sawConstraintMessage = false;
    for (const auto& line : tilvane::host::CapturedLog()) {
        EXPECT_NE("tilvane", line.tag);
        if (line.tag == "tilvane-content" && line.priority == DLOG_ERROR) {
            sawTableMessage |= line.message.find("no such table: missing_table") != std::string::npos;
            sawConstraintMessage |= line.message.find("UNIQUE constraint failed") != std::string::npos;
        }
    }
    EXPECT_TRUE(sawTableMessage);
    EXPECT_TRUE(sawConstraintMessage);
}

TEST_F(ContentDbConnectionTest, LastInsertRowIdAndChangedRowCount)
{
    ASSERT_EQ(0, Insert({{"name", "a"}}));
    EXPECT_EQ(1, m_connection->GetLastInsertRowID());
    ASSERT_EQ(0, Insert({{"id", "40"}, {"name", "b"}}));
    EXPECT_EQ(40, m_connection->GetLastInsertRowID());
    ASSERT_EQ(0, Insert({{"name", "c"}}));
    EXPECT_EQ(41, m_connection->GetLastInsertRowID());

    BundlePtr values = MakeBundle({{"note", "changed"}});
    ASSERT_EQ(0, m_connection->UpdateRequest("items", values.get(), "id >= ?", {"40"}));
    EXPECT_EQ(2, m_connection->GetChangedRowCount());
}

TEST_F(ContentDbConnectionTest, UpdateBindsValuesThenWhereArguments)
{
    ASSERT_EQ(0, Insert({{"id", "1"}, {"name", "a"}, {"count", "1"}}));
    ASSERT_EQ(0, Insert({{"id", "2"}, {"name", "b"}, {"count", "2"}}));
    ASSERT_EQ(0, Insert({{"id", "3"}, {"name", "c"}, {"count", "3"}}));

    BundlePtr values = MakeBundle({{"name", "x'; DROP TABLE items; --"}, {"count", "10"}});
    ASSERT_EQ(0, m_connection->UpdateRequest("items", values.get(), "id = ? OR name = ?", {"2", "c"}));
    EXPECT_EQ(2, m_connection->GetChangedRowCount());
    std::vector<std::string> names = RawColumn(DbPath(), "SELECT name || ':' || count FROM items ORDER BY id");
    ASSERT_EQ(3u, names.size());
    EXPECT_EQ("a:1", names[0]);
    EXPECT_EQ("x'; DROP TABLE items; --:10", names[1]);
    EXPECT_EQ("x'; DROP TABLE items; --:10", names[2]);

    // Matching nothing is success.
    EXPECT_EQ(0, m_connection->UpdateRequest("items", values.get(), "id = ?", {"99"}));
    EXPECT_EQ(0, m_connection->GetChangedRowCount());

    // No where clause updates every row.
    BundlePtr all = MakeBundle({{"note", "all"}});
    ASSERT_EQ(0, m_connection->UpdateRequest("items", all.get(), "", {}));
    EXPECT_EQ("3", RawScalar(DbPath(), "SELECT count(*) FROM items WHERE note='all'"));
}

TEST_F(ContentDbConnectionTest, DeleteRemovesOnlyMatchingRows)
{
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(0, Insert({{"id", std::to_string(i)}, {"name", i % 2 == 0 ? "even" : "odd"}}));
    }
    ASSERT_EQ(0, m_connection->DeleteRequest("items", "name = ? AND id > ?", {"odd", "1"}));
    EXPECT_EQ(2, m_connection->GetChangedRowCount());
    std::vector<std::string> ids = RawColumn(DbPath(), "SELECT id FROM items ORDER BY id");
    EXPECT_EQ((std::vector<std::string>{"1", "2", "4"}), ids);

    ASSERT_EQ(0, m_connection->DeleteRequest("items", "", {}));
    EXPECT_EQ("0", RawScalar(DbPath(), "SELECT count(*) FROM items"));
    EXPECT_NE(0, m_connection->DeleteRequest("no_such_table", "", {}));
}

TEST_F(ContentDbConnectionTest, SelectAppliesProjectionWhereOrderAndLimit)
{
    for (int i = 1; i <= 6; ++i) {
        ASSERT_EQ(0, Insert({{"name", "n" + std::to_string(i)}, {"count", std::to_string(i * 10)}}));
    }
    std::vector<std::string> projection{"name", "count * 2 AS doubled"};
    auto cursor = m_connection->SelectRequest("items", projection, "count > ?", {"20"}, "count DESC", "3");
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(2, cursor->GetColumnCount());
    EXPECT_EQ("name", cursor->GetColumnName(0));
    EXPECT_EQ("doubled", cursor->GetColumnName(1));
    std::vector<std::string> names;
    std::vector<int> doubled;
    while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
        std::string name;
        int value = 0;
        ASSERT_TRUE(cursor->GetString(0, name));
        ASSERT_TRUE(cursor->GetInt(1, value));
        names.push_back(name);
        doubled.push_back(value);
    }
    EXPECT_EQ((std::vector<std::string>{"n6", "n5", "n4"}), names);
    EXPECT_EQ((std::vector<int>{120, 100, 80}), doubled);

    // The short form: every column, no arguments.
    std::vector<std::string> all;
    auto every = m_connection->SelectRequest("items", all, "count <= 20", "id");
    ASSERT_NE(nullptr, every);
    EXPECT_EQ(5, every->GetColumnCount());
    EXPECT_EQ(2, StepToEnd(*every));
}

TEST_F(ContentDbConnectionTest, SelectThatCannotBePreparedIsNull)
{
    std::vector<std::string> projection{"no_such_column"};
    EXPECT_EQ(nullptr, m_connection->SelectRequest("items", projection, "", ""));
    std::vector<std::string> all;
    EXPECT_EQ(nullptr, m_connection->SelectRequest("no_such_table", all, "", ""));
    // More arguments than parameters cannot be bound.
    EXPECT_EQ(nullptr, m_connection->SelectRequest("items", all, "id = ?", {"1", "2"}, "", ""));
    m_connection->Close();
    EXPECT_EQ(nullptr, m_connection->SelectRequest("items", all, "", ""));
}

TEST_F(ContentDbConnectionTest, RollbackLeavesNoRow)
{
    ASSERT_EQ(0, m_connection->BeginTransaction());
    EXPECT_TRUE(m_connection->InTransaction());
    ASSERT_EQ(0, Insert({{"name", "a"}}));
    ASSERT_EQ(0, Insert({{"name", "b"}}));
    ASSERT_EQ(0, m_connection->EndTransaction(false));
    EXPECT_FALSE(m_connection->InTransaction());
    EXPECT_EQ("0", RawScalar(DbPath(), "SELECT count(*) FROM items"));
}

TEST_F(ContentDbConnectionTest, InnerLevelEndingWithFalseRollsBackTheOuterCommit)
{
    ASSERT_EQ(0, Insert({{"name", "before"}}));
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert({{"name", "outer"}}));
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert({{"name", "inner"}}));
    ASSERT_EQ(0, m_connection->EndTransaction(false));
    EXPECT_TRUE(m_connection->InTransaction());
    // Nothing is decided before the outermost end: the rows are still visible here.
    std::vector<std::string> projection;
    auto cursor = m_connection->SelectRequest("items", projection, "", "");
    ASSERT_NE(nullptr, cursor);
    const int seen = StepToEnd(*cursor);
    cursor.reset();
    EXPECT_EQ(3, seen);

    EXPECT_NE(0, m_connection->EndTransaction(true));
    EXPECT_FALSE(m_connection->InTransaction());
    EXPECT_EQ((std::vector<std::string>{"before"}), RawColumn(DbPath(), "SELECT name FROM items"));

    // The next transaction starts clean.
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert({{"name", "later"}}));
    ASSERT_EQ(0, m_connection->EndTransaction(true));
    EXPECT_EQ("2", RawScalar(DbPath(), "SELECT count(*) FROM items"));
}

TEST_F(ContentDbConnectionTest, CommitPersistsAcrossReopen)
{
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert({{"name", "kept"}}));
    ASSERT_EQ(0, m_connection->EndTransaction(true));
    ASSERT_EQ(0, Insert({{"name", "kept too"}}));
    ASSERT_EQ(0, m_connection->EndTransaction(true));

    m_connection.reset();
    CContentDbConnection reopened(m_dir.Path(), "test.db");
    ASSERT_TRUE(reopened.OpenOperation());
    std::vector<std::string> projection{"name"};
    auto cursor = reopened.SelectRequest("items", projection, "", "id");
    ASSERT_NE(nullptr, cursor);
    std::vector<std::string> names;
    while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
        std::string name;
        ASSERT_TRUE(cursor->GetString(0, name));
        names.push_back(name);
    }
    EXPECT_EQ((std::vector<std::string>{"kept", "kept too"}), names);
}

TEST_F(ContentDbConnectionTest, EndWithoutBeginIsAnError)
{
    EXPECT_NE(0, m_connection->EndTransaction(true));
    EXPECT_FALSE(m_connection->InTransaction());
}

TEST_F(ContentDbConnectionTest, ForeignKeySettingCannotChangeInsideATransaction)
{
    ASSERT_EQ(0, m_connection->SetForeignKeyConstraintsEnabled(true));
    ASSERT_EQ(0, m_connection->BeginTransaction());
    EXPECT_NE(0, m_connection->SetForeignKeyConstraintsEnabled(false));
    ASSERT_EQ(0, m_connection->EndTransaction(true));
    EXPECT_EQ(0, m_connection->SetForeignKeyConstraintsEnabled(false));
}

TEST_F(ContentDbConnectionTest, InjectedFailuresMakeOperationsFail)
{
    using tilvane::host::FailNextCalls;
    BundlePtr values = MakeBundle({{"name", "a"}});
    std::vector<std::string> projection;

    FailNextCalls("CContentDbConnection::InsertRequest", 1);
    EXPECT_EQ(SQLITE_ERROR, m_connection->InsertRequest("items", values.get()));
    EXPECT_EQ(0, m_connection->InsertRequest("items", values.get()));

    FailNextCalls("CContentDbConnection::UpdateRequest", 1);
    EXPECT_EQ(SQLITE_ERROR, m_connection->UpdateRequest("items", values.get(), "", {}));
    FailNextCalls("CContentDbConnection::DeleteRequest", 1);
    EXPECT_EQ(SQLITE_ERROR, m_connection->DeleteRequest("items", "", {}));
    EXPECT_EQ("1", RawScalar(DbPath(), "SELECT count(*) FROM items"));

    FailNextCalls("CContentDbConnection::SelectRequest", 2);
    EXPECT_EQ(nullptr, m_connection->SelectRequest("items", projection, "", ""));
    EXPECT_EQ(nullptr, m_connection->SelectRequest("items", projection, "", {}, "", ""));
    EXPECT_NE(nullptr, m_connection->SelectRequest("items", projection, "", ""));

    FailNextCalls("CContentDbConnection::BeginTransaction", 1);
    EXPECT_EQ(SQLITE_ERROR, m_connection->BeginTransaction());
    EXPECT_FALSE(m_connection->InTransaction());

    FailNextCalls("CContentDbConnection::OpenOperation", 1);
    CContentDbConnection other(m_dir.Path(), "other.db");
    EXPECT_FALSE(other.OpenOperation());
    EXPECT_FALSE(other.IsOpen());
    EXPECT_TRUE(other.OpenOperation());

    EXPECT_EQ(2, tilvane::host::CallCount("CContentDbConnection::InsertRequest"));
    EXPECT_EQ(3, tilvane::host::CallCount("CContentDbConnection::SelectRequest"));
}

TEST_F(ContentDbConnectionTest, CursorOutlivesItsConnection)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, Insert({{"name", "r" + std::to_string(i)}}));
    }
    std::vector<std::string> projection{"name"};
    auto cursor = m_connection->SelectRequest("items", projection, "", "id");
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, cursor->Step());
    m_connection.reset();

    std::vector<std::string> names;
    std::string name;
    ASSERT_TRUE(cursor->GetString(0, name));
    names.push_back(name);
    while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
        ASSERT_TRUE(cursor->GetString(0, name));
        names.push_back(name);
    }
    EXPECT_EQ((std::vector<std::string>{"r0", "r1", "r2"}), names);
    EXPECT_EQ(ISQLiteCursor::STEP_DONE, cursor->Step());
}

TEST_F(ContentDbConnectionTest, TwoLiveCursorsOfTheSameSelectStepIndependently)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, Insert({{"name", "r" + std::to_string(i)}}));
    }
    std::vector<std::string> projection{"name"};
    auto first = m_connection->SelectRequest("items", projection, "", "id");
    auto second = m_connection->SelectRequest("items", projection, "", "id");
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    std::string a;
    std::string b;
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, first->Step());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, first->Step());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, second->Step());
    ASSERT_TRUE(first->GetString(0, a));
    ASSERT_TRUE(second->GetString(0, b));
    EXPECT_EQ("r1", a);
    EXPECT_EQ("r0", b);
    // Cached: the insert and the first select; the second select has its own
    // statement, finalised when its cursor goes.
    EXPECT_EQ(3, CountStatements(m_connection->GetHandle()));
    second.reset();
    EXPECT_EQ(2, CountStatements(m_connection->GetHandle()));
    first.reset();
    // The cached one is kept for the next select of the same text.
    EXPECT_EQ(2, CountStatements(m_connection->GetHandle()));
    const uint64_t before = tilvane::content::PreparedStatementCount();
    auto third = m_connection->SelectRequest("items", projection, "", "id");
    ASSERT_NE(nullptr, third);
    EXPECT_EQ(before, tilvane::content::PreparedStatementCount());
    ASSERT_EQ(ISQLiteCursor::STEP_ROW, third->Step());
    ASSERT_TRUE(third->GetString(0, a));
    EXPECT_EQ("r0", a);
}

TEST_F(ContentDbConnectionTest, ExecuteReportsErrorsWithTheirMessage)
{
    std::string error;
    EXPECT_EQ(SQLITE_ERROR, m_connection->ExcuteSQL("CREATE TABLE items (x)", error));
    EXPECT_NE(std::string::npos, error.find("already exists")) << error;
    EXPECT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE a (x); CREATE TABLE b (y);", error));
    EXPECT_TRUE(error.empty());
    EXPECT_EQ("2", RawScalar(DbPath(), "SELECT count(*) FROM sqlite_master WHERE name IN ('a','b')"));
}

TEST_F(ContentDbConnectionTest, PrepareCommandGivesAStatementOrTheError)
{
    ASSERT_EQ(0, Insert({{"name", "a"}}));
    sqlite3_stmt* statement = nullptr;
    const char* tail = nullptr;
    std::string error;
    const std::string sql = "SELECT name FROM items; SELECT 2";
    ASSERT_EQ(0, m_connection->PrepareCMD(sql, &statement, &tail, error));
    ASSERT_NE(nullptr, statement);
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ(" SELECT 2", std::string(tail));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(statement));
    EXPECT_STREQ("a", reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
    sqlite3_finalize(statement);

    statement = nullptr;
    EXPECT_EQ(SQLITE_ERROR, m_connection->PrepareCMD("SELEKT 1", &statement, nullptr, error));
    EXPECT_EQ(nullptr, statement);
    EXPECT_NE(std::string::npos, error.find("syntax error")) << error;
}

TEST_F(ContentDbConnectionTest, DeleteDatabaseClosesAndRemovesEveryFile)
{
    ASSERT_EQ(0, Insert({{"name", "a"}}));
    ASSERT_TRUE(tilvane::test::FileExists(DbPath()));
    ASSERT_TRUE(tilvane::test::FileExists(DbPath() + "-wal"));
    // A stale rollback journal is removed too.
    { std::ofstream(DbPath() + "-journal") << "stale"; }

    EXPECT_TRUE(m_connection->DeleteDatabase(m_dir.Path() + "/", "test.db"));
    EXPECT_FALSE(m_connection->IsOpen());
    EXPECT_FALSE(tilvane::test::FileExists(DbPath()));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath() + "-wal"));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath() + "-shm"));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath() + "-journal"));

    // Deleting another file leaves this connection open.
    CContentDbConnection other(m_dir.Path(), "other.db");
    ASSERT_TRUE(other.OpenOperation());
    ASSERT_TRUE(m_connection->OpenOperation());
    EXPECT_TRUE(m_connection->DeleteDatabase(m_dir.Path(), "other.db"));
    EXPECT_TRUE(m_connection->IsOpen());
    EXPECT_FALSE(tilvane::test::FileExists(m_dir.File("other.db")));
}

TEST_F(ContentDbConnectionTest, ConcurrentWritersOnOneConnectionAreSerialised)
{
    const int perThread = 200;
    std::atomic<int> failures{0};
    auto writer = [&](const std::string& prefix) {
        for (int i = 0; i < perThread; ++i) {
            if (Insert({{"name", prefix + std::to_string(i)}, {"count", std::to_string(i)}}) != 0) {
                ++failures;
            }
        }
    };
    std::thread a(writer, "a");
    std::thread b(writer, "b");
    a.join();
    b.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(std::to_string(2 * perThread), RawScalar(DbPath(), "SELECT count(*) FROM items"));
    EXPECT_EQ("200", RawScalar(DbPath(), "SELECT count(*) FROM items WHERE name LIKE 'a%'"));
}

}  // namespace
