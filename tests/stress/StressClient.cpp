/*
 * A client application for the robustness tests: makes requests to the
 * service through the content library's interface (tilvane_client.h) and writes
 * one line per request that the service answered with success ("ack ...") or
 * not ("fail ..."), flushed at once, so that a test can compare what was
 * acknowledged with what the database holds.
 *
 *   tilvane_stress_client bulk SECTION PREFIX COUNT ROWS OUTPUT
 *       COUNT bulk inserts of ROWS tiles; every tile of bulk i has the title
 *       PREFIX-i (its marker). Lines: "ack PREFIX-i" / "fail PREFIX-i CODE".
 *       Stops early when OUTPUT.stop exists.
 *   tilvane_stress_client mixed PREFIX COUNT SEED OUTPUT
 *       makes its own section, then COUNT requests chosen at random (seeded):
 *       single inserts, bulk inserts, updates, selects and deletes of its own
 *       tiles. Lines: "ins TILE", "del TILE" for acknowledged writes; a select
 *       that misses an acknowledged tile writes "missing TILE". The first
 *       line is "section ID".
 *   tilvane_stress_client oversized SECTION SERVICE_APP OUTPUT
 *       requests beyond the decoding limits, one line each with the outcome:
 *       "keys <outcome>" (an insert of 80,000 keys), "rows <outcome>" (a bulk of
 *       4,097 rows), "bytes <outcome>" (a bulk of 17 MB of text), "port <code>" (a
 *       message of 80,000 keys to the service's "accelerator_port"), then
 *       "after <outcome>" for an ordinary insert.
 *
 * The application id, platform root and bus come from the environment.
 */
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <bundle.h>
#include <message_port.h>
#include <tilvane_client.h>

namespace {

using namespace tilvane::client;

const char kAccelerators[] = "content://com.quillon.px.tiles/accelerators";
const char kSections[] = "content://com.quillon.px.tiles/sections";
const char kTiles[] = "content://com.quillon.px.tiles/tiles";

FILE* gOut = nullptr;

void Line(const std::string& text)
{
    std::fprintf(gOut, "%s\n", text.c_str());
    std::fflush(gOut);
}

int Bulk(const std::string& section, const std::string& prefix, int count, int rows, const std::string& output)
{
    ContentClient client;
    const std::string stop = output + ".stop";
    for (int i = 0; i < count && access(stop.c_str(), F_OK) != 0; ++i) {
        const std::string marker = prefix + "-" + std::to_string(i);
        std::vector<Values> bulk;
        for (int r = 0; r < rows; ++r) {
            bulk.push_back({{"tile_id", marker + "-" + std::to_string(r)},
                            {"tile_section_raw_id", section},
                            {"tile_title", marker}});
        }
        const Result result = client.BulkInsert(kTiles, bulk);
        if (result.Ok()) {
            Line("ack " + marker);
        } else {
            Line("fail " + marker + " " + tilvane::client::Describe(result));
            usleep(20000); /* the service may be starting again */
        }
    }
    return 0;
}

/* The first cell of each row, as text. */
std::vector<std::string> FirstColumn(const Result& result)
{
    std::vector<std::string> values;
    for (const auto& row : result.rows.rows) {
        if (row.empty()) {
            continue;
        }
        const tilvane::client::Cell& cell = row[0];
        values.push_back(cell.type == tilvane::client::Cell::Type::Integer ? std::to_string(cell.integer) : cell.text);
    }
    return values;
}

int Mixed(const std::string& prefix, int count, unsigned seed)
{
    ContentClient client;
    /* The first request makes the application's launcher entry. */
    Result accelerators = client.Select(kAccelerators, {"_id"}, "", {}, "", "");
    std::vector<std::string> ids = FirstColumn(accelerators);
    if (!accelerators.Ok() || ids.empty()) {
        Line("error no accelerator: " + tilvane::client::Describe(accelerators));
        return 1;
    }
    Result section = client.Insert(kSections, {{"section_id", prefix + "-section"},
                                               {"section_accelerator_raw_id", ids[0]}});
    if (!section.Ok()) {
        Line("error no section: " + tilvane::client::Describe(section));
        return 1;
    }
    const std::string sectionId = std::to_string(section.rowId);
    Line("section " + sectionId);
    std::mt19937 random(seed);
    std::vector<std::string> live; /* acknowledged and not deleted */
    std::set<std::string> deleted;
    int next = 0;
    for (int n = 0; n < count; ++n) {
        const unsigned kind = random() % 5;
        if (kind == 0 || live.empty()) {
            const std::string tile = prefix + "-" + std::to_string(next++);
            if (client.Insert(kTiles, {{"tile_id", tile}, {"tile_section_raw_id", sectionId}}).Ok()) {
                live.push_back(tile);
                Line("ins " + tile);
            }
        } else if (kind == 1) {
            std::vector<Values> rows;
            std::vector<std::string> tiles;
            for (int r = 0; r < 3; ++r) {
                tiles.push_back(prefix + "-" + std::to_string(next++));
                rows.push_back({{"tile_id", tiles.back()}, {"tile_section_raw_id", sectionId}});
            }
            if (client.BulkInsert(kTiles, rows).Ok()) {
                for (const std::string& tile : tiles) {
                    live.push_back(tile);
                    Line("ins " + tile);
                }
            }
        } else if (kind == 2) {
            const std::string& tile = live[random() % live.size()];
            client.Update(kTiles, {{"tile_title", "t" + std::to_string(n)}}, "tile_id = ?", {tile});
        } else if (kind == 3) {
            Result read = client.Select(kTiles, {"tile_id"}, "tile_section_raw_id = ?", {sectionId}, "", "");
            if (read.Ok()) {
                const std::vector<std::string> found = FirstColumn(read);
                const std::set<std::string> present(found.begin(), found.end());
                for (const std::string& tile : live) {
                    if (present.count(tile) == 0) {
                        Line("missing " + tile);
                    }
                }
            }
        } else {
            const size_t at = random() % live.size();
            const std::string tile = live[at];
            if (client.Delete(kTiles, "tile_id = ?", {tile}).Ok()) {
                live.erase(live.begin() + static_cast<std::ptrdiff_t>(at));
                Line("del " + tile);
            }
        }
    }
    Line("done");
    return 0;
}

int Oversized(const std::string& section, const std::string& serviceApp)
{
    ContentClient client;
    Values many;
    for (int i = 0; i < 80000; ++i) {
        many.emplace_back("k" + std::to_string(i), "v");
    }
    Line("keys " + tilvane::client::Describe(client.Insert(kTiles, many)));
    std::vector<Values> rows(4097, Values{{"tile_id", "r"}, {"tile_section_raw_id", section}});
    Line("rows " + tilvane::client::Describe(client.BulkInsert(kTiles, rows)));
    std::vector<Values> big(17, Values{{"tile_id", "b"}, {"tile_title", std::string(1000 * 1000, 'x')}});
    Line("bytes " + tilvane::client::Describe(client.BulkInsert(kTiles, big)));
    bundle* message = bundle_create();
    for (int i = 0; i < 80000; ++i) {
        bundle_add_str(message, ("k" + std::to_string(i)).c_str(), "v");
    }
    Line("port " + std::to_string(message_port_send_message(serviceApp.c_str(), "accelerator_port", message)));
    bundle_free(message);
    Line("after " + tilvane::client::Describe(
                        client.Insert(kTiles, {{"tile_id", "after"}, {"tile_section_raw_id", section}})));
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 6 && args[0] == "bulk") {
        gOut = std::fopen(args[5].c_str(), "a");
        return gOut != nullptr ? Bulk(args[1], args[2], std::atoi(args[3].c_str()), std::atoi(args[4].c_str()), args[5])
                               : 2;
    }
    if (args.size() == 5 && args[0] == "mixed") {
        gOut = std::fopen(args[4].c_str(), "a");
        return gOut != nullptr ? Mixed(args[1], std::atoi(args[2].c_str()),
                                       static_cast<unsigned>(std::strtoul(args[3].c_str(), nullptr, 10)))
                               : 2;
    }
    if (args.size() == 4 && args[0] == "oversized") {
        gOut = std::fopen(args[3].c_str(), "a");
        return gOut != nullptr ? Oversized(args[1], args[2]) : 2;
    }
    std::fprintf(stderr, "usage: tilvane_stress_client bulk SECTION PREFIX COUNT ROWS OUTPUT | "
                         "mixed PREFIX COUNT SEED OUTPUT\n");
    return 2;
}
