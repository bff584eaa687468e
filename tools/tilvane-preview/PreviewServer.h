/*
 * The preview's web server, on libsoup and the GLib main loop of the thread
 * that starts it. It listens on the loopback address only, answers a peer
 * only when its address is a loopback one and the request names this server
 * as its host, and only under a secret path of its own: every page, API
 * answer, event stream and image is under /<token>/, the token being a
 * secret made at each start and printed in the address (so that no other
 * local user, nor a page of another site, can read what the preview shows).
 *
 *   GET /<token>/                           the page (index.html of the web folder)
 *   GET /<token>/preview.js, preview.css    its script and style
 *   GET /<token>/api/entries                launcher entries
 *   GET /<token>/api/entries/ID/sections    sections of an entry
 *   GET /<token>/api/entries/ID/icon        the entry's icon file
 *   GET /<token>/api/sections/ID/tiles      tiles of a section
 *   GET /<token>/api/tiles/ID/image         the tile's image file
 *   GET /<token>/api/events                 Server-Sent Events: "change" for
 *                                           each preview event, "hello" when
 *                                           connected
 *
 * Images are read as ImagePath.h says, with the reader that the settings give
 * for the package that owns the row. An event stream ends, and everything it
 * held is released, as soon as its peer closes (or sends anything) and when
 * its peer stops reading; at most `maxStreams` are open at once.
 *
 * Every answer carries a Content-Security-Policy that allows scripts and
 * styles of this server only (no inline script), and "nosniff".
 */
#ifndef TILVANE_PREVIEW_PREVIEW_SERVER_H
#define TILVANE_PREVIEW_PREVIEW_SERVER_H

#include <gio/gio.h>
#include <libsoup/soup.h>

#include <functional>
#include <string>
#include <vector>

#include "ImagePath.h"
#include "LauncherData.h"

namespace tilvane {
namespace preview {

/* True for an IPv4 or IPv6 loopback address. */
bool IsLoopbackPeer(GSocketAddress* address);

/* True when a Host header names this server: 127.0.0.1, localhost or [::1]
 * with the port it listens on. */
bool IsOwnHost(const std::string& host, unsigned port);

/* Splits an API path ("/api/entries/12/sections") into its words. */
std::vector<std::string> PathWords(const std::string& path);

/* A new secret for the address: 32 hex digits from the system's random source. */
std::string NewToken();

/* Compares a secret without telling, by the time it takes, how much matched. */
bool SameSecret(const std::string& given, const std::string& secret);

class PreviewServer {
public:
    /* Who may read the images of `package`: filled and true, or false with
     * the reason it may not be served. */
    using ReaderOf = std::function<bool(const std::string& package, ImageReader& reader, std::string& why)>;

    struct Settings {
        unsigned port = 8470;     /* 0: any free port */
        std::string webDir;       /* index.html, preview.js, preview.css */
        std::string imagesDir;    /* <platform root>/opt/usr/apps */
        std::string token;        /* the secret path; NewToken() when empty */
        size_t maxStreams = 64;   /* event streams open at once */
        size_t maxQueuedBytes = 1024 * 1024; /* event bytes a stream's peer has not read yet */
        ReaderOf readerOf;        /* the preview's own privileges when empty */
    };

    PreviewServer(Settings settings, const LauncherData& data);
    ~PreviewServer();
    PreviewServer(const PreviewServer&) = delete;
    PreviewServer& operator=(const PreviewServer&) = delete;

    /* Starts listening on 127.0.0.1; false with `error` filled when it cannot. */
    bool Start(std::string& error);
    /* The page's address, "http://127.0.0.1:PORT/<token>/". */
    std::string Address() const;
    unsigned Port() const { return m_port; }

    /* Sends an event of this name and JSON data to every open page. */
    void Broadcast(const std::string& event, const std::string& json);
    size_t OpenStreams() const { return m_streams.size(); }

private:
    struct Stream {
        SoupServerMessage* message;
        GSource* peerWatch;
        size_t queued; /* appended, not yet written to the socket */
    };

    static void RequestCB(SoupServer* server, SoupServerMessage* message, const char* path, GHashTable* query,
                          gpointer self);
    static void StreamFinishedCB(SoupServerMessage* message, gpointer self);
    static void StreamWroteCB(SoupServerMessage* message, guint size, gpointer self);
    static gboolean PeerActivityCB(GSocket* socket, GIOCondition condition, gpointer self);
    static gboolean KeepAliveCB(gpointer self);

    void Handle(SoupServerMessage* message, const std::string& path);
    /* The path after the secret, or false (answered) when it is not there. */
    bool StripSecret(SoupServerMessage* message, const std::string& path, std::string& rest);
    void HandleApi(SoupServerMessage* message, const std::string& path);
    void ServeWebFile(SoupServerMessage* message, const std::string& name, const char* contentType);
    void ServeImage(SoupServerMessage* message, bool found, const ImageSource& source);
    void OpenStream(SoupServerMessage* message);
    void Send(Stream& stream, const std::string& text);
    Stream* FindStream(SoupServerMessage* message);
    void EndStream(SoupServerMessage* message, const char* why);

    Settings m_settings;
    const LauncherData& m_data;
    SoupServer* m_server = nullptr;
    unsigned m_port = 0;
    std::vector<Stream> m_streams;
    guint m_keepAlive = 0;
};

}  // namespace preview
}  // namespace tilvane

#endif
