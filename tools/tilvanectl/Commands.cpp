#include "Commands.h"

namespace tilvanectl {

/* Each group's entry points live in the group's own source. */
int RunAppCommand(const std::vector<std::string>& args);
void PrintAppHelp();
int RunEventsCommand(const std::vector<std::string>& args);
void PrintEventsHelp();
int RunDataCommand(const std::vector<std::string>& args);
void PrintDataHelp();
int RunPublishCommand(const std::vector<std::string>& args);
void PrintPublishHelp();

int RunAcceleratorCommand(const std::vector<std::string>& args);
void PrintAcceleratorHelp();
int RunLauncherCommand(const std::vector<std::string>& args);
void PrintLauncherHelp();
int RunKeyCommand(const std::vector<std::string>& args);
void PrintKeyHelp();
int RunPowerOffCommand(const std::vector<std::string>& args);
void PrintPowerOffHelp();
int RunSystemInfoCommand(const std::vector<std::string>& args);
void PrintSystemInfoHelp();
int RunStatsCommand(const std::vector<std::string>& args);
void PrintStatsHelp();
int RunDbCommand(const std::vector<std::string>& args);
void PrintDbHelp();

const std::vector<CommandGroup>& CommandGroups()
{
    static const std::vector<CommandGroup> groups = {
        {"app", "install, remove and list applications in the platform's registry", RunAppCommand, PrintAppHelp},
        {"events", "subscribe to preview events, unsubscribe, trigger a test event", RunEventsCommand,
         PrintEventsHelp},
        {"data", "insert, select, update, delete and look up rows through either request interface",
         RunDataCommand, PrintDataHelp},
        {"publish", "publish this application's sections and tiles from a JSON file", RunPublishCommand,
         PrintPublishHelp},
        {"accelerator", "ask the service to add or remove a launcher entry", RunAcceleratorCommand,
         PrintAcceleratorHelp},
        {"launcher", "report a launcher visibility change", RunLauncherCommand, PrintLauncherHelp},
        {"key", "set, read or remove an integer configuration key", RunKeyCommand, PrintKeyHelp},
        {"power-off", "announce a power-off of a type", RunPowerOffCommand, PrintPowerOffHelp},
        {"system-info", "set a boolean system-information value", RunSystemInfoCommand, PrintSystemInfoHelp},
        {"stats", "the running service's statistics (platform users); reset them", RunStatsCommand, PrintStatsHelp,
         true},
        {"db", "back up, restore and check the service's database (platform users)", RunDbCommand, PrintDbHelp},
    };
    return groups;
}

}  // namespace tilvanectl
