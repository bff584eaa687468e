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

#include "bundle/bundle_limits.h"
#include "host_control/base.h"

/* Entries in insertion order. Small bundles (every launcher row) are searched
 * in place; from kIndexFrom entries on, a hash index beside the vector keeps a
 * lookup O(1), so adding or decoding n keys costs O(n), not O(n^2).
 *
 * The texts of a decoded bundle stay in the one buffer they were decoded
 * into, each closed by a NUL written in place (decoding allocates once per
 * bundle, not twice per entry); an entry added later owns a copy of its own
 * ("key\0value\0"), freed when the entry is removed. */
struct _bundle_t {
    struct Entry {
        std::string_view key;
        std::string_view value; /* NUL-terminated in its storage */
        std::unique_ptr<char[]> owned;
    };
    static constexpr size_t kIndexFrom = 32;

    std::vector<Entry> entries;
    std::unordered_map<std::string_view, size_t> index; /* key -> position; empty below kIndexFrom */
    std::unique_ptr<char[]> decoded;                    /* texts of the decoded entries */

    _bundle_t() = default;
    _bundle_t(const _bundle_t& other)
    {
        entries.reserve(other.entries.size());
        for (const Entry& entry : other.entries) {
            Append(entry.key, entry.value);
        }
    }
    _bundle_t& operator=(const _bundle_t&) = delete;

    /* Position of `key`, or entries.size(). */
    size_t Find(std::string_view key) const
    {
        if (!index.empty()) {
            auto it = index.find(key);
            return it != index.end() ? it->second : entries.size();
        }
        for (size_t i = 0; i < entries.size(); ++i) {
            if (entries[i].key == key) {
                return i;
            }
        }
        return entries.size();
    }

    /* Appends a copy of an entry whose key is not present. */
    void Append(std::string_view key, std::string_view value)
    {
        std::unique_ptr<char[]> owned(new char[key.size() + value.size() + 2]);
        char* k = owned.get();
        char* v = k + key.size() + 1;
        memcpy(k, key.data(), key.size());
        k[key.size()] = '\0';
        memcpy(v, value.data(), value.size());
        v[value.size()] = '\0';
        AppendInPlace(std::string_view(k, key.size()), std::string_view(v, value.size()), std::move(owned));
    }

    /* Appends an entry whose texts live in `decoded` (or in `owned`). */
    void AppendInPlace(std::string_view key, std::string_view value, std::unique_ptr<char[]> owned = nullptr)
    {
        entries.push_back(Entry{key, value, std::move(owned)});
        if (!index.empty()) {
            index.emplace(key, entries.size() - 1);
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
            index.emplace(entries[i].key, i);
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

/* Reads the transport form in the buffer it was decoded into, and closes
 * each text with a NUL in place: the byte after a text is the first of the
 * next length (read before it is overwritten) or, after the last text, the
 * spare byte at the end of the buffer. */
class Reader {
public:
    /* `data` holds `size` bytes and one spare byte after them. */
    Reader(char* data, size_t size) : data_(data), size_(size) {}

    bool U32(uint32_t& value)
    {
        if (size_ - pos_ < 4) {
            return false;
        }
        value = 0;
        for (int i = 0; i < 4; ++i) {
            value |= static_cast<uint32_t>(static_cast<unsigned char>(data_[pos_ + i])) << (8 * i);
        }
        pos_ += 4;
        return true;
    }

    bool Text(std::string_view& text)
    {
        uint32_t length = 0;
        if (!U32(length) || size_ - pos_ < length) {
            return false;
        }
        char* start = data_ + pos_;
        pos_ += length;
        /* Values are C strings: an embedded NUL cannot come from bundle_encode. */
        if (memchr(start, '\0', length) != nullptr) {
            return false;
        }
        if (pending_ != nullptr) {
            *pending_ = '\0';
        }
        pending_ = data_ + pos_;
        text = std::string_view(start, length);
        return true;
    }

    bool Bytes(const char* expected, size_t length)
    {
        if (size_ - pos_ < length || memcmp(data_ + pos_, expected, length) != 0) {
            return false;
        }
        pos_ += length;
        return true;
    }

    /* True at the end of the data; the last text is then closed too. */
    bool AtEnd()
    {
        if (pos_ != size_) {
            return false;
        }
        if (pending_ != nullptr) {
            *pending_ = '\0';
        }
        return true;
    }

private:
    char* data_;
    size_t size_;
    size_t pos_ = 0;
    char* pending_ = nullptr; /* where the last text read ends, to be closed */
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
size_t DecodedLength(std::string_view text)
{
    if (text.empty() || text.size() % 4 != 0) {
        return 0;
    }
    const size_t padding = text.back() != '=' ? 0 : (text[text.size() - 2] == '=' ? 2 : 1);
    return text.size() / 4 * 3 - padding;
}

/* `out` has room for DecodedLength(text) bytes. */
bool DecodeBase64(std::string_view text, char* out)
{
    if (text.empty() || text.size() % 4 != 0) {
        return false;
    }
    const size_t padding = text.size() / 4 * 3 - DecodedLength(text);
    const size_t full = text.size() / 4 - (padding > 0 ? 1 : 0);
    const unsigned char* in = reinterpret_cast<const unsigned char*>(text.data());
    unsigned char* o = reinterpret_cast<unsigned char*>(out);
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
        std::string_view key;
        std::string_view value;
        if (!reader.Text(key) || !reader.Text(value) || key.empty()) {
            return BundleRefusal::Malformed;
        }
        bytes += key.size() + value.size();
        if (key.size() > kBundleMaxKeyBytes || bytes > kBundleMaxBytes) {
            return BundleRefusal::OverLimits;
        }
        if (result.Find(key) != result.entries.size()) {
            return BundleRefusal::Malformed; /* a key twice */
        }
        result.AppendInPlace(key, value);
    }
    return reader.AtEnd() ? BundleRefusal::None : BundleRefusal::Malformed;
}

}  // namespace

namespace {

/* A new bundle whose buffer holds `size` bytes and the spare byte after them;
 * null (out of memory) when there is none. */
std::unique_ptr<bundle> NewDecodedBundle(size_t size)
{
    std::unique_ptr<bundle> result(new (std::nothrow) _bundle_t());
    if (result) {
        result->decoded.reset(new (std::nothrow) char[size + 1]);
    }
    if (!result || !result->decoded) {
        SetResult(BUNDLE_ERROR_OUT_OF_MEMORY);
        return nullptr;
    }
    return result;
}

/* The entries of `result`'s buffer of `size` bytes; null when refused. */
bundle* ReadDecoded(std::unique_ptr<bundle> result, size_t size, BundleRefusal& refusal)
{
    Reader reader(result->decoded.get(), size);
    refusal = ReadEntries(reader, *result);
    if (refusal != BundleRefusal::None) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return result.release();
}

/* False, with the refusal, for no bytes or more than `maxBytes`. */
bool Admissible(const void* data, size_t size, size_t maxBytes, BundleRefusal& refusal)
{
    refusal = BundleRefusal::Malformed;
    if (data == nullptr || size == 0) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return false;
    }
    if (size > maxBytes) {
        refusal = BundleRefusal::OverLimits;
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return false;
    }
    return true;
}

}  // namespace

bundle* DecodeBoundedBundle(const char* text, size_t length, BundleRefusal* why)
{
    BundleRefusal ignored = BundleRefusal::None;
    BundleRefusal& refusal = why != nullptr ? *why : ignored;
    if (!Admissible(text, length, kBundleMaxEncodedBytes, refusal)) {
        return nullptr;
    }
    // Decoded from the caller's bytes, into the buffer that keeps the texts.
    const std::string_view encoded(text, length);
    const size_t size = DecodedLength(encoded);
    std::unique_ptr<bundle> result = NewDecodedBundle(size);
    if (!result) {
        return nullptr;
    }
    if (!DecodeBase64(encoded, result->decoded.get())) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return ReadDecoded(std::move(result), size, refusal);
}

bundle* DecodeBoundedBinaryBundle(const void* data, size_t size, BundleRefusal* why)
{
    BundleRefusal ignored = BundleRefusal::None;
    BundleRefusal& refusal = why != nullptr ? *why : ignored;
    if (!Admissible(data, size, kBundleMaxBinaryBytes, refusal)) {
        return nullptr;
    }
    // The one copy: the message's bytes are read-only, the texts are closed in place.
    std::unique_ptr<bundle> result = NewDecodedBundle(size);
    if (!result) {
        return nullptr;
    }
    memcpy(result->decoded.get(), data, size);
    return ReadDecoded(std::move(result), size, refusal);
}

namespace {

char* PutU32At(char* out, uint32_t value)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    memcpy(out, &value, 4);  // one store
    return out + 4;
#endif
    out[0] = static_cast<char>(value & 0xffu);
    out[1] = static_cast<char>((value >> 8) & 0xffu);
    out[2] = static_cast<char>((value >> 16) & 0xffu);
    out[3] = static_cast<char>((value >> 24) & 0xffu);
    return out + 4;
}

char* PutTextAt(char* out, std::string_view text)
{
    out = PutU32At(out, static_cast<uint32_t>(text.size()));
    memcpy(out, text.data(), text.size());
    return out + text.size();
}

using Entries = std::vector<std::pair<std::string, std::string>>;

uint8_t KeyHash(const std::string& key)
{
    const auto last = static_cast<unsigned char>(key.back());
    const auto middle = static_cast<unsigned char>(key[key.size() / 2]);
    return static_cast<uint8_t>(key.size() * 31u + last * 7u + middle);
}

/* False when a key comes twice, through a hash set (many keys). */
bool DistinctManyKeys(const Entries& entries)
{
    std::unordered_map<std::string_view, size_t> seen;
    seen.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        if (!seen.emplace(entries[i].first, i).second) {
            return false;
        }
    }
    return true;
}

/* The keys of a launcher row's few dozen entries seen so far: one byte of
 * hash each, and the keys themselves compared only when a hash repeats. */
class FewKeys
{
public:
    /* False when entry `i`'s key is one of the entries before it. */
    bool Add(const Entries& entries, size_t i)
    {
        const uint8_t hash = m_hashes[i] = KeyHash(entries[i].first);
        const uint64_t bit = uint64_t{1} << (hash & 63);
        if ((m_seen[hash >> 6] & bit) != 0) {
            for (size_t j = 0; j < i; ++j) {
                if (m_hashes[j] == hash && entries[j].first == entries[i].first) {
                    return false;
                }
            }
        }
        m_seen[hash >> 6] |= bit;
        return true;
    }

private:
    uint8_t m_hashes[_bundle_t::kIndexFrom];
    uint64_t m_seen[4] = {0, 0, 0, 0};
};

}  // namespace

bool AppendBinaryBundle(const Entries& entries, std::string& out)
{
    size_t bytes = sizeof kMagic + 4;
    for (const auto& entry : entries) {
        if (entry.first.empty()) {
            return false;
        }
        bytes += 8 + entry.first.size() + entry.second.size();
    }
    const size_t start = out.size();
    out.resize(start + bytes);
    char* at = &out[start];
    memcpy(at, kMagic, sizeof kMagic);
    at = PutU32At(at + sizeof kMagic, static_cast<uint32_t>(entries.size()));
    // A row's few keys are checked for repeats as they are written, while
    // their bytes are at hand; many keys through a hash set afterwards.
    const bool few = entries.size() < _bundle_t::kIndexFrom;
    FewKeys seen;
    for (size_t i = 0; i < entries.size(); ++i) {
        at = PutTextAt(at, entries[i].first);
        at = PutTextAt(at, entries[i].second);
        if (few && !seen.Add(entries, i)) {
            out.resize(start);
            return false;
        }
    }
    if (!few && !DistinctManyKeys(entries)) {
        out.resize(start);
        return false;
    }
    return true;
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
    *str = const_cast<char*>(b->entries[at].value.data());
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
    return b->entries[at].value.data();
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
        callback(b->entries[i].key.data(), b->entries[i].value.data(), cb_data);
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
        tilvane::host::PutU32(binary, static_cast<uint32_t>(entry.key.size()));
        binary += entry.key;
        tilvane::host::PutU32(binary, static_cast<uint32_t>(entry.value.size()));
        binary += entry.value;
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
