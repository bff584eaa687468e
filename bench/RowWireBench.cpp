/*
 * Request rows on the wire, in process, for a bulk of 1,000 tiles of every
 * column (BenchTile), interleaved in the same run:
 *   - the client's encoding: the client library's own path from its rows to
 *     the call's arguments (each row in the binary form of its bundle, the
 *     `aay` built around them), against a memcpy of every row's names and
 *     values into a buffer of its own with the same container built around
 *     them; and, for information, against one memcpy per row of its encoded
 *     bytes laid out in one block beforehand;
 *   - the service's decoding: the rows of a bulk into bundles (the bulk
 *     limits checked, one copy of each row), against a memcpy of their bytes;
 *   - the choice of form: a bulk as `aay` (encoded, serialized, read back as
 *     the message's untrusted bytes and decoded into bundles) against the
 *     same rows as typed string dictionaries `aa{ss}` (built, serialized, read
 *     back untrusted, every string validated as GVariant does, and added to
 *     bundles).
 */
#include <benchmark/benchmark.h>
#include <gio/gio.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>

#include "BenchData.h"
#include "BenchFigures.h"
#include "bundle/bundle_limits.h"
#include "client/client_calls.h"
#include "request_wire.h"
#include "requests/content_steps.h"

namespace {

namespace wire = tilvane::host::requests::wire;

constexpr int kRows = 1000;

std::vector<BenchValues> Tiles()
{
    std::vector<BenchValues> rows;
    for (int i = 0; i < kRows; ++i) {
        rows.push_back(BenchTile(900000 + i, 42, "org.example.bench.rows"));
    }
    return rows;
}

/* The encoded rows, one after another, and where each one starts. */
struct Flat {
    std::string bytes;
    std::vector<size_t> starts;
    size_t Size(size_t i) const { return (i + 1 < starts.size() ? starts[i + 1] : bytes.size()) - starts[i]; }
};

Flat Flatten(const std::vector<BenchValues>& rows)
{
    Flat flat;
    for (const BenchValues& row : rows) {
        flat.starts.push_back(flat.bytes.size());
        tilvane::host::AppendBinaryBundle(row, flat.bytes);
    }
    return flat;
}

/* The arguments of a bulk insert of `encoded`, built and dropped. */
bool Frame(std::vector<wire::Bytes>&& encoded)
{
    wire::ContentBulkInsertIn in;
    in.clientApp = "org.example.bench.ui";
    in.uri = "content://org.example.bench/tiles";
    in.rows = std::move(encoded);
    GVariant* arguments = g_variant_ref_sink(wire::ToVariant(in));
    const bool ok = g_variant_n_children(arguments) == 3;
    g_variant_unref(arguments);
    return ok;
}

bool ClientEncoding(const std::vector<BenchValues>& rows)
{
    bool ok = false;
    std::vector<wire::Bytes> encoded = tilvane::host::clientcalls::EncodeRows(rows, ok);
    return ok && Frame(std::move(encoded));
}

/* Each row's names and values copied into one buffer of its own: the bytes
 * any encoding has to move, from where the caller keeps them. */
bool GatheredCopy(const std::vector<BenchValues>& rows)
{
    std::vector<wire::Bytes> copied(rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        size_t bytes = 0;
        for (const auto& entry : rows[i]) {
            bytes += entry.first.size() + entry.second.size();
        }
        auto buffer = std::make_shared<std::string>();
        buffer->resize(bytes);
        char* at = &(*buffer)[0];
        for (const auto& entry : rows[i]) {
            std::memcpy(at, entry.first.data(), entry.first.size());
            at += entry.first.size();
            std::memcpy(at, entry.second.data(), entry.second.size());
            at += entry.second.size();
        }
        copied[i].shared = std::move(buffer);
    }
    return Frame(std::move(copied));
}

void BM_RowsClientEncoding(benchmark::State& state)
{
    const std::vector<BenchValues> rows = Tiles();
    RunInterleaved(
        state, "client encoding of 1000 tiles", 1.1, Pairs(300, 20), [&] { return ClientEncoding(rows); },
        [&] { return GatheredCopy(rows); }, "memcpy of the rows' names and values + framing");
}

/* The same against one memcpy per row of its encoded bytes, laid out in one
 * block beforehand: the floor no encoding of separate texts reaches. */
void BM_RowsClientEncodingFlat(benchmark::State& state)
{
    const std::vector<BenchValues> rows = Tiles();
    const Flat flat = Flatten(rows);
    RunInterleaved(
        state, "client encoding of 1000 tiles vs one memcpy per row", 0, Pairs(300, 20),
        [&] { return ClientEncoding(rows); },
        [&] {
            std::vector<wire::Bytes> copied(flat.starts.size());
            for (size_t i = 0; i < copied.size(); ++i) {
                copied[i].shared = std::make_shared<const std::string>(flat.bytes.data() + flat.starts[i], flat.Size(i));
            }
            return Frame(std::move(copied));
        },
        "one memcpy of each row's encoded bytes + framing");
}

/* `flat`'s rows as the service reads them: borrowed from the message. */
std::vector<wire::Bytes> Borrowed(const Flat& flat)
{
    std::vector<wire::Bytes> rows(flat.starts.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        rows[i].data = reinterpret_cast<const uint8_t*>(flat.bytes.data() + flat.starts[i]);
        rows[i].size = flat.Size(i);
    }
    return rows;
}

void BM_RowsServiceDecoding(benchmark::State& state)
{
    const Flat flat = Flatten(Tiles());
    const std::vector<wire::Bytes> borrowed = Borrowed(flat);
    RunInterleaved(
        state, "service decoding of 1000 tiles", 0, Pairs(300, 20),
        [&] {
            std::vector<BundlePtr> bundles;
            return tilvane::host::requests::DecodeRows(borrowed, bundles) == tilvane::host::BundleRefusal::None &&
                   bundles.size() == borrowed.size();
        },
        [&] {
            std::vector<std::unique_ptr<char[]>> copies(borrowed.size());
            for (size_t i = 0; i < borrowed.size(); ++i) {
                copies[i].reset(new char[borrowed[i].Size() + 1]);
                std::memcpy(copies[i].get(), borrowed[i].Begin(), borrowed[i].Size());
            }
            benchmark::DoNotOptimize(copies.data());
            return true;
        },
        "memcpy of the rows' bytes");
}

/* `variant` serialized, then read back as a peer's untrusted bytes. */
GVariant* AsReceived(GVariant* variant, const GVariantType* type)
{
    GVariant* sunk = g_variant_ref_sink(variant);
    GBytes* bytes = g_bytes_new(g_variant_get_data(sunk), g_variant_get_size(sunk));
    g_variant_unref(sunk);
    GVariant* received = g_variant_ref_sink(g_variant_new_from_bytes(type, bytes, FALSE));
    g_bytes_unref(bytes);
    return received;
}

bool ByteStringRoundTrip(const std::vector<BenchValues>& rows)
{
    bool ok = false;
    std::vector<wire::Bytes> encoded = tilvane::host::clientcalls::EncodeRows(rows, ok);
    wire::ContentBulkInsertIn in;
    in.clientApp = "org.example.bench.ui";
    in.uri = "content://org.example.bench/tiles";
    in.rows = std::move(encoded);
    GVariant* received = AsReceived(wire::ToVariant(in), G_VARIANT_TYPE("(ssaay)"));
    wire::ContentBulkInsertIn read;
    std::vector<BundlePtr> bundles;
    ok = ok && wire::Read(received, read) &&
         tilvane::host::requests::DecodeRows(read.rows, bundles) == tilvane::host::BundleRefusal::None;
    g_variant_unref(received);
    return ok && bundles.size() == rows.size();
}

bool DictionaryRoundTrip(const std::vector<BenchValues>& rows)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{ss}"));
    for (const BenchValues& row : rows) {
        g_variant_builder_open(&builder, G_VARIANT_TYPE("a{ss}"));
        for (const auto& entry : row) {
            g_variant_builder_add(&builder, "{ss}", entry.first.c_str(), entry.second.c_str());
        }
        g_variant_builder_close(&builder);
    }
    GVariant* received = AsReceived(g_variant_builder_end(&builder), G_VARIANT_TYPE("aa{ss}"));
    std::vector<BundlePtr> bundles;
    GVariantIter rowIter;
    g_variant_iter_init(&rowIter, received);
    GVariant* row = nullptr;
    while ((row = g_variant_iter_next_value(&rowIter)) != nullptr) {
        BundlePtr b(bundle_create());
        GVariantIter entries;
        g_variant_iter_init(&entries, row);
        const char* key = nullptr;
        const char* value = nullptr;
        while (g_variant_iter_next(&entries, "{&s&s}", &key, &value)) {
            bundle_add_str(b.get(), key, value);
        }
        bundles.push_back(std::move(b));
        g_variant_unref(row);
    }
    g_variant_unref(received);
    return bundles.size() == rows.size();
}

void BM_RowsFormChoice(benchmark::State& state)
{
    const std::vector<BenchValues> rows = Tiles();
    RunInterleaved(
        state, "1000 tiles as aay vs aa{ss}, encoded, sent and decoded", 0, Pairs(100, 10),
        [&] { return ByteStringRoundTrip(rows); }, [&] { return DictionaryRoundTrip(rows); },
        "typed dictionaries aa{ss}");
}

}  // namespace

BENCHMARK(BM_RowsClientEncoding)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RowsClientEncodingFlat)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RowsServiceDecoding)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RowsFormChoice)->Iterations(1)->Unit(benchmark::kMillisecond);
