#include "MultiUserBus.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

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
    "</busconfig>\n";

}  // namespace

MultiUserBus::MultiUserBus(const std::string& configFile)
{
    const char* previous = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    m_hadAddress = previous != nullptr;
    m_previousAddress = previous != nullptr ? previous : "";
    chmod(m_dir.Path().c_str(), 0755);
    std::string config = configFile;
    if (config.empty()) {
        config = m_dir.File("bus.conf");
    }
    const std::string listen = "unix:path=" + m_dir.File("bus");
    if (configFile.empty()) {
        std::string text = kOpenConfig;
        text.replace(text.find("@LISTEN@"), 8, listen);
        WriteFile(config, text);
    }
    int fds[2];
    if (pipe(fds) != 0) {
        return;
    }
    const std::string configArg = "--config-file=" + config;
    const std::string addressArg = "--address=" + listen;
    const std::string printAddress = "--print-address=" + std::to_string(fds[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), addressArg.c_str(), "--nofork", "--nopidfile",
               printAddress.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return;
    }
    m_pid = pid;
    std::string address;
    char c = 0;
    while (read(fds[0], &c, 1) == 1 && c != '\n') {
        address.push_back(c);
    }
    close(fds[0]);
    if (address.empty()) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        return;
    }
    m_address = address;
    setenv("DBUS_SESSION_BUS_ADDRESS", m_address.c_str(), 1);
}

MultiUserBus::~MultiUserBus()
{
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_hadAddress) {
        setenv("DBUS_SESSION_BUS_ADDRESS", m_previousAddress.c_str(), 1);
    } else {
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
}

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

}  // namespace test
}  // namespace tilvane
