/*
 * The C interface (tilvane_c.h) over the typed publish of tilvane_publisher.h:
 * a content is a Content, a row handle names its row by position so that it
 * stays valid while sections and tiles are added, and a publisher keeps the
 * reason and result of its last call.
 */
#include "tilvane_c.h"

#include <map>
#include <memory>
#include <tuple>

#include <tilvane_version.h>

#include "client/typed_rows.h"
#include "tilvane_publisher.h"

namespace typed = tilvane::host::typed;
using tilvane::client::Content;
using tilvane::client::ErrorCode;
using tilvane::client::LauncherEntry;
using tilvane::client::Section;
using tilvane::client::Tile;

struct tilvane_row {
    enum class Kind { Entry, Section, Tile };
    tilvane_content* owner;
    Kind kind;
    size_t section;
    size_t tile;
};

struct tilvane_content {
    Content content;
    std::map<std::tuple<int, size_t, size_t>, std::unique_ptr<tilvane_row>> rows;

    tilvane_row* Row(tilvane_row::Kind kind, size_t section, size_t tile)
    {
        auto& row = rows[std::make_tuple(static_cast<int>(kind), section, tile)];
        if (!row) {
            row.reset(new tilvane_row{this, kind, section, tile});
        }
        return row.get();
    }
};

struct tilvane_publisher {
    tilvane::client::Publisher publisher;
    std::string reason;
    int result = 0;
};

struct tilvane_subscription {
    tilvane::client::Subscription subscription;
};

namespace {

static_assert(static_cast<int>(ErrorCode::InvalidArgument) == TILVANE_INVALID_ARGUMENT &&
                  static_cast<int>(ErrorCode::NoLauncherEntry) == TILVANE_NO_LAUNCHER_ENTRY &&
                  static_cast<int>(ErrorCode::BusError) == TILVANE_BUS_ERROR,
              "the C codes are the C++ codes");

tilvane_error Remember(tilvane_publisher* publisher, const tilvane::client::Status& status)
{
    publisher->reason = status.reason;
    publisher->result = status.result;
    return static_cast<tilvane_error>(status.code);
}

Section* SectionOf(const tilvane_row* row)
{
    auto& sections = row->owner->content.sections;
    return row->section < sections.size() ? &sections[row->section] : nullptr;
}

Tile* TileOf(const tilvane_row* row)
{
    Section* section = SectionOf(row);
    return section != nullptr && row->tile < section->tiles.size() ? &section->tiles[row->tile] : nullptr;
}

/* Calls `visit(row, fields)` with the row a handle names and its table's
 * fields; false when the handle names none. */
template <typename Visit>
bool VisitRow(const tilvane_row* handle, Visit visit)
{
    if (handle == nullptr) {
        return false;
    }
    if (handle->kind == tilvane_row::Kind::Entry) {
        visit(handle->owner->content.entry, typed::EntryFields());
        return true;
    }
    if (handle->kind == tilvane_row::Kind::Section) {
        Section* section = SectionOf(handle);
        if (section != nullptr) {
            visit(*section, typed::SectionFields());
        }
        return section != nullptr;
    }
    Tile* tile = TileOf(handle);
    if (tile != nullptr) {
        visit(*tile, typed::TileFields());
    }
    return tile != nullptr;
}

/* The row-id column of each table: 0x100, 0x200, 0x300. */
bool IsRowIdColumn(tilvane_column column)
{
    return column == TILVANE_ENTRY_ROW_ID || column == TILVANE_SECTION_ROW_ID || column == TILVANE_TILE_ROW_ID;
}

/* Sets a writable field of a section or tile with `set(row, field)`. */
template <typename Set>
tilvane_error SetField(tilvane_row* handle, tilvane_column column, Set set)
{
    if (handle == nullptr || handle->kind == tilvane_row::Kind::Entry || IsRowIdColumn(column)) {
        return TILVANE_INVALID_ARGUMENT;
    }
    bool done = false;
    VisitRow(handle, [&](auto& row, const auto& fields) {
        const auto* field = typed::FieldOfColumn(fields, column);
        done = field != nullptr && set(row, *field);
    });
    return done ? TILVANE_OK : TILVANE_INVALID_ARGUMENT;
}

}  // namespace

extern "C" {

const char* tilvane_client_version(void)
{
    return TILVANE_VERSION;
}

const char* tilvane_error_name(tilvane_error error)
{
    return tilvane::client::ErrorName(static_cast<ErrorCode>(error));
}

tilvane_content* tilvane_content_new(void)
{
    return new tilvane_content();
}

void tilvane_content_free(tilvane_content* content)
{
    delete content;
}

tilvane_row* tilvane_content_entry(tilvane_content* content)
{
    return content != nullptr ? content->Row(tilvane_row::Kind::Entry, 0, 0) : nullptr;
}

tilvane_row* tilvane_content_add_section(tilvane_content* content)
{
    if (content == nullptr) {
        return nullptr;
    }
    content->content.AddSection();
    return content->Row(tilvane_row::Kind::Section, content->content.sections.size() - 1, 0);
}

int tilvane_content_section_count(const tilvane_content* content)
{
    return content != nullptr ? static_cast<int>(content->content.sections.size()) : 0;
}

tilvane_row* tilvane_content_section(tilvane_content* content, int index)
{
    if (content == nullptr || index < 0 || static_cast<size_t>(index) >= content->content.sections.size()) {
        return nullptr;
    }
    return content->Row(tilvane_row::Kind::Section, static_cast<size_t>(index), 0);
}

tilvane_row* tilvane_section_add_tile(tilvane_row* section)
{
    Section* owner = section != nullptr && section->kind == tilvane_row::Kind::Section ? SectionOf(section) : nullptr;
    if (owner == nullptr) {
        return nullptr;
    }
    owner->AddTile();
    return section->owner->Row(tilvane_row::Kind::Tile, section->section, owner->tiles.size() - 1);
}

int tilvane_section_tile_count(const tilvane_row* section)
{
    const Section* owner =
        section != nullptr && section->kind == tilvane_row::Kind::Section ? SectionOf(section) : nullptr;
    return owner != nullptr ? static_cast<int>(owner->tiles.size()) : 0;
}

tilvane_row* tilvane_section_tile(tilvane_row* section, int index)
{
    if (index < 0 || static_cast<size_t>(index) >= static_cast<size_t>(tilvane_section_tile_count(section))) {
        return nullptr;
    }
    return section->owner->Row(tilvane_row::Kind::Tile, section->section, static_cast<size_t>(index));
}

int tilvane_content_equal(const tilvane_content* a, const tilvane_content* b)
{
    return a != nullptr && b != nullptr && a->content == b->content ? 1 : 0;
}

tilvane_error tilvane_row_set_text(tilvane_row* row, tilvane_column column, const char* value)
{
    if (value == nullptr) {
        return TILVANE_INVALID_ARGUMENT;
    }
    return SetField(row, column, [&](auto& target, const auto& field) {
        return typed::SetFromText(target, field, value);
    });
}

tilvane_error tilvane_row_set_int(tilvane_row* row, tilvane_column column, int64_t value)
{
    return SetField(row, column, [&](auto& target, const auto& field) {
        return typed::SetFromInteger(target, field, value);
    });
}

const char* tilvane_row_get_text(const tilvane_row* row, tilvane_column column)
{
    const char* text = nullptr;
    VisitRow(row, [&](const auto& source, const auto& fields) {
        const auto* field = typed::FieldOfColumn(fields, column);
        text = field != nullptr ? typed::StableText(source, *field) : nullptr;
    });
    return text;
}

tilvane_error tilvane_row_get_int(const tilvane_row* row, tilvane_column column, int64_t* value)
{
    bool done = false;
    if (value == nullptr) {
        return TILVANE_INVALID_ARGUMENT;
    }
    VisitRow(row, [&](const auto& source, const auto& fields) {
        const int table = static_cast<int>(column) & 0xF00;
        if (IsRowIdColumn(column) && fields.front().column / 0x100 == table / 0x100) {
            *value = source.rowId;
            done = true;
            return;
        }
        const auto* field = typed::FieldOfColumn(fields, column);
        done = field != nullptr && typed::IntegerOf(source, *field, *value);
    });
    return done ? TILVANE_OK : TILVANE_INVALID_ARGUMENT;
}

tilvane_publisher* tilvane_publisher_new(const char* app_id, const char* provider_id)
{
    return new tilvane_publisher{tilvane::client::Publisher(app_id != nullptr ? app_id : "",
                                                            provider_id != nullptr ? provider_id : ""),
                                 "", 0};
}

void tilvane_publisher_free(tilvane_publisher* publisher)
{
    delete publisher;
}

tilvane_error tilvane_publisher_publish(tilvane_publisher* publisher, const tilvane_content* content,
                                        tilvane_publish_mode mode)
{
    if (publisher == nullptr || content == nullptr) {
        return TILVANE_INVALID_ARGUMENT;
    }
    const auto published = publisher->publisher.Publish(
        content->content, mode == TILVANE_REPLACE ? tilvane::client::PublishMode::Replace
                                                  : tilvane::client::PublishMode::Append);
    return Remember(publisher, published.status());
}

tilvane_error tilvane_publisher_read(tilvane_publisher* publisher, tilvane_content** content)
{
    if (publisher == nullptr || content == nullptr) {
        return TILVANE_INVALID_ARGUMENT;
    }
    auto read = publisher->publisher.Read();
    *content = nullptr;
    if (read) {
        *content = new tilvane_content();
        (*content)->content = std::move(*read);
    }
    return Remember(publisher, read.status());
}

const char* tilvane_publisher_reason(const tilvane_publisher* publisher)
{
    return publisher != nullptr ? publisher->reason.c_str() : "";
}

int tilvane_publisher_result(const tilvane_publisher* publisher)
{
    return publisher != nullptr ? publisher->result : 0;
}

tilvane_error tilvane_publisher_subscribe(tilvane_publisher* publisher, tilvane_change_callback callback,
                                          void* user_data, tilvane_subscription** subscription)
{
    if (publisher == nullptr || callback == nullptr || subscription == nullptr) {
        return TILVANE_INVALID_ARGUMENT;
    }
    auto subscribed = publisher->publisher.Subscribe([callback, user_data](const tilvane::client::ChangeEvent& event) {
        callback(static_cast<int>(event.kind), event.sectionRowId, user_data);
    });
    *subscription = subscribed ? new tilvane_subscription{std::move(*subscribed)} : nullptr;
    return Remember(publisher, subscribed.status());
}

void tilvane_subscription_free(tilvane_subscription* subscription)
{
    delete subscription;
}

int tilvane_publisher_wait_for_changes(tilvane_publisher* publisher, int timeout_ms)
{
    return publisher != nullptr ? publisher->publisher.WaitForChanges(timeout_ms) : 0;
}

void tilvane_set_log_handler(tilvane_log_handler handler, void* user_data)
{
    if (handler == nullptr) {
        tilvane::client::SetLogHandler(nullptr);
        return;
    }
    tilvane::client::SetLogHandler([handler, user_data](int priority, const std::string& tag,
                                                        const std::string& message) {
        handler(priority, tag.c_str(), message.c_str(), user_data);
    });
}

}  // extern "C"
