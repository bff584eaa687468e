/*
 * Realistic rows for the benchmarks: a tile with every one of its 26 columns
 * filled the way a streaming application fills them, and a section.
 */
#ifndef TILVANE_BENCH_DATA_H
#define TILVANE_BENCH_DATA_H

#include <string>
#include <utility>
#include <vector>

#include "TilesModel.h"

using BenchValues = std::vector<std::pair<std::string, std::string>>;

/* Tile `index` of the section with raw id `sectionRawId` (all columns but _id). */
inline BenchValues BenchTile(int index, long long sectionRawId, const std::string& app = "org.example.news")
{
    using namespace TilesModel::Tiles;
    const std::string n = std::to_string(index);
    static const char* const kRatios[] = {"16:9", "1:1", "4:3", "2:3"};
    return {
        {TILE_ID, app + ".tile." + n},
        {TILE_SECTION_RAW_ID, std::to_string(sectionRawId)},
        {TILE_TYPE, index % 3 == 0 ? "MOVIE" : "EPISODE"},
        {TILE_TITLE, "Episode " + n + ": The Long Way Home (part " + std::to_string(index % 4 + 1) + ")"},
        {TILE_SUBTITLE, "Season " + std::to_string(index % 9 + 1) + " - 42 min - Drama"},
        {TILE_DISPLAY_FROM, "1767225600"},
        {TILE_DISPLAY_UNTIL, "1798761600"},
        {TILE_ACTION_PLAY, "{\"operation\":\"play\",\"content\":\"" + app + "/video/" + n + "\"}"},
        {TILE_ACTION_CLICK, "{\"operation\":\"view\",\"content\":\"" + app + "/detail/" + n + "\"}"},
        {TILE_ACTION_TYPE, "APP_LAUNCH"},
        {TILE_ACTION_DETAILS, "{\"deeplink\":\"" + app + "://watch?id=" + n + "&t=0\"}"},
        {TILE_IMAGE_URL, "https://cdn.example.invalid/" + app + "/thumbs/" + n + "_640x360.jpg"},
        {TILE_SOURCE_ICON, "https://cdn.example.invalid/" + app + "/icon_96.png"},
        {TILE_ACTION_PRE_PLAY, "{\"operation\":\"preload\",\"content\":\"" + n + "\"}"},
        {TILE_ACTION_POST_PLAY, "{\"operation\":\"next\",\"content\":\"" + std::to_string(index + 1) + "\"}"},
        {TILE_PLAYABLE, index % 5 == 0 ? "0" : "1"},
        {TILE_PROGRESS, std::to_string(index * 7 % 101)},
        {TILE_NOTIFICATION, index % 11 == 0 ? "1" : "0"},
        {TILE_FAVORITE, index % 13 == 0 ? "1" : "0"},
        {TILE_POSITION, std::to_string(index)},
        {TILE_EXTRA_APP_ID, app + ".player"},
        {TILE_IMAGE_WIDTH, "640"},
        {TILE_IMAGE_HEIGHT, "360"},
        {TILE_IMAGE_RATIO, kRatios[index % 4]},
        {TILE_IMAGE_PATH, "/opt/usr/home/owner/apps_rw/" + app + "/shared/cache/" + n + ".jpg"},
        {TILE_SOURCE_ICON_PATH, "/opt/usr/home/owner/apps_rw/" + app + "/shared/res/icon_96.png"},
    };
}

inline BenchValues BenchSection(int index, long long acceleratorRawId)
{
    using namespace TilesModel::Sections;
    return {
        {SECTION_ID, "section-" + std::to_string(index)},
        {SECTION_TITLE, "Continue watching " + std::to_string(index)},
        {SECTION_POSITION, std::to_string(index)},
        {SECTION_ACCELERATOR_RAW_ID, std::to_string(acceleratorRawId)},
        {SECTION_TITLE_DISPLAY_MODE, "ALWAYS"},
        {SECTION_SUBTITLE_DISPLAY_MODE, "HIGHLIGHTED_ONLY"},
    };
}

#endif
