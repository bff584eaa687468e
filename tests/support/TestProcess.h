/*
 * A program started by a test with extra environment, its standard output and
 * error going to files; shared by the tests that drive the real binaries.
 */
#ifndef TILVANE_TEST_PROCESS_H
#define TILVANE_TEST_PROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace tilvane {
namespace test {

inline std::string ReadAll(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/* A program started with extra environment, its output going to two files. */
class Process
{
public:
    Process(const std::vector<std::string>& args, const std::vector<std::string>& environment, const std::string& out,
            const std::string& err)
        : m_out(out), m_err(err)
    {
        /* Everything the child needs is prepared before fork: it only execs. */
        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) {
            env.emplace_back(*e);
        }
        env.insert(env.end(), environment.begin(), environment.end());
        std::vector<char*> argv;
        for (const std::string& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (const std::string& entry : env) {
            envp.push_back(const_cast<char*>(entry.c_str()));
        }
        envp.push_back(nullptr);

        m_pid = fork();
        if (m_pid == 0) {
            int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (outFd < 0 || errFd < 0) {
                _exit(126);
            }
            dup2(outFd, STDOUT_FILENO);
            dup2(errFd, STDERR_FILENO);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
    }

    ~Process()
    {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    std::string Out() const { return ReadAll(m_out); }
    std::string Err() const { return ReadAll(m_err); }

    /* Waits for `text` in the output (or error output), running the main
     * context meanwhile when `iterate`. */
    bool WaitFor(const std::string& text, bool inErr, int timeoutMs, bool iterate = false) const
    {
        auto found = [&] { return (inErr ? Err() : Out()).find(text) != std::string::npos; };
        if (iterate) {
            return IterateMainContextUntil(found, timeoutMs);
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!found()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    /* How often `text` stands in the output (or error output). */
    int Count(const std::string& text, bool inErr = true) const
    {
        const std::string output = inErr ? Err() : Out();
        int count = 0;
        for (size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    void Signal(int signal) const { kill(m_pid, signal); }
    pid_t Pid() const { return m_pid; }

    /* The exit code (128 + signal when killed), or -1 when it did not end in time. */
    int Wait(int timeoutMs, bool iterate = false)
    {
        int code = -1;
        auto ended = [&] {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) != m_pid) {
                return false;
            }
            m_reaped = true;
            code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        };
        if (iterate) {
            IterateMainContextUntil(ended, timeoutMs);
            return code;
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!ended()) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return code;
    }

private:
    std::string m_out;
    std::string m_err;
    pid_t m_pid = -1;
    bool m_reaped = false;
};

}  // namespace test
}  // namespace tilvane

#endif
