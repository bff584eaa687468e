/*
 * tilvanectl's command groups. Each group gets the words after its name,
 * prints what it did to standard output and every failure, with its meaning,
 * to standard error, and returns the process exit code.
 */
#ifndef TILVANECTL_COMMANDS_H
#define TILVANECTL_COMMANDS_H

#include <string>
#include <vector>

namespace tilvanectl {

/* Exit codes shared by every command. */
enum ExitCode
{
    EXIT_OK = 0,
    EXIT_FAILED = 1, /* the request was made and refused or failed */
    EXIT_USAGE = 2   /* the command line is wrong */
};

struct CommandGroup
{
    const char* name;
    const char* summary;
    int (*run)(const std::vector<std::string>& args);
    void (*printHelp)();
    /* The group does something without a command (tilvanectl stats). */
    bool runsWithoutCommand = false;
};

/* The groups, in the order `tilvanectl --help` lists them. */
const std::vector<CommandGroup>& CommandGroups();

}  // namespace tilvanectl

#endif
