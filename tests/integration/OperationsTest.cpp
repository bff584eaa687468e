/*
 * The service as an operator runs it, against the real binary on a private
 * bus:
 *   - its configuration: a file TILVANE_CONFIG names that is missing or
 *     unreadable stops the start with one message and exit code 6; the start
 *     says at information priority which file it read and which keys differ
 *     from their defaults; SIGHUP reads it again, changes the log level and
 *     says what changed, and keeps what may not change while it runs;
 *   - its log: with the journal as standard error, lines carry their
 *     priority and no time stamp; --version writes its answer only; a second
 *     instance says why once;
 *   - the service manager: READY=1 once requests are served, RELOADING=1 and
 *     READY=1 around a reload, STOPPING=1; watchdog pings from the loop,
 *     which stop while a statement holds the loop and come back after it;
 *   - statistics after a scripted session equal the requests sent, by kind,
 *     outcome and reason; messages and subscribers; reset;
 *   - restore refusals that change nothing, and the check of the launcher
 *     list against the registry.
 * (A backup taken under load is in RobustnessTest; the refusal of other
 * users in IsolationTest.)
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tilvane_version.h>

#include "Json.h"
#include "PreviewApps.h"
#include "ServiceUnderTest.h"
#include "TestProcess.h"
#include "TestSupport.h"

namespace {

using namespace tilvane::test;
using tilvanectl::JsonValue;
using Clock = std::chrono::steady_clock;

const char kWriter[] = "org.example.news.ui";
const char kNobody[] = "org.example.nobody.ui";

/* A datagram socket where the service manager's notifications arrive, each
 * kept with the time it came. */
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : m_path(path)
    {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "cannot bind " << path;
            return;
        }
        timeval timeout{0, 50000};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        m_thread = std::thread([this] { Receive(); });
    }

    ~NotifySocket()
    {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
        close(m_fd);
        unlink(m_path.c_str());
    }

    struct Message {
        Clock::time_point at;
        std::string text;
    };

    std::vector<Message> Messages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

    /* The times of the messages that hold `line` as one of their lines. */
    std::vector<Clock::time_point> TimesOf(const std::string& line)
    {
        std::vector<Clock::time_point> times;
        for (const Message& message : Messages()) {
            if (("\n" + message.text + "\n").find("\n" + line + "\n") != std::string::npos) {
                times.push_back(message.at);
            }
        }
        return times;
    }

    bool WaitFor(const std::string& line, size_t count, int timeoutMs)
    {
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (TimesOf(line).size() < count) {
            if (Clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

private:
    void Receive()
    {
        char buffer[4096];
        while (!m_stop) {
            const ssize_t got = recv(m_fd, buffer, sizeof buffer, 0);
            if (got > 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_messages.push_back(Message{Clock::now(), std::string(buffer, static_cast<size_t>(got))});
            }
        }
    }

    std::string m_path;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<Message> m_messages;
};

struct Ran {
    int code = -1;
    std::string out;
    std::string err;
};

class OperationsTest : public tilvane::test::ServiceUnderTestFixture
{
protected:
    void SetUp() override
    {
        ServiceUnderTestFixture::SetUp();
        ASSERT_TRUE(m_bus.IsRunning());
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", kWriter));
    }

    std::string ConfigurationPath() const { return m_root.Path() + "/etc/tilvane.conf"; }

    /* The service with `configuration` after the development mode, and
     * `environment`; no log level of its own unless `environment` says one. */
    void Start(const std::string& configuration, const std::vector<std::string>& environment = {},
               const std::string& waitFor = "ready: serving requests")
    {
        tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n" + configuration);
        std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + m_root.Path(),
                                        std::string("TILVANE_APP_ID=") + kServiceAppId};
        env.insert(env.end(), environment.begin(), environment.end());
        /* A log of its own per start: a wait never reads an earlier start's. */
        const std::string name = "service-" + std::to_string(++m_starts);
        m_service = std::make_unique<Process>(std::vector<std::string>{TILVANE_SERVICE_BINARY}, env,
                                              m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        if (!waitFor.empty()) {
            ASSERT_TRUE(m_service->WaitFor(waitFor, true, 30000)) << m_service->Err();
        }
    }

    /* A program run to its end. */
    Ran Run(const std::vector<std::string>& args, const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + m_root.Path()};
        env.insert(env.end(), environment.begin(), environment.end());
        const std::string name = "run-" + std::to_string(++m_runs);
        Process process(args, env, m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        Ran ran;
        ran.code = process.Wait(60000);
        ran.out = process.Out();
        ran.err = process.Err();
        return ran;
    }

    /* tilvanectl as `appId` (the platform's "tilvanectl" when empty). */
    Ran Ctl(const std::string& appId, const std::vector<std::string>& words)
    {
        std::vector<std::string> args = {TILVANECTL_BINARY};
        if (!appId.empty()) {
            args.insert(args.end(), {"--app-id", appId});
        }
        args.insert(args.end(), words.begin(), words.end());
        return Run(args);
    }

    JsonValue Statistics()
    {
        const Ran stats = Ctl("", {"stats", "--json"});
        EXPECT_EQ(stats.code, 0) << stats.err;
        JsonValue value;
        std::string error;
        EXPECT_TRUE(tilvanectl::ParseJson(stats.out, value, error)) << error << "\n" << stats.out;
        return value;
    }

    std::string DatabasePath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }

    tilvane::test::PrivateBus m_bus;
    int m_runs = 0;
    int m_starts = 0;
};

int CountOf(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

/* ---- configuration ---------------------------------------------------------- */

TEST_F(OperationsTest, AConfigurationFileThatIsMissingOrUnreadableStopsTheStartWithOneMessage)
{
    /* The platform root's own file exists: it is not read in place of the
     * named one. */
    tilvane::test::WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n");
    const std::string missing = m_logs.File("absent.conf");
    Ran ran = Run({TILVANE_SERVICE_BINARY}, {"TILVANE_CONFIG=" + missing, "TILVANE_LOG_LEVEL=V"});
    EXPECT_EQ(ran.code, 6);
    EXPECT_EQ(ran.err, "tilvane: cannot start: the configuration file " + missing +
                           " named by TILVANE_CONFIG does not exist\n");
    EXPECT_EQ(ran.out, "");

    const std::string broken = m_logs.File("broken.conf");
    tilvane::test::WriteFile(broken, "[identity\nmode = development\n");
    ran = Run({TILVANE_SERVICE_BINARY}, {"TILVANE_CONFIG=" + broken, "TILVANE_LOG_LEVEL=V"});
    EXPECT_EQ(ran.code, 6);
    EXPECT_EQ(ran.err.rfind("tilvane: cannot start: configuration " + broken + " cannot be read (", 0), 0u) << ran.err;
    EXPECT_EQ(CountOf(ran.err, "\n"), 1) << ran.err;

    /* Not readable by the service's user (root reads anything: only checked
     * for another user). */
    if (geteuid() != 0) {
        const std::string closed = m_logs.File("closed.conf");
        tilvane::test::WriteFile(closed, "[identity]\nmode = development\n");
        chmod(closed.c_str(), 0);
        ran = Run({TILVANE_SERVICE_BINARY}, {"TILVANE_CONFIG=" + closed});
        EXPECT_EQ(ran.code, 6) << ran.err;
    }
    /* Nothing was made: the start stopped before the databases. */
    EXPECT_FALSE(std::filesystem::exists(DatabasePath()));
}

TEST_F(OperationsTest, TheStartSaysWhichConfigurationWasReadAndEveryKeyThatDiffersAtInformation)
{
    ASSERT_NO_FATAL_FAILURE(Start("[log]\nlevel = I\n[budget]\nstatement-ms = 2000\nheap-bytes = 33554432\n"
                                  "[bugdet]\nstatement-ms = 5\n"));
    const std::string log = m_service->Err();
    EXPECT_NE(log.find(" I/tilvane-platform(" + std::to_string(m_service->Pid()) + "): configuration " +
                       ConfigurationPath() +
                       ": 3 keys differ from the defaults: [identity] mode = development, [log] level = I, "
                       "[budget] heap-bytes = 33554432\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(" W/tilvane-platform(" + std::to_string(m_service->Pid()) + "): configuration " +
                       ConfigurationPath() + ": unknown key [bugdet] statement-ms is ignored\n"),
              std::string::npos)
        << log;
    /* The level applies from the first line on. */
    EXPECT_EQ(CountOf(log, " D/"), 0) << log;
    for (const std::string& line : {std::string("development mode: identities are not verified"),
                                   std::string("strict confinement off"),
                                   "ready: serving requests as " + std::string(kServiceAppId)}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    m_service->Signal(SIGTERM);
    EXPECT_EQ(m_service->Wait(20000), 0);
    EXPECT_NE(m_service->Err().find("I/tilvane-platform(" + std::to_string(m_service->Pid()) +
                                    "): terminating: SIGTERM"),
              std::string::npos);
    m_service.reset();
}

TEST_F(OperationsTest, SighupChangesTheLogLevelSaysWhatChangedAndKeepsWhatMayNotChange)
{
    ASSERT_NO_FATAL_FAILURE(Start("[log]\nlevel = I\n"));
    Ran select = Ctl(kWriter, {"data", "select", "tiles", "--columns", "_id"});
    ASSERT_EQ(select.code, 0) << select.err;
    EXPECT_EQ(CountOf(m_service->Err(), " D/tilvane("), 0);

    tilvane::test::WriteFile(ConfigurationPath(),
                             "[identity]\nmode = verified\n[log]\nlevel = D\n[budget]\nstatement-ms = 1500\n");
    m_service->Signal(SIGHUP);
    ASSERT_TRUE(m_service->WaitFor("configuration read again (SIGHUP): [log] level I -> D\n", true, 10000))
        << m_service->Err();
    const std::string log = m_service->Err();
    EXPECT_NE(log.find("I/tilvane-platform(" + std::to_string(m_service->Pid()) +
                       "): configuration read again (SIGHUP): [budget] statement-ms (unset) -> 1500\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("W/tilvane-platform(" + std::to_string(m_service->Pid()) +
                       "): configuration read again (SIGHUP): [identity] mode development -> verified takes effect "
                       "at the next start\n"),
              std::string::npos)
        << log;

    /* Debug lines now; and the identity mode is still the development one:
     * the writer, which has no user of its own, is still believed. */
    select = Ctl(kWriter, {"data", "select", "tiles", "--columns", "_id"});
    EXPECT_EQ(select.code, 0) << select.err;
    EXPECT_GT(CountOf(m_service->Err(), " D/tilvane("), 0) << m_service->Err();

    /* A file that cannot be read now changes nothing. */
    tilvane::test::WriteFile(ConfigurationPath(), "[log\nlevel = I\n");
    m_service->Signal(SIGHUP);
    ASSERT_TRUE(m_service->WaitFor("; nothing changed\n", true, 10000)) << m_service->Err();
    EXPECT_NE(m_service->Err().find("configuration read again (SIGHUP): configuration " + ConfigurationPath() +
                                    " cannot be read ("),
              std::string::npos);
    const int debugBefore = CountOf(m_service->Err(), " D/tilvane(");
    ASSERT_EQ(Ctl(kWriter, {"data", "select", "tiles", "--columns", "_id"}).code, 0);
    EXPECT_GT(CountOf(m_service->Err(), " D/tilvane("), debugBefore);
}

/* ---- log ------------------------------------------------------------------- */

TEST_F(OperationsTest, WithTheJournalAsStandardErrorLinesCarryTheirPriorityAndNoTimeStamp)
{
    /* The stream exists before the service opens it (same inode), as the
     * journal's socket exists before systemd starts a service. */
    tilvane::test::WriteFile(m_logs.File("service-1.err"), "");
    struct stat info;
    ASSERT_EQ(stat(m_logs.File("service-1.err").c_str(), &info), 0);
    const std::string stream = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=D", "JOURNAL_STREAM=" + stream}));
    ASSERT_EQ(Ctl(kNobody, {"data", "select", "tiles"}).code, 1);
    m_service->Signal(SIGTERM);
    ASSERT_EQ(m_service->Wait(20000), 0);
    const std::string log = m_service->Err();
    m_service.reset();

    static const std::regex journalLine(R"(^<[0-7]>tilvane(-platform|-content)?: .*$)");
    std::istringstream lines(log);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_TRUE(std::regex_match(line, journalLine)) << line;
    }
    EXPECT_GT(count, 20);
    EXPECT_NE(log.find("<6>tilvane-platform: ready: serving requests as " + std::string(kServiceAppId) + "\n"),
              std::string::npos);
    EXPECT_NE(log.find("<7>tilvane-platform: main loop running\n"), std::string::npos);
    EXPECT_NE(log.find("<6>tilvane: TilesProvider.cpp: SelectRequest("), std::string::npos);
    EXPECT_NE(log.find("<6>tilvane-platform: terminating: SIGTERM\n"), std::string::npos);

    /* JOURNAL_STREAM names another stream (standard error was passed on to
     * a file): the lines keep their own form. */
    tilvane::test::WriteFile(m_logs.File("journal"), "");
    ASSERT_EQ(stat(m_logs.File("journal").c_str(), &info), 0);
    const std::string other = std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I", "JOURNAL_STREAM=" + other}));
    EXPECT_TRUE(m_service->WaitFor(" I/tilvane-platform(" + std::to_string(m_service->Pid()) + "): ready: ", true,
                                   10000))
        << m_service->Err();
    EXPECT_EQ(m_service->Err().find("<6>"), std::string::npos);
}

TEST_F(OperationsTest, VersionWritesItsAnswerOnlyAndASecondInstanceSaysWhyOnce)
{
    Ran version = Run({TILVANE_SERVICE_BINARY, "--version"}, {"TILVANE_LOG_LEVEL=V"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, std::string("tilvane ") + TILVANE_VERSION + "\n");
    EXPECT_EQ(version.err, "");

    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I"}));
    Ran second = Run({TILVANE_SERVICE_BINARY},
                     {std::string("TILVANE_APP_ID=") + kServiceAppId, "TILVANE_LOG_LEVEL=V"});
    EXPECT_EQ(second.code, 1);
    const std::string why = "already runs on the bus";
    EXPECT_EQ(CountOf(second.err, why), 1) << second.err;
    EXPECT_NE(second.err.find("tilvane: cannot start: application " + std::string(kServiceAppId) +
                              " already runs on the bus (org.tilvane.App.Acom_2equillon_2epx_2etilvane is owned by "
                              "another process)\n"),
              std::string::npos)
        << second.err;
}

/* ---- the service manager ----------------------------------------------------- */

TEST_F(OperationsTest, TheServiceManagerIsToldReadyOnceRequestsAreServedReloadingAndStopping)
{
    NotifySocket notify(m_logs.File("notify"));
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I", "NOTIFY_SOCKET=" + m_logs.File("notify")}, ""));
    ASSERT_TRUE(notify.WaitFor("READY=1", 1, 30000));
    /* Ready means served: a request right after it is answered. */
    EXPECT_EQ(Ctl(kWriter, {"data", "select", "tiles"}).code, 0);
    EXPECT_NE(m_service->Err().find("ready: serving requests"), std::string::npos);
    EXPECT_EQ(notify.TimesOf("STATUS=serving requests as " + std::string(kServiceAppId)).size(), 1u);
    /* No watchdog was asked for: no pings. */
    EXPECT_TRUE(notify.TimesOf("WATCHDOG=1").empty());

    m_service->Signal(SIGHUP);
    ASSERT_TRUE(notify.WaitFor("READY=1", 2, 10000));
    ASSERT_EQ(notify.TimesOf("RELOADING=1").size(), 1u);
    EXPECT_LT(notify.TimesOf("RELOADING=1")[0], notify.TimesOf("READY=1")[1]);

    m_service->Signal(SIGTERM);
    EXPECT_EQ(m_service->Wait(20000), 0);
    m_service.reset();
    EXPECT_TRUE(notify.WaitFor("STOPPING=1", 1, 5000));
}

/* Longest gap between consecutive times in [from, to]. */
int64_t LongestGapMs(const std::vector<Clock::time_point>& times, Clock::time_point from, Clock::time_point to)
{
    int64_t longest = 0;
    for (size_t i = 1; i < times.size(); ++i) {
        if (times[i - 1] >= from && times[i] <= to) {
            longest = std::max<int64_t>(
                longest, std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]).count());
        }
    }
    return longest;
}

TEST_F(OperationsTest, AStalledLoopStopsTheWatchdogPingsUntilItTurnsAgain)
{
    NotifySocket notify(m_logs.File("notify"));
    /* A watchdog of 400 ms: pings every 200 ms while the loop turns. */
    ASSERT_NO_FATAL_FAILURE(Start("[budget]\nstatement-ms = 3000\n",
                                  {"TILVANE_LOG_LEVEL=I", "NOTIFY_SOCKET=" + m_logs.File("notify"),
                                   "WATCHDOG_USEC=400000"}));
    RawDatabase db(DatabasePath());
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news');"
                      "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (101, 's', 101);"
                      "INSERT INTO tiles (tile_id, tile_section_raw_id) VALUES ('t1', 101);"),
              0);
    ASSERT_TRUE(notify.WaitFor("WATCHDOG=1", 4, 10000));
    const Clock::time_point stallStart = Clock::now();
    /* A statement that holds the loop until its time budget interrupts it. */
    Ran stall = Ctl(kWriter, {"data", "select", "tiles", "--where",
                              "EXISTS (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) "
                              "SELECT 1 FROM c WHERE x<0)"});
    const Clock::time_point stallEnd = Clock::now();
    EXPECT_EQ(stall.code, 1);
    EXPECT_NE(stall.err.find("statement ran past its time budget"), std::string::npos) << stall.err;
    ASSERT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(stallEnd - stallStart).count(), 2900);
    ASSERT_TRUE(notify.WaitFor("WATCHDOG=1", notify.TimesOf("WATCHDOG=1").size() + 3, 5000));

    const std::vector<Clock::time_point> pings = notify.TimesOf("WATCHDOG=1");
    /* Before: the loop turned, a ping at least every 200 ms (2 s allowed
     * for a loaded machine). */
    EXPECT_LT(LongestGapMs(pings, pings.front(), stallStart), 2000);
    /* During: no ping for nearly the whole budget, which a watchdog of 400
     * ms would have ended. */
    EXPECT_GE(LongestGapMs(pings, stallStart - std::chrono::milliseconds(400), stallEnd + std::chrono::seconds(5)),
              2500);
    /* The statement ran for its whole budget (3 s) before the tool had its
     * answer: the 2 s before the last half second of the tool's run fell in
     * it, however late the tool started. */
    size_t duringStall = 0;
    for (const Clock::time_point& ping : pings) {
        duringStall += ping > stallEnd - std::chrono::milliseconds(2500) &&
                       ping < stallEnd - std::chrono::milliseconds(500);
    }
    EXPECT_EQ(duringStall, 0u);
    EXPECT_NE(m_service->Err().find("watchdog: the loop pings the service manager every 200 ms (interval 400 ms)"),
              std::string::npos);
}

/* ---- statistics ---------------------------------------------------------------- */

/* The entry of `interfaceName`.`kind` of the statistics, or null. */
const JsonValue* KindOf(const JsonValue& stats, const std::string& interfaceName, const std::string& kind)
{
    const JsonValue* requests = stats.Member("requests");
    for (size_t i = 0; requests != nullptr && i < requests->items.size(); ++i) {
        const JsonValue& entry = requests->items[i];
        if (entry.Member("interface")->text == interfaceName && entry.Member("kind")->text == kind) {
            return &entry;
        }
    }
    return nullptr;
}

std::string Number(const JsonValue* object, const std::string& path)
{
    const JsonValue* value = object;
    size_t start = 0;
    while (value != nullptr && start <= path.size()) {
        const size_t dot = path.find('.', start);
        value = value->Member(path.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
        if (dot == std::string::npos) {
            break;
        }
        start = dot + 1;
    }
    return value != nullptr ? value->text : "absent";
}

TEST_F(OperationsTest, StatisticsAfterAScriptedSessionEqualTheRequestsSent)
{
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I"}));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Ctl(kWriter, {"data", "select", "tiles", "--columns", "_id"}).code, 0);
    }
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(Ctl(kNobody, {"data", "select", "tiles"}).code, 1);
    }
    ASSERT_EQ(Ctl(kWriter, {"data", "select", "tiles", "--interface", "data-control"}).code, 0);
    ASSERT_EQ(Ctl(kWriter, {"data", "insert", "sections", "section_title=one"}).code, 0);
    ASSERT_EQ(Ctl(kNobody, {"data", "insert", "sections", "section_title=two"}).code, 1);
    ASSERT_EQ(Ctl(kWriter, {"data", "insert", "accelerators", "accelerator_title=three"}).code, 1);

    const JsonValue stats = Statistics();
    const JsonValue* select = KindOf(stats, "Content", "Select");
    const JsonValue* dcSelect = KindOf(stats, "DataControl", "Select");
    const JsonValue* insert = KindOf(stats, "Content", "Insert");
    ASSERT_NE(select, nullptr);
    ASSERT_NE(dcSelect, nullptr);
    ASSERT_NE(insert, nullptr);
    EXPECT_EQ(stats.Member("requests")->items.size(), 3u);
    EXPECT_EQ(Number(select, "requests"), "5");
    EXPECT_EQ(Number(select, "answered"), "3");
    EXPECT_EQ(Number(select, "refused.permission-level"), "2");
    EXPECT_EQ(select->Member("refused")->members.size(), 1u);
    EXPECT_EQ(Number(select, "end_to_end_us.count"), "5");
    EXPECT_EQ(Number(dcSelect, "requests"), "1");
    EXPECT_EQ(Number(dcSelect, "answered"), "1");
    EXPECT_EQ(Number(insert, "requests"), "3");
    EXPECT_EQ(Number(insert, "answered"), "1");
    EXPECT_EQ(Number(insert, "refused.permission-level"), "1");
    EXPECT_EQ(Number(insert, "refused.invalid-uri"), "1");
    /* Statements were timed for the requests that ran them. */
    EXPECT_NE(Number(select, "statement_us.count"), "0");
    EXPECT_NE(Number(insert, "statement_us.count"), "0");

    /* The table says the same. */
    const Ran table = Ctl("", {"stats"});
    ASSERT_EQ(table.code, 0) << table.err;
    EXPECT_TRUE(std::regex_search(table.out, std::regex(R"(\nContent +Insert +3 +1 +invalid-uri 1, permission-level 1 +- )")))
        << table.out;

    /* Reset: every counter back to zero. */
    const Ran reset = Ctl("", {"stats", "reset"});
    EXPECT_EQ(reset.code, 0) << reset.err;
    EXPECT_EQ(reset.out, "statistics reset\n");
    const JsonValue after = Statistics();
    EXPECT_EQ(after.Member("requests")->items.size(), 0u);
    EXPECT_EQ(Number(&after, "messages.sent"), "0");
    EXPECT_NE(m_service->Err().find("statistics reset by user " + std::to_string(geteuid())), std::string::npos);
}

TEST_F(OperationsTest, StatisticsCountTheMessagesSentAndTheSubscribers)
{
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I"}));
    const std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + m_root.Path(),
                                          "TILVANE_APP_ID=org.example.listener"};
    Process listener({TILVANECTL_BINARY, "events", "subscribe"}, env, m_logs.File("listener.out"),
                     m_logs.File("listener.err"));
    ASSERT_TRUE(listener.WaitFor("subscribed to preview events", true, 10000)) << listener.Err();
    auto subscribers = [&] {
        const JsonValue stats = Statistics();
        return Number(&stats, "subscribers");
    };
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil([&] { return subscribers() == "1"; }, 10000));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(Ctl("org.example.trigger", {"events", "trigger"}).code, 0);
    }
    /* Each trigger's test event went to its requester: three messages. */
    JsonValue stats = Statistics();
    EXPECT_EQ(Number(&stats, "messages.sent"), "3");
    EXPECT_EQ(Number(&stats, "messages.dropped"), "0");

    listener.Signal(SIGTERM);
    EXPECT_EQ(listener.Wait(10000), 0);
    ASSERT_TRUE(m_service->WaitFor("[org.example.listener] was removed", true, 10000)) << m_service->Err();
    ASSERT_TRUE(tilvane::test::IterateMainContextUntil([&] { return subscribers() == "0"; }, 10000));
}

/* ---- restore refusals and the check -------------------------------------------- */

TEST_F(OperationsTest, ARestoreOfABadCopyIsRefusedWithItsReasonAndChangesNothing)
{
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I"}));
    ASSERT_EQ(Ctl(kWriter, {"data", "insert", "sections", "section_title=kept"}).code, 0);
    const std::string good = m_logs.File("good.db");
    ASSERT_EQ(Ctl("", {"db", "backup", good}).code, 0);
    const std::vector<std::string> tables = {"accelerators", "sections", "tiles"};
    const std::string before = RawDatabase(DatabasePath()).Dump(tables);

    struct Bad {
        std::string name;
        std::string sql; /* run on a copy of the good backup; "" for other bytes */
        std::string bytes;
        std::string reason;
    };
    const std::vector<Bad> bads = {
        {"text", "", "not a database at all\n", "the copy is not a database the service can read"},
        {"version", "PRAGMA user_version = 14;", "", "the copy has schema version 14, the database 15"},
        {"column", "ALTER TABLE tiles DROP COLUMN tile_title;", "", "the copy's table tiles has the columns ("},
        {"table", "CREATE TABLE extra (x);", "", "the copy has a table the database does not have: extra"},
        {"orphan", "PRAGMA foreign_keys = OFF; INSERT INTO sections (section_accelerator_raw_id) VALUES (999);", "",
         "a row of the copy breaks a foreign key: table sections"},
        /* A trigger would run in the service's own statements from then on. */
        {"trigger", "CREATE TRIGGER wipe AFTER INSERT ON tiles BEGIN DELETE FROM accelerators; END;", "",
         "the copy has an object the database does not have: trigger wipe"},
        {"index", "DROP INDEX idx_tiles_tile_id;", "", "the copy has no index idx_tiles_tile_id"},
    };
    for (const Bad& bad : bads) {
        const std::string file = m_logs.File(bad.name + ".db");
        if (bad.sql.empty()) {
            tilvane::test::WriteFile(file, bad.bytes);
        } else {
            std::filesystem::copy_file(good, file);
            ASSERT_EQ(RawDatabase(file).Exec(bad.sql), 0) << bad.name;
        }
        const Ran restore = Ctl("", {"db", "restore", file});
        EXPECT_EQ(restore.code, 1) << bad.name;
        EXPECT_EQ(restore.err.rfind("tilvanectl db restore: refused: " + bad.reason, 0), 0u)
            << bad.name << ": " << restore.err;
        EXPECT_NE(restore.err.find("; nothing was changed\n"), std::string::npos) << restore.err;
        EXPECT_EQ(RawDatabase(DatabasePath()).Dump(tables), before) << bad.name;
    }
    /* A half copy: the first half of the good backup. */
    const std::string half = m_logs.File("half.db");
    std::filesystem::copy_file(good, half);
    tilvane::test::TruncateFile(half, tilvane::test::FileSize(good) / 2);
    EXPECT_EQ(Ctl("", {"db", "restore", half}).code, 1);
    EXPECT_EQ(RawDatabase(DatabasePath()).Dump(tables), before);
    /* Nothing is left beside the database; the service still serves. */
    for (const char* left : {".preview.db.restore", ".preview.db.restore-journal", ".preview.db.backup"}) {
        EXPECT_FALSE(std::filesystem::exists(m_root.Path() + "/opt/dbspace/" + left)) << left;
    }
    EXPECT_EQ(Ctl(kWriter, {"data", "select", "sections", "--columns", "section_title"}).code, 0);
    EXPECT_EQ(Ctl("", {"db", "restore", m_logs.File("absent.db")}).code, 1);
}

TEST_F(OperationsTest, TheCheckFindsLauncherEntriesWithoutTheirPackage)
{
    ASSERT_NO_FATAL_FAILURE(Start("", {"TILVANE_LOG_LEVEL=I"}));
    ASSERT_EQ(Ctl(kWriter, {"data", "select", "tiles"}).code, 0); /* makes the writer's entry */
    Ran check = Ctl("", {"db", "check"});
    EXPECT_EQ(check.code, 0) << check.out << check.err;
    EXPECT_NE(check.out.find("ok: integrity\nok: foreign keys\nok: launcher list ("), std::string::npos) << check.out;
    EXPECT_EQ(check.out.substr(check.out.size() - 8), "healthy\n");

    RawDatabase db(DatabasePath());
    ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('org.example.gone');"
                      "INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('org.example.news');"),
              0);
    check = Ctl("", {"db", "check"});
    EXPECT_EQ(check.code, 1);
    EXPECT_NE(check.out.find("problem: launcher entry of package org.example.gone, which is not installed\n"),
              std::string::npos)
        << check.out;
    EXPECT_NE(check.out.find("problem: package org.example.news has 2 launcher entries\n"), std::string::npos)
        << check.out;
    EXPECT_EQ(check.out.substr(check.out.size() - 12), "NOT healthy\n");
    /* The live-television entries the service makes belong to no package
     * and are no problem. */
    EXPECT_EQ(check.out.find("livetv"), std::string::npos) << check.out;
}

}  // namespace
