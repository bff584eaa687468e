/*
 * Bundles on the host: string entries kept in the order they were added.
 *
 * Transport form (before base64):
 *   "TVB" 0x01                      magic and format version
 *   u32 count                       number of entries
 *   count x { u32 keyLength, key bytes, u32 valueLength, value bytes }
 * All integers are little-endian; keys and values carry no terminating NUL.
 */
#include "bundle.h"

#include <glib.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bundle_limits.h"
#include "host_control.h"

/* Entries in insertion order. Small bundles (every launcher row) are searched
 * in place; from kIndexFrom entries on, a hash index beside the vector keeps a
 * lookup O(1), so adding or decoding n keys costs O(n), not O(n^2). */
struct _bundle_t {
    using Entry = std::pair<std::string, std::string>;
    static constexpr size_t kIndexFrom = 32;

    std::vector<Entry> entries;
    std::unordered_map<std::string, size_t> index; /* key -> position; empty below kIndexFrom */

    /* Position of `key`, or entries.size(). */
    size_t Find(const char* key, size_t length) const
    {
        if (!index.empty()) {
            auto it = index.find(std::string(key, length));
            return it != index.end() ? it->second : entries.size();
        }
        for (size_t i = 0; i < entries.size(); ++i) {
            const std::string& k = entries[i].first;
            if (k.size() == length && memcmp(k.data(), key, length) == 0) {
                return i;
            }
        }
        return entries.size();
    }
    size_t Find(const char* key) const { return Find(key, strlen(key)); }

    /* Appends an entry whose key is not present. */
    void Append(std::string key, std::string value)
    {
        entries.emplace_back(std::move(key), std::move(value));
        if (!index.empty()) {
            index.emplace(entries.back().first, entries.size() - 1);
        } else if (entries.size() >= kIndexFrom) {
            Reindex();
        }
    }

    void Erase(size_t position)
    {
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(position));
        index.clear();
        if (entries.size() >= kIndexFrom) {
            Reindex();
        }
    }

    void Reindex()
    {
        index.clear();
        index.reserve(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) {
            index.emplace(entries[i].first, i);
        }
    }
};

namespace tilvane {
namespace host {
namespace {

thread_local int tLastResult = BUNDLE_ERROR_NONE;

int SetResult(int result)
{
    tLastResult = result;
    return result;
}

const char kMagic[4] = {'T', 'V', 'B', '\x01'};

void PutU32(std::string& out, uint32_t value)
{
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xffu));
    }
}

class Reader {
public:
    Reader(const unsigned char* data, size_t size) : data_(data), size_(size) {}

    bool U32(uint32_t& value)
    {
        if (size_ - pos_ < 4) {
            return false;
        }
        value = 0;
        for (int i = 0; i < 4; ++i) {
            value |= static_cast<uint32_t>(data_[pos_ + i]) << (8 * i);
        }
        pos_ += 4;
        return true;
    }

    bool Text(std::string& text)
    {
        uint32_t length = 0;
        if (!U32(length) || size_ - pos_ < length) {
            return false;
        }
        text.assign(reinterpret_cast<const char*>(data_ + pos_), length);
        pos_ += length;
        /* Values are C strings: an embedded NUL cannot come from bundle_encode. */
        return text.find('\0') == std::string::npos;
    }

    bool Bytes(const char* expected, size_t length)
    {
        if (size_ - pos_ < length || memcmp(data_ + pos_, expected, length) != 0) {
            return false;
        }
        pos_ += length;
        return true;
    }

    bool AtEnd() const { return pos_ == size_; }

private:
    const unsigned char* data_;
    size_t size_;
    size_t pos_ = 0;
};

/* Value of each base64 letter; -1 for a byte that is not one ('=' included). */
struct Base64Alphabet {
    signed char value[256];
    constexpr Base64Alphabet() : value()
    {
        const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (int i = 0; i < 256; ++i) {
            value[i] = -1;
        }
        for (int i = 0; i < 64; ++i) {
            value[static_cast<unsigned char>(letters[i])] = static_cast<signed char>(i);
        }
    }
};
constexpr Base64Alphabet kBase64;

/* Decodes canonical base64 (length a multiple of 4, '=' only as one or two
 * last characters) into `out`, checking every character as it goes: one
 * pass over the text. False for anything else. */
bool DecodeBase64(std::string_view text, std::vector<unsigned char>& out)
{
    if (text.empty() || text.size() % 4 != 0) {
        return false;
    }
    size_t padding = 0;
    if (text.back() == '=') {
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    }
    const size_t full = text.size() / 4 - (padding > 0 ? 1 : 0);
    out.resize(text.size() / 4 * 3 - padding);
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text.data());
    unsigned char* o = out.data();
    int bad = 0;
    for (size_t group = 0; group < full; ++group, in += 4, o += 3) {
        const int a = kBase64.value[in[0]], b = kBase64.value[in[1]], c = kBase64.value[in[2]],
                  d = kBase64.value[in[3]];
        bad |= a | b | c | d; /* negative when one of them is not a letter */
        const uint32_t bits = (static_cast<uint32_t>(a & 63) << 18) | (static_cast<uint32_t>(b & 63) << 12) |
                              (static_cast<uint32_t>(c & 63) << 6) | static_cast<uint32_t>(d & 63);
        o[0] = static_cast<unsigned char>(bits >> 16);
        o[1] = static_cast<unsigned char>(bits >> 8);
        o[2] = static_cast<unsigned char>(bits);
    }
    if (padding > 0) {
        const int a = kBase64.value[in[0]], b = kBase64.value[in[1]];
        const int c = padding == 1 ? kBase64.value[in[2]] : 0;
        bad |= a | b | c;
        const uint32_t bits = (static_cast<uint32_t>(a & 63) << 18) | (static_cast<uint32_t>(b & 63) << 12) |
                              (static_cast<uint32_t>(c & 63) << 6);
        o[0] = static_cast<unsigned char>(bits >> 16);
        if (padding == 1) {
            o[1] = static_cast<unsigned char>(bits >> 8);
        }
    }
    return bad >= 0;
}

struct GFreeDeleter {
    void operator()(void* p) const { g_free(p); }
};

/* The entries of a decoded transport form, within the limits. */
BundleRefusal ReadEntries(Reader& reader, _bundle_t& result)
{
    uint32_t count = 0;
    if (!reader.Bytes(kMagic, sizeof kMagic) || !reader.U32(count)) {
        return BundleRefusal::Malformed;
    }
    if (count > kBundleMaxKeys) {
        return BundleRefusal::OverLimits;
    }
    result.entries.reserve(count);
    if (count >= _bundle_t::kIndexFrom) {
        result.index.reserve(count);
    }
    size_t bytes = 0;
    for (uint32_t i = 0; i < count; ++i) {
        std::string key;
        std::string value;
        if (!reader.Text(key) || !reader.Text(value) || key.empty()) {
            return BundleRefusal::Malformed;
        }
        bytes += key.size() + value.size();
        if (key.size() > kBundleMaxKeyBytes || bytes > kBundleMaxBytes) {
            return BundleRefusal::OverLimits;
        }
        if (result.Find(key.data(), key.size()) != result.entries.size()) {
            return BundleRefusal::Malformed; /* a key twice */
        }
        result.Append(std::move(key), std::move(value));
    }
    return reader.AtEnd() ? BundleRefusal::None : BundleRefusal::Malformed;
}

}  // namespace

bundle* DecodeBoundedBundle(const char* text, size_t length, BundleRefusal* why)
{
    BundleRefusal ignored = BundleRefusal::None;
    BundleRefusal& refusal = why != nullptr ? *why : ignored;
    refusal = BundleRefusal::Malformed;
    if (text == nullptr || length == 0) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (length > kBundleMaxEncodedBytes) {
        refusal = BundleRefusal::OverLimits;
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // Decoded from the caller's bytes: no copy of the text first.
    std::vector<unsigned char> binary;
    if (!DecodeBase64(std::string_view(text, length), binary)) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::unique_ptr<bundle> result(new (std::nothrow) _bundle_t());
    if (!result) {
        SetResult(BUNDLE_ERROR_OUT_OF_MEMORY);
        return nullptr;
    }
    Reader reader(binary.data(), binary.size());
    refusal = ReadEntries(reader, *result);
    if (refusal != BundleRefusal::None) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return result.release();
}

const char* DescribeRefusal(BundleRefusal why)
{
    switch (why) {
    case BundleRefusal::None:
        return "a bundle";
    case BundleRefusal::OverLimits:
        return "over the bundle limits";
    case BundleRefusal::Malformed:
        break;
    }
    return "not a bundle";
}
}  // namespace host
}  // namespace tilvane

using tilvane::host::SetResult;

extern "C" {

int get_last_result(void)
{
    return tilvane::host::tLastResult;
}

bundle* bundle_create(void)
{
    bundle* b = new (std::nothrow) _bundle_t();
    SetResult(b != nullptr ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_OUT_OF_MEMORY);
    return b;
}

int bundle_free(bundle* b)
{
    if (b == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    delete b;
    return SetResult(BUNDLE_ERROR_NONE);
}

bundle* bundle_dup(bundle* b)
{
    if (b == nullptr) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    bundle* copy = new (std::nothrow) _bundle_t(*b);
    SetResult(copy != nullptr ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_OUT_OF_MEMORY);
    return copy;
}

int bundle_add_str(bundle* b, const char* key, const char* str)
{
    if (b == nullptr || key == nullptr || *key == '\0' || str == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    if (b->Find(key) != b->entries.size()) {
        return SetResult(BUNDLE_ERROR_KEY_EXISTS);
    }
    b->Append(key, str);
    return SetResult(BUNDLE_ERROR_NONE);
}

int bundle_add(bundle* b, const char* key, const char* val)
{
    return bundle_add_str(b, key, val);
}

int bundle_get_str(bundle* b, const char* key, char** str)
{
    if (b == nullptr || key == nullptr || str == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    const size_t at = b->Find(key);
    if (at == b->entries.size()) {
        *str = nullptr;
        return SetResult(BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    }
    *str = &b->entries[at].second[0];
    return SetResult(BUNDLE_ERROR_NONE);
}

const char* bundle_get_val(bundle* b, const char* key)
{
    if (b == nullptr || key == nullptr) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const size_t at = b->Find(key);
    if (at == b->entries.size()) {
        SetResult(BUNDLE_ERROR_KEY_NOT_AVAILABLE);
        return nullptr;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return b->entries[at].second.c_str();
}

int bundle_del(bundle* b, const char* key)
{
    if (tilvane::host::ShouldFail("bundle_del")) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    if (b == nullptr || key == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    const size_t at = b->Find(key);
    if (at != b->entries.size()) {
        b->Erase(at);
    }
    /* Removing an absent key is not an error on this platform. */
    return SetResult(BUNDLE_ERROR_NONE);
}

int bundle_get_count(bundle* b)
{
    if (b == nullptr) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return 0;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return static_cast<int>(b->entries.size());
}

void bundle_iterate(bundle* b, bundle_iterate_cb_t callback, void* cb_data)
{
    if (b == nullptr || callback == nullptr) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return;
    }
    SetResult(BUNDLE_ERROR_NONE);
    /* The texts handed to the callback are the bundle's own. A callback that
     * changes the bundle stays memory-safe (the size is checked at every step)
     * but may see an entry twice or miss one. */
    for (size_t i = 0; i < b->entries.size(); ++i) {
        callback(b->entries[i].first.c_str(), b->entries[i].second.c_str(), cb_data);
    }
}

int bundle_encode(bundle* b, bundle_raw** raw, int* len)
{
    if (b == nullptr || raw == nullptr || len == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    std::string binary(tilvane::host::kMagic, sizeof tilvane::host::kMagic);
    tilvane::host::PutU32(binary, static_cast<uint32_t>(b->entries.size()));
    for (const auto& entry : b->entries) {
        tilvane::host::PutU32(binary, static_cast<uint32_t>(entry.first.size()));
        binary += entry.first;
        tilvane::host::PutU32(binary, static_cast<uint32_t>(entry.second.size()));
        binary += entry.second;
    }
    gchar* text = g_base64_encode(reinterpret_cast<const guchar*>(binary.data()), binary.size());
    if (text == nullptr) {
        return SetResult(BUNDLE_ERROR_OUT_OF_MEMORY);
    }
    *raw = reinterpret_cast<bundle_raw*>(text);
    *len = static_cast<int>(strlen(text));
    return SetResult(BUNDLE_ERROR_NONE);
}

int bundle_free_encoded_rawdata(bundle_raw** raw)
{
    if (raw == nullptr || *raw == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    g_free(*raw);
    *raw = nullptr;
    return SetResult(BUNDLE_ERROR_NONE);
}

bundle* bundle_decode(const bundle_raw* raw, const int len)
{
    if (raw == nullptr || len <= 0) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return tilvane::host::DecodeBoundedBundle(reinterpret_cast<const char*>(raw), static_cast<size_t>(len), nullptr);
}

}  // extern "C"
