/*
 * Typed requests: the code generated from the interfaces' XML finds each
 * method by name and no other, reads a request only from arguments of the
 * method's type, reads every older reply form the XML marks and no other,
 * and carries requests and replies (a publish's steps, rows as bytes) without
 * loss. A handler answers a typed request without any bus: it does not care
 * which connection a request came over.
 */
#include <gtest/gtest.h>
#include <host_control.h>

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "ContentProviderParam.h"
#include "TestSupport.h"
#include "bundle.h"
#include "bundle/bundle_limits.h"
#include "content_provider_dispatch.h"
#include "admin_wire.h"
#include "message_port_wire.h"
#include "request_wire.h"
#include "requests/request_handlers.h"

namespace wire = tilvane::host::requests::wire;
using tilvane::test::PlatformSandbox;

namespace {

/* A floating GVariant of `text`, sunk and owned for the test. */
struct Variant {
    explicit Variant(GVariant* value) : value(g_variant_ref_sink(value)) {}
    ~Variant() { g_variant_unref(value); }
    GVariant* value;
};

}  // namespace

TEST(RequestWire, MethodsAreFoundByTheirInterfaceAndNameOnly)
{
    wire::Method method = wire::Method::ContentInsert;
    ASSERT_TRUE(wire::FindMethod("org.tilvane.DataControl", "Select", method));
    EXPECT_EQ(method, wire::Method::DataControlSelect);
    ASSERT_TRUE(wire::FindMethod("org.tilvane.Content", "Publish", method));
    EXPECT_EQ(method, wire::Method::ContentPublish);
    EXPECT_STREQ(wire::InterfaceOf(method), "org.tilvane.Content");
    EXPECT_STREQ(wire::NameOf(method), "Publish");
    EXPECT_FALSE(wire::FindMethod("org.tilvane.DataControl", "BulkInsert", method));
    EXPECT_FALSE(wire::FindMethod("org.tilvane.Content", "insert", method));
    EXPECT_FALSE(wire::FindMethod("org.tilvane.MessagePort", "Deliver", method));
    tilvane::host::ports::wire::Method port = tilvane::host::ports::wire::Method::MessagePortHasPort;
    EXPECT_TRUE(tilvane::host::ports::wire::FindMethod("org.tilvane.MessagePort", "Deliver", port));
    EXPECT_EQ(port, tilvane::host::ports::wire::Method::MessagePortDeliver);
}

/* The operator's interface passes its files as descriptors: an argument of
 * type h is read as a descriptor's index, never from a number of another type. */
TEST(RequestWire, AFileArgumentIsReadOnlyFromADescriptorsIndex)
{
    namespace admin = tilvane::host::admin::wire;
    admin::Method method = admin::Method::AdminCheck;
    ASSERT_TRUE(admin::FindMethod("org.tilvane.Admin", "Restore", method));
    EXPECT_EQ(method, admin::Method::AdminRestore);
    admin::Request request;
    Variant handle(g_variant_new("(h)", 3));
    ASSERT_TRUE(admin::ReadRequest(method, handle.value, request));
    EXPECT_EQ(std::get<admin::AdminRestoreIn>(request).file.index, 3);
    Variant number(g_variant_new("(i)", 3));
    EXPECT_FALSE(admin::ReadRequest(method, number.value, request));
    Variant none(g_variant_new("()"));
    EXPECT_FALSE(admin::ReadRequest(method, none.value, request));
    admin::AdminBackupIn backup;
    backup.file.index = 0;
    Variant written(admin::ToVariant(backup));
    EXPECT_STREQ(g_variant_get_type_string(written.value), "(h)");
}

TEST(RequestWire, ARequestIsReadOnlyFromArgumentsOfItsMethodsType)
{
    wire::Request request;
    Variant insert(g_variant_new("(ss@ay)", "org.example.app", "content://a/tiles",
                                 g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, "enc\0ded", 8, 1)));
    ASSERT_TRUE(wire::ReadRequest(wire::Method::ContentInsert, insert.value, request));
    const auto& in = std::get<wire::ContentInsertIn>(request);
    EXPECT_STREQ(in.clientApp, "org.example.app");
    EXPECT_STREQ(in.uri, "content://a/tiles");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(in.values.Begin()), in.values.Size()),
              std::string("enc\0ded", 8));
    Variant asText(g_variant_new("(sss)", "org.example.app", "content://a/tiles", "encoded"));
    EXPECT_FALSE(wire::ReadRequest(wire::Method::ContentInsert, asText.value, request));
    Variant tooFew(g_variant_new("(ss)", "org.example.app", "content://a/tiles"));
    EXPECT_FALSE(wire::ReadRequest(wire::Method::ContentInsert, tooFew.value, request));
    Variant wrongType(g_variant_new("(ssi)", "org.example.app", "content://a/tiles", 3));
    EXPECT_FALSE(wire::ReadRequest(wire::Method::ContentInsert, wrongType.value, request));
    EXPECT_FALSE(wire::ReadRequest(wire::Method::DataControlInsert, insert.value, request));
}

TEST(RequestWire, RepliesOfOlderProvidersAreReadWhereTheDescriptionSaysTheyMayBeShorter)
{
    wire::ContentInsertOut out;
    Variant codeOnly(g_variant_new("(i)", -13));
    ASSERT_TRUE(wire::Read(codeOnly.value, out));
    EXPECT_EQ(out.result, -13);
    EXPECT_EQ(out.rowId, -1);
    EXPECT_EQ(out.reason, "");
    Variant full(g_variant_new("(ixs)", 0, static_cast<gint64>(42), ""));
    ASSERT_TRUE(wire::Read(full.value, out));
    EXPECT_EQ(out.rowId, 42);
    Variant tooLong(g_variant_new("(ixsu)", 0, static_cast<gint64>(42), "", 1u));
    EXPECT_FALSE(wire::Read(tooLong.value, out));
    wire::DataControlUpdateOut changed;
    Variant empty(g_variant_new("()"));
    ASSERT_TRUE(wire::Read(empty.value, changed));
    EXPECT_EQ(changed.changedRows, -1);
    /* A reply with nothing optional is read only whole, and typed for the call. */
    wire::ContentGetRowIdsOut ids;
    EXPECT_FALSE(wire::Read(empty.value, ids));
    EXPECT_NE(wire::ReplyTypeOf(wire::Method::ContentGetRowIds), nullptr);
    EXPECT_EQ(wire::ReplyTypeOf(wire::Method::ContentInsert), nullptr);
}

TEST(RequestWire, APublishsStepsTravelWhole)
{
    std::string row = "row-text";
    wire::ContentPublishIn in;
    in.clientApp = "org.example.app";
    wire::PublishStep step;
    step.kind = "BulkInsert";
    step.uri = "content://a/tiles";
    wire::Bytes borrowed;
    borrowed.data = reinterpret_cast<const uint8_t*>(row.data());
    borrowed.size = row.size();
    wire::Bytes shared;
    shared.shared = std::make_shared<const std::string>("shared-row");
    step.rows = {borrowed, shared};
    step.where = "x = ?";
    step.whereArgs = {"1"};
    step.valueRefs = {wire::PublishValueRef{"tile_section_raw_id", 0}};
    step.argRefs = {wire::PublishArgRef{0, 0}};
    in.steps = {step, step};
    Variant written(wire::ToVariant(in));
    EXPECT_STREQ(g_variant_get_type_string(written.value), "(sa(ssaaysasa(su)a(uu)))");
    wire::ContentPublishIn read;
    ASSERT_TRUE(wire::Read(written.value, read));
    ASSERT_EQ(read.steps.size(), 2u);
    EXPECT_STREQ(read.steps[1].kind, "BulkInsert");
    ASSERT_EQ(read.steps[1].rows.size(), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.steps[1].rows[0].Begin()), read.steps[1].rows[0].Size()),
              "row-text");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.steps[1].rows[1].Begin()), read.steps[1].rows[1].Size()),
              "shared-row");
    EXPECT_STREQ(read.steps[1].whereArgs[0], "1");
    EXPECT_STREQ(read.steps[1].valueRefs[0].column, "tile_section_raw_id");
    EXPECT_EQ(read.steps[1].argRefs[0].index, 0u);
}

TEST(RequestWire, RowsTravelAsTheBytesTheyAre)
{
    wire::ContentSelectOut out;
    out.rows.owned = std::string("\x01\x00\xff rows", 8);
    Variant written(wire::ToVariant(std::move(out)));
    wire::ContentSelectOut read;
    ASSERT_TRUE(wire::Read(written.value, read));
    ASSERT_EQ(read.rows.Size(), 8u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.rows.Begin()), read.rows.Size()),
              std::string("\x01\x00\xff rows", 8));
}

namespace {

int g_insertCalls = 0;

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    ++g_insertCalls;
    EXPECT_EQ(in.strAppId, "org.example.caller");
    out.nRowId = 99;
    return 0;
}

}  // namespace

TEST(RequestHandlers, AHandlerAnswersATypedRequestWithoutAnyBus)
{
    PlatformSandbox sandbox;
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    ASSERT_TRUE(register_insert_db_callback("content://org.example.nobus/tiles", InsertCB, nullptr));
    std::string encoded;
    ASSERT_TRUE(tilvane::host::AppendBinaryBundle({{"title", "t"}}, encoded));

    wire::ContentInsertIn in;
    in.clientApp = "org.example.caller";
    in.uri = "content://org.example.nobus/tiles";
    in.values.data = reinterpret_cast<const uint8_t*>(encoded.data());
    in.values.size = encoded.size();
    auto answer = tilvane::host::requests::Handle(in);
    ASSERT_FALSE(answer.failed) << answer.failure.text;
    EXPECT_EQ(answer.out.result, 0);
    EXPECT_EQ(answer.out.rowId, 99);
    EXPECT_EQ(g_insertCalls, 1);

    in.uri = "content://org.example.nobus/sections";
    auto unserved = tilvane::host::requests::Handle(in);
    ASSERT_TRUE(unserved.failed);
    EXPECT_STREQ(unserved.failure.error, "org.tilvane.Request.Error.NotServed");
    tilvane::content::ClearRegistrations();
}
