#include "MultiUserBus.h"

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "TestProcess.h"

namespace tilvane {
namespace test {
namespace {

const char kOpenConfig[] =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <type>session</type>\n"
    "  <listen>@LISTEN@</listen>\n"
    "  <auth>EXTERNAL</auth>\n"
    "  <policy context=\"default\">\n"
    "    <allow user=\"*\"/>\n"
    "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "    <allow eavesdrop=\"true\"/>\n"
    "    <allow receive_sender=\"*\"/>\n"
    "    <allow own=\"*\"/>\n"
    "  </policy>\n"
    "  <limit name=\"max_message_size\">33554432</limit>\n"
    "</busconfig>\n";

/* The daemon's options: `configFile`, or an open configuration written into
 * `dir`, listening on a socket in `dir`, which everyone may reach. */
std::vector<std::string> MultiUserDaemonOptions(const TempDir& dir, const std::string& configFile)
{
    chmod(dir.Path().c_str(), 0755);
    const std::string listen = "unix:path=" + dir.File("bus");
    std::string config = configFile;
    if (config.empty()) {
        config = dir.File("bus.conf");
        std::string text = kOpenConfig;
        text.replace(text.find("@LISTEN@"), 8, listen);
        WriteFile(config, text);
    }
    return {"--config-file=" + config, "--address=" + listen};
}

}  // namespace

MultiUserBus::MultiUserBus(const std::string& configFile) : m_bus(MultiUserDaemonOptions(m_dir, configFile))
{
}

MultiUserBus::~MultiUserBus() = default;

bool CanSwitchUsers()
{
    return geteuid() == 0 && access("/usr/bin/setpriv", X_OK) == 0;
}

std::vector<std::string> AsUser(unsigned uid, const std::vector<std::string>& argv)
{
    std::vector<std::string> command = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                                        "--regid=" + std::to_string(uid), "--clear-groups"};
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

int UserIdOf(const char* name)
{
    struct passwd* entry = getpwnam(name);
    return entry != nullptr ? static_cast<int>(entry->pw_uid) : -1;
}

RunResult RunAs(const TempDir& logs, int uid, const std::vector<std::string>& argv,
                const std::vector<std::string>& environment)
{
    static int runs = 0;
    const std::string name = "run-" + std::to_string(++runs);
    Process process(uid >= 0 ? AsUser(static_cast<unsigned>(uid), argv) : argv, environment,
                    logs.File(name + ".out"), logs.File(name + ".err"));
    const int status = process.Wait(30000);
    return {status, process.Out(), process.Err()};
}

}  // namespace test
}  // namespace tilvane
