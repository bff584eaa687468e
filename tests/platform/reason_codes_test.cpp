/*
 * Reasons as values: what the content library and the system's own log
 * lines record while a request runs becomes a reason code on the reply (after
 * the error's name, or the write's result itself), the one table of the
 * system's texts gives each of them its code, and the client decides refused
 * or failed from the code, never from the words.
 */
#include <data_control.h>
#include <dlog.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <tilvane_client.h>
#include <tilvane_reason.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "RawBus.h"
#include "TestSupport.h"
#include "base/request_report.h"
#include "content_provider_dispatch.h"
#include "log/system_reasons.h"
#include "requests/request_names.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

constexpr char kTiles[] = "content://org.example.reasons/tiles";
constexpr char kProviderId[] = "content://org.example.reasons";

std::unique_ptr<CContentDbConnection> g_db;
/* The system's line the select callback logs before it refuses, "" for none. */
std::string g_selectLine;

/* Logs as the system does: tag "tilvane", "<file>: <function>(<line>) > text". */
void LogAsTheSystem(const std::string& text)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane", "%s: %s(%d) > %s", "Provider.cpp", "Select", 1, text.c_str());
}

bool SelectCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM&)
{
    if (!g_selectLine.empty()) {
        LogAsTheSystem(g_selectLine);
        return false;
    }
    /* A statement that fails: SQLite's message and code are recorded. */
    return g_db->SelectRequest("tiles", in.vecProjection, in.strWhere, in.vecWhereArgs, in.strOrderBy,
                               in.strLimit) != nullptr;
}

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM&, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    out.nRowId = -1;
    return TILVANE_RESULT_PERMISSION_DENIED;
}

/* The D-Bus error name a raw Select of the content interface gets, made from
 * a thread of its own while this one runs the provider's main context. */
std::string RawSelectErrorName(const std::string& busAddress, const std::string& appId);

std::string RawSelectErrorNameOnThisThread(const std::string& busAddress, const std::string& appId)
{
    GDBusConnection* connection = tilvane::test::OpenRawConnection(busAddress.c_str());
    const std::string name = tilvane::host::BusNameForAppId(appId);
    GVariant* owned = g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name.c_str(), 4u), nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (owned != nullptr) {
        g_variant_unref(owned);
    }
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, tilvane::host::ContentBusName(tilvane::host::AuthorityOf(kTiles)).c_str(), "/org/tilvane/Content",
        "org.tilvane.Content",
        "Select", g_variant_new("(ss@ass@asss)", appId.c_str(), kTiles, g_variant_new_strv(nullptr, 0), "",
                                g_variant_new_strv(nullptr, 0), "", ""),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    std::string remote = "(answered)";
    if (reply != nullptr) {
        g_variant_unref(reply);
    } else {
        gchar* text = g_dbus_error_get_remote_error(error);
        remote = text != nullptr ? text : error->message;
        g_free(text);
        g_error_free(error);
    }
    g_object_unref(connection);
    return remote;
}

std::string RawSelectErrorName(const std::string& busAddress, const std::string& appId)
{
    std::atomic<bool> done(false);
    std::string name;
    std::thread caller([&] {
        name = RawSelectErrorNameOnThisThread(busAddress, appId);
        done = true;
        g_main_context_wakeup(nullptr);
    });
    tilvane::test::IterateMainContextUntil([&] { return done.load(); }, 20000);
    caller.join();
    return name;
}

class ReasonCodesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_selectLine.clear();
        g_db.reset(new CContentDbConnection(m_sandbox.Root(), "reasons.db"));
        ASSERT_TRUE(m_bus.IsRunning());
        tilvane::host::SetOwnAppId("org.example.reasons.app");
        ASSERT_TRUE(g_db->OpenOperation());
        std::string error;
        ASSERT_EQ(0, g_db->ExcuteSQL("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, title TEXT);", error)) << error;
        ASSERT_TRUE(register_select_db_callback(kTiles, SelectCB, nullptr));
        ASSERT_TRUE(register_insert_db_callback(kTiles, InsertCB, nullptr));
    }

    void TearDown() override
    {
        tilvane::content::ClearRegistrations();
        g_db.reset();
    }

    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
    ContentClient m_client;
};

}  // namespace

TEST(SystemReasons, TheSystemsTextsNameTheirReasonsInOneTable)
{
    using tilvane::host::ReasonOfSystemText;
    EXPECT_EQ(ReasonOfSystemText("failed by permission"), TILVANE_REASON_PERMISSION_LEVEL);
    EXPECT_EQ(ReasonOfSystemText("failed SELECT by permission"), TILVANE_REASON_PERMISSION_LEVEL);
    EXPECT_EQ(ReasonOfSystemText("failed by invalid URI"), TILVANE_REASON_NOT_CHANGEABLE);
    EXPECT_EQ(ReasonOfSystemText("failed to get cursor"), TILVANE_REASON_PROVIDER_FAILURE);
    EXPECT_EQ(ReasonOfSystemText("failed by permission!"), TILVANE_REASON_PROVIDER_FAILURE);
    EXPECT_EQ(ReasonOfSystemText("permission level too low"), TILVANE_REASON_NONE);
    EXPECT_EQ(ReasonOfSystemText(""), TILVANE_REASON_NONE);
}

TEST(SystemReasons, OnlyTheSystemsFirstFailureLineOfAnOpenReportIsRecorded)
{
    PlatformSandbox sandbox;
    LogAsTheSystem("failed by permission");  // no report open: nothing to record it on
    tilvane::host::RequestReportScope report;
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, "tilvane-platform", "failed by invalid URI");   // not the system's tag
    __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, "tilvane", "A.cpp: F(1) > failed by invalid URI");  // below INFO
    EXPECT_EQ(report.Report().providerReason, TILVANE_REASON_NONE);
    LogAsTheSystem("failed by invalid URI");
    LogAsTheSystem("failed by permission");  // reports the outcome of the first
    EXPECT_EQ(report.Report().providerReason, TILVANE_REASON_NOT_CHANGEABLE);
    EXPECT_EQ(report.Report().providerFailure, "failed by invalid URI");
}

TEST_F(ReasonCodesTest, ARefusedSelectCarriesItsCodeAfterTheErrorName)
{
    g_selectLine = "failed SELECT by permission";
    Result result = m_client.Select(kTiles, {}, "", {}, "", "");
    EXPECT_EQ(result.outcome, Outcome::NoResult);
    EXPECT_EQ(result.reason, TILVANE_REASON_PERMISSION_LEVEL);
    EXPECT_EQ(result.message, "permission level too low");
    EXPECT_EQ(Explain(result), "refused: permission level too low");
    EXPECT_EQ(RawSelectErrorName(m_bus.Address(), "org.example.reasons.raw"),
              "org.tilvane.Request.Error.NoResult.PermissionLevel");
}

TEST_F(ReasonCodesTest, AFailedStatementAndAProvidersOwnFailureAreFailures)
{
    Result failed = m_client.Select(kTiles, {"nosuch"}, "", {}, "", "");
    EXPECT_EQ(failed.outcome, Outcome::NoResult);
    EXPECT_EQ(failed.reason, TILVANE_REASON_STATEMENT_FAILED);
    EXPECT_EQ(failed.message, "no such column: nosuch");
    EXPECT_EQ(Explain(failed), "failed: no such column: nosuch");

    g_selectLine = "failed to get cursor";
    Result own = m_client.Select(kTiles, {}, "", {}, "", "");
    EXPECT_EQ(own.reason, TILVANE_REASON_PROVIDER_FAILURE);
    EXPECT_EQ(own.message, "failed to get cursor");
    EXPECT_EQ(RawSelectErrorName(m_bus.Address(), "org.example.reasons.raw"),
              "org.tilvane.Request.Error.NoResult.ProviderFailure");
}

TEST_F(ReasonCodesTest, AWritesResultIsItsCode)
{
    Result refused = m_client.Insert(kTiles, {{"title", "t"}});
    ASSERT_EQ(refused.outcome, Outcome::Answered);
    EXPECT_EQ(refused.code, TILVANE_RESULT_PERMISSION_DENIED);
    EXPECT_EQ(refused.reason, TILVANE_REASON_PERMISSION_LEVEL);
    EXPECT_EQ(refused.message, "permission level too low");
}

TEST(ClientReasons, TheClientDecidesFromTheCodeNotTheWords)
{
    Result result;
    result.outcome = Outcome::NoResult;
    result.message = "permission level too low";
    result.reason = TILVANE_REASON_PROVIDER_FAILURE;
    EXPECT_EQ(Explain(result), "failed: permission level too low");
    result.message = "any words at all";
    result.reason = TILVANE_REASON_NOT_CHANGEABLE;
    EXPECT_EQ(Explain(result), "refused: any words at all");
    result.outcome = Outcome::ProviderError;
    result.message = "failed by permission";
    result.reason = TILVANE_REASON_PROVIDER_FAILURE;
    EXPECT_EQ(Explain(result), "the provider refused: failed by permission");
}

namespace {

void RefusingInsertCB(int requestId, data_control_h, bundle*, void*)
{
    data_control_provider_send_error(requestId, "failed by permission");
}

void FailingDeleteCB(int requestId, data_control_h, const char*, void*)
{
    data_control_provider_send_error(requestId, "failed to delete");
}

}  // namespace

TEST(DataControlReasons, AProvidersErrorTextIsGivenItsCodeByTheSameTable)
{
    data_control_provider_sql_cb callbacks{};
    PlatformSandbox sandbox;
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    setenv("TILVANE_DATA_CONTROL_PROVIDER_ID", kProviderId, 1);
    tilvane::host::SetOwnAppId("org.example.reasons.dc");
    callbacks.insert_cb = RefusingInsertCB;
    callbacks.delete_cb = FailingDeleteCB;
    ASSERT_EQ(data_control_provider_sql_register_cb(&callbacks, nullptr), DATA_CONTROL_ERROR_NONE);
    DataControlClient client(kProviderId);
    Result refused = client.Insert("tiles", {{"a", "b"}});
    EXPECT_EQ(refused.outcome, Outcome::ProviderError);
    EXPECT_EQ(refused.reason, TILVANE_REASON_PERMISSION_LEVEL);
    EXPECT_EQ(Explain(refused), "refused: permission level too low");
    Result failed = client.Delete("tiles", "");
    EXPECT_EQ(failed.outcome, Outcome::ProviderError);
    EXPECT_EQ(failed.reason, TILVANE_REASON_PROVIDER_FAILURE);
    EXPECT_EQ(Explain(failed), "the provider refused: failed to delete");
    data_control_provider_sql_unregister_cb();
    unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
}
