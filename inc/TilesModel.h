/*
 * Names of the preview content: the content URIs of the three tables and the
 * column names, with the values that some columns take. This is the only place
 * where these texts are defined.
 *
 * A content URI is "content://<authority>/<table>"; the data-control provider
 * id is "content://<authority>", so provider id + "/" + data id (the table
 * name) is the table's content URI.
 */
#ifndef TILVANE_TILES_MODEL_H
#define TILVANE_TILES_MODEL_H

namespace TilesModel {

inline constexpr char PROVIDER_ID[] = "content://com.quillon.px.tiles";

/* Name of the row-id column of every table. */
inline constexpr char BaseColumnsID[] = "_id";

/* The sync mark a client puts into an insert instead of a row. */
inline constexpr char EVENT_TILES_SYNC_KEY[] = "tiles_sync_event";
inline constexpr char EVENT_TILES_SYNC_STATUS_START[] = "sync_start";
inline constexpr char EVENT_TILES_SYNC_STATUS_END[] = "sync_end";

namespace Accelerators {
inline constexpr char CONTENT_URI[] = "content://com.quillon.px.tiles/accelerators";

inline constexpr char _ID[] = "_id";
inline constexpr char ACCELERATOR_TITLE[] = "accelerator_title";
inline constexpr char ACCELERATOR_ICON[] = "accelerator_icon";
inline constexpr char ACCELERATOR_ICON_UNFOCUSED[] = "accelerator_icon_unfocused";
inline constexpr char ACCELERATOR_ENABLED[] = "accelerator_enabled";
inline constexpr char ACCELERATOR_ID[] = "accelerator_id";

/* Values of ACCELERATOR_ENABLED. */
namespace AcceleratorStatus {
inline constexpr char ENABLED[] = "1";
inline constexpr char DISABLED[] = "0";
}  // namespace AcceleratorStatus
}  // namespace Accelerators

namespace Sections {
inline constexpr char CONTENT_URI[] = "content://com.quillon.px.tiles/sections";

inline constexpr char _ID[] = "_id";
inline constexpr char SECTION_ID[] = "section_id";
inline constexpr char SECTION_TITLE[] = "section_title";
inline constexpr char SECTION_POSITION[] = "section_position";
inline constexpr char SECTION_ACCELERATOR_RAW_ID[] = "section_accelerator_raw_id";
inline constexpr char SECTION_TITLE_DISPLAY_MODE[] = "section_title_display_mode";
inline constexpr char SECTION_SUBTITLE_DISPLAY_MODE[] = "section_subtitle_display_mode";

/* Values of the two display-mode columns. */
namespace SectionTitleDisplayMode {
inline constexpr char SECTION_TITLE_DISPLAY_MODE_ALWAYS[] = "ALWAYS";
inline constexpr char SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY[] = "HIGHLIGHTED_ONLY";
inline constexpr char SECTION_TITLE_DISPLAY_MODE_NEVER[] = "NEVER";
}  // namespace SectionTitleDisplayMode
}  // namespace Sections

namespace Tiles {
inline constexpr char CONTENT_URI[] = "content://com.quillon.px.tiles/tiles";

inline constexpr char _ID[] = "_id";
inline constexpr char TILE_ID[] = "tile_id";
inline constexpr char TILE_SECTION_RAW_ID[] = "tile_section_raw_id";
inline constexpr char TILE_TYPE[] = "tile_type";
inline constexpr char TILE_TITLE[] = "tile_title";
inline constexpr char TILE_SUBTITLE[] = "tile_subtitle";
inline constexpr char TILE_DISPLAY_FROM[] = "tile_display_from";
inline constexpr char TILE_DISPLAY_UNTIL[] = "tile_display_until";
inline constexpr char TILE_ACTION_PLAY[] = "tile_action_play";
inline constexpr char TILE_ACTION_CLICK[] = "tile_action_click";
inline constexpr char TILE_ACTION_TYPE[] = "tile_action_type";
inline constexpr char TILE_ACTION_DETAILS[] = "tile_action_details";
inline constexpr char TILE_IMAGE_URL[] = "tile_image_url";
inline constexpr char TILE_SOURCE_ICON[] = "tile_source_icon";
inline constexpr char TILE_ACTION_PRE_PLAY[] = "tile_action_pre_play";
inline constexpr char TILE_ACTION_POST_PLAY[] = "tile_action_post_play";
inline constexpr char TILE_PLAYABLE[] = "tile_playable";
inline constexpr char TILE_PROGRESS[] = "tile_progress";
inline constexpr char TILE_NOTIFICATION[] = "tile_notification";
inline constexpr char TILE_FAVORITE[] = "tile_favorite";
inline constexpr char TILE_POSITION[] = "tile_position";
inline constexpr char TILE_EXTRA_APP_ID[] = "tile_extra_app_id";
inline constexpr char TILE_IMAGE_WIDTH[] = "tile_image_width";
inline constexpr char TILE_IMAGE_HEIGHT[] = "tile_image_height";
inline constexpr char TILE_IMAGE_RATIO[] = "tile_image_ratio";
inline constexpr char TILE_IMAGE_PATH[] = "tile_image_path";
inline constexpr char TILE_SOURCE_ICON_PATH[] = "tile_source_icon_path";

/* Values of TILE_IMAGE_RATIO. */
namespace TileImageRatio {
inline constexpr char TILE_IMAGE_RATIO_1BY1[] = "1:1";
inline constexpr char TILE_IMAGE_RATIO_16BY9[] = "16:9";
inline constexpr char TILE_IMAGE_RATIO_4BY3[] = "4:3";
inline constexpr char TILE_IMAGE_RATIO_2BY3[] = "2:3";
}  // namespace TileImageRatio
}  // namespace Tiles

}  // namespace TilesModel

/* Columns that only the service and the launcher use. */
namespace TilesInternalModel {
namespace Accelerators {
inline constexpr char ACCELERATOR_POSITION[] = "accelerator_position";
inline constexpr char ACCELERATOR_APP_PKG_NAME[] = "accelerator_app_pkg_name";
inline constexpr char ACCELERATOR_QEB_WEB_APP_ID[] = "accelerator_qeb_web_app_id";
/* Not columns of the table: the application metadata keys under which an
 * application declares the privileges it reads and writes with. */
inline constexpr char ACCELERATOR_READ_PERMISSION[] = "accelerator_read_permission";
inline constexpr char ACCELERATOR_WRITE_PERMISSION[] = "accelerator_write_permission";
}  // namespace Accelerators
}  // namespace TilesInternalModel

/* Application metadata keys of the platform vendor, under the vendor's
 * metadata URI "http://developer.quillon.com". An application that declares
 * either key publishes preview content and owns a launcher entry; only the
 * key's presence counts, never its value. */
namespace AppMetadata {
inline constexpr char VENDOR_METADATA_URI[] = "http://developer.quillon.com";
inline constexpr char USE_ACCELERATOR[] = "http://developer.quillon.com/tv/metadata/use.accelerator";
inline constexpr char USE_PREVIEW[] = "http://developer.quillon.com/tv/metadata/use.preview";
}  // namespace AppMetadata

#endif
