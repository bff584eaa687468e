/*
 * The preview's web server, on libsoup and the GLib main loop of the thread
 * that starts it. It listens on the loopback address only and answers a peer
 * only when its address is a loopback one and the request names this server
 * as its host.
 *
 *   GET /                           the page (index.html of the web folder)
 *   GET /preview.js, /preview.css   its script and style
 *   GET /api/entries                launcher entries
 *   GET /api/entries/ID/sections    sections of an entry
 *   GET /api/sections/ID/tiles      tiles of a section
 *   GET /api/image?path=PATH        an image file under the platform root
 *   GET /api/events                 Server-Sent Events: "change" for each
 *                                   preview event, "hello" when connected
 *
 * Every answer carries a Content-Security-Policy that allows scripts and
 * styles of this server only (no inline script), and "nosniff".
 */
#ifndef TILVANE_PREVIEW_PREVIEW_SERVER_H
#define TILVANE_PREVIEW_PREVIEW_SERVER_H

#include <gio/gio.h>
#include <libsoup/soup.h>

#include <string>
#include <vector>

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

class PreviewServer {
public:
    struct Settings {
        unsigned port = 8470;     /* 0: any free port */
        std::string webDir;       /* index.html, preview.js, preview.css */
        std::string platformRoot; /* images are served from under it */
    };

    PreviewServer(Settings settings, const LauncherData& data);
    ~PreviewServer();
    PreviewServer(const PreviewServer&) = delete;
    PreviewServer& operator=(const PreviewServer&) = delete;

    /* Starts listening on 127.0.0.1; false with `error` filled when it cannot. */
    bool Start(std::string& error);
    /* The page's address, "http://127.0.0.1:PORT/". */
    std::string Address() const;
    unsigned Port() const { return m_port; }

    /* Sends an event of this name and JSON data to every open page. */
    void Broadcast(const std::string& event, const std::string& json);
    size_t OpenStreams() const { return m_streams.size(); }

private:
    static void RequestCB(SoupServer* server, SoupServerMessage* message, const char* path, GHashTable* query,
                          gpointer self);
    static void StreamFinishedCB(SoupServerMessage* message, gpointer self);
    static gboolean KeepAliveCB(gpointer self);

    void Handle(SoupServerMessage* message, const std::string& path, GHashTable* query);
    void HandleApi(SoupServerMessage* message, const std::string& path, GHashTable* query);
    void ServeWebFile(SoupServerMessage* message, const std::string& name, const char* contentType);
    void ServeImage(SoupServerMessage* message, GHashTable* query);
    void OpenStream(SoupServerMessage* message);
    void Send(SoupServerMessage* message, const std::string& text);

    Settings m_settings;
    const LauncherData& m_data;
    SoupServer* m_server = nullptr;
    unsigned m_port = 0;
    std::vector<SoupServerMessage*> m_streams;
    guint m_keepAlive = 0;
};

}  // namespace preview
}  // namespace tilvane

#endif
