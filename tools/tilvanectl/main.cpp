/*
 * tilvanectl: the command-line client of Tilvane.
 *
 *   tilvanectl [--app-id ID] GROUP COMMAND [ARGS...]
 *
 * --app-id chooses the application id the tool runs as (TILVANE_APP_ID
 * otherwise); the host platform derives the tool's identity on the bus from it.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Commands.h"

namespace {

void PrintUsage()
{
    std::printf(
        "Usage: tilvanectl [--app-id ID] GROUP COMMAND [ARGS...]\n"
        "       tilvanectl GROUP --help\n"
        "\n"
        "Options:\n"
        "  --app-id ID   run as application ID (default: $TILVANE_APP_ID, else \"tilvanectl\")\n"
        "  --help        show this text\n"
        "\n"
        "Groups:\n");
    for (const tilvanectl::CommandGroup& group : tilvanectl::CommandGroups()) {
        std::printf("  %-10s %s\n", group.name, group.summary);
    }
    std::printf(
        "\n"
        "Environment: TILVANE_PLATFORM_ROOT (platform data folder), TILVANE_LOG_LEVEL (default W here).\n"
        "Exit codes: 0 done, 1 refused or failed, 2 wrong command line.\n");
}

const tilvanectl::CommandGroup* FindGroup(const std::string& name)
{
    for (const tilvanectl::CommandGroup& group : tilvanectl::CommandGroups()) {
        if (name == group.name) {
            return &group;
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv)
{
    // The tool prints its own results; platform log lines only when asked for.
    setenv("TILVANE_LOG_LEVEL", "W", 0);

    std::vector<std::string> words(argv + 1, argv + argc);
    size_t next = 0;
    while (next < words.size() && words[next].rfind("--", 0) == 0) {
        if (words[next] == "--help") {
            PrintUsage();
            return tilvanectl::EXIT_OK;
        }
        if (words[next] == "--app-id" && next + 1 < words.size() && !words[next + 1].empty()) {
            setenv("TILVANE_APP_ID", words[next + 1].c_str(), 1);
            next += 2;
            continue;
        }
        std::fprintf(stderr, "tilvanectl: unknown or incomplete option '%s'\n", words[next].c_str());
        return tilvanectl::EXIT_USAGE;
    }
    if (std::getenv("TILVANE_APP_ID") == nullptr) {
        setenv("TILVANE_APP_ID", "tilvanectl", 1);
    }

    if (next >= words.size()) {
        PrintUsage();
        return tilvanectl::EXIT_USAGE;
    }
    const tilvanectl::CommandGroup* group = FindGroup(words[next]);
    if (group == nullptr) {
        std::fprintf(stderr, "tilvanectl: unknown group '%s' (see tilvanectl --help)\n", words[next].c_str());
        return tilvanectl::EXIT_USAGE;
    }
    std::vector<std::string> args(words.begin() + static_cast<long>(next) + 1, words.end());
    if (!args.empty() && (args[0] == "--help" || args[0] == "help")) {
        group->printHelp();
        return tilvanectl::EXIT_OK;
    }
    return group->run(args);
}
