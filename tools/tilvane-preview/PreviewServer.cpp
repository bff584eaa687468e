#include "PreviewServer.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "Json.h"

namespace tilvane {
namespace preview {

namespace {

const char kContentSecurityPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' http: https: data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
const char kJson[] = "application/json; charset=utf-8";
const guint kKeepAliveSeconds = 15;
const size_t kTokenBytes = 16;

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

std::string NewToken()
{
    unsigned char bytes[kTokenBytes];
    size_t filled = 0;
    while (filled < sizeof(bytes)) {
        const ssize_t n = getrandom(bytes + filled, sizeof(bytes) - filled, 0);
        if (n > 0) {
            filled += static_cast<size_t>(n);
        }
    }
    static const char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char byte : bytes) {
        token += kHex[byte >> 4];
        token += kHex[byte & 0x0f];
    }
    return token;
}

bool SameSecret(const std::string& given, const std::string& secret)
{
    unsigned char differ = given.size() == secret.size() ? 0 : 1;
    for (size_t i = 0; i < secret.size(); ++i) {
        differ |= static_cast<unsigned char>(secret[i] ^ (i < given.size() ? given[i] : 0));
    }
    return differ == 0 && !secret.empty();
}

PreviewServer::PreviewServer(Settings settings, const LauncherData& data) : m_settings(std::move(settings)), m_data(data)
{
    if (m_settings.token.empty()) {
        m_settings.token = NewToken();
    }
}

PreviewServer::~PreviewServer()
{
    if (m_keepAlive != 0) {
        g_source_remove(m_keepAlive);
    }
    for (Stream& stream : m_streams) {
        g_source_destroy(stream.peerWatch);
        g_source_unref(stream.peerWatch);
        g_signal_handlers_disconnect_by_data(stream.message, this);
        g_object_unref(stream.message);
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
    return "http://127.0.0.1:" + std::to_string(m_port) + "/" + m_settings.token + "/";
}

void PreviewServer::RequestCB(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                              GHashTable* /*query*/, gpointer self)
{
    static_cast<PreviewServer*>(self)->Handle(message, path != nullptr ? path : "/");
}

bool PreviewServer::StripSecret(SoupServerMessage* message, const std::string& path, std::string& rest)
{
    const size_t end = path.find('/', 1);
    const std::string first = path.substr(1, end == std::string::npos ? std::string::npos : end - 1);
    if (!SameSecret(first, m_settings.token)) {
        RespondError(message, SOUP_STATUS_FORBIDDEN,
                     "the preview answers only under the secret address it printed when it started");
        return false;
    }
    if (end == std::string::npos) {
        soup_server_message_set_redirect(message, SOUP_STATUS_FOUND, ("/" + m_settings.token + "/").c_str());
        return false;
    }
    rest = path.substr(end);
    return true;
}

void PreviewServer::Handle(SoupServerMessage* message, const std::string& path)
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
    std::string rest;
    if (!StripSecret(message, path, rest)) {
        return;
    }
    if (rest == "/" || rest == "/index.html") {
        ServeWebFile(message, "index.html", "text/html; charset=utf-8");
    } else if (rest == "/preview.js") {
        ServeWebFile(message, "preview.js", "text/javascript; charset=utf-8");
    } else if (rest == "/preview.css") {
        ServeWebFile(message, "preview.css", "text/css; charset=utf-8");
    } else if (rest.rfind("/api/", 0) == 0) {
        HandleApi(message, rest);
    } else {
        RespondError(message, SOUP_STATUS_NOT_FOUND, "no such page");
    }
}

void PreviewServer::HandleApi(SoupServerMessage* message, const std::string& path)
{
    const std::vector<std::string> words = PathWords(path);
    int64_t id = 0;
    const bool withId = words.size() == 4 && ParseId(words[2], id);
    ImageSource source;
    Answer answer;
    if (words.size() == 2 && words[1] == "entries") {
        answer = m_data.Entries();
    } else if (withId && words[1] == "entries" && words[3] == "sections") {
        answer = m_data.Sections(id);
    } else if (withId && words[1] == "sections" && words[3] == "tiles") {
        answer = m_data.Tiles(id);
    } else if (withId && words[1] == "entries" && words[3] == "icon") {
        ServeImage(message, m_data.EntryIcon(id, source), source);
        return;
    } else if (withId && words[1] == "tiles" && words[3] == "image") {
        ServeImage(message, m_data.TileImage(id, source), source);
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

void PreviewServer::ServeImage(SoupServerMessage* message, bool found, const ImageSource& source)
{
    if (!found || source.path.empty()) {
        RespondError(message, SOUP_STATUS_NOT_FOUND, found ? "the row names no image file" : "no such row");
        return;
    }
    ImageReader reader;
    std::string why;
    if (m_settings.readerOf && !m_settings.readerOf(source.package, reader, why)) {
        RespondError(message, SOUP_STATUS_FORBIDDEN, why);
        return;
    }
    ImageFile image = ReadImage(m_settings.imagesDir, source.path, reader);
    if (image.lookup != ImageLookup::Found) {
        RespondError(message, image.lookup == ImageLookup::Refused ? SOUP_STATUS_FORBIDDEN : SOUP_STATUS_NOT_FOUND,
                     image.reason);
        return;
    }
    // An image opened on its own (an SVG above all) runs in a sandbox.
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Content-Security-Policy",
                                 "default-src 'none'; style-src 'unsafe-inline'; sandbox");
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(message, image.contentType.c_str(), SOUP_MEMORY_COPY, image.data.data(),
                                     image.data.size());
}

void PreviewServer::OpenStream(SoupServerMessage* message)
{
    GSocket* socket = soup_server_message_get_socket(message);
    if (m_streams.size() >= m_settings.maxStreams || socket == nullptr) {
        RespondError(message, SOUP_STATUS_SERVICE_UNAVAILABLE,
                     "the preview follows at most " + std::to_string(m_settings.maxStreams) + " pages at once");
        return;
    }
    SoupMessageHeaders* headers = soup_server_message_get_response_headers(message);
    soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    soup_message_headers_set_content_type(headers, "text/event-stream", nullptr);
    soup_message_headers_replace(headers, "Connection", "close");
    soup_message_body_set_accumulate(soup_server_message_get_response_body(message), FALSE);
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    g_signal_connect(message, "finished", G_CALLBACK(StreamFinishedCB), this);
    g_signal_connect(message, "wrote-body-data", G_CALLBACK(StreamWroteCB), this);
    /* A peer of an event stream sends nothing more: readable means it closed
     * (or misbehaves), and the stream ends at once. */
    GSource* watch = g_socket_create_source(socket, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), nullptr);
    g_source_set_callback(watch, reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(PeerActivityCB)), this,
                          nullptr);
    g_source_attach(watch, nullptr);
    m_streams.push_back(Stream{static_cast<SoupServerMessage*>(g_object_ref(message)), watch, 0});
    std::fprintf(stderr, "tilvane-preview: a page follows the changes (%zu open)\n", m_streams.size());
    JsonWriter json;
    json.BeginObject().Key("streams").Integer(static_cast<int64_t>(m_streams.size())).EndObject();
    Send(m_streams.back(), "retry: 1000\nevent: hello\ndata: " + json.Text() + "\n\n");
}

PreviewServer::Stream* PreviewServer::FindStream(SoupServerMessage* message)
{
    auto it = std::find_if(m_streams.begin(), m_streams.end(),
                           [message](const Stream& stream) { return stream.message == message; });
    return it == m_streams.end() ? nullptr : &*it;
}

void PreviewServer::Send(Stream& stream, const std::string& text)
{
    if (stream.queued + text.size() > m_settings.maxQueuedBytes) {
        EndStream(stream.message, "it does not read");
        return;
    }
    stream.queued += text.size();
    soup_message_body_append(soup_server_message_get_response_body(stream.message), SOUP_MEMORY_COPY, text.data(),
                             text.size());
    soup_server_message_unpause(stream.message);
}

/* Shuts the connection down (a peer that does not read would never take
 * the end of the response) and ends the response; libsoup then fails to
 * write, closes the connection and says "finished", which releases the
 * stream. */
void PreviewServer::EndStream(SoupServerMessage* message, const char* why)
{
    Stream* stream = FindStream(message);
    if (stream == nullptr || stream->peerWatch == nullptr) {
        return;
    }
    std::fprintf(stderr, "tilvane-preview: a page's stream ends: %s\n", why);
    g_source_destroy(stream->peerWatch);
    g_source_unref(stream->peerWatch);
    stream->peerWatch = nullptr;
    GSocket* socket = soup_server_message_get_socket(message);
    if (socket != nullptr) {
        g_socket_shutdown(socket, TRUE, TRUE, nullptr);
    }
    soup_message_body_complete(soup_server_message_get_response_body(message));
    soup_server_message_unpause(message);
}

gboolean PreviewServer::PeerActivityCB(GSocket* socket, GIOCondition /*condition*/, gpointer self)
{
    PreviewServer* server = static_cast<PreviewServer*>(self);
    for (Stream& stream : server->m_streams) {
        if (soup_server_message_get_socket(stream.message) == socket && stream.peerWatch != nullptr) {
            /* The source is destroyed by EndStream; its callback must not
             * run again meanwhile. */
            server->EndStream(stream.message, "its page went away");
            break;
        }
    }
    return G_SOURCE_REMOVE;
}

void PreviewServer::StreamWroteCB(SoupServerMessage* message, guint size, gpointer self)
{
    Stream* stream = static_cast<PreviewServer*>(self)->FindStream(message);
    if (stream != nullptr) {
        stream->queued -= std::min<size_t>(stream->queued, size);
    }
}

void PreviewServer::StreamFinishedCB(SoupServerMessage* message, gpointer self)
{
    PreviewServer* server = static_cast<PreviewServer*>(self);
    auto it = std::find_if(server->m_streams.begin(), server->m_streams.end(),
                           [message](const Stream& stream) { return stream.message == message; });
    if (it == server->m_streams.end()) {
        return;
    }
    if (it->peerWatch != nullptr) {
        g_source_destroy(it->peerWatch);
        g_source_unref(it->peerWatch);
    }
    server->m_streams.erase(it);
    g_signal_handlers_disconnect_by_data(message, self);
    g_object_unref(message);
    std::fprintf(stderr, "tilvane-preview: a page went away (%zu open)\n", server->m_streams.size());
}

gboolean PreviewServer::KeepAliveCB(gpointer self)
{
    PreviewServer* server = static_cast<PreviewServer*>(self);
    std::vector<SoupServerMessage*> messages;
    for (const Stream& stream : server->m_streams) {
        messages.push_back(stream.message);
    }
    for (SoupServerMessage* message : messages) {
        Stream* stream = server->FindStream(message);
        if (stream != nullptr && stream->peerWatch != nullptr) {
            server->Send(*stream, ": still here\n\n");
        }
    }
    return G_SOURCE_CONTINUE;
}

void PreviewServer::Broadcast(const std::string& event, const std::string& json)
{
    const std::string text = "event: " + event + "\ndata: " + json + "\n\n";
    std::vector<SoupServerMessage*> messages;
    for (const Stream& stream : m_streams) {
        messages.push_back(stream.message);
    }
    for (SoupServerMessage* message : messages) {
        Stream* stream = FindStream(message);
        if (stream != nullptr && stream->peerWatch != nullptr) {
            Send(*stream, text);
        }
    }
}

}  // namespace preview
}  // namespace tilvane
