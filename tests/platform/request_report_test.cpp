/*
 * Reasons and counts on the content request interface: what the content
 * library records while a callback runs (SQLite's message, the rows changed)
 * and what the platform says about a result code, as a client receives them;
 * and how the client library words a result with its reason.
 */
#include <gtest/gtest.h>
#include <host_control.h>
#include <tilvane_client.h>

#include <memory>
#include <string>
#include <vector>

#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "SharedQueryObject.h"
#include "TestSupport.h"
#include "bundle.h"
#include "content_provider_dispatch.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

constexpr char kTiles[] = "content://org.example.report/tiles";

std::unique_ptr<CContentDbConnection> g_db;
int g_forcedCode = 0;

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    if (g_forcedCode != 0) {
        return g_forcedCode;
    }
    const int result = g_db->InsertRequest("tiles", in.pValues);
    out.nRowId = result == 0 ? g_db->GetLastInsertRowID() : -1;
    return result;
}

int UpdateCB(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM&)
{
    return g_db->UpdateRequest("tiles", in.pValues, in.strWhere, in.vecWhereArgs);
}

int DeleteCB(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    return g_db->DeleteRequest("tiles", in.strWhere, in.vecWhereArgs);
}

bool SelectCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    std::shared_ptr<ISQLiteCursor> cursor =
        g_db->SelectRequest("tiles", in.vecProjection, in.strWhere, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (!cursor) {
        return false;
    }
    std::string shared;
    int columns = 0;
    CSharedQueryObject::StoreCursor(cursor, "tiles", shared, columns);
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

class RequestReportTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        tilvane::host::SetOwnAppId("org.example.report.app");
        g_forcedCode = 0;
        g_db.reset(new CContentDbConnection(m_sandbox.Root(), "report.db"));
        ASSERT_TRUE(g_db->OpenOperation());
        std::string error;
        ASSERT_EQ(0, g_db->ExcuteSQL("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, title TEXT, kind TEXT);"
                                     "INSERT INTO tiles (title, kind) VALUES ('a', 'x'), ('b', 'x'), ('c', 'y');",
                                     error))
            << error;
        ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCB, nullptr));
        ASSERT_TRUE(register_update_db_callback(kTiles, UpdateCB, nullptr));
        ASSERT_TRUE(register_delete_db_callback(kTiles, DeleteCB, nullptr));
        ASSERT_TRUE(register_select_db_callback(kTiles, SelectCB, nullptr));
    }

    void TearDown() override
    {
        tilvane::content::ClearRegistrations();
        CSharedQueryObject::Clear();
        g_db.reset();
    }

    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
    ContentClient m_client;
};

}  // namespace

TEST_F(RequestReportTest, AFailedStatementCarriesSQLitesMessageAndItsCode)
{
    Result result = m_client.Insert(kTiles, {{"title", "t"}, {"nosuch", "1"}});
    ASSERT_EQ(result.outcome, Outcome::Answered);
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.message, "table tiles has no column named nosuch");
    EXPECT_EQ(Explain(result), "failed (1): table tiles has no column named nosuch");

    Result ok = m_client.Insert(kTiles, {{"title", "t"}});
    EXPECT_TRUE(ok.Ok());
    EXPECT_EQ(ok.message, "");
}

TEST_F(RequestReportTest, UpdateAndDeleteReportTheRowsTheyChanged)
{
    Result updated = m_client.Update(kTiles, {{"title", "z"}}, "kind = ?", {"x"});
    ASSERT_TRUE(updated.Ok()) << Explain(updated);
    EXPECT_EQ(updated.changedRows, 2);
    Result none = m_client.Update(kTiles, {{"title", "z"}}, "kind = ?", {"nothing"});
    EXPECT_EQ(none.changedRows, 0);
    Result deleted = m_client.Delete(kTiles, "", {});
    ASSERT_TRUE(deleted.Ok());
    EXPECT_EQ(deleted.changedRows, 3);
}

TEST_F(RequestReportTest, ASelectThatFailsSaysWhy)
{
    Result result = m_client.Select(kTiles, {"_id", "nosuch"}, "", {}, "", "");
    EXPECT_EQ(result.outcome, Outcome::NoResult);
    EXPECT_EQ(result.message, "no such column: nosuch");
    EXPECT_EQ(Explain(result), "failed: no such column: nosuch");
}

TEST_F(RequestReportTest, CodesGainTheirMeaningAndASyncMarkSaysItWasSent)
{
    g_forcedCode = -13;
    Result refused = m_client.Insert(kTiles, {{"title", "t"}});
    EXPECT_EQ(refused.code, -13);
    EXPECT_EQ(Explain(refused), "permission denied (-13): permission level too low");
    g_forcedCode = -22;
    EXPECT_EQ(m_client.Insert(kTiles, {{"title", "t"}}).message, "this table cannot be changed through this request");
    g_forcedCode = static_cast<int>(0xC0000000);
    Result mark = m_client.Insert(kTiles, {{"tiles_sync_event", "sync_end"}});
    EXPECT_EQ(mark.code, static_cast<int>(0xC0000000));
    EXPECT_EQ(mark.message, "sync end mark sent");
}

TEST(ClientExplain, RefusalsReadTheSameFromEitherInterface)
{
    Result noResult;
    noResult.outcome = Outcome::NoResult;
    noResult.message = "permission level too low";
    Result providerError;
    providerError.outcome = Outcome::ProviderError;
    providerError.message = "failed SELECT by permission";
    EXPECT_EQ(Explain(noResult), "refused: permission level too low");
    EXPECT_EQ(Explain(providerError), Explain(noResult));
    providerError.message = "something else";
    EXPECT_EQ(Explain(providerError), "the provider refused: something else");
    Result bare;
    bare.outcome = Outcome::NoResult;
    EXPECT_EQ(Explain(bare), "no result from the provider");
}
