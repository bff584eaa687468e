/*
 * Start-up never waits on another process. An application's user owns the
 * bus names of the service's three ports before the service starts (on a bus
 * whose policy lets it, as a session bus does), in the verified identity
 * mode. The service used to retry each port 60 times a second apart: its
 * first answer came after 181 s and two ports stayed unregistered for good.
 * Now its first answer comes at once, the ports are registered and take
 * their names as soon as the squatter leaves, and messages to them are
 * served.
 *
 * Switching users needs root; CI runs as root. Elsewhere this test skips.
 */
#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <bundle.h>
#include <gio/gio.h>
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>

#include "MultiUserBus.h"
#include "RawBus.h"
#include "ServiceUnderTest.h"
#include "TestProcess.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using namespace tilvane::test;

const char* const kPorts[] = {"accelerator_port", "launcher_event_port", "preview-event-receiver"};

int UserId(const char* name)
{
    struct passwd* entry = getpwnam(name);
    return entry != nullptr ? static_cast<int>(entry->pw_uid) : -1;
}

/* Becomes `uid`, then owns the names of the service's three ports. */
int Squat(int readyFd, uid_t uid)
{
    if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
        return 10;
    }
    GDBusConnection* connection = tilvane::test::OpenRawConnection();
    if (connection == nullptr) {
        return 11;
    }
    for (const char* port : kPorts) {
        GVariant* reply = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
            g_variant_new("(su)", tilvane::host::BusNameForPort(kServiceAppId, port).c_str(), 4u),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
        guint32 answer = 0;
        if (reply != nullptr) {
            g_variant_get(reply, "(u)", &answer);
            g_variant_unref(reply);
        }
        if (answer != 1) {
            return 12;
        }
    }
    ChildProcess::SignalReady(readyFd);
    g_usleep(60 * G_USEC_PER_SEC);
    return 0;
}

int CountOf(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

class PortSquatterTest : public tilvane::test::ServiceUnderTestFixture
{
protected:
    void SetUp() override
    {
        if (!tilvane::test::CanSwitchUsers() || UserId("nobody") <= 0) {
            GTEST_SKIP() << "a squatter of another user needs root and the user nobody";
        }
        chmod(m_root.Path().c_str(), 0755);
        tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = verified\nplatform-users = 0\n");
        ServiceUnderTestFixture::SetUp();
        /* A platform id, bound to the platform user this test runs as. */
        tilvane::host::SetOwnAppId("ContentServiceManager");
    }

    tilvane::test::MultiUserBus m_bus;
};

TEST_F(PortSquatterTest, TheServiceAnswersAtOnceAndTakesItsPortsWhenTheSquatterLeaves)
{
    ASSERT_TRUE(m_bus.IsRunning());
    const uid_t nobody = static_cast<uid_t>(UserId("nobody"));
    auto squatter = std::make_unique<ChildProcess>([nobody](int readyFd) { return Squat(readyFd, nobody); });
    ASSERT_TRUE(squatter->Started() && squatter->Go() && squatter->WaitReady());

    const auto start = std::chrono::steady_clock::now();
    m_service = tilvane::test::StartServiceUnderTest(m_root.Path(), m_logs);
    tilvane::client::ContentClient client;
    tilvane::client::Result first;
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] {
            first = client.Select(TilesModel::Accelerators::CONTENT_URI, {TilesModel::BaseColumnsID}, "", {}, "", "");
            return first.Ok();
        },
        20000))
        << tilvane::client::Explain(first) << "\n" << m_service->Err();
    const auto answered =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    std::printf("first answer %lld ms after the service was started, its three ports squatted\n",
                static_cast<long long>(answered));
    EXPECT_LT(answered, 10000) << "start-up waited for the squatter";
    EXPECT_EQ(CountOf(m_service->Err(), "failed to message_port_register_local_port"), 0) << m_service->Err();
    EXPECT_EQ(CountOf(m_service->Err(), "is held by a connection of another user"), 3) << m_service->Err();
    bool exists = true;
    EXPECT_EQ(message_port_check_remote_port(kServiceAppId, "accelerator_port", &exists), 0);
    EXPECT_FALSE(exists) << "a squatted port cannot be reached yet";

    squatter.reset();  // the squatter leaves
    for (const char* port : kPorts) {
        EXPECT_TRUE(m_service->WaitFor(std::string("port ") + port + " of " + kServiceAppId + " announced", true, 10000))
            << m_service->Err();
        EXPECT_TRUE(tilvane::test::IterateMainContextUntil(
            [&] { return message_port_check_remote_port(kServiceAppId, port, &exists) == 0 && exists; }, 10000))
            << port;
    }
    /* A message to a port that was squatted is served. */
    bundle* install = bundle_create();
    bundle_add_str(install, "action", "0");
    bundle_add_str(install, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "org.example.squatted");
    EXPECT_EQ(message_port_send_message(kServiceAppId, "accelerator_port", install), MESSAGE_PORT_ERROR_NONE);
    bundle_free(install);
    EXPECT_TRUE(tilvane::test::IterateMainContextUntil(
        [&] {
            tilvane::test::RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
            return db.Scalar("SELECT count(*) FROM accelerators WHERE accelerator_app_pkg_name = "
                             "'org.example.squatted'") == "1";
        },
        10000))
        << m_service->Err();
}

}  // namespace
