/*
 * Bundles read from the bus: the decoding limits (bundle_limits.h) and the
 * index that keeps lookups, adds and decoding linear in the number of keys.
 */
#include <gtest/gtest.h>

#include <glib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>

#include "bundle/bundle_limits.h"

namespace {

using tilvane::host::BundleRefusal;
using tilvane::host::DecodeBoundedBundle;
using Entries = std::vector<std::pair<std::string, std::string>>;

void PutU32(std::string& out, uint32_t value)
{
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xffu));
    }
}

/* The binary form of `entries`, written by hand (duplicates allowed). */
std::string Binary(const Entries& entries)
{
    std::string binary("TVB\x01", 4);
    PutU32(binary, static_cast<uint32_t>(entries.size()));
    for (const auto& entry : entries) {
        PutU32(binary, static_cast<uint32_t>(entry.first.size()));
        binary += entry.first;
        PutU32(binary, static_cast<uint32_t>(entry.second.size()));
        binary += entry.second;
    }
    return binary;
}

/* The transport text of `entries`: the base64 of their binary form. */
std::string Encoded(const Entries& entries)
{
    const std::string binary = Binary(entries);
    gchar* text = g_base64_encode(reinterpret_cast<const guchar*>(binary.data()), binary.size());
    std::string result(text);
    g_free(text);
    return result;
}

Entries Keys(size_t count, const std::string& value = "v")
{
    Entries entries;
    for (size_t i = 0; i < count; ++i) {
        entries.emplace_back("key" + std::to_string(i), value);
    }
    return entries;
}

BundleRefusal Refusal(const std::string& text)
{
    BundleRefusal why = BundleRefusal::None;
    BundlePtr decoded(DecodeBoundedBundle(text.data(), text.size(), &why));
    EXPECT_EQ(decoded == nullptr, why != BundleRefusal::None);
    return why;
}

TEST(BundleLimitsTest, TheMostKeysAreDecodedInOrderAndOneMoreIsRefused)
{
    const std::string most = Encoded(Keys(tilvane::host::kBundleMaxKeys));
    BundlePtr decoded(bundle_decode(reinterpret_cast<const bundle_raw*>(most.c_str()), static_cast<int>(most.size())));
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(static_cast<int>(tilvane::host::kBundleMaxKeys), bundle_get_count(decoded.get()));
    EXPECT_STREQ("v", bundle_get_val(decoded.get(), "key1023"));
    std::vector<std::string> order;
    bundle_iterate(
        decoded.get(), [](const char* key, const char*, void* data) { static_cast<std::vector<std::string>*>(data)->push_back(key); },
        &order);
    ASSERT_EQ(tilvane::host::kBundleMaxKeys, order.size());
    EXPECT_EQ("key0", order.front());
    EXPECT_EQ("key500", order[500]);

    EXPECT_EQ(BundleRefusal::OverLimits, Refusal(Encoded(Keys(tilvane::host::kBundleMaxKeys + 1))));
    EXPECT_EQ(BundleRefusal::OverLimits, Refusal(Encoded(Keys(80000))));
}

TEST(BundleLimitsTest, KeyAndTotalBytesAreBounded)
{
    EXPECT_EQ(BundleRefusal::None, Refusal(Encoded({{std::string(tilvane::host::kBundleMaxKeyBytes, 'k'), "v"}})));
    EXPECT_EQ(BundleRefusal::OverLimits,
              Refusal(Encoded({{std::string(tilvane::host::kBundleMaxKeyBytes + 1, 'k'), "v"}})));
    /* One value may take all of the bytes. */
    EXPECT_EQ(BundleRefusal::None, Refusal(Encoded({{"k", std::string(tilvane::host::kBundleMaxBytes - 1, 'v')}})));
    EXPECT_EQ(BundleRefusal::OverLimits, Refusal(Encoded({{"k", std::string(tilvane::host::kBundleMaxBytes, 'v')}})));
    EXPECT_EQ(BundleRefusal::OverLimits,
              Refusal(Encoded({{"a", std::string(tilvane::host::kBundleMaxBytes / 2, 'v')},
                               {"b", std::string(tilvane::host::kBundleMaxBytes / 2, 'v')}})));
    /* A text longer than any bundle within the limits is refused before it is read. */
    const std::string longText(tilvane::host::kBundleMaxEncodedBytes + 4, 'A');
    EXPECT_EQ(BundleRefusal::OverLimits, Refusal(longText));
    EXPECT_STREQ("over the bundle limits", tilvane::host::DescribeRefusal(BundleRefusal::OverLimits));
    EXPECT_STREQ("not a bundle", tilvane::host::DescribeRefusal(BundleRefusal::Malformed));
}

TEST(BundleLimitsTest, DuplicateKeysAreRefusedBelowAndAboveTheIndexSize)
{
    Entries few = {{"a", "1"}, {"b", "2"}, {"a", "3"}};
    EXPECT_EQ(BundleRefusal::Malformed, Refusal(Encoded(few)));
    Entries many = Keys(200);
    many.emplace_back("key17", "again");
    EXPECT_EQ(BundleRefusal::Malformed, Refusal(Encoded(many)));
    EXPECT_EQ(BundleRefusal::Malformed, Refusal("not base64!"));
}

TEST(BundleLimitsTest, AddLookupAndDeleteStayRightAcrossTheIndex)
{
    BundlePtr b(bundle_create());
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(BUNDLE_ERROR_NONE, bundle_add_str(b.get(), ("k" + std::to_string(i)).c_str(), std::to_string(i).c_str()));
    }
    EXPECT_EQ(BUNDLE_ERROR_KEY_EXISTS, bundle_add_str(b.get(), "k0", "again"));
    EXPECT_EQ(BUNDLE_ERROR_KEY_EXISTS, bundle_add_str(b.get(), "k99", "again"));
    EXPECT_STREQ("0", bundle_get_val(b.get(), "k0"));
    /* Deleting shifts the later entries; lookups still find them. */
    for (int i = 0; i < 80; ++i) {
        ASSERT_EQ(BUNDLE_ERROR_NONE, bundle_del(b.get(), ("k" + std::to_string(i)).c_str()));
    }
    EXPECT_EQ(20, bundle_get_count(b.get()));
    EXPECT_EQ(nullptr, bundle_get_val(b.get(), "k5"));
    for (int i = 80; i < 100; ++i) {
        EXPECT_STREQ(std::to_string(i).c_str(), bundle_get_val(b.get(), ("k" + std::to_string(i)).c_str()));
    }
    EXPECT_EQ(BUNDLE_ERROR_NONE, bundle_add_str(b.get(), "k5", "back"));
    EXPECT_EQ(BUNDLE_ERROR_KEY_EXISTS, bundle_add_str(b.get(), "k85", "again"));
    BundlePtr copy(bundle_dup(b.get()));
    EXPECT_STREQ("back", bundle_get_val(copy.get(), "k5"));
    EXPECT_STREQ("99", bundle_get_val(copy.get(), "k99"));
    EXPECT_EQ(BUNDLE_ERROR_KEY_EXISTS, bundle_add_str(copy.get(), "k99", "again"));
}

}  // namespace

namespace {

BundleRefusal BinaryRefusal(const std::string& bytes)
{
    BundleRefusal why = BundleRefusal::None;
    BundlePtr decoded(tilvane::host::DecodeBoundedBinaryBundle(bytes.data(), bytes.size(), &why));
    EXPECT_EQ(decoded == nullptr, why != BundleRefusal::None);
    return why;
}

}  // namespace

TEST(BundleLimitsTest, TheBinaryFormIsHeldToTheLimitsOfTheText)
{
    using tilvane::host::kBundleMaxBytes;
    using tilvane::host::kBundleMaxKeyBytes;
    using tilvane::host::kBundleMaxKeys;
    const std::vector<Entries> cases = {
        Keys(kBundleMaxKeys),
        Keys(kBundleMaxKeys + 1),
        {{std::string(kBundleMaxKeyBytes, 'k'), "v"}},
        {{std::string(kBundleMaxKeyBytes + 1, 'k'), "v"}},
        {{"k", std::string(kBundleMaxBytes - 1, 'v')}},
        {{"k", std::string(kBundleMaxBytes, 'v')}},
        {{"a", "1"}, {"b", "2"}, {"a", "3"}},
        {{"", "empty key"}},
        {{"k", std::string("nul\0inside", 10)}},
    };
    const BundleRefusal expected[] = {BundleRefusal::None,       BundleRefusal::OverLimits, BundleRefusal::None,
                                      BundleRefusal::OverLimits, BundleRefusal::None,       BundleRefusal::OverLimits,
                                      BundleRefusal::Malformed,  BundleRefusal::Malformed,  BundleRefusal::Malformed};
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(expected[i], BinaryRefusal(Binary(cases[i]))) << "case " << i;
        EXPECT_EQ(expected[i], Refusal(Encoded(cases[i]))) << "case " << i;
    }
    /* More bytes than any bundle within the limits: refused before a copy is made. */
    std::string longest = Binary({{"k", "v"}});
    longest.resize(tilvane::host::kBundleMaxBinaryBytes + 1, 'x');
    EXPECT_EQ(BundleRefusal::OverLimits, BinaryRefusal(longest));
}

TEST(BundleLimitsTest, ATruncatedOrExtendedBinaryFormIsNotABundle)
{
    const std::string whole = Binary({{"title", "a tile"}, {"tile_id", "7"}});
    BundlePtr decoded(tilvane::host::DecodeBoundedBinaryBundle(whole.data(), whole.size(), nullptr));
    ASSERT_NE(decoded, nullptr);
    EXPECT_STREQ("a tile", bundle_get_val(decoded.get(), "title"));
    EXPECT_STREQ("7", bundle_get_val(decoded.get(), "tile_id"));
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        EXPECT_EQ(BundleRefusal::Malformed, BinaryRefusal(whole.substr(0, cut))) << "cut at " << cut;
    }
    EXPECT_EQ(BundleRefusal::Malformed, BinaryRefusal(whole + "x"));
    std::string otherMagic = whole;
    otherMagic[3] = '\x02';
    EXPECT_EQ(BundleRefusal::Malformed, BinaryRefusal(otherMagic));
    /* The base64 text of a row is not its binary form. */
    EXPECT_EQ(BundleRefusal::Malformed, BinaryRefusal(Encoded({{"title", "a tile"}})));
}

TEST(BundleLimitsTest, AppendBinaryBundleWritesWhatTheDecoderReadsAndRefusesWhatABundleCannotHold)
{
    std::string out = "kept";
    ASSERT_TRUE(tilvane::host::AppendBinaryBundle({{"title", "a tile"}, {"tile_id", "7"}}, out));
    EXPECT_EQ("kept" + Binary({{"title", "a tile"}, {"tile_id", "7"}}), out);
    /* A text is written whole; one with a NUL byte is not a bundle to the decoder. */
    std::string withNul;
    ASSERT_TRUE(tilvane::host::AppendBinaryBundle({{"title", std::string("a\0b", 3)}}, withNul));
    EXPECT_EQ(Binary({{"title", std::string("a\0b", 3)}}), withNul);
    EXPECT_EQ(BundleRefusal::Malformed, BinaryRefusal(withNul));
    Entries many = Keys(200);
    many.emplace_back("key199", "again");
    const std::vector<Entries> refused = {{{"", "v"}}, {{"a", "1"}, {"a", "2"}}, many, {{"b", "1"}, {"a", "2"}, {"b", "3"}}};
    for (const Entries& entries : refused) {
        std::string unchanged = "kept";
        EXPECT_FALSE(tilvane::host::AppendBinaryBundle(entries, unchanged));
        EXPECT_EQ("kept", unchanged);
    }
    std::string large;
    ASSERT_TRUE(tilvane::host::AppendBinaryBundle(Keys(200), large));
    BundlePtr decoded(tilvane::host::DecodeBoundedBinaryBundle(large.data(), large.size(), nullptr));
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(200, bundle_get_count(decoded.get()));
}
