/*
 * The real service end to end: the `tilvane` binary on the benchmark bus with
 * a database of several applications (accelerators, sections, tiles with every
 * column filled), requests made through the client library as an installed
 * application, against baselines in the same run:
 *   - a bare GDBus server in a process of its own that answers the same
 *     method with a reply of the same shape and size the service gave (the
 *     caller builds the same payload with the same bundle and GVariant calls),
 *     peer to peer on a socket of its own: the client library reaches the
 *     service on its direct request socket, so both travel the same way;
 *     The bare caller reads a reply as the client library does (a select's
 *     rows decoded into the client's row set);
 *   - the physical floor: the request's message carried over a raw unix
 *     socket to the same bare process and its reply's bytes back, then raw
 *     SQLite running the request's statement in this process, prepared once;
 *   - raw SQLite selecting the same rows from the same file, for selects.
 * Both request interfaces are measured: the content library's and the data
 * control's. Subject and baseline are timed in alternation (A B A B); every
 * repetition gives one ratio. Also measured: the time from exec to the first
 * answered request, and the idle service's resident and private (USS) sizes.
 */
#include <fcntl.h>
#include <gio/gio.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <glib-unix.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <bundle.h>
#include <host_control.h>
#include <tilvane_client.h>
#include <tilvane_schema.h>
#include <tilvane_publisher.h>
#include <tzplatform_config.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchBus.h"
#include "BenchData.h"
#include "BenchFigures.h"
#include "BenchProvider.h"
#include "PreviewApps.h"
#include "TilesModel.h"
#include "app/allocator.h"
#include "bundle/bundle_limits.h"
#include "bus/sdbus_source.h"
#include "bus/sdbus_variant.h"
#include "client/request_socket.h"
#include "client/row_decoder.h"
#include "client/typed_rows.h"
#include "requests/request_names.h"

extern char** environ;

namespace {

using namespace tilvane::client;
using Clock = std::chrono::steady_clock;

constexpr char kServiceAppId[] = "com.quillon.px.tilvane";
constexpr char kClientPackage[] = "org.example.bench";
constexpr char kClientApp[] = "org.example.bench.ui";
const char* const kOtherPackages[] = {"org.example.news", "org.example.sports", "org.example.movies",
                                      "org.example.music"};
constexpr int kSectionsPerApp = 10;
constexpr int kClientTiles = 1000;

constexpr char kBareName[] = "org.tilvane.BenchBare";
constexpr char kBarePath[] = "/org/tilvane/Content";
constexpr char kContentInterface[] = "org.tilvane.Content";
constexpr char kDataControlPath[] = "/org/tilvane/DataControl";
constexpr char kDataControlInterface[] = "org.tilvane.DataControl";
constexpr const char* kProviderId = tilvane::client::schema::kProviderId;
constexpr char kDataId[] = "tiles";

/* The request methods the bare server answers, as the service publishes
 * them; the index of an entry names it on the raw socket. */
struct BareMethod
{
    const char* path;
    const char* interface;
    const char* method;
    const char* replyType;
};
enum BareKind { kInsert, kBulkInsert, kSelect, kUpdate, kDelete, kGetRowIds, kDcInsert, kDcSelect, kDcUpdate, kDcDelete };
const BareMethod kBareMethods[] = {
    {kBarePath, kContentInterface, "Insert", "(ixs)"},
    {kBarePath, kContentInterface, "BulkInsert", "(ixs)"},
    {kBarePath, kContentInterface, "Select", "(ay)"},
    {kBarePath, kContentInterface, "Update", "(ixs)"},
    {kBarePath, kContentInterface, "Delete", "(ixs)"},
    {kBarePath, kContentInterface, "GetRowIds", "(ax)"},
    {kDataControlPath, kDataControlInterface, "Insert", "(x)"},
    {kDataControlPath, kDataControlInterface, "Select", "(ay)"},
    {kDataControlPath, kDataControlInterface, "Update", "(x)"},
    {kDataControlPath, kDataControlInterface, "Delete", "(x)"},
};

std::string SizeName(int tiles)
{
    return tiles >= 1000 ? std::to_string(tiles / 1000) + "k tiles" : std::to_string(tiles) + " tiles";
}

/* ---- the bare server ---------------------------------------------------------- */

std::string ReplyFile(const std::string& directory, BareKind kind)
{
    return directory + "/" + kBareMethods[kind].interface + "." + kBareMethods[kind].method + ".reply";
}

/* The kept reply of every method, in the order of kBareMethods. */
struct BareReplies
{
    std::vector<GVariant*> byKind;
};

void BareCallCB(GDBusConnection*, const gchar*, const gchar*, const gchar* interface, const gchar* method, GVariant*,
                GDBusMethodInvocation* invocation, gpointer userData)
{
    const BareReplies* replies = static_cast<BareReplies*>(userData);
    for (size_t kind = 0; kind < replies->byKind.size(); ++kind) {
        if (std::strcmp(kBareMethods[kind].interface, interface) == 0 &&
            std::strcmp(kBareMethods[kind].method, method) == 0) {
            g_dbus_method_invocation_return_value(invocation, replies->byKind[kind]);
            return;
        }
    }
    g_dbus_method_invocation_return_dbus_error(invocation, "org.tilvane.Request.Error.NotServed", "no reply kept");
}

/* The bare server's peer-to-peer socket: the service's requests travel on its
 * direct request socket, so the bare call does too. */
std::string BareSocket(const std::string& directory)
{
    return directory + "/bare.sock";
}

/* The request interfaces of the service, as it declares them. */
struct BareObject {
    GDBusInterfaceInfo* content;
    GDBusInterfaceInfo* dataControl;
    const GDBusInterfaceVTable* vtable;
    BareReplies* replies;
};

bool RegisterBare(GDBusConnection* connection, const BareObject& object)
{
    return g_dbus_connection_register_object(connection, kBarePath, object.content, object.vtable, object.replies,
                                             nullptr, nullptr) != 0 &&
           g_dbus_connection_register_object(connection, kDataControlPath, object.dataControl, object.vtable,
                                             object.replies, nullptr, nullptr) != 0;
}

/* A call on the bare server's request socket: read as the service's request
 * socket reads a call (sd-bus, its body into a GVariant tuple), answered with
 * the kept reply written as the service writes its replies. */
int BareDirectCallCB(sd_bus_message* call, void* data, sd_bus_error*)
{
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    const BareReplies* replies = static_cast<const BareReplies*>(data);
    std::string error;
    tilvane::host::GVariantPtr arguments = tilvane::host::ReadMessageBody(call, nullptr, error);
    benchmark::DoNotOptimize(arguments);
    const char* interface = sd_bus_message_get_interface(call);
    const char* method = sd_bus_message_get_member(call);
    for (size_t kind = 0; kind < replies->byKind.size() && interface != nullptr && method != nullptr; ++kind) {
        if (std::strcmp(kBareMethods[kind].interface, interface) == 0 &&
            std::strcmp(kBareMethods[kind].method, method) == 0) {
            sd_bus_message* reply = nullptr;
            if (sd_bus_message_new_method_return(call, &reply) >= 0 &&
                tilvane::host::AppendMessageBody(reply, replies->byKind[kind]) >= 0) {
                sd_bus_send(nullptr, reply, nullptr);
            }
            sd_bus_message_unref(reply);
            return 1;
        }
    }
    sd_bus_reply_method_errorf(call, "org.tilvane.Request.Error.NotServed", "no reply kept");
    return 1;
}

gboolean BareAcceptCB(gint fd, GIOCondition, gpointer data)
{
    static sd_id128_t id = [] {
        sd_id128_t made{};
        sd_id128_randomize(&made);
        return made;
    }();
    for (int peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); peer >= 0;
         peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) {
        tilvane::host::SdBusPtr bus = tilvane::host::SdBusOnSocket(peer, &id);
        if (!bus || sd_bus_add_filter(bus.get(), nullptr, BareDirectCallCB, data) < 0) {
            continue;
        }
        /* The context keeps the source, the source the connection: this
         * reference goes without closing it. */
        g_source_unref(tilvane::host::AttachSdBus(bus.get(), nullptr, 4, nullptr, nullptr));
        sd_bus_unref(bus.release());
    }
    return G_SOURCE_CONTINUE;
}

/* The bare server's request socket, served as the service serves its own. */
bool ListenPeerToPeer(const std::string& path, BareReplies* replies)
{
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 64) != 0) {
        return false;
    }
    g_unix_fd_add(fd, G_IO_IN, BareAcceptCB, replies);
    return true;
}

/* ---- the raw socket: the same bytes, no D-Bus ------------------------------------ */

/* The raw socket beside the bare server's: a request is its kind (one byte),
 * its length (4 bytes) and its message's bytes; the answer is a length and
 * the bytes of the reply message the bus would carry. */
std::string RawSocketPath(const std::string& directory)
{
    return directory + "/raw.sock";
}

bool ReadFull(int fd, void* data, size_t size)
{
    char* at = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = read(fd, at, size);
        if (got <= 0) {
            if (got < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

/* Writes a 4-byte length, then `data` (and for a request, the kind before). */
bool WriteFramed(int fd, const std::string& data, int kind = -1)
{
    char head[5];
    const uint32_t length = static_cast<uint32_t>(data.size());
    size_t headSize = 0;
    if (kind >= 0) {
        head[headSize++] = static_cast<char>(kind);
    }
    std::memcpy(head + headSize, &length, sizeof length);
    headSize += sizeof length;
    iovec parts[2] = {{head, headSize}, {const_cast<char*>(data.data()), data.size()}};
    size_t left = headSize + data.size();
    int part = 0;
    while (left > 0) {
        const ssize_t wrote = writev(fd, parts + part, 2 - part);
        if (wrote <= 0) {
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        left -= static_cast<size_t>(wrote);
        for (size_t done = static_cast<size_t>(wrote); done > 0 && part < 2;) {
            const size_t step = std::min(done, parts[part].iov_len);
            parts[part].iov_base = static_cast<char*>(parts[part].iov_base) + step;
            parts[part].iov_len -= step;
            done -= step;
            if (parts[part].iov_len == 0) {
                ++part;
            }
        }
    }
    return true;
}

/* Reads a length and that many bytes into `data`. */
bool ReadFramed(int fd, std::string& data)
{
    uint32_t length = 0;
    if (!ReadFull(fd, &length, sizeof length)) {
        return false;
    }
    data.resize(length);
    return ReadFull(fd, &data[0], length);
}

/* The bytes of `body` in a message of `kind`'s method (or its reply). */
std::string MessageBytes(BareKind kind, GVariant* body, bool reply)
{
    const BareMethod& method = kBareMethods[kind];
    GDBusMessage* call = g_dbus_message_new_method_call(nullptr, method.path, method.interface, method.method);
    g_dbus_message_set_serial(call, 7);
    GDBusMessage* message = call;
    if (reply) {
        message = g_dbus_message_new_method_reply(call);
        g_dbus_message_set_serial(message, 8);
    }
    g_dbus_message_set_body(message, body);
    gsize size = 0;
    guchar* blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    std::string bytes(reinterpret_cast<const char*>(blob), size);
    g_free(blob);
    if (message != call) {
        g_object_unref(message);
    }
    g_object_unref(call);
    return bytes;
}

void ServeRawPeer(int fd, const std::vector<std::string>* replies)
{
    std::string request;
    unsigned char kind = 0;
    while (ReadFull(fd, &kind, 1) && ReadFramed(fd, request) && kind < replies->size() &&
           WriteFramed(fd, (*replies)[kind])) {
    }
    close(fd);
}

bool ListenRaw(const std::string& path, const BareReplies& replies)
{
    static std::vector<std::string> messages;
    for (size_t kind = 0; kind < replies.byKind.size(); ++kind) {
        messages.push_back(MessageBytes(static_cast<BareKind>(kind), replies.byKind[kind], true));
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    unlink(path.c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 8) != 0) {
        return false;
    }
    std::thread([listener] {
        for (;;) {
            const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (peer >= 0) {
                std::thread(ServeRawPeer, peer, &messages).detach();
            }
        }
    }).detach();
    return true;
}

}  // namespace

/* GLib's slice allocator on malloc and glibc's malloc without its
 * per-thread cache, as the installed units run the service
 * (packaging/systemd), so that its memory is measured as it ships; the bare
 * server runs so too, and sets malloc up as the service does. */
std::vector<std::string> AllocatorEnvironment()
{
    return {"G_SLICE=always-malloc", "GLIBC_TUNABLES=glibc.malloc.tcache_count=0"};
}

/* Entry of the bare server process: tilvane_bench --bare-server FD DIRECTORY.
 * Answers each method of the request interfaces with the reply kept in
 * DIRECTORY/<interface>.<method>.reply, loaded once at start, on the bus,
 * peer to peer, and on the raw socket (the same reply's message bytes). */
int RunBareServer(int readyFd, const char* directory)
{
    tilvane::host::UseServiceAllocator();
    static BareReplies replies;
    for (size_t kind = 0; kind < sizeof kBareMethods / sizeof kBareMethods[0]; ++kind) {
        std::ifstream in(ReplyFile(directory, static_cast<BareKind>(kind)), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        GBytes* data = g_bytes_new(bytes.data(), bytes.size());
        GVariant* reply = g_variant_new_from_bytes(G_VARIANT_TYPE(kBareMethods[kind].replyType), data, FALSE);
        g_bytes_unref(data);
        replies.byKind.push_back(g_variant_ref_sink(reply));
    }
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        std::getenv("DBUS_SESSION_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    // The request interfaces as the service declares them.
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(tilvane::host::RequestInterfacesIntrospectionXml(), nullptr);
    static const GDBusInterfaceVTable vtable = {BareCallCB, nullptr, nullptr, {nullptr}};
    const BareObject object{node != nullptr ? g_dbus_node_info_lookup_interface(node, kContentInterface) : nullptr,
                            node != nullptr ? g_dbus_node_info_lookup_interface(node, kDataControlInterface) : nullptr,
                            &vtable, &replies};
    if (connection == nullptr || object.content == nullptr || object.dataControl == nullptr ||
        !RegisterBare(connection, object)) {
        return 1;
    }
    GVariant* owned = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "RequestName",
                                                  g_variant_new("(su)", kBareName, 4u), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (owned == nullptr || !ListenPeerToPeer(BareSocket(directory), &replies) ||
        !ListenRaw(RawSocketPath(directory), replies)) {
        return 1;
    }
    g_variant_unref(owned);
    char c = 1;
    if (write(readyFd, &c, 1) != 1) {
        return 1;
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    return 0;
}

namespace {

/* ---- processes ------------------------------------------------------------------ */

pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& extraEnvironment,
            const std::string& output)
{
    // The extra variables first: getenv finds the first of a name.
    std::vector<std::string> environment = extraEnvironment;
    for (char** e = environ; *e != nullptr; ++e) {
        environment.emplace_back(*e);
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& entry : environment) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

bool StopProcess(pid_t& pid, int signal)
{
    if (pid <= 0) {
        return true;
    }
    kill(pid, signal);
    int status = 0;
    const bool reaped = waitpid(pid, &status, 0) == pid;
    pid = -1;
    return reaped && (signal == SIGKILL || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
}

/* "Rss:" and the private memory (USS: "Private_Clean:" + "Private_Dirty:")
 * of /proc/PID/smaps_rollup, in MiB. USS is what the process alone holds;
 * PSS would move with whatever else maps the same libraries. */
bool MemoryOf(pid_t pid, double& rssMiB, double& ussMiB)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string line;
    int found = 0;
    ussMiB = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string key;
        double kiB = 0;
        fields >> key >> kiB;
        if (key == "Rss:") {
            rssMiB = kiB / 1024.0;
            found |= 1;
        } else if (key == "Private_Clean:" || key == "Private_Dirty:") {
            ussMiB += kiB / 1024.0;
            found |= key == "Private_Clean:" ? 2 : 4;
        }
    }
    return found == 7;
}

/* ---- requests as the caller builds them --------------------------------------- */

/* A row as the request carries it: the binary form of its bundle, in an `ay`. */
GVariant* EncodedBundle(const Values& values)
{
    auto* encoded = new std::string;
    tilvane::host::AppendBinaryBundle(values, *encoded);
    GBytes* bytes = g_bytes_new_with_free_func(encoded->data(), encoded->size(),
                                               [](gpointer data) { delete static_cast<std::string*>(data); }, encoded);
    GVariant* row = g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes, TRUE);
    g_bytes_unref(bytes);
    return row;
}

/* The rows of a bulk as the request carries them (`aay`). */
GVariant* EncodedRows(const std::vector<Values>& rows)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aay"));
    for (const Values& row : rows) {
        g_variant_builder_add_value(&builder, EncodedBundle(row));
    }
    return g_variant_builder_end(&builder);
}

GVariant* StringArray(const std::vector<std::string>& strings)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const std::string& text : strings) {
        g_variant_builder_add(&builder, "s", text.c_str());
    }
    return g_variant_builder_end(&builder);
}

/* The bare server's root, set when it is started. */
std::string& BareDirectory()
{
    static std::string directory;
    return directory;
}

/* A peer-to-peer connection to the bare server (the one of its current run),
 * made as the client library makes its direct connections. */
sd_bus* BareConnection()
{
    static tilvane::host::SdBusPtr connection;
    static std::string connectedTo;
    if (!connection || connectedTo != BareDirectory() || sd_bus_is_open(connection.get()) <= 0) {
        connectedTo = BareDirectory();
        connection = tilvane::host::ConnectToRequestSocket(BareSocket(connectedTo));
    }
    return connection.get();
}

/* One call of `kind` to the bare server, made and read back as the client
 * library makes its direct calls; the reply is read as the client reads it:
 * a select's rows decoded into the client library's row set, row ids reached
 * as an array. */
bool BareCallOf(BareKind kind, GVariant* parameters)
{
    const BareMethod& method = kBareMethods[kind];
    tilvane::host::GVariantPtr arguments(g_variant_ref_sink(parameters));
    sd_bus* bus = BareConnection();
    if (bus == nullptr) {
        return false;
    }
    const tilvane::host::DirectCall call{method.path, method.interface, method.method, arguments.get(),
                                         G_VARIANT_TYPE(method.replyType), 120000};
    tilvane::host::GVariantPtr answer;
    GError* error = nullptr;
    if (!tilvane::host::CallOnSdBus(bus, call, answer, &error) || !answer) {
        g_clear_error(&error);
        return false;
    }
    GVariant* reply = g_variant_ref(answer.get());
    GVariant* first = g_variant_get_child_value(reply, 0);
    bool read = true;
    if (g_variant_is_of_type(first, G_VARIANT_TYPE_BYTESTRING)) {
        gsize count = 0;
        const void* bytes = g_variant_get_fixed_array(first, &count, 1);
        tilvane::client::RowSet rows;
        read = tilvane::host::DecodeRows(static_cast<const uint8_t*>(bytes), count, rows);
        benchmark::DoNotOptimize(rows);
    } else if (g_variant_is_container(first)) {
        gsize count = 0;
        std::vector<long long> ids;
        const gint64* at = static_cast<const gint64*>(g_variant_get_fixed_array(first, &count, sizeof(gint64)));
        ids.assign(at, at + count);
        benchmark::DoNotOptimize(ids);
    }
    g_variant_unref(first);
    g_variant_unref(reply);
    return read;
}

/* A connection to the bare server's raw socket (the one of its current run). */
int RawConnection()
{
    static int fd = -1;
    static std::string connectedTo;
    if (fd < 0 || connectedTo != BareDirectory()) {
        if (fd >= 0) {
            close(fd);
        }
        connectedTo = BareDirectory();
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", RawSocketPath(connectedTo).c_str());
        if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            close(fd);
            fd = -1;
        }
    }
    return fd;
}

/* The transport's floor of one request: `message` (the request's message
 * bytes, made once by the caller) to the raw socket, and the bytes of the
 * reply message the service would send read back whole. */
bool RawRoundTrip(BareKind kind, const std::string& message)
{
    static std::string reply;
    const int fd = RawConnection();
    return fd >= 0 && WriteFramed(fd, message, kind) && ReadFramed(fd, reply) && !reply.empty();
}

/* The rows of a select result in the form they travel in (docs/messaging.md,
 * "Rows on the wire"), to give the bare server a reply of the same bytes. */
std::string WireRows(const tilvane::client::RowSet& rows)
{
    std::string out;
    auto u32 = [&out](uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
        }
    };
    auto u64 = [&out](uint64_t value) {
        for (int i = 0; i < 8; ++i) {
            out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
        }
    };
    out.push_back(1);
    u32(static_cast<uint32_t>(rows.columns.size()));
    for (const std::string& name : rows.columns) {
        u32(static_cast<uint32_t>(name.size()));
        out += name;
    }
    u32(static_cast<uint32_t>(rows.rows.size()));
    for (const auto& row : rows.rows) {
        for (const auto& cell : row) {
            using Type = tilvane::client::Cell::Type;
            switch (cell.type) {
            case Type::Null:
                out.push_back(0);
                break;
            case Type::Integer:
                out.push_back(1);
                u64(static_cast<uint64_t>(cell.integer));
                break;
            case Type::Real: {
                out.push_back(2);
                uint64_t bits = 0;
                std::memcpy(&bits, &cell.real, sizeof bits);
                u64(bits);
                break;
            }
            case Type::Text:
                out.push_back(3);
                u32(static_cast<uint32_t>(cell.text.size()));
                out += cell.text;
                break;
            case Type::Blob:
                out.push_back(4);
                u32(static_cast<uint32_t>(cell.blob.size()));
                out.append(reinterpret_cast<const char*>(cell.blob.data()), cell.blob.size());
                break;
            }
        }
    }
    return out;
}

bool WriteReply(const std::string& directory, BareKind kind, GVariant* reply)
{
    GVariant* owned = g_variant_ref_sink(reply);
    std::ofstream out(ReplyFile(directory, kind), std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char*>(g_variant_get_data(owned)), static_cast<std::streamsize>(g_variant_get_size(owned)));
    g_variant_unref(owned);
    return static_cast<bool>(out);
}

/* ---- the database ------------------------------------------------------------- */

class RawDb
{
public:
    explicit RawDb(const std::string& path, int flags = SQLITE_OPEN_READWRITE)
    {
        if (sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
            sqlite3_close(m_db);
            m_db = nullptr;
        }
        if (m_db != nullptr) {
            sqlite3_busy_timeout(m_db, 5000);
        }
    }
    ~RawDb() { sqlite3_close_v2(m_db); }
    RawDb(const RawDb&) = delete;
    RawDb& operator=(const RawDb&) = delete;
    sqlite3* Get() const { return m_db; }
    bool Exec(const std::string& sql) const
    {
        return m_db != nullptr && sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    long long Number(const std::string& sql) const
    {
        sqlite3_stmt* statement = nullptr;
        long long value = -1;
        if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            value = sqlite3_column_int64(statement, 0);
        }
        sqlite3_finalize(statement);
        return value;
    }
    /* Inserts `values` into `table` (one prepared statement per call). */
    long long Insert(const std::string& table, const BenchValues& values) const
    {
        std::string columns;
        std::string marks;
        for (const auto& entry : values) {
            columns += (columns.empty() ? "" : ",") + entry.first;
            marks += marks.empty() ? "?" : ",?";
        }
        sqlite3_stmt* statement = nullptr;
        const std::string sql = "INSERT INTO " + table + " (" + columns + ") VALUES (" + marks + ")";
        if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            return -1;
        }
        int at = 1;
        for (const auto& entry : values) {
            sqlite3_bind_text(statement, at++, entry.second.c_str(), -1, SQLITE_TRANSIENT);
        }
        const bool done = sqlite3_step(statement) == SQLITE_DONE;
        sqlite3_finalize(statement);
        return done ? sqlite3_last_insert_rowid(m_db) : -1;
    }

private:
    sqlite3* m_db = nullptr;
};

/*
 * The least that a request's statement can cost: raw SQLite running it on a
 * copy of the service's database (its indexes and settings, foreign keys on),
 * prepared once and bound as the content library binds. What the service adds
 * to a bare call can be no less than this; the floor figures hold it beside
 * the bare call in the same run. Like the service's, the copy keeps what is
 * written to it until the end of the benchmark, and SQLite checkpoints its
 * log as it does the service's.
 */
class FloorDb
{
public:
    FloorDb(const std::string& servicePath, const std::string& copyPath)
    {
        std::filesystem::remove(copyPath);
        RawDb source(servicePath, SQLITE_OPEN_READONLY);
        if (!source.Exec("VACUUM INTO '" + copyPath + "'")) {
            return;
        }
        m_ready = sqlite3_open_v2(copyPath.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
                  sqlite3_exec(m_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;",
                               nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    ~FloorDb()
    {
        for (sqlite3_stmt* statement : m_statements) {
            sqlite3_finalize(statement);
        }
        sqlite3_close_v2(m_db);
    }
    FloorDb(const FloorDb&) = delete;
    FloorDb& operator=(const FloorDb&) = delete;

    sqlite3* Db() const { return m_db; }

    /* `sql` prepared on the copy, kept until the end; null when it cannot be. */
    sqlite3_stmt* Prepare(const std::string& sql)
    {
        sqlite3_stmt* statement = nullptr;
        if (!m_ready || sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            return nullptr;
        }
        m_statements.push_back(statement);
        return statement;
    }

private:
    sqlite3* m_db = nullptr;
    bool m_ready = false;
    std::vector<sqlite3_stmt*> m_statements;
};

/* Steps `statement` to its end, reading the first column of every row; the
 * rows it gave, or -1 when it failed. */
long long StepAll(sqlite3_stmt* statement)
{
    long long rows = 0;
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        benchmark::DoNotOptimize(sqlite3_column_int64(statement, 0));
        ++rows;
    }
    sqlite3_reset(statement);
    return rc == SQLITE_DONE ? rows : -1;
}

/* The service on a database of `tiles` tiles, and the bare server beside it. */
class ServiceFixture
{
public:
    static ServiceFixture* Use(int tiles)
    {
        static std::unique_ptr<ServiceFixture> current;
        if (current != nullptr && current->m_tiles == tiles) {
            return current->m_ready ? current.get() : nullptr;
        }
        current.reset();
        current.reset(new ServiceFixture(tiles));
        return current->m_ready ? current.get() : nullptr;
    }

    ~ServiceFixture()
    {
        StopProcess(m_servicePid, SIGTERM);
        StopProcess(m_barePid, SIGTERM);
        // TILVANE_BENCH_KEEP=1 keeps the platform root (database, service log).
        const char* keep = std::getenv("TILVANE_BENCH_KEEP");
        if (keep == nullptr || *keep == '\0' || *keep == '0') {
            std::error_code ignored;
            std::filesystem::remove_all(m_root, ignored);
        } else {
            std::printf("service benchmark: kept %s\n", m_root.c_str());
        }
    }

    int Tiles() const { return m_tiles; }
    const std::string& Root() const { return m_root; }
    pid_t ServicePid() const { return m_servicePid; }
    const std::string& DatabasePath() const { return m_database; }
    long long ClientSection() const { return m_clientSections.front(); }
    const std::string& ClientFilter() const { return m_clientFilter; }

    /* Starts the service (with `environment` besides its own); the
     * milliseconds from exec to the first answered request. */
    bool Start(double& readyMs, const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> variables = AllocatorEnvironment();
        variables.push_back("TILVANE_PLATFORM_ROOT=" + m_root);
        variables.push_back(std::string("TILVANE_APP_ID=") + kServiceAppId);
        variables.insert(variables.end(), environment.begin(), environment.end());
        const Clock::time_point start = Clock::now();
        m_servicePid = Spawn({TILVANE_SERVICE_BINARY}, variables, m_root + "/service.log");
        const Clock::time_point deadline = start + std::chrono::seconds(60);
        ContentClient client;
        while (Clock::now() < deadline) {
            if (client.GetRowIds(TilesModel::Tiles::CONTENT_URI, "_id = -1", {}).Ok()) {
                readyMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                return true;
            }
            int status = 0;
            if (waitpid(m_servicePid, &status, WNOHANG) == m_servicePid) {
                m_servicePid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return false;
    }

    /* An orderly stop (SIGTERM, exit 0), or a kill without one. */
    bool Stop(bool clean) { return StopProcess(m_servicePid, clean ? SIGTERM : SIGKILL); }

    /* How many lines of the service log hold `text`. */
    int CountInLog(const std::string& text) const
    {
        std::ifstream in(m_root + "/service.log");
        const std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        int seen = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++seen;
        }
        return seen;
    }

    /* Waits until `text` stands `count` times in the service log; false
     * after `timeoutMs`. */
    bool WaitForInLog(const std::string& text, int count, int timeoutMs) const
    {
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (CountInLog(text) < count) {
            if (Clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return true;
    }

private:
    explicit ServiceFixture(int tiles) : m_tiles(tiles)
    {
        char pattern[] = "/tmp/tilvane-service-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr || !EnsureBenchBus()) {
            return;
        }
        m_root = pattern;
        StopBenchServices();
        // This process is the client: an installed application of its own.
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root);
        tilvane::host::SetOwnAppId(kClientApp);
        tilvane::test::InstallPreviewWriter(kClientPackage, kClientApp);
        for (const char* package : kOtherPackages) {
            tilvane::test::InstallPreviewWriter(package, std::string(package) + ".ui");
        }
        m_database = std::string(tzplatform_getenv(TZ_SYS_DB)) + "/.preview.db";
        double readyMs = 0;
        // The first start makes the database; the client's first request its accelerator.
        if (!Start(readyMs) || !Stop(true) || !Fill() || !Start(readyMs) || !CaptureReplies() || !StartBare()) {
            std::fprintf(stderr, "service benchmark: setup failed (see %s/service.log)\n", m_root.c_str());
            return;
        }
        m_ready = true;
    }

    /* Accelerators of the other applications, ten sections each, and the
     * tiles: 1,000 of the client's, the rest spread over the others. */
    bool Fill()
    {
        RawDb db(m_database);
        const long long clientAccelerator = db.Number(
            std::string("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name='") + kClientPackage + "'");
        if (clientAccelerator < 0 || !db.Exec("BEGIN")) {
            return false;
        }
        std::vector<long long> accelerators = {clientAccelerator};
        int position = 1;
        for (const char* package : kOtherPackages) {
            using namespace TilesModel::Accelerators;
            using namespace TilesInternalModel::Accelerators;
            const std::string name = package;
            accelerators.push_back(db.Insert(
                "accelerators", {{ACCELERATOR_TITLE, name.substr(name.rfind('.') + 1)},
                                 {ACCELERATOR_ICON, "https://cdn.example.invalid/" + name + "/accelerator.png"},
                                 {ACCELERATOR_ICON_UNFOCUSED, "https://cdn.example.invalid/" + name + "/dim.png"},
                                 {ACCELERATOR_ENABLED, "1"},
                                 {ACCELERATOR_ID, name + ".accelerator"},
                                 {ACCELERATOR_POSITION, std::to_string(position++)},
                                 {ACCELERATOR_APP_PKG_NAME, name},
                                 {ACCELERATOR_QEB_WEB_APP_ID, ""}}));
        }
        std::vector<std::vector<long long>> sections(accelerators.size());
        int sectionIndex = 0;
        for (size_t a = 0; a < accelerators.size(); ++a) {
            for (int s = 0; s < kSectionsPerApp; ++s) {
                sections[a].push_back(db.Insert("sections", BenchSection(sectionIndex++, accelerators[a])));
            }
        }
        m_clientSections = sections[0];
        m_clientFilter.clear();
        for (long long id : m_clientSections) {
            m_clientFilter += (m_clientFilter.empty() ? "" : ",") + std::to_string(id);
        }
        int index = 0;
        for (int i = 0; i < std::min(kClientTiles, m_tiles); ++i, ++index) {
            db.Insert("tiles", BenchTile(index, sections[0][static_cast<size_t>(i % kSectionsPerApp)], kClientPackage));
        }
        for (int i = 0; index < m_tiles; ++i, ++index) {
            const size_t app = 1 + static_cast<size_t>(i) % (accelerators.size() - 1);
            db.Insert("tiles", BenchTile(index, sections[app][static_cast<size_t>(i / 4 % kSectionsPerApp)],
                                         kOtherPackages[app - 1]));
        }
        return db.Exec("COMMIT") && db.Number("SELECT count(*) FROM tiles") == m_tiles;
    }

    /* Makes each request once and keeps the service's reply for the bare server. */
    bool CaptureReplies()
    {
        const std::string uri = TilesModel::Tiles::CONTENT_URI;
        ContentClient client;
        Result insert = client.Insert(uri, BenchTile(900000, ClientSection(), kClientPackage));
        Result bulk = client.BulkInsert(uri, {BenchTile(900001, ClientSection(), kClientPackage)});
        Result update = client.Update(uri, {{TilesModel::Tiles::TILE_PROGRESS, "50"}}, "_id = ?",
                                      {std::to_string(insert.rowId)});
        Result select = client.Select(uri, {}, "", {}, "_id", "");
        Result rowIds = client.GetRowIds(uri, "", {});
        Result remove = client.Delete(uri, "tile_id LIKE ?", {std::string(kClientPackage) + ".tile.9000%"});
        if (!insert.Ok() || !bulk.Ok() || !update.Ok() || !select.Ok() || !rowIds.Ok() || !remove.Ok() ||
            select.rows.rows.size() != static_cast<size_t>(std::min(kClientTiles, m_tiles) + 2)) {
            return false;
        }
        // The select and the row ids as the benchmarks will see them (without
        // the two rows just removed).
        select = client.Select(uri, {}, "", {}, "_id", "");
        rowIds = client.GetRowIds(uri, "", {});
        // Code, row id or rows changed, and reason: the service's reply of a write.
        auto written = [](const Result& result, long long second) {
            return g_variant_new("(ixs)", result.code, static_cast<gint64>(second), result.message.c_str());
        };
        return select.Ok() && rowIds.Ok() && WriteReply(m_root, kInsert, written(insert, insert.rowId)) &&
               WriteReply(m_root, kBulkInsert, written(bulk, bulk.rowId)) &&
               WriteReply(m_root, kUpdate, written(update, update.changedRows)) &&
               WriteReply(m_root, kDelete, written(remove, remove.changedRows)) &&
               WriteReply(m_root, kSelect, RowsReply(select)) &&
               WriteReply(m_root, kGetRowIds,
                          g_variant_new("(@ax)", g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, rowIds.rowIds.data(),
                                                                           rowIds.rowIds.size(), sizeof(gint64)))) &&
               CaptureDataControlReplies();
    }

    static GVariant* RowsReply(const Result& select)
    {
        const std::string rows = WireRows(select.rows);
        return g_variant_new("(@ay)", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, rows.data(), rows.size(), 1));
    }

    /* The same for the data-control interface: a tile inserted, updated and
     * deleted again, and the caller's tiles selected. */
    bool CaptureDataControlReplies()
    {
        const DataControlClient client(kProviderId);
        const Values row = BenchTile(900002, ClientSection(), kClientPackage);
        const std::string where = "tile_id = '" + row.front().second + "'";
        const Result insert = client.Insert(kDataId, row);
        const Result update = client.Update(kDataId, {{TilesModel::Tiles::TILE_PROGRESS, "50"}}, where);
        const Result remove = client.Delete(kDataId, where);
        const Result select = client.Select(kDataId, {}, "", "_id");
        if (!insert.Ok() || !update.Ok() || !remove.Ok() || !select.Ok() || remove.changedRows != 1) {
            std::fprintf(stderr, "service benchmark: data control: %s / %s / %s / %s\n", insert.message.c_str(),
                         update.message.c_str(), remove.message.c_str(), select.message.c_str());
            return false;
        }
        return WriteReply(m_root, kDcInsert, g_variant_new("(x)", static_cast<gint64>(insert.rowId))) &&
               WriteReply(m_root, kDcUpdate, g_variant_new("(x)", static_cast<gint64>(update.changedRows))) &&
               WriteReply(m_root, kDcDelete, g_variant_new("(x)", static_cast<gint64>(remove.changedRows))) &&
               WriteReply(m_root, kDcSelect, RowsReply(select));
    }

    bool StartBare()
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return false;
        }
        // A fresh process (this program started again): a bare fork would
        // inherit this process's bus connections and threads.
        std::vector<std::string> args = {"/proc/self/exe", "--bare-server", std::to_string(fds[1]), m_root};
        BareDirectory() = m_root;
        m_barePid = Spawn(args, AllocatorEnvironment(), m_root + "/bare.log");
        close(fds[1]);
        char c = 0;
        const bool ok = read(fds[0], &c, 1) == 1;
        close(fds[0]);
        return ok;
    }

    int m_tiles = 0;
    bool m_ready = false;
    std::string m_root;
    std::string m_database;
    std::vector<long long> m_clientSections;
    std::string m_clientFilter;
    pid_t m_servicePid = -1;
    pid_t m_barePid = -1;
};

/* ---- the benchmarks ------------------------------------------------------------ */

const std::string kTilesUri = TilesModel::Tiles::CONTENT_URI;
/* Every request kind against the bare call on the same transport. */
constexpr double kBareGoal = 1.15;

/*
 * What a request is held against, in alternation with it:
 *   kBareCall        the bare D-Bus call alone on the same transport (the
 *                    caller building the same payload, the reply read as the
 *                    client reads it), figures "... / bare";
 *   kBareCallAndSql  the bare call, then raw SQLite running the request's
 *                    statement in this process as the floor runs it: the
 *                    D-Bus library and SQLite doing the request's work with
 *                    nothing of the service between them, figures
 *                    "... / bare + SQLite";
 *   kFloor           the physical floor ("against the physical floor"
 *                    below), figures "... / floor".
 */
enum class Baseline { kBareCall, kBareCallAndSql, kFloor };

bool RunsSql(Baseline baseline)
{
    return baseline != Baseline::kBareCall;
}

int Index(Baseline baseline)
{
    return static_cast<int>(baseline);
}

/* The figure of `request` (e.g. "insert one tile") held against `baseline`. */
std::string Figure(const std::string& request, const ServiceFixture& fixture, Baseline baseline)
{
    static const char* const kSuffixes[] = {" / bare", " / bare + SQLite", " / floor"};
    return "e2e " + request + ", " + SizeName(fixture.Tiles()) + kSuffixes[Index(baseline)];
}

const char* BaselineName(Baseline baseline)
{
    static const char* const kNames[] = {"bare D-Bus call", "bare D-Bus call + raw SQLite",
                                         "raw socket round trip + raw SQLite"};
    return kNames[Index(baseline)];
}

/* The goal of a figure: the bare call's for both bare baselines. */
double Goal(Baseline baseline, double floorGoal)
{
    return baseline == Baseline::kFloor ? floorGoal : kBareGoal;
}

/* The request's message bytes for the floor, made once before the timed
 * loop; empty for the bare baselines, whose caller builds each call. */
template <typename Parameters>
std::string FloorMessage(Baseline baseline, BareKind kind, Parameters&& parameters)
{
    return baseline == Baseline::kFloor ? MessageBytes(kind, parameters(), false) : std::string();
}

/* The baseline's side of one request: the request carried (the bare call, or
 * `message` over the raw socket), then its statement run by `sql` unless the
 * baseline is the bare call alone. */
template <typename Call, typename Sql>
bool Carry(Baseline baseline, BareKind kind, const std::string& message, Call&& call, Sql&& sql)
{
    const bool carried = baseline == Baseline::kFloor ? RawRoundTrip(kind, message) : call();
    return carried && (!RunsSql(baseline) || sql());
}

/* A copy of the service's database for the baseline's writes, with `sql`
 * prepared on it into `statement`; nothing when the baseline runs no
 * statement. False, with the benchmark skipped, when it cannot be made. */
bool CopyFor(benchmark::State& state, const ServiceFixture& fixture, Baseline baseline, const std::string& sql,
             std::unique_ptr<FloorDb>& copy, sqlite3_stmt*& statement)
{
    if (!RunsSql(baseline)) {
        return true;
    }
    copy.reset(new FloorDb(fixture.DatabasePath(), fixture.Root() + "/floor.db"));
    statement = copy->Prepare(sql);
    if (statement == nullptr) {
        state.SkipWithError("cannot copy the service's database");
    }
    return statement != nullptr;
}

/* `sql` prepared on the service's own file, read only, for a baseline's
 * reads; false, with the benchmark skipped, when it cannot be. */
bool PrepareRead(benchmark::State& state, const RawDb& raw, const std::string& sql, sqlite3_stmt*& statement)
{
    if (sqlite3_prepare_v2(raw.Get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        state.SkipWithError("cannot read the service's database");
        return false;
    }
    return true;
}

/* The statement the service runs for a select of all the caller's tiles. */
std::string RawSelectSql(const ServiceFixture& fixture)
{
    return "SELECT * FROM tiles WHERE tile_section_raw_id IN (" + fixture.ClientFilter() + ") ORDER BY _id";
}

/* The statement the service runs for the caller's row ids. */
std::string RawRowIdsSql(const ServiceFixture& fixture)
{
    return "SELECT _id FROM tiles WHERE tile_section_raw_id IN (" + fixture.ClientFilter() + ")";
}

/* The caller's tiles: what its select of all tiles gives. */
long long ClientTiles(const ServiceFixture& fixture)
{
    return std::min(kClientTiles, fixture.Tiles());
}

ServiceFixture* FixtureOrSkip(benchmark::State& state)
{
    ServiceFixture* fixture = ServiceFixture::Use(static_cast<int>(state.range(0)));
    if (fixture == nullptr) {
        state.SkipWithError("the service could not be started");
    }
    return fixture;
}

void BM_ServiceInsert(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    const Values row = BenchTile(700000 + 5000 * Index(baseline), fixture->ClientSection(), kClientPackage);
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* insert = nullptr;
    if (!CopyFor(state, *fixture, baseline, RawInsertSql(row), copy, insert)) {
        return;
    }
    auto parameters = [&] { return g_variant_new("(ss@ay)", kClientApp, kTilesUri.c_str(), EncodedBundle(row)); };
    const std::string message = FloorMessage(baseline, kInsert, parameters);
    RunInterleaved(
        state, Figure("insert one tile", *fixture, baseline), Goal(baseline, 2), Pairs(1000, 20),
        [&] { return client.Insert(kTilesUri, row).Ok(); },
        [&] {
            return Carry(
                baseline, kInsert, message, [&] { return BareCallOf(kInsert, parameters()); },
                [&] { return RawInsertRows(copy->Db(), insert, {row}); });
        },
        BaselineName(baseline));
    client.Delete(kTilesUri, "tile_id = ?", {row.front().second});
}

/* The values of the n-th update of the update benchmarks: its progress
 * alternates, so that every update changes the row (SQLite writes nothing for
 * a row that an update leaves as it was). */
Values UpdateValues(int n)
{
    return {{TilesModel::Tiles::TILE_PROGRESS, n % 2 == 0 ? "64" : "65"}, {TilesModel::Tiles::TILE_NOTIFICATION, "1"}};
}

/* The statement of an update of UpdateValues' columns of one tile. */
std::string RawUpdateSql()
{
    const Values shape = UpdateValues(0);
    return "UPDATE tiles SET \"" + shape[0].first + "\"=?, \"" + shape[1].first + "\"=? WHERE tile_id = ?";
}

/* RawUpdateSql's statement run for `values` on `tileId`: one row changed. */
bool RawUpdate(sqlite3* db, sqlite3_stmt* update, const Values& values, const std::string& tileId)
{
    sqlite3_bind_text(update, 1, values[0].second.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(update, 2, values[1].second.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(update, 3, tileId.c_str(), -1, SQLITE_STATIC);
    const bool done = sqlite3_step(update) == SQLITE_DONE && sqlite3_changes(db) == 1;
    sqlite3_reset(update);
    return done;
}

/* The delete of one tile by its id: one row gone. */
bool RawDelete(sqlite3* db, sqlite3_stmt* remove, const std::string& tileId)
{
    sqlite3_bind_text(remove, 1, tileId.c_str(), -1, SQLITE_STATIC);
    const bool done = sqlite3_step(remove) == SQLITE_DONE && sqlite3_changes(db) == 1;
    sqlite3_reset(remove);
    return done;
}

constexpr char kRawDeleteSql[] = "DELETE FROM tiles WHERE tile_id = ?";

void BM_ServiceUpdate(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    const std::string tileId = std::string(kClientPackage) + ".tile.7";
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* update = nullptr;
    if (!CopyFor(state, *fixture, baseline, RawUpdateSql(), copy, update)) {
        return;
    }
    auto parameters = [&](const Values& values) {
        return g_variant_new("(ss@ays@as)", kClientApp, kTilesUri.c_str(), EncodedBundle(values), "tile_id = ?",
                             StringArray({tileId}));
    };
    const std::string message = FloorMessage(baseline, kUpdate, [&] { return parameters(UpdateValues(0)); });
    int served = 0;
    int carried = 0;
    RunInterleaved(
        state, Figure("update one tile", *fixture, baseline), Goal(baseline, 2), Pairs(1000, 20),
        [&] { return client.Update(kTilesUri, UpdateValues(served++), "tile_id = ?", {tileId}).Ok(); },
        [&] {
            const Values values = UpdateValues(carried++);
            return Carry(
                baseline, kUpdate, message, [&] { return BareCallOf(kUpdate, parameters(values)); },
                [&] { return RawUpdate(copy->Db(), update, values, tileId); });
        },
        BaselineName(baseline));
}

/* Tiles of the caller to delete, one per pair, numbered from `first`, stored
 * through the service before the timed loop (and before a baseline's copy
 * of the database is made, so that both sides delete the same tiles); empty,
 * with the benchmark skipped, when they could not be. */
std::vector<Values> StoredRowsToDelete(benchmark::State& state, const ServiceFixture& fixture, int first, int count)
{
    std::vector<Values> rows;
    for (int i = 0; i < count; ++i) {
        rows.push_back(BenchTile(first + i, fixture.ClientSection(), kClientPackage));
    }
    if (!ContentClient().BulkInsert(kTilesUri, rows).Ok()) {
        rows.clear();
        state.SkipWithError("cannot insert the rows to delete");
    }
    return rows;
}

/* The tile id of the n-th of `rows`, counting `n` on. */
const std::string& NextTileId(const std::vector<Values>& rows, int& n)
{
    return rows[static_cast<size_t>(n++)].front().second;
}

void BM_ServiceDelete(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    const int pairs = Pairs(1000, 20);
    const std::vector<Values> rows = StoredRowsToDelete(state, *fixture, 840000 + 5000 * Index(baseline), pairs);
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* remove = nullptr;
    if (rows.empty() || !CopyFor(state, *fixture, baseline, kRawDeleteSql, copy, remove)) {
        return;
    }
    auto parameters = [&](const std::string& tileId) {
        return g_variant_new("(sss@as)", kClientApp, kTilesUri.c_str(), "tile_id = ?", StringArray({tileId}));
    };
    const std::string message = FloorMessage(baseline, kDelete, [&] { return parameters(rows.front().front().second); });
    int next = 0;
    int nextCarried = 0;
    RunInterleaved(
        state, Figure("delete one tile", *fixture, baseline), Goal(baseline, 2), pairs,
        [&] { return client.Delete(kTilesUri, "tile_id = ?", {NextTileId(rows, next)}).Ok(); },
        [&] {
            const std::string& tileId = NextTileId(rows, nextCarried);
            return Carry(
                baseline, kDelete, message, [&] { return BareCallOf(kDelete, parameters(tileId)); },
                [&] { return RawDelete(copy->Db(), remove, tileId); });
        },
        BaselineName(baseline));
}

void BM_ServiceBulkInsert1000(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    const std::string package = "org.example.bench.bulk" + std::to_string(Index(baseline));
    std::vector<Values> rows;
    for (int i = 0; i < 1000; ++i) {
        rows.push_back(BenchTile(600000 + 5000 * Index(baseline) + i, fixture->ClientSection(), package));
    }
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* insert = nullptr;
    if (!CopyFor(state, *fixture, baseline, RawInsertSql(rows.front()), copy, insert)) {
        return;
    }
    auto parameters = [&] { return g_variant_new("(ss@aay)", kClientApp, kTilesUri.c_str(), EncodedRows(rows)); };
    const std::string message = FloorMessage(baseline, kBulkInsert, parameters);
    RunInterleaved(
        state, Figure("bulk insert 1000 tiles", *fixture, baseline), Goal(baseline, 1.5), Pairs(10, 2),
        [&] { return client.BulkInsert(kTilesUri, rows).Ok(); },
        [&] {
            return Carry(
                baseline, kBulkInsert, message, [&] { return BareCallOf(kBulkInsert, parameters()); },
                [&] { return RawInsertRows(copy->Db(), insert, rows); });
        },
        BaselineName(baseline));
    client.Delete(kTilesUri, "tile_id LIKE ?", {package + ".%"});
}

/* ---- the typed, atomic publish ---------------------------------------------- */

/* The values the typed client sends for `row`: the columns that differ from a
 * new row's, as its encoded bundle carries them. */
template <typename Row>
Values SentValues(const Row& row, const std::vector<tilvane::host::typed::Field<Row>>& fields)
{
    size_t rawBytes = 0;
    bool ok = false;
    const std::string encoded = tilvane::host::typed::EncodeRow(row, fields, rawBytes, ok);
    bundle* values = tilvane::host::DecodeBoundedBinaryBundle(encoded.data(), encoded.size(), nullptr);
    Values sent;
    bundle_iterate(
        values,
        [](const char* key, const char* value, void* data) {
            static_cast<Values*>(data)->emplace_back(key, value);
        },
        &sent);
    bundle_free(values);
    return sent;
}

/* Typed fields set from the benchmark's rows, but for the link to the owner. */
template <typename Row>
void FillFrom(Row& row, const std::vector<tilvane::host::typed::Field<Row>>& fields, const Values& values)
{
    for (const auto& value : values) {
        const auto* field = tilvane::host::typed::FieldOfName(fields, value.first);
        if (field != nullptr) {
            tilvane::host::typed::SetFromText(row, *field, value.second);
        }
    }
}

/* 10 sections of 100 tiles, every tile column filled. */
tilvane::client::Content PublishedContent()
{
    namespace typed = tilvane::host::typed;
    tilvane::client::Content content;
    for (int s = 0; s < 10; ++s) {
        tilvane::client::Section& section = content.AddSection();
        FillFrom(section, typed::SectionFields(), BenchSection(800000 + s, 0));
        section.id = "bench-publish-" + std::to_string(s);
        for (int t = 0; t < 100; ++t) {
            FillFrom(section.AddTile(), typed::TileFields(), BenchTile(800000 + s * 100 + t, 0, kClientPackage));
        }
    }
    return content;
}

/* The same content through the single request API: the launcher entry found,
 * then per section an insert and a bulk insert of its tiles, then the sync
 * end mark; each of them a request and a transaction of its own. */
bool PublishWithSingleRequests(const ContentClient& client, const tilvane::client::Content& content)
{
    namespace typed = tilvane::host::typed;
    namespace schema = tilvane::client::schema;
    const Result entry = client.GetRowIds(schema::accelerators::kUri, "", {});
    if (!entry.Ok() || entry.rowIds.size() != 1) {
        return false;
    }
    std::string section;
    for (const tilvane::client::Section& typedSection : content.sections) {
        Values row = SentValues(typedSection, typed::SectionFields());
        row.emplace_back(schema::sections::kEntryRowId, std::to_string(entry.rowIds.front()));
        const Result inserted = client.Insert(schema::sections::kUri, row);
        if (!inserted.Ok()) {
            return false;
        }
        section = std::to_string(inserted.rowId);
        std::vector<Values> tiles;
        for (const tilvane::client::Tile& tile : typedSection.tiles) {
            tiles.push_back(SentValues(tile, typed::TileFields()));
            tiles.back().emplace_back(schema::tiles::kSectionRowId, section);
        }
        if (!client.BulkInsert(schema::tiles::kUri, tiles).Ok()) {
            return false;
        }
    }
    const Result mark = client.Insert(schema::tiles::kUri,
                                      {{schema::kSyncKey, schema::kSyncEnd}, {schema::tiles::kSectionRowId, section}});
    return mark.outcome == tilvane::client::Outcome::Answered && mark.message == "sync end mark sent";
}

/* 1,000 tiles in 10 sections: the typed publish (one request, one
 * transaction, all or nothing) against the same rows through the single
 * request API, interleaved; what each side published is removed again,
 * untimed, before the other runs. */
void BM_ServicePublish1000In10Sections(benchmark::State& state, ServiceFixture* fixture)
{
    const tilvane::client::Content content = PublishedContent();
    const tilvane::client::Publisher publisher;
    ContentClient client;
    auto removeAgain = [&] {
        client.Delete(TilesModel::Sections::CONTENT_URI, "section_id LIKE ?", {"bench-publish-%"});
    };
    RunInterleaved(
        state, "e2e publish 1000 tiles in 10 sections, typed and atomic, " + SizeName(fixture->Tiles()), 1.1,
        Pairs(10, 2), [&] { return publisher.Publish(content).ok(); },
        [&] { return PublishWithSingleRequests(client, content); },
        "single requests (section inserts, a bulk per section, end mark)", removeAgain);
}

void BM_ServiceSelect1000VsRaw(benchmark::State& state, ServiceFixture* fixture)
{
    ContentClient client;
    RawDb raw(fixture->DatabasePath(), SQLITE_OPEN_READONLY);
    const std::string sql = RawSelectSql(*fixture);
    const size_t expected = static_cast<size_t>(ClientTiles(*fixture));
    RunInterleaved(
        state, "e2e select 1000 tiles, " + SizeName(fixture->Tiles()) + " / raw", 0, Pairs(40, 5),
        [&] {
            Result result = client.Select(kTilesUri, {}, "", {}, "_id", "");
            return result.Ok() && result.rows.rows.size() == expected;
        },
        [&] {
            sqlite3_stmt* statement = nullptr;
            if (sqlite3_prepare_v2(raw.Get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
                return false;
            }
            size_t rows = 0;
            size_t bytes = 0;
            const int columns = sqlite3_column_count(statement);
            while (sqlite3_step(statement) == SQLITE_ROW) {
                ++rows;
                for (int c = 0; c < columns; ++c) {
                    if (sqlite3_column_type(statement, c) == SQLITE_INTEGER) {
                        bytes += static_cast<size_t>(sqlite3_column_int64(statement, c) & 1);
                    } else {
                        benchmark::DoNotOptimize(sqlite3_column_text(statement, c));
                        bytes += static_cast<size_t>(sqlite3_column_bytes(statement, c));
                    }
                }
            }
            sqlite3_finalize(statement);
            benchmark::DoNotOptimize(bytes);
            return rows == expected;
        },
        "raw SQLite select");
}

/* ---- against the physical floor ------------------------------------------------ */

/*
 * The physical floor of a request: its message's bytes (made once, as the
 * bus would carry them) to the bare process's raw unix socket and the bytes
 * of the service's reply message back, then raw SQLite running the request's
 * statement in this process, prepared once (FloorDb for writes, the
 * service's own file for reads). No service that keeps its rows in SQLite and
 * answers over a socket can do less on this machine. The same statements
 * follow the bare call in the "bare + SQLite" figures.
 */

/* Steps `statement` to its end reading every column as the service's row
 * encoder reads it; the rows it gave, or -1 when it failed. */
long long StepAllColumns(sqlite3_stmt* statement)
{
    long long rows = 0;
    size_t bytes = 0;
    const int columns = sqlite3_column_count(statement);
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        ++rows;
        for (int c = 0; c < columns; ++c) {
            switch (sqlite3_column_type(statement, c)) {
            case SQLITE_INTEGER:
                bytes += static_cast<size_t>(sqlite3_column_int64(statement, c) & 1);
                break;
            case SQLITE_NULL:
                break;
            default:
                benchmark::DoNotOptimize(sqlite3_column_blob(statement, c));
                bytes += static_cast<size_t>(sqlite3_column_bytes(statement, c));
            }
        }
    }
    benchmark::DoNotOptimize(bytes);
    sqlite3_reset(statement);
    return rc == SQLITE_DONE ? rows : -1;
}

void BM_ServiceSelect1000(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    RawDb raw(fixture->DatabasePath(), SQLITE_OPEN_READONLY);
    sqlite3_stmt* select = nullptr;
    if (!PrepareRead(state, raw, RawSelectSql(*fixture), select)) {
        return;
    }
    const long long expected = ClientTiles(*fixture);
    auto parameters = [&] {
        return g_variant_new("(ss@ass@asss)", kClientApp, kTilesUri.c_str(), StringArray({}), "", StringArray({}),
                             "_id", "");
    };
    const std::string message = FloorMessage(baseline, kSelect, parameters);
    RunInterleaved(
        state, Figure("select 1000 tiles", *fixture, baseline), Goal(baseline, 1.25), Pairs(100, 5),
        [&] {
            Result result = client.Select(kTilesUri, {}, "", {}, "_id", "");
            return result.Ok() && result.rows.rows.size() == static_cast<size_t>(expected);
        },
        [&] {
            return Carry(
                baseline, kSelect, message, [&] { return BareCallOf(kSelect, parameters()); },
                [&] { return StepAllColumns(select) == expected; });
        },
        BaselineName(baseline));
    sqlite3_finalize(select);
}

void BM_ServiceRowIds(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    ContentClient client;
    RawDb raw(fixture->DatabasePath(), SQLITE_OPEN_READONLY);
    sqlite3_stmt* ids = nullptr;
    if (!PrepareRead(state, raw, RawRowIdsSql(*fixture), ids)) {
        return;
    }
    const long long expected = ClientTiles(*fixture);
    auto parameters = [&] { return g_variant_new("(sss@as)", kClientApp, kTilesUri.c_str(), "", StringArray({})); };
    const std::string message = FloorMessage(baseline, kGetRowIds, parameters);
    RunInterleaved(
        state, Figure("row ids of 1000 tiles", *fixture, baseline), Goal(baseline, 2), Pairs(300, 10),
        [&] { return client.GetRowIds(kTilesUri, "", {}).Ok(); },
        [&] {
            return Carry(
                baseline, kGetRowIds, message, [&] { return BareCallOf(kGetRowIds, parameters()); },
                [&] { return StepAll(ids) == expected; });
        },
        BaselineName(baseline));
    sqlite3_finalize(ids);
}

/* With TILVANE_BENCH_KEEP, the service's smaps into a file of its kept folder. */
void KeepSmaps(const ServiceFixture& fixture, const std::string& name)
{
    if (std::getenv("TILVANE_BENCH_KEEP") != nullptr) {
        std::ifstream in("/proc/" + std::to_string(fixture.ServicePid()) + "/smaps");
        std::ofstream(fixture.Root() + "/" + name) << in.rdbuf();
    }
}

/* ---- the data-control interface ------------------------------------------------ */

/* Each request of the data-control interface against the bare call on the
 * same transport (alone, and followed by the request's statement), the
 * caller building the same payload. */
void BM_DataControlInsert(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    const DataControlClient client(kProviderId);
    const Values row = BenchTile(720000 + 5000 * Index(baseline), fixture->ClientSection(), kClientPackage);
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* insert = nullptr;
    if (!CopyFor(state, *fixture, baseline, RawInsertSql(row), copy, insert)) {
        return;
    }
    RunInterleaved(
        state, Figure("data control insert one tile", *fixture, baseline), kBareGoal, Pairs(1000, 20),
        [&] { return client.Insert(kDataId, row).Ok(); },
        [&] {
            return Carry(
                baseline, kDcInsert, "",
                [&] {
                    return BareCallOf(kDcInsert,
                                      g_variant_new("(sss@ay)", kClientApp, kProviderId, kDataId, EncodedBundle(row)));
                },
                [&] { return RawInsertRows(copy->Db(), insert, {row}); });
        },
        BaselineName(baseline));
    client.Delete(kDataId, "tile_id = '" + row.front().second + "'");
}

void BM_DataControlUpdate(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    const DataControlClient client(kProviderId);
    const std::string tileId = std::string(kClientPackage) + ".tile.8";
    const std::string where = "tile_id = '" + tileId + "'";
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* update = nullptr;
    if (!CopyFor(state, *fixture, baseline, RawUpdateSql(), copy, update)) {
        return;
    }
    int served = 0;
    int carried = 0;
    RunInterleaved(
        state, Figure("data control update one tile", *fixture, baseline), kBareGoal, Pairs(1000, 20),
        [&] { return client.Update(kDataId, UpdateValues(served++), where).Ok(); },
        [&] {
            const Values values = UpdateValues(carried++);
            return Carry(
                baseline, kDcUpdate, "",
                [&] {
                    return BareCallOf(kDcUpdate, g_variant_new("(sss@ays)", kClientApp, kProviderId, kDataId,
                                                               EncodedBundle(values), where.c_str()));
                },
                [&] { return RawUpdate(copy->Db(), update, values, tileId); });
        },
        BaselineName(baseline));
}

void BM_DataControlDelete(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    const DataControlClient client(kProviderId);
    const int pairs = Pairs(1000, 20);
    const std::vector<Values> rows = StoredRowsToDelete(state, *fixture, 860000 + 5000 * Index(baseline), pairs);
    std::unique_ptr<FloorDb> copy;
    sqlite3_stmt* remove = nullptr;
    if (rows.empty() || !CopyFor(state, *fixture, baseline, kRawDeleteSql, copy, remove)) {
        return;
    }
    int next = 0;
    int nextCarried = 0;
    RunInterleaved(
        state, Figure("data control delete one tile", *fixture, baseline), kBareGoal, pairs,
        [&] {
            const Result result = client.Delete(kDataId, "tile_id = '" + NextTileId(rows, next) + "'");
            return result.Ok() && result.changedRows == 1;
        },
        [&] {
            const std::string& tileId = NextTileId(rows, nextCarried);
            const std::string where = "tile_id = '" + tileId + "'";
            return Carry(
                baseline, kDcDelete, "",
                [&] {
                    return BareCallOf(kDcDelete,
                                      g_variant_new("(ssss)", kClientApp, kProviderId, kDataId, where.c_str()));
                },
                [&] { return RawDelete(copy->Db(), remove, tileId); });
        },
        BaselineName(baseline));
}

void BM_DataControlSelect1000(benchmark::State& state, ServiceFixture* fixture, Baseline baseline)
{
    const DataControlClient client(kProviderId);
    RawDb raw(fixture->DatabasePath(), SQLITE_OPEN_READONLY);
    sqlite3_stmt* select = nullptr;
    if (!PrepareRead(state, raw, RawSelectSql(*fixture), select)) {
        return;
    }
    const long long expected = ClientTiles(*fixture);
    RunInterleaved(
        state, Figure("data control select 1000 tiles", *fixture, baseline), kBareGoal, Pairs(100, 5),
        [&] { return client.Select(kDataId, {}, "", "_id").Ok(); },
        [&] {
            return Carry(
                baseline, kDcSelect, "",
                [&] {
                    return BareCallOf(kDcSelect, g_variant_new("(sss@asss)", kClientApp, kProviderId, kDataId,
                                                               StringArray({}), "", "_id"));
                },
                [&] { return StepAllColumns(select) == expected; });
        },
        BaselineName(baseline));
    sqlite3_finalize(select);
}

/* One repetition: an orderly stop, a start (timed), idle, memory. */
void BM_ServiceReadyAndMemory(benchmark::State& state, ServiceFixture* fixture)
{
    const bool big = fixture->Tiles() >= 100000;
    for (auto _ : state) {
        double readyMs = 0;
        if (!fixture->Stop(true) || !fixture->Start(readyMs)) {
            state.SkipWithError("the service did not restart");
            return;
        }
        RecordValue("ready after exec (clean stop before), " + SizeName(fixture->Tiles()), big ? 25 : 0, "ms",
                    readyMs);
        std::this_thread::sleep_for(std::chrono::milliseconds(ShortRun() ? 200 : 1000));
        double rss = 0;
        double uss = 0;
        if (MemoryOf(fixture->ServicePid(), rss, uss)) {
            KeepSmaps(*fixture, "service-smaps-after-start.txt");
            RecordValue("USS idle after start, " + SizeName(fixture->Tiles()), 0, "MiB", uss);
            RecordValue("RSS idle after start, " + SizeName(fixture->Tiles()), 0, "MiB", rss);
        }
        state.counters["ready_ms"] = readyMs;
        state.counters["uss_mib"] = uss;
    }
}

/* One repetition: a kill, a start (timed): the full check runs in the background. */
void BM_ServiceReadyAfterKill(benchmark::State& state, ServiceFixture* fixture)
{
    for (auto _ : state) {
        double readyMs = 0;
        if (!fixture->Stop(false) || !fixture->Start(readyMs)) {
            state.SkipWithError("the service did not restart");
            return;
        }
        RecordValue("ready after exec (killed before), " + SizeName(fixture->Tiles()), 0, "ms", readyMs);
        state.counters["ready_ms"] = readyMs;
    }
}

/* Drops the database's files from the page cache (written back first), as a
 * power loss would; with TILVANE_BENCH_DROP_ALL=1 (as root) the whole page
 * cache, the binaries and libraries too. */
bool DropCachedDatabase(const std::string& database)
{
    const char* all = std::getenv("TILVANE_BENCH_DROP_ALL");
    if (all != nullptr && std::string(all) == "1") {
        sync();
        std::ofstream("/proc/sys/vm/drop_caches") << "3\n";
    }
    bool dropped = true;
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const int fd = open((database + suffix).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        dropped = fdatasync(fd) == 0 && posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0 && dropped;
        close(fd);
    }
    return dropped;
}

/* One repetition: kill -9, the database dropped from the page cache, a start
 * (timed), in turn with the full check at start (as before the check moved to
 * the background) and with the check in the background (the default). */
void BM_ServiceReadyAfterKillColdCache(benchmark::State& state, ServiceFixture* fixture)
{
    const std::string atStart = fixture->Root() + "/check-at-start.conf";
    const std::string background = fixture->Root() + "/check-background.conf";
    // The configuration of the other benchmarks, with the check's setting.
    std::string common;
    if (const char* config = std::getenv("TILVANE_CONFIG")) {
        std::ifstream in(config);
        std::stringstream text;
        text << in.rdbuf();
        common = text.str() + "\n";
    }
    std::ofstream(atStart) << common << "[content]\ncheck-after-crash = at-start\n";
    std::ofstream(background) << common << "[content]\ncheck-after-crash = background\n";
    const std::string size = SizeName(fixture->Tiles());
    for (auto _ : state) {
        double readyMs[2] = {0, 0};
        for (int side = 0; side < 2; ++side) {
            if (!fixture->Stop(false) || !DropCachedDatabase(fixture->DatabasePath()) ||
                !fixture->Start(readyMs[side], {"TILVANE_CONFIG=" + (side == 0 ? atStart : background)})) {
                state.SkipWithError("the service did not restart");
                return;
            }
        }
        RecordValue("ready after kill -9, cold cache, full check at start, " + size, 0, "ms", readyMs[0]);
        RecordValue("ready after kill -9, cold cache, check in the background, " + size,
                    fixture->Tiles() >= 100000 ? 100 : 0, "ms", readyMs[1]);
        state.counters["at_start_ms"] = readyMs[0];
        state.counters["background_ms"] = readyMs[1];
    }
    // The default again for the benchmarks after this one. The kills left
    // the full check owed: it runs in the background after this start too,
    // and the request benchmarks after this one measure a service that has
    // ended it (after a crash the first requests share the machine with it).
    double readyMs = 0;
    const std::string passed = "passed the check in the background";
    const int passedBefore = fixture->CountInLog(passed);
    if (!fixture->Stop(true) || !fixture->Start(readyMs)) {
        state.SkipWithError("the service did not restart");
    } else if (!fixture->WaitForInLog(passed, passedBefore + 1, 120000)) {
        state.SkipWithError("the check in the background did not pass");
    }
}

/* The idle service after the request benchmarks of its size: its private
 * memory right after them and a few seconds later (it gives free memory back
 * a second after its last request). */
void BM_ServiceMemoryAfterRequests(benchmark::State& state, ServiceFixture* fixture)
{
    const std::string size = SizeName(fixture->Tiles());
    const double goal = fixture->Tiles() >= 100000 ? 3 : 0;
    for (auto _ : state) {
        double rss = 0;
        double uss = 0;
        if (MemoryOf(fixture->ServicePid(), rss, uss)) {
            RecordValue("USS right after the request benchmarks, " + size, 0, "MiB", uss);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3000));
        if (MemoryOf(fixture->ServicePid(), rss, uss)) {
            KeepSmaps(*fixture, "service-smaps-after-requests.txt");
            RecordValue("USS idle 3 s after the request benchmarks, " + size, goal, "MiB", uss);
            RecordValue("RSS idle after requests, " + size, 0, "MiB", rss);
        }
    }
}

/* 100 bus connections of this process, each of which asked the service once
 * (a row-id request; the bench's own name, so the service answers it as an
 * unknown application's) and then stays connected and idle; the service's
 * private memory a few seconds later. */
void BM_ServiceMemoryWith100IdleClients(benchmark::State& state, ServiceFixture* fixture)
{
    const std::string size = SizeName(fixture->Tiles());
    const std::string name = tilvane::host::ContentBusName(tilvane::host::AuthorityOf(kTilesUri));
    for (auto _ : state) {
        std::vector<GDBusConnection*> clients;
        for (int i = 0; i < 100; ++i) {
            GDBusConnection* client = g_dbus_connection_new_for_address_sync(
                std::getenv("DBUS_SESSION_BUS_ADDRESS"),
                static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                nullptr, nullptr, nullptr);
            if (client == nullptr) {
                break;
            }
            clients.push_back(client);
            GVariant* reply = g_dbus_connection_call_sync(
                client, name.c_str(), tilvane::host::kContentPath, kContentInterface, "GetRowIds",
                g_variant_new("(sss@as)", kClientApp, kTilesUri.c_str(), "_id = -1", StringArray({})), nullptr,
                G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
            if (reply != nullptr) {
                g_variant_unref(reply);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3000));
        double rss = 0;
        double uss = 0;
        if (clients.size() == 100 && MemoryOf(fixture->ServicePid(), rss, uss)) {
            RecordValue("USS idle with 100 idle bus clients connected, " + size,
                        fixture->Tiles() >= 100000 ? 5 : 0, "MiB", uss);
        } else {
            state.SkipWithError("100 bus clients could not connect");
        }
        for (GDBusConnection* client : clients) {
            g_dbus_connection_close_sync(client, nullptr, nullptr);
            g_object_unref(client);
        }
    }
}

}  // namespace

/* Called by main once the short flag is known: all sizes, or 1k tiles only. */
void RegisterServiceBenchmarks()
{
    std::vector<int> sizes = {1000, 10000, 100000};
    if (ShortRun()) {
        sizes = {1000};
    }
    struct Entry
    {
        std::string name;
        /* Run with the service of the benchmark's size; skipped when it
         * cannot be started. */
        std::function<void(benchmark::State&, ServiceFixture*)> function;
    };
    std::vector<Entry> entries = {
        {"BM_ServiceReadyAndMemory", BM_ServiceReadyAndMemory},
        {"BM_ServiceReadyAfterKill", BM_ServiceReadyAfterKill},
        {"BM_ServiceReadyAfterKillColdCache", BM_ServiceReadyAfterKillColdCache},
    };
    /* Each request against each of its baselines, one benchmark each. */
    using Request = void (*)(benchmark::State&, ServiceFixture*, Baseline);
    auto against = [&entries](const char* name, Request request, std::vector<Baseline> baselines) {
        static const char* const kSuffixes[] = {"VsBare", "VsBareSql", "VsFloor"};
        for (Baseline baseline : baselines) {
            entries.push_back({std::string(name) + kSuffixes[Index(baseline)],
                               [request, baseline](benchmark::State& state, ServiceFixture* fixture) {
                                   request(state, fixture, baseline);
                               }});
        }
    };
    const std::vector<Baseline> all = {Baseline::kBareCall, Baseline::kBareCallAndSql, Baseline::kFloor};
    const std::vector<Baseline> bare = {Baseline::kBareCall, Baseline::kBareCallAndSql};
    against("BM_ServiceInsert", BM_ServiceInsert, all);
    against("BM_ServiceUpdate", BM_ServiceUpdate, all);
    against("BM_ServiceDelete", BM_ServiceDelete, all);
    against("BM_ServiceRowIds", BM_ServiceRowIds, all);
    against("BM_ServiceBulkInsert1000", BM_ServiceBulkInsert1000, all);
    entries.push_back({"BM_ServicePublish1000In10Sections", BM_ServicePublish1000In10Sections});
    entries.push_back({"BM_ServiceSelect1000VsRaw", BM_ServiceSelect1000VsRaw});
    against("BM_ServiceSelect1000", BM_ServiceSelect1000, all);
    against("BM_DataControlInsert", BM_DataControlInsert, bare);
    against("BM_DataControlUpdate", BM_DataControlUpdate, bare);
    against("BM_DataControlDelete", BM_DataControlDelete, bare);
    against("BM_DataControlSelect1000", BM_DataControlSelect1000, bare);
    entries.push_back({"BM_ServiceMemoryAfterRequests", BM_ServiceMemoryAfterRequests});
    entries.push_back({"BM_ServiceMemoryWith100IdleClients", BM_ServiceMemoryWith100IdleClients});
    for (int size : sizes) {
        for (const Entry& entry : entries) {
            const auto body = entry.function;
            benchmark::RegisterBenchmark(entry.name.c_str(),
                                         [body](benchmark::State& state) {
                                             if (ServiceFixture* fixture = FixtureOrSkip(state)) {
                                                 body(state, fixture);
                                             }
                                         })
                ->Arg(size)
                ->Iterations(1)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
}
