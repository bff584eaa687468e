/*
 * Method-call bodies between sd-bus messages and GVariant values: every type
 * the request interfaces carry (and every other D-Bus type) comes back as it
 * went, a body of another type than the one expected is refused, and a value
 * without a D-Bus form is refused rather than written wrong.
 */
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "bus/sdbus_variant.h"

using tilvane::host::AppendMessageBody;
using tilvane::host::GVariantPtr;
using tilvane::host::ReadMessageBody;
using tilvane::host::SdBusMessagePtr;
using tilvane::host::SdBusPtr;

namespace {

class SdBusVariantTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        m_otherEnd = fds[1];
        sd_bus* raw = nullptr;
        ASSERT_GE(sd_bus_new(&raw), 0);
        m_bus.reset(raw);
        ASSERT_GE(sd_bus_set_fd(raw, fds[0], fds[0]), 0);
        ASSERT_GE(sd_bus_start(raw), 0);
    }
    void TearDown() override { close(m_otherEnd); }

    /* A method call whose body is `tuple`, sealed so that it reads as a
     * received one does; null when the body does not append. */
    SdBusMessagePtr CallWith(GVariant* tuple, int* appended = nullptr)
    {
        sd_bus_message* raw = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(m_bus.get(), &raw, nullptr, "/org/tilvane/Content",
                                                 "org.tilvane.Content", "Insert"),
                  0);
        SdBusMessagePtr message(raw);
        GVariantPtr owned(g_variant_ref_sink(tuple));
        const int r = AppendMessageBody(raw, owned.get());
        if (appended != nullptr) {
            *appended = r;
        }
        if (r < 0) {
            return nullptr;
        }
        EXPECT_GE(sd_bus_message_seal(raw, 1, 0), 0);
        return message;
    }

    SdBusPtr m_bus;
    int m_otherEnd = -1;
};

std::string Print(GVariant* value)
{
    gchar* text = g_variant_print(value, TRUE);
    std::string printed(text);
    g_free(text);
    return printed;
}

GVariant* Bytes(const std::string& bytes)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

TEST_F(SdBusVariantTest, EveryTypeOfTheRequestInterfacesComesBackAsItWent)
{
    GVariantBuilder rows;
    g_variant_builder_init(&rows, G_VARIANT_TYPE("aay"));
    g_variant_builder_add_value(&rows, Bytes(std::string("row\0one", 7)));
    g_variant_builder_add_value(&rows, Bytes(""));
    g_variant_builder_add_value(&rows, Bytes(std::string(70000, 'x')));
    const char* columns[] = {"tile_id", "tile_title", nullptr};
    const char* none[] = {nullptr};
    GVariant* step = g_variant_new_parsed(
        "[('replace', 'sec', [b'a', b''], 'title', ['x', 'y'], [('k', uint32 7)], [(uint32 1, uint32 2)]),"
        " ('add', '', @aay [], '', @as [], @a(su) [], @a(uu) [])]");
    GVariant* tuple = g_variant_new("(s@ay@aay^as^asxi@a(ssaaysasa(su)a(uu))@ax)", "org.example.news",
                                    Bytes(std::string("\x01\x02\0\xff", 4)), g_variant_builder_end(&rows), columns,
                                    none, G_GINT64_CONSTANT(-9000000000), -7, step,
                                    g_variant_new_parsed("[int64 1, 2, 3]"));
    const std::string sent = Print(tuple);
    SdBusMessagePtr message = CallWith(tuple);
    ASSERT_TRUE(message);
    std::string error;
    GVariantPtr body = ReadMessageBody(message.get(), nullptr, error);
    ASSERT_TRUE(body) << error;
    /* Read again from the start, against its own type. */
    GVariantPtr again = ReadMessageBody(message.get(), G_VARIANT_TYPE("(sayaayasasxia(ssaaysasa(su)a(uu))ax)"), error);
    ASSERT_TRUE(again) << error;
    /* The byte arrays are read where the message holds them: the values keep
     * it (the sanitizer build sees any read of it after it is gone). */
    message.reset();
    EXPECT_EQ(Print(body.get()), sent);
    EXPECT_TRUE(g_variant_equal(again.get(), body.get()));
}

TEST_F(SdBusVariantTest, TheOtherDBusTypesComeBackAsTheyWent)
{
    GVariant* tuple = g_variant_new_parsed(
        "(true, byte 0x7f, int16 -3, uint16 65535, uint32 4000000000, uint64 18000000000000000000, 2.5,"
        " objectpath '/org/tilvane/Content', signature 'a{sv}', <('in a variant', [int32 1])>,"
        " {'one': <int32 1>, 'two': <'2'>}, ('nested', (int32 1, ['deeper'])))");
    const std::string sent = Print(tuple);
    SdBusMessagePtr message = CallWith(tuple);
    ASSERT_TRUE(message);
    std::string error;
    GVariantPtr body = ReadMessageBody(message.get(), nullptr, error);
    ASSERT_TRUE(body) << error;
    EXPECT_EQ(Print(body.get()), sent);
}

TEST_F(SdBusVariantTest, ABodyOfAnotherTypeThanTheExpectedOneIsRefusedAndSaysWhich)
{
    SdBusMessagePtr message = CallWith(g_variant_new("(sss)", "app", "uri", "text"));
    ASSERT_TRUE(message);
    std::string error;
    EXPECT_FALSE(ReadMessageBody(message.get(), G_VARIANT_TYPE("(ssay)"), error));
    EXPECT_EQ(error, "the body is of type (sss), not (ssay)");
}

TEST_F(SdBusVariantTest, AnEmptyBodyIsTheEmptyTuple)
{
    SdBusMessagePtr message = CallWith(g_variant_new("()"));
    ASSERT_TRUE(message);
    std::string error;
    GVariantPtr body = ReadMessageBody(message.get(), G_VARIANT_TYPE_UNIT, error);
    ASSERT_TRUE(body) << error;
    EXPECT_EQ(g_variant_n_children(body.get()), 0u);
}

TEST_F(SdBusVariantTest, ValuesWithoutADBusFormAreRefused)
{
    int appended = 0;
    EXPECT_FALSE(CallWith(g_variant_new_parsed("(just 'maybe',)"), &appended));
    EXPECT_EQ(appended, -EINVAL);
    EXPECT_FALSE(CallWith(g_variant_new("(h)", 3), &appended));
    EXPECT_EQ(appended, -EINVAL);
    /* Not a tuple: a body is a list of arguments. */
    EXPECT_FALSE(CallWith(g_variant_new_string("alone"), &appended));
    EXPECT_EQ(appended, -EINVAL);
}

}  // namespace
