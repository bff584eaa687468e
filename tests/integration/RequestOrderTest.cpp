/*
 * One application's calls run in the order it made them, also when it does
 * not wait for each answer: the real service on a private bus, called over
 * the content interface by a hand-made connection that sends a run of
 * inserts at once, first as a sender the service has not met (whose first
 * call is checked on the bus thread) and then again as one it knows.
 */
#include <gtest/gtest.h>

#include <gio/gio.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <host_control.h>

#include "PermissionHelper.h"
#include "RawBus.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using namespace tilvane::test;

const char kCallerAppId[] = "org.example.news.ui";
const char kContentNamePrefix[] = "org.tilvane.Content.P";
const int kRun = 40;

/* The answers of a run of inserts, by the order they were sent. */
struct InsertAnswers
{
    std::vector<int64_t> rowIds = std::vector<int64_t>(kRun, -2);
    std::vector<std::string> errors = std::vector<std::string>(kRun);
    int answered = 0;
};

struct Call
{
    InsertAnswers* run;
    int index;
};

void OnInsertAnsweredCB(GObject* source, GAsyncResult* result, gpointer data)
{
    std::unique_ptr<Call> call(static_cast<Call*>(data));
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (reply == nullptr) {
        call->run->errors[call->index] = error != nullptr ? error->message : "no reply";
        g_clear_error(&error);
    } else {
        gint32 code = 0;
        gint64 rowId = -1;
        const gchar* reason = nullptr;
        g_variant_get(reply, "(ix&s)", &code, &rowId, &reason);
        call->run->rowIds[call->index] = code == 0 ? rowId : -1;
        if (code != 0) {
            call->run->errors[call->index] = std::to_string(code) + " " + reason;
        }
        g_variant_unref(reply);
    }
    ++call->run->answered;
}

class RequestOrderTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", kCallerAppId));
        m_service.reset(new Process({TILVANE_SERVICE_BINARY},
                                    {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_LOG_LEVEL=D",
                                     std::string("TILVANE_APP_ID=") + kServiceAppId},
                                    m_logs.File("service.out"), m_logs.File("service.err")));
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();

        m_context = g_main_context_new();
        g_main_context_push_thread_default(m_context);
        m_connection = tilvane::test::OpenRawConnection();
        ASSERT_NE(m_connection, nullptr);
        ASSERT_EQ(BusCall("RequestName", g_variant_new("(su)", tilvane::host::BusNameForAppId(kCallerAppId).c_str(), 4u),
                          "(u)"),
                  "(uint32 1,)");
        m_provider = ContentProviderName();
        ASSERT_FALSE(m_provider.empty());
    }

    void TearDown() override
    {
        if (m_connection != nullptr) {
            g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
            g_object_unref(m_connection);
        }
        if (m_context != nullptr) {
            g_main_context_pop_thread_default(m_context);
            g_main_context_unref(m_context);
        }
        if (m_service) {
            m_service->Signal(SIGTERM);
            m_service->Wait(20000);
        }
        tilvane::host::Reset();
    }

    /* A call to the bus daemon, its answer printed; "" when it failed. */
    std::string BusCall(const char* method, GVariant* parameters, const char* replyType)
    {
        GVariant* reply = g_dbus_connection_call_sync(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                      "org.freedesktop.DBus", method, parameters,
                                                      G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                      nullptr);
        if (reply == nullptr) {
            return "";
        }
        gchar* text = g_variant_print(reply, TRUE);
        std::string printed = text;
        g_free(text);
        g_variant_unref(reply);
        return printed;
    }

    /* The bus name the service owns for the content interface. */
    std::string ContentProviderName()
    {
        GVariant* reply = g_dbus_connection_call_sync(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                      "org.freedesktop.DBus", "ListNames", nullptr,
                                                      G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                      nullptr);
        std::string found;
        if (reply == nullptr) {
            return found;
        }
        GVariantIter* names = nullptr;
        const gchar* name = nullptr;
        g_variant_get(reply, "(as)", &names);
        while (g_variant_iter_next(names, "&s", &name)) {
            if (g_str_has_prefix(name, kContentNamePrefix)) {
                found = name;
            }
        }
        g_variant_iter_free(names);
        g_variant_unref(reply);
        return found;
    }

    /* Sends kRun inserts without waiting, then waits for every answer. */
    InsertAnswers InsertRun(const std::string& prefix)
    {
        InsertAnswers run;
        for (int i = 0; i < kRun; ++i) {
            const std::string values = tilvane::test::BinaryRow({{TilesModel::Tiles::TILE_ID, prefix + std::to_string(i)}});
            GVariant* encoded = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, values.data(), values.size(), 1);
            g_dbus_connection_call(m_connection, m_provider.c_str(), "/org/tilvane/Content", "org.tilvane.Content",
                                   "Insert",
                                   g_variant_new("(ss@ay)", kCallerAppId, TilesModel::Tiles::CONTENT_URI, encoded),
                                   G_VARIANT_TYPE("(ixs)"), G_DBUS_CALL_FLAGS_NONE, 20000, nullptr, OnInsertAnsweredCB,
                                   new Call{&run, i});
        }
        while (run.answered < kRun) {
            g_main_context_iteration(m_context, TRUE);
        }
        return run;
    }

    static void ExpectInSendingOrder(const InsertAnswers& run)
    {
        for (int i = 0; i < kRun; ++i) {
            EXPECT_EQ(run.errors[i], "") << "insert " << i;
            EXPECT_GT(run.rowIds[i], 0) << "insert " << i;
            if (i > 0) {
                EXPECT_EQ(run.rowIds[i], run.rowIds[i - 1] + 1) << "insert " << i << " ran out of order";
            }
        }
    }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
    GMainContext* m_context = nullptr;
    GDBusConnection* m_connection = nullptr;
    std::string m_provider;
};

TEST_F(RequestOrderTest, ARunOfCallsNotWaitedForRunsInTheOrderItWasSent)
{
    const InsertAnswers first = InsertRun("first-");
    ExpectInSendingOrder(first);
    /* Known now: its calls are answered without the bus thread. */
    const InsertAnswers second = InsertRun("second-");
    ExpectInSendingOrder(second);
    EXPECT_EQ(second.rowIds.front(), first.rowIds.back() + 1);
}

}  // namespace
