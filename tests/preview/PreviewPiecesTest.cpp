/*
 * The launcher preview's pieces in process: the image path guard, the JSON
 * writer, display periods, the host and peer checks, and the web server's
 * answers that need no service (page files, headers, refused image paths,
 * unknown paths), fetched with a libsoup client on the same main loop.
 */
#include <gtest/gtest.h>
#include <libsoup/soup.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <string>

#include <host_control.h>
#include <tzplatform_config.h>

#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "ImagePath.h"
#include "SharedQueryObject.h"
#include "content_provider_dispatch.h"
#include "Json.h"
#include "LauncherData.h"
#include "PreviewServer.h"
#include "TestSupport.h"

using namespace tilvane::preview;
using tilvane::test::TempDir;
using tilvane::test::WriteFile;

namespace {

const char kPng[] = "\x89PNG\r\n\x1a\n0000IHDR";

class ImagePathTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_root = m_dir.Path() + "/root";
        m_images = m_root + "/opt/usr/apps";
        ASSERT_EQ(g_mkdir_with_parents((m_images + "/a/res").c_str(), 0700), 0);
        ASSERT_EQ(g_mkdir_with_parents((m_root + "/opt/dbspace").c_str(), 0700), 0);
        WriteFile(m_images + "/a/res/poster.png", std::string(kPng, sizeof(kPng) - 1));
        WriteFile(m_images + "/a/res/notes.txt", "text");
        WriteFile(m_images + "/a/res/fake.png", "SQLite format 3");
        WriteFile(m_root + "/opt/dbspace/.preview.db", "SQLite format 3");
        WriteFile(m_dir.Path() + "/outside.png", std::string(kPng, sizeof(kPng) - 1));
    }

    tilvane::preview::ImageFile Read(const std::string& path)
    {
        return ReadImage(m_images, path, ImageReader{});
    }

    TempDir m_dir;
    std::string m_root;
    std::string m_images;
};

TEST_F(ImagePathTest, AnImageInTheImagesFolderIsReadWithTheTypeItsBytesShow)
{
    auto image = Read("/opt/usr/apps/a/res/poster.png");
    ASSERT_EQ(image.lookup, ImageLookup::Found) << image.reason;
    EXPECT_EQ(image.contentType, "image/png");
    EXPECT_EQ(image.data, std::string(kPng, sizeof(kPng) - 1));
    EXPECT_EQ(Read("/opt/usr/apps//a/res/poster.png").lookup, ImageLookup::Found);
    EXPECT_EQ(SniffImageType("<?xml version=\"1.0\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"/>"), "image/svg+xml");
    EXPECT_EQ(SniffImageType("\xFF\xD8\xFF\xE0"), "image/jpeg");
    EXPECT_EQ(SniffImageType("GIF89a"), "image/gif");
    EXPECT_EQ(SniffImageType(std::string("RIFF\x10\0\0\0WEBPVP8 ", 16)), "image/webp");
    EXPECT_EQ(SniffImageType("SQLite format 3"), "");
    EXPECT_EQ(SniffImageType("<html><svg></svg></html>"), "");
}

TEST_F(ImagePathTest, DotDotDotAndHiddenNamesAreRefusedEvenWhenTheyWouldStayInside)
{
    for (const char* path : {"/opt/usr/apps/../../outside.png", "/opt/usr/apps/a/../a/res/poster.png",
                             "/opt/usr/apps/a/res/./poster.png", "/opt/usr/apps/a/res/..", "/opt/usr/apps/.a/x.png"}) {
        EXPECT_EQ(Read(path).lookup, ImageLookup::Refused) << path;
    }
}

TEST_F(ImagePathTest, OnlyImageFilesOfTheImagesFolderAreServed)
{
    auto database = Read("/opt/dbspace/.preview.db");
    EXPECT_EQ(database.lookup, ImageLookup::Refused);
    EXPECT_EQ(database.reason, "only images under /opt/usr/apps are served");
    EXPECT_EQ(Read("../outside.png").lookup, ImageLookup::Refused);
    EXPECT_EQ(Read("opt/usr/apps/a/res/poster.png").lookup, ImageLookup::Refused);
    EXPECT_EQ(Read("/opt/usr/apps/a/res/notes.txt").lookup, ImageLookup::Refused);
    EXPECT_EQ(Read(std::string("/opt/usr/apps/a.png\0/x", 23)).lookup, ImageLookup::Refused);
    /* An image's name is not enough: its bytes must be an image's. */
    auto fake = Read("/opt/usr/apps/a/res/fake.png");
    EXPECT_EQ(fake.lookup, ImageLookup::Refused);
    EXPECT_EQ(fake.reason, "the file's bytes are not an image's");
}

TEST_F(ImagePathTest, ASymbolicLinkAnywhereOnTheWayIsRefused)
{
    /* A package plants links in its own folder: to the database, and a
     * folder that is a link. Neither is followed, wherever it points. */
    ASSERT_EQ(symlink("../../../../dbspace/.preview.db", (m_images + "/a/res/a.png").c_str()), 0);
    ASSERT_EQ(symlink("poster.png", (m_images + "/a/res/near.png").c_str()), 0);
    ASSERT_EQ(symlink("res", (m_images + "/a/linked").c_str()), 0);
    for (const char* path : {"/opt/usr/apps/a/res/a.png", "/opt/usr/apps/a/res/near.png",
                             "/opt/usr/apps/a/linked/poster.png"}) {
        auto image = Read(path);
        EXPECT_EQ(image.lookup, ImageLookup::Refused) << path;
        EXPECT_NE(image.reason.find("symbolic link"), std::string::npos) << image.reason;
        EXPECT_TRUE(image.data.empty());
    }
}

TEST_F(ImagePathTest, FifosFoldersAndHugeFilesAreRefusedWithoutWaiting)
{
    ASSERT_EQ(mkfifo((m_images + "/a/res/pipe.png").c_str(), 0600), 0);
    EXPECT_EQ(Read("/opt/usr/apps/a/res/pipe.png").reason, "not a regular file");
    ASSERT_EQ(g_mkdir_with_parents((m_images + "/a/dir.png").c_str(), 0700), 0);
    EXPECT_EQ(Read("/opt/usr/apps/a/dir.png").lookup, ImageLookup::Refused);
    const std::string huge = m_images + "/a/res/huge.png";
    WriteFile(huge, std::string(kPng, sizeof(kPng) - 1));
    ASSERT_EQ(truncate(huge.c_str(), static_cast<off_t>(tilvane::preview::kMaxImageBytes) + 1), 0);
    EXPECT_EQ(Read("/opt/usr/apps/a/res/huge.png").lookup, ImageLookup::Refused);
}

TEST_F(ImagePathTest, MissingFilesAreNotFound)
{
    EXPECT_EQ(Read("/opt/usr/apps/a/res/none.png").lookup, ImageLookup::NotFound);
    EXPECT_EQ(Read("/opt/usr/apps/b/none.png").lookup, ImageLookup::NotFound);
    EXPECT_EQ(Read("").lookup, ImageLookup::NotFound);
    EXPECT_EQ(Read("/opt/usr/apps/a/res").lookup, ImageLookup::Refused);  // no image name
}

TEST_F(ImagePathTest, APackagesImageIsReadWithItsUsersPrivilegesOrNotAtAll)
{
    /* getpwnam's answer is overwritten by the next call: copied at once. */
    struct passwd* found = getpwnam("daemon");
    const struct passwd daemonCopy = found != nullptr ? *found : passwd{};
    found = getpwnam("nobody");
    const struct passwd nobodyCopy = found != nullptr ? *found : passwd{};
    const struct passwd* daemonUser = &daemonCopy;
    const struct passwd* nobodyUser = &nobodyCopy;
    if (geteuid() != 0 || daemonUser->pw_uid == 0 || nobodyUser->pw_uid == 0) {
        GTEST_SKIP() << "taking another user's privileges needs root and the users daemon and nobody";
    }
    /* Package a (daemon) has a private folder; package b (nobody) points its
     * tile at a's image. The folders above are open to everyone. */
    for (const std::string& folder : {m_dir.Path(), m_root, m_root + "/opt", m_root + "/opt/usr", m_images}) {
        ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    }
    ASSERT_EQ(chown((m_images + "/a").c_str(), daemonUser->pw_uid, daemonUser->pw_gid), 0);
    ASSERT_EQ(chown((m_images + "/a/res").c_str(), daemonUser->pw_uid, daemonUser->pw_gid), 0);
    ASSERT_EQ(chown((m_images + "/a/res/poster.png").c_str(), daemonUser->pw_uid, daemonUser->pw_gid), 0);
    ASSERT_EQ(chmod((m_images + "/a/res/poster.png").c_str(), 0600), 0);
    const ImageReader asA{true, daemonUser->pw_uid, daemonUser->pw_gid};
    const ImageReader asB{true, nobodyUser->pw_uid, nobodyUser->pw_gid};
    EXPECT_EQ(ReadImage(m_images, "/opt/usr/apps/a/res/poster.png", asA).lookup, ImageLookup::Found);
    auto stolen = ReadImage(m_images, "/opt/usr/apps/a/res/poster.png", asB);
    EXPECT_EQ(stolen.lookup, ImageLookup::Refused);
    EXPECT_EQ(stolen.reason, "the package's user may not read it");
    /* Root's own privileges are not the package's: a root-only file stays unread. */
    WriteFile(m_images + "/rootonly.png", std::string(kPng, sizeof(kPng) - 1));
    ASSERT_EQ(chmod((m_images + "/rootonly.png").c_str(), 0600), 0);
    EXPECT_EQ(ReadImage(m_images, "/opt/usr/apps/rootonly.png", asA).lookup, ImageLookup::Refused);
    /* The process itself keeps its own privileges. */
    EXPECT_EQ(Read("/opt/usr/apps/rootonly.png").lookup, ImageLookup::Found);
}

TEST(PreviewJsonTest, TextsCannotCloseMarkupAndStayValidUtf8)
{
    EXPECT_EQ(JsonQuote("<script>alert(1)</script>"), "\"\\u003cscript\\u003ealert(1)\\u003c/script\\u003e\"");
    EXPECT_EQ(JsonQuote("a\"b\\c\nd\x01&"), "\"a\\\"b\\\\c\\nd\\u0001\\u0026\"");
    EXPECT_EQ(JsonQuote("caf\xc3\xa9"), "\"caf\xc3\xa9\"");
    EXPECT_EQ(JsonQuote("bad\xff"), "\"bad\xef\xbf\xbd\"");
}

TEST(PreviewJsonTest, WriterPlacesCommasAndNesting)
{
    JsonWriter json;
    json.BeginObject().Key("a").Integer(1).Key("b").BeginArray().String("x").Null().Bool(true).EndArray();
    json.Key("c").BeginObject().EndObject().Key("d").Real(0.5).EndObject();
    EXPECT_EQ(json.Text(), "{\"a\":1,\"b\":[\"x\",null,true],\"c\":{},\"d\":0.5}");
}

TEST(PreviewPeriodTest, BoundsInSecondsOrMilliseconds)
{
    const int64_t now = 1800000000;
    EXPECT_TRUE(CheckPeriod(0, 0, now).visible);
    EXPECT_TRUE(CheckPeriod(now, 0, now).visible);            // the start is included
    EXPECT_FALSE(CheckPeriod(0, now, now).visible);           // the end is not
    EXPECT_EQ(CheckPeriod(0, now, now).reason, "ended 2027-01-15 08:00 UTC");
    EXPECT_EQ(CheckPeriod(now + 60, 0, now).reason, "starts 2027-01-15 08:01 UTC");
    EXPECT_FALSE(CheckPeriod((now + 60) * 1000, 0, now).visible);
    EXPECT_TRUE(CheckPeriod((now - 60) * 1000, (now + 60) * 1000, now).visible);
    EXPECT_EQ(CheckPeriod(0, (now - 60) * 1000, now).reason, "ended 2027-01-15 07:59 UTC");
}

GSocketAddress* Address(const char* text)
{
    GInetAddress* inet = g_inet_address_new_from_string(text);
    GSocketAddress* address = g_inet_socket_address_new(inet, 1234);
    g_object_unref(inet);
    return address;
}

TEST(PreviewServerChecksTest, OnlyLoopbackPeersAndOwnHostNames)
{
    for (const auto& [text, loopback] : std::map<std::string, bool>{
             {"127.0.0.1", true}, {"127.5.0.1", true}, {"::1", true}, {"192.0.2.1", false}, {"10.0.0.1", false},
             {"::ffff:192.0.2.1", false}, {"2001:db8::1", false}}) {
        GSocketAddress* address = Address(text.c_str());
        EXPECT_EQ(tilvane::preview::IsLoopbackPeer(address), loopback) << text;
        g_object_unref(address);
    }
    EXPECT_FALSE(tilvane::preview::IsLoopbackPeer(nullptr));
    EXPECT_TRUE(tilvane::preview::IsOwnHost("127.0.0.1:8470", 8470));
    EXPECT_TRUE(tilvane::preview::IsOwnHost("localhost:8470", 8470));
    EXPECT_FALSE(tilvane::preview::IsOwnHost("127.0.0.1:8471", 8470));
    EXPECT_FALSE(tilvane::preview::IsOwnHost("attacker.example:8470", 8470));
    EXPECT_FALSE(tilvane::preview::IsOwnHost("127.0.0.1", 8470));
    EXPECT_EQ(tilvane::preview::PathWords("/api//entries/12/"), (std::vector<std::string>{"api", "entries", "12"}));
}

/* The server on the default main context, fetched from the same loop. */
class PreviewServerTest : public ::testing::Test
{
protected:
    struct Reply {
        unsigned status = 0;
        std::string body;
        std::map<std::string, std::string> headers;
    };

    void SetUp() override
    {
        m_root = m_dir.Path() + "/root";
        ASSERT_EQ(g_mkdir_with_parents((m_root + "/res").c_str(), 0700), 0);
        WriteFile(m_root + "/res/poster.svg", "<svg xmlns=\"http://www.w3.org/2000/svg\"/>");
        WriteFile(m_dir.Path() + "/outside.svg", "<svg/>");
        m_web = m_dir.Path() + "/www";
        ASSERT_EQ(g_mkdir_with_parents(m_web.c_str(), 0700), 0);
        WriteFile(m_web + "/index.html", "<!DOCTYPE html><title>t</title>");
        tilvane::preview::PreviewServer::Settings settings;
        settings.port = 0;
        settings.webDir = m_web;
        settings.imagesDir = m_root + "/opt/usr/apps";
        settings.maxStreams = 300;
        m_server = std::make_unique<tilvane::preview::PreviewServer>(settings, m_data);
        std::string error;
        ASSERT_TRUE(m_server->Start(error)) << error;
        m_session = soup_session_new();
    }

    void TearDown() override
    {
        if (m_session != nullptr) {
            g_object_unref(m_session);
        }
        m_server.reset();
    }

    struct Call {
        GMainLoop* loop;
        Reply* reply;
        SoupMessage* message;
    };

    static void DoneCB(GObject* session, GAsyncResult* result, gpointer data)
    {
        Call* call = static_cast<Call*>(data);
        GBytes* bytes = soup_session_send_and_read_finish(SOUP_SESSION(session), result, nullptr);
        call->reply->status = soup_message_get_status(call->message);
        if (bytes != nullptr) {
            gsize size = 0;
            const char* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
            call->reply->body.assign(text != nullptr ? text : "", size);
            g_bytes_unref(bytes);
        }
        SoupMessageHeadersIter iter;
        const char* name = nullptr;
        const char* value = nullptr;
        soup_message_headers_iter_init(&iter, soup_message_get_response_headers(call->message));
        while (soup_message_headers_iter_next(&iter, &name, &value)) {
            call->reply->headers[name] = value;
        }
        g_main_loop_quit(call->loop);
    }

    /* GET of `path` under the server's secret address, or as it stands. */
    Reply Get(const std::string& path, const char* host = nullptr, bool secret = true)
    {
        Reply reply;
        const std::string base = "http://127.0.0.1:" + std::to_string(m_server->Port());
        const std::string url = secret ? m_server->Address() + path.substr(1) : base + path;
        SoupMessage* message = soup_message_new("GET", url.c_str());
        if (host != nullptr) {
            soup_message_headers_replace(soup_message_get_request_headers(message), "Host", host);
        }
        GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
        Call call{loop, &reply, message};
        soup_session_send_and_read_async(m_session, message, G_PRIORITY_DEFAULT, nullptr, DoneCB, &call);
        g_main_loop_run(loop);
        g_main_loop_unref(loop);
        g_object_unref(message);
        return reply;
    }

    TempDir m_dir;
    std::string m_root;
    std::string m_web;
    tilvane::preview::LauncherData m_data{[] { return int64_t{0}; }};
    std::unique_ptr<tilvane::preview::PreviewServer> m_server;
    SoupSession* m_session = nullptr;
};

TEST_F(PreviewServerTest, ThePageComesWithAPolicyThatForbidsInlineScripts)
{
    Reply page = Get("/");
    EXPECT_EQ(page.status, 200u);
    EXPECT_EQ(page.body, "<!DOCTYPE html><title>t</title>");
    EXPECT_NE(page.headers["Content-Security-Policy"].find("script-src 'self';"), std::string::npos);
    EXPECT_EQ(page.headers["X-Content-Type-Options"], "nosniff");
}

TEST_F(PreviewServerTest, EverythingIsUnderASecretMadeAtEachStart)
{
    const std::string address = m_server->Address();
    const std::string prefix = "http://127.0.0.1:" + std::to_string(m_server->Port()) + "/";
    ASSERT_EQ(address.compare(0, prefix.size(), prefix), 0) << address;
    const std::string secret = address.substr(prefix.size(), address.size() - prefix.size() - 1);
    EXPECT_EQ(secret.size(), 32u);
    EXPECT_EQ(secret.find_first_not_of("0123456789abcdef"), std::string::npos) << secret;
    /* Another server, another secret. */
    tilvane::preview::PreviewServer::Settings settings;
    settings.webDir = m_web;
    EXPECT_NE(tilvane::preview::PreviewServer(settings, m_data).Address(), address);

    std::string wrong = secret;
    wrong[5] = wrong[5] == 'a' ? 'b' : 'a';
    for (const std::string& path : {std::string("/"), std::string("/index.html"), std::string("/api/entries"),
                                    std::string("/api/events"), std::string("/api/tiles/1/image"), "/" + wrong + "/",
                                    "/" + secret.substr(0, 31) + "/", "/" + secret + "0/", "/x" + secret + "/"}) {
        Reply refused = Get(path, nullptr, false);
        EXPECT_EQ(refused.status, 403u) << path;
        EXPECT_EQ(refused.body,
                  "{\"error\":\"the preview answers only under the secret address it printed when it started\"}");
    }
    Reply redirect = Get("/" + secret, nullptr, false);
    EXPECT_EQ(redirect.status, 200u); /* followed to "/<secret>/" */
    EXPECT_EQ(redirect.body, "<!DOCTYPE html><title>t</title>");
    EXPECT_TRUE(tilvane::preview::SameSecret(secret, secret));
    EXPECT_FALSE(tilvane::preview::SameSecret(wrong, secret));
    EXPECT_FALSE(tilvane::preview::SameSecret("", ""));
}

TEST_F(PreviewServerTest, ImagesAreAskedForByTheirRowOnly)
{
    /* No service answers here: the row is not found, whatever is asked. */
    EXPECT_EQ(Get("/api/tiles/1/image").status, 404u);
    EXPECT_EQ(Get("/api/entries/1/icon").status, 404u);
    EXPECT_EQ(Get("/api/image?path=%2Fopt%2Fusr%2Fapps%2Fa%2Fposter.svg").status, 404u);
    EXPECT_EQ(Get("/api/tiles/x/image").status, 404u);
}

TEST_F(PreviewServerTest, UnknownPathsHostsAndMissingFiles)
{
    EXPECT_EQ(Get("/api/entries/x/sections").status, 404u);
    EXPECT_EQ(Get("/api/nothing").status, 404u);
    EXPECT_EQ(Get("/etc/passwd").status, 404u);
    EXPECT_EQ(Get("/preview.js").status, 404u);  // not in this web folder
    EXPECT_EQ(Get("/", "attacker.example").status, 403u);
}

/* A section whose tiles would not fit in one reply: the tiles call answers
 * with the service's reason, which the page shows. The provider runs in this
 * process on the service's URI, with a message limit of 16 KiB. */
bool LargeTilesCB(PT_PROVIDER_SELECT_IN_PARAM& /*in*/, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    static CContentDbConnection* db = nullptr;
    if (db == nullptr) {
        db = new CContentDbConnection(tzplatform_getenv(TZ_SYS_DB), "large.db");
        std::string error;
        if (!db->OpenOperation() ||
            db->ExcuteSQL("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, tile_title TEXT);"
                          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100)"
                          " INSERT INTO tiles SELECT i, printf('%.*c', 1000, 'x') FROM n;",
                          error) != 0) {
            return false;
        }
    }
    std::vector<std::string> projection = {"_id", "tile_title"};
    auto cursor = db->SelectRequest("tiles", projection, "", {}, "", "");
    if (CSharedQueryObject::StoreCursor(cursor, "tiles", out.strSharedName, out.nColumnCount) != 0) {
        return false;
    }
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

TEST(PreviewLauncherDataTest, TilesTooLargeForOneReplyShowTheServicesReason)
{
    tilvane::test::PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    tilvane::test::PlatformSandbox sandbox;
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n[bus]\nmax-message-bytes = 16384\n");
    tilvane::host::SetOwnAppId("org.example.preview");
    ASSERT_TRUE(register_select_db_callback("content://com.quillon.px.tiles/tiles", LargeTilesCB, nullptr));
    tilvane::preview::LauncherData data([] { return int64_t{0}; });
    const tilvane::preview::Answer answer = data.Tiles(7);
    EXPECT_EQ(answer.status, 502u);
    EXPECT_NE(answer.json.find("the service did not give the rows: failed: the result is larger than a reply can "
                               "carry; select fewer rows or columns"),
              std::string::npos)
        << answer.json;
    tilvane::content::ClearRegistrations();
    CSharedQueryObject::Clear();
}

/* Open file descriptors of this process. */
size_t OpenDescriptors()
{
    size_t count = 0;
    GDir* dir = g_dir_open("/proc/self/fd", 0, nullptr);
    while (dir != nullptr && g_dir_read_name(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        g_dir_close(dir);
    }
    return count;
}

/* A client socket that asks for the event stream and never reads. */
int OpenEventStream(unsigned port, const std::string& address)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in peer {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) != 0) {
        return -1;
    }
    const std::string path = address.substr(address.find('/', 7)) + "api/events";
    const std::string request =
        "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n";
    return write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size()) ? fd : -1;
}

bool IterateUntil(const std::function<bool()>& done)
{
    return tilvane::test::IterateMainContextUntil(done, 20000);
}

TEST_F(PreviewServerTest, ClosedStreamsReleaseEverythingTheyHeld)
{
    /* One stream first: what the loop and libsoup make once stays. */
    const int first = OpenEventStream(m_server->Port(), m_server->Address());
    ASSERT_GE(first, 0);
    ASSERT_TRUE(IterateUntil([&] { return m_server->OpenStreams() == 1; }));
    close(first);
    ASSERT_TRUE(IterateUntil([&] { return m_server->OpenStreams() == 0; }));
    const size_t before = OpenDescriptors();
    std::vector<int> clients;
    for (int i = 0; i < 250; ++i) {
        const int fd = OpenEventStream(m_server->Port(), m_server->Address());
        ASSERT_GE(fd, 0);
        clients.push_back(fd);
        /* Accepted one by one: the listening socket's backlog is short. */
        ASSERT_TRUE(IterateUntil([&] { return m_server->OpenStreams() == clients.size(); })) << i;
    }
    EXPECT_GE(OpenDescriptors(), before + 2 * clients.size());
    for (int fd : clients) {
        close(fd);
    }
    /* Well before the keep-alive would find out by writing. */
    EXPECT_TRUE(IterateUntil([&] { return m_server->OpenStreams() == 0 && OpenDescriptors() <= before; }))
        << m_server->OpenStreams() << " streams, " << OpenDescriptors() << " descriptors, " << before << " before";
}

TEST_F(PreviewServerTest, StreamsAreBoundedInNumberAndInWhatTheirPeersLeaveUnread)
{
    tilvane::preview::PreviewServer::Settings settings;
    settings.port = 0;
    settings.webDir = m_web;
    settings.maxStreams = 3;
    settings.maxQueuedBytes = 64 * 1024;
    tilvane::preview::PreviewServer small(settings, m_data);
    std::string error;
    ASSERT_TRUE(small.Start(error)) << error;
    std::vector<int> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(OpenEventStream(small.Port(), small.Address()));
        ASSERT_TRUE(IterateUntil([&] { return small.OpenStreams() == std::min<size_t>(i + 1, 3); }));
    }
    /* The fourth was answered 503 and closed. */
    for (int i = 0; i < 200; ++i) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(small.OpenStreams(), 3u);
    /* Peers that never read: their streams end once 64 KiB wait for them
     * beyond what the sockets' buffers took. */
    const std::string large(16 * 1024, 'x');
    for (int i = 0; i < 4000 && small.OpenStreams() > 0; ++i) {
        small.Broadcast("change", "\"" + large + "\"");
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_TRUE(IterateUntil([&] { return small.OpenStreams() == 0; })) << small.OpenStreams();
    for (int fd : clients) {
        close(fd);
    }
}

}  // namespace
