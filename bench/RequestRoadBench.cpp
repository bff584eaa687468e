/*
 * The request roads end to end: a provider in a forked child, requests from
 * this process with the client library. Baselines in the same run: a bare
 * D-Bus call to the child carrying the same payload, and the raw SQLite select
 * of the same 1,000 rows. A private dbus-daemon is started when none is set.
 */
#include <benchmark/benchmark.h>
#include <bundle.h>
#include <gio/gio.h>
#include <host_control.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <tilvane_client.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "BenchBus.h"
#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "SharedQueryObject.h"

namespace {

constexpr char kTiles[] = "content://org.example.benchroad/tiles";
constexpr char kBareName[] = "org.tilvane.BenchBare";
constexpr char kBareXml[] =
    "<node><interface name='org.tilvane.BenchBare'>"
    "<method name='Insert'><arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='i' direction='out'/><arg type='x' direction='out'/></method>"
    "<method name='BulkInsert'><arg type='s' direction='in'/><arg type='s' direction='in'/>"
    "<arg type='as' direction='in'/><arg type='i' direction='out'/><arg type='x' direction='out'/></method>"
    "</interface></node>";

std::string g_dir;
std::unique_ptr<CContentDbConnection> g_db;
pid_t g_providerPid = -1;

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM&, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    out.nRowId = 1;
    return 0;
}
int BulkInsertCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    out.nRowId = static_cast<int64_t>(in.vecValues.size());
    return 0;
}
bool SelectCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    std::vector<std::string> projection = in.vecProjection;
    auto cursor = g_db->SelectRequest("tiles", projection, in.strWhere, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (CSharedQueryObject::StoreCursor(cursor, "tiles", out.strSharedName, out.nColumnCount) != 0) {
        return false;
    }
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

void BareCallCB(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method, GVariant* parameters,
                GDBusMethodInvocation* invocation, gpointer)
{
    gint64 rows = 1;
    if (std::string(method) == "BulkInsert") {
        GVariant* array = g_variant_get_child_value(parameters, 2);
        rows = static_cast<gint64>(g_variant_n_children(array));
        g_variant_unref(array);
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(ix)", 0, rows));
}

gpointer BareThread(gpointer)
{
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        std::getenv("DBUS_SESSION_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kBareXml, nullptr);
    static const GDBusInterfaceVTable vtable = {BareCallCB, nullptr, nullptr, {nullptr}};
    g_dbus_connection_register_object(connection, "/org/tilvane/BenchBare", node->interfaces[0], &vtable, nullptr,
                                      nullptr, nullptr);
    GVariant* reply = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "RequestName",
                                                  g_variant_new("(su)", kBareName, 4u), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (reply != nullptr) {
        g_variant_unref(reply);
    }
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    g_main_loop_run(loop);
    return nullptr;
}

void RunProvider(int readyFd)
{
    tilvane::host::SetOwnAppId("org.example.benchprovider");
    register_insert_db_callback(kTiles, InsertCB, nullptr);
    register_insert_db_callback_for_bulkdata(kTiles, BulkInsertCB, nullptr);
    register_select_db_callback(kTiles, SelectCB, nullptr);
    g_thread_new("bench-bare", BareThread, nullptr);
    g_usleep(200000);
    char c = 1;
    (void)!write(readyFd, &c, 1);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    _exit(0);
}

void StopAll()
{
    for (pid_t* pid : {&g_providerPid}) {
        if (*pid > 0) {
            kill(*pid, SIGTERM);
            waitpid(*pid, nullptr, 0);
            *pid = -1;
        }
    }
    if (!g_dir.empty()) {
        std::system(("rm -rf '" + g_dir + "'").c_str());
    }
}

bool Setup()
{
    static int ready = [] {
        if (!EnsureBenchBus()) {
            return 0;
        }
        char pattern[] = "/tmp/road-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return 0;
        }
        g_dir = pattern;
        g_db.reset(new CContentDbConnection(g_dir, "bench.db"));
        std::string error;
        if (!g_db->OpenOperation() ||
            g_db->ExcuteSQL("CREATE TABLE tiles (_id INTEGER PRIMARY KEY, tile_title TEXT, tile_image TEXT, "
                            "tile_progress REAL, tile_section_id INTEGER);"
                            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000)"
                            " INSERT INTO tiles SELECT i, 'Tile number ' || i, 'file:///images/' || i || '.png',"
                            " i / 1000.0, i % 7 FROM n;",
                            error) != 0) {
            return 0;
        }
        int fds[2];
        if (pipe(fds) != 0) {
            return 0;
        }
        // The provider is a fresh process (this program started again), not a
        // bare fork: a fork inherits the bus connections and threads that
        // earlier benchmarks opened, which the child could not use.
        g_providerPid = fork();
        if (g_providerPid == 0) {
            close(fds[0]);
            std::string readyFd = std::to_string(fds[1]);
            execl("/proc/self/exe", "tilvane_bench", "--road-bench-provider", readyFd.c_str(), g_dir.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        char c = 0;
        const bool ok = read(fds[0], &c, 1) == 1;
        close(fds[0]);
        // The client keeps the identity of this process's bus connection, which
        // an earlier benchmark may already have opened.
        std::atexit(StopAll);
        return ok ? 1 : 0;
    }();
    return ready == 1;
}

tilvane::client::Values Row(int i)
{
    return {{"tile_title", "Tile number " + std::to_string(i)},
            {"tile_image", "file:///images/" + std::to_string(i) + ".png"},
            {"tile_section_id", "3"}};
}

std::string Encoded(const tilvane::client::Values& values)
{
    bundle* b = bundle_create();
    for (const auto& entry : values) {
        bundle_add_str(b, entry.first.c_str(), entry.second.c_str());
    }
    bundle_raw* raw = nullptr;
    int length = 0;
    bundle_encode(b, &raw, &length);
    std::string text(reinterpret_cast<const char*>(raw), static_cast<size_t>(length));
    bundle_free_encoded_rawdata(&raw);
    bundle_free(b);
    return text;
}

GDBusConnection* BareConnection()
{
    static GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        std::getenv("DBUS_SESSION_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    return connection;
}

void BM_RoadInsert_Content(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    tilvane::client::ContentClient client;
    const auto row = Row(1);
    for (auto _ : state) {
        if (!client.Insert(kTiles, row).Ok()) {
            state.SkipWithError("insert failed");
            break;
        }
    }
}

void BM_RoadInsert_BareCall(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    const auto row = Row(1);
    for (auto _ : state) {
        /* The same work a client does: build and encode the row, then one call. */
        const std::string encoded = Encoded(row);
        GVariant* reply = g_dbus_connection_call_sync(BareConnection(), kBareName, "/org/tilvane/BenchBare",
                                                      kBareName, "Insert",
                                                      g_variant_new("(sss)", "org.example.benchclient", kTiles,
                                                                    encoded.c_str()),
                                                      nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
        if (reply == nullptr) {
            state.SkipWithError("bare call failed");
            break;
        }
        g_variant_unref(reply);
    }
}

void BM_RoadBulkInsert1000_Content(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    tilvane::client::ContentClient client;
    std::vector<tilvane::client::Values> rows;
    for (int i = 0; i < 1000; ++i) {
        rows.push_back(Row(i));
    }
    for (auto _ : state) {
        if (!client.BulkInsert(kTiles, rows).Ok()) {
            state.SkipWithError("bulk insert failed");
            break;
        }
    }
}

void BM_RoadBulkInsert1000_BareCall(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    std::vector<tilvane::client::Values> rows;
    for (int i = 0; i < 1000; ++i) {
        rows.push_back(Row(i));
    }
    for (auto _ : state) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
        for (const auto& row : rows) {
            g_variant_builder_add(&builder, "s", Encoded(row).c_str());
        }
        GVariant* reply = g_dbus_connection_call_sync(
            BareConnection(), kBareName, "/org/tilvane/BenchBare", kBareName, "BulkInsert",
            g_variant_new("(ssas)", "org.example.benchclient", kTiles, &builder), nullptr, G_DBUS_CALL_FLAGS_NONE,
            10000, nullptr, nullptr);
        if (reply == nullptr) {
            state.SkipWithError("bare call failed");
            break;
        }
        g_variant_unref(reply);
    }
}

void BM_RoadSelect1000_Content(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    tilvane::client::ContentClient client;
    for (auto _ : state) {
        auto result = client.Select(kTiles, {}, "", {}, "_id", "");
        if (!result.Ok() || result.rows.rows.size() != 1000) {
            state.SkipWithError("select failed");
            break;
        }
    }
}

void BM_RoadSelect1000_RawSQLite(benchmark::State& state)
{
    if (!Setup()) {
        state.SkipWithError("no provider");
        return;
    }
    sqlite3* db = nullptr;
    sqlite3_open((g_dir + "/bench.db").c_str(), &db);
    for (auto _ : state) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db, "SELECT * FROM tiles ORDER BY _id", -1, &statement, nullptr);
        size_t rows = 0;
        size_t bytes = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            ++rows;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                bytes += static_cast<size_t>(sqlite3_column_bytes(statement, i));
            }
        }
        sqlite3_finalize(statement);
        benchmark::DoNotOptimize(bytes);
        if (rows != 1000) {
            state.SkipWithError("raw select failed");
            break;
        }
    }
    sqlite3_close(db);
}

}  // namespace

BENCHMARK(BM_RoadInsert_Content)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoadInsert_BareCall)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoadBulkInsert1000_Content)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoadBulkInsert1000_BareCall)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoadSelect1000_Content)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoadSelect1000_RawSQLite)->UseRealTime()->Unit(benchmark::kMicrosecond);

/* Entry of the provider process: tilvane_bench --road-bench-provider FD DIRECTORY. */
int RunRoadBenchProvider(int readyFd, const char* directory)
{
    g_db.reset(new CContentDbConnection(directory, "bench.db"));
    if (!g_db->OpenOperation()) {
        return 1;
    }
    RunProvider(readyFd);
    return 0;
}
