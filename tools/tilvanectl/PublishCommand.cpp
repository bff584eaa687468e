/*
 * tilvanectl publish: one application's preview content in one command.
 *
 * The file holds the application's sections, each with its tiles:
 *   {"sections": [{"section_title": "Evening", "tiles": [{"tile_title": "..."}]}]}
 * Each member names a column (docs/schema.md); the file becomes the client
 * library's typed content, and the library's publish sends it as one request
 * that the service runs as one transaction: it finds the caller's launcher
 * entry, optionally deletes the caller's previous sections (their tiles go
 * with them), inserts each section under the entry and its tiles under the
 * section, and ends with the sync end mark. All of it is stored, or nothing
 * is; each step goes through the service's confinement as the caller.
 */
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <tilvane_publisher.h>

#include "Commands.h"
#include "DataRequests.h"
#include "Json.h"
#include "client/typed_rows.h"

namespace tilvanectl {
namespace {

namespace client = tilvane::client;
namespace typed = tilvane::host::typed;
namespace schema = tilvane::client::schema;

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

/* Sets the row's fields from the scalar members of `object`; false (with
 * `error`) when a member other than `skip` is no writable column of the
 * table, or its value is no value of that column. */
template <typename Row>
bool FillRow(const JsonValue& object, const char* skip, const char* table,
             const std::vector<typed::Field<Row>>& fields, Row& row, std::string& error)
{
    for (const auto& member : object.members) {
        if (member.first == skip) {
            continue;
        }
        const typed::Field<Row>* field = typed::FieldOfName(fields, member.first);
        if (member.first == schema::sections::kEntryRowId || member.first == schema::tiles::kSectionRowId) {
            error = "\"" + member.first + "\" is set by publish itself";
        } else if (field == nullptr) {
            error = "\"" + member.first + "\" is not a column of " + table + " that an application writes";
        } else if (!member.second.IsScalar()) {
            error = "the value of \"" + member.first + "\" is neither a string nor a number";
        } else if (!typed::SetFromText(row, *field, member.second.text)) {
            error = "\"" + member.second.text + "\" is not a value of \"" + member.first + "\"";
        }
        if (!error.empty()) {
            return false;
        }
    }
    return true;
}

bool ReadTiles(const JsonValue& item, const std::string& where, client::Section& section, std::string& error)
{
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
        if (!FillRow(tile, "", schema::tiles::kTable, typed::TileFields(), section.AddTile(), error)) {
            error = tileWhere + error;
            return false;
        }
    }
    return true;
}

bool ReadSections(const JsonValue& list, client::Content& content, std::string& error)
{
    for (size_t i = 0; i < list.items.size(); ++i) {
        const JsonValue& item = list.items[i];
        const std::string where = "section " + std::to_string(i + 1) + ": ";
        if (item.type != JsonValue::Type::Object) {
            error = where + "expected an object";
            return false;
        }
        client::Section& section = content.AddSection();
        if (!FillRow(item, "tiles", schema::sections::kTable, typed::SectionFields(), section, error)) {
            error = where + error;
            return false;
        }
        if (!ReadTiles(item, where, section, error)) {
            return false;
        }
    }
    return true;
}

bool ReadPublishFile(const std::string& path, client::Content& content, std::string& error)
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
    return ReadSections(*list, content, error);
}

void PrintPublished(const client::Content& content, const client::Receipt& receipt, bool replace)
{
    std::cout << "launcher entry " << receipt.entryRowId << "\n";
    if (replace) {
        std::cout << "removed " << CountOf(receipt.removedSections, "previous section", "previous sections")
                  << " and their tiles\n";
    }
    size_t tiles = 0;
    for (size_t i = 0; i < content.sections.size(); ++i) {
        const client::Section& section = content.sections[i];
        std::cout << "section " << receipt.sectionRowIds[i] << " \"" << section.title << "\": "
                  << CountOf(static_cast<long long>(section.tiles.size()), "tile", "tiles") << "\n";
        tiles += section.tiles.size();
    }
    std::cout << "published " << CountOf(static_cast<long long>(content.sections.size()), "section", "sections")
              << " and " << CountOf(static_cast<long long>(tiles), "tile", "tiles") << "; sync end mark sent\n";
}

int Publish(const std::string& path, bool replace)
{
    client::Content content;
    std::string error;
    if (!ReadPublishFile(path, content, error)) {
        return Invalid(path, error);
    }
    const client::Publisher publisher(std::string(), DefaultProviderId());
    const auto published =
        publisher.Publish(content, replace ? client::PublishMode::Replace : client::PublishMode::Append);
    if (!published) {
        const client::Status& status = published.status();
        std::cerr << "tilvanectl publish: " << client::ErrorName(status.code) << ": " << status.reason
                  << "; nothing was published\n";
        return EXIT_FAILED;
    }
    PrintPublished(content, *published, replace);
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
                 "application's launcher entry, inserts each section under it and the section's\n"
                 "tiles under the section, sends the sync end mark and prints what it published.\n"
                 "It is one request that the service runs as one transaction: all of it is\n"
                 "stored, or nothing is and the previous content stays as it was. The application\n"
                 "must support the launcher (use.preview or use.accelerator metadata).\n"
                 "\n"
                 "Options:\n"
                 "  --replace   the file's sections take the place of every section (and tile) this\n"
                 "              application published before, in the same transaction\n"
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
