#include "client/typed_rows.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "tilvane_c.h"

namespace tilvane {
namespace host {
namespace typed {
namespace {

using client::DisplayMode;
using client::ImageRatio;
using client::LauncherEntry;
using client::Section;
using client::Tile;
namespace schema = client::schema;

/* The texts of an enumeration's values, in the order of its values. */
template <typename E>
struct Texts;

template <>
struct Texts<DisplayMode> {
    static constexpr const char* values[] = {schema::display_mode::kAlways, schema::display_mode::kHighlightedOnly,
                                             schema::display_mode::kNever};
};

template <>
struct Texts<ImageRatio> {
    static constexpr const char* values[] = {schema::image_ratio::k1by1, schema::image_ratio::k16by9,
                                             schema::image_ratio::k4by3, schema::image_ratio::k2by3};
};

template <typename E>
constexpr size_t CountOf()
{
    return sizeof(Texts<E>::values) / sizeof(Texts<E>::values[0]);
}

/* ---- one value and its text ---- */

std::string ToText(const std::string& value)
{
    return value;
}

std::string ToText(int64_t value)
{
    return std::to_string(value);
}

std::string ToText(bool value)
{
    return value ? "1" : "0";
}

template <typename E>
std::string ToText(E value)
{
    return Texts<E>::values[static_cast<size_t>(value)];
}

bool Parse(const std::string& text, std::string& value)
{
    value = text;
    return true;
}

bool Parse(const std::string& text, int64_t& value)
{
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0) {
        return false;
    }
    value = parsed;
    return true;
}

bool Parse(const std::string& text, bool& value)
{
    if (text != "0" && text != "1") {
        return false;
    }
    value = text == "1";
    return true;
}

template <typename E>
bool Parse(const std::string& text, E& value)
{
    for (size_t i = 0; i < CountOf<E>(); ++i) {
        if (text == Texts<E>::values[i]) {
            value = static_cast<E>(i);
            return true;
        }
    }
    return false;
}

/* ---- one value from a selected cell; NULL and what cannot be read give the
 * default of a new row ---- */

template <typename T>
T FromCell(const client::Cell& cell, const T& fallback)
{
    T value = fallback;
    if (cell.type == client::Cell::Type::Text) {
        return Parse(cell.text, value) ? value : fallback;
    }
    if (cell.type == client::Cell::Type::Integer) {
        return Parse(std::to_string(cell.integer), value) ? value : fallback;
    }
    return fallback;
}

template <>
int64_t FromCell<int64_t>(const client::Cell& cell, const int64_t& fallback)
{
    if (cell.type == client::Cell::Type::Integer) {
        return cell.integer;
    }
    int64_t value = fallback;
    return cell.type == client::Cell::Type::Text && Parse(cell.text, value) ? value : fallback;
}

template <>
bool FromCell<bool>(const client::Cell& cell, const bool& fallback)
{
    if (cell.type == client::Cell::Type::Integer) {
        return cell.integer != 0;
    }
    bool value = fallback;
    return cell.type == client::Cell::Type::Text && Parse(cell.text, value) ? value : fallback;
}

/* ---- one value as a number ---- */

bool ToInteger(const std::string&, int64_t&)
{
    return false;
}

bool ToInteger(int64_t value, int64_t& out)
{
    out = value;
    return true;
}

bool ToInteger(bool value, int64_t& out)
{
    out = value ? 1 : 0;
    return true;
}

template <typename E>
bool ToInteger(E value, int64_t& out)
{
    out = static_cast<int64_t>(value);
    return true;
}

const char* Stable(const std::string& value)
{
    return value.c_str();
}

const char* Stable(int64_t)
{
    return nullptr;
}

const char* Stable(bool)
{
    return nullptr;
}

template <typename E>
const char* Stable(const E& value)
{
    return Texts<E>::values[static_cast<size_t>(value)];
}

bool FromInteger(int64_t, std::string&)
{
    return false;
}

bool FromInteger(int64_t value, int64_t& out)
{
    out = value;
    return true;
}

bool FromInteger(int64_t value, bool& out)
{
    out = value != 0;
    return value == 0 || value == 1;
}

template <typename E>
bool FromInteger(int64_t value, E& out)
{
    if (value < 0 || static_cast<size_t>(value) >= CountOf<E>()) {
        return false;
    }
    out = static_cast<E>(value);
    return true;
}

template <typename Row>
const Row& NewRow()
{
    static const Row row{};
    return row;
}

}  // namespace

const std::vector<Field<LauncherEntry>>& EntryFields()
{
    namespace a = schema::accelerators;
    static const std::vector<Field<LauncherEntry>> fields = {
        {TILVANE_ENTRY_ID, a::kId, &LauncherEntry::id},
        {TILVANE_ENTRY_TITLE, a::kTitle, &LauncherEntry::title},
        {TILVANE_ENTRY_ICON, a::kIcon, &LauncherEntry::icon},
        {TILVANE_ENTRY_ICON_UNFOCUSED, a::kIconUnfocused, &LauncherEntry::iconUnfocused},
        {TILVANE_ENTRY_ENABLED, a::kEnabled, &LauncherEntry::enabled},
    };
    return fields;
}

const std::vector<Field<Section>>& SectionFields()
{
    namespace s = schema::sections;
    static const std::vector<Field<Section>> fields = {
        {TILVANE_SECTION_ID, s::kId, &Section::id},
        {TILVANE_SECTION_TITLE, s::kTitle, &Section::title},
        {TILVANE_SECTION_POSITION, s::kPosition, &Section::position},
        {TILVANE_SECTION_TITLE_DISPLAY, s::kTitleDisplayMode, &Section::titleDisplay},
        {TILVANE_SECTION_SUBTITLE_DISPLAY, s::kSubtitleDisplayMode, &Section::subtitleDisplay},
    };
    return fields;
}

const std::vector<Field<Tile>>& TileFields()
{
    namespace t = schema::tiles;
    static const std::vector<Field<Tile>> fields = {
        {TILVANE_TILE_ID, t::kId, &Tile::id},
        {TILVANE_TILE_TYPE, t::kType, &Tile::type},
        {TILVANE_TILE_TITLE, t::kTitle, &Tile::title},
        {TILVANE_TILE_SUBTITLE, t::kSubtitle, &Tile::subtitle},
        {TILVANE_TILE_DISPLAY_FROM, t::kDisplayFrom, &Tile::displayFrom},
        {TILVANE_TILE_DISPLAY_UNTIL, t::kDisplayUntil, &Tile::displayUntil},
        {TILVANE_TILE_ACTION_PLAY, t::kActionPlay, &Tile::actionPlay},
        {TILVANE_TILE_ACTION_CLICK, t::kActionClick, &Tile::actionClick},
        {TILVANE_TILE_ACTION_TYPE, t::kActionType, &Tile::actionType},
        {TILVANE_TILE_ACTION_DETAILS, t::kActionDetails, &Tile::actionDetails},
        {TILVANE_TILE_IMAGE_URL, t::kImageUrl, &Tile::imageUrl},
        {TILVANE_TILE_SOURCE_ICON, t::kSourceIcon, &Tile::sourceIcon},
        {TILVANE_TILE_ACTION_PRE_PLAY, t::kActionPrePlay, &Tile::actionPrePlay},
        {TILVANE_TILE_ACTION_POST_PLAY, t::kActionPostPlay, &Tile::actionPostPlay},
        {TILVANE_TILE_PLAYABLE, t::kPlayable, &Tile::playable},
        {TILVANE_TILE_PROGRESS, t::kProgress, &Tile::progress},
        {TILVANE_TILE_NOTIFICATION, t::kNotification, &Tile::notification},
        {TILVANE_TILE_FAVORITE, t::kFavorite, &Tile::favorite},
        {TILVANE_TILE_POSITION, t::kPosition, &Tile::position},
        {TILVANE_TILE_EXTRA_APP_ID, t::kExtraAppId, &Tile::extraAppId},
        {TILVANE_TILE_IMAGE_WIDTH, t::kImageWidth, &Tile::imageWidth},
        {TILVANE_TILE_IMAGE_HEIGHT, t::kImageHeight, &Tile::imageHeight},
        {TILVANE_TILE_IMAGE_RATIO, t::kImageRatio, &Tile::imageRatio},
        {TILVANE_TILE_IMAGE_PATH, t::kImagePath, &Tile::imagePath},
        {TILVANE_TILE_SOURCE_ICON_PATH, t::kSourceIconPath, &Tile::sourceIconPath},
    };
    return fields;
}

template <typename Row>
std::vector<std::string> Projection(const std::vector<Field<Row>>& fields)
{
    std::vector<std::string> columns = {schema::kRowId};
    for (const Field<Row>& field : fields) {
        columns.emplace_back(field.name);
    }
    return columns;
}

template <typename Row>
std::string EncodeRow(const Row& row, const std::vector<Field<Row>>& fields, size_t& rawBytes, bool& ok)
{
    ok = true;
    rawBytes = 0;
    client::Values values;
    for (const Field<Row>& field : fields) {
        std::visit(
            [&](auto member) {
                if (row.*member == NewRow<Row>().*member) {
                    return;
                }
                const std::string text = ToText(row.*member);
                ok = ok && text.find('\0') == std::string::npos;
                rawBytes += std::strlen(field.name) + text.size();
                values.emplace_back(field.name, text);
            },
            field.member);
    }
    std::string encoded;
    if (!AppendBinaryBundle(values, encoded)) {
        ok = false;
        return std::string();
    }
    return encoded;
}

template <typename Row>
void ReadRow(Row& row, const std::vector<Field<Row>>& fields, const std::vector<client::Cell>& cells)
{
    if (!cells.empty() && cells[0].type == client::Cell::Type::Integer) {
        row.rowId = cells[0].integer;
    }
    for (size_t i = 0; i < fields.size() && i + 1 < cells.size(); ++i) {
        std::visit([&](auto member) { row.*member = FromCell(cells[i + 1], NewRow<Row>().*member); },
                   fields[i].member);
    }
}

template <typename Row>
bool SameFields(const Row& a, const Row& b, const std::vector<Field<Row>>& fields)
{
    for (const Field<Row>& field : fields) {
        const bool same = std::visit([&](auto member) { return a.*member == b.*member; }, field.member);
        if (!same) {
            return false;
        }
    }
    return true;
}

template <typename Row>
const Field<Row>* FieldOfColumn(const std::vector<Field<Row>>& fields, int column)
{
    for (const Field<Row>& field : fields) {
        if (field.column == column) {
            return &field;
        }
    }
    return nullptr;
}

template <typename Row>
const Field<Row>* FieldOfName(const std::vector<Field<Row>>& fields, const std::string& name)
{
    for (const Field<Row>& field : fields) {
        if (name == field.name) {
            return &field;
        }
    }
    return nullptr;
}

template <typename Row>
std::string TextOf(const Row& row, const Field<Row>& field)
{
    return std::visit([&](auto member) { return ToText(row.*member); }, field.member);
}

template <typename Row>
bool SetFromText(Row& row, const Field<Row>& field, const std::string& text)
{
    return std::visit([&](auto member) { return Parse(text, row.*member); }, field.member);
}

template <typename Row>
const char* StableText(const Row& row, const Field<Row>& field)
{
    return std::visit([&](auto member) { return Stable(row.*member); }, field.member);
}

template <typename Row>
bool IntegerOf(const Row& row, const Field<Row>& field, int64_t& value)
{
    return std::visit([&](auto member) { return ToInteger(row.*member, value); }, field.member);
}

template <typename Row>
bool SetFromInteger(Row& row, const Field<Row>& field, int64_t value)
{
    return std::visit(
        [&](auto member) {
            auto candidate = row.*member;
            if (!FromInteger(value, candidate)) {
                return false;
            }
            row.*member = candidate;
            return true;
        },
        field.member);
}

#define TILVANE_TYPED_ROW(Row)                                                                                      \
    template std::vector<std::string> Projection(const std::vector<Field<Row>>&);                                  \
    template std::string EncodeRow(const Row&, const std::vector<Field<Row>>&, size_t&, bool&);                    \
    template void ReadRow(Row&, const std::vector<Field<Row>>&, const std::vector<client::Cell>&);                 \
    template bool SameFields(const Row&, const Row&, const std::vector<Field<Row>>&);                              \
    template const Field<Row>* FieldOfColumn(const std::vector<Field<Row>>&, int);                                 \
    template const Field<Row>* FieldOfName(const std::vector<Field<Row>>&, const std::string&);                    \
    template std::string TextOf(const Row&, const Field<Row>&);                                                    \
    template bool SetFromText(Row&, const Field<Row>&, const std::string&);                                        \
    template const char* StableText(const Row&, const Field<Row>&);                                                \
    template bool IntegerOf(const Row&, const Field<Row>&, int64_t&);                                              \
    template bool SetFromInteger(Row&, const Field<Row>&, int64_t);

TILVANE_TYPED_ROW(LauncherEntry)
TILVANE_TYPED_ROW(Section)
TILVANE_TYPED_ROW(Tile)

}  // namespace typed
}  // namespace host
}  // namespace tilvane
