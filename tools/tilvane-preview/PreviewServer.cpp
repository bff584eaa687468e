#include "PreviewServer.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "ImagePath.h"
#include "Json.h"

namespace tilvane {
namespace preview {

namespace {

const char kContentSecurityPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' http: https: data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
const char kJson[] = "application/json; charset=utf-8";
const guint kKeepAliveSeconds = 15;

void SetCommonHeaders(SoupServerMessage* message)
{
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    soup_message_headers_replace(headers, "Content-Security-Policy", kContentSecurityPolicy);
    soup_message_headers_replace(headers, "X-Content-Type-Options", "nosniff");
    soup_message_headers_replace(headers, "Referrer-Policy", "no-referrer");
    soup_message_headers_replace(headers, "X-Frame-Options", "DENY");
    soup_message_headers_replace(headers, "Cache-Control", "no-store");
}

void Respond(SoupServerMessage* message, unsigned status, const char* contentType, const std::string& body)
{
    soup_server_message_set_status(message, status, nullptr);
    soup_server_message_set_response(message, contentType, SOUP_MEMORY_COPY, body.data(), body.size());
}

void RespondError(SoupServerMessage* message, unsigned status, const std::string& text)
{
    JsonWriter json;
    json.BeginObject().Key("error").String(text).EndObject();
    Respond(message, status, kJson, json.Text());
}

/* A row id from an API path word: digits only. */
bool ParseId(const std::string& word, int64_t& id)
{
    if (word.empty() || word.size() > 18 || !std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    id = g_ascii_strtoll(word.c_str(), nullptr, 10);
    return true;
}

std::string PeerText(GSocketAddress* address)
{
    if (address == nullptr || !G_IS_INET_SOCKET_ADDRESS(address)) {
        return "(unknown)";
    }
    gchar* text = g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address)));
    std::string result = text;
    g_free(text);
    return result;
}

}  // namespace

bool IsLoopbackPeer(GSocketAddress* address)
{
    if (address == nullptr || !G_IS_INET_SOCKET_ADDRESS(address)) {
        return false;
    }
    return g_inet_address_get_is_loopback(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address)));
}

bool IsOwnHost(const std::string& host, unsigned port)
{
    const std::string suffix = ":" + std::to_string(port);
    for (const char* name : {"127.0.0.1", "localhost", "[::1]"}) {
        if (host == std::string(name) + suffix || (port == 80 && host == name)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> PathWords(const std::string& path)
{
    std::vector<std::string> words;
    std::stringstream stream(path);
    std::string word;
    while (std::getline(stream, word, '/')) {
        if (!word.empty()) {
            words.push_back(word);
        }
    }
    return words;
}

PreviewServer::PreviewServer(Settings settings, const LauncherData& data) : m_settings(std::move(settings)), m_data(data)
{
}

PreviewServer::~PreviewServer()
{
    if (m_keepAlive != 0) {
        g_source_remove(m_keepAlive);
    }
    for (SoupServerMessage* stream : m_streams) {
        g_signal_handlers_disconnect_by_data(stream, this);
        g_object_unref(stream);
    }
    m_streams.clear();
    if (m_server != nullptr) {
        soup_server_disconnect(m_server);
        g_object_unref(m_server);
    }
}

bool PreviewServer::Start(std::string& error)
{
    m_server = soup_server_new("server-header", "tilvane-preview", nullptr);
    soup_server_add_handler(m_server, nullptr, RequestCB, this, nullptr);

    GInetAddress* loopback = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
    GSocketAddress* address = g_inet_socket_address_new(loopback, static_cast<guint16>(m_settings.port));
    g_object_unref(loopback);
    GError* listenError = nullptr;
    gboolean listening =
        soup_server_listen(m_server, address, static_cast<SoupServerListenOptions>(0), &listenError);
    g_object_unref(address);
    if (!listening) {
        error = listenError != nullptr ? listenError->message : "cannot listen";
        g_clear_error(&listenError);
        return false;
    }
    GSList* uris = soup_server_get_uris(m_server);
    if (uris != nullptr) {
        m_port = static_cast<unsigned>(g_uri_get_port(static_cast<GUri*>(uris->data)));
    }
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    m_keepAlive = g_timeout_add_seconds(kKeepAliveSeconds, KeepAliveCB, this);
    return true;
}

std::string PreviewServer::Address() const
{
    return "http://127.0.0.1:" + std::to_string(m_port) + "/";
}

void PreviewServer::RequestCB(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                              GHashTable* query, gpointer self)
{
    static_cast<PreviewServer*>(self)->Handle(message, path != nullptr ? path : "/", query);
}

void PreviewServer::Handle(SoupServerMessage* message, const std::string& path, GHashTable* query)
{
    SetCommonHeaders(message);
    GSocketAddress* peer = soup_server_message_get_remote_address(message);
    if (!IsLoopbackPeer(peer)) {
        std::fprintf(stderr, "tilvane-preview: refused a request from %s (not a loopback address)\n",
                     PeerText(peer).c_str());
        RespondError(message, SOUP_STATUS_FORBIDDEN, "only this machine may use the preview");
        return;
    }
    const char* host = soup_message_headers_get_one(soup_server_message_get_request_headers(message), "Host");
    if (host == nullptr || !IsOwnHost(host, m_port)) {
        RespondError(message, SOUP_STATUS_FORBIDDEN, "unknown host name");
        return;
    }
    const char* method = soup_server_message_get_method(message);
    if (method != SOUP_METHOD_GET && method != SOUP_METHOD_HEAD) {
        RespondError(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "the preview only reads");
        return;
    }
    if (path == "/" || path == "/index.html") {
        ServeWebFile(message, "index.html", "text/html; charset=utf-8");
    } else if (path == "/preview.js") {
        ServeWebFile(message, "preview.js", "text/javascript; charset=utf-8");
    } else if (path == "/preview.css") {
        ServeWebFile(message, "preview.css", "text/css; charset=utf-8");
    } else if (path.rfind("/api/", 0) == 0) {
        HandleApi(message, path, query);
    } else {
        RespondError(message, SOUP_STATUS_NOT_FOUND, "no such page");
    }
}

void PreviewServer::HandleApi(SoupServerMessage* message, const std::string& path, GHashTable* query)
{
    const std::vector<std::string> words = PathWords(path);
    int64_t id = 0;
    Answer answer;
    if (words.size() == 2 && words[1] == "entries") {
        answer = m_data.Entries();
    } else if (words.size() == 4 && words[1] == "entries" && words[3] == "sections" && ParseId(words[2], id)) {
        answer = m_data.Sections(id);
    } else if (words.size() == 4 && words[1] == "sections" && words[3] == "tiles" && ParseId(words[2], id)) {
        answer = m_data.Tiles(id);
    } else if (words.size() == 2 && words[1] == "image") {
        ServeImage(message, query);
        return;
    } else if (words.size() == 2 && words[1] == "events") {
        OpenStream(message);
        return;
    } else {
        RespondError(message, SOUP_STATUS_NOT_FOUND, "no such API path");
        return;
    }
    Respond(message, answer.status, kJson, answer.json);
}

void PreviewServer::ServeWebFile(SoupServerMessage* message, const std::string& name, const char* contentType)
{
    gchar* contents = nullptr;
    gsize length = 0;
    const std::string file = m_settings.webDir + "/" + name;
    if (!g_file_get_contents(file.c_str(), &contents, &length, nullptr)) {
        RespondError(message, SOUP_STATUS_NOT_FOUND, "the page's file " + name + " is missing");
        return;
    }
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(message, contentType, SOUP_MEMORY_TAKE, contents, length);
}

void PreviewServer::ServeImage(SoupServerMessage* message, GHashTable* query)
{
    const char* requested = query != nullptr ? static_cast<const char*>(g_hash_table_lookup(query, "path")) : nullptr;
    ImageFile image = ResolveImagePath(m_settings.platformRoot, requested != nullptr ? requested : "");
    if (image.lookup == ImageLookup::Refused) {
        RespondError(message, SOUP_STATUS_FORBIDDEN, image.reason);
        return;
    }
    gchar* contents = nullptr;
    gsize length = 0;
    if (image.lookup == ImageLookup::NotFound ||
        !g_file_get_contents(image.file.c_str(), &contents, &length, nullptr)) {
        RespondError(message, SOUP_STATUS_NOT_FOUND, image.reason.empty() ? "cannot read the image" : image.reason);
        return;
    }
    // An image opened on its own (an SVG above all) runs in a sandbox.
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Content-Security-Policy",
                                 "default-src 'none'; style-src 'unsafe-inline'; sandbox");
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(message, image.contentType.c_str(), SOUP_MEMORY_TAKE, contents, length);
}

void PreviewServer::OpenStream(SoupServerMessage* message)
{
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    soup_message_headers_set_content_type(headers, "text/event-stream", nullptr);
    soup_message_body_set_accumulate(soup_server_message_get_response_body(message), FALSE);
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    g_signal_connect(message, "finished", G_CALLBACK(StreamFinishedCB), this);
    m_streams.push_back(static_cast<SoupServerMessage*>(g_object_ref(message)));
    std::fprintf(stderr, "tilvane-preview: a page follows the changes (%zu open)\n", m_streams.size());
    JsonWriter json;
    json.BeginObject().Key("streams").Integer(static_cast<int64_t>(m_streams.size())).EndObject();
    Send(message, "retry: 1000\nevent: hello\ndata: " + json.Text() + "\n\n");
}

void PreviewServer::Send(SoupServerMessage* message, const std::string& text)
{
    soup_message_body_append(soup_server_message_get_response_body(message), SOUP_MEMORY_COPY, text.data(),
                             text.size());
    soup_server_message_unpause(message);
}

void PreviewServer::StreamFinishedCB(SoupServerMessage* message, gpointer self)
{
    PreviewServer* server = static_cast<PreviewServer*>(self);
    auto it = std::find(server->m_streams.begin(), server->m_streams.end(), message);
    if (it != server->m_streams.end()) {
        server->m_streams.erase(it);
        g_signal_handlers_disconnect_by_data(message, self);
        g_object_unref(message);
        std::fprintf(stderr, "tilvane-preview: a page went away (%zu open)\n", server->m_streams.size());
    }
}

gboolean PreviewServer::KeepAliveCB(gpointer self)
{
    PreviewServer* server = static_cast<PreviewServer*>(self);
    for (SoupServerMessage* stream : std::vector<SoupServerMessage*>(server->m_streams)) {
        server->Send(stream, ": still here\n\n");
    }
    return G_SOURCE_CONTINUE;
}

void PreviewServer::Broadcast(const std::string& event, const std::string& json)
{
    const std::string text = "event: " + event + "\ndata: " + json + "\n\n";
    for (SoupServerMessage* stream : std::vector<SoupServerMessage*>(m_streams)) {
        Send(stream, text);
    }
}

}  // namespace preview
}  // namespace tilvane
