/*
 * The names of the preview content: the provider, the three tables with
 * their content URIs and columns, and the values that some columns take
 * (docs/schema.md describes each column). For the request API of
 * tilvane_client.h; the typed API of tilvane_publisher.h uses them itself.
 *
 * A content URI is "content://<authority>/<table>"; the data-control
 * provider id is "content://<authority>", so provider id + "/" + table is the
 * table's content URI.
 */
#ifndef TILVANE_SCHEMA_H
#define TILVANE_SCHEMA_H

namespace tilvane {
namespace client {
namespace schema {

/* The provider that serves the three tables. */
inline constexpr char kProviderId[] = "content://com.quillon.px.tiles";

/* The row-id column of every table. */
inline constexpr char kRowId[] = "_id";

/* The sync mark: an insert into tiles whose values are kSyncKey = kSyncEnd
 * (with the section it concerns in tiles::kSectionRowId) writes no row
 * and tells the launcher that a batch of writes is complete. */
inline constexpr char kSyncKey[] = "tiles_sync_event";
inline constexpr char kSyncStart[] = "sync_start";
inline constexpr char kSyncEnd[] = "sync_end";

/* The key under which each row of a bulk update names the row it changes. */
inline constexpr char kBulkUpdateRowIdKey[] = "bulk_update_row_id_key";

/* Launcher entries: one per application package, made by the service. */
namespace accelerators {
inline constexpr char kTable[] = "accelerators";
inline constexpr char kUri[] = "content://com.quillon.px.tiles/accelerators";
inline constexpr char kTitle[] = "accelerator_title";
inline constexpr char kIcon[] = "accelerator_icon";
inline constexpr char kIconUnfocused[] = "accelerator_icon_unfocused";
inline constexpr char kEnabled[] = "accelerator_enabled";
inline constexpr char kId[] = "accelerator_id";
/* Internal columns: read at level 4 only. */
inline constexpr char kPosition[] = "accelerator_position";
inline constexpr char kPackage[] = "accelerator_app_pkg_name";
inline constexpr char kWebAppId[] = "accelerator_qeb_web_app_id";
}  // namespace accelerators

/* Sections: groups of tiles under a launcher entry. */
namespace sections {
inline constexpr char kTable[] = "sections";
inline constexpr char kUri[] = "content://com.quillon.px.tiles/sections";
inline constexpr char kId[] = "section_id";
inline constexpr char kTitle[] = "section_title";
inline constexpr char kPosition[] = "section_position";
inline constexpr char kEntryRowId[] = "section_accelerator_raw_id";
inline constexpr char kTitleDisplayMode[] = "section_title_display_mode";
inline constexpr char kSubtitleDisplayMode[] = "section_subtitle_display_mode";
}  // namespace sections

/* Tiles: the content items. */
namespace tiles {
inline constexpr char kTable[] = "tiles";
inline constexpr char kUri[] = "content://com.quillon.px.tiles/tiles";
inline constexpr char kId[] = "tile_id";
inline constexpr char kSectionRowId[] = "tile_section_raw_id";
inline constexpr char kType[] = "tile_type";
inline constexpr char kTitle[] = "tile_title";
inline constexpr char kSubtitle[] = "tile_subtitle";
inline constexpr char kDisplayFrom[] = "tile_display_from";
inline constexpr char kDisplayUntil[] = "tile_display_until";
inline constexpr char kActionPlay[] = "tile_action_play";
inline constexpr char kActionClick[] = "tile_action_click";
inline constexpr char kActionType[] = "tile_action_type";
inline constexpr char kActionDetails[] = "tile_action_details";
inline constexpr char kImageUrl[] = "tile_image_url";
inline constexpr char kSourceIcon[] = "tile_source_icon";
inline constexpr char kActionPrePlay[] = "tile_action_pre_play";
inline constexpr char kActionPostPlay[] = "tile_action_post_play";
inline constexpr char kPlayable[] = "tile_playable";
inline constexpr char kProgress[] = "tile_progress";
inline constexpr char kNotification[] = "tile_notification";
inline constexpr char kFavorite[] = "tile_favorite";
inline constexpr char kPosition[] = "tile_position";
inline constexpr char kExtraAppId[] = "tile_extra_app_id";
inline constexpr char kImageWidth[] = "tile_image_width";
inline constexpr char kImageHeight[] = "tile_image_height";
inline constexpr char kImageRatio[] = "tile_image_ratio";
inline constexpr char kImagePath[] = "tile_image_path";
inline constexpr char kSourceIconPath[] = "tile_source_icon_path";
}  // namespace tiles

/* Values of sections::kTitleDisplayMode and kSubtitleDisplayMode. */
namespace display_mode {
inline constexpr char kAlways[] = "ALWAYS";
inline constexpr char kHighlightedOnly[] = "HIGHLIGHTED_ONLY";
inline constexpr char kNever[] = "NEVER";
}  // namespace display_mode

/* Values of tiles::kImageRatio. */
namespace image_ratio {
inline constexpr char k1by1[] = "1:1";
inline constexpr char k16by9[] = "16:9";
inline constexpr char k4by3[] = "4:3";
inline constexpr char k2by3[] = "2:3";
}  // namespace image_ratio

/* The default of tiles::kActionType. */
inline constexpr char kAppLaunch[] = "APP_LAUNCH";

}  // namespace schema
}  // namespace client
}  // namespace tilvane

#endif
