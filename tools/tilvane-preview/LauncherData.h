/*
 * The launcher content as the preview shows it, read through the client
 * library like any other application reads it (the preview runs as an
 * application with the internal read level, so nothing is confined):
 *
 *   entries   the accelerators, in launcher order
 *   sections  the sections under one entry, in position order
 *   tiles     the tiles of one section, in position order, each with whether
 *             its display period includes the present time
 *
 * "Position order" is ascending position, then row id; rows without a
 * position (negative, the columns' default) come after the positioned ones.
 * Each answer is a JSON text whose members are the table's column names.
 */
#ifndef TILVANE_PREVIEW_LAUNCHER_DATA_H
#define TILVANE_PREVIEW_LAUNCHER_DATA_H

#include <tilvane_client.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tilvane {
namespace preview {

struct Answer {
    unsigned status = 200; /* HTTP status: 200, or 502 when the service refused or did not answer */
    std::string json;
};

/* Where the period of a tile stands at a moment. */
struct PeriodCheck {
    bool visible = true;
    std::string reason; /* why it is hidden: "starts 2026-11-24 10:00 UTC" or "ended 2026-11-20 08:00 UTC" */
};

/* A display-period bound as seconds since the epoch. The columns hold
 * seconds; values too large to be seconds of this era (from 10^11 on) are
 * read as milliseconds, which some publishers write. 0 means no bound. */
int64_t PeriodBoundSeconds(int64_t stored);

/* Whether a tile with these bounds is shown at `nowSeconds`. The period
 * includes its start and excludes its end. */
PeriodCheck CheckPeriod(int64_t displayFrom, int64_t displayUntil, int64_t nowSeconds);

/* An image of the content and the package whose row names it. */
struct ImageSource {
    std::string path;    /* the device path the row holds ("" when none) */
    std::string package; /* the package id of the launcher entry the row is under */
};

class LauncherData {
public:
    /* `now` gives the present time in seconds since the epoch. */
    explicit LauncherData(std::function<int64_t()> now);

    Answer Entries() const;
    Answer Sections(int64_t entryId) const;
    Answer Tiles(int64_t sectionId) const;

    /* The image path of tile `tileId` (tile_image_path) or the icon path of
     * entry `entryId` (accelerator_icon), with the package that owns the row;
     * false when the row is not there or the service does not answer. */
    bool TileImage(int64_t tileId, ImageSource& source) const;
    bool EntryIcon(int64_t entryId, ImageSource& source) const;

private:
    bool OneRow(const char* uri, const std::vector<std::string>& columns, const char* idColumn, int64_t id,
                std::vector<std::string>& values) const;

    client::ContentClient m_client;
    std::function<int64_t()> m_now;
};

}  // namespace preview
}  // namespace tilvane

#endif
