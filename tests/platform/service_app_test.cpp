#include <dlog.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <service_app.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

/* What the lifecycle callbacks saw. */
struct Recorder {
    bool createResult = true;
    int creates = 0;
    int appControls = 0;
    int terminates = 0;
    bool appControlWasNull = false;
    std::vector<std::string> order;
    /* Work to do from the loop once the app control callback ran. */
    void (*onAppControl)(Recorder*) = nullptr;
    bool exitFromTerminate = false;
};

bool OnCreate(void* data)
{
    auto* r = static_cast<Recorder*>(data);
    ++r->creates;
    r->order.push_back("create");
    return r->createResult;
}

void OnTerminate(void* data)
{
    auto* r = static_cast<Recorder*>(data);
    ++r->terminates;
    r->order.push_back("terminate");
    if (r->exitFromTerminate) {
        service_app_exit();
    }
}

void OnAppControl(app_control_h control, void* data)
{
    auto* r = static_cast<Recorder*>(data);
    ++r->appControls;
    r->appControlWasNull = control == nullptr;
    r->order.push_back("app_control");
    if (r->onAppControl != nullptr) {
        r->onAppControl(r);
    }
}

service_app_lifecycle_callback_s Callbacks()
{
    service_app_lifecycle_callback_s callbacks = {};
    callbacks.create = OnCreate;
    callbacks.terminate = OnTerminate;
    callbacks.app_control = OnAppControl;
    return callbacks;
}

/* Ends a hung loop so that a broken test fails instead of timing out. */
class Watchdog {
public:
    explicit Watchdog(int seconds)
    {
        id_ = g_timeout_add_seconds(static_cast<guint>(seconds), Fire, &fired_);
    }
    ~Watchdog()
    {
        if (!fired_) {
            g_source_remove(id_);
        }
    }
    bool Fired() const { return fired_; }

private:
    static gboolean Fire(gpointer data)
    {
        *static_cast<bool*>(data) = true;
        ADD_FAILURE() << "service application loop did not end in time";
        service_app_exit();
        return G_SOURCE_REMOVE;
    }
    guint id_ = 0;
    bool fired_ = false;
};

/* Runs the service application with `callbacks` and `r` under a watchdog:
 * the loop ends by itself and the run returns without error. */
void RunToItsEnd(service_app_lifecycle_callback_s callbacks, Recorder& r)
{
    Watchdog watchdog(10);
    EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_NONE);
    EXPECT_FALSE(watchdog.Fired());
}

class ServiceAppTest : public ::testing::Test {
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override { tilvane::host::Reset(); }
};

TEST_F(ServiceAppTest, InvalidArguments)
{
    Recorder r;
    EXPECT_EQ(service_app_main(0, nullptr, nullptr, &r), APP_ERROR_INVALID_PARAMETER);
    service_app_lifecycle_callback_s callbacks = Callbacks();
    callbacks.create = nullptr;
    EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(r.creates, 0);
    EXPECT_EQ(r.terminates, 0);
}

TEST_F(ServiceAppTest, CreateFailureReturnsErrorWithoutTerminate)
{
    Recorder r;
    r.createResult = false;
    service_app_lifecycle_callback_s callbacks = Callbacks();
    EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_INVALID_CONTEXT);
    EXPECT_EQ(r.creates, 1);
    EXPECT_EQ(r.appControls, 0);
    EXPECT_EQ(r.terminates, 0);
}

TEST_F(ServiceAppTest, TerminationFromAnotherThread)
{
    Recorder r;
    std::atomic<bool> appControlSeen{false};
    static std::atomic<bool>* seen = nullptr;
    seen = &appControlSeen;
    r.onAppControl = [](Recorder*) { seen->store(true); };
    service_app_lifecycle_callback_s callbacks = Callbacks();

    std::thread requester([&] {
        while (!appControlSeen.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tilvane::host::RequestTermination();
    });
    Watchdog watchdog(10);
    const int result = service_app_main(0, nullptr, &callbacks, &r);
    requester.join();

    EXPECT_FALSE(watchdog.Fired());
    EXPECT_EQ(result, APP_ERROR_NONE);
    EXPECT_EQ(r.terminates, 1);
    EXPECT_EQ(r.appControls, 1);
    EXPECT_TRUE(r.appControlWasNull);
    EXPECT_EQ(r.order, (std::vector<std::string>{"create", "app_control", "terminate"}));
}

TEST_F(ServiceAppTest, TerminationRequestedDuringCreateIsNotLost)
{
    Recorder r;
    service_app_lifecycle_callback_s callbacks = Callbacks();
    callbacks.create = [](void* data) {
        std::thread([] { tilvane::host::RequestTermination(); }).join();
        return OnCreate(data);
    };
    RunToItsEnd(callbacks, r);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, TerminationFromTimeoutSource)
{
    Recorder r;
    service_app_lifecycle_callback_s callbacks = Callbacks();
    callbacks.app_control = nullptr;
    g_timeout_add(
        50,
        [](gpointer) -> gboolean {
            tilvane::host::RequestTermination();
            return G_SOURCE_REMOVE;
        },
        nullptr);
    RunToItsEnd(callbacks, r);
    EXPECT_EQ(r.appControls, 0);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, ServiceAppExitFromLoop)
{
    Recorder r;
    r.onAppControl = [](Recorder*) { service_app_exit(); };
    RunToItsEnd(Callbacks(), r);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, ServiceAppExitInsideTerminateIsHarmless)
{
    Recorder r;
    r.exitFromTerminate = true;
    r.onAppControl = [](Recorder*) { service_app_exit(); };
    RunToItsEnd(Callbacks(), r);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, ServiceAppExitDuringCreateSkipsLoop)
{
    Recorder r;
    service_app_lifecycle_callback_s callbacks = Callbacks();
    callbacks.create = [](void* data) {
        service_app_exit();
        return OnCreate(data);
    };
    RunToItsEnd(callbacks, r);
    EXPECT_EQ(r.appControls, 0);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, SigtermEndsLoopCleanly)
{
    Recorder r;
    r.onAppControl = [](Recorder*) { raise(SIGTERM); };
    RunToItsEnd(Callbacks(), r);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, SigintEndsLoopCleanly)
{
    Recorder r;
    r.onAppControl = [](Recorder*) { raise(SIGINT); };
    RunToItsEnd(Callbacks(), r);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, RunsAgainAfterEnding)
{
    service_app_lifecycle_callback_s callbacks = Callbacks();
    for (int run = 0; run < 2; ++run) {
        Recorder r;
        r.onAppControl = [](Recorder*) { service_app_exit(); };
        Watchdog watchdog(10);
        EXPECT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_NONE) << run;
        EXPECT_EQ(r.terminates, 1) << run;
    }
}

TEST_F(ServiceAppTest, RequestTerminationWithoutLoopDoesNothing)
{
    tilvane::host::RequestTermination();
    /* A later run is not ended by the earlier request: it ends only through
     * its own service_app_exit, after the app control callback. */
    Recorder r;
    r.onAppControl = [](Recorder*) { service_app_exit(); };
    RunToItsEnd(Callbacks(), r);
    EXPECT_EQ(r.appControls, 1);
    EXPECT_EQ(r.terminates, 1);
}

TEST_F(ServiceAppTest, TheLinesAnOperatorNeedsAreAtInformationTheRestAtDebug)
{
    tilvane::host::StartLogCapture();
    Recorder r;
    r.onAppControl = [](Recorder*) { service_app_exit(); };
    service_app_lifecycle_callback_s callbacks = Callbacks();
    ASSERT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_NONE);

    const auto lines = tilvane::host::CapturedLog();
    std::vector<std::string> messages;
    std::vector<std::string> information;
    for (const auto& line : lines) {
        EXPECT_EQ(line.tag, "tilvane-platform");
        EXPECT_TRUE(line.priority == DLOG_DEBUG || line.priority == DLOG_INFO) << line.message;
        messages.push_back(line.message);
        if (line.priority == DLOG_INFO) {
            information.push_back(line.message);
        }
    }
    /* Where the configuration came from, strict confinement, ready, stopping. */
    ASSERT_EQ(information.size(), 4u) << ::testing::PrintToString(information);
    EXPECT_EQ(information[0].rfind("configuration", 0), 0u) << information[0];
    EXPECT_EQ(information[1], "strict confinement off");
    EXPECT_EQ(information[2].rfind("ready: serving requests as ", 0), 0u) << information[2];
    EXPECT_EQ(information[3], "terminating: service_app_exit");
    auto position = [&messages](const std::string& prefix) -> size_t {
        return static_cast<size_t>(
            std::find_if(messages.begin(), messages.end(),
                         [&prefix](const std::string& m) { return m.rfind(prefix, 0) == 0; }) -
            messages.begin());
    };
    const size_t created = position("service application created");
    const size_t ready = position("ready: ");
    const size_t terminating = position("terminating");
    const size_t ended = position("main loop ended");
    const size_t size = messages.size();
    ASSERT_LT(created, size);
    ASSERT_LT(terminating, size);
    ASSERT_LT(ended, size);
    EXPECT_LT(created, ready);
    EXPECT_LT(ready, terminating);
    EXPECT_LT(terminating, ended);
}

int gLowMemoryCalls = 0;
int gLanguageCalls = 0;
void* gLastUserData = nullptr;

void OnLowMemory(app_event_info_h, void* userData)
{
    ++gLowMemoryCalls;
    gLastUserData = userData;
}

void OnLanguage(app_event_info_h, void*)
{
    ++gLanguageCalls;
}

TEST_F(ServiceAppTest, EventHandlersRecordedInOrderAndRaised)
{
    gLowMemoryCalls = gLanguageCalls = 0;
    int token = 0;
    app_event_handler_h lowMemory = nullptr;
    app_event_handler_h language = nullptr;
    app_event_handler_h lowMemory2 = nullptr;
    ASSERT_EQ(service_app_add_event_handler(&language, APP_EVENT_LANGUAGE_CHANGED, OnLanguage, nullptr),
              APP_ERROR_NONE);
    ASSERT_EQ(service_app_add_event_handler(&lowMemory, APP_EVENT_LOW_MEMORY, OnLowMemory, &token),
              APP_ERROR_NONE);
    ASSERT_EQ(service_app_add_event_handler(&lowMemory2, APP_EVENT_LOW_MEMORY, OnLowMemory, &token),
              APP_ERROR_NONE);
    EXPECT_NE(language, nullptr);
    EXPECT_NE(lowMemory, language);

    EXPECT_EQ(tilvane::host::RegisteredAppEventTypes(),
              (std::vector<app_event_type_e>{APP_EVENT_LANGUAGE_CHANGED, APP_EVENT_LOW_MEMORY,
                                             APP_EVENT_LOW_MEMORY}));

    EXPECT_EQ(tilvane::host::RaiseAppEvent(APP_EVENT_LOW_MEMORY), 2);
    EXPECT_EQ(gLowMemoryCalls, 2);
    EXPECT_EQ(gLastUserData, &token);
    EXPECT_EQ(gLanguageCalls, 0);
    EXPECT_EQ(tilvane::host::RaiseAppEvent(APP_EVENT_LOW_BATTERY), 0);

    EXPECT_EQ(service_app_remove_event_handler(lowMemory), APP_ERROR_NONE);
    EXPECT_EQ(tilvane::host::RegisteredAppEventTypes(),
              (std::vector<app_event_type_e>{APP_EVENT_LANGUAGE_CHANGED, APP_EVENT_LOW_MEMORY}));
    EXPECT_EQ(tilvane::host::RaiseAppEvent(APP_EVENT_LOW_MEMORY), 1);
    EXPECT_EQ(gLowMemoryCalls, 3);
    /* A removed handle is not accepted twice. */
    EXPECT_EQ(service_app_remove_event_handler(lowMemory), APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(tilvane::host::RaiseAppEvent(APP_EVENT_LANGUAGE_CHANGED), 1);
    EXPECT_EQ(gLanguageCalls, 1);
}

TEST_F(ServiceAppTest, EventHandlerArgumentsAreValidated)
{
    app_event_handler_h handler = nullptr;
    EXPECT_EQ(service_app_add_event_handler(nullptr, APP_EVENT_LOW_MEMORY, OnLanguage, nullptr),
              APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(service_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, nullptr, nullptr),
              APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(service_app_add_event_handler(&handler, static_cast<app_event_type_e>(6), OnLanguage, nullptr),
              APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(service_app_add_event_handler(&handler, static_cast<app_event_type_e>(-1), OnLanguage, nullptr),
              APP_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(service_app_remove_event_handler(nullptr), APP_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(tilvane::host::RegisteredAppEventTypes().empty());
    EXPECT_EQ(service_app_add_event_handler(&handler, APP_EVENT_SUSPENDED_STATE_CHANGED, OnLanguage, nullptr),
              APP_ERROR_NONE);
}

TEST_F(ServiceAppTest, InjectedEventHandlerFailure)
{
    app_event_handler_h handler = nullptr;
    tilvane::host::FailNextCalls("service_app_add_event_handler", 1);
    EXPECT_NE(service_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, OnLanguage, nullptr), APP_ERROR_NONE);
    EXPECT_EQ(handler, nullptr);
    EXPECT_TRUE(tilvane::host::RegisteredAppEventTypes().empty());
    EXPECT_EQ(service_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, OnLanguage, nullptr), APP_ERROR_NONE);
    EXPECT_EQ(tilvane::host::CallCount("service_app_add_event_handler"), 2);
}

TEST_F(ServiceAppTest, EventHandlersAddedBeforeTheStartAreLoggedWhenItStartsAndLaterOnesAtOnce)
{
    tilvane::host::StartLogCapture();
    app_event_handler_h handler = nullptr;
    ASSERT_EQ(service_app_add_event_handler(&handler, APP_EVENT_REGION_FORMAT_CHANGED, OnLanguage, nullptr),
              APP_ERROR_NONE);
    /* A program adds its handlers before service_app_main reads its command
     * line: nothing is written yet, so that --version writes only its answer. */
    EXPECT_TRUE(tilvane::host::CapturedMessages("tilvane-platform").empty());
    Recorder r;
    r.onAppControl = [](Recorder*) {
        app_event_handler_h later = nullptr;
        service_app_add_event_handler(&later, APP_EVENT_LANGUAGE_CHANGED, OnLanguage, nullptr);
        service_app_exit();
    };
    service_app_lifecycle_callback_s callbacks = Callbacks();
    ASSERT_EQ(service_app_main(0, nullptr, &callbacks, &r), APP_ERROR_NONE);
    const std::vector<std::string> messages = tilvane::host::CapturedMessages("tilvane-platform");
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "event handler added: type 4"), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "event handler added: type 2"), 1);
    const auto added = std::find(messages.begin(), messages.end(), "event handler added: type 4");
    const auto created = std::find(messages.begin(), messages.end(), "service application created");
    EXPECT_LT(added, created);
}

TEST_F(ServiceAppTest, ResetDropsEventHandlers)
{
    app_event_handler_h handler = nullptr;
    ASSERT_EQ(service_app_add_event_handler(&handler, APP_EVENT_LOW_MEMORY, OnLanguage, nullptr), APP_ERROR_NONE);
    tilvane::host::Reset();
    EXPECT_TRUE(tilvane::host::RegisteredAppEventTypes().empty());
    EXPECT_EQ(tilvane::host::RaiseAppEvent(APP_EVENT_LOW_MEMORY), 0);
    /* The handle from before the reset is stale now, and refusing it is safe. */
    EXPECT_EQ(service_app_remove_event_handler(handler), APP_ERROR_INVALID_PARAMETER);
}

}  // namespace
