/*
 * Data control over the bus: a provider's callbacks run on the main context
 * with a request id and the caller's application id from the bus, and each
 * answer they send reaches the client; a callback that answers nothing gives
 * the client an immediate "no result". Providers run in this process (the
 * client then runs the main context while it waits) or in a forked child.
 */
#include <bundle_ptr.h>
#include <data_control.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <sqlite3.h>
#include <tilvane_client.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "RawBus.h"
#include "TestSupport.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

constexpr char kProviderId[] = "content://org.example.previews";

std::string Take(char* text)
{
    std::string copy = text != nullptr ? text : "(null)";
    std::free(text);
    return copy;
}

/* What the provider's callbacks saw, and what they do. */
struct Seen {
    int requestId = 0;
    std::string kind;
    std::string clientApp;
    int clientAppResult = -1;
    std::string providerId;
    std::string dataId;
    std::vector<std::pair<std::string, std::string>> values;
    std::vector<std::string> columns;
    std::string where = "(null)";
    std::string order = "(null)";
    std::thread::id thread;
    void* userData = nullptr;
};

std::vector<Seen> g_seen;
std::function<void(int requestId)> g_answer;
int g_sendResult = 0;

Seen Common(int requestId, data_control_h provider, const char* kind, void* userData)
{
    Seen seen;
    seen.requestId = requestId;
    seen.kind = kind;
    char* app = nullptr;
    seen.clientAppResult = data_control_provider_get_client_appid(requestId, &app);
    seen.clientApp = Take(app);
    char* providerId = nullptr;
    char* dataId = nullptr;
    data_control_sql_get_provider_id(provider, &providerId);
    data_control_sql_get_data_id(provider, &dataId);
    seen.providerId = Take(providerId);
    seen.dataId = Take(dataId);
    seen.thread = std::this_thread::get_id();
    seen.userData = userData;
    return seen;
}

void InsertCB(int requestId, data_control_h provider, bundle* data, void* userData)
{
    Seen seen = Common(requestId, provider, "insert", userData);
    seen.values = BundleEntries(data);
    g_seen.push_back(seen);
    if (g_answer) {
        g_answer(requestId);
    }
}

void SelectCB(int requestId, data_control_h provider, const char** columns, int count, const char* where,
              const char* order, void* userData)
{
    Seen seen = Common(requestId, provider, "select", userData);
    for (int i = 0; i < count; ++i) {
        seen.columns.emplace_back(columns[i]);
    }
    seen.where = where != nullptr ? where : "(null)";
    seen.order = order != nullptr ? order : "(null)";
    g_seen.push_back(seen);
    if (g_answer) {
        g_answer(requestId);
    }
}

void UpdateCB(int requestId, data_control_h provider, bundle* data, const char* where, void* userData)
{
    Seen seen = Common(requestId, provider, "update", userData);
    seen.values = BundleEntries(data);
    seen.where = where != nullptr ? where : "(null)";
    g_seen.push_back(seen);
    if (g_answer) {
        g_answer(requestId);
    }
}

void DeleteCB(int requestId, data_control_h provider, const char* where, void* userData)
{
    Seen seen = Common(requestId, provider, "delete", userData);
    seen.where = where != nullptr ? where : "(null)";
    g_seen.push_back(seen);
    if (g_answer) {
        g_answer(requestId);
    }
}

data_control_provider_sql_cb g_callbacks = {InsertCB, SelectCB, UpdateCB, DeleteCB};
int g_userData = 7;

/* Steps `sql` on an in-memory database and sends its rows as the answer. */
void AnswerWithRows(int requestId, const std::string& setup, const std::string& sql)
{
    sqlite3* db = nullptr;
    sqlite3_open(":memory:", &db);
    sqlite3_exec(db, setup.c_str(), nullptr, nullptr, nullptr);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    g_sendResult = data_control_provider_send_select_result(requestId, statement);
    sqlite3_finalize(statement);
    sqlite3_close(db);
}

long long MillisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

class DataControlTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        setenv("TILVANE_DATA_CONTROL_PROVIDER_ID", kProviderId, 1);
        tilvane::host::SetOwnAppId("org.example.provider");
        g_seen.clear();
        g_answer = nullptr;
        g_sendResult = -999;
    }
    void TearDown() override
    {
        data_control_provider_sql_unregister_cb();
        unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    }
    void Register() { ASSERT_EQ(data_control_provider_sql_register_cb(&g_callbacks, &g_userData), 0); }

    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
    DataControlClient m_client{kProviderId};
};

}  // namespace

TEST(DataControlStatement, CreateSelectStatementJoinsColumnsWhereAndOrder)
{
    PlatformSandbox sandbox;
    data_control_s* handle = nullptr;
    /* A handle exists only during a request; the statement needs only the data
     * id, so the text is checked through a request in the bus tests as well. */
    EXPECT_EQ(data_control_provider_create_select_statement(handle, nullptr, 0, nullptr, nullptr), nullptr);
}

TEST_F(DataControlTest, InsertReachesTheCallbackOnTheMainThreadAndTheRowIdReachesTheClient)
{
    Register();
    g_answer = [](int id) { g_sendResult = data_control_provider_send_insert_result(id, 4242); };
    Result result = m_client.Insert("tiles", {{"tile_title", "Evening news"}, {"tile_section_id", "3"}});
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.rowId, 4242);
    EXPECT_EQ(g_sendResult, DATA_CONTROL_ERROR_NONE);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].kind, "insert");
    EXPECT_GT(g_seen[0].requestId, 0);
    EXPECT_EQ(g_seen[0].clientAppResult, DATA_CONTROL_ERROR_NONE);
    EXPECT_EQ(g_seen[0].clientApp, "org.example.provider");
    EXPECT_EQ(g_seen[0].providerId, kProviderId);
    EXPECT_EQ(g_seen[0].dataId, "tiles");
    EXPECT_EQ(g_seen[0].thread, std::this_thread::get_id());
    EXPECT_EQ(g_seen[0].userData, &g_userData);
    EXPECT_EQ(g_seen[0].values,
              (std::vector<std::pair<std::string, std::string>>{{"tile_title", "Evening news"}, {"tile_section_id", "3"}}));
}

TEST_F(DataControlTest, EachRequestGetsItsOwnIdAndTheIdIsUnknownAfterwards)
{
    Register();
    g_answer = [](int id) { data_control_provider_send_delete_result(id); };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(m_client.Delete("sections", "").Ok());
    }
    ASSERT_EQ(g_seen.size(), 3u);
    EXPECT_LT(g_seen[0].requestId, g_seen[1].requestId);
    EXPECT_LT(g_seen[1].requestId, g_seen[2].requestId);
    char* app = nullptr;
    EXPECT_EQ(data_control_provider_get_client_appid(g_seen[2].requestId, &app), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(app, nullptr);
    EXPECT_EQ(data_control_provider_send_delete_result(g_seen[2].requestId), DATA_CONTROL_ERROR_INVALID_PARAMETER);
}

TEST_F(DataControlTest, UpdateAndDeleteCarryTheWhereTextAndAnswerOk)
{
    Register();
    g_answer = [](int id) {
        g_sendResult = g_seen.back().kind == "update" ? data_control_provider_send_update_result(id)
                                                      : data_control_provider_send_delete_result(id);
    };
    Result updated = m_client.Update("tiles", {{"tile_title", "Late news"}}, "_id = 5");
    EXPECT_EQ(updated.outcome, Outcome::Answered) << updated.message;
    EXPECT_TRUE(updated.Ok());
    Result deleted = m_client.Delete("tiles", "");
    EXPECT_TRUE(deleted.Ok()) << deleted.message;
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[0].where, "_id = 5");
    EXPECT_EQ(g_seen[0].values, (std::vector<std::pair<std::string, std::string>>{{"tile_title", "Late news"}}));
    EXPECT_EQ(g_seen[1].where, "(null)") << "an empty where reaches the callback as none";
}

TEST_F(DataControlTest, SendErrorReachesTheClientWithItsText)
{
    Register();
    g_answer = [](int id) { g_sendResult = data_control_provider_send_error(id, "failed SELECT by permission"); };
    Result result = m_client.Select("tiles", {}, "", "");
    EXPECT_EQ(g_sendResult, 0);
    EXPECT_EQ(result.outcome, Outcome::ProviderError);
    EXPECT_EQ(result.message, "failed SELECT by permission");
    EXPECT_EQ(tilvane::client::Describe(result), "the provider refused: failed SELECT by permission");
}

TEST_F(DataControlTest, ACallbackThatSendsNothingGivesNoResultAtOnce)
{
    Register();
    const auto start = std::chrono::steady_clock::now();
    Result result = m_client.Insert("tiles", {{"tile_title", "x"}});
    EXPECT_LT(MillisecondsSince(start), 500);
    EXPECT_EQ(result.outcome, Outcome::NoResult);
    EXPECT_EQ(tilvane::client::Describe(result), "no result from the provider");
    ASSERT_EQ(g_seen.size(), 1u);
}

TEST_F(DataControlTest, ASecondAnswerToOneRequestIsRefused)
{
    Register();
    g_answer = [](int id) {
        data_control_provider_send_insert_result(id, 1);
        g_sendResult = data_control_provider_send_error(id, "late");
    };
    Result result = m_client.Insert("tiles", {{"a", "b"}});
    EXPECT_EQ(g_sendResult, DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(result.outcome, Outcome::Answered);
    EXPECT_EQ(result.rowId, 1);
}

TEST_F(DataControlTest, SelectRowsKeepTheirTypesAndColumnNames)
{
    Register();
    g_answer = [](int id) {
        AnswerWithRows(id,
                       "CREATE TABLE t(a, b, c, d, e);"
                       "INSERT INTO t VALUES (NULL, -9000000000, 2.5, 'caf\xc3\xa9', x'00ff10');",
                       "SELECT a, b AS big, c, d, e FROM t");
    };
    Result result = m_client.Select("tiles", {"a", "b"}, "_id > 2", "_id DESC");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    EXPECT_EQ(g_sendResult, 0);
    EXPECT_EQ(result.rows.columns, (std::vector<std::string>{"a", "big", "c", "d", "e"}));
    ASSERT_EQ(result.rows.rows.size(), 1u);
    const std::vector<Cell>& row = result.rows.rows[0];
    ASSERT_EQ(row.size(), 5u);
    EXPECT_EQ(row[0].type, Cell::Type::Null);
    EXPECT_EQ(row[1].type, Cell::Type::Integer);
    EXPECT_EQ(row[1].integer, -9000000000LL);
    EXPECT_EQ(row[2].type, Cell::Type::Real);
    EXPECT_DOUBLE_EQ(row[2].real, 2.5);
    EXPECT_EQ(row[3].type, Cell::Type::Text);
    EXPECT_EQ(row[3].text, "caf\xc3\xa9");
    EXPECT_EQ(row[4].type, Cell::Type::Blob);
    EXPECT_EQ(row[4].blob, (std::vector<unsigned char>{0x00, 0xff, 0x10}));
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].columns, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(g_seen[0].where, "_id > 2");
    EXPECT_EQ(g_seen[0].order, "_id DESC");
}

TEST_F(DataControlTest, AThousandRowSelectArrivesWhole)
{
    Register();
    g_answer = [](int id) {
        AnswerWithRows(id,
                       "CREATE TABLE t(id INTEGER, title TEXT);"
                       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000)"
                       " INSERT INTO t SELECT i, 'tile ' || i FROM n;",
                       "SELECT id, title FROM t ORDER BY id");
    };
    Result result = m_client.Select("tiles", {}, "", "");
    ASSERT_EQ(result.outcome, Outcome::Answered) << result.message;
    ASSERT_EQ(result.rows.rows.size(), 1000u);
    EXPECT_EQ(result.rows.rows[0][0].integer, 1);
    EXPECT_EQ(result.rows.rows[999][0].integer, 1000);
    EXPECT_EQ(result.rows.rows[999][1].text, "tile 1000");
}

TEST_F(DataControlTest, TheSelectStatementIsBuiltFromTheDataId)
{
    Register();
    static std::vector<std::string> statements;
    statements.clear();
    g_answer = [](int) {};
    data_control_provider_sql_cb callbacks = g_callbacks;
    callbacks.select_cb = [](int id, data_control_h provider, const char** columns, int count, const char* where,
                             const char* order, void*) {
        char* text = data_control_provider_create_select_statement(provider, columns, count, where, order);
        statements.push_back(Take(text));
        text = data_control_provider_create_select_statement(provider, nullptr, 0, nullptr, nullptr);
        statements.push_back(Take(text));
        data_control_provider_send_error(id, "done");
    };
    ASSERT_EQ(data_control_provider_sql_register_cb(&callbacks, nullptr), 0);
    m_client.Select("sections", {"_id", "section_title"}, "_id = 1", "_id ASC");
    ASSERT_EQ(statements.size(), 2u);
    /* The table is an SQL identifier in quotes: a data id is never SQL text. */
    EXPECT_EQ(statements[0], "SELECT _id, section_title FROM \"sections\" WHERE _id = 1 ORDER BY _id ASC");
    EXPECT_EQ(statements[1], "SELECT * FROM \"sections\"");
}

TEST_F(DataControlTest, WithoutAProviderTheClientIsToldAtOnceThatNobodyServes)
{
    auto start = std::chrono::steady_clock::now();
    Result result = m_client.Insert("tiles", {{"a", "b"}});
    EXPECT_EQ(result.outcome, Outcome::NotServed) << result.message;
    Register();
    ASSERT_EQ(data_control_provider_sql_unregister_cb(), 0);
    result = m_client.Delete("tiles", "");
    EXPECT_EQ(result.outcome, Outcome::NotServed) << result.message;
    EXPECT_LT(MillisecondsSince(start), 1000);
    EXPECT_TRUE(g_seen.empty());
}

TEST_F(DataControlTest, InjectedFailuresMakeEachFunctionFail)
{
    tilvane::host::FailNextCalls("data_control_provider_sql_register_cb", 1);
    EXPECT_EQ(data_control_provider_sql_register_cb(&g_callbacks, nullptr), DATA_CONTROL_ERROR_IO_ERROR);
    Register();
    tilvane::host::FailNextCalls("data_control_provider_get_client_appid", 1);
    tilvane::host::FailNextCalls("data_control_sql_get_provider_id", 1);
    tilvane::host::FailNextCalls("data_control_sql_get_data_id", 1);
    tilvane::host::FailNextCalls("data_control_provider_send_insert_result", 1);
    g_answer = [](int id) { g_sendResult = data_control_provider_send_insert_result(id, 5); };
    Result result = m_client.Insert("tiles", {{"a", "b"}});
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].clientAppResult, DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(g_seen[0].providerId, "(null)");
    EXPECT_EQ(g_seen[0].dataId, "(null)");
    EXPECT_EQ(g_sendResult, DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(result.outcome, Outcome::NoResult);
    /* Once: the next request goes through. */
    result = m_client.Insert("tiles", {{"a", "b"}});
    EXPECT_EQ(result.rowId, 5);
    for (const char* name :
         {"data_control_provider_send_select_result", "data_control_provider_send_update_result",
          "data_control_provider_send_delete_result", "data_control_provider_send_error",
          "data_control_provider_sql_unregister_cb"}) {
        tilvane::host::FailNextCalls(name, 1);
    }
    EXPECT_EQ(data_control_provider_send_select_result(1, reinterpret_cast<void*>(1)), DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(data_control_provider_send_update_result(1), DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(data_control_provider_send_delete_result(1), DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(data_control_provider_send_error(1, "x"), DATA_CONTROL_ERROR_IO_ERROR);
    EXPECT_EQ(data_control_provider_sql_unregister_cb(), DATA_CONTROL_ERROR_IO_ERROR);
    tilvane::host::FailNextCalls("data_control_provider_create_select_statement", 1);
    data_control_s* none = nullptr;
    EXPECT_EQ(data_control_provider_create_select_statement(none, nullptr, 0, nullptr, nullptr), nullptr);
}

TEST_F(DataControlTest, BadArgumentsAreRefused)
{
    EXPECT_EQ(data_control_provider_sql_register_cb(nullptr, nullptr), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(data_control_provider_get_client_appid(1, nullptr), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    char* text = nullptr;
    EXPECT_EQ(data_control_sql_get_provider_id(nullptr, &text), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(data_control_sql_get_data_id(nullptr, &text), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(data_control_provider_send_select_result(1, nullptr), DATA_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(data_control_provider_send_insert_result(12345, 1), DATA_CONTROL_ERROR_INVALID_PARAMETER);
}

TEST_F(DataControlTest, TheCallerIdOfAnotherProcessComesFromTheBus)
{
    /* The provider runs in a child; this process is the client. */
    ChildProcess provider([](int readyFd) {
        tilvane::host::SetOwnAppId("org.example.provider");
        data_control_provider_sql_cb callbacks = g_callbacks;
        callbacks.insert_cb = [](int id, data_control_h, bundle*, void*) {
            char* app = nullptr;
            data_control_provider_get_client_appid(id, &app);
            data_control_provider_send_error(id, app != nullptr ? app : "(none)");
            std::free(app);
        };
        if (data_control_provider_sql_register_cb(&callbacks, nullptr) != 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        IterateMainContextUntil([] { return false; }, 10000);
        return 0;
    });
    ASSERT_TRUE(provider.Started());
    ASSERT_TRUE(provider.Go());
    ASSERT_TRUE(provider.WaitReady());
    tilvane::host::SetOwnAppId("org.example.viewer");
    Result result = m_client.Insert("tiles", {{"a", "b"}});
    EXPECT_EQ(result.outcome, Outcome::ProviderError);
    EXPECT_EQ(result.message, "org.example.viewer");

    /* A hand-made client that claims an application it is not is refused. */
    GError* error = nullptr;
    GDBusConnection* forger = tilvane::test::OpenRawConnection(m_bus.Address().c_str(), &error);
    ASSERT_NE(forger, nullptr);
    GVariant* reply = g_dbus_connection_call_sync(
        forger, "org.tilvane.DataControl.Porg_2eexample_2epreviews", "/org/tilvane/DataControl",
        "org.tilvane.DataControl", "Delete", g_variant_new("(ssss)", "org.example.viewer", kProviderId, "tiles", ""),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    EXPECT_EQ(reply, nullptr);
    ASSERT_NE(error, nullptr);
    char* remote = g_dbus_error_get_remote_error(error);
    EXPECT_STREQ(remote, "org.tilvane.Request.Error.NotAuthorized");
    g_free(remote);
    g_error_free(error);
    g_object_unref(forger);
}
