/*
 * Message ports over the bus: identity, registration, delivery within one
 * process and between processes, the sender check, and failure injection.
 * Every test that touches the bus starts a private one.
 */
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <bundle_ptr.h>
#include <message_port.h>
#include <sys/wait.h>
#include <unistd.h>

#include <errno.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "RawBus.h"
#include "TestSupport.h"

using namespace tilvane::test;

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

/* What a port callback saw. */
struct Received {
    int localPortId;
    std::string remoteAppId;
    bool hasRemotePort;
    std::string remotePort;
    bool trusted;
    Entries entries;
    std::thread::id thread;
};

void RecordCB(int localPortId, const char* remoteAppId, const char* remotePort, bool trusted, bundle* message,
              void* userData)
{
    auto* all = static_cast<std::vector<Received>*>(userData);
    all->push_back(Received{localPortId, remoteAppId != nullptr ? remoteAppId : "", remotePort != nullptr,
                            remotePort != nullptr ? remotePort : "", trusted, BundleEntries(message),
                            std::this_thread::get_id()});
}

/* A bus connection of the test's own, outside the host platform. */
GDBusConnection* RawConnection()
{
    GError* error = nullptr;
    GDBusConnection* connection = tilvane::test::OpenRawConnection(nullptr, &error);
    if (error != nullptr) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
    }
    return connection;
}

/* Calls Deliver on `appId`'s port as a hand-made client claiming `claimedApp`;
 * returns the D-Bus error name, or "" when the call succeeded. */
std::string RawDeliver(GDBusConnection* connection, const std::string& appId, const std::string& port,
                       const std::string& claimedApp, bundle* message)
{
    GError* error = tilvane::test::CallDeliver(connection, appId, port, claimedApp, "", message);
    if (error == nullptr) {
        return "";
    }
    gchar* name = g_dbus_error_get_remote_error(error);
    std::string result = name != nullptr ? name : std::string("local error: ") + error->message;
    g_free(name);
    g_error_free(error);
    return result;
}

int64_t MillisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

class MessagePortTest : public ::testing::Test
{
protected:
    PrivateBus m_bus;
    PlatformSandbox m_sandbox;
};

/* ---- identity ------------------------------------------------------------ */

TEST(MessagePortIdentity, BusNamesAreValidAndMapBackToTheirIds)
{
    const std::vector<std::string> ids = {"com.quillon.px.tilvane", "DownloadManager", "a", "A", "0", "a_b", "a.b",
                                          "a-b", "_5f", "a__b", "x y", "\xc3\xa9t\xc3\xa9", std::string(70, '.')};
    for (const std::string& id : ids) {
        std::string name = tilvane::host::BusNameForAppId(id);
        ASSERT_FALSE(name.empty()) << id;
        EXPECT_TRUE(g_dbus_is_name(name.c_str()) && !g_dbus_is_unique_name(name.c_str())) << name;
        EXPECT_EQ(name.rfind("org.tilvane.App.A", 0), 0u) << name;
        std::string back;
        ASSERT_TRUE(tilvane::host::AppIdForBusName(name, back)) << name;
        EXPECT_EQ(back, id);
    }
    EXPECT_EQ(tilvane::host::BusNameForAppId("com.quillon.px.tilvane"),
              "org.tilvane.App.Acom_2equillon_2epx_2etilvane");
}

TEST(MessagePortIdentity, DistinctIdsNeverShareAName)
{
    /* Every id of up to three bytes over an alphabet that holds the escape
     * character itself, hex digits and bytes that must be escaped. */
    const std::string alphabet = std::string("_.-a5fZ") + '\xff';
    std::vector<std::string> ids = {};
    std::vector<std::string> current = {""};
    for (int length = 1; length <= 3; ++length) {
        std::vector<std::string> next;
        for (const std::string& prefix : current) {
            for (char c : alphabet) {
                next.push_back(prefix + c);
            }
        }
        ids.insert(ids.end(), next.begin(), next.end());
        current = next;
    }
    std::set<std::string> names;
    for (const std::string& id : ids) {
        std::string name = tilvane::host::BusNameForAppId(id);
        ASSERT_FALSE(name.empty()) << id;
        names.insert(name);
    }
    EXPECT_EQ(names.size(), ids.size());
}

TEST(MessagePortIdentity, OnlyCanonicalNamesMapBack)
{
    std::string id;
    EXPECT_FALSE(tilvane::host::AppIdForBusName("org.tilvane.App.A", id));          /* empty id */
    EXPECT_FALSE(tilvane::host::AppIdForBusName("org.tilvane.App.Aa_61", id));      /* "a" escaped */
    EXPECT_FALSE(tilvane::host::AppIdForBusName("org.tilvane.App.Aa_2E", id));      /* upper-case hex */
    EXPECT_FALSE(tilvane::host::AppIdForBusName("org.tilvane.App.Aa_2", id));       /* cut escape */
    EXPECT_FALSE(tilvane::host::AppIdForBusName("org.tilvane.Other.Aabc", id));     /* other namespace */
    EXPECT_TRUE(tilvane::host::AppIdForBusName("org.tilvane.App.Aa_2eb", id));
    EXPECT_EQ(id, "a.b");
    /* Too long for the bus: no name at all. */
    EXPECT_EQ(tilvane::host::BusNameForAppId(std::string(100, '.')), "");
    EXPECT_EQ(tilvane::host::BusNameForAppId(""), "");
}

TEST(MessagePortIdentity, OwnIdComesFromOverrideThenEnvironmentThenProgramName)
{
    PlatformSandbox sandbox;
    unsetenv("TILVANE_APP_ID");
    EXPECT_EQ(tilvane::host::OwnAppId(), program_invocation_short_name);
    setenv("TILVANE_APP_ID", "com.example.fromenv", 1);
    EXPECT_EQ(tilvane::host::OwnAppId(), "com.example.fromenv");
    tilvane::host::SetOwnAppId("com.example.override");
    EXPECT_EQ(tilvane::host::OwnAppId(), "com.example.override");
    tilvane::host::Reset();
    EXPECT_EQ(tilvane::host::OwnAppId(), "com.example.fromenv");
    unsetenv("TILVANE_APP_ID");
}

/* ---- registration ---------------------------------------------------------- */

TEST_F(MessagePortTest, RegisterGivesPositiveIdsAndTheSameIdForTheSameName)
{
    ASSERT_TRUE(m_bus.IsRunning());
    std::vector<Received> first;
    std::vector<Received> second;
    int inbox = message_port_register_local_port("inbox", RecordCB, &first);
    int other = message_port_register_local_port("other", RecordCB, &first);
    ASSERT_GT(inbox, 0);
    ASSERT_GT(other, 0);
    EXPECT_NE(inbox, other);

    /* Again under the same name: same id, and the new callback data is used. */
    EXPECT_EQ(message_port_register_local_port("inbox", RecordCB, &second), inbox);
    BundlePtr message = MakeBundle({{"k", "v"}});
    ASSERT_EQ(message_port_send_message(tilvane::host::OwnAppId().c_str(), "inbox", message.get()), 0);
    ASSERT_TRUE(IterateMainContextUntil([&] { return !second.empty(); }, 5000));
    EXPECT_TRUE(first.empty());
    EXPECT_EQ(second[0].localPortId, inbox);
}

TEST_F(MessagePortTest, UnregisterRemovesThePort)
{
    std::vector<Received> received;
    int inbox = message_port_register_local_port("inbox", RecordCB, &received);
    ASSERT_GT(inbox, 0);
    bool exist = false;
    ASSERT_EQ(message_port_check_remote_port(tilvane::host::OwnAppId().c_str(), "inbox", &exist), 0);
    EXPECT_TRUE(exist);

    EXPECT_EQ(message_port_unregister_local_port(inbox), MESSAGE_PORT_ERROR_NONE);
    EXPECT_EQ(message_port_unregister_local_port(inbox), MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    EXPECT_EQ(message_port_unregister_local_port(0), MESSAGE_PORT_ERROR_INVALID_PARAMETER);

    ASSERT_EQ(message_port_check_remote_port(tilvane::host::OwnAppId().c_str(), "inbox", &exist), 0);
    EXPECT_FALSE(exist);
    BundlePtr message = MakeBundle({{"k", "v"}});
    EXPECT_EQ(message_port_send_message(tilvane::host::OwnAppId().c_str(), "inbox", message.get()),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
}

TEST_F(MessagePortTest, InvalidArgumentsAreRefused)
{
    BundlePtr message = MakeBundle({{"k", "v"}});
    bool exist = true;
    EXPECT_EQ(message_port_register_local_port(nullptr, RecordCB, nullptr), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_register_local_port("", RecordCB, nullptr), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_register_local_port("p", nullptr, nullptr), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_send_message(nullptr, "p", message.get()), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_send_message("a", "", message.get()), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_send_message("a", "p", nullptr), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_send_message_with_local_port("a", "p", message.get(), 0),
              MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_send_message_with_local_port("a", "p", message.get(), 4711),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    EXPECT_EQ(message_port_check_remote_port("a", "p", nullptr), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(message_port_check_remote_port("", "p", &exist), MESSAGE_PORT_ERROR_INVALID_PARAMETER);
}

TEST(MessagePortNoBus, WithoutABusRegistrationAndChecksFail)
{
    PlatformSandbox sandbox;
    const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string saved = previous != nullptr ? previous : "";
    unsetenv("DBUS_SESSION_BUS_ADDRESS");

    EXPECT_EQ(message_port_register_local_port("inbox", RecordCB, nullptr), MESSAGE_PORT_ERROR_IO_ERROR);
    bool exist = true;
    EXPECT_EQ(message_port_check_remote_port("com.example.other", "inbox", &exist), MESSAGE_PORT_ERROR_IO_ERROR);
    BundlePtr message = MakeBundle({{"k", "v"}});
    EXPECT_EQ(message_port_send_message("com.example.other", "inbox", message.get()), MESSAGE_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(CountLines("tilvane-platform", "DBUS_SESSION_BUS_ADDRESS is not set"), 3);

    if (previous != nullptr) {
        setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
    }
}

/* ---- delivery within the process --------------------------------------------- */

TEST_F(MessagePortTest, AbsentApplicationOrPortIsReportedAtOnce)
{
    ASSERT_GT(message_port_register_local_port("inbox", RecordCB, nullptr), 0);
    BundlePtr message = MakeBundle({{"k", "v"}});
    bool exist = true;

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(message_port_check_remote_port("com.example.absent", "inbox", &exist), 0);
    EXPECT_FALSE(exist);
    EXPECT_EQ(message_port_send_message("com.example.absent", "inbox", message.get()),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    exist = true;
    EXPECT_EQ(message_port_check_remote_port(tilvane::host::OwnAppId().c_str(), "nothing", &exist), 0);
    EXPECT_FALSE(exist);
    EXPECT_EQ(message_port_send_message(tilvane::host::OwnAppId().c_str(), "nothing", message.get()),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    EXPECT_LT(MillisecondsSince(start), 2000);
}

TEST_F(MessagePortTest, SendToOwnPortRunsTheCallbackOnTheMainContextWithTheSender)
{
    tilvane::host::SetOwnAppId("com.example.self");
    std::vector<Received> received;
    int inbox = message_port_register_local_port("inbox", RecordCB, &received);
    int replies = message_port_register_local_port("replies", RecordCB, &received);
    ASSERT_GT(inbox, 0);
    ASSERT_GT(replies, 0);

    BundlePtr message = MakeBundle({{"request_type", "SubscribePreviewEvent"}, {"empty", ""}});
    ASSERT_EQ(message_port_send_message("com.example.self", "inbox", message.get()), 0);
    ASSERT_EQ(message_port_send_message_with_local_port("com.example.self", "inbox", message.get(), replies), 0);
    /* Nothing runs before the main context does. */
    EXPECT_TRUE(received.empty());

    ASSERT_TRUE(IterateMainContextUntil([&] { return received.size() == 2; }, 5000));
    for (const Received& r : received) {
        EXPECT_EQ(r.localPortId, inbox);
        EXPECT_EQ(r.remoteAppId, "com.example.self");
        EXPECT_FALSE(r.trusted);
        EXPECT_EQ(r.entries, (Entries{{"request_type", "SubscribePreviewEvent"}, {"empty", ""}}));
        EXPECT_EQ(r.thread, std::this_thread::get_id());
    }
    EXPECT_FALSE(received[0].hasRemotePort);
    EXPECT_TRUE(received[1].hasRemotePort);
    EXPECT_EQ(received[1].remotePort, "replies");
}

TEST_F(MessagePortTest, SendsFromOtherThreadsAreDeliveredOnTheMainContext)
{
    std::vector<Received> received;
    ASSERT_GT(message_port_register_local_port("inbox", RecordCB, &received), 0);
    const std::string self = tilvane::host::OwnAppId();
    std::vector<std::thread> senders;
    std::vector<int> results(4, -1);
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&, t] {
            BundlePtr message = MakeBundle({{"from", std::to_string(t)}});
            results[t] = message_port_send_message(self.c_str(), "inbox", message.get());
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_EQ(results, std::vector<int>(4, 0));
    ASSERT_TRUE(IterateMainContextUntil([&] { return received.size() == 4; }, 5000));
    std::set<std::string> from;
    for (const Received& r : received) {
        EXPECT_EQ(r.thread, std::this_thread::get_id());
        from.insert(r.entries.at(0).second);
    }
    EXPECT_EQ(from, (std::set<std::string>{"0", "1", "2", "3"}));
}

TEST_F(MessagePortTest, SentMessagesAreRecordedWhenAsked)
{
    tilvane::host::SetOwnAppId("com.example.self");
    ASSERT_GT(message_port_register_local_port("inbox", RecordCB, nullptr), 0);
    int replies = message_port_register_local_port("replies", RecordCB, nullptr);
    BundlePtr message = MakeBundle({{"a", "1"}, {"b", "2"}});

    ASSERT_EQ(message_port_send_message("com.example.self", "inbox", message.get()), 0);
    EXPECT_TRUE(tilvane::host::SentMessages().empty());

    tilvane::host::RecordSentMessages(true);
    ASSERT_EQ(message_port_send_message_with_local_port("com.example.self", "inbox", message.get(), replies), 0);
    EXPECT_EQ(message_port_send_message("com.example.absent", "inbox", message.get()),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    std::vector<tilvane::host::SentMessage> sent = tilvane::host::SentMessages();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].appId, "com.example.self");
    EXPECT_EQ(sent[0].port, "inbox");
    EXPECT_EQ(sent[0].localPort, "replies");
    EXPECT_EQ(sent[0].entries, (Entries{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(sent[0].result, 0);
    EXPECT_EQ(sent[1].appId, "com.example.absent");
    EXPECT_EQ(sent[1].localPort, "");
    EXPECT_EQ(sent[1].result, MESSAGE_PORT_ERROR_PORT_NOT_FOUND);

    tilvane::host::ClearSentMessages();
    EXPECT_TRUE(tilvane::host::SentMessages().empty());
}

/* ---- failure injection ------------------------------------------------------- */

TEST_F(MessagePortTest, InjectedFailuresMakeEachCallFailOnce)
{
    tilvane::host::SetOwnAppId("com.example.self");
    std::vector<Received> received;
    tilvane::host::FailNextCalls("message_port_register_local_port", 2);
    EXPECT_EQ(message_port_register_local_port("inbox", RecordCB, &received), MESSAGE_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(message_port_register_local_port("inbox", RecordCB, &received), MESSAGE_PORT_ERROR_IO_ERROR);
    int inbox = message_port_register_local_port("inbox", RecordCB, &received);
    ASSERT_GT(inbox, 0);
    EXPECT_EQ(tilvane::host::CallCount("message_port_register_local_port"), 3);

    BundlePtr message = MakeBundle({{"k", "v"}});
    tilvane::host::FailNextCalls("message_port_send_message", 1);
    EXPECT_EQ(message_port_send_message("com.example.self", "inbox", message.get()), MESSAGE_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(message_port_send_message("com.example.self", "inbox", message.get()), 0);

    tilvane::host::FailNextCalls("message_port_send_message_with_local_port", 1);
    EXPECT_EQ(message_port_send_message_with_local_port("com.example.self", "inbox", message.get(), inbox),
              MESSAGE_PORT_ERROR_IO_ERROR);

    bool exist = false;
    tilvane::host::FailNextCalls("message_port_check_remote_port", 1);
    EXPECT_EQ(message_port_check_remote_port("com.example.self", "inbox", &exist), MESSAGE_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(message_port_check_remote_port("com.example.self", "inbox", &exist), 0);
    EXPECT_TRUE(exist);

    tilvane::host::FailNextCalls("message_port_unregister_local_port", 1);
    EXPECT_EQ(message_port_unregister_local_port(inbox), MESSAGE_PORT_ERROR_IO_ERROR);

    /* Only the one send that went through arrives. */
    IterateMainContextUntil([] { return false; }, 200);
    EXPECT_EQ(received.size(), 1u);
    EXPECT_EQ(message_port_unregister_local_port(inbox), 0);
}

/* ---- between processes ----------------------------------------------------------- */

TEST_F(MessagePortTest, MessagesBetweenProcessesCarryTheSenderIdentityFromTheBus)
{
    ASSERT_TRUE(m_bus.IsRunning());
    /* The child sends to the parent's "inbox" with its local port "replies",
     * then waits for the parent's answer there. */
    ChildProcess child([](int readyFd) {
        tilvane::host::SetOwnAppId("com.example.sender");
        std::vector<Received> replies;
        int port = message_port_register_local_port("replies", RecordCB, &replies);
        if (port <= 0) {
            return 10;
        }
        BundlePtr hello = MakeBundle({{"greeting", "hello"}});
        if (message_port_send_message_with_local_port("com.example.receiver", "inbox", hello.get(), port) != 0) {
            return 11;
        }
        ChildProcess::SignalReady(readyFd);
        if (!IterateMainContextUntil([&] { return !replies.empty(); }, 10000)) {
            return 12;
        }
        const Received& reply = replies[0];
        if (reply.remoteAppId != "com.example.receiver" || reply.hasRemotePort ||
            reply.entries != Entries{{"answer", "welcome"}}) {
            return 13;
        }
        return 0;
    });
    ASSERT_TRUE(child.Started());

    tilvane::host::SetOwnAppId("com.example.receiver");
    std::vector<Received> received;
    ASSERT_GT(message_port_register_local_port("inbox", RecordCB, &received), 0);
    ASSERT_TRUE(child.Go());
    ASSERT_TRUE(child.WaitReady());
    ASSERT_TRUE(IterateMainContextUntil([&] { return !received.empty(); }, 5000));
    EXPECT_EQ(received[0].remoteAppId, "com.example.sender");
    ASSERT_TRUE(received[0].hasRemotePort);
    EXPECT_EQ(received[0].remotePort, "replies");
    EXPECT_EQ(received[0].entries, (Entries{{"greeting", "hello"}}));
    EXPECT_EQ(received[0].thread, std::this_thread::get_id());

    /* The child's ports as seen from here: one exists, another does not. */
    bool exist = false;
    EXPECT_EQ(message_port_check_remote_port("com.example.sender", "replies", &exist), 0);
    EXPECT_TRUE(exist);
    exist = true;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(message_port_check_remote_port("com.example.sender", "elsewhere", &exist), 0);
    EXPECT_FALSE(exist);
    BundlePtr answer = MakeBundle({{"answer", "welcome"}});
    EXPECT_EQ(message_port_send_message("com.example.sender", "elsewhere", answer.get()),
              MESSAGE_PORT_ERROR_PORT_NOT_FOUND);
    EXPECT_LT(MillisecondsSince(start), 2000);

    ASSERT_EQ(message_port_send_message("com.example.sender", "replies", answer.get()), 0)
        << "the sending process ended with " << child.Wait(1000);
    EXPECT_EQ(child.Wait(15000), 0);
}

TEST_F(MessagePortTest, ASecondProcessCannotRunAsAnApplicationThatRuns)
{
    ChildProcess child([](int readyFd) {
        tilvane::host::SetOwnAppId("com.example.same");
        if (message_port_register_local_port("inbox", RecordCB, nullptr) <= 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        IterateMainContextUntil([] { return false; }, 10000);
        return 0;
    });
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Go());
    ASSERT_TRUE(child.WaitReady());

    tilvane::host::SetOwnAppId("com.example.same");
    EXPECT_EQ(message_port_register_local_port("inbox", RecordCB, nullptr),
              MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE);
    EXPECT_EQ(CountLines("tilvane-platform", "application com.example.same already runs on the bus"), 1);
}

TEST_F(MessagePortTest, AMessageClaimingAnotherApplicationIsDropped)
{
    /* A real application owns "com.example.victim" in another process. */
    ChildProcess victim([](int readyFd) {
        tilvane::host::SetOwnAppId("com.example.victim");
        if (message_port_register_local_port("inbox", RecordCB, nullptr) <= 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        IterateMainContextUntil([] { return false; }, 10000);
        return 0;
    });
    ASSERT_TRUE(victim.Started());
    ASSERT_TRUE(victim.Go());
    ASSERT_TRUE(victim.WaitReady());

    tilvane::host::SetOwnAppId("com.example.receiver");
    std::vector<Received> received;
    ASSERT_GT(message_port_register_local_port("inbox", RecordCB, &received), 0);

    GDBusConnection* forger = RawConnection();
    ASSERT_NE(forger, nullptr);
    BundlePtr message = MakeBundle({{"request_type", "SubscribePreviewEvent"}});
    /* Claiming a running application, and one that does not run. */
    EXPECT_EQ(RawDeliver(forger, "com.example.receiver", "inbox", "com.example.victim", message.get()),
              "org.tilvane.MessagePort.Error.NotAuthorized");
    EXPECT_EQ(RawDeliver(forger, "com.example.receiver", "inbox", "com.example.nobody", message.get()),
              "org.tilvane.MessagePort.Error.NotAuthorized");

    /* The same hand-made client, once it owns the name of the id it claims,
     * is believed: the check is on ownership, not on the client. */
    GError* error = nullptr;
    GVariant* owned = g_dbus_connection_call_sync(
        forger, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", tilvane::host::BusNameForAppId("com.example.honest").c_str(), 4u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    ASSERT_NE(owned, nullptr) << (error != nullptr ? error->message : "");
    g_variant_unref(owned);
    EXPECT_EQ(RawDeliver(forger, "com.example.receiver", "inbox", "com.example.honest", message.get()), "");

    ASSERT_TRUE(IterateMainContextUntil([&] { return !received.empty(); }, 5000));
    IterateMainContextUntil([] { return false; }, 200);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].remoteAppId, "com.example.honest");
    EXPECT_EQ(CountLines("tilvane-platform", "does not own the name of application com.example.victim"), 1);
    EXPECT_EQ(CountLines("tilvane-platform", "does not own the name of application com.example.nobody"), 1);

    g_dbus_connection_close_sync(forger, nullptr, nullptr);
    g_object_unref(forger);
}

}  // namespace
