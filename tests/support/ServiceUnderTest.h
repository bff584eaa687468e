/*
 * The real service for an integration test: its platform root's
 * configuration written, the binary started with that root, its application
 * id and the log level D (its output in the test's log folder), and stopped
 * again with SIGTERM.
 */
#ifndef TILVANE_TEST_SERVICE_UNDER_TEST_H
#define TILVANE_TEST_SERVICE_UNDER_TEST_H

#include <gtest/gtest.h>
#include <host_control.h>
#include <signal.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "TestProcess.h"
#include "TestSupport.h"

namespace tilvane {
namespace test {

inline constexpr char kServiceAppId[] = "com.quillon.px.tilvane";

/* <root>/etc/tilvane.conf holds `text` and nothing else. */
inline void WriteConfiguration(const std::string& root, const std::string& text)
{
    std::filesystem::create_directories(root + "/etc");
    WriteFile(root + "/etc/tilvane.conf", text);
}

/* Starts the service under `root`, with `environment` on top of the usual. */
inline std::unique_ptr<Process> StartServiceUnderTest(const std::string& root, const TempDir& logs,
                                                      const std::vector<std::string>& environment = {})
{
    std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + root, "TILVANE_LOG_LEVEL=D",
                                    std::string("TILVANE_APP_ID=") + kServiceAppId};
    env.insert(env.end(), environment.begin(), environment.end());
    return std::make_unique<Process>(std::vector<std::string>{TILVANE_SERVICE_BINARY}, env,
                                     logs.File("service.out"), logs.File("service.err"));
}

/* Ends a service that still runs, in order (SIGTERM, up to 20 s): its exit
 * code is 0 (a sanitizer's report would make it another). */
inline void StopServiceUnderTest(std::unique_ptr<Process>& service)
{
    if (service) {
        service->Signal(SIGTERM);
        EXPECT_EQ(service->Wait(20000), 0) << service->Err().substr(0, 20000);
        service.reset();
    }
}

/* The service's pid, from its own log lines "...(PID): "; -1 before one. */
inline long ServicePid(const Process& service)
{
    const std::string log = service.Err();
    const std::string marker = "D/tilvane-platform(";
    const size_t at = log.find(marker);
    return at == std::string::npos ? -1 : std::stol(log.substr(at + marker.size()));
}

/* Resident memory of the process `pid` in bytes (/proc/PID/statm). */
inline long ResidentBytes(long pid)
{
    std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
    long size = 0;
    long resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

/* A test of the real service under a platform root of its own: the host
 * platform reset before and after, the service stopped after. A derived
 * fixture declares its bus, which is then made before anything connects. */
class ServiceUnderTestFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        host::Reset();
        /* Every process of these tests runs as one user: what the test
         * installs before it writes its configuration is installed in the
         * development mode too (the verified mode binds only users with an
         * account). */
        UseDevelopmentIdentities(m_root.Path());
        host::SetPlatformRoot(m_root.Path());
    }

    void TearDown() override
    {
        StopServiceUnderTest(m_service);
        host::Reset();
    }

    TempDir m_root;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
};

}  // namespace test
}  // namespace tilvane

#endif
