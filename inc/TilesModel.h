/*
 * Names of the preview content under the names the service uses: the content
 * URIs of the three tables and the column names, with the values that some
 * columns take. The texts themselves are defined once, in the client
 * library's installed header tilvane_schema.h; these are references to them.
 *
 * A content URI is "content://<authority>/<table>"; the data-control provider
 * id is "content://<authority>", so provider id + "/" + data id (the table
 * name) is the table's content URI.
 */
#ifndef TILVANE_TILES_MODEL_H
#define TILVANE_TILES_MODEL_H

#include "tilvane_schema.h"

namespace TilesModel {

inline constexpr auto& PROVIDER_ID = ::tilvane::client::schema::kProviderId;

/* Name of the row-id column of every table. */
inline constexpr auto& BaseColumnsID = ::tilvane::client::schema::kRowId;

/* The sync mark a client puts into an insert instead of a row. */
inline constexpr auto& EVENT_TILES_SYNC_KEY = ::tilvane::client::schema::kSyncKey;
inline constexpr auto& EVENT_TILES_SYNC_STATUS_START = ::tilvane::client::schema::kSyncStart;
inline constexpr auto& EVENT_TILES_SYNC_STATUS_END = ::tilvane::client::schema::kSyncEnd;

namespace Accelerators {
inline constexpr auto& CONTENT_URI = ::tilvane::client::schema::accelerators::kUri;

inline constexpr auto& _ID = ::tilvane::client::schema::kRowId;
inline constexpr auto& ACCELERATOR_TITLE = ::tilvane::client::schema::accelerators::kTitle;
inline constexpr auto& ACCELERATOR_ICON = ::tilvane::client::schema::accelerators::kIcon;
inline constexpr auto& ACCELERATOR_ICON_UNFOCUSED = ::tilvane::client::schema::accelerators::kIconUnfocused;
inline constexpr auto& ACCELERATOR_ENABLED = ::tilvane::client::schema::accelerators::kEnabled;
inline constexpr auto& ACCELERATOR_ID = ::tilvane::client::schema::accelerators::kId;

/* Values of ACCELERATOR_ENABLED. */
namespace AcceleratorStatus {
inline constexpr char ENABLED[] = "1";
inline constexpr char DISABLED[] = "0";
}  // namespace AcceleratorStatus
}  // namespace Accelerators

namespace Sections {
inline constexpr auto& CONTENT_URI = ::tilvane::client::schema::sections::kUri;

inline constexpr auto& _ID = ::tilvane::client::schema::kRowId;
inline constexpr auto& SECTION_ID = ::tilvane::client::schema::sections::kId;
inline constexpr auto& SECTION_TITLE = ::tilvane::client::schema::sections::kTitle;
inline constexpr auto& SECTION_POSITION = ::tilvane::client::schema::sections::kPosition;
inline constexpr auto& SECTION_ACCELERATOR_RAW_ID = ::tilvane::client::schema::sections::kEntryRowId;
inline constexpr auto& SECTION_TITLE_DISPLAY_MODE = ::tilvane::client::schema::sections::kTitleDisplayMode;
inline constexpr auto& SECTION_SUBTITLE_DISPLAY_MODE = ::tilvane::client::schema::sections::kSubtitleDisplayMode;

/* Values of the two display-mode columns. */
namespace SectionTitleDisplayMode {
inline constexpr auto& SECTION_TITLE_DISPLAY_MODE_ALWAYS = ::tilvane::client::schema::display_mode::kAlways;
inline constexpr auto& SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY = ::tilvane::client::schema::display_mode::kHighlightedOnly;
inline constexpr auto& SECTION_TITLE_DISPLAY_MODE_NEVER = ::tilvane::client::schema::display_mode::kNever;
}  // namespace SectionTitleDisplayMode
}  // namespace Sections

namespace Tiles {
inline constexpr auto& CONTENT_URI = ::tilvane::client::schema::tiles::kUri;

inline constexpr auto& _ID = ::tilvane::client::schema::kRowId;
inline constexpr auto& TILE_ID = ::tilvane::client::schema::tiles::kId;
inline constexpr auto& TILE_SECTION_RAW_ID = ::tilvane::client::schema::tiles::kSectionRowId;
inline constexpr auto& TILE_TYPE = ::tilvane::client::schema::tiles::kType;
inline constexpr auto& TILE_TITLE = ::tilvane::client::schema::tiles::kTitle;
inline constexpr auto& TILE_SUBTITLE = ::tilvane::client::schema::tiles::kSubtitle;
inline constexpr auto& TILE_DISPLAY_FROM = ::tilvane::client::schema::tiles::kDisplayFrom;
inline constexpr auto& TILE_DISPLAY_UNTIL = ::tilvane::client::schema::tiles::kDisplayUntil;
inline constexpr auto& TILE_ACTION_PLAY = ::tilvane::client::schema::tiles::kActionPlay;
inline constexpr auto& TILE_ACTION_CLICK = ::tilvane::client::schema::tiles::kActionClick;
inline constexpr auto& TILE_ACTION_TYPE = ::tilvane::client::schema::tiles::kActionType;
inline constexpr auto& TILE_ACTION_DETAILS = ::tilvane::client::schema::tiles::kActionDetails;
inline constexpr auto& TILE_IMAGE_URL = ::tilvane::client::schema::tiles::kImageUrl;
inline constexpr auto& TILE_SOURCE_ICON = ::tilvane::client::schema::tiles::kSourceIcon;
inline constexpr auto& TILE_ACTION_PRE_PLAY = ::tilvane::client::schema::tiles::kActionPrePlay;
inline constexpr auto& TILE_ACTION_POST_PLAY = ::tilvane::client::schema::tiles::kActionPostPlay;
inline constexpr auto& TILE_PLAYABLE = ::tilvane::client::schema::tiles::kPlayable;
inline constexpr auto& TILE_PROGRESS = ::tilvane::client::schema::tiles::kProgress;
inline constexpr auto& TILE_NOTIFICATION = ::tilvane::client::schema::tiles::kNotification;
inline constexpr auto& TILE_FAVORITE = ::tilvane::client::schema::tiles::kFavorite;
inline constexpr auto& TILE_POSITION = ::tilvane::client::schema::tiles::kPosition;
inline constexpr auto& TILE_EXTRA_APP_ID = ::tilvane::client::schema::tiles::kExtraAppId;
inline constexpr auto& TILE_IMAGE_WIDTH = ::tilvane::client::schema::tiles::kImageWidth;
inline constexpr auto& TILE_IMAGE_HEIGHT = ::tilvane::client::schema::tiles::kImageHeight;
inline constexpr auto& TILE_IMAGE_RATIO = ::tilvane::client::schema::tiles::kImageRatio;
inline constexpr auto& TILE_IMAGE_PATH = ::tilvane::client::schema::tiles::kImagePath;
inline constexpr auto& TILE_SOURCE_ICON_PATH = ::tilvane::client::schema::tiles::kSourceIconPath;

/* Values of TILE_IMAGE_RATIO. */
namespace TileImageRatio {
inline constexpr auto& TILE_IMAGE_RATIO_1BY1 = ::tilvane::client::schema::image_ratio::k1by1;
inline constexpr auto& TILE_IMAGE_RATIO_16BY9 = ::tilvane::client::schema::image_ratio::k16by9;
inline constexpr auto& TILE_IMAGE_RATIO_4BY3 = ::tilvane::client::schema::image_ratio::k4by3;
inline constexpr auto& TILE_IMAGE_RATIO_2BY3 = ::tilvane::client::schema::image_ratio::k2by3;
}  // namespace TileImageRatio
}  // namespace Tiles

}  // namespace TilesModel

/* Columns that only the service and the launcher use. */
namespace TilesInternalModel {
namespace Accelerators {
inline constexpr auto& ACCELERATOR_POSITION = ::tilvane::client::schema::accelerators::kPosition;
inline constexpr auto& ACCELERATOR_APP_PKG_NAME = ::tilvane::client::schema::accelerators::kPackage;
inline constexpr auto& ACCELERATOR_QEB_WEB_APP_ID = ::tilvane::client::schema::accelerators::kWebAppId;
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
