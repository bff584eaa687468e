/*
 * The direct request socket with the real service on a private bus, in the
 * development identity mode (one user): the client library takes the socket
 * when it is there and the bus when it is not (switched off, or a dead socket
 * left in its place); what a peer may spend on it (connections, replies it
 * never reads, idle time) is bounded, and a peer over a budget is closed
 * while everybody else is still answered. Another user's claims over the
 * socket are IdentityTest's (verified mode).
 */
#include <gtest/gtest.h>

#include <gio/gio.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <host_control.h>
#include <tilvane_client.h>

#include "PreviewApps.h"
#include "ServiceUnderTest.h"
#include "TestProcess.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using tilvane::client::ContentClient;
using tilvane::client::Outcome;

const char kApp[] = "org.example.news.ui";
const char kOwnConnection[] = "request socket: connection of process ";

class RequestSocketTest : public tilvane::test::ServiceUnderTestFixture
{
protected:
    void SetUp() override
    {
        ServiceUnderTestFixture::SetUp();
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", kApp));
        tilvane::host::SetOwnAppId(kApp);
    }

    void StartService(const std::string& configuration = std::string())
    {
        tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n" + configuration);
        m_service = tilvane::test::StartServiceUnderTest(m_root.Path(), m_logs);
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
    }

    std::string Folder() const { return m_root.Path() + "/run/tilvane"; }

    /* The socket of the content interface's provider name. */
    std::string ContentSocket() const
    {
        if (std::filesystem::exists(Folder())) {
            for (const auto& entry : std::filesystem::directory_iterator(Folder())) {
                if (entry.path().filename().string().rfind("org.tilvane.Content.P", 0) == 0) {
                    return entry.path().string();
                }
            }
        }
        return std::string();
    }

    /* Connections of this test process the service accepted on the socket. */
    int OwnConnections() const { return m_service->Count(kOwnConnection + std::to_string(getpid()) + " "); }

    tilvane::client::Result SelectTiles()
    {
        return m_client.Select(TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, "", {}, "", "");
    }

    tilvane::test::PrivateBus m_bus;
    ContentClient m_client;
};

sockaddr_un UnixAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

GDBusConnection* OpenPeer(const std::string& socket)
{
    gchar* escaped = g_dbus_address_escape_value(socket.c_str());
    const std::string address = std::string("unix:path=") + escaped;
    g_free(escaped);
    return g_dbus_connection_new_for_address_sync(address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                                                  nullptr, nullptr, nullptr);
}

/* A select of the tiles over `peer`, as `app`; true when answered. */
bool PeerSelect(GDBusConnection* peer, const char* app)
{
    const char* none[] = {nullptr};
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        peer, nullptr, "/org/tilvane/Content", "org.tilvane.Content", "Select",
        g_variant_new("(ss^ass^asss)", app, TilesModel::Tiles::CONTENT_URI, none, "", none, "", ""), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    if (reply == nullptr) {
        std::fprintf(stderr, "select over the peer connection: %s\n", error->message);
        g_error_free(error);
        return false;
    }
    g_variant_unref(reply);
    return true;
}

TEST_F(RequestSocketTest, TheClientTakesTheSocketOnlyUserAndModeAreThePlatformsAndEveryoneMayConnect)
{
    StartService();
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty()) << m_service->Err();
    struct stat st {};
    ASSERT_EQ(lstat(socket.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    ASSERT_EQ(lstat(Folder().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
    EXPECT_EQ(st.st_uid, geteuid());

    for (int i = 0; i < 3; ++i) {
        tilvane::client::Result read = SelectTiles();
        EXPECT_EQ(read.outcome, Outcome::Answered) << read.message;
    }
    /* All three went over one connection of this process. */
    EXPECT_EQ(OwnConnections(), 1) << m_service->Err();
}

TEST_F(RequestSocketTest, SwitchedOffTheServiceListensOnNothingAndTheClientTakesTheBus)
{
    StartService("[request-socket]\nenabled = false\n");
    EXPECT_TRUE(ContentSocket().empty());
    tilvane::client::Result read = SelectTiles();
    EXPECT_EQ(read.outcome, Outcome::Answered) << read.message;
    EXPECT_EQ(m_service->Count("request socket"), 0) << m_service->Err();
}

TEST_F(RequestSocketTest, ADeadSocketOrAFileInItsPlaceSendsTheClientToTheBus)
{
    StartService("[request-socket]\nenabled = false\n");
    std::filesystem::create_directories(Folder());
    /* Where the socket would be: a socket nobody listens on, then a plain file. */
    const std::string path = Folder() + "/org.tilvane.Content.Pcom_2equillon_2epx_2etiles";
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = UnixAddress(path);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    close(fd);
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    unlink(path.c_str());
    tilvane::test::WriteFile(path, "not a socket");
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
}

TEST_F(RequestSocketTest, ConnectionsOverTheBudgetAreClosedAndTheClientTakesTheBus)
{
    StartService("[request-socket]\nmax-connections-per-user = 2\n");
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty());
    std::vector<GDBusConnection*> peers;
    for (int i = 0; i < 3; ++i) {
        peers.push_back(OpenPeer(socket));
        ASSERT_NE(peers.back(), nullptr);
    }
    /* The service authenticates peers side by side: which one of the three
     * came last is its own affair, but one of them is closed. */
    int answered = 0;
    for (GDBusConnection* peer : peers) {
        answered += PeerSelect(peer, kApp) ? 1 : 0;
    }
    EXPECT_EQ(answered, 2);
    EXPECT_TRUE(m_service->WaitFor("is closed: over [request-socket] max-connections-per-user", true, 10000))
        << m_service->Err();
    /* The client library, over the budget too, is answered over the bus. */
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    EXPECT_EQ(m_service->Count("over [request-socket] max-connections-per-user"), 3) << m_service->Err();
    for (GDBusConnection* peer : peers) {
        g_object_unref(peer);
    }
}

TEST_F(RequestSocketTest, AnIdleConnectionIsClosedAndTheClientOpensANewOne)
{
    StartService("[request-socket]\nidle-close-ms = 200\n");
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    ASSERT_EQ(OwnConnections(), 1) << m_service->Err();
    ASSERT_TRUE(m_service->WaitFor("(user " + std::to_string(geteuid()) + "): idle", true, 10000))
        << m_service->Err();
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    EXPECT_EQ(OwnConnections(), 2) << m_service->Err();
}

/* ---- a peer that never reads ------------------------------------------------ */

/* A connected unix socket that did the EXTERNAL handshake by hand, so that
 * nothing ever reads what the service sends after it. */
int HandshakenSocket(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = UnixAddress(path);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    std::string uid = std::to_string(geteuid());
    std::string hex;
    for (char c : uid) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
        hex += pair;
    }
    const std::string auth = std::string(1, '\0') + "AUTH EXTERNAL " + hex + "\r\n";
    send(fd, auth.data(), auth.size(), MSG_NOSIGNAL);
    char answer[256] = {};
    const ssize_t got = recv(fd, answer, sizeof answer - 1, 0);
    if (got <= 0 || std::strncmp(answer, "OK ", 3) != 0) {
        close(fd);
        return -1;
    }
    send(fd, "BEGIN\r\n", 7, MSG_NOSIGNAL);
    return fd;
}

std::string SelectMessage(guint32 serial)
{
    const char* none[] = {nullptr};
    GDBusMessage* message =
        g_dbus_message_new_method_call(nullptr, "/org/tilvane/Content", "org.tilvane.Content", "Select");
    g_dbus_message_set_body(message, g_variant_new("(ss^ass^asss)", kApp, TilesModel::Tiles::CONTENT_URI, none, "",
                                                   none, "", ""));
    g_dbus_message_set_serial(message, serial);
    gsize size = 0;
    guchar* blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::string bytes(reinterpret_cast<char*>(blob), size);
    g_free(blob);
    g_object_unref(message);
    return bytes;
}

TEST_F(RequestSocketTest, APeerThatNeverReadsIsClosedAndOthersAreStillAnswered)
{
    StartService("[request-socket]\nunsent-bytes = 262144\n");
    /* 50 tiles of 4 KiB each: every select's reply is about 200 KiB. */
    tilvane::test::RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news');"
                      "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (101, 's', 101);"
                      "INSERT INTO tiles (tile_id, tile_section_raw_id, tile_title) WITH RECURSIVE c(x) AS "
                      "(SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<50) SELECT 't' || x, 101, "
                      "hex(zeroblob(2048)) FROM c;"),
              0);
    const int fd = HandshakenSocket(ContentSocket());
    ASSERT_GE(fd, 0);
    bool refused = false;
    for (guint32 serial = 1; serial <= 2000 && !refused; ++serial) {
        const std::string message = SelectMessage(serial);
        refused = send(fd, message.data(), message.size(), MSG_NOSIGNAL) < 0;
        if (serial % 16 == 0) {
            refused = refused || m_service->Count("bytes of replies unread") > 0;
        }
    }
    EXPECT_TRUE(m_service->WaitFor("more than 262144 bytes of replies unread", true, 20000)) << m_service->Err();
    close(fd);
    tilvane::client::Result read = SelectTiles();
    EXPECT_EQ(read.outcome, Outcome::Answered) << read.message;
    EXPECT_EQ(read.rows.rows.size(), 50u);
}

}  // namespace
