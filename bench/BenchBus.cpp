#include "BenchBus.h"

#include <fcntl.h>
#include <glib.h>
#include <message_port.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace {

pid_t g_busPid = -1;

void StopBus()
{
    if (g_busPid > 0) {
        kill(g_busPid, SIGTERM);
        waitpid(g_busPid, nullptr, 0);
        g_busPid = -1;
    }
}

bool StartPrivateBus()
{
    int fds[2];
    if (pipe(fds) != 0) {
        return false;
    }
    g_busPid = fork();
    if (g_busPid == 0) {
        close(fds[0]);
        std::string printAddress = "--print-address=" + std::to_string(fds[1]);
        execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", printAddress.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string address;
    char c = 0;
    while (read(fds[0], &c, 1) == 1 && c != '\n') {
        address.push_back(c);
    }
    close(fds[0]);
    if (g_busPid < 0 || address.empty()) {
        std::fprintf(stderr, "benchmarks: cannot start dbus-daemon\n");
        return false;
    }
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    std::atexit(StopBus);
    return true;
}

}  // namespace

bool EnsureBenchBus()
{
    static const bool ready = [] {
        const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        return (address != nullptr && *address != '\0') || StartPrivateBus();
    }();
    return ready;
}

namespace {

std::vector<void (*)()>& BenchServiceStoppers()
{
    static std::vector<void (*)()> stoppers;
    return stoppers;
}

}  // namespace

void RegisterBenchService(void (*stop)())
{
    BenchServiceStoppers().push_back(stop);
}

void StopBenchServices()
{
    std::vector<void (*)()> stoppers;
    stoppers.swap(BenchServiceStoppers());
    for (void (*stop)() : stoppers) {
        stop();
    }
}

bool WaitForBenchService(const char* appId, const char* port)
{
    for (int attempt = 0; attempt < 300; ++attempt) {
        bool exist = false;
        if (message_port_check_remote_port(appId, port, &exist) == 0 && exist) {
            return true;
        }
        g_usleep(100000);
    }
    return false;
}

void StopBenchServiceAndRemove(pid_t& pid, std::string& root)
{
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    if (!root.empty()) {
        const std::string command = "rm -rf '" + root + "'";
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "cannot remove %s\n", root.c_str());
        }
        root.clear();
    }
}

/* Starts `argv` with the environment given on top of this process's; its
 * standard error goes to `errPath`. */
pid_t SpawnBenchProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extra, const std::string& errPath)
{
    /* The extra entries replace this process's entries of the same name. */
    std::vector<std::string> environment = extra;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        bool replaced = false;
        for (const std::string& own : extra) {
            replaced = replaced || entry.compare(0, own.find('=') + 1, own, 0, own.find('=') + 1) == 0;
        }
        if (!replaced) {
            environment.push_back(entry);
        }
    }
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(&entry[0]);
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (std::string& arg : args) {
        argp.push_back(&arg[0]);
    }
    argp.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execve(argp[0], argp.data(), envp.data());
        _exit(127);
    }
    return pid;
}
