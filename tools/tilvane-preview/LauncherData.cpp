#include "LauncherData.h"

#include <TilesModel.h>
#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <numeric>
#include <vector>

#include "Json.h"

namespace tilvane {
namespace preview {

namespace {

using client::Cell;
using client::Result;
using client::RowSet;

namespace A = TilesModel::Accelerators;
namespace AI = TilesInternalModel::Accelerators;
namespace S = TilesModel::Sections;
namespace T = TilesModel::Tiles;

const std::vector<std::string> kEntryColumns = {
    A::_ID, A::ACCELERATOR_TITLE, A::ACCELERATOR_ICON, A::ACCELERATOR_ICON_UNFOCUSED, A::ACCELERATOR_ENABLED,
    A::ACCELERATOR_ID, AI::ACCELERATOR_POSITION, AI::ACCELERATOR_APP_PKG_NAME,
};

const std::vector<std::string> kSectionColumns = {
    S::_ID, S::SECTION_ID, S::SECTION_TITLE, S::SECTION_POSITION, S::SECTION_ACCELERATOR_RAW_ID,
    S::SECTION_TITLE_DISPLAY_MODE, S::SECTION_SUBTITLE_DISPLAY_MODE,
};

const std::vector<std::string> kTileColumns = {
    T::_ID, T::TILE_ID, T::TILE_SECTION_RAW_ID, T::TILE_TYPE, T::TILE_TITLE, T::TILE_SUBTITLE,
    T::TILE_DISPLAY_FROM, T::TILE_DISPLAY_UNTIL, T::TILE_ACTION_PLAY, T::TILE_ACTION_CLICK, T::TILE_ACTION_TYPE,
    T::TILE_ACTION_DETAILS, T::TILE_IMAGE_URL, T::TILE_IMAGE_PATH, T::TILE_IMAGE_WIDTH, T::TILE_IMAGE_HEIGHT,
    T::TILE_IMAGE_RATIO, T::TILE_SOURCE_ICON, T::TILE_SOURCE_ICON_PATH, T::TILE_ACTION_PRE_PLAY,
    T::TILE_ACTION_POST_PLAY, T::TILE_PLAYABLE, T::TILE_PROGRESS, T::TILE_NOTIFICATION, T::TILE_FAVORITE,
    T::TILE_POSITION, T::TILE_EXTRA_APP_ID,
};

const int64_t kMillisecondBoundsFrom = 100000000000LL;

int ColumnIndex(const RowSet& rows, const std::string& name)
{
    auto it = std::find(rows.columns.begin(), rows.columns.end(), name);
    return it == rows.columns.end() ? -1 : static_cast<int>(it - rows.columns.begin());
}

int64_t IntegerOf(const Cell& cell, int64_t fallback)
{
    switch (cell.type) {
    case Cell::Type::Integer: return cell.integer;
    case Cell::Type::Real: return static_cast<int64_t>(cell.real);
    case Cell::Type::Text: {
        gchar* end = nullptr;
        gint64 value = g_ascii_strtoll(cell.text.c_str(), &end, 10);
        return (end != cell.text.c_str() && *end == '\0') ? value : fallback;
    }
    default: return fallback;
    }
}

int64_t IntegerColumn(const RowSet& rows, size_t row, const std::string& name, int64_t fallback)
{
    int index = ColumnIndex(rows, name);
    return index < 0 ? fallback : IntegerOf(rows.rows[row][static_cast<size_t>(index)], fallback);
}

void WriteCell(JsonWriter& json, const Cell& cell)
{
    switch (cell.type) {
    case Cell::Type::Integer: json.Integer(cell.integer); break;
    case Cell::Type::Real: json.Real(cell.real); break;
    case Cell::Type::Text: json.String(cell.text); break;
    default: json.Null(); break;
    }
}

/* Row indexes in position order: positioned rows by position, then the rest;
 * ties by row id. */
std::vector<size_t> PositionOrder(const RowSet& rows, const std::string& positionColumn)
{
    std::vector<size_t> order(rows.rows.size());
    std::iota(order.begin(), order.end(), 0);
    auto key = [&](size_t row) {
        int64_t position = IntegerColumn(rows, row, positionColumn, -1);
        return std::make_tuple(position < 0 ? 1 : 0, position, IntegerColumn(rows, row, "_id", 0));
    };
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
    return order;
}

/* The service's reason is shown: a result too large for one reply, a
 * statement past its budget, a refusal. */
Answer Failure(const Result& result)
{
    JsonWriter json;
    json.BeginObject().Key("error").String("the service did not give the rows: " + client::Explain(result)).EndObject();
    return {502, json.Text()};
}

void WriteColumns(JsonWriter& json, const RowSet& rows, size_t row)
{
    for (size_t column = 0; column < rows.columns.size(); ++column) {
        json.Key(rows.columns[column]);
        WriteCell(json, rows.rows[row][column]);
    }
}

std::string UtcText(int64_t seconds)
{
    time_t value = static_cast<time_t>(seconds);
    struct tm parts {};
    if (gmtime_r(&value, &parts) == nullptr) {
        return std::to_string(seconds);
    }
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M UTC", &parts);
    return buffer;
}

}  // namespace

int64_t PeriodBoundSeconds(int64_t stored)
{
    return stored >= kMillisecondBoundsFrom ? stored / 1000 : stored;
}

PeriodCheck CheckPeriod(int64_t displayFrom, int64_t displayUntil, int64_t nowSeconds)
{
    const int64_t from = PeriodBoundSeconds(displayFrom);
    const int64_t until = PeriodBoundSeconds(displayUntil);
    PeriodCheck check;
    if (from > 0 && nowSeconds < from) {
        check.visible = false;
        check.reason = "starts " + UtcText(from);
    } else if (until > 0 && nowSeconds >= until) {
        check.visible = false;
        check.reason = "ended " + UtcText(until);
    }
    return check;
}

LauncherData::LauncherData(std::function<int64_t()> now) : m_now(std::move(now)) {}

Answer LauncherData::Entries() const
{
    Result result = m_client.Select(A::CONTENT_URI, kEntryColumns, "", {}, "", "");
    if (!result.Ok()) {
        return Failure(result);
    }
    const RowSet& rows = result.rows;
    JsonWriter json;
    json.BeginObject().Key("entries").BeginArray();
    for (size_t row : PositionOrder(rows, AI::ACCELERATOR_POSITION)) {
        json.BeginObject();
        WriteColumns(json, rows, row);
        json.Key("enabled").Bool(IntegerColumn(rows, row, A::ACCELERATOR_ENABLED, 0) == 1);
        json.EndObject();
    }
    json.EndArray().EndObject();
    return {200, json.Text()};
}

Answer LauncherData::Sections(int64_t entryId) const
{
    const std::string where = std::string(S::SECTION_ACCELERATOR_RAW_ID) + " = " + std::to_string(entryId);
    Result result = m_client.Select(S::CONTENT_URI, kSectionColumns, where, {}, "", "");
    if (!result.Ok()) {
        return Failure(result);
    }
    const RowSet& rows = result.rows;
    JsonWriter json;
    json.BeginObject().Key("entry").Integer(entryId).Key("sections").BeginArray();
    for (size_t row : PositionOrder(rows, S::SECTION_POSITION)) {
        json.BeginObject();
        WriteColumns(json, rows, row);
        json.EndObject();
    }
    json.EndArray().EndObject();
    return {200, json.Text()};
}

Answer LauncherData::Tiles(int64_t sectionId) const
{
    const std::string where = std::string(T::TILE_SECTION_RAW_ID) + " = " + std::to_string(sectionId);
    Result result = m_client.Select(T::CONTENT_URI, kTileColumns, where, {}, "", "");
    if (!result.Ok()) {
        return Failure(result);
    }
    const RowSet& rows = result.rows;
    const int64_t now = m_now();
    JsonWriter json;
    json.BeginObject().Key("section").Integer(sectionId).Key("now").Integer(now).Key("tiles").BeginArray();
    for (size_t row : PositionOrder(rows, T::TILE_POSITION)) {
        PeriodCheck period = CheckPeriod(IntegerColumn(rows, row, T::TILE_DISPLAY_FROM, 0),
                                         IntegerColumn(rows, row, T::TILE_DISPLAY_UNTIL, 0), now);
        json.BeginObject();
        WriteColumns(json, rows, row);
        json.Key("visible").Bool(period.visible);
        json.Key("hidden_reason").String(period.reason);
        json.EndObject();
    }
    json.EndArray().EndObject();
    return {200, json.Text()};
}

/* The cells of one column of the one row that `where` (with `id` bound)
 * selects; false unless exactly one row is there. */
bool LauncherData::OneRow(const char* uri, const std::vector<std::string>& columns, const char* idColumn, int64_t id,
                          std::vector<std::string>& values) const
{
    Result result = m_client.Select(uri, columns, std::string(idColumn) + " = ?", {std::to_string(id)}, "", "");
    if (!result.Ok() || result.rows.rows.size() != 1) {
        return false;
    }
    values.clear();
    for (const Cell& cell : result.rows.rows[0]) {
        values.push_back(cell.type == Cell::Type::Text      ? cell.text
                         : cell.type == Cell::Type::Integer ? std::to_string(cell.integer)
                                                            : std::string());
    }
    return values.size() == columns.size();
}

bool LauncherData::EntryIcon(int64_t entryId, ImageSource& source) const
{
    std::vector<std::string> entry;
    if (!OneRow(A::CONTENT_URI, {A::ACCELERATOR_ICON, AI::ACCELERATOR_APP_PKG_NAME}, A::_ID, entryId, entry)) {
        return false;
    }
    source.path = entry[0];
    source.package = entry[1];
    return true;
}

bool LauncherData::TileImage(int64_t tileId, ImageSource& source) const
{
    std::vector<std::string> tile;
    std::vector<std::string> section;
    std::vector<std::string> entry;
    if (!OneRow(T::CONTENT_URI, {T::TILE_IMAGE_PATH, T::TILE_SECTION_RAW_ID}, T::_ID, tileId, tile) ||
        tile[1].empty() ||
        !OneRow(S::CONTENT_URI, {S::SECTION_ACCELERATOR_RAW_ID}, S::_ID, g_ascii_strtoll(tile[1].c_str(), nullptr, 10),
                section) ||
        section[0].empty() ||
        !OneRow(A::CONTENT_URI, {AI::ACCELERATOR_APP_PKG_NAME}, A::_ID,
                g_ascii_strtoll(section[0].c_str(), nullptr, 10), entry)) {
        return false;
    }
    source.path = tile[0];
    source.package = entry[0];
    return true;
}

}  // namespace preview
}  // namespace tilvane
