#include <bundle.h>
#include <bundle_ptr.h>
#include <gtest/gtest.h>
#include <host_control.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

/* `b` through its transport form: encoded, then decoded. */
BundlePtr EncodedAndDecoded(bundle* b)
{
    bundle_raw* raw = nullptr;
    int len = 0;
    if (bundle_encode(b, &raw, &len) != BUNDLE_ERROR_NONE) {
        return nullptr;
    }
    BundlePtr decoded(bundle_decode(raw, len));
    bundle_free_encoded_rawdata(&raw);
    return decoded;
}

class BundleTest : public ::testing::Test {
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override { tilvane::host::Reset(); }
};

TEST_F(BundleTest, AddAndGetString)
{
    BundlePtr b(bundle_create());
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(bundle_add_str(b.get(), "title", "Evening news"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add(b.get(), "duration", "30"), BUNDLE_ERROR_NONE);

    char* value = nullptr;
    ASSERT_EQ(bundle_get_str(b.get(), "title", &value), BUNDLE_ERROR_NONE);
    EXPECT_STREQ(value, "Evening news");
    EXPECT_STREQ(bundle_get_val(b.get(), "duration"), "30");
    EXPECT_EQ(get_last_result(), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_get_count(b.get()), 2);
}

TEST_F(BundleTest, DuplicateKeyIsRefused)
{
    BundlePtr b(bundle_create());
    ASSERT_EQ(bundle_add_str(b.get(), "id", "1"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str(b.get(), "id", "2"), BUNDLE_ERROR_KEY_EXISTS);
    EXPECT_EQ(bundle_add(b.get(), "id", "3"), BUNDLE_ERROR_KEY_EXISTS);
    EXPECT_STREQ(bundle_get_val(b.get(), "id"), "1");
    EXPECT_EQ(bundle_get_count(b.get()), 1);
}

TEST_F(BundleTest, NullArgumentsAreInvalid)
{
    BundlePtr b(bundle_create());
    char* value = nullptr;
    EXPECT_EQ(bundle_add_str(nullptr, "k", "v"), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_add_str(b.get(), nullptr, "v"), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_add_str(b.get(), "k", nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_get_str(nullptr, "k", &value), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_get_str(b.get(), "k", nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_del(nullptr, "k"), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_del(b.get(), nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_free(nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_dup(nullptr), nullptr);
    EXPECT_EQ(bundle_get_val(nullptr, "k"), nullptr);
    EXPECT_EQ(get_last_result(), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_get_count(b.get()), 0);
}

TEST_F(BundleTest, AbsentKeyGivesNullAndKeyNotAvailable)
{
    BundlePtr b(bundle_create());
    ASSERT_EQ(bundle_add_str(b.get(), "present", "yes"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_get_val(b.get(), "absent"), nullptr);
    EXPECT_EQ(get_last_result(), BUNDLE_ERROR_KEY_NOT_AVAILABLE);

    char* value = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(bundle_get_str(b.get(), "absent", &value), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(value, nullptr);
}

TEST_F(BundleTest, LastResultIsPerThread)
{
    BundlePtr b(bundle_create());
    EXPECT_EQ(bundle_get_val(b.get(), "absent"), nullptr);
    ASSERT_EQ(get_last_result(), BUNDLE_ERROR_KEY_NOT_AVAILABLE);

    int otherThreadResult = 1;
    std::thread other([&] {
        BundlePtr mine(bundle_create());
        bundle_add_str(mine.get(), "k", "v");
        bundle_get_val(mine.get(), "k");
        otherThreadResult = get_last_result();
    });
    other.join();
    EXPECT_EQ(otherThreadResult, BUNDLE_ERROR_NONE);
    EXPECT_EQ(get_last_result(), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
}

TEST_F(BundleTest, DeleteRemovesEntry)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "a", "1");
    bundle_add_str(b.get(), "b", "2");
    EXPECT_EQ(bundle_del(b.get(), "a"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_get_val(b.get(), "a"), nullptr);
    EXPECT_EQ(bundle_get_count(b.get()), 1);
    /* The key can be added again once removed. */
    EXPECT_EQ(bundle_add_str(b.get(), "a", "3"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(BundleEntries(b.get()), (Entries{{"b", "2"}, {"a", "3"}}));
}

TEST_F(BundleTest, DeleteOfAbsentKeySucceeds)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "a", "1");
    EXPECT_EQ(bundle_del(b.get(), "missing"), 0);
    EXPECT_EQ(bundle_get_count(b.get()), 1);
    BundlePtr empty(bundle_create());
    EXPECT_EQ(bundle_del(empty.get(), "missing"), 0);
}

TEST_F(BundleTest, InjectedDeleteFailure)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "a", "1");
    tilvane::host::FailNextCalls("bundle_del", 1);
    EXPECT_EQ(bundle_del(b.get(), "a"), BUNDLE_ERROR_INVALID_PARAMETER);
    /* A failed delete leaves the entry in place. */
    EXPECT_STREQ(bundle_get_val(b.get(), "a"), "1");
    /* Only one call was injected to fail. */
    EXPECT_EQ(bundle_del(b.get(), "a"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_get_val(b.get(), "a"), nullptr);
    EXPECT_EQ(tilvane::host::CallCount("bundle_del"), 2);
}

TEST_F(BundleTest, DupIsDeep)
{
    BundlePtr original(bundle_create());
    bundle_add_str(original.get(), "x", "1");
    bundle_add_str(original.get(), "y", "2");
    BundlePtr copy(bundle_dup(original.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(BundleEntries(copy.get()), BundleEntries(original.get()));

    bundle_del(original.get(), "x");
    bundle_add_str(original.get(), "z", "3");
    char* value = nullptr;
    ASSERT_EQ(bundle_get_str(original.get(), "y", &value), BUNDLE_ERROR_NONE);
    value[0] = '9';

    EXPECT_EQ(BundleEntries(copy.get()), (Entries{{"x", "1"}, {"y", "2"}}));
    /* The copy's storage is its own: freeing the original leaves it readable. */
    original.reset();
    EXPECT_STREQ(bundle_get_val(copy.get(), "x"), "1");
}

TEST_F(BundleTest, IterateInInsertionOrder)
{
    BundlePtr b(bundle_create());
    const Entries expected{{"zeta", "1"}, {"alpha", "2"}, {"mid", "3"}, {"beta", "4"}};
    for (const auto& entry : expected) {
        ASSERT_EQ(bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str()), BUNDLE_ERROR_NONE);
    }
    EXPECT_EQ(BundleEntries(b.get()), expected);
}

TEST_F(BundleTest, EncodeDecodeRoundTrip)
{
    BundlePtr b(bundle_create());
    const Entries expected{{"empty", ""},
                           {"quoted", "say \"hi\" and 'bye'"},
                           {"utf8", "H\xc3\xa9llo w\xc3\xb6rld \xe2\x82\xac \xf0\x9f\x93\xba"},
                           {"newline", "line1\nline2\ttab"},
                           {"k=v;", "{\"json\": [1, 2]}"}};
    for (const auto& entry : expected) {
        ASSERT_EQ(bundle_add_str(b.get(), entry.first.c_str(), entry.second.c_str()), BUNDLE_ERROR_NONE);
    }

    bundle_raw* raw = nullptr;
    int len = 0;
    ASSERT_EQ(bundle_encode(b.get(), &raw, &len), BUNDLE_ERROR_NONE);
    ASSERT_NE(raw, nullptr);
    ASSERT_GT(len, 0);
    EXPECT_EQ(static_cast<size_t>(len), strlen(reinterpret_cast<const char*>(raw)));

    BundlePtr decoded(bundle_decode(raw, len));
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(BundleEntries(decoded.get()), expected);

    EXPECT_EQ(bundle_free_encoded_rawdata(&raw), BUNDLE_ERROR_NONE);
    EXPECT_EQ(raw, nullptr);
}

/* A decoded bundle keeps its texts in the buffer it was decoded into; every
 * value still ends where its length says, and the bundle changes, copies and
 * outlives its copies like one that was built entry by entry. */
TEST_F(BundleTest, DecodedBundleChangesAndCopiesLikeABuiltOne)
{
    Entries expected;
    BundlePtr built(bundle_create());
    for (int i = 0; i < 40; ++i) { /* past the size from which keys are indexed */
        expected.emplace_back("key" + std::to_string(i), std::string(static_cast<size_t>(i) * 7, 'v'));
        bundle_add_str(built.get(), expected.back().first.c_str(), expected.back().second.c_str());
    }
    BundlePtr decoded = EncodedAndDecoded(built.get());
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(BundleEntries(decoded.get()), expected);
    EXPECT_EQ(strlen(bundle_get_val(decoded.get(), "key39")), 39u * 7);

    EXPECT_EQ(bundle_del(decoded.get(), "key0"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str(decoded.get(), "key0", "again"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str(decoded.get(), "key5", "twice"), BUNDLE_ERROR_KEY_EXISTS);
    expected.erase(expected.begin());
    expected.emplace_back("key0", "again");
    EXPECT_EQ(BundleEntries(decoded.get()), expected);

    BundlePtr copy(bundle_dup(decoded.get()));
    decoded.reset();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(BundleEntries(copy.get()), expected);
    EXPECT_STREQ(bundle_get_val(copy.get(), "key0"), "again");
}

TEST_F(BundleTest, EncodeIsBase64Text)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "key", "value");
    bundle_raw* raw = nullptr;
    int len = 0;
    ASSERT_EQ(bundle_encode(b.get(), &raw, &len), BUNDLE_ERROR_NONE);
    const std::string text(reinterpret_cast<const char*>(raw), static_cast<size_t>(len));
    bundle_free_encoded_rawdata(&raw);
    EXPECT_EQ(text.size() % 4, 0u);
    EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
              std::string::npos)
        << text;
}

TEST_F(BundleTest, EmptyBundleRoundTrip)
{
    BundlePtr b(bundle_create());
    BundlePtr decoded = EncodedAndDecoded(b.get());
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(bundle_get_count(decoded.get()), 0);
}

TEST_F(BundleTest, DecodeRefusesGarbage)
{
    const std::vector<std::string> garbage{
        "not base64 at all!",
        "AAAA",                 /* valid base64, wrong content */
        "QUJDRA==",             /* "ABCD" */
        "dGV4dA",               /* missing padding */
        "=AAA",
    };
    for (const std::string& text : garbage) {
        bundle* b = bundle_decode(reinterpret_cast<const bundle_raw*>(text.c_str()), static_cast<int>(text.size()));
        EXPECT_EQ(b, nullptr) << text;
        if (b != nullptr) {
            bundle_free(b);
        }
    }
    EXPECT_EQ(bundle_decode(nullptr, 4), nullptr);
    EXPECT_EQ(bundle_decode(reinterpret_cast<const bundle_raw*>("AAAA"), 0), nullptr);
}

/* Every character of the text is checked: one that is not a base64 letter,
 * padding before the end, or whitespace makes it no bundle, wherever it is. */
TEST_F(BundleTest, DecodeRefusesABase64TextWithAForeignCharacterAnywhere)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "tile_title", "A title of some length");
    bundle_raw* raw = nullptr;
    int len = 0;
    ASSERT_EQ(bundle_encode(b.get(), &raw, &len), BUNDLE_ERROR_NONE);
    const std::string text(reinterpret_cast<const char*>(raw), static_cast<size_t>(len));
    bundle_free_encoded_rawdata(&raw);
    BundlePtr intact(bundle_decode(reinterpret_cast<const bundle_raw*>(text.c_str()), static_cast<int>(text.size())));
    ASSERT_NE(intact, nullptr);
    EXPECT_STREQ(bundle_get_val(intact.get(), "tile_title"), "A title of some length");

    for (size_t at : {size_t(0), text.size() / 2, text.size() - 5}) {
        for (const std::string& foreign : {std::string("*"), std::string("="), std::string(" "), std::string("-")}) {
            std::string changed = text;
            changed.replace(at, 1, foreign);
            bundle* decoded =
                bundle_decode(reinterpret_cast<const bundle_raw*>(changed.c_str()), static_cast<int>(changed.size()));
            EXPECT_EQ(decoded, nullptr) << "'" << foreign << "' at " << at << ": " << changed;
            if (decoded != nullptr) {
                bundle_free(decoded);
            }
        }
    }
    const std::string spaced = text.substr(0, 8) + "    " + text.substr(8);
    EXPECT_EQ(bundle_decode(reinterpret_cast<const bundle_raw*>(spaced.c_str()), static_cast<int>(spaced.size())),
              nullptr);
}

TEST_F(BundleTest, DecodeRefusesTruncatedOrExtendedData)
{
    BundlePtr b(bundle_create());
    bundle_add_str(b.get(), "key", "a value long enough to truncate");
    bundle_raw* raw = nullptr;
    int len = 0;
    ASSERT_EQ(bundle_encode(b.get(), &raw, &len), BUNDLE_ERROR_NONE);
    const std::string text(reinterpret_cast<const char*>(raw), static_cast<size_t>(len));
    bundle_free_encoded_rawdata(&raw);

    /* Cut at a 4-character boundary so that the base64 itself stays valid. */
    const std::string truncated = text.substr(0, (text.size() / 2) & ~size_t{3});
    EXPECT_EQ(bundle_decode(reinterpret_cast<const bundle_raw*>(truncated.c_str()),
                            static_cast<int>(truncated.size())),
              nullptr);

    const std::string extended = text + "QUJD";
    EXPECT_EQ(bundle_decode(reinterpret_cast<const bundle_raw*>(extended.c_str()),
                            static_cast<int>(extended.size())),
              nullptr);

    /* The untouched text still decodes, so the refusals above are about the damage. */
    BundlePtr decoded(bundle_decode(reinterpret_cast<const bundle_raw*>(text.c_str()), static_cast<int>(text.size())));
    ASSERT_NE(decoded, nullptr);
    EXPECT_STREQ(bundle_get_val(decoded.get(), "key"), "a value long enough to truncate");
}

TEST_F(BundleTest, FreeEncodedRawDataRefusesNull)
{
    bundle_raw* raw = nullptr;
    EXPECT_EQ(bundle_free_encoded_rawdata(&raw), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_free_encoded_rawdata(nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
}

}  // namespace
