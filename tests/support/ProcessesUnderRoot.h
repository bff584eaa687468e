/*
 * A test that runs the service and its tools as processes of their own,
 * under a development platform root of its own and on a private bus. Each
 * process's output goes to the test's log folder as NAME.out and NAME.err.
 */
#ifndef TILVANE_TEST_PROCESSES_UNDER_ROOT_H
#define TILVANE_TEST_PROCESSES_UNDER_ROOT_H

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "TestProcess.h"
#include "TestSupport.h"

namespace tilvane {
namespace test {

class ProcessesUnderRootTest : public ::testing::Test
{
protected:
    /* Starts `args` under the root, with `environment` on top of its path;
     * it runs until the test ends it or ends itself. */
    Process* Start(const std::vector<std::string>& args, const std::string& name,
                   const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + m_root.Path()};
        env.insert(env.end(), environment.begin(), environment.end());
        m_processes.emplace_back(new Process(args, env, m_logs.File(name + ".out"), m_logs.File(name + ".err")));
        return m_processes.back().get();
    }

    /* Ends every process started, in order: SIGTERM, then up to 20 s each. */
    void StopAll()
    {
        for (auto& process : m_processes) {
            process->Signal(SIGTERM);
            process->Wait(20000);
        }
    }

    PrivateBus m_bus;
    DevelopmentRoot m_root;
    TempDir m_logs;
    std::vector<std::unique_ptr<Process>> m_processes;
};

}  // namespace test
}  // namespace tilvane

#endif
