/*
 * The request handlers on the content library's interface: each request goes
 * through the callback the provider registered for its (kind, URI), as the
 * library's clients' requests do, and the outcome is read back from the
 * database, the result codes, the log and the events sent.
 */
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <content_provider_dispatch.h>
#include <message_port.h>

#include "MessageHelper.h"
#include "PermissionHelper.h"
#include "SharedQueryObject.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using tilvane::test::CountLines;
using tilvane::test::RawDatabase;
namespace content = tilvane::content;

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

const int kFailed = static_cast<int>(0xC0000000);
const char kNewsApp[] = "org.example.news.ui";
const char kNewsPackage[] = "org.example.news";
const char kSportsApp[] = "org.example.sports.ui";
const char kSportsPackage[] = "org.example.sports";
const char kNobodyApp[] = "org.example.nobody.ui";
const char kListenerPort[] = "request-events";

void IgnoreMessage(int, const char*, const char*, bool, bundle*, void*)
{
}

struct BundleList
{
    std::vector<bundle*> bundles;
    ~BundleList()
    {
        for (bundle* b : bundles) {
            bundle_free(b);
        }
    }
    bundle* Add(const Entries& entries)
    {
        bundle* b = bundle_create();
        for (const auto& entry : entries) {
            bundle_add_str(b, entry.first.c_str(), entry.second.c_str());
        }
        bundles.push_back(b);
        return b;
    }
};

class RequestHandlersTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::UseVirtualClock(true);
        tilvane::host::SetOwnAppId("com.quillon.px.tilvane");
        InstallWriter(kNewsPackage, kNewsApp);
        InstallWriter(kSportsPackage, kSportsApp);
        tilvane::host::RegisteredPackage nobody;
        nobody.packageId = "org.example.nobody";
        nobody.applications.push_back({kNobodyApp, {}});
        ASSERT_TRUE(tilvane::host::InstallPackage(nobody));

        m_provider = CTilesProvider::GetInstance();
        ASSERT_NE(m_provider, nullptr);
        SeedRows();
    }

    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    static void InstallWriter(const std::string& packageId, const std::string& appId)
    {
        tilvane::host::RegisteredPackage package;
        package.packageId = packageId;
        package.applications.push_back(
            {appId,
             {{TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
              {TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}}});
        ASSERT_TRUE(tilvane::host::InstallPackage(package));
    }

    std::string DatabasePath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }

    /* News owns accelerator 101 with sections 10, 11; sports owns accelerator
     * 102 with section 20. Tiles: 100, 101 under 10; 102 under 11; 200 under
     * 20. (The live-television entries made at start have the first ids.) */
    void SeedRows()
    {
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES "
                          "(101, 'org.example.news'), (102, 'org.example.sports');"
                          "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES "
                          "(10, 'news-a', 101), (11, 'news-b', 101), (20, 'sports-a', 102);"
                          "INSERT INTO tiles (_id, tile_id, tile_section_raw_id) VALUES "
                          "(100, 'n1', 10), (101, 'n2', 10), (102, 'n3', 11), (200, 's1', 20);"),
                  0);
    }

    std::vector<std::string> Column(const std::string& sql) { return RawDatabase(DatabasePath()).Column(sql); }

    /* A port of this process subscribed to preview events, with sends recorded. */
    void SubscribeListener()
    {
        ASSERT_GT(message_port_register_local_port(kListenerPort, IgnoreMessage, nullptr), 0);
        CTilesProviderTestAccess::SyncEventHelper(m_provider)->SubscribalRequest("com.quillon.px.tilvane",
                                                                                kListenerPort);
        tilvane::host::RecordSentMessages(true);
    }

    std::vector<Entries> Events() const
    {
        std::vector<Entries> events;
        for (const tilvane::host::SentMessage& message : tilvane::host::SentMessages()) {
            if (message.port == kListenerPort) {
                events.push_back(message.entries);
            }
        }
        return events;
    }

    int Insert(const std::string& appId, const std::string& uri, bundle* values, int64_t* rowId = nullptr)
    {
        PT_PROVIDER_INSERT_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.pValues = values;
        PT_PROVIDER_INSERT_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchInsert(in, out, result));
        if (rowId != nullptr) {
            *rowId = out.nRowId;
        }
        return result;
    }

    int BulkInsert(const std::string& appId, const std::string& uri, const std::vector<bundle*>& rows,
                   int64_t* rowId = nullptr)
    {
        PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.vecValues = rows;
        PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchBulkInsert(in, out, result));
        if (rowId != nullptr) {
            *rowId = out.nRowId;
        }
        return result;
    }

    int Update(const std::string& appId, const std::string& uri, bundle* values, const std::string& where,
               const std::vector<std::string>& args = {})
    {
        PT_PROVIDER_UPDATE_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.pValues = values;
        in.strWhere = where;
        in.vecWhereArgs = args;
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchUpdate(in, out, result));
        return result;
    }

    int BulkUpdate(const std::string& appId, const std::string& uri, const std::vector<bundle*>& rows)
    {
        PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.vecValues = rows;
        PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchBulkUpdate(in, out, result));
        return result;
    }

    int Delete(const std::string& appId, const std::string& uri, const std::string& where)
    {
        PT_PROVIDER_DELETE_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.strWhere = where;
        int result = 0;
        EXPECT_TRUE(content::DispatchDelete(in, result));
        return result;
    }

    /* The first column of every row a select hands back; false when refused. */
    bool Select(const std::string& appId, const std::string& uri, const std::vector<std::string>& projection,
                const std::string& where, std::vector<std::string>& firstColumn, int* columnCount = nullptr)
    {
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.vecProjection = projection;
        in.strWhere = where;
        in.strOrderBy = "1";
        PT_PROVIDER_SELECT_OUT_PARAM out;
        bool result = false;
        EXPECT_TRUE(content::DispatchSelect(in, out, result));
        if (!result) {
            return false;
        }
        std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
        EXPECT_NE(cursor, nullptr);
        if (cursor == nullptr) {
            return false;
        }
        if (columnCount != nullptr) {
            *columnCount = cursor->GetColumnCount();
        }
        while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
            std::string value;
            cursor->GetString(0, value);
            firstColumn.push_back(value);
        }
        return true;
    }

    bool RowIds(const std::string& appId, const std::string& uri, const std::vector<std::string>& projection,
                const std::string& where, std::vector<int64_t>& ids)
    {
        PT_PROVIDER_GET_ID_IN_PARAM in;
        in.strAppId = appId;
        in.strUri = uri;
        in.vecProjection = projection;
        in.strWhere = where;
        in.strOrderBy = "1";
        PT_PROVIDER_GET_ID_OUT_PARAM out;
        bool result = false;
        EXPECT_TRUE(content::DispatchGetId(in, out, result));
        ids = out.vecRowIds;
        return result;
    }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
    CTilesProvider* m_provider = nullptr;
    BundleList m_bundles;
};

/* ---- registration ---------------------------------------------------------- */

TEST_F(RequestHandlersTest, AllTwentyOneCallbacksAreRegistered)
{
    EXPECT_EQ(content::RegisteredCount(), 21u);
    for (content::RequestKind kind :
         {content::RequestKind::Insert, content::RequestKind::BulkInsert, content::RequestKind::Delete,
          content::RequestKind::Select, content::RequestKind::Update, content::RequestKind::BulkUpdate,
          content::RequestKind::GetId}) {
        for (const char* uri : {TilesModel::Accelerators::CONTENT_URI, TilesModel::Sections::CONTENT_URI,
                                TilesModel::Tiles::CONTENT_URI}) {
            EXPECT_TRUE(content::IsRegistered(kind, uri)) << content::RequestKindName(kind) << " " << uri;
        }
    }
}

TEST_F(RequestHandlersTest, ShutdownRemovesAllTwentyOneCallbacks)
{
    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
    EXPECT_EQ(content::RegisteredCount(), 0u);
}

/* ---- the record without a provider -------------------------------------------- */

TEST_F(RequestHandlersTest, RecordsWithoutAProviderFailWithoutTouchingTheDatabase)
{
    bundle* values = m_bundles.Add({{TilesModel::Sections::SECTION_ID, "orphan"}, {"section_accelerator_raw_id", "1"}});
    PT_PROVIDER_INSERT_IN_PARAM insert;
    insert.strAppId = kNewsApp;
    insert.strUri = TilesModel::Sections::CONTENT_URI;
    insert.pValues = values;
    PT_PROVIDER_INSERT_OUT_PARAM insertOut;
    PT_PROVIDER_DELETE_IN_PARAM remove;
    remove.strAppId = kNewsApp;
    remove.strUri = TilesModel::Tiles::CONTENT_URI;
    PT_PROVIDER_SELECT_IN_PARAM select;
    select.strUri = TilesModel::Tiles::CONTENT_URI;
    PT_PROVIDER_SELECT_OUT_PARAM selectOut;
    PT_PROVIDER_GET_ID_OUT_PARAM idsOut;

    EXPECT_EQ(CTilesProvider::InsertRequestCB(insert, insertOut), kFailed);
    EXPECT_EQ(CTilesProvider::DeleteRequestCB(remove), kFailed);
    EXPECT_FALSE(CTilesProvider::SelectRequestCB(select, selectOut));
    EXPECT_FALSE(CTilesProvider::GetRowIDRequestCB(select, idsOut));

    EXPECT_EQ(CountLines("tilvane", "failed by NULL user_data"), 4);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM sections")[0], "3");
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

/* ---- insert ---------------------------------------------------------------------- */

TEST_F(RequestHandlersTest, InsertWritesTheRowAsSentAndReturnsItsId)
{
    int64_t rowId = -1;
    bundle* values = m_bundles.Add({{TilesModel::Tiles::TILE_ID, "n4"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "11"}});

    EXPECT_EQ(Insert(kNewsApp, TilesModel::Tiles::CONTENT_URI, values, &rowId), 0);

    EXPECT_GT(rowId, 200);
    EXPECT_EQ(Column("SELECT tile_id FROM tiles WHERE _id = " + std::to_string(rowId)),
              (std::vector<std::string>{"n4"}));
    EXPECT_EQ(CountLines("tilvane", "INSERT row id = " + std::to_string(rowId)), 1);
}

TEST_F(RequestHandlersTest, InsertIntoAcceleratorsIsRefusedEvenForTheMostPrivilegedCaller)
{
    bundle* values = m_bundles.Add({{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "sneaky"}});
    int64_t rowId = 0;

    EXPECT_EQ(Insert("DownloadManager", TilesModel::Accelerators::CONTENT_URI, values, &rowId), -22);

    EXPECT_EQ(rowId, -1);
    EXPECT_EQ(CountLines("tilvane", "failed by invalid URI"), 1);
    EXPECT_TRUE(Column("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'sneaky'").empty());
}

TEST_F(RequestHandlersTest, InsertWithWriteLevelZeroIsRefused)
{
    bundle* values = m_bundles.Add({{TilesModel::Tiles::TILE_ID, "x"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}});

    EXPECT_EQ(Insert(kNobodyApp, TilesModel::Tiles::CONTENT_URI, values), -13);

    EXPECT_EQ(CountLines("tilvane", "write permission level = 0"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed by permission"), 1);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

TEST_F(RequestHandlersTest, BulkOfZeroRowsFailsAndWritesNothing)
{
    int64_t rowId = 0;
    EXPECT_EQ(BulkInsert(kNewsApp, TilesModel::Tiles::CONTENT_URI, {}, &rowId), kFailed);
    EXPECT_EQ(rowId, -1);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

TEST_F(RequestHandlersTest, BulkWhoseThirdRowFailsLeavesNoRowAndReturnsThatRowsCode)
{
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b1"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b2"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}}),
        // No section 999: the foreign key refuses the row.
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b3"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "999"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b4"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}}),
    };
    int64_t rowId = 0;

    int result = BulkInsert(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows, &rowId);

    EXPECT_EQ(result, 19);  // SQLite's constraint failure
    EXPECT_EQ(rowId, -1);
    EXPECT_EQ(CountLines("tilvane", "failed to InsertRequest for bulk"), 1);
    EXPECT_TRUE(Column("SELECT tile_id FROM tiles WHERE tile_id LIKE 'b%'").empty());
}

TEST_F(RequestHandlersTest, BulkInsertCommitsEveryRowReportsTheLastIdAndSendsOneEvent)
{
    SubscribeListener();
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b1"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_ID, "b2"}, {TilesModel::Tiles::TILE_SECTION_RAW_ID, "11"}}),
    };
    int64_t rowId = 0;

    EXPECT_EQ(BulkInsert(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows, &rowId), 0);

    EXPECT_EQ(Column("SELECT _id FROM tiles WHERE tile_id = 'b2'"), (std::vector<std::string>{std::to_string(rowId)}));
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles WHERE tile_id LIKE 'b%'")[0], "2");
    std::vector<Entries> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, kNewsPackage},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "11"},
                                  {"sync", "end"}}));
    EXPECT_EQ(CountLines("tilvane", "success to send sync event"), 1);
}

TEST_F(RequestHandlersTest, EndMarkSendsOneEventWritesNothingAndReportsNotInserted)
{
    SubscribeListener();
    bundle* mark = m_bundles.Add({{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"}});

    EXPECT_EQ(Insert(kNewsApp, TilesModel::Tiles::CONTENT_URI, mark), kFailed);

    std::vector<Entries> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, kNewsPackage},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "10"},
                                  {TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END},
                                  {"sync", "end"}}));
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

TEST_F(RequestHandlersTest, StartMarkSendsNothingAndWritesNothing)
{
    SubscribeListener();
    bundle* mark = m_bundles.Add({{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_START}});

    EXPECT_EQ(Insert(kNewsApp, TilesModel::Tiles::CONTENT_URI, mark), kFailed);

    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

/* ---- select ------------------------------------------------------------------------ */

TEST_F(RequestHandlersTest, EachApplicationReadsOnlyItsOwnTiles)
{
    std::vector<std::string> news;
    std::vector<std::string> sports;
    ASSERT_TRUE(Select(kNewsApp, TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", news));
    ASSERT_TRUE(Select(kSportsApp, TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", sports));

    EXPECT_EQ(news, (std::vector<std::string>{"n1", "n2", "n3"}));
    EXPECT_EQ(sports, (std::vector<std::string>{"s1"}));
    EXPECT_EQ(CountLines("tilvane", "success SELECT"), 2);
}

TEST_F(RequestHandlersTest, SelectOnAcceleratorsIsAllowedAndConfined)
{
    std::vector<std::string> ids;
    ASSERT_TRUE(Select(kSportsApp, TilesModel::Accelerators::CONTENT_URI, {TilesModel::Accelerators::_ID}, "", ids));
    EXPECT_EQ(ids, (std::vector<std::string>{"102"}));
    EXPECT_EQ(CountLines("tilvane", "generated query = accelerator_app_pkg_name='org.example.sports'"), 1);
}

TEST_F(RequestHandlersTest, WhereTextWithASemicolonIsCutBeforeTheFilterIsJoined)
{
    std::vector<std::string> ids;
    ASSERT_TRUE(Select(kNewsApp, TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID},
                       "tile_id = 'n2'; DELETE FROM tiles", ids));

    EXPECT_EQ(ids, (std::vector<std::string>{"n2"}));
    EXPECT_EQ(CountLines("tilvane", "found Semicolon in where : [tile_id = 'n2'; DELETE FROM tiles] -> [tile_id = 'n2']"),
              1);
    EXPECT_EQ(CountLines("tilvane", "generated query = tile_section_raw_id IN (10,11) AND tile_id = 'n2'"), 1);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "4");
}

/* The library reads an empty projection as every column. */
TEST_F(RequestHandlersTest, OnlyForbiddenColumnsGiveAnEmptyProjectionPassedOn)
{
    std::vector<std::string> values;
    int columns = 0;
    ASSERT_TRUE(Select(kNewsApp, TilesModel::Accelerators::CONTENT_URI,
                       {TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME}, "", values, &columns));

    EXPECT_EQ(columns, 9);
    EXPECT_EQ(values, (std::vector<std::string>{"101"}));
}

TEST_F(RequestHandlersTest, ReaderWithoutPrivilegesIsRefused)
{
    std::vector<std::string> ids;
    EXPECT_FALSE(Select(kNobodyApp, TilesModel::Tiles::CONTENT_URI, {}, "", ids));
    EXPECT_EQ(CountLines("tilvane", "read permission level = 0"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed SELECT"), 1);
    EXPECT_EQ(CSharedQueryObject::GetStoredCount(), 0u);
}

TEST_F(RequestHandlersTest, InternalReaderReadsEveryRow)
{
    std::vector<std::string> ids;
    ASSERT_TRUE(Select("ContentServiceManager", TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", ids));
    EXPECT_EQ(ids, (std::vector<std::string>{"n1", "n2", "n3", "s1"}));
}

/* ---- update --------------------------------------------------------------------- */

TEST_F(RequestHandlersTest, UpdateWithAnEmptyWhereChangesAllOfTheCallersRowsAndSendsNoEvent)
{
    SubscribeListener();
    bundle* values = m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "changed"}});

    EXPECT_EQ(Update(kNewsApp, TilesModel::Tiles::CONTENT_URI, values, ""), 0);

    EXPECT_EQ(Column("SELECT tile_id FROM tiles WHERE tile_title = 'changed' ORDER BY _id"),
              (std::vector<std::string>{"n1", "n2", "n3"}));
    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(CountLines("tilvane", "UPDATE result = 0"), 1);
}

TEST_F(RequestHandlersTest, UpdateOnAcceleratorsIsRefused)
{
    bundle* values = m_bundles.Add({{TilesModel::Accelerators::ACCELERATOR_TITLE, "x"}});
    EXPECT_EQ(Update("DownloadManager", TilesModel::Accelerators::CONTENT_URI, values, ""), -22);
}

TEST_F(RequestHandlersTest, BulkUpdateNamesRowsByIdEvenOtherApplicationsRows)
{
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "own"}, {"bulk_update_row_id_key", "100"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "foreign"}, {"bulk_update_row_id_key", "200"}}),
    };

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), 0);

    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id IN (100, 200) ORDER BY _id"),
              (std::vector<std::string>{"own", "foreign"}));
    EXPECT_EQ(bundle_get_val(rows[0], "bulk_update_row_id_key"), nullptr);
}

TEST_F(RequestHandlersTest, BulkUpdateSendsNoSynchronisationEvent)
{
    SubscribeListener();
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "first"}, {"bulk_update_row_id_key", "100"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "second"}, {"bulk_update_row_id_key", "101"}}),
    };

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), 0);

    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id IN (100, 101) ORDER BY _id"),
              (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(Events().empty());
    EXPECT_EQ(CountLines("tilvane", "Try to Send sync event"), 0);

    // The listener does hear a change that sends one.
    EXPECT_EQ(Delete(kNewsApp, TilesModel::Tiles::CONTENT_URI, "tile_id = 'n1'"), 0);
    EXPECT_EQ(Events().size(), 1u);
}

TEST_F(RequestHandlersTest, BulkUpdateWhoseSecondKeyRemovalFailsCommitsTheFirstRowAndSucceeds)
{
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "first"}, {"bulk_update_row_id_key", "100"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "second"}, {"bulk_update_row_id_key", "101"}}),
    };
    tilvane::host::FailCallsAfter("bundle_del", 1, 1);

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), 0);

    EXPECT_EQ(CountLines("tilvane", "failed to delete row ID bundle for bulk"), 1);
    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id = 100"), (std::vector<std::string>{"first"}));
    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id = 101"), (std::vector<std::string>{"NULL"}));
}

TEST_F(RequestHandlersTest, BulkUpdateWhoseFirstKeyRemovalFailsRollsBackAndFails)
{
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "first"}, {"bulk_update_row_id_key", "100"}}),
    };
    tilvane::host::FailNextCalls("bundle_del", 1);

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), kFailed);

    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id = 100"), (std::vector<std::string>{"NULL"}));
}

TEST_F(RequestHandlersTest, BulkUpdateBundleWithoutTheRowIdKeyUpdatesNothingAndSucceeds)
{
    std::vector<bundle*> rows = {m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "nowhere"}})};

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), 0);

    EXPECT_TRUE(Column("SELECT _id FROM tiles WHERE tile_title = 'nowhere'").empty());
}

TEST_F(RequestHandlersTest, BulkUpdateRowThatFailsRollsBackTheBulk)
{
    std::vector<bundle*> rows = {
        m_bundles.Add({{TilesModel::Tiles::TILE_TITLE, "first"}, {"bulk_update_row_id_key", "100"}}),
        m_bundles.Add({{TilesModel::Tiles::TILE_SECTION_RAW_ID, "999"}, {"bulk_update_row_id_key", "101"}}),
    };

    EXPECT_EQ(BulkUpdate(kNewsApp, TilesModel::Tiles::CONTENT_URI, rows), 19);

    EXPECT_EQ(CountLines("tilvane", "failed to UpdateRequest for bulk"), 1);
    EXPECT_EQ(Column("SELECT tile_title FROM tiles WHERE _id = 100"), (std::vector<std::string>{"NULL"}));
}

/* ---- delete ------------------------------------------------------------------------- */

TEST_F(RequestHandlersTest, DeleteWithAnEmptyWhereRemovesOnlyTheCallersRowsAndSendsOneEvent)
{
    SubscribeListener();

    EXPECT_EQ(Delete(kNewsApp, TilesModel::Tiles::CONTENT_URI, ""), 0);

    EXPECT_EQ(Column("SELECT tile_id FROM tiles"), (std::vector<std::string>{"s1"}));
    EXPECT_EQ(CountLines("tilvane", "generated query = tile_section_raw_id IN (10,11)"), 1);
    std::vector<Entries> events = Events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, kNewsPackage},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "delete"},
                                  {"OPERATION", "DELETE"},
                                  {"sync", "end"}}));
}

TEST_F(RequestHandlersTest, InternalDeleteWithAnEmptyWhereRemovesEveryRow)
{
    EXPECT_EQ(Delete("DownloadManager", TilesModel::Tiles::CONTENT_URI, ""), 0);

    EXPECT_EQ(CountLines("tilvane", "generated query = 1 = 1"), 1);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "0");
}

TEST_F(RequestHandlersTest, DeleteOnAcceleratorsIsRefused)
{
    std::string before = Column("SELECT COUNT(*) FROM accelerators")[0];
    EXPECT_EQ(Delete("DownloadManager", TilesModel::Accelerators::CONTENT_URI, ""), -22);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM accelerators")[0], before);
}

TEST_F(RequestHandlersTest, DeletingASectionTakesItsTilesAlong)
{
    EXPECT_EQ(Delete(kNewsApp, TilesModel::Sections::CONTENT_URI, "section_id = 'news-a'"), 0);
    EXPECT_EQ(Column("SELECT tile_id FROM tiles ORDER BY _id"), (std::vector<std::string>{"n3", "s1"}));
}

/* ---- row ids ------------------------------------------------------------------------ */

TEST_F(RequestHandlersTest, RowIdsIgnoreTheProjectionAndAreConfined)
{
    std::vector<int64_t> ids;
    ASSERT_TRUE(RowIds(kNewsApp, TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_TITLE, "tile_id"}, "", ids));
    EXPECT_EQ(ids, (std::vector<int64_t>{100, 101, 102}));
    EXPECT_EQ(CountLines("tilvane", "[2]row ID is 102"), 1);
    EXPECT_EQ(CountLines("tilvane", "Get Row ID result = 1"), 1);
}

TEST_F(RequestHandlersTest, RowIdsOfAWhereMatchingNothingAreEmpty)
{
    std::vector<int64_t> ids = {7};
    EXPECT_TRUE(RowIds(kNewsApp, TilesModel::Sections::CONTENT_URI, {}, "section_id = 'none'", ids));
    EXPECT_TRUE(ids.empty());
}

TEST_F(RequestHandlersTest, RowIdsAreRefusedBelowLevelOne)
{
    std::vector<int64_t> ids;
    EXPECT_FALSE(RowIds(kNobodyApp, TilesModel::Tiles::CONTENT_URI, {}, "", ids));
    EXPECT_TRUE(ids.empty());
}

}  // namespace
