/*
 * tilvanectl stats and tilvanectl db: the running service's statistics, and
 * the backup, restore and check of its tiles database, through the service's
 * operator interface (platform users only; docs/tools.md).
 *
 *   tilvanectl stats [--json]      requests, refusals by reason, budget hits and
 *                                  latencies per request kind; messages sent and
 *                                  dropped; subscribers
 *   tilvanectl stats reset         every counter back to zero
 *   tilvanectl db backup FILE      a copy of the database as it is at one moment
 *   tilvanectl db restore FILE     the copy's content in place of the database's,
 *                                  once the service has verified it
 *   tilvanectl db check            integrity, foreign keys, the launcher list
 *                                  against the application registry
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "Commands.h"
#include "Json.h"
#include "TextWidth.h"
#include "admin/admin_client.h"

namespace tilvanectl {
namespace {

namespace admin = tilvane::host::admin;

int Failed(const std::string& command, const admin::AdminAnswer& answer)
{
    std::fprintf(stderr, "tilvanectl %s: %s%s\n", command.c_str(), answer.refused ? "refused: " : "",
                 answer.error.c_str());
    return EXIT_FAILED;
}

/* ---- stats --------------------------------------------------------------- */

double Number(const JsonValue* value)
{
    return value != nullptr && value->type == JsonValue::Type::Number ? std::strtod(value->text.c_str(), nullptr) : 0;
}

std::string Count(const JsonValue& object, const char* name)
{
    const JsonValue* value = object.Member(name);
    return value != nullptr ? value->text : "0";
}

std::string Text(const JsonValue& object, const char* name)
{
    const JsonValue* value = object.Member(name);
    return value != nullptr ? value->text : "";
}

/* "reason 3, other 1" of an object of counts; "-" when empty. */
std::string Counts(const JsonValue* object)
{
    std::string text;
    for (size_t i = 0; object != nullptr && i < object->members.size(); ++i) {
        text += (text.empty() ? "" : ", ") + object->members[i].first + " " + object->members[i].second.text;
    }
    return text.empty() ? "-" : text;
}

std::string Milliseconds(double us)
{
    char text[32];
    std::snprintf(text, sizeof text, us < 10000 ? "%.2f" : "%.0f", us / 1000.0);
    return text;
}

/* Mean, the bound under which 99 % fall, and the longest, of a histogram. */
std::string Latency(const JsonValue* histogram, const JsonValue* bounds)
{
    const double count = histogram != nullptr ? Number(histogram->Member("count")) : 0;
    if (count == 0) {
        return "-";
    }
    const JsonValue* buckets = histogram->Member("buckets");
    double seen = 0;
    std::string p99 = ">" + Milliseconds(Number(&bounds->items.back()));
    for (size_t i = 0; buckets != nullptr && i < buckets->items.size() && i < bounds->items.size(); ++i) {
        seen += Number(&buckets->items[i]);
        if (seen >= 0.99 * count) {
            p99 = "<=" + Milliseconds(Number(&bounds->items[i]));
            break;
        }
    }
    return Milliseconds(Number(histogram->Member("sum")) / count) + " / " + p99 + " / " +
           Milliseconds(Number(histogram->Member("max")));
}

std::string SinceText(const JsonValue& stats)
{
    const time_t since = static_cast<time_t>(Number(stats.Member("since_us")) / 1e6);
    struct tm local;
    localtime_r(&since, &local);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

void PrintStatistics(const JsonValue& stats)
{
    const JsonValue* enabled = stats.Member("enabled");
    const JsonValue* messages = stats.Member("messages");
    std::printf("since %s%s; subscribers %s\n", SinceText(stats).c_str(),
                enabled != nullptr && enabled->boolean ? "" : " (statistics are switched off: [stats] enabled)",
                Count(stats, "subscribers").c_str());
    if (messages != nullptr) {
        std::printf("messages sent %s, dropped %s (%s)\n", Count(*messages, "sent").c_str(),
                    Count(*messages, "dropped").c_str(), Counts(messages->Member("dropped_by")).c_str());
    }
    const JsonValue* bounds = stats.Member("latency_bounds_us");
    const JsonValue* requests = stats.Member("requests");
    if (requests == nullptr || requests->items.empty() || bounds == nullptr || bounds->items.empty()) {
        std::printf("no requests\n");
        return;
    }
    std::vector<std::vector<std::string>> rows;
    for (const JsonValue& kind : requests->items) {
        rows.push_back({Text(kind, "interface"), Text(kind, "kind"), Count(kind, "requests"), Count(kind, "answered"),
                        Counts(kind.Member("refused")), Counts(kind.Member("budget_hits")),
                        Latency(kind.Member("statement_us"), bounds), Latency(kind.Member("end_to_end_us"), bounds)});
    }
    std::printf("\n%s", FormatTable({"INTERFACE", "KIND", "REQUESTS", "ANSWERED", "REFUSED", "BUDGET HITS",
                                      "STATEMENT MS (MEAN / P99 / MAX)", "END TO END MS (MEAN / P99 / MAX)"},
                                     rows)
                             .c_str());
}

int Stats(const std::vector<std::string>& args)
{
    if (args.size() == 1 && args[0] == "reset") {
        const admin::AdminAnswer answer = admin::ResetStatistics();
        if (!answer.ok) {
            return Failed("stats reset", answer);
        }
        std::printf("statistics reset\n");
        return EXIT_OK;
    }
    const bool json = args.size() == 1 && args[0] == "--json";
    if (!args.empty() && !json) {
        std::fprintf(stderr, "tilvanectl stats: takes --json or reset (see tilvanectl stats --help)\n");
        return EXIT_USAGE;
    }
    const admin::AdminAnswer answer = admin::GetStatistics();
    if (!answer.ok) {
        return Failed("stats", answer);
    }
    JsonValue stats;
    std::string error;
    if (json || !ParseJson(answer.text, stats, error)) {
        std::fputs(answer.text.c_str(), stdout);
        return EXIT_OK;
    }
    PrintStatistics(stats);
    return EXIT_OK;
}

/* ---- db ------------------------------------------------------------------ */

/* The copy goes to a new file beside FILE, renamed to FILE once it is whole:
 * a failed backup leaves no half copy, and an older FILE as it was. */
int Backup(const std::string& file)
{
    std::string partial = file + ".partial-XXXXXX";
    const int fd = mkstemp(&partial[0]);
    if (fd < 0) {
        std::fprintf(stderr, "tilvanectl db backup: %s cannot be written: %s\n", file.c_str(), std::strerror(errno));
        return EXIT_FAILED;
    }
    fchmod(fd, 0600); /* every package's content */
    const admin::AdminAnswer answer = admin::Backup(fd);
    const bool synced = fsync(fd) == 0;
    close(fd);
    if (!answer.ok || !synced || std::rename(partial.c_str(), file.c_str()) != 0) {
        const std::string why = answer.ok ? std::string(std::strerror(errno)) : std::string();
        unlink(partial.c_str());
        if (!answer.ok) {
            return Failed("db backup", answer);
        }
        std::fprintf(stderr, "tilvanectl db backup: %s cannot be written: %s\n", file.c_str(), why.c_str());
        return EXIT_FAILED;
    }
    std::printf("backup written to %s: %s\n", file.c_str(), answer.text.c_str());
    return EXIT_OK;
}

int Restore(const std::string& file)
{
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "tilvanectl db restore: %s cannot be read: %s; nothing was changed\n", file.c_str(),
                     std::strerror(errno));
        return EXIT_FAILED;
    }
    const admin::AdminAnswer answer = admin::Restore(fd);
    close(fd);
    if (!answer.ok) {
        std::fprintf(stderr, "tilvanectl db restore: %s%s; nothing was changed\n", answer.refused ? "refused: " : "",
                     answer.error.c_str());
        return EXIT_FAILED;
    }
    std::printf("restored from %s: %s\n", file.c_str(), answer.text.c_str());
    return EXIT_OK;
}

int Check()
{
    const admin::AdminAnswer answer = admin::Check();
    if (!answer.ok) {
        return Failed("db check", answer);
    }
    for (const std::string& finding : answer.findings) {
        std::printf("%s\n", finding.c_str());
    }
    std::printf("%s\n", answer.healthy ? "healthy" : "NOT healthy");
    return answer.healthy ? EXIT_OK : EXIT_FAILED;
}

}  // namespace

void PrintStatsHelp()
{
    std::printf(
        "Usage: tilvanectl stats [--json]\n"
        "       tilvanectl stats reset\n"
        "\n"
        "What the running service has done since it started or since the last reset, per\n"
        "request interface and kind: requests, answered, refused or failed by reason, budgets\n"
        "run past, and the time of its statements and from the call's arrival to its answer\n"
        "(milliseconds: mean, the bound 99 %% stay under, the longest); message-port messages\n"
        "sent and dropped, and the preview-event subscribers it watches.\n"
        "--json prints the service's own JSON (buckets of every histogram; docs/tools.md).\n"
        "reset sets every counter back to zero.\n"
        "Only platform users may ask (in the development identity mode also the service's user).\n");
}

int RunStatsCommand(const std::vector<std::string>& args)
{
    return Stats(args);
}

void PrintDbHelp()
{
    std::printf(
        "Usage: tilvanectl db backup FILE\n"
        "       tilvanectl db restore FILE\n"
        "       tilvanectl db check\n"
        "\n"
        "backup   writes a copy of the service's tiles database, as it is at one moment while the\n"
        "         service runs (SQLite's online backup), to FILE (mode 0600; written whole or not at all)\n"
        "restore  sends FILE to the service, which checks that it is a sound copy of a database of the\n"
        "         same schema and puts its content in place of the database's in one transaction;\n"
        "         otherwise it refuses with the reason and nothing is changed\n"
        "check    integrity and foreign keys of the database, and its launcher entries against the\n"
        "         application registry; exit code 1 when a problem is found\n"
        "Only platform users may use them (in the development identity mode also the service's user).\n");
}

int RunDbCommand(const std::vector<std::string>& args)
{
    if (args.size() == 2 && args[0] == "backup") {
        return Backup(args[1]);
    }
    if (args.size() == 2 && args[0] == "restore") {
        return Restore(args[1]);
    }
    if (args.size() == 1 && args[0] == "check") {
        return Check();
    }
    std::fprintf(stderr, "tilvanectl db: expected backup FILE, restore FILE or check (see tilvanectl db --help)\n");
    return EXIT_USAGE;
}

}  // namespace tilvanectl
