/*
 * The C interface of the client library: the typed, all-or-nothing publish of
 * tilvane_publisher.h for C and for other languages (a web runtime, Python's
 * ctypes). Opaque handles and plain types only.
 *
 *     tilvane_publisher *publisher = tilvane_publisher_new(NULL, NULL);
 *     tilvane_content *content = tilvane_content_new();
 *     tilvane_row *section = tilvane_content_add_section(content);
 *     tilvane_row_set_text(section, TILVANE_SECTION_TITLE, "Evening news");
 *     tilvane_row_set_text(tilvane_section_add_tile(section), TILVANE_TILE_TITLE, "Headlines");
 *     if (tilvane_publisher_publish(publisher, content, TILVANE_REPLACE) != TILVANE_OK)
 *         fprintf(stderr, "%s\n", tilvane_publisher_reason(publisher));
 *     tilvane_content_free(content);
 *     tilvane_publisher_free(publisher);
 *
 * Errors are tilvane_error codes; the reason of the last failure of a
 * publisher is tilvane_publisher_reason (valid until its next call), as
 * SQLite's errmsg is. A publisher may be used from several threads, but the
 * reason is that of whichever call ended last. Nothing is written to standard
 * error unless a log handler is installed.
 */
#ifndef TILVANE_C_H
#define TILVANE_C_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version, "MAJOR.MINOR.PATCH". */
const char *tilvane_client_version(void);

typedef enum {
    TILVANE_OK = 0,
    TILVANE_INVALID_ARGUMENT,  /* a null handle, a column of another table, a text with a NUL byte ... */
    TILVANE_OVER_LIMITS,       /* more than one publish may carry */
    TILVANE_NOT_RUNNING,       /* no service answers for the provider */
    TILVANE_NOT_AUTHORIZED,    /* the bus did not confirm the application id */
    TILVANE_PERMISSION_DENIED, /* the application may not write launcher content */
    TILVANE_NO_LAUNCHER_ENTRY, /* no launcher entry of the application's own, or more than one */
    TILVANE_REFUSED,           /* the service's strict confinement refused a part */
    TILVANE_STORAGE_FAILED,    /* the database refused or could not store a part */
    TILVANE_BUS_ERROR          /* the message bus could not be used */
} tilvane_error;

/* "ok", "invalid argument", ... */
const char *tilvane_error_name(tilvane_error error);

typedef enum { TILVANE_APPEND = 0, TILVANE_REPLACE = 1 } tilvane_publish_mode;

/* Values of TILVANE_SECTION_TITLE_DISPLAY and TILVANE_SECTION_SUBTITLE_DISPLAY. */
typedef enum { TILVANE_DISPLAY_ALWAYS = 0, TILVANE_DISPLAY_HIGHLIGHTED_ONLY, TILVANE_DISPLAY_NEVER } tilvane_display_mode;
/* Values of TILVANE_TILE_IMAGE_RATIO: 1:1, 16:9, 4:3, 2:3. */
typedef enum { TILVANE_RATIO_SQUARE = 0, TILVANE_RATIO_WIDE, TILVANE_RATIO_STANDARD, TILVANE_RATIO_PORTRAIT } tilvane_image_ratio;

/* The columns, by table (docs/schema.md). Text columns take
 * tilvane_row_set_text; number, yes/no (0 or 1) and enumeration columns
 * tilvane_row_set_int (an enumeration by its value above). Launcher-entry
 * columns can only be read. */
typedef enum {
    TILVANE_ENTRY_ROW_ID = 0x100, /* int, read only */
    TILVANE_ENTRY_ID,             /* text */
    TILVANE_ENTRY_TITLE,          /* text */
    TILVANE_ENTRY_ICON,           /* text */
    TILVANE_ENTRY_ICON_UNFOCUSED, /* text */
    TILVANE_ENTRY_ENABLED,        /* 0 or 1 */

    TILVANE_SECTION_ROW_ID = 0x200, /* int, read only */
    TILVANE_SECTION_ID,             /* text */
    TILVANE_SECTION_TITLE,          /* text */
    TILVANE_SECTION_POSITION,       /* int */
    TILVANE_SECTION_TITLE_DISPLAY,  /* tilvane_display_mode */
    TILVANE_SECTION_SUBTITLE_DISPLAY,

    TILVANE_TILE_ROW_ID = 0x300, /* int, read only */
    TILVANE_TILE_ID,             /* text */
    TILVANE_TILE_TYPE,
    TILVANE_TILE_TITLE,
    TILVANE_TILE_SUBTITLE,
    TILVANE_TILE_DISPLAY_FROM,   /* int */
    TILVANE_TILE_DISPLAY_UNTIL,  /* int */
    TILVANE_TILE_ACTION_PLAY,
    TILVANE_TILE_ACTION_CLICK,
    TILVANE_TILE_ACTION_TYPE,
    TILVANE_TILE_ACTION_DETAILS,
    TILVANE_TILE_IMAGE_URL,
    TILVANE_TILE_SOURCE_ICON,
    TILVANE_TILE_ACTION_PRE_PLAY,
    TILVANE_TILE_ACTION_POST_PLAY,
    TILVANE_TILE_PLAYABLE,       /* 0 or 1 */
    TILVANE_TILE_PROGRESS,       /* int */
    TILVANE_TILE_NOTIFICATION,   /* 0 or 1 */
    TILVANE_TILE_FAVORITE,       /* 0 or 1 */
    TILVANE_TILE_POSITION,       /* int */
    TILVANE_TILE_EXTRA_APP_ID,
    TILVANE_TILE_IMAGE_WIDTH,    /* int */
    TILVANE_TILE_IMAGE_HEIGHT,   /* int */
    TILVANE_TILE_IMAGE_RATIO,    /* tilvane_image_ratio */
    TILVANE_TILE_IMAGE_PATH,
    TILVANE_TILE_SOURCE_ICON_PATH
} tilvane_column;

typedef struct tilvane_publisher tilvane_publisher;
typedef struct tilvane_content tilvane_content;
/* A launcher entry, a section or a tile of a content; owned by the content. */
typedef struct tilvane_row tilvane_row;
typedef struct tilvane_subscription tilvane_subscription;

/* ---- content ---- */

tilvane_content *tilvane_content_new(void);
void tilvane_content_free(tilvane_content *content);
/* The launcher entry (filled by tilvane_publisher_read). */
tilvane_row *tilvane_content_entry(tilvane_content *content);
tilvane_row *tilvane_content_add_section(tilvane_content *content);
int tilvane_content_section_count(const tilvane_content *content);
/* Null for an index out of range. */
tilvane_row *tilvane_content_section(tilvane_content *content, int index);
tilvane_row *tilvane_section_add_tile(tilvane_row *section);
int tilvane_section_tile_count(const tilvane_row *section);
tilvane_row *tilvane_section_tile(tilvane_row *section, int index);
/* 1 when the two contents hold the same sections and tiles (row ids and the
 * launcher entry are not compared), else 0. */
int tilvane_content_equal(const tilvane_content *a, const tilvane_content *b);

tilvane_error tilvane_row_set_text(tilvane_row *row, tilvane_column column, const char *value);
tilvane_error tilvane_row_set_int(tilvane_row *row, tilvane_column column, int64_t value);
/* The text of a text or enumeration column (as stored, e.g. "16:9"), owned
 * by the row until it changes; null for another column. */
const char *tilvane_row_get_text(const tilvane_row *row, tilvane_column column);
tilvane_error tilvane_row_get_int(const tilvane_row *row, tilvane_column column, int64_t *value);

/* ---- publishing ---- */

/* `app_id`, `provider_id`: null for the defaults of the C++ Publisher. */
tilvane_publisher *tilvane_publisher_new(const char *app_id, const char *provider_id);
void tilvane_publisher_free(tilvane_publisher *publisher);
tilvane_error tilvane_publisher_publish(tilvane_publisher *publisher, const tilvane_content *content,
                                        tilvane_publish_mode mode);
/* `*content` receives a new content (free it with tilvane_content_free). */
tilvane_error tilvane_publisher_read(tilvane_publisher *publisher, tilvane_content **content);
/* Why the last call of this publisher failed ("" after a success). */
const char *tilvane_publisher_reason(const tilvane_publisher *publisher);
/* The service's result code of that call (0 when it answered none). */
int tilvane_publisher_result(const tilvane_publisher *publisher);

/* kind: 0 published, 1 inserted, 2 deleted; section_row_id -1 when none. */
typedef void (*tilvane_change_callback)(int kind, int64_t section_row_id, void *user_data);
tilvane_error tilvane_publisher_subscribe(tilvane_publisher *publisher, tilvane_change_callback callback,
                                          void *user_data, tilvane_subscription **subscription);
void tilvane_subscription_free(tilvane_subscription *subscription);
/* Runs the GLib default main context until a change was called back or
 * `timeout_ms` passed; the number called back. */
int tilvane_publisher_wait_for_changes(tilvane_publisher *publisher, int timeout_ms);

/* ---- log ---- */

/* priority: 2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 fatal. A null handler:
 * nothing is logged (the default). */
typedef void (*tilvane_log_handler)(int priority, const char *tag, const char *message, void *user_data);
void tilvane_set_log_handler(tilvane_log_handler handler, void *user_data);

#ifdef __cplusplus
}
#endif

#endif
