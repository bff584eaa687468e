#include "FuzzTargets.h"

#include <glib.h>

#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>
#include <host_control.h>
#include <tilvane_client.h>

#include "Json.h"
#include "JsonLines.h"
#include "Manifest.h"
#include "bundle/bundle_limits.h"
#include "client/row_decoder.h"
#include "requests/row_codec.h"

namespace tilvane {
namespace fuzz {
namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

/* A decoded bundle: within the limits, unique non-empty keys, every key found
 * by lookup, and encoding it gives back a text that decodes to the same. */
std::string CheckEntries(bundle* decoded, Entries& entries);

std::string CheckDecoded(const char* text, size_t length)
{
    host::BundleRefusal why = host::BundleRefusal::None;
    BundlePtr decoded(host::DecodeBoundedBundle(text, length, &why));
    if (!decoded) {
        return why == host::BundleRefusal::None ? "refused without a reason" : "";
    }
    Entries entries;
    return CheckEntries(decoded.get(), entries);
}

/* The binary form as a request carries it: refused exactly when its base64
 * text is, for the same reason; accepted, the same entries, and encoding them
 * again gives back the very bytes (the form has one spelling). */
std::string CheckBinary(const uint8_t* data, size_t size)
{
    host::BundleRefusal why = host::BundleRefusal::None;
    BundlePtr decoded(host::DecodeBoundedBinaryBundle(data, size, &why));
    gchar* text = g_base64_encode(data, size);
    host::BundleRefusal textWhy = host::BundleRefusal::None;
    BundlePtr fromText(host::DecodeBoundedBundle(text, std::strlen(text), &textWhy));
    g_free(text);
    if (!decoded || !fromText) {
        const bool agree = !decoded && !fromText && (why == textWhy || size == 0);
        return why == host::BundleRefusal::None && !decoded ? "refused without a reason"
               : agree                                      ? ""
                                                            : "the binary and the text decoders disagree";
    }
    Entries entries;
    std::string problem = CheckEntries(decoded.get(), entries);
    if (!problem.empty()) {
        return problem;
    }
    std::string again;
    if (!host::AppendBinaryBundle(entries, again) || again != std::string(reinterpret_cast<const char*>(data), size) ||
        BundleEntries(fromText.get()) != entries) {
        return "encoding the decoded entries does not give back the bytes";
    }
    return "";
}

std::string CheckEntries(bundle* decoded, Entries& entries)
{
    entries = BundleEntries(decoded);
    if (entries.size() > host::kBundleMaxKeys || static_cast<int>(entries.size()) != bundle_get_count(decoded)) {
        return "entry count";
    }
    std::set<std::string> keys;
    size_t bytes = 0;
    for (const auto& entry : entries) {
        bytes += entry.first.size() + entry.second.size();
        if (entry.first.empty() || entry.first.size() > host::kBundleMaxKeyBytes || !keys.insert(entry.first).second) {
            return "a key that should have been refused";
        }
        const char* value = bundle_get_val(decoded, entry.first.c_str());
        if (value == nullptr || entry.second != value) {
            return "lookup of a decoded key";
        }
        if (bundle_add_str(decoded, entry.first.c_str(), "x") != BUNDLE_ERROR_KEY_EXISTS) {
            return "a decoded key added twice";
        }
    }
    if (bytes > host::kBundleMaxBytes) {
        return "over the byte limit";
    }
    bundle_raw* raw = nullptr;
    int rawLength = 0;
    if (bundle_encode(decoded, &raw, &rawLength) != BUNDLE_ERROR_NONE) {
        return "cannot encode a decoded bundle";
    }
    BundlePtr again(bundle_decode(raw, rawLength));
    bundle_free_encoded_rawdata(&raw);
    if (!again || BundleEntries(again.get()) != entries) {
        return "encode and decode do not give the same entries";
    }
    return "";
}

}  // namespace

std::string BundleDecode(const uint8_t* data, size_t size)
{
    /* The input as transport text, and as the binary form inside it. */
    std::string problem = CheckDecoded(reinterpret_cast<const char*>(data), size);
    if (!problem.empty()) {
        return "text: " + problem;
    }
    gchar* text = g_base64_encode(data, size);
    problem = CheckDecoded(text, std::strlen(text));
    g_free(text);
    if (!problem.empty()) {
        return "base64 of the input: " + problem;
    }
    problem = CheckBinary(data, size);
    return problem.empty() ? "" : "binary: " + problem;
}

std::string RowDecode(const uint8_t* data, size_t size)
{
    client::RowSet rows;
    if (!host::DecodeRows(data, size, rows)) {
        return "";
    }
    host::RowEncoder encoder(rows.columns);
    for (const auto& row : rows.rows) {
        if (row.size() != rows.columns.size()) {
            return "a row whose cell count is not the column count";
        }
        for (const client::Cell& cell : row) {
            switch (cell.type) {
            case client::Cell::Type::Null: encoder.Null(); break;
            case client::Cell::Type::Integer: encoder.Integer(cell.integer); break;
            case client::Cell::Type::Real: encoder.Real(cell.real); break;
            case client::Cell::Type::Text: encoder.Text(cell.text.data(), cell.text.size()); break;
            case client::Cell::Type::Blob: encoder.Blob(cell.blob.data(), cell.blob.size()); break;
            }
        }
        encoder.EndRow();
    }
    const std::string encoded = encoder.Finish();
    if (encoded.size() != size || std::memcmp(encoded.data(), data, size) != 0) {
        return "decoded rows encode to other bytes";
    }
    return "";
}

std::string ManifestParse(const uint8_t* data, size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    host::RegisteredPackage package;
    std::string error;
    if (!tilvanectl::ParseManifestStream(in, "fuzz", package, error)) {
        return error.rfind("fuzz:", 0) == 0 ? "" : "a refusal that does not name the file: " + error;
    }
    if (package.packageId.empty() || package.packageId.find_first_of(" \t\r") != std::string::npos) {
        return "a package id that should have been refused";
    }
    if (package.applications.empty()) {
        return "a package without applications";
    }
    std::set<std::string> ids;
    for (const auto& app : package.applications) {
        if (app.appId.empty() || !ids.insert(app.appId).second) {
            return "an application id that should have been refused";
        }
        std::set<std::string> keys;
        for (const auto& entry : app.metadata) {
            if (entry.first.empty() || !keys.insert(entry.first).second) {
                return "a metadata key that should have been refused";
            }
        }
    }
    return "";
}

std::string JsonLinesRead(const uint8_t* data, size_t size)
{
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    std::vector<client::Values> rows;
    std::string error;
    if (!tilvanectl::ReadJsonLines(in, "fuzz", rows, error)) {
        return error.rfind("fuzz:", 0) == 0 ? "" : "a refusal that does not name the file: " + error;
    }
    /* Written back as strings, every row reads the same again. */
    for (const client::Values& row : rows) {
        std::string line = "{";
        for (size_t i = 0; i < row.size(); ++i) {
            line += (i == 0 ? "" : ",") + tilvanectl::JsonQuote(row[i].first) + ":" +
                    tilvanectl::JsonQuote(row[i].second);
        }
        line += "}";
        client::Values again;
        std::string what;
        if (!tilvanectl::ParseJsonLine(line, again, what) || again != row) {
            return "a row does not read back the same: " + line;
        }
    }
    return "";
}

}  // namespace fuzz
}  // namespace tilvane
