/*
 * The typed client's pieces that need no service: every column of a tile, a
 * section and a launcher entry through encoding and reading back, the C
 * interface's columns and handles, the limits a publish is held to before it
 * is sent, the one application id of a process, and the log that stays
 * silent until a handler is installed.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <bundle_ptr.h>
#include <dlog.h>
#include <host_control.h>
#include <message_port.h>

#include "StderrCapture.h"
#include "TestSupport.h"
#include "bundle/bundle_limits.h"
#include "client/typed_rows.h"
#include "log/log_sink.h"
#include "tilvane_c.h"
#include "tilvane_publisher.h"

namespace {

namespace client = tilvane::client;
namespace typed = tilvane::host::typed;

client::Tile EveryTileField()
{
    client::Tile tile;
    tile.id = "id";
    tile.type = "episode";
    tile.title = "Konzert in München";
    tile.subtitle = "sub";
    tile.displayFrom = 1700000000;
    tile.displayUntil = -5;
    tile.actionPlay = "play";
    tile.actionClick = "click";
    tile.actionType = "DEEP_LINK";
    tile.actionDetails = "{\"a\": 1}";
    tile.imageUrl = "https://example.org/i.jpg";
    tile.sourceIcon = "icon";
    tile.actionPrePlay = "pre";
    tile.actionPostPlay = "post";
    tile.playable = true;
    tile.progress = 42;
    tile.notification = true;
    tile.favorite = true;
    tile.position = 7;
    tile.extraAppId = "org.example.extra";
    tile.imageWidth = 1920;
    tile.imageHeight = 1080;
    tile.imageRatio = client::ImageRatio::Portrait;
    tile.imagePath = "/path";
    tile.sourceIconPath = "/icon";
    return tile;
}

/* The row as a select would hand it back: "_id", then every field's column,
 * each cell the text the bundle carried (NULL when the row left it out). */
template <typename Row>
std::vector<client::Cell> AsSelected(const std::string& encoded, const std::vector<typed::Field<Row>>& fields)
{
    BundlePtr values(tilvane::host::DecodeBoundedBinaryBundle(encoded.data(), encoded.size(), nullptr));
    std::vector<client::Cell> cells(1);
    cells[0].type = client::Cell::Type::Integer;
    cells[0].integer = 99;
    for (const typed::Field<Row>& field : fields) {
        client::Cell cell;
        const char* text = bundle_get_val(values.get(), field.name);
        if (text != nullptr) {
            cell.type = client::Cell::Type::Text;
            cell.text = text;
        }
        cells.push_back(cell);
    }
    return cells;
}

TEST(PublisherRowsTest, EveryTileColumnIsWrittenAndReadBackAsItsType)
{
    const client::Tile tile = EveryTileField();
    size_t rawBytes = 0;
    bool ok = false;
    const std::string encoded = typed::EncodeRow(tile, typed::TileFields(), rawBytes, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(typed::TileFields().size(), 25u) << "every column but _id and tile_section_raw_id";
    client::Tile read;
    typed::ReadRow(read, typed::TileFields(), AsSelected(encoded, typed::TileFields()));
    EXPECT_TRUE(read == tile);
    EXPECT_EQ(read.rowId, 99);
    BundlePtr values(tilvane::host::DecodeBoundedBinaryBundle(encoded.data(), encoded.size(), nullptr));
    EXPECT_STREQ(bundle_get_val(values.get(), "tile_image_ratio"), "2:3");
    EXPECT_STREQ(bundle_get_val(values.get(), "tile_playable"), "1");
    EXPECT_STREQ(bundle_get_val(values.get(), "tile_display_until"), "-5");
}

TEST(PublisherRowsTest, ANewRowSendsNoColumnAndReadsBackFromTheSchemasDefaults)
{
    size_t rawBytes = 1;
    bool ok = false;
    const std::string encoded = typed::EncodeRow(client::Section(), typed::SectionFields(), rawBytes, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(rawBytes, 0u);
    BundlePtr values(tilvane::host::DecodeBoundedBinaryBundle(encoded.data(), encoded.size(), nullptr));
    EXPECT_EQ(bundle_get_count(values.get()), 0);
    /* What the schema stores for a row without values. */
    std::vector<client::Cell> cells(6);
    cells[3].type = client::Cell::Type::Integer;
    cells[3].integer = -1;
    cells[4].type = cells[5].type = client::Cell::Type::Text;
    cells[4].text = cells[5].text = "HIGHLIGHTED_ONLY";
    client::Section read;
    read.title = "stale";
    typed::ReadRow(read, typed::SectionFields(), cells);
    EXPECT_TRUE(read == client::Section());
}

TEST(PublisherRowsTest, AValueNoFieldCanTakeReadsAsTheDefaultAndATextWithNulIsRefused)
{
    std::vector<client::Cell> cells(typed::TileFields().size() + 1);
    const typed::Field<client::Tile>* ratio = typed::FieldOfName(typed::TileFields(), "tile_image_ratio");
    ASSERT_NE(ratio, nullptr);
    const size_t at = static_cast<size_t>(ratio - typed::TileFields().data()) + 1;
    cells[at].type = client::Cell::Type::Text;
    cells[at].text = "5:4";
    client::Tile read;
    typed::ReadRow(read, typed::TileFields(), cells);
    EXPECT_EQ(read.imageRatio, client::ImageRatio::Square);

    client::Tile tile;
    tile.title = std::string("a\0b", 3);
    size_t rawBytes = 0;
    bool ok = true;
    typed::EncodeRow(tile, typed::TileFields(), rawBytes, ok);
    EXPECT_FALSE(ok);
}

TEST(PublisherCInterfaceTest, ColumnsAreSetAndReadByTypeAndTable)
{
    tilvane_content* content = tilvane_content_new();
    tilvane_row* section = tilvane_content_add_section(content);
    tilvane_row* tile = tilvane_section_add_tile(section);
    EXPECT_EQ(tilvane_row_set_text(section, TILVANE_SECTION_TITLE, "Evening"), TILVANE_OK);
    EXPECT_EQ(tilvane_row_set_int(section, TILVANE_SECTION_TITLE_DISPLAY, TILVANE_DISPLAY_NEVER), TILVANE_OK);
    EXPECT_EQ(tilvane_row_set_text(tile, TILVANE_TILE_IMAGE_RATIO, "4:3"), TILVANE_OK);
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_PROGRESS, 30), TILVANE_OK);
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_FAVORITE, 1), TILVANE_OK);

    EXPECT_EQ(tilvane_row_set_text(section, TILVANE_TILE_TITLE, "x"), TILVANE_INVALID_ARGUMENT) << "another table";
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_FAVORITE, 2), TILVANE_INVALID_ARGUMENT);
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_IMAGE_RATIO, 4), TILVANE_INVALID_ARGUMENT);
    EXPECT_EQ(tilvane_row_set_text(tile, TILVANE_TILE_IMAGE_RATIO, "5:4"), TILVANE_INVALID_ARGUMENT);
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_TITLE, 3), TILVANE_INVALID_ARGUMENT) << "a text column";
    EXPECT_EQ(tilvane_row_set_int(tile, TILVANE_TILE_ROW_ID, 3), TILVANE_INVALID_ARGUMENT) << "read only";
    EXPECT_EQ(tilvane_row_set_text(tilvane_content_entry(content), TILVANE_ENTRY_TITLE, "x"),
              TILVANE_INVALID_ARGUMENT)
        << "the launcher entry is the service's";
    EXPECT_EQ(tilvane_row_set_text(nullptr, TILVANE_TILE_TITLE, "x"), TILVANE_INVALID_ARGUMENT);

    int64_t value = 0;
    EXPECT_STREQ(tilvane_row_get_text(section, TILVANE_SECTION_TITLE), "Evening");
    EXPECT_STREQ(tilvane_row_get_text(section, TILVANE_SECTION_TITLE_DISPLAY), "NEVER");
    EXPECT_STREQ(tilvane_row_get_text(tile, TILVANE_TILE_IMAGE_RATIO), "4:3");
    EXPECT_EQ(tilvane_row_get_text(tile, TILVANE_TILE_PROGRESS), nullptr);
    EXPECT_EQ(tilvane_row_get_int(tile, TILVANE_TILE_IMAGE_RATIO, &value), TILVANE_OK);
    EXPECT_EQ(value, TILVANE_RATIO_STANDARD);
    EXPECT_EQ(tilvane_row_get_int(tile, TILVANE_TILE_PROGRESS, &value), TILVANE_OK);
    EXPECT_EQ(value, 30);
    EXPECT_EQ(tilvane_row_get_int(tile, TILVANE_TILE_ROW_ID, &value), TILVANE_OK);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(tilvane_row_get_int(tile, TILVANE_SECTION_ROW_ID, &value), TILVANE_INVALID_ARGUMENT);
    tilvane_content_free(content);
}

TEST(PublisherCInterfaceTest, HandlesStayValidWhileRowsAreAddedAndContentsCompare)
{
    tilvane_content* a = tilvane_content_new();
    tilvane_content* b = tilvane_content_new();
    tilvane_row* first = tilvane_content_add_section(a);
    for (int i = 0; i < 100; ++i) {
        tilvane_section_add_tile(tilvane_content_add_section(a));
    }
    EXPECT_EQ(tilvane_row_set_text(first, TILVANE_SECTION_ID, "first"), TILVANE_OK);
    EXPECT_EQ(tilvane_content_section(a, 0), first);
    EXPECT_EQ(tilvane_content_section(a, 101), nullptr);
    EXPECT_EQ(tilvane_section_tile(first, 0), nullptr);
    EXPECT_EQ(tilvane_content_section_count(a), 101);
    EXPECT_EQ(tilvane_content_equal(a, b), 0);
    tilvane_row* copy = tilvane_content_add_section(b);
    tilvane_row_set_text(copy, TILVANE_SECTION_ID, "first");
    for (int i = 0; i < 100; ++i) {
        tilvane_section_add_tile(tilvane_content_add_section(b));
    }
    EXPECT_EQ(tilvane_content_equal(a, b), 1);
    tilvane_row_set_int(tilvane_section_tile(tilvane_content_section(b, 50), 0), TILVANE_TILE_POSITION, 3);
    EXPECT_EQ(tilvane_content_equal(a, b), 0);
    EXPECT_STREQ(tilvane_error_name(TILVANE_NO_LAUNCHER_ENTRY), "no launcher entry");
    tilvane_content_free(a);
    tilvane_content_free(b);
}

TEST(PublisherLimitsTest, APublishOverTheLimitsIsRefusedBeforeAnythingIsSentAndNamesTheLimit)
{
    tilvane::test::PlatformSandbox sandbox;
    const client::Publisher publisher;
    client::Content content;
    for (size_t i = 0; i <= client::kMaxSections; ++i) {
        content.AddSection();
    }
    auto published = publisher.Publish(content);
    EXPECT_EQ(published.status().code, client::ErrorCode::OverLimits);
    EXPECT_EQ(published.status().reason, "2001 sections: one publish carries at most 2000");

    client::Content large;
    large.AddSection().AddTile().imageUrl = std::string(client::kMaxRowBytes, 'u');
    published = publisher.Publish(large);
    EXPECT_EQ(published.status().code, client::ErrorCode::OverLimits);
    EXPECT_EQ(published.status().section, 0);
    EXPECT_NE(published.status().reason.find("more than the 1048576 one row may have"), std::string::npos)
        << published.status().reason;

    client::Content many;
    for (int s = 0; s < 17; ++s) {
        many.AddSection().tiles.resize(4000);
    }
    published = publisher.Publish(many);
    EXPECT_EQ(published.status().code, client::ErrorCode::OverLimits);
    EXPECT_NE(published.status().reason.find("one publish carries at most 65535 rows"), std::string::npos)
        << published.status().reason;
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "no message bus"), 0) << "nothing was sent";
}

TEST(PublisherIdentityTest, AProcessActsAsTheApplicationItsConnectionOwns)
{
    tilvane::test::PrivateBus bus;
    tilvane::test::PlatformSandbox sandbox;
    const client::Publisher chosen("org.example.chosen");
    EXPECT_EQ(chosen.AppId(), "org.example.chosen");
    ASSERT_GT(message_port_register_local_port("opens-the-connection", [](int, const char*, const char*, bool,
                                                                          bundle*, void*) {},
                                               nullptr),
              0);
    const client::Publisher other("org.example.other");
    auto read = other.Read();
    EXPECT_EQ(read.status().code, client::ErrorCode::NotAuthorized);
    EXPECT_EQ(read.status().reason,
              "this process acts as application org.example.chosen, not org.example.other: a process acts as one "
              "application");
    EXPECT_EQ(chosen.Read().status().code, client::ErrorCode::NotRunning) << "no service runs on this bus";
}

TEST(PublisherLogTest, NothingReachesStandardErrorWithoutAHandlerAndAHandlerGetsEveryLine)
{
    tilvane::test::PlatformSandbox sandbox;
    tilvane::host::SetLogSink(tilvane::host::DropLogLine, nullptr);
    tilvane::test::StderrCapture quiet;
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, "tilvane-platform", "a line nobody asked for");
    EXPECT_EQ(quiet.Stop(), "");

    std::vector<std::string> lines;
    client::SetLogHandler([&lines](int priority, const std::string& tag, const std::string& message) {
        lines.push_back(std::to_string(priority) + " " + tag + " " + message);
    });
    tilvane::test::StderrCapture handled;
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "tilvane-platform", "to the handler %d", 7);
    EXPECT_EQ(handled.Stop(), "");
    EXPECT_EQ(lines, (std::vector<std::string>{"5 tilvane-platform to the handler 7"}));

    client::SetLogHandler(nullptr);
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "tilvane-platform", "after the handler");
    EXPECT_EQ(lines.size(), 1u);
    tilvane::host::SetLogSink(nullptr, nullptr);
}

TEST(PublisherErrorsTest, EveryCodeHasAName)
{
    EXPECT_STREQ(client::ErrorName(client::ErrorCode::Ok), "ok");
    EXPECT_STREQ(client::ErrorName(client::ErrorCode::StorageFailed), "storage failed");
    EXPECT_STREQ(client::ErrorName(client::ErrorCode::BusError), "bus error");
    EXPECT_STREQ(client::ErrorName(static_cast<client::ErrorCode>(99)), "unknown");
}

}  // namespace
