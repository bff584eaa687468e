/*
 * Publishing an application's launcher content, typed and all or nothing.
 *
 *     tilvane::client::Publisher publisher;               // the process's own application id
 *     tilvane::client::Content content;
 *     auto& news = content.AddSection("Evening news");
 *     news.AddTile("Headlines").imageUrl = "https://example.org/headlines.jpg";
 *     news.AddTile("Weather").imageRatio = tilvane::client::ImageRatio::Wide;
 *     tilvane::client::Status published = publisher.Publish(content, tilvane::client::PublishMode::Replace);
 *
 * A publish is one request that the service runs as one transaction: it finds
 * the application's launcher entry, writes the sections under it and the
 * tiles under their sections, and ends with the sync end mark that tells the
 * launcher the content is complete. Either all of it is stored or nothing is,
 * and the launcher hears of it only once it is stored. Read returns the same
 * typed values; Subscribe calls back when the application's content changes.
 * docs/client.md and tilvane_publisher(3) describe it in full.
 *
 * Errors are values (Status), never exceptions; the library writes nothing to
 * standard error unless a log handler is installed (SetLogHandler).
 */
#ifndef TILVANE_PUBLISHER_H
#define TILVANE_PUBLISHER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tilvane_client.h"
#include "tilvane_schema.h"

namespace tilvane {
namespace client {

/* ---- the content -------------------------------------------------------------- */

/* When a section's title (or its tiles' subtitles) shows. */
enum class DisplayMode { Always, HighlightedOnly, Never };

/* The shape of a tile's picture: 1:1, 16:9, 4:3, 2:3. */
enum class ImageRatio { Square, Wide, Standard, Portrait };

/* A content item. Every field is a column the application writes
 * (docs/schema.md); an empty text is stored as no value. `rowId` is filled by
 * Read and never written. */
struct Tile {
    int64_t rowId = -1;
    std::string id;          /* the application's own id for the item */
    std::string type;        /* passed back to the application */
    std::string title;
    std::string subtitle;
    int64_t displayFrom = 0; /* start of the display period (0: none) */
    int64_t displayUntil = 0;/* end of the display period (0: none) */
    std::string actionPlay;
    std::string actionClick;
    std::string actionType = schema::kAppLaunch;
    std::string actionDetails;
    std::string imageUrl;
    std::string sourceIcon;
    std::string actionPrePlay;
    std::string actionPostPlay;
    bool playable = false;
    int64_t progress = 0;    /* how much has been watched */
    bool notification = false;
    bool favorite = false;
    int64_t position = -1;   /* order within the section (ascending) */
    std::string extraAppId;
    int64_t imageWidth = 0;
    int64_t imageHeight = 0;
    ImageRatio imageRatio = ImageRatio::Square;
    std::string imagePath;
    std::string sourceIconPath;
};

/* A row of tiles under the launcher entry. `rowId` is filled by Read. */
struct Section {
    int64_t rowId = -1;
    std::string id;          /* the application's own id for the section */
    std::string title;
    int64_t position = -1;   /* order among the sections (ascending) */
    DisplayMode titleDisplay = DisplayMode::HighlightedOnly;
    DisplayMode subtitleDisplay = DisplayMode::HighlightedOnly;
    std::vector<Tile> tiles;

    Tile& AddTile(std::string tileTitle = std::string())
    {
        tiles.emplace_back();
        tiles.back().title = std::move(tileTitle);
        return tiles.back();
    }
};

/* The application's launcher entry, as the launcher shows it. The service
 * makes and keeps it; an application reads it and does not write it. */
struct LauncherEntry {
    int64_t rowId = -1;
    std::string id;
    std::string title;
    std::string icon;
    std::string iconUnfocused;
    bool enabled = false;
};

/* Everything an application shows under its launcher entry. */
struct Content {
    LauncherEntry entry;     /* filled by Read; not published */
    std::vector<Section> sections;

    Section& AddSection(std::string sectionTitle = std::string())
    {
        sections.emplace_back();
        sections.back().title = std::move(sectionTitle);
        return sections.back();
    }
};

/* Equality of what an application writes: row ids and the launcher entry
 * are not compared. */
bool operator==(const Tile& a, const Tile& b);
bool operator==(const Section& a, const Section& b);
bool operator==(const Content& a, const Content& b);
inline bool operator!=(const Tile& a, const Tile& b) { return !(a == b); }
inline bool operator!=(const Section& a, const Section& b) { return !(a == b); }
inline bool operator!=(const Content& a, const Content& b) { return !(a == b); }

/* ---- errors ------------------------------------------------------------------------ */

enum class ErrorCode {
    Ok = 0,
    InvalidArgument,  /* the content cannot be sent as it is (a text with a NUL byte, ...) */
    OverLimits,       /* more rows or bytes than one publish may carry (the reason names the limit) */
    NotRunning,       /* no service answers for the provider */
    NotAuthorized,    /* the bus did not confirm the application id, or it is not this process's */
    PermissionDenied, /* the application may not write launcher content (it does not support the launcher) */
    NoLauncherEntry,  /* the application has no launcher entry of its own, or more than one */
    Refused,          /* the service's strict confinement refused a part (the reason names the rule) */
    StorageFailed,    /* the database refused or could not store a part (the reason is the database's) */
    BusError          /* the message bus could not be used */
};

/* What a call came to. Converts to true on success. */
struct Status {
    ErrorCode code = ErrorCode::Ok;
    /* The service's result code when it answered one (0 on success). */
    int result = 0;
    /* The section (index into Content::sections) whose part failed; -1 when
     * the failure was not one section's. */
    int section = -1;
    /* Why, in words; empty on success. */
    std::string reason;

    bool ok() const { return code == ErrorCode::Ok; }
    explicit operator bool() const { return ok(); }
};

/* A value, or the Status that says why there is none. */
template <typename T>
class StatusOr {
public:
    StatusOr(T value) : m_value(std::move(value)) {}
    StatusOr(Status status) : m_status(std::move(status)) {}
    bool ok() const { return m_status.ok(); }
    explicit operator bool() const { return ok(); }
    const Status& status() const { return m_status; }
    T& operator*() { return m_value; }
    const T& operator*() const { return m_value; }
    T* operator->() { return &m_value; }
    const T* operator->() const { return &m_value; }

private:
    Status m_status;
    T m_value{};
};

/* The name of a code: "ok", "invalid argument", "over limits", ... */
const char* ErrorName(ErrorCode code);

/* ---- limits --------------------------------------------------------------------- */

/* One publish carries at most kMaxSections sections, kMaxPublishRows rows
 * (sections and tiles together) and kMaxPublishBytes of rows as they are
 * sent (column names and values, about 4/3 of their bytes); one section or
 * tile at most kMaxRowBytes (tilvane_client.h) of column names and values.
 * A publish beyond
 * them is refused with ErrorCode::OverLimits and the limit in its reason. */
inline constexpr std::size_t kMaxSections = 2000;
inline constexpr std::size_t kMaxPublishRows = 65535;
inline constexpr std::size_t kMaxPublishBytes = 16 * 1024 * 1024;

/* ---- changes -------------------------------------------------------------------- */

/* A change of the application's content, as the service announces it. */
struct ChangeEvent {
    enum class Kind {
        Published, /* a batch of writes ended (a publish, or a sync end mark) */
        Inserted,  /* rows were inserted (a bulk insert of the request API) */
        Deleted    /* rows were deleted */
    };
    Kind kind = Kind::Published;
    /* The section the change concerns; -1 when the event names none. */
    int64_t sectionRowId = -1;
};

/* Receives changes while it lives; moving it moves the subscription, and
 * destroying it (or Cancel) ends it. */
class Subscription {
public:
    Subscription() = default;
    /* Ends the subscription; nothing is called back afterwards. */
    void Cancel();
    bool Active() const { return m_impl != nullptr; }
    ~Subscription() { Cancel(); }
    Subscription(Subscription&& other) noexcept = default;
    Subscription& operator=(Subscription&& other) noexcept
    {
        if (this != &other) {
            Cancel();
            m_impl = std::move(other.m_impl);
        }
        return *this;
    }

    struct Impl;

private:
    friend class Publisher;
    explicit Subscription(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
    std::shared_ptr<Impl> m_impl;
};

/* ---- publishing ----------------------------------------------------------------- */

enum class PublishMode {
    Append, /* add the sections to those already published */
    Replace /* the sections become all of the application's content */
};

/* What a successful publish stored. */
struct Receipt {
    int64_t entryRowId = -1;
    /* Replace: the sections removed (their tiles went with them). */
    int64_t removedSections = 0;
    /* One per section of the content, in order. */
    std::vector<int64_t> sectionRowIds;
};

/* Publishes, reads and follows one application's content. Calls may come from
 * any thread (each is one synchronous request); change callbacks run on the
 * GLib default main context (see WaitForChanges). */
class Publisher {
public:
    /* `appId`: the application this process acts as (default: its own,
     * TILVANE_APP_ID or the program's name); a process acts as one
     * application. `providerId`: default TILVANE_DATA_CONTROL_PROVIDER_ID, else
     * schema::kProviderId. */
    explicit Publisher(std::string appId = std::string(), std::string providerId = std::string());

    const std::string& AppId() const;

    /* Finds the launcher entry, writes the content under it (Replace: in place
     * of everything published before) and sends the sync end mark, as one
     * transaction. */
    StatusOr<Receipt> Publish(const Content& content, PublishMode mode = PublishMode::Append) const;

    /* The launcher entry and every section with its tiles, in the launcher's
     * order (position, then the order of publishing). */
    StatusOr<Content> Read() const;

    /* Calls `onChange` for every change of this application's content until
     * the Subscription ends. */
    StatusOr<Subscription> Subscribe(std::function<void(const ChangeEvent&)> onChange) const;

    /* Runs the GLib default main context until a change was called back or
     * `timeoutMs` passed; returns how many were called back. Only needed by
     * an application that does not run a GLib main loop of its own. */
    int WaitForChanges(int timeoutMs) const;

    struct Impl;

private:
    std::shared_ptr<Impl> m_impl;
};

/* ---- the library's log ---------------------------------------------------------- */

/* Priorities of log lines: 2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 fatal. */
using LogHandler = std::function<void(int priority, const std::string& tag, const std::string& message)>;

/* Hands every line the library logs to `handler` (an empty handler: nothing
 * is logged, the default). The handler may be called from any thread. */
void SetLogHandler(LogHandler handler);

}  // namespace client
}  // namespace tilvane

#endif
