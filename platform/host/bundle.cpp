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
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host_control.h"

struct _bundle_t {
    std::vector<std::pair<std::string, std::string>> entries;

    std::vector<std::pair<std::string, std::string>>::iterator Find(const char* key)
    {
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if (it->first == key) {
                return it;
            }
        }
        return entries.end();
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

bool IsBase64Text(std::string_view text)
{
    if (text.empty() || text.size() % 4 != 0) {
        return false;
    }
    size_t padding = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '=') {
            ++padding;
            continue;
        }
        if (padding > 0) {
            return false; /* padding only at the end */
        }
        if (!(g_ascii_isalnum(c) || c == '+' || c == '/')) {
            return false;
        }
    }
    return padding <= 2;
}

struct GFreeDeleter {
    void operator()(void* p) const { g_free(p); }
};

}  // namespace
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
    if (b->Find(key) != b->entries.end()) {
        return SetResult(BUNDLE_ERROR_KEY_EXISTS);
    }
    b->entries.emplace_back(key, str);
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
    auto it = b->Find(key);
    if (it == b->entries.end()) {
        *str = nullptr;
        return SetResult(BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    }
    *str = &it->second[0];
    return SetResult(BUNDLE_ERROR_NONE);
}

const char* bundle_get_val(bundle* b, const char* key)
{
    if (b == nullptr || key == nullptr) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto it = b->Find(key);
    if (it == b->entries.end()) {
        SetResult(BUNDLE_ERROR_KEY_NOT_AVAILABLE);
        return nullptr;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return it->second.c_str();
}

int bundle_del(bundle* b, const char* key)
{
    if (tilvane::host::ShouldFail("bundle_del")) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    if (b == nullptr || key == nullptr) {
        return SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
    }
    auto it = b->Find(key);
    if (it != b->entries.end()) {
        b->entries.erase(it);
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
    using namespace tilvane::host;
    if (raw == nullptr || len <= 0) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    // Decoded in place from the caller's bytes: no copy of the text first.
    const std::string_view text(reinterpret_cast<const char*>(raw), static_cast<size_t>(len));
    if (!IsBase64Text(text)) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::vector<guchar> binary(text.size() / 4 * 3 + 3);
    gint state = 0;
    guint save = 0;
    const gsize size = g_base64_decode_step(text.data(), text.size(), binary.data(), &state, &save);

    Reader reader(binary.data(), size);
    uint32_t count = 0;
    if (!reader.Bytes(kMagic, sizeof kMagic) || !reader.U32(count)) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::unique_ptr<bundle> result(new (std::nothrow) _bundle_t());
    if (!result) {
        SetResult(BUNDLE_ERROR_OUT_OF_MEMORY);
        return nullptr;
    }
    for (uint32_t i = 0; i < count; ++i) {
        std::string key;
        std::string value;
        if (!reader.Text(key) || !reader.Text(value) || key.empty() ||
            result->Find(key.c_str()) != result->entries.end()) {
            SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        result->entries.emplace_back(std::move(key), std::move(value));
    }
    if (!reader.AtEnd()) {
        SetResult(BUNDLE_ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetResult(BUNDLE_ERROR_NONE);
    return result.release();
}

}  // extern "C"
