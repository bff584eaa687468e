/*
 * SIGTERM and SIGINT while the create callback still runs: the handlers are
 * in place before it, a pending termination ends real sleeps at once and
 * makes port registrations fail at once, the loop is never entered and the
 * terminate callback still runs.
 */
#include <gtest/gtest.h>
#include <host_control.h>
#include <message_port.h>
#include <service_app.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

struct StartUp {
    int signal = SIGTERM;
    int attempts = 0;
    int registeredBefore = 0;
    std::vector<int> registrations;
    int appControls = 0;
    int terminates = 0;
};

void PortCB(int, const char*, const char*, bool, bundle*, void*)
{
}

/* A create callback shaped like the service's start-up retry loops: 60
 * registrations, each followed by a one-second and a half-second sleep, with
 * the signal arriving before the first. */
bool RetryingCreate(void* data)
{
    StartUp* s = static_cast<StartUp*>(data);
    s->registeredBefore = message_port_register_local_port("before", PortCB, nullptr);
    kill(getpid(), s->signal);
    for (int attempt = 0; attempt < 60; ++attempt) {
        ++s->attempts;
        s->registrations.push_back(message_port_register_local_port("during", PortCB, nullptr));
        sleep(1);
        usleep(500000);
    }
    return true;
}

void CountAppControl(app_control_h, void* data)
{
    ++static_cast<StartUp*>(data)->appControls;
}

void CountTerminate(void* data)
{
    ++static_cast<StartUp*>(data)->terminates;
}

class TerminationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tilvane::host::Reset();
        tilvane::host::StartLogCapture();
    }
    void TearDown() override { tilvane::host::Reset(); }

    int64_t RunWithSignal(int signal, StartUp& s)
    {
        s.signal = signal;
        service_app_lifecycle_callback_s callbacks = {};
        callbacks.create = RetryingCreate;
        callbacks.terminate = CountTerminate;
        callbacks.app_control = CountAppControl;
        const auto start = Clock::now();
        EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &s), APP_ERROR_NONE);
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    }

    tilvane::test::PrivateBus m_bus;
};

TEST_F(TerminationTest, SigtermDuringARetryLoopOfTheCreateCallbackEndsTheStartAtOnce)
{
    ASSERT_TRUE(m_bus.IsRunning());
    tilvane::host::SetOwnAppId("com.example.starting");
    StartUp s;
    const int64_t elapsedMs = RunWithSignal(SIGTERM, s);

    EXPECT_LT(elapsedMs, 3000) << "90 seconds of sleeps must not be slept out";
    EXPECT_EQ(s.attempts, 60);
    EXPECT_GT(s.registeredBefore, 0);
    ASSERT_EQ(s.registrations.size(), 60u);
    for (int result : s.registrations) {
        EXPECT_EQ(result, MESSAGE_PORT_ERROR_IO_ERROR);
    }
    /* The 120 sleeps were asked for, and each returned early. */
    std::vector<int64_t> expected;
    for (int i = 0; i < 60; ++i) {
        expected.push_back(1000000);
        expected.push_back(500000);
    }
    EXPECT_EQ(tilvane::host::RecordedSleeps(), expected);
    EXPECT_EQ(s.appControls, 0) << "the loop must not run";
    EXPECT_EQ(s.terminates, 1) << "the orderly shutdown must run";
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "terminating: SIGTERM"), 1);
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform",
                                        "local port during not registered: the application is terminating"),
              60);
}

TEST_F(TerminationTest, SigintDuringStartUpDoesTheSame)
{
    ASSERT_TRUE(m_bus.IsRunning());
    tilvane::host::SetOwnAppId("com.example.starting");
    StartUp s;
    const int64_t elapsedMs = RunWithSignal(SIGINT, s);
    EXPECT_LT(elapsedMs, 3000);
    EXPECT_EQ(s.appControls, 0);
    EXPECT_EQ(s.terminates, 1);
    EXPECT_EQ(tilvane::test::CountLines("tilvane-platform", "terminating: SIGINT"), 1);
}

TEST_F(TerminationTest, AfterTheRunSleepsAndRegistrationsWorkAgain)
{
    ASSERT_TRUE(m_bus.IsRunning());
    tilvane::host::SetOwnAppId("com.example.starting");
    StartUp s;
    RunWithSignal(SIGTERM, s);

    const auto start = Clock::now();
    usleep(200000);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 200);
    EXPECT_GT(message_port_register_local_port("after", PortCB, nullptr), 0);
}

}  // namespace
