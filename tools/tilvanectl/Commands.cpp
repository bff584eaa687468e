#include "Commands.h"

namespace tilvanectl {

/* Each group's entry points live in the group's own source. */
int RunAppCommand(const std::vector<std::string>& args);
void PrintAppHelp();
int RunEventsCommand(const std::vector<std::string>& args);
void PrintEventsHelp();

const std::vector<CommandGroup>& CommandGroups()
{
    static const std::vector<CommandGroup> groups = {
        {"app", "install, remove and list applications in the platform's registry", RunAppCommand, PrintAppHelp},
        {"events", "subscribe to preview events, unsubscribe, trigger a test event", RunEventsCommand,
         PrintEventsHelp},
    };
    return groups;
}

}  // namespace tilvanectl
