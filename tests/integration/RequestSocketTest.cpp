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

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
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
    }
    /* The connection over the budget is closed as soon as it is made, before
     * the service spends anything on it: it never opens. */
    EXPECT_NE(peers[0], nullptr);
    EXPECT_NE(peers[1], nullptr);
    EXPECT_EQ(peers[2], nullptr);
    int answered = 0;
    for (GDBusConnection* peer : peers) {
        answered += peer != nullptr && PeerSelect(peer, kApp) ? 1 : 0;
    }
    EXPECT_EQ(answered, 2);
    EXPECT_TRUE(m_service->WaitFor("is closed: over [request-socket] max-connections-per-user", true, 10000))
        << m_service->Err();
    /* The client library, over the budget too, is answered over the bus; a
     * new connection closed at once is not tried again. */
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    EXPECT_EQ(m_service->Count("over [request-socket] max-connections-per-user"), 2) << m_service->Err();
    for (GDBusConnection* peer : peers) {
        if (peer != nullptr) {
            g_object_unref(peer);
        }
    }
}

/* The socket's budgets are read on every connection from settings kept
 * between reads: a budget lowered by SIGHUP holds from the next connection. */
TEST_F(RequestSocketTest, ABudgetLoweredBySighupHoldsFromTheNextConnection)
{
    StartService("[request-socket]\nmax-connections-per-user = 4\n");
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty());
    std::vector<GDBusConnection*> peers;
    for (int i = 0; i < 2; ++i) {
        peers.push_back(OpenPeer(socket));
        ASSERT_NE(peers.back(), nullptr);
        EXPECT_TRUE(PeerSelect(peers.back(), kApp));
    }
    tilvane::test::WriteConfiguration(m_root.Path(),
                                      "[identity]\nmode = development\n[request-socket]\nmax-connections-per-user = 2\n");
    m_service->Signal(SIGHUP);
    ASSERT_TRUE(m_service->WaitFor(
        "configuration read again (SIGHUP): [request-socket] max-connections-per-user 4 -> 2", true, 10000))
        << m_service->Err();
    EXPECT_EQ(m_service->Count("over [request-socket] max-connections-per-user"), 0) << m_service->Err();
    /* The third connection is closed as soon as it is made. */
    EXPECT_EQ(OpenPeer(socket), nullptr);
    EXPECT_TRUE(m_service->WaitFor("is closed: over [request-socket] max-connections-per-user", true, 10000))
        << m_service->Err();
    /* The two connections made before are still answered. */
    EXPECT_TRUE(PeerSelect(peers[0], kApp));
    EXPECT_TRUE(PeerSelect(peers[1], kApp));
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

TEST_F(RequestSocketTest, AConnectionThatCarriedALargeRequestIsClosedSoonerWhenIdle)
{
    StartService("[request-socket]\nidle-close-ms = 60000\nlarge-request-bytes = 4096\nlarge-idle-close-ms = 300\n");
    const std::string idleLine = "(user " + std::to_string(geteuid()) + "): idle";

    /* Small requests only: the connection stays for its minute. */
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    ASSERT_EQ(OwnConnections(), 1) << m_service->Err();
    EXPECT_FALSE(m_service->WaitFor(idleLine, true, 1000)) << m_service->Err();

    /* A request of more than 4096 bytes: closed 300 ms after it. */
    const std::string where = std::string(TilesModel::Tiles::TILE_ID) + " <> '" + std::string(5000, 'x') + "'";
    tilvane::client::Result large =
        m_client.Select(TilesModel::Tiles::CONTENT_URI, {TilesModel::Tiles::TILE_ID}, where, {}, "", "");
    EXPECT_EQ(large.outcome, Outcome::Answered) << tilvane::client::Describe(large);
    EXPECT_EQ(OwnConnections(), 1) << m_service->Err();
    ASSERT_TRUE(m_service->WaitFor(idleLine, true, 5000)) << m_service->Err();
    EXPECT_EQ(m_service->Count(idleLine), 1);

    /* The next request opens a new connection, which small requests keep. */
    EXPECT_EQ(SelectTiles().outcome, Outcome::Answered);
    EXPECT_EQ(OwnConnections(), 2) << m_service->Err();
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_EQ(m_service->Count(idleLine), 1) << m_service->Err();
}

/* ---- rows on the wire ---------------------------------------------------------- */

/* One raw content call; the error's name and text ("" and "" when answered),
 * the reply's result in `result`. */
std::pair<std::string, std::string> RawContentCall(GDBusConnection* connection, const char* busName,
                                                   const char* method, GVariant* parameters, int* result = nullptr)
{
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(connection, busName, "/org/tilvane/Content", "org.tilvane.Content",
                                                  method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr,
                                                  &error);
    if (reply == nullptr) {
        gchar* remote = g_dbus_error_get_remote_error(error);
        g_dbus_error_strip_remote_error(error);
        std::pair<std::string, std::string> failure(remote != nullptr ? remote : "", error->message);
        g_free(remote);
        g_error_free(error);
        return failure;
    }
    if (result != nullptr) {
        g_variant_get_child(reply, 0, "i", result);
    }
    g_variant_unref(reply);
    return {"", ""};
}

GVariant* ByteString(const std::string& bytes)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

GVariant* ByteStrings(const std::vector<std::string>& rows)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aay"));
    for (const std::string& row : rows) {
        g_variant_builder_add_value(&builder, ByteString(row));
    }
    return g_variant_builder_end(&builder);
}

/* What the service answers on `connection` to rows that are not the binary
 * form of a bundle, and to one that is. */
void ExpectRowsRefusedAsBefore(GDBusConnection* connection, const char* busName, const std::string& section)
{
    const char* uri = TilesModel::Tiles::CONTENT_URI;
    const std::string good = tilvane::test::BinaryRow({{TilesModel::Tiles::TILE_ID, std::string("raw-") + (busName ? "bus" : "socket")},
                                                       {TilesModel::Tiles::TILE_SECTION_RAW_ID, section}});
    const std::pair<std::string, std::string> notABundle("org.tilvane.Request.Error.InvalidRequest",
                                                         "the values are not a bundle");
    const std::pair<std::string, std::string> rowNotABundle("org.tilvane.Request.Error.InvalidRequest",
                                                            "a row is not a bundle");
    for (const std::string& bad : {std::string("not a row"), good.substr(0, good.size() - 1), good + "x",
                                   tilvane::test::BinaryRow({{"tile_id", "a"}, {"tile_id", "b"}}), std::string()}) {
        EXPECT_EQ(RawContentCall(connection, busName, "Insert", g_variant_new("(ss@ay)", kApp, uri, ByteString(bad))),
                  notABundle);
        EXPECT_EQ(RawContentCall(connection, busName, "BulkInsert",
                                 g_variant_new("(ss@aay)", kApp, uri, ByteStrings({good, bad}))),
                  rowNotABundle);
    }
    /* The base64 text of the bundle is not accepted in its place, nor as a text. */
    gchar* text = g_base64_encode(reinterpret_cast<const guchar*>(good.data()), good.size());
    EXPECT_EQ(RawContentCall(connection, busName, "Insert", g_variant_new("(ss@ay)", kApp, uri, ByteString(text))),
              notABundle);
    EXPECT_EQ(RawContentCall(connection, busName, "Insert", g_variant_new("(sss)", kApp, uri, text)).first,
              "org.freedesktop.DBus.Error.InvalidArgs");
    g_free(text);
    /* Over the limits: one value of more bytes than a bundle may hold. */
    const std::string huge = tilvane::test::BinaryRow({{"tile_title", std::string(1024 * 1024, 'x')}});
    EXPECT_EQ(RawContentCall(connection, busName, "Insert", g_variant_new("(ss@ay)", kApp, uri, ByteString(huge))),
              std::make_pair(std::string("org.tilvane.Request.Error.InvalidRequest"),
                             std::string("the values are over the bundle limits")));
    int result = -1;
    EXPECT_EQ(RawContentCall(connection, busName, "Insert", g_variant_new("(ss@ay)", kApp, uri, ByteString(good)),
                             &result),
              std::make_pair(std::string(), std::string()));
    EXPECT_EQ(result, 0);
}

TEST_F(RequestSocketTest, RowsThatAreNotTheBinaryFormOfABundleAreRefusedOnTheSocketAndOnTheBusAlike)
{
    StartService();
    tilvane::test::RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (201, 'org.example.news');"
                      "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (201, 'raw', 201);"),
              0);
    const std::string section = "201";
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty());
    GDBusConnection* peer = OpenPeer(socket);
    ASSERT_NE(peer, nullptr);
    ExpectRowsRefusedAsBefore(peer, nullptr, section);
    g_object_unref(peer);
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        m_bus.Address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    ASSERT_NE(bus, nullptr);
    /* On the bus the caller is who owns the application's name. */
    GVariant* owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", tilvane::host::BusNameForAppId(kApp).c_str(), 4u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    ASSERT_NE(owned, nullptr);
    g_variant_unref(owned);
    const std::string busName = std::filesystem::path(socket).filename().string();
    ExpectRowsRefusedAsBefore(bus, busName.c_str(), section);
    g_object_unref(bus);
    EXPECT_EQ(db.Column("SELECT tile_id FROM tiles WHERE tile_id LIKE 'raw-%' ORDER BY tile_id"),
              (std::vector<std::string>{"raw-bus", "raw-socket"}));
}

TEST_F(RequestSocketTest, ADataControlInsertOfValuesThatAreNotABundleIsRefusedAsBefore)
{
    StartService();
    std::string socket;
    for (const auto& entry : std::filesystem::directory_iterator(Folder())) {
        if (entry.path().filename().string().rfind("org.tilvane.DataControl.P", 0) == 0) {
            socket = entry.path().string();
        }
    }
    ASSERT_FALSE(socket.empty());
    GDBusConnection* peer = OpenPeer(socket);
    ASSERT_NE(peer, nullptr);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        peer, nullptr, "/org/tilvane/DataControl", "org.tilvane.DataControl", "Insert",
        g_variant_new("(sss@ay)", kApp, "content://com.quillon.px.tiles", "tiles", ByteString("not a row")),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error);
    ASSERT_EQ(reply, nullptr);
    gchar* remote = g_dbus_error_get_remote_error(error);
    g_dbus_error_strip_remote_error(error);
    EXPECT_STREQ(remote, "org.tilvane.Request.Error.InvalidRequest");
    EXPECT_STREQ(error->message, "the values are not a bundle");
    g_free(remote);
    g_error_free(error);
    g_object_unref(peer);
}

/* ---- a peer that never reads ------------------------------------------------ */

/* A unix socket connected to `path`; -1 when it cannot be. */
int ConnectedSocket(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = UnixAddress(path);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/* The "AUTH" line of the handshake for `mechanism`, with `uid` as its
 * hex-encoded text when not empty. */
std::string AuthLine(const std::string& mechanism, const std::string& uid)
{
    std::string line = std::string(1, '\0') + "AUTH " + mechanism;
    if (!uid.empty()) {
        line += ' ';
        for (char c : uid) {
            char pair[3];
            std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
            line += pair;
        }
    }
    return line + "\r\n";
}

/* What the service answers to `line` on the connected `fd`. */
std::string Answer(int fd, const std::string& line)
{
    send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    char answer[256] = {};
    const ssize_t got = recv(fd, answer, sizeof answer - 1, 0);
    return got > 0 ? std::string(answer, static_cast<size_t>(got)) : std::string();
}

/* A connected unix socket that did the EXTERNAL handshake by hand, so that
 * nothing ever reads what the service sends after it. */
int HandshakenSocket(const std::string& path)
{
    const int fd = ConnectedSocket(path);
    if (fd < 0 || Answer(fd, AuthLine("EXTERNAL", std::to_string(geteuid()))).compare(0, 3, "OK ") != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    send(fd, "BEGIN\r\n", 7, MSG_NOSIGNAL);
    return fd;
}

/* Who a peer is comes from the socket: no anonymous peer, and no peer that
 * claims another user, is let in; a peer that never finishes the handshake
 * is closed as idle. */
TEST_F(RequestSocketTest, OnlyAPeerThatIsTheUserItSaysIsLetInAndOneThatNeverSaysIsClosedAsIdle)
{
    StartService("[request-socket]\nidle-close-ms = 300\n");
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty());
    const int anonymous = ConnectedSocket(socket);
    ASSERT_GE(anonymous, 0);
    EXPECT_EQ(Answer(anonymous, AuthLine("ANONYMOUS", "")).compare(0, 8, "REJECTED"), 0);
    close(anonymous);
    const int other = ConnectedSocket(socket);
    ASSERT_GE(other, 0);
    EXPECT_EQ(Answer(other, AuthLine("EXTERNAL", std::to_string(geteuid() + 1))).compare(0, 8, "REJECTED"), 0);
    close(other);
    const int silent = ConnectedSocket(socket);
    ASSERT_GE(silent, 0);
    timeval wait{5, 0};
    setsockopt(silent, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    char byte = 0;
    EXPECT_EQ(recv(silent, &byte, 1, 0), 0) << "the silent peer was not closed";
    close(silent);
    EXPECT_TRUE(m_service->WaitFor("(user " + std::to_string(geteuid()) + "): idle", true, 5000)) << m_service->Err();
}

std::string SelectMessage(guint32 serial)
{
    const char* none[] = {nullptr};
    return tilvane::test::MethodCallBytes(
        "/org/tilvane/Content", "org.tilvane.Content", "Select",
        g_variant_new("(ss^ass^asss)", kApp, TilesModel::Tiles::CONTENT_URI, none, "", none, "", ""), serial);
}

/* The types of the whole messages at the start of `bytes` (little-endian
 * D-Bus messages, as the service writes them); what is left of a message
 * cut short is not counted. */
std::vector<int> MessageTypes(const std::string& bytes)
{
    std::vector<int> types;
    size_t at = 0;
    while (bytes.size() >= at + 16) {
        guint32 body = 0;
        guint32 fields = 0;
        std::memcpy(&body, bytes.data() + at + 4, 4);
        std::memcpy(&fields, bytes.data() + at + 12, 4);
        const size_t size = 16 + ((fields + 7) / 8) * 8 + body;
        if (bytes.size() < at + size) {
            break;
        }
        types.push_back(bytes[at + 1]);
        at += size;
    }
    return types;
}

/* A peer may send its whole handshake, BEGIN and its first calls in one
 * write; the service reads them all at once and must answer every call,
 * though nothing more comes to make the socket readable again. */
TEST_F(RequestSocketTest, AHandshakeAndCallsSentInOneWriteAreAllAnswered)
{
    StartService();
    const std::string socket = ContentSocket();
    ASSERT_FALSE(socket.empty());
    const int fd = ConnectedSocket(socket);
    ASSERT_GE(fd, 0);
    const std::string all = AuthLine("EXTERNAL", std::to_string(geteuid())) + "NEGOTIATE_UNIX_FD\r\n" +
                            "BEGIN\r\n" + SelectMessage(1) + SelectMessage(2) + SelectMessage(3) + SelectMessage(4) +
                            SelectMessage(5) + SelectMessage(6) + SelectMessage(7) + SelectMessage(8);
    ASSERT_EQ(send(fd, all.data(), all.size(), MSG_NOSIGNAL), static_cast<ssize_t>(all.size()));
    timeval wait{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    /* "OK <guid>", "ERROR" (no file descriptors here), then eight replies. */
    std::string received;
    char buffer[4096];
    size_t lines = 0;
    while (true) {
        lines = received.find("\r\n", received.find("\r\n") + 2);
        if (lines != std::string::npos && MessageTypes(received.substr(lines + 2)).size() == 8) {
            break;
        }
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) {
            break;
        }
        received.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    ASSERT_EQ(received.compare(0, 3, "OK "), 0) << received;
    ASSERT_NE(lines, std::string::npos);
    /* Type 2: a method return. */
    EXPECT_EQ(MessageTypes(received.substr(lines + 2)), (std::vector<int>(8, 2)));
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
