/*
 * tilvanectl: the command-line client of Tilvane.
 *
 *   tilvanectl [--app-id ID] GROUP COMMAND [ARGS...]
 *
 * --app-id chooses the application id the tool runs as (TILVANE_APP_ID
 * otherwise); the host platform derives the tool's identity on the bus from it.
 *
 * Every option may be written "--name value" or "--name=value"; "--help" (or
 * "-h") anywhere after the group prints the group's help and does nothing else.
 */
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <tilvane_version.h>

#include "Commands.h"
#include "TextWidth.h"

namespace {

void PrintUsage(FILE* out)
{
    std::fprintf(out,
        "Usage: tilvanectl [--app-id ID] GROUP COMMAND [ARGS...]\n"
        "       tilvanectl GROUP --help\n"
        "\n"
        "Options:\n"
        "  --app-id ID   run as application ID (default: $TILVANE_APP_ID, else \"tilvanectl\", one of the\n"
        "                platform's own ids: in the verified identity mode it counts only when a platform\n"
        "                user runs the tool; an application's user names its application's id)\n"
        "  --version     print the version\n"
        "  --help        show this text\n"
        "\n"
        "Groups:\n");
    size_t width = 0;
    for (const tilvanectl::CommandGroup& group : tilvanectl::CommandGroups()) {
        width = std::max(width, tilvanectl::DisplayWidth(group.name));
    }
    for (const tilvanectl::CommandGroup& group : tilvanectl::CommandGroups()) {
        std::fprintf(out, "  %s  %s\n", tilvanectl::PadToWidth(group.name, width).c_str(), group.summary);
    }
    std::fprintf(out,
        "\n"
        "Options take their value as the next word or after '=' (--where=W).\n"
        "Environment: TILVANE_PLATFORM_ROOT (platform data folder), TILVANE_LOG_LEVEL (default W here).\n"
        "Exit codes: 0 done, 1 refused or failed, 2 wrong command line.\n");
}

/* Runs a help printer that writes to standard output with its text going to
 * standard error instead: help that follows a mistake is part of the error. */
void PrintToStandardError(void (*printHelp)())
{
    std::fflush(stdout);
    std::cout.flush();
    const int saved = dup(STDOUT_FILENO);
    if (saved < 0) {
        printHelp();
        return;
    }
    dup2(STDERR_FILENO, STDOUT_FILENO);
    printHelp();
    std::fflush(stdout);
    std::cout.flush();
    dup2(saved, STDOUT_FILENO);
    close(saved);
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

bool IsHelpWord(const std::string& word)
{
    return word == "--help" || word == "-h";
}

/* "--name=value" becomes "--name" "value"; every other word stays. */
std::vector<std::string> SplitOptionValues(const std::vector<std::string>& words)
{
    std::vector<std::string> split;
    for (const std::string& word : words) {
        const size_t equals = word.find('=');
        if (word.compare(0, 2, "--") == 0 && equals != std::string::npos && equals > 2) {
            split.push_back(word.substr(0, equals));
            split.push_back(word.substr(equals + 1));
        } else {
            split.push_back(word);
        }
    }
    return split;
}

}  // namespace

int main(int argc, char** argv)
{
    // The tool prints its own results; platform log lines only when asked for.
    setenv("TILVANE_LOG_LEVEL", "W", 0);

    const std::vector<std::string> words = SplitOptionValues(std::vector<std::string>(argv + 1, argv + argc));
    size_t next = 0;
    while (next < words.size() && words[next].rfind("-", 0) == 0) {
        if (IsHelpWord(words[next])) {
            PrintUsage(stdout);
            return tilvanectl::EXIT_OK;
        }
        if (words[next] == "--version") {
            std::printf("tilvanectl %s\n", TILVANE_VERSION);
            return tilvanectl::EXIT_OK;
        }
        if (words[next] == "--app-id" && next + 1 < words.size() && !words[next + 1].empty()) {
            setenv("TILVANE_APP_ID", words[next + 1].c_str(), 1);
            next += 2;
            continue;
        }
        std::fprintf(stderr, "tilvanectl: unknown or incomplete option '%s'\n\n", words[next].c_str());
        PrintUsage(stderr);
        return tilvanectl::EXIT_USAGE;
    }
    if (std::getenv("TILVANE_APP_ID") == nullptr) {
        setenv("TILVANE_APP_ID", "tilvanectl", 1);
    }

    if (next >= words.size()) {
        PrintUsage(stderr);
        return tilvanectl::EXIT_USAGE;
    }
    const tilvanectl::CommandGroup* group = FindGroup(words[next]);
    if (group == nullptr) {
        std::fprintf(stderr, "tilvanectl: unknown group '%s'\n\n", words[next].c_str());
        PrintUsage(stderr);
        return tilvanectl::EXIT_USAGE;
    }
    std::vector<std::string> args(words.begin() + static_cast<long>(next) + 1, words.end());
    for (const std::string& word : args) {
        if (IsHelpWord(word)) {
            group->printHelp();
            return tilvanectl::EXIT_OK;
        }
    }
    if ((args.empty() && !group->runsWithoutCommand) || (args.size() == 1 && args[0] == "help")) {
        if (args.empty()) {
            PrintToStandardError(group->printHelp);
            return tilvanectl::EXIT_USAGE;
        }
        group->printHelp();
        return tilvanectl::EXIT_OK;
    }
    return group->run(args);
}
