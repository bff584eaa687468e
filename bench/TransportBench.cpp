/*
 * Which D-Bus library carries the direct request connection: the same calls
 * made through the bus daemon with GDBus (what requests used before), peer to
 * peer with GDBus, and peer to peer with sd-bus (libsystemd), each against a
 * server thread of this process that answers with the library of its side.
 *
 *   empty      a call without arguments, answered without any
 *   one tile   2,000 bytes in (`ay`), their length back
 *   bulk       1.82 MB in (`ay`), their length back
 *   select     a count in, 0.81 MB back (`ay`)
 *
 * Figures: "transport / <payload> / GDBus p2p vs daemon" (GDBus peer to peer
 * over GDBus through the daemon) and "transport / <payload> / sd-bus p2p vs
 * GDBus p2p". The client decodes what it gets back as a request would: the
 * bytes are reached and summed.
 */
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <systemd/sd-bus.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BenchBus.h"
#include "BenchFigures.h"

namespace {

constexpr char kPath[] = "/org/tilvane/Bench";
constexpr char kInterface[] = "org.tilvane.Bench";
constexpr char kBusName[] = "org.tilvane.BenchTransport";
constexpr size_t kTileBytes = 2000;
constexpr size_t kBulkBytes = 1820000;
constexpr size_t kSelectBytes = 810000;

const char kXml[] =
    "<node><interface name='org.tilvane.Bench'>"
    "<method name='Empty'/>"
    "<method name='Put'><arg type='ay' direction='in'/><arg type='u' direction='out'/></method>"
    "<method name='Get'><arg type='u' direction='in'/><arg type='ay' direction='out'/></method>"
    "</interface></node>";

const std::vector<uint8_t>& Bytes(size_t /*count*/)
{
    static std::vector<uint8_t> bytes(kBulkBytes, 0x5a);
    return bytes;
}

/* ---- GDBus server side ------------------------------------------------------- */

void GdbusMethodCB(GDBusConnection* /*c*/, const gchar* /*sender*/, const gchar* /*path*/, const gchar* /*iface*/,
                   const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation, gpointer /*data*/)
{
    if (std::strcmp(method, "Empty") == 0) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
    } else if (std::strcmp(method, "Put") == 0) {
        GVariant* bytes = g_variant_get_child_value(parameters, 0);
        const guint32 size = static_cast<guint32>(g_variant_get_size(bytes));
        g_variant_unref(bytes);
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", size));
    } else {
        guint32 count = 0;
        g_variant_get(parameters, "(u)", &count);
        GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, Bytes(count).data(), count, 1);
        g_dbus_method_invocation_return_value(invocation, g_variant_new_tuple(&bytes, 1));
    }
}

void ExportBench(GDBusConnection* connection)
{
    static GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    static const GDBusInterfaceVTable vtable = {GdbusMethodCB, nullptr, nullptr, {nullptr}};
    g_dbus_connection_register_object(connection, kPath, node->interfaces[0], &vtable, nullptr, nullptr, nullptr);
}

gboolean NewPeerCB(GDBusServer* /*server*/, GDBusConnection* connection, gpointer /*data*/)
{
    g_object_ref(connection);
    ExportBench(connection);
    return TRUE;
}

/* A server thread with a main context of its own. */
class GdbusServerThread
{
public:
    /* Peer to peer on `socketPath`, or on the bus at `busAddress` as kBusName. */
    GdbusServerThread(const std::string& socketPath, const std::string& busAddress)
    {
        m_context = g_main_context_new();
        m_loop = g_main_loop_new(m_context, FALSE);
        std::atomic<bool> ready(false);
        m_thread = std::thread([this, socketPath, busAddress, &ready] {
            g_main_context_push_thread_default(m_context);
            if (!socketPath.empty()) {
                gchar* guid = g_dbus_generate_guid();
                m_server = g_dbus_server_new_sync(("unix:path=" + socketPath).c_str(), G_DBUS_SERVER_FLAGS_NONE,
                                                  guid, nullptr, nullptr, nullptr);
                g_free(guid);
                g_signal_connect(m_server, "new-connection", G_CALLBACK(NewPeerCB), nullptr);
                g_dbus_server_start(m_server);
            } else {
                m_bus = g_dbus_connection_new_for_address_sync(
                    busAddress.c_str(),
                    static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                      G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                    nullptr, nullptr, nullptr);
                ExportBench(m_bus);
                g_dbus_connection_call_sync(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName",
                                            g_variant_new("(su)", kBusName, 4u), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
                                            nullptr, nullptr);
            }
            ready = true;
            g_main_loop_run(m_loop);
            g_main_context_pop_thread_default(m_context);
        });
        while (!ready) {
            std::this_thread::yield();
        }
    }
    ~GdbusServerThread()
    {
        g_main_loop_quit(m_loop);
        m_thread.join();
        if (m_server != nullptr) {
            g_dbus_server_stop(m_server);
            g_object_unref(m_server);
        }
        if (m_bus != nullptr) {
            g_object_unref(m_bus);
        }
        g_main_loop_unref(m_loop);
        g_main_context_unref(m_context);
    }

private:
    GMainContext* m_context = nullptr;
    GMainLoop* m_loop = nullptr;
    GDBusServer* m_server = nullptr;
    GDBusConnection* m_bus = nullptr;
    std::thread m_thread;
};

/* ---- sd-bus server side -------------------------------------------------------- */

int SdEmpty(sd_bus_message* m, void* /*data*/, sd_bus_error* /*error*/)
{
    return sd_bus_reply_method_return(m, nullptr);
}

int SdPut(sd_bus_message* m, void* /*data*/, sd_bus_error* /*error*/)
{
    const void* data = nullptr;
    size_t size = 0;
    const int r = sd_bus_message_read_array(m, 'y', &data, &size);
    if (r < 0) {
        return r;
    }
    return sd_bus_reply_method_return(m, "u", static_cast<uint32_t>(size));
}

int SdGet(sd_bus_message* m, void* /*data*/, sd_bus_error* /*error*/)
{
    uint32_t count = 0;
    int r = sd_bus_message_read(m, "u", &count);
    sd_bus_message* reply = nullptr;
    if (r >= 0) {
        r = sd_bus_message_new_method_return(m, &reply);
    }
    if (r >= 0) {
        r = sd_bus_message_append_array(reply, 'y', Bytes(count).data(), count);
    }
    if (r >= 0) {
        r = sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return r;
}

const sd_bus_vtable kSdVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Empty", "", "", SdEmpty, 0),
    SD_BUS_METHOD("Put", "ay", "u", SdPut, 0),
    SD_BUS_METHOD("Get", "u", "ay", SdGet, 0),
    SD_BUS_VTABLE_END,
};

/* sd-bus on both ends of a socket pair: the server side on a thread. */
class SdPeer
{
public:
    SdPeer()
    {
        int fds[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
        sd_id128_t id;
        sd_id128_randomize(&id);
        sd_bus_new(&m_server);
        sd_bus_set_fd(m_server, fds[0], fds[0]);
        sd_bus_set_server(m_server, 1, id);
        sd_bus_add_object_vtable(m_server, nullptr, kPath, kInterface, kSdVtable, nullptr);
        sd_bus_new(&m_client);
        sd_bus_set_fd(m_client, fds[1], fds[1]);
        m_thread = std::thread([this] {
            sd_bus_start(m_server);
            while (!m_stop) {
                const int r = sd_bus_process(m_server, nullptr);
                if (r < 0) {
                    break;
                }
                if (r == 0) {
                    sd_bus_wait(m_server, 100000);
                }
            }
        });
        sd_bus_start(m_client);
    }
    ~SdPeer()
    {
        m_stop = true;
        m_thread.join();
        sd_bus_flush_close_unref(m_client);
        sd_bus_flush_close_unref(m_server);
    }
    sd_bus* Client() { return m_client; }

private:
    sd_bus* m_server = nullptr;
    sd_bus* m_client = nullptr;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/* ---- the calls ---------------------------------------------------------------- */

/* A request of `kind` over a GDBus connection (`name` null peer to peer). */
bool GdbusCall(GDBusConnection* connection, const char* name, int kind)
{
    GVariant* parameters = nullptr;
    const char* method = "Empty";
    if (kind == 1 || kind == 2) {
        method = "Put";
        const size_t size = kind == 1 ? kTileBytes : kBulkBytes;
        GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, Bytes(size).data(), size, 1);
        parameters = g_variant_new_tuple(&bytes, 1);
    } else if (kind == 3) {
        method = "Get";
        parameters = g_variant_new("(u)", static_cast<guint32>(kSelectBytes));
    }
    GVariant* reply = g_dbus_connection_call_sync(connection, name, kPath, kInterface, method, parameters, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 30000, nullptr, nullptr);
    if (reply == nullptr) {
        return false;
    }
    bool ok = true;
    if (kind == 3) {
        GVariant* bytes = g_variant_get_child_value(reply, 0);
        gsize size = 0;
        const uint8_t* data = static_cast<const uint8_t*>(g_variant_get_fixed_array(bytes, &size, 1));
        unsigned sum = 0;
        for (gsize i = 0; i < size; i += 64) {
            sum += data[i];
        }
        benchmark::DoNotOptimize(sum);
        ok = size == kSelectBytes;
        g_variant_unref(bytes);
    }
    g_variant_unref(reply);
    return ok;
}

bool SdCall(sd_bus* bus, int kind)
{
    sd_bus_message* call = nullptr;
    const char* method = kind == 0 ? "Empty" : kind == 3 ? "Get" : "Put";
    int r = sd_bus_message_new_method_call(bus, &call, nullptr, kPath, kInterface, method);
    if (r >= 0 && (kind == 1 || kind == 2)) {
        const size_t size = kind == 1 ? kTileBytes : kBulkBytes;
        r = sd_bus_message_append_array(call, 'y', Bytes(size).data(), size);
    } else if (r >= 0 && kind == 3) {
        r = sd_bus_message_append(call, "u", static_cast<uint32_t>(kSelectBytes));
    }
    sd_bus_message* reply = nullptr;
    if (r >= 0) {
        r = sd_bus_call(bus, call, 30000000, nullptr, &reply);
    }
    if (r >= 0 && kind == 3) {
        const void* data = nullptr;
        size_t size = 0;
        r = sd_bus_message_read_array(reply, 'y', &data, &size);
        unsigned sum = 0;
        for (size_t i = 0; r >= 0 && i < size; i += 64) {
            sum += static_cast<const uint8_t*>(data)[i];
        }
        benchmark::DoNotOptimize(sum);
        r = r >= 0 && size == kSelectBytes ? 0 : -1;
    }
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return r >= 0;
}

const char* const kKinds[] = {"empty call", "one tile (2 KB in)", "bulk (1.82 MB in)", "select (0.81 MB back)"};

std::string SocketPath()
{
    return std::string(g_get_tmp_dir()) + "/tilvane-bench-transport-" + std::to_string(getpid());
}

GDBusConnection* OpenPeer(const std::string& path)
{
    return g_dbus_connection_new_for_address_sync(("unix:path=" + path).c_str(),
                                                  G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr,
                                                  nullptr);
}

void BM_GdbusPeerVsDaemon(benchmark::State& state)
{
    const int kind = static_cast<int>(state.range(0));
    if (!EnsureBenchBus()) {
        state.SkipWithError("no bus");
        return;
    }
    const std::string path = SocketPath();
    unlink(path.c_str());
    GdbusServerThread peerServer(path, "");
    GdbusServerThread busServer("", g_getenv("DBUS_SESSION_BUS_ADDRESS"));
    GDBusConnection* peer = OpenPeer(path);
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        g_getenv("DBUS_SESSION_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (peer == nullptr || bus == nullptr) {
        state.SkipWithError("cannot connect");
    } else {
        const int pairs = Pairs(kind == 2 ? 40 : 400, kind == 2 ? 4 : 40);
        RunInterleaved(
            state, std::string("transport / ") + kKinds[kind] + " / GDBus p2p vs daemon", 0, pairs,
            [&] { return GdbusCall(peer, nullptr, kind); }, [&] { return GdbusCall(bus, kBusName, kind); },
            "GDBus through dbus-daemon");
    }
    if (peer != nullptr) {
        g_dbus_connection_close_sync(peer, nullptr, nullptr);
        g_object_unref(peer);
    }
    if (bus != nullptr) {
        g_dbus_connection_close_sync(bus, nullptr, nullptr);
        g_object_unref(bus);
    }
    unlink(path.c_str());
}

void BM_SdbusVsGdbusPeer(benchmark::State& state)
{
    const int kind = static_cast<int>(state.range(0));
    const std::string path = SocketPath();
    unlink(path.c_str());
    GdbusServerThread peerServer(path, "");
    GDBusConnection* peer = OpenPeer(path);
    SdPeer sd;
    if (peer == nullptr) {
        state.SkipWithError("cannot connect");
        return;
    }
    const int pairs = Pairs(kind == 2 ? 40 : 400, kind == 2 ? 4 : 40);
    RunInterleaved(
        state, std::string("transport / ") + kKinds[kind] + " / sd-bus p2p vs GDBus p2p", 0, pairs,
        [&] { return SdCall(sd.Client(), kind); }, [&] { return GdbusCall(peer, nullptr, kind); }, "GDBus p2p");
    g_dbus_connection_close_sync(peer, nullptr, nullptr);
    g_object_unref(peer);
    unlink(path.c_str());
}

BENCHMARK(BM_GdbusPeerVsDaemon)->DenseRange(0, 3)->Iterations(1)->UseRealTime();
BENCHMARK(BM_SdbusVsGdbusPeer)->DenseRange(0, 3)->Iterations(1)->UseRealTime();

}  // namespace
