/*
 * The content library's request interface over the bus: requests sent with the
 * client library reach the callbacks registered for (kind, URI) as filled
 * request records, and the callbacks' results come back, rows of a select
 * from the cursor the callback stored.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <host_control.h>
#include <tilvane_client.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "SharedQueryObject.h"
#include "TestSupport.h"
#include "bundle.h"
#include "bundle_ptr.h"
#include "content_provider_dispatch.h"
#include "registry/app_registry.h"
#include "requests/row_codec.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

constexpr char kTiles[] = "content://org.example.shelf/tiles";
constexpr char kSections[] = "content://org.example.shelf/sections";

using Entries = std::vector<std::pair<std::string, std::string>>;

/* Everything the callbacks saw, in order. */
struct Seen {
    std::string kind;
    std::string appId;
    std::string uri;
    std::vector<Entries> rows;
    std::string where;
    std::vector<std::string> args;
    std::vector<std::string> projection;
    std::string order;
    std::string limit;
    void* userData = nullptr;
    std::thread::id thread;
};
std::vector<Seen> g_seen;
int g_result = 0;
bool g_answer = true;
std::unique_ptr<CContentDbConnection> g_db;
int g_userData = 3;

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    g_seen.push_back({"insert", in.strAppId, in.strUri, {BundleEntries(in.pValues)}, "", {}, {}, "", "", in.pUserData,
                      std::this_thread::get_id()});
    out.nRowId = 77;
    return g_result;
}

int BulkInsertCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    Seen seen{"bulk insert", in.strAppId, in.strUri, {}, "", {}, {}, "", "", in.pUserData, std::this_thread::get_id()};
    for (bundle* b : in.vecValues) {
        seen.rows.push_back(BundleEntries(b));
    }
    g_seen.push_back(seen);
    out.nRowId = 100 + static_cast<int64_t>(in.vecValues.size());
    return g_result;
}

int UpdateCB(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM&)
{
    g_seen.push_back({"update", in.strAppId, in.strUri, {BundleEntries(in.pValues)}, in.strWhere, in.vecWhereArgs, {}, "",
                      "", in.pUserData, std::this_thread::get_id()});
    return g_result;
}

int BulkUpdateCB(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM&)
{
    Seen seen{"bulk update", in.strAppId, in.strUri, {}, "", {}, {}, "", "", in.pUserData, std::this_thread::get_id()};
    for (bundle* b : in.vecValues) {
        seen.rows.push_back(BundleEntries(b));
    }
    g_seen.push_back(seen);
    return g_result;
}

int DeleteCB(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    g_seen.push_back({"delete", in.strAppId, in.strUri, {}, in.strWhere, in.vecWhereArgs, {}, "", "", in.pUserData,
                      std::this_thread::get_id()});
    return g_result;
}

bool SelectCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    g_seen.push_back({"select", in.strAppId, in.strUri, {}, in.strWhere, in.vecWhereArgs, in.vecProjection,
                      in.strOrderBy, in.strLimit, in.pUserData, std::this_thread::get_id()});
    if (!g_answer) {
        return false;
    }
    std::vector<std::string> projection = in.vecProjection;
    auto cursor = g_db->SelectRequest("tiles", projection, in.strWhere, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (CSharedQueryObject::StoreCursor(cursor, "tiles", out.strSharedName, out.nColumnCount) != 0) {
        return false;
    }
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

bool GetIdCB(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    g_seen.push_back({"get id", in.strAppId, in.strUri, {}, in.strWhere, in.vecWhereArgs, in.vecProjection, "", "",
                      in.pUserData, std::this_thread::get_id()});
    out.vecRowIds = {4, 8, -1};
    return g_answer;
}

class ContentInterfaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        tilvane::host::SetOwnAppId("org.example.shelf.app");
        g_seen.clear();
        g_result = 0;
        g_answer = true;
        g_db.reset(new CContentDbConnection(m_sandbox.Root(), "interface.db"));
        ASSERT_TRUE(g_db->OpenOperation());
        std::string error;
        ASSERT_EQ(0, g_db->ExcuteSQL("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, title TEXT, score REAL, "
                                     "art BLOB, note TEXT);"
                                     "INSERT INTO tiles VALUES (1, 'one', 1.5, x'0102', NULL);"
                                     "WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 1000)"
                                     " INSERT INTO tiles SELECT i, 'tile ' || i, i / 2.0, NULL, 'n' FROM n;",
                                     error))
            << error;
    }
    void TearDown() override
    {
        tilvane::content::ClearRegistrations();
        CSharedQueryObject::Clear();
        g_db.reset();
    }
    void RegisterAll(const std::string& uri)
    {
        ASSERT_TRUE(register_insert_db_callback(uri, InsertCB, &g_userData));
        ASSERT_TRUE(register_insert_db_callback_for_bulkdata(uri, BulkInsertCB, &g_userData));
        ASSERT_TRUE(register_delete_db_callback(uri, DeleteCB, &g_userData));
        ASSERT_TRUE(register_select_db_callback(uri, SelectCB, &g_userData));
        ASSERT_TRUE(register_update_db_callback(uri, UpdateCB, &g_userData));
        ASSERT_TRUE(register_update_db_callback_for_bulkdata(uri, BulkUpdateCB, &g_userData));
        ASSERT_TRUE(register_get_id_db_callback(uri, GetIdCB, &g_userData));
    }

    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
    ContentClient m_client;
};

long long MillisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST_F(ContentInterfaceTest, InsertFillsTheRecordAndReturnsTheCodeAndRowId)
{
    RegisterAll(kTiles);
    Result result = m_client.Insert(kTiles, {{"title", "news"}, {"tile_section_id", "2"}});
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.rowId, 77);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].appId, "org.example.shelf.app");
    EXPECT_EQ(g_seen[0].uri, kTiles);
    EXPECT_EQ(g_seen[0].rows, (std::vector<Entries>{{{"title", "news"}, {"tile_section_id", "2"}}}));
    EXPECT_EQ(g_seen[0].userData, &g_userData);
    EXPECT_EQ(g_seen[0].thread, std::this_thread::get_id());
}

TEST_F(ContentInterfaceTest, ResultCodesOfTheCallbackReachTheClient)
{
    RegisterAll(kTiles);
    for (int code : {-22, -13, static_cast<int>(0xC0000000)}) {
        g_result = code;
        Result result = m_client.Delete(kTiles, "_id = ?", {"4"});
        ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
        EXPECT_EQ(result.code, code);
    }
    g_result = -13;
    EXPECT_EQ(tilvane::client::Describe(m_client.Update(kTiles, {{"a", "b"}}, "", {})), "permission denied (-13)");
    g_result = -22;
    EXPECT_EQ(tilvane::client::Describe(m_client.Insert(kTiles, {{"a", "b"}})), "invalid URI (-22)");
    g_result = static_cast<int>(0xC0000000);
    EXPECT_EQ(tilvane::client::Describe(m_client.BulkUpdate(kTiles, {{{"a", "b"}}})), "failed (-1073741824)");
    ASSERT_EQ(g_seen.size(), 6u);
    EXPECT_EQ(g_seen[0].where, "_id = ?");
    EXPECT_EQ(g_seen[0].args, (std::vector<std::string>{"4"}));
}

TEST_F(ContentInterfaceTest, BulkRecordsCarryEveryRowInOrder)
{
    RegisterAll(kSections);
    std::vector<Values> rows;
    for (int i = 0; i < 5; ++i) {
        rows.push_back({{"section_title", "s" + std::to_string(i)}, {"accelerator_id", "1"}});
    }
    Result inserted = m_client.BulkInsert(kSections, rows);
    ASSERT_EQ(inserted.outcome, Outcome::Answered) << inserted.message;
    EXPECT_EQ(inserted.rowId, 105);
    Result updated =
        m_client.BulkUpdate(kSections, {{{"section_title", "x"}, {"bulk_update_row_id_key", "3"}}, {{"a", "b"}}});
    EXPECT_TRUE(updated.Ok()) << updated.message;
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[0].kind, "bulk insert");
    ASSERT_EQ(g_seen[0].rows.size(), 5u);
    EXPECT_EQ(g_seen[0].rows[4], (Entries{{"section_title", "s4"}, {"accelerator_id", "1"}}));
    EXPECT_EQ(g_seen[1].kind, "bulk update");
    EXPECT_EQ(g_seen[1].rows,
              (std::vector<Entries>{{{"section_title", "x"}, {"bulk_update_row_id_key", "3"}}, {{"a", "b"}}}));
}

TEST_F(ContentInterfaceTest, SelectReturnsTheStoredCursorsRowsWithTypesAndNames)
{
    RegisterAll(kTiles);
    Result result = m_client.Select(kTiles, {"_id", "title", "score", "art", "note"}, "_id <= ?", {"2"}, "_id ASC", "5");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(result.rows.columns, (std::vector<std::string>{"_id", "title", "score", "art", "note"}));
    ASSERT_EQ(result.rows.rows.size(), 2u);
    const auto& first = result.rows.rows[0];
    EXPECT_EQ(first[0].type, Cell::Type::Integer);
    EXPECT_EQ(first[0].integer, 1);
    EXPECT_EQ(first[1].text, "one");
    EXPECT_EQ(first[2].type, Cell::Type::Real);
    EXPECT_DOUBLE_EQ(first[2].real, 1.5);
    EXPECT_EQ(first[3].type, Cell::Type::Blob);
    EXPECT_EQ(first[3].blob, (std::vector<unsigned char>{1, 2}));
    EXPECT_EQ(first[4].type, Cell::Type::Null);
    EXPECT_EQ(result.rows.rows[1][3].type, Cell::Type::Null);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].order, "_id ASC");
    EXPECT_EQ(g_seen[0].limit, "5");
    EXPECT_EQ(g_seen[0].args, (std::vector<std::string>{"2"}));
    EXPECT_EQ(CSharedQueryObject::GetStoredCount(), 0u) << "the interface takes the cursor it sends";
}

TEST_F(ContentInterfaceTest, AThousandRowSelectArrivesWhole)
{
    RegisterAll(kTiles);
    Result result = m_client.Select(kTiles, {}, "", {}, "_id", "");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    ASSERT_EQ(result.rows.rows.size(), 1000u);
    EXPECT_EQ(result.rows.rows[999][1].text, "tile 1000");
}

TEST_F(ContentInterfaceTest, RowIdsComeBackInOrder)
{
    RegisterAll(kTiles);
    Result result = m_client.GetRowIds(kTiles, "title = ?", {"x"});
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(result.rowIds, (std::vector<int64_t>{4, 8, -1}));
    EXPECT_EQ(g_seen[0].kind, "get id");
}

TEST_F(ContentInterfaceTest, ASelectOrLookupThatFailsGivesNoResultAtOnce)
{
    RegisterAll(kTiles);
    g_answer = false;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_client.Select(kTiles, {}, "", {}, "", "").outcome, Outcome::NoResult);
    EXPECT_EQ(m_client.GetRowIds(kTiles, "", {}).outcome, Outcome::NoResult);
    EXPECT_LT(MillisecondsSince(start), 500);
}

TEST_F(ContentInterfaceTest, AKindOrUriWithoutACallbackIsNotServed)
{
    ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCB, nullptr));
    const auto start = std::chrono::steady_clock::now();
    /* Same authority, another kind and another table. */
    EXPECT_EQ(m_client.Delete(kTiles, "", {}).outcome, Outcome::NotServed);
    EXPECT_EQ(m_client.Insert(kSections, {{"a", "b"}}).outcome, Outcome::NotServed);
    /* An authority nobody serves. */
    EXPECT_EQ(m_client.Insert("content://org.example.nobody/tiles", {{"a", "b"}}).outcome, Outcome::NotServed);
    EXPECT_LT(MillisecondsSince(start), 1000);
    EXPECT_TRUE(g_seen.empty());
    /* The name goes with the last callback of the authority. */
    ASSERT_TRUE(unregister_insert_db_callback(kTiles));
    EXPECT_EQ(m_client.Insert(kTiles, {{"a", "b"}}).outcome, Outcome::NotServed);
    EXPECT_TRUE(g_seen.empty());
}

TEST_F(ContentInterfaceTest, TheCallerIdOfAnotherProcessComesFromTheBus)
{
    ChildProcess client([](int) {
        tilvane::host::SetOwnAppId("org.example.viewer");
        ContentClient content;
        Result result = content.Insert(kTiles, {{"title", "from the child"}});
        return result.outcome == Outcome::Answered && result.rowId == 77 ? 0 : 10;
    });
    ASSERT_TRUE(client.Started());
    RegisterAll(kTiles);
    ASSERT_TRUE(client.Go());
    ASSERT_TRUE(IterateMainContextUntil([] { return !g_seen.empty(); }, 5000));
    EXPECT_EQ(g_seen[0].appId, "org.example.viewer");
    int status = -1;
    IterateMainContextUntil([&] { return (status = client.Wait(10)) != -1; }, 5000);
    EXPECT_EQ(status, 0);
}

namespace {

/* A select whose provider read the first row itself before storing the cursor. */
bool SelectAfterFirstRowCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    std::vector<std::string> projection = in.vecProjection;
    auto cursor = g_db->SelectRequest("tiles", projection, in.strWhere, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (cursor == nullptr || cursor->Step() != ISQLiteCursor::STEP_ROW ||
        CSharedQueryObject::StoreCursor(cursor, "tiles", out.strSharedName, out.nColumnCount) != 0) {
        return false;
    }
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

/* A cursor that is not the content library's: rows of its own. */
class ListCursor : public ISQLiteCursor
{
public:
    int Step() override { return ++m_row < 2 ? STEP_ROW : STEP_DONE; }
    int Reset() override { m_row = -1; return 0; }
    int GetColumnCount() const override { return 3; }
    std::string GetColumnName(int column) const override { return column == 0 ? "n" : column == 1 ? "t" : "b"; }
    int GetColumnType(int column) const override
    {
        return column == 0 ? SQLITE_INTEGER : column == 1 ? SQLITE_TEXT : (m_row == 0 ? SQLITE_BLOB : SQLITE_NULL);
    }
    bool GetInt(int, int& value) const override { value = m_row + 10; return true; }
    bool GetInt64(int, int64_t& value) const override { value = m_row + 10; return true; }
    bool GetDouble(int, double& value) const override { value = m_row; return true; }
    bool GetString(int, std::string& value) const override { value = m_row == 0 ? "first" : "second"; return true; }
    bool GetBlob(int, std::vector<unsigned char>& value) const override { value = {7, 8, 9}; return true; }
    bool IsNull(int column) const override { return GetColumnType(column) == SQLITE_NULL; }

private:
    int m_row = -1;
};

bool SelectOwnCursorCB(PT_PROVIDER_SELECT_IN_PARAM&, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    if (CSharedQueryObject::StoreCursor(std::make_shared<ListCursor>(), "list", out.strSharedName, out.nColumnCount) !=
        0) {
        return false;
    }
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

}  // namespace

TEST_F(ContentInterfaceTest, ACursorTheProviderAlreadySteppedSendsTheRowsAfterIt)
{
    ASSERT_TRUE(register_select_db_callback(kTiles, SelectAfterFirstRowCB, &g_userData));
    Result result = m_client.Select(kTiles, {"_id", "title"}, "_id <= ?", {"3"}, "_id", "");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    ASSERT_EQ(result.rows.rows.size(), 2u);
    EXPECT_EQ(result.rows.rows[0][0].integer, 2);
    EXPECT_EQ(result.rows.rows[1][1].text, "tile 3");
}

TEST_F(ContentInterfaceTest, ACursorOfTheProvidersOwnIsSentThroughItsTypedReads)
{
    ASSERT_TRUE(register_select_db_callback(kTiles, SelectOwnCursorCB, &g_userData));
    Result result = m_client.Select(kTiles, {}, "", {}, "", "");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(result.rows.columns, (std::vector<std::string>{"n", "t", "b"}));
    ASSERT_EQ(result.rows.rows.size(), 2u);
    EXPECT_EQ(result.rows.rows[0][0].integer, 10);
    EXPECT_EQ(result.rows.rows[0][1].text, "first");
    EXPECT_EQ(result.rows.rows[0][2].blob, (std::vector<unsigned char>{7, 8, 9}));
    EXPECT_EQ(result.rows.rows[1][0].integer, 11);
    EXPECT_EQ(result.rows.rows[1][1].text, "second");
    EXPECT_EQ(result.rows.rows[1][2].type, Cell::Type::Null);
}

TEST_F(ContentInterfaceTest, FreeMemoryIsGivenBackOnceASecondAfterTheLastRequest)
{
    RegisterAll(kTiles);
    const int before = tilvane::host::CallCount("malloc_trim");
    ASSERT_EQ(m_client.Select(kTiles, {}, "", {}, "_id", "").outcome, Outcome::Answered);
    ASSERT_EQ(m_client.GetRowIds(kTiles, "", {}).outcome, Outcome::Answered);
    // Nothing right after the requests.
    EXPECT_EQ(tilvane::host::CallCount("malloc_trim"), before);
    int cacheBefore = 0;
    int highwater = 0;
    ASSERT_EQ(SQLITE_OK, sqlite3_db_status(g_db->GetHandle(), SQLITE_DBSTATUS_CACHE_USED, &cacheBefore, &highwater, 0));
    EXPECT_GT(cacheBefore, 0);
    int statementsBefore = 0;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_db_status(g_db->GetHandle(), SQLITE_DBSTATUS_STMT_USED, &statementsBefore, &highwater, 0));
    EXPECT_GT(statementsBefore, 0);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] { return tilvane::host::CallCount("malloc_trim") > before; }, 5000));
    EXPECT_GE(MillisecondsSince(start), 500);
    // The connection's page cache went back too.
    int cacheAfter = 0;
    ASSERT_EQ(SQLITE_OK, sqlite3_db_status(g_db->GetHandle(), SQLITE_DBSTATUS_CACHE_USED, &cacheAfter, &highwater, 0));
    EXPECT_LT(cacheAfter, cacheBefore);
    // And the statements kept for reuse: the next request prepares its own.
    int statementsAfter = 0;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_db_status(g_db->GetHandle(), SQLITE_DBSTATUS_STMT_USED, &statementsAfter, &highwater, 0));
    EXPECT_EQ(statementsAfter, 0);
    // Once for both requests.
    tilvane::test::IterateMainContextUntil([] { return false; }, 1500);
    EXPECT_EQ(tilvane::host::CallCount("malloc_trim"), before + 1);
    ASSERT_EQ(m_client.GetRowIds(kTiles, "", {}).outcome, Outcome::Answered);
}

/* True when this process maps the application registry's shared-memory file
 * (which an open connection to the registry does). */
bool MapsTheRegistry()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(".tilvane-app-registry.db-shm") != std::string::npos) {
            return true;
        }
    }
    return false;
}

/* The connection the loop's thread keeps for registry lookups is closed by
 * the idle trim too: its memory and its mapping go back, and the next lookup
 * opens it again. */
TEST_F(ContentInterfaceTest, TheIdleTrimClosesTheRegistryConnectionKeptForLookups)
{
    RegisterAll(kTiles);
    tilvane::host::RegisteredPackage installed;
    installed.packageId = "org.example.news";
    installed.applications.push_back({"org.example.news.ui", {}});
    ASSERT_TRUE(tilvane::host::InstallPackage(installed, nullptr));
    std::string package;
    ASSERT_EQ(tilvane::host::registry::FindPackageOfApp("org.example.news.ui", package), tilvane::host::registry::Result::Ok);
    ASSERT_TRUE(MapsTheRegistry());
    const int before = tilvane::host::CallCount("malloc_trim");
    ASSERT_EQ(m_client.GetRowIds(kTiles, "", {}).outcome, Outcome::Answered);
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] { return tilvane::host::CallCount("malloc_trim") > before; }, 5000));
    EXPECT_FALSE(MapsTheRegistry());
    package.clear();
    ASSERT_EQ(tilvane::host::registry::FindPackageOfApp("org.example.news.ui", package), tilvane::host::registry::Result::Ok);
    EXPECT_EQ(package, "org.example.news");
    EXPECT_TRUE(MapsTheRegistry());
}

TEST_F(ContentInterfaceTest, RowsLargerThanAReplyCarriesAreRefusedBeforeAnythingIsSent)
{
    RegisterAll(kTiles);
    /* 1,000 rows of about 30 bytes do not fit in 16 KiB of message. */
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n[bus]\nmax-message-bytes = 16384\n");
    Result all = m_client.Select(kTiles, {"_id", "title"}, "", {}, "_id", "");
    EXPECT_EQ(all.outcome, Outcome::NoResult);
    EXPECT_EQ(all.message, "the result is larger than a reply can carry; select fewer rows or columns");
    EXPECT_EQ(tilvane::client::Explain(all),
              "failed: the result is larger than a reply can carry; select fewer rows or columns");
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform",
                                        "request Content.Select of org.example.shelf.app failed: the result is larger "
                                        "than a reply can carry"),
              1);
    EXPECT_EQ(CSharedQueryObject::GetStoredCount(), 0u);
    /* Fewer rows fit; so do the row ids of the provider. */
    Result some = m_client.Select(kTiles, {"_id", "title"}, "", {}, "_id", "100");
    ASSERT_TRUE(some.Ok()) << some.message;
    EXPECT_EQ(some.rows.rows.size(), 100u);
    EXPECT_TRUE(m_client.GetRowIds(kTiles, "", {}).Ok());
}

TEST(RowEncoderCeilingTest, RowsStopAtTheCeilingAndSayWhetherTheyFit)
{
    tilvane::test::TempDir dir;
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dir.File("rows.db").c_str(), &db), SQLITE_OK);
    auto encode = [db](const char* sql, size_t ceiling, std::string& encoded) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
        const tilvane::host::RowsEncoding ended = tilvane::host::EncodeStatementRows(statement, encoded, ceiling);
        sqlite3_finalize(statement);
        return ended;
    };
    std::string encoded;
    /* Format, one column "x" (4 + 1), the row count, then 3 rows of one
     * integer (9 bytes each): 1 + 4 + 5 + 4 + 27 = 41 bytes. */
    const char* threeRows = "SELECT 1 AS x UNION ALL SELECT 2 UNION ALL SELECT 3";
    EXPECT_EQ(encode(threeRows, 41, encoded), tilvane::host::RowsEncoding::Done);
    EXPECT_EQ(encoded.size(), 41u);
    encoded.clear();
    EXPECT_EQ(encode(threeRows, 40, encoded), tilvane::host::RowsEncoding::TooLarge);
    EXPECT_TRUE(encoded.empty());
    /* A value far over the ceiling is never copied whole. */
    EXPECT_EQ(encode("SELECT randomblob(1000000)", 1000, encoded), tilvane::host::RowsEncoding::TooLarge);
    sqlite3_close(db);
}
