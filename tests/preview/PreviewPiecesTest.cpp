/*
 * The launcher preview's pieces in process: the image path guard, the JSON
 * writer, display periods, the host and peer checks, and the web server's
 * answers that need no service (page files, headers, refused image paths,
 * unknown paths), fetched with a libsoup client on the same main loop.
 */
#include <gtest/gtest.h>
#include <libsoup/soup.h>
#include <unistd.h>

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

using tilvane::preview::CheckPeriod;
using tilvane::preview::ImageLookup;
using tilvane::preview::JsonQuote;
using tilvane::preview::JsonWriter;
using tilvane::preview::ResolveImagePath;
using tilvane::test::TempDir;
using tilvane::test::WriteFile;

namespace {

class ImagePathTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_root = m_dir.Path() + "/root";
        ASSERT_EQ(g_mkdir_with_parents((m_root + "/opt/usr/apps/a/res").c_str(), 0700), 0);
        ASSERT_EQ(g_mkdir_with_parents((m_root + "/opt/dbspace").c_str(), 0700), 0);
        WriteFile(m_root + "/opt/usr/apps/a/res/poster.png", "png");
        WriteFile(m_root + "/opt/usr/apps/a/res/notes.txt", "text");
        WriteFile(m_root + "/opt/dbspace/.preview.db", "db");
        WriteFile(m_dir.Path() + "/outside.png", "outside");
    }

    TempDir m_dir;
    std::string m_root;
};

TEST_F(ImagePathTest, AnImageUnderTheRootIsFoundWithItsType)
{
    auto image = ResolveImagePath(m_root, "/opt/usr/apps/a/res/poster.png");
    ASSERT_EQ(image.lookup, ImageLookup::Found) << image.reason;
    EXPECT_EQ(image.contentType, "image/png");
    EXPECT_TRUE(g_str_has_suffix(image.file.c_str(), "/root/opt/usr/apps/a/res/poster.png")) << image.file;
    EXPECT_EQ(ResolveImagePath(m_root, "opt/usr/apps/a/res/./poster.png").lookup, ImageLookup::Found);
}

TEST_F(ImagePathTest, DotDotIsRefusedEvenWhenItWouldStayInside)
{
    for (const char* path : {"../outside.png", "/opt/../../outside.png", "/opt/usr/../usr/apps/a/res/poster.png",
                             "opt/usr/apps/a/res/..", "..\\/outside.png/.."}) {
        EXPECT_EQ(ResolveImagePath(m_root, path).lookup, ImageLookup::Refused) << path;
    }
}

TEST_F(ImagePathTest, HiddenFilesAndOtherFilesAreRefused)
{
    EXPECT_EQ(ResolveImagePath(m_root, "/opt/dbspace/.preview.db").lookup, ImageLookup::Refused);
    EXPECT_EQ(ResolveImagePath(m_root, "/opt/usr/apps/a/res/notes.txt").lookup, ImageLookup::Refused);
    EXPECT_EQ(ResolveImagePath(m_root, std::string("/opt/a.png\0/x", 13)).lookup, ImageLookup::Refused);
}

TEST_F(ImagePathTest, ALinkOutOfTheRootIsRefused)
{
    ASSERT_EQ(symlink((m_dir.Path() + "/outside.png").c_str(), (m_root + "/opt/usr/apps/a/res/link.png").c_str()), 0);
    EXPECT_EQ(ResolveImagePath(m_root, "/opt/usr/apps/a/res/link.png").lookup, ImageLookup::Refused);
}

TEST_F(ImagePathTest, MissingFilesAreNotFound)
{
    EXPECT_EQ(ResolveImagePath(m_root, "/opt/usr/apps/a/res/none.png").lookup, ImageLookup::NotFound);
    EXPECT_EQ(ResolveImagePath(m_root, "").lookup, ImageLookup::NotFound);
    EXPECT_EQ(ResolveImagePath(m_root, "/opt/usr/apps/a/res").lookup, ImageLookup::Refused);  // no image name
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
        settings.platformRoot = m_root;
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

    Reply Get(const std::string& path, const char* host = nullptr)
    {
        Reply reply;
        SoupMessage* message = soup_message_new("GET", (m_server->Address() + path.substr(1)).c_str());
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
    EXPECT_EQ(m_server->Address(), "http://127.0.0.1:" + std::to_string(m_server->Port()) + "/");
}

TEST_F(PreviewServerTest, ImagesOnlyFromUnderTheRoot)
{
    Reply poster = Get("/api/image?path=%2Fres%2Fposter.svg");
    EXPECT_EQ(poster.status, 200u);
    EXPECT_EQ(poster.headers["Content-Type"], "image/svg+xml");
    EXPECT_NE(poster.headers["Content-Security-Policy"].find("sandbox"), std::string::npos);
    Reply outside = Get("/api/image?path=..%2Foutside.svg");
    EXPECT_EQ(outside.status, 403u);
    EXPECT_EQ(outside.body, "{\"error\":\"the path leaves its folder (..)\"}");
    EXPECT_EQ(Get("/api/image?path=%2Fres%2Fnone.svg").status, 404u);
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

}  // namespace
