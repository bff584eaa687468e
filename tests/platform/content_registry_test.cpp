#include <gtest/gtest.h>

#include <string>

#include <content_provider_dispatch.h>
#include <host_control.h>

#include "ContentProviderParam.h"

using namespace tilvane::content;

namespace {

const char* const kTiles = "content://tv.preview/tiles";
const char* const kApps = "content://tv.preview/apps";

struct Calls
{
    int count = 0;
    void* userData = nullptr;
    std::string uri;
};
Calls g_calls;

int InsertCallback(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    g_calls.uri = in.strUri;
    out.nRowId = 77;
    return 5;
}

int BulkInsertCallback(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    out.nRowId = static_cast<int64_t>(in.vecValues.size());
    return 6;
}

int DeleteCallback(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    return static_cast<int>(in.vecWhereArgs.size());
}

bool SelectCallback(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    out.nRequestId = 12;
    return in.strLimit == "1";
}

int UpdateCallback(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM&)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    return 8;
}

int BulkUpdateCallback(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM&)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    return 9;
}

bool GetIdCallback(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    ++g_calls.count;
    g_calls.userData = in.pUserData;
    out.vecRowIds = {3, 1, 2};
    return true;
}

int SelfRemovingInsert(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM&)
{
    ++g_calls.count;
    // The registry is not locked while a callback runs.
    return unregister_insert_db_callback(in.strUri) ? 1 : 0;
}

class ContentRegistryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        ClearRegistrations();
        g_calls = Calls();
    }
    void TearDown() override
    {
        ClearRegistrations();
        tilvane::host::Reset();
    }
};

TEST_F(ContentRegistryTest, SecondRegistrationOfAPairIsRefused)
{
    int first = 1;
    int second = 2;
    ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCallback, &first));
    EXPECT_FALSE(register_insert_db_callback(kTiles, InsertCallback, &second));
    // Another URI or another kind is a different pair.
    EXPECT_TRUE(register_insert_db_callback(kApps, InsertCallback, &second));
    EXPECT_TRUE(register_delete_db_callback(kTiles, DeleteCallback, &second));
    EXPECT_EQ(3u, RegisteredCount());

    // The first registration's user data is the one that stays.
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strUri = kTiles;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = 0;
    ASSERT_TRUE(DispatchInsert(in, out, result));
    EXPECT_EQ(&first, g_calls.userData);
}

TEST_F(ContentRegistryTest, UnregisterOfAnAbsentPairIsFalse)
{
    EXPECT_FALSE(unregister_insert_db_callback(kTiles));
    ASSERT_TRUE(register_select_db_callback(kTiles, SelectCallback, nullptr));
    EXPECT_FALSE(unregister_insert_db_callback(kTiles));
    EXPECT_FALSE(unregister_select_db_callback(kApps));
    EXPECT_TRUE(unregister_select_db_callback(kTiles));
    EXPECT_FALSE(unregister_select_db_callback(kTiles));
    EXPECT_EQ(0u, RegisteredCount());
}

TEST_F(ContentRegistryTest, EveryKindDispatchesWithItsUserDataAndResult)
{
    int data[7] = {};
    ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCallback, &data[0]));
    ASSERT_TRUE(register_insert_db_callback_for_bulkdata(kTiles, BulkInsertCallback, &data[1]));
    ASSERT_TRUE(register_delete_db_callback(kTiles, DeleteCallback, &data[2]));
    ASSERT_TRUE(register_select_db_callback(kTiles, SelectCallback, &data[3]));
    ASSERT_TRUE(register_update_db_callback(kTiles, UpdateCallback, &data[4]));
    ASSERT_TRUE(register_update_db_callback_for_bulkdata(kTiles, BulkUpdateCallback, &data[5]));
    ASSERT_TRUE(register_get_id_db_callback(kTiles, GetIdCallback, &data[6]));
    EXPECT_EQ(7u, RegisteredCount());
    for (RequestKind kind : {RequestKind::Insert, RequestKind::BulkInsert, RequestKind::Delete, RequestKind::Select,
                             RequestKind::Update, RequestKind::BulkUpdate, RequestKind::GetId}) {
        EXPECT_TRUE(IsRegistered(kind, kTiles)) << RequestKindName(kind);
        EXPECT_FALSE(IsRegistered(kind, kApps)) << RequestKindName(kind);
    }

    int result = 0;
    bool answer = false;
    {
        PT_PROVIDER_INSERT_IN_PARAM in;
        in.strUri = kTiles;
        PT_PROVIDER_INSERT_OUT_PARAM out;
        ASSERT_TRUE(DispatchInsert(in, out, result));
        EXPECT_EQ(5, result);
        EXPECT_EQ(77, out.nRowId);
        EXPECT_EQ(&data[0], in.pUserData);
        EXPECT_EQ(&data[0], g_calls.userData);
        EXPECT_EQ(kTiles, g_calls.uri);
    }
    {
        PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM in;
        in.strUri = kTiles;
        in.vecValues.resize(4, nullptr);
        PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
        ASSERT_TRUE(DispatchBulkInsert(in, out, result));
        EXPECT_EQ(6, result);
        EXPECT_EQ(4, out.nRowId);
        EXPECT_EQ(&data[1], g_calls.userData);
    }
    {
        PT_PROVIDER_DELETE_IN_PARAM in;
        in.strUri = kTiles;
        in.vecWhereArgs = {"a", "b", "c"};
        ASSERT_TRUE(DispatchDelete(in, result));
        EXPECT_EQ(3, result);
        EXPECT_EQ(&data[2], g_calls.userData);
    }
    {
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strUri = kTiles;
        in.strLimit = "1";
        PT_PROVIDER_SELECT_OUT_PARAM out;
        ASSERT_TRUE(DispatchSelect(in, out, answer));
        EXPECT_TRUE(answer);
        EXPECT_EQ(12, out.nRequestId);
        EXPECT_EQ(&data[3], g_calls.userData);
        in.strLimit = "2";
        ASSERT_TRUE(DispatchSelect(in, out, answer));
        EXPECT_FALSE(answer);
    }
    {
        PT_PROVIDER_UPDATE_IN_PARAM in;
        in.strUri = kTiles;
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        ASSERT_TRUE(DispatchUpdate(in, out, result));
        EXPECT_EQ(8, result);
        EXPECT_EQ(&data[4], g_calls.userData);
    }
    {
        PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM in;
        in.strUri = kTiles;
        PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
        ASSERT_TRUE(DispatchBulkUpdate(in, out, result));
        EXPECT_EQ(9, result);
        EXPECT_EQ(&data[5], g_calls.userData);
    }
    {
        PT_PROVIDER_GET_ID_IN_PARAM in;
        in.strUri = kTiles;
        PT_PROVIDER_GET_ID_OUT_PARAM out;
        ASSERT_TRUE(DispatchGetId(in, out, answer));
        EXPECT_TRUE(answer);
        EXPECT_EQ((std::vector<int64_t>{3, 1, 2}), out.vecRowIds);
        EXPECT_EQ(&data[6], g_calls.userData);
    }
    EXPECT_EQ(8, g_calls.count);

    EXPECT_TRUE(unregister_insert_db_callback(kTiles));
    EXPECT_TRUE(unregister_insert_db_callback_for_bulkdata(kTiles));
    EXPECT_TRUE(unregister_delete_db_callback(kTiles));
    EXPECT_TRUE(unregister_select_db_callback(kTiles));
    EXPECT_TRUE(unregister_update_db_callback(kTiles));
    EXPECT_TRUE(unregister_update_db_callback_for_bulkdata(kTiles));
    EXPECT_TRUE(unregister_get_id_db_callback(kTiles));
    EXPECT_EQ(0u, RegisteredCount());
}

TEST_F(ContentRegistryTest, DispatchWithoutRegistrationCallsNothing)
{
    ASSERT_TRUE(register_insert_db_callback(kApps, InsertCallback, nullptr));
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strUri = kTiles;
    int marker = 0;
    in.pUserData = &marker;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = -42;
    EXPECT_FALSE(DispatchInsert(in, out, result));
    EXPECT_EQ(-42, result);
    EXPECT_EQ(-1, out.nRowId);
    EXPECT_EQ(&marker, in.pUserData);

    PT_PROVIDER_DELETE_IN_PARAM del;
    del.strUri = kApps;  // registered for insert, not for delete
    EXPECT_FALSE(DispatchDelete(del, result));
    EXPECT_EQ(-42, result);
    EXPECT_EQ(0, g_calls.count);

    ASSERT_TRUE(unregister_insert_db_callback(kApps));
    in.strUri = kApps;
    EXPECT_FALSE(DispatchInsert(in, out, result));
    EXPECT_EQ(0, g_calls.count);
}

TEST_F(ContentRegistryTest, InjectedFailureMakesRegisterAndUnregisterFail)
{
    tilvane::host::FailNextCalls("register_insert_db_callback", 1);
    EXPECT_FALSE(register_insert_db_callback(kTiles, InsertCallback, nullptr));
    EXPECT_FALSE(IsRegistered(RequestKind::Insert, kTiles));
    EXPECT_TRUE(register_insert_db_callback(kTiles, InsertCallback, nullptr));
    EXPECT_EQ(2, tilvane::host::CallCount("register_insert_db_callback"));

    tilvane::host::FailNextCalls("unregister_insert_db_callback", 1);
    EXPECT_FALSE(unregister_insert_db_callback(kTiles));
    EXPECT_TRUE(IsRegistered(RequestKind::Insert, kTiles));
    EXPECT_TRUE(unregister_insert_db_callback(kTiles));

    // Each function answers to its own name.
    tilvane::host::FailNextCalls("register_get_id_db_callback", -1);
    EXPECT_FALSE(register_get_id_db_callback(kTiles, GetIdCallback, nullptr));
    EXPECT_FALSE(register_get_id_db_callback(kTiles, GetIdCallback, nullptr));
    EXPECT_TRUE(register_select_db_callback(kTiles, SelectCallback, nullptr));
    tilvane::host::ClearFailures();
    EXPECT_TRUE(register_get_id_db_callback(kTiles, GetIdCallback, nullptr));
}

TEST_F(ContentRegistryTest, NullCallbackOrEmptyUriIsRefused)
{
    EXPECT_FALSE(register_insert_db_callback(kTiles, nullptr, nullptr));
    EXPECT_FALSE(register_insert_db_callback("", InsertCallback, nullptr));
    EXPECT_EQ(0u, RegisteredCount());
}

TEST_F(ContentRegistryTest, CallbackMayUnregisterItself)
{
    ASSERT_TRUE(register_insert_db_callback(kTiles, SelfRemovingInsert, nullptr));
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strUri = kTiles;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = 0;
    ASSERT_TRUE(DispatchInsert(in, out, result));
    EXPECT_EQ(1, result);
    EXPECT_FALSE(IsRegistered(RequestKind::Insert, kTiles));
}

TEST_F(ContentRegistryTest, ClearRemovesEveryRegistration)
{
    ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCallback, nullptr));
    ASSERT_TRUE(register_update_db_callback(kApps, UpdateCallback, nullptr));
    ClearRegistrations();
    EXPECT_EQ(0u, RegisteredCount());
    EXPECT_TRUE(register_insert_db_callback(kTiles, InsertCallback, nullptr));
}

TEST_F(ContentRegistryTest, KindNames)
{
    EXPECT_STREQ("insert", RequestKindName(RequestKind::Insert));
    EXPECT_STREQ("insert bulk", RequestKindName(RequestKind::BulkInsert));
    EXPECT_STREQ("delete", RequestKindName(RequestKind::Delete));
    EXPECT_STREQ("select", RequestKindName(RequestKind::Select));
    EXPECT_STREQ("update", RequestKindName(RequestKind::Update));
    EXPECT_STREQ("update bulk", RequestKindName(RequestKind::BulkUpdate));
    EXPECT_STREQ("get id", RequestKindName(RequestKind::GetId));
}

}  // namespace
