/*
 * tilvanectl publish: one application's preview content in one command.
 *
 * The file holds the application's sections, each with its tiles:
 *   {"sections": [{"section_title": "Evening", "tiles": [{"tile_title": "..."}]}]}
 * The command finds the caller's launcher entry (its accelerator row, which a
 * launcher-supporting application gets on its first request), optionally
 * deletes the caller's previous sections (their tiles go with them), inserts
 * each section under the entry, bulk inserts the section's tiles under the
 * section, and ends with the sync end mark that tells the launcher the batch
 * is complete. Every request goes through the content interface as the
 * caller, so the service's confinement applies unchanged.
 */
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <tilvane_client.h>

#include "Commands.h"
#include "DataRequests.h"
#include "Json.h"
#include "TilesModel.h"

namespace tilvanectl {
namespace {

using tilvane::client::ContentClient;
using tilvane::client::Result;
using tilvane::client::Values;

namespace Sections = TilesModel::Sections;
namespace Tiles = TilesModel::Tiles;

struct SectionToPublish {
    Values values;
    std::vector<Values> tiles;
    std::string title;
};

int Usage(const std::string& message)
{
    std::cerr << "tilvanectl publish: " << message << " (see tilvanectl publish --help)\n";
    return EXIT_USAGE;
}

int Invalid(const std::string& path, const std::string& message)
{
    std::cerr << "tilvanectl publish: " << path << ": " << message << "; nothing was published\n";
    return EXIT_FAILED;
}

/* The scalar members of `object` as row values; false (with `error`) when a
 * member other than `skip` is not a string or number, or names `forbidden`. */
bool RowValues(const JsonValue& object, const char* skip, const char* forbidden, Values& values, std::string& error)
{
    for (const auto& member : object.members) {
        if (member.first == skip) {
            continue;
        }
        if (member.first == forbidden) {
            error = "\"" + member.first + "\" is set by publish itself";
            return false;
        }
        if (!member.second.IsScalar()) {
            error = "the value of \"" + member.first + "\" is neither a string nor a number";
            return false;
        }
        values.emplace_back(member.first, member.second.text);
    }
    return true;
}

bool ReadPublishFile(const std::string& path, std::vector<SectionToPublish>& sections, std::string& error)
{
    std::ifstream file(path);
    if (!file) {
        error = "cannot be read";
        return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    JsonValue document;
    if (!ParseJson(text.str(), document, error)) {
        return false;
    }
    const JsonValue* list = document.type == JsonValue::Type::Object ? document.Member("sections") : nullptr;
    if (list == nullptr || list->type != JsonValue::Type::Array || document.members.size() != 1) {
        error = "expected an object with one member, \"sections\": an array of sections";
        return false;
    }
    if (list->items.empty()) {
        error = "\"sections\" is empty";
        return false;
    }
    for (size_t i = 0; i < list->items.size(); ++i) {
        const JsonValue& item = list->items[i];
        const std::string where = "section " + std::to_string(i + 1) + ": ";
        if (item.type != JsonValue::Type::Object) {
            error = where + "expected an object";
            return false;
        }
        SectionToPublish section;
        if (!RowValues(item, "tiles", Sections::SECTION_ACCELERATOR_RAW_ID, section.values, error)) {
            error = where + error;
            return false;
        }
        const JsonValue* title = item.Member(Sections::SECTION_TITLE);
        section.title = title != nullptr ? title->text : std::string();
        const JsonValue* tiles = item.Member("tiles");
        if (tiles != nullptr && tiles->type != JsonValue::Type::Array) {
            error = where + "\"tiles\" must be an array of tiles";
            return false;
        }
        for (size_t t = 0; tiles != nullptr && t < tiles->items.size(); ++t) {
            const JsonValue& tile = tiles->items[t];
            const std::string tileWhere = where + "tile " + std::to_string(t + 1) + ": ";
            if (tile.type != JsonValue::Type::Object) {
                error = tileWhere + "expected an object";
                return false;
            }
            Values values;
            if (!RowValues(tile, "", Tiles::TILE_SECTION_RAW_ID, values, error)) {
                error = tileWhere + error;
                return false;
            }
            section.tiles.push_back(values);
        }
        sections.push_back(section);
    }
    return true;
}

/* The caller's launcher entry: the one accelerator row it reads as its own. */
bool FindLauncherEntry(const ContentClient& content, const std::string& provider, std::string& acceleratorId)
{
    Result result = content.Select(provider + "/accelerators", {TilesModel::Accelerators::_ID}, "", {}, "", "");
    if (!result.Ok()) {
        ReportFailure("publish: finding this application's launcher entry", result);
        return false;
    }
    if (result.rows.rows.size() != 1 || result.rows.rows[0].empty() ||
        result.rows.rows[0][0].type != tilvane::client::Cell::Type::Integer) {
        std::cerr << "tilvanectl publish: this application reads " << result.rows.rows.size()
                  << " launcher entries, not one: publishing needs an application that supports the launcher "
                     "(use.preview or use.accelerator metadata, see tilvanectl app --help); nothing was published\n";
        return false;
    }
    acceleratorId = std::to_string(result.rows.rows[0][0].integer);
    return true;
}

/* Inserts one section under the launcher entry and bulk inserts its tiles
 * into it; `sectionId` receives the new section's row id. */
int PublishSection(ContentClient& content, const std::string& provider, const std::string& acceleratorId,
                   const SectionToPublish& section, std::string& sectionId)
{
    Values values = section.values;
    values.emplace_back(Sections::SECTION_ACCELERATOR_RAW_ID, acceleratorId);
    Result inserted = content.Insert(provider + "/sections", values);
    if (!inserted.Ok()) {
        return ReportFailure("publish: inserting section \"" + section.title + "\"", inserted);
    }
    sectionId = std::to_string(inserted.rowId);
    if (!section.tiles.empty()) {
        std::vector<Values> tiles = section.tiles;
        for (Values& tile : tiles) {
            tile.emplace_back(Tiles::TILE_SECTION_RAW_ID, sectionId);
        }
        Result bulk = content.BulkInsert(provider + "/tiles", tiles);
        if (!bulk.Ok()) {
            return ReportFailure("publish: inserting the tiles of section \"" + section.title + "\"", bulk);
        }
    }
    std::cout << "section " << sectionId << " \"" << section.title << "\": "
              << CountOf(static_cast<long long>(section.tiles.size()), "tile", "tiles") << "\n";
    return EXIT_OK;
}

int Publish(const std::string& path, bool replace)
{
    std::vector<SectionToPublish> sections;
    std::string error;
    if (!ReadPublishFile(path, sections, error)) {
        return Invalid(path, error);
    }
    const std::string provider = DefaultProviderId();
    const std::string sectionsUri = provider + "/sections";
    const std::string tilesUri = provider + "/tiles";
    ContentClient content;

    std::string acceleratorId;
    if (!FindLauncherEntry(content, provider, acceleratorId)) {
        return EXIT_FAILED;
    }
    std::cout << "launcher entry " << acceleratorId << "\n";

    if (replace) {
        Result removed = content.Delete(sectionsUri, std::string(Sections::SECTION_ACCELERATOR_RAW_ID) + " = ?",
                                        {acceleratorId});
        if (!removed.Ok()) {
            return ReportFailure("publish: removing the previous sections", removed);
        }
        std::cout << "removed " << CountOf(removed.changedRows < 0 ? 0 : removed.changedRows, "previous section",
                                           "previous sections")
                  << " and their tiles\n";
    }

    size_t tileCount = 0;
    std::string lastSectionId;
    for (const SectionToPublish& section : sections) {
        const int published = PublishSection(content, provider, acceleratorId, section, lastSectionId);
        if (published != EXIT_OK) {
            return published;
        }
        tileCount += section.tiles.size();
    }

    Result mark = content.Insert(tilesUri, {{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END},
                                            {Tiles::TILE_SECTION_RAW_ID, lastSectionId}});
    if (!SyncMarkSent(mark)) {
        return ReportFailure("publish: sending the sync end mark", mark);
    }
    std::cout << "published " << CountOf(static_cast<long long>(sections.size()), "section", "sections") << " and "
              << CountOf(static_cast<long long>(tileCount), "tile", "tiles") << "; sync end mark sent\n";
    return EXIT_OK;
}

}  // namespace

void PrintPublishHelp()
{
    std::cout << "Usage: tilvanectl [--app-id ID] publish FILE [--replace]\n"
                 "\n"
                 "Publishes this application's preview content from a JSON file:\n"
                 "  {\"sections\": [{\"section_title\": \"Evening\", \"section_position\": 0,\n"
                 "                 \"tiles\": [{\"tile_title\": \"Headlines\", \"tile_image_url\": \"...\"}]}]}\n"
                 "Each section's members other than \"tiles\" are its columns, each tile's members its\n"
                 "columns (docs/schema.md); values are strings or numbers. The command finds this\n"
                 "application's launcher entry, inserts each section under it, bulk inserts the\n"
                 "section's tiles under the section, sends the sync end mark and prints what it\n"
                 "published. The application must support the launcher (use.preview or\n"
                 "use.accelerator metadata).\n"
                 "\n"
                 "Options:\n"
                 "  --replace   first delete this application's previous sections and their tiles\n"
                 "\n"
                 "Example: tilvanectl --app-id org.example.videos.main publish examples/publish/news.json\n";
}

int RunPublishCommand(const std::vector<std::string>& args)
{
    std::string path;
    bool replace = false;
    for (const std::string& word : args) {
        if (word == "--replace") {
            replace = true;
        } else if (word.size() > 1 && word[0] == '-') {
            return Usage("unknown option " + word);
        } else if (path.empty()) {
            path = word;
        } else {
            return Usage("one FILE only");
        }
    }
    if (path.empty()) {
        return Usage("no FILE");
    }
    return Publish(path, replace);
}

}  // namespace tilvanectl
