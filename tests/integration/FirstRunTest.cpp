/*
 * The service and tilvanectl as a new user meets them: the real binaries on a
 * private bus, started with nothing but a platform root. Each test reproduces
 * one thing a user ran into (defaults, start-up, reasons, command line,
 * publishing, counts, restarts, alignment) and checks what the user now sees.
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tilvane_version.h>

#include "ProcessesUnderRoot.h"
#include "TestProcess.h"
#include "TestSupport.h"

using tilvane::test::Lines;
using tilvane::test::Process;

namespace {

/* The launcher-supporting example application, and one without any access. */
const char kPublisher[] = "org.example.videos.main";
const char kStranger[] = "org.example.news.main";

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};


size_t Occurrences(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

/* Code points before byte `offset` of a UTF-8 line: where the text at that
 * byte starts on the screen (every character here is one column wide). */
size_t ColumnOf(const std::string& line, size_t offset)
{
    size_t column = 0;
    for (size_t i = 0; i < offset && i < line.size(); ++i) {
        if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) {
            ++column;
        }
    }
    return column;
}

class FirstRunTest : public tilvane::test::ProcessesUnderRootTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        /* Nothing is told: the defaults must do. */
        unsetenv("TILVANE_APP_ID");
        unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
        unsetenv("TILVANE_SERVICE_APP_ID");
        for (const char* manifest : {"launcher", "news"}) {
            Outcome installed = Ctl({"app", "install", std::string(TILVANE_EXAMPLES_DIR) + "/apps/" + manifest +
                                                       ".manifest"});
            ASSERT_EQ(installed.exitCode, 0) << installed.err;
        }
    }

    void TearDown() override { StopAll(); }

    Process* StartService(const std::vector<std::string>& environment = {}, const std::string& name = "service")
    {
        std::vector<std::string> env = {"TILVANE_LOG_LEVEL=D"};
        env.insert(env.end(), environment.begin(), environment.end());
        return Start({TILVANE_SERVICE_BINARY}, name, env);
    }

    Process* RunningService()
    {
        Process* service = StartService();
        EXPECT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();
        return service;
    }

    Outcome Ctl(const std::vector<std::string>& words, const std::vector<std::string>& environment = {})
    {
        return Program(TILVANECTL_BINARY, words, environment);
    }

    Outcome As(const std::string& appId, std::vector<std::string> words)
    {
        words.insert(words.begin(), {"--app-id", appId});
        return Ctl(words);
    }

    Outcome Program(const std::string& binary, const std::vector<std::string>& words,
                const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> args = {binary};
        args.insert(args.end(), words.begin(), words.end());
        std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + m_root.Path()};
        env.insert(env.end(), environment.begin(), environment.end());
        const std::string name = "run" + std::to_string(++m_runs);
        Process process(args, env, m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        Outcome run;
        run.exitCode = process.Wait(20000);
        run.out = process.Out();
        run.err = process.Err();
        return run;
    }

    int m_runs = 0;
};

/* 1. Started directly, the service runs as its own application id. */
TEST_F(FirstRunTest, TheServiceStartedDirectlyRunsAsItsOwnApplicationId)
{
    Process* service = RunningService();
    EXPECT_NE(service->Err().find("connected to the message bus as com.quillon.px.tilvane"), std::string::npos)
        << service->Err();

    Outcome installed = Ctl({"accelerator", "install", "org.example.videos", "--title", "Videos"});
    EXPECT_EQ(installed.exitCode, 0) << installed.err;
    EXPECT_EQ(installed.out.find_first_not_of("0123456789\n"), std::string::npos) << installed.out;

    /* TILVANE_APP_ID still decides when it is given. */
    Process* other = StartService({"TILVANE_APP_ID=org.example.other.service"}, "other");
    ASSERT_TRUE(other->WaitFor("service application created", true, 20000)) << other->Err();
    EXPECT_NE(other->Err().find("connected to the message bus as org.example.other.service"), std::string::npos);
}

/* 2. The data-control interface is served without any setting, and the help says so. */
TEST_F(FirstRunTest, TheDataControlInterfaceIsServedByDefault)
{
    Outcome help = Program(TILVANE_SERVICE_BINARY, {"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("TILVANE_DATA_CONTROL_PROVIDER_ID"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("content://com.quillon.px.tiles"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("TILVANE_APP_ID"), std::string::npos) << help.out;

    RunningService();
    Outcome inserted = As(kPublisher, {"data", "insert", "sections", "--interface", "data-control", "section_title=DC"});
    EXPECT_EQ(inserted.exitCode, 0) << inserted.err;
    EXPECT_EQ(inserted.out.rfind("inserted row ", 0), 0u) << inserted.out;
    Outcome selected = As(kPublisher, {"data", "select", "accelerators", "--interface=data-control", "--columns", "_id"});
    EXPECT_EQ(selected.exitCode, 0) << selected.err;
    EXPECT_NE(selected.out.find("(1 row)"), std::string::npos) << selected.out;
}

/* 3. No bus, or the name taken: one message and an exit at once. */
TEST_F(FirstRunTest, WithoutABusTheServiceEndsAtOnceWithOneMessage)
{
    const auto start = std::chrono::steady_clock::now();
    Outcome run = Program("/usr/bin/env", {"-u", "DBUS_SESSION_BUS_ADDRESS", TILVANE_SERVICE_BINARY},
                          {"TILVANE_LOG_LEVEL=W"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("tilvane: cannot start: no message bus (DBUS_SESSION_BUS_ADDRESS is not set)"),
              std::string::npos)
        << run.err;
    EXPECT_LE(Lines(run.err).size(), 3u) << run.err;
    /* Nothing of the service was created. */
    struct stat info;
    EXPECT_NE(stat((m_root.Path() + "/opt/dbspace/.preview.db").c_str(), &info), 0);
}

TEST_F(FirstRunTest, ASecondInstanceEndsAtOnceAndTheFirstKeepsRunning)
{
    Process* first = RunningService();
    const auto start = std::chrono::steady_clock::now();
    Outcome second = Program(TILVANE_SERVICE_BINARY, {}, {"TILVANE_LOG_LEVEL=W"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.err.find("tilvane: cannot start: application com.quillon.px.tilvane already runs on the bus"),
              std::string::npos)
        << second.err;
    EXPECT_LE(Lines(second.err).size(), 3u) << second.err;

    Outcome trigger = As("org.example.viewer", {"events", "trigger"});
    EXPECT_EQ(trigger.exitCode, 0) << trigger.err;
    first->Signal(SIGTERM);
    EXPECT_EQ(first->Wait(20000), 0);
    m_processes.clear();
}

TEST_F(FirstRunTest, VersionAndUnknownArgumentsOfBothPrograms)
{
    Outcome version = Program(TILVANE_SERVICE_BINARY, {"--version"}, {"TILVANE_LOG_LEVEL=W"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, std::string("tilvane ") + TILVANE_VERSION + "\n");
    version = Ctl({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, std::string("tilvanectl ") + TILVANE_VERSION + "\n");

    Outcome unknown = Program(TILVANE_SERVICE_BINARY, {"--verbose"}, {"TILVANE_LOG_LEVEL=W"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_NE(unknown.err.find("unknown argument '--verbose'"), std::string::npos) << unknown.err;
    EXPECT_NE(unknown.err.find("Usage: tilvane"), std::string::npos) << unknown.err;
    struct stat info;
    EXPECT_NE(stat((m_root.Path() + "/opt/dbspace/.preview.db").c_str(), &info), 0);

    unknown = Ctl({"--verbose"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_NE(unknown.err.find("Usage: tilvanectl"), std::string::npos) << unknown.err;
}

/* 4. Reasons reach the user. */
TEST_F(FirstRunTest, FailuresAndRefusalsCarryTheirReason)
{
    RunningService();
    tilvane::test::WriteFile(m_logs.File("wrong.jsonl"), "{\"section_title\": \"Evening\", \"accelerator_id\": 1}\n");
    Outcome bulk = As(kPublisher, {"data", "insert", "sections", "--bulk", m_logs.File("wrong.jsonl")});
    EXPECT_EQ(bulk.exitCode, 1);
    EXPECT_NE(bulk.err.find("failed (1): table sections has no column named accelerator_id"), std::string::npos)
        << bulk.err;

    Outcome columns = As(kPublisher, {"data", "select", "sections", "--columns", "_id,nosuch"});
    EXPECT_EQ(columns.exitCode, 1);
    EXPECT_NE(columns.err.find("no such column: nosuch"), std::string::npos) << columns.err;

    /* A select refused for its level reads the same on both interfaces. */
    Outcome content = As(kStranger, {"data", "select", "sections"});
    Outcome dataControl = As(kStranger, {"data", "select", "sections", "--interface", "data-control"});
    EXPECT_EQ(content.exitCode, 1);
    EXPECT_EQ(dataControl.exitCode, 1);
    EXPECT_EQ(content.err, "tilvanectl data select: refused: permission level too low\n");
    EXPECT_EQ(dataControl.err, content.err);

    /* A refused write keeps its code and gains its reason. */
    Outcome write = As(kStranger, {"data", "insert", "sections", "section_title=x"});
    EXPECT_EQ(write.exitCode, 1);
    EXPECT_EQ(write.err, "tilvanectl data insert: permission denied (-13): permission level too low\n");
}

/* 5. --help is never an argument; --opt=value works; usage after a mistake goes to standard error. */
TEST_F(FirstRunTest, HelpOnEveryGroupAndCommandIsNeverTakenAsAnArgument)
{
    Process* service = RunningService();
    Outcome visible = Ctl({"launcher", "visible", "--help"});
    EXPECT_EQ(visible.exitCode, 0);
    EXPECT_NE(visible.out.find("Usage: tilvanectl launcher"), std::string::npos) << visible.out;
    Outcome install = Ctl({"app", "install", "--help"});
    EXPECT_EQ(install.exitCode, 0);
    EXPECT_NE(install.out.find("Usage: tilvanectl app install MANIFEST"), std::string::npos) << install.out;
    EXPECT_EQ(install.err, "");
    Outcome insert = Ctl({"data", "insert", "--help"});
    EXPECT_EQ(insert.exitCode, 0);
    EXPECT_NE(insert.out.find("Usage: tilvanectl [--app-id ID] data"), std::string::npos) << insert.out;
    for (const char* group : {"app", "events", "data", "publish", "accelerator", "launcher", "key", "power-off",
                              "system-info"}) {
        Outcome help = Ctl({group, "--help"});
        EXPECT_EQ(help.exitCode, 0) << group;
        EXPECT_NE(help.out.find("Usage: tilvanectl"), std::string::npos) << group << help.out;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(service->Err().find("--help"), std::string::npos) << service->Err();

    Outcome published = Ctl({"--app-id=" + std::string(kPublisher), "data", "select", "accelerators", "--columns=_id",
                         "--where=_id > ?", "--arg=0"});
    EXPECT_EQ(published.exitCode, 0) << published.err;
    EXPECT_NE(published.out.find("(1 row)"), std::string::npos) << published.out;

    Outcome bare = Ctl({"data"});
    EXPECT_EQ(bare.exitCode, 2);
    EXPECT_EQ(bare.out, "");
    EXPECT_NE(bare.err.find("Usage: tilvanectl"), std::string::npos);
    Outcome nothing = Ctl({});
    EXPECT_EQ(nothing.exitCode, 2);
    EXPECT_EQ(nothing.out, "");
}

/* 6. A sync mark is reported as what it is. */
TEST_F(FirstRunTest, ASyncEndMarkIsReportedAsSentOnBothInterfaces)
{
    Process* service = RunningService();
    Outcome content = As(kPublisher, {"data", "insert", "tiles", "tiles_sync_event=sync_end"});
    EXPECT_EQ(content.exitCode, 0) << content.err;
    EXPECT_EQ(content.out, "sync end mark sent\n");
    Outcome dataControl = As(kPublisher, {"data", "insert", "tiles", "--interface", "data-control",
                                      "tiles_sync_event=sync_end"});
    EXPECT_EQ(dataControl.exitCode, 0) << dataControl.err;
    EXPECT_EQ(dataControl.out, "sync end mark sent\n");
    /* The service acted on both marks. */
    EXPECT_TRUE(service->WaitFor("Try to Send sync event appID org.example.videos.main", true, 5000));
    EXPECT_EQ(Occurrences(service->Err(), "Try to Send sync event appID org.example.videos.main"), 2u)
        << service->Err();
}

/* 7. A section without its entry is flagged; publish does it all in one command. */
TEST_F(FirstRunTest, PublishPutsSectionsAndTilesUnderTheCallersEntryAndTheyReadBack)
{
    Process* service = RunningService();
    Outcome loose = As(kPublisher, {"data", "insert", "sections", "section_title=Evening"});
    EXPECT_EQ(loose.exitCode, 0);
    EXPECT_NE(loose.err.find("warning: no section_accelerator_raw_id given"), std::string::npos) << loose.err;

    const std::string file = std::string(TILVANE_EXAMPLES_DIR) + "/publish/news.json";
    Outcome published = As(kPublisher, {"publish", file});
    ASSERT_EQ(published.exitCode, 0) << published.err;
    const std::vector<std::string> lines = Lines(published.out);
    ASSERT_EQ(lines.size(), 4u) << published.out;
    EXPECT_EQ(lines[0].rfind("launcher entry ", 0), 0u);
    const std::string entry = lines[0].substr(std::string("launcher entry ").size());
    EXPECT_NE(lines[1].find("\"Evening news\": 2 tiles"), std::string::npos) << published.out;
    EXPECT_NE(lines[2].find("\"Kultur & Fernsehen – Übersicht\": 1 tile"), std::string::npos) << published.out;
    EXPECT_EQ(lines[3], "published 2 sections and 3 tiles; sync end mark sent");
    EXPECT_TRUE(service->WaitFor("Try to Send sync event appID org.example.videos.main", true, 5000));

    Outcome sections = As(kPublisher, {"data", "select", "sections", "--json", "--columns",
                                   "_id,section_title,section_accelerator_raw_id", "--where",
                                   "section_accelerator_raw_id = ?", "--arg", entry, "--order", "_id"});
    ASSERT_EQ(sections.exitCode, 0) << sections.err;
    EXPECT_NE(sections.out.find("\"section_title\": \"Evening news\", \"section_accelerator_raw_id\": " + entry),
              std::string::npos)
        << sections.out;
    Outcome tiles = As(kPublisher, {"data", "select", "tiles", "--columns", "tile_title,tile_section_raw_id", "--order",
                                "_id"});
    ASSERT_EQ(tiles.exitCode, 0) << tiles.err;
    EXPECT_NE(tiles.out.find("Konzert in München"), std::string::npos) << tiles.out;
    EXPECT_NE(tiles.out.find("(3 rows)"), std::string::npos) << tiles.out;

    /* --replace leaves one copy. */
    Outcome again = As(kPublisher, {"publish", file, "--replace"});
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_NE(again.out.find("removed 2 previous sections and their tiles"), std::string::npos) << again.out;
    tiles = As(kPublisher, {"data", "select", "tiles", "--columns", "_id"});
    EXPECT_NE(tiles.out.find("(3 rows)"), std::string::npos) << tiles.out;

    /* An application without a launcher entry publishes nothing, and is told why. */
    Outcome stranger = As(kStranger, {"publish", file});
    EXPECT_EQ(stranger.exitCode, 1);
    EXPECT_NE(stranger.err.find("permission level too low"), std::string::npos) << stranger.err;
    tilvane::test::WriteFile(m_logs.File("bad.json"), "{\"sections\": [{\"section_title\": \"x\", \"tiles\": 3}]}");
    Outcome bad = As(kPublisher, {"publish", m_logs.File("bad.json")});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_NE(bad.err.find("section 1: \"tiles\" must be an array of tiles; nothing was published"),
              std::string::npos)
        << bad.err;
}

/* 8. Counts of changed rows; deleting everything asks for --all. */
TEST_F(FirstRunTest, UpdateAndDeletePrintTheRowsTheyChangedAndDeleteAllAsksForAll)
{
    RunningService();
    ASSERT_EQ(As(kPublisher, {"publish", std::string(TILVANE_EXAMPLES_DIR) + "/publish/news.json"}).exitCode, 0);
    Outcome updated = As(kPublisher, {"data", "update", "tiles", "--where", "tile_id = ?", "--arg", "weather",
                                  "tile_title=Rain"});
    EXPECT_EQ(updated.exitCode, 0) << updated.err;
    EXPECT_EQ(updated.out, "updated 1 row\n");
    Outcome none = As(kPublisher, {"data", "update", "tiles", "--where", "tile_id = 'nothing'", "tile_title=x"});
    EXPECT_EQ(none.out, "updated 0 rows\n");
    updated = As(kPublisher, {"data", "update", "tiles", "--interface", "data-control", "--where", "1 = 1",
                              "tile_progress=5"});
    EXPECT_EQ(updated.out, "updated 3 rows\n") << updated.err;

    Outcome refused = As(kPublisher, {"data", "delete", "tiles"});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find("--all"), std::string::npos) << refused.err;
    Outcome one = As(kPublisher, {"data", "delete", "tiles", "--where", "tile_id = ?", "--arg", "concert"});
    EXPECT_EQ(one.out, "deleted 1 row\n") << one.err;
    Outcome all = As(kPublisher, {"data", "delete", "sections", "--all", "--interface", "data-control"});
    EXPECT_EQ(all.exitCode, 0) << all.err;
    EXPECT_EQ(all.out, "deleted 2 rows\n");
    Outcome left = As(kPublisher, {"data", "select", "tiles", "--columns", "_id"});
    EXPECT_NE(left.out.find("(0 rows)"), std::string::npos) << left.out;
}

/* 9. A subscriber follows the service across a restart. */
TEST_F(FirstRunTest, EventsSubscribeSubscribesAgainWhenTheServiceComesBack)
{
    Process* first = RunningService();
    Process subscriber({TILVANECTL_BINARY, "--app-id", "org.example.listener", "events", "subscribe"},
                       {"TILVANE_PLATFORM_ROOT=" + m_root.Path()}, m_logs.File("sub.out"), m_logs.File("sub.err"));
    ASSERT_TRUE(first->WaitFor("[org.example.listener] was added", true, 10000)) << subscriber.Err();

    first->Signal(SIGTERM);
    ASSERT_EQ(first->Wait(20000), 0);
    m_processes.clear();
    ASSERT_TRUE(subscriber.WaitFor("left the bus; waiting for it to come back", true, 10000)) << subscriber.Err();

    Process* second = StartService({}, "second");
    ASSERT_TRUE(subscriber.WaitFor("is back on the bus: subscribed again", true, 20000)) << subscriber.Err();
    EXPECT_TRUE(second->WaitFor("[org.example.listener] was added", true, 10000)) << second->Err();

    subscriber.Signal(SIGTERM);
    EXPECT_EQ(subscriber.Wait(10000), 0) << subscriber.Err();
}

/* 10. Tables and help rows line up by what the terminal shows. */
TEST_F(FirstRunTest, TablesAndHelpAlignByDisplayWidth)
{
    RunningService();
    ASSERT_EQ(As(kPublisher, {"publish", std::string(TILVANE_EXAMPLES_DIR) + "/publish/news.json"}).exitCode, 0);
    Outcome table = As(kPublisher, {"data", "select", "tiles", "--columns", "tile_title,tile_position", "--order", "_id"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    const std::vector<std::string> lines = Lines(table.out);
    ASSERT_EQ(lines.size(), 5u) << table.out;
    const size_t header = ColumnOf(lines[0], lines[0].find("tile_position"));
    size_t checked = 0;
    for (size_t i = 1; i < 4; ++i) {
        const size_t last = lines[i].find_last_of(' ');
        ASSERT_NE(last, std::string::npos);
        EXPECT_EQ(ColumnOf(lines[i], last + 1), header) << table.out;
        ++checked;
    }
    EXPECT_EQ(checked, 3u);
    EXPECT_NE(table.out.find("Konzert in München"), std::string::npos);

    Outcome help = Ctl({"--help"});
    std::vector<size_t> starts;
    for (const std::string& line : Lines(help.out)) {
        for (const char* group : {"app ", "accelerator ", "system-info ", "power-off "}) {
            if (line.rfind(std::string("  ") + group, 0) == 0) {
                starts.push_back(line.find_first_not_of(' ', line.find(' ', 2)));
            }
        }
    }
    ASSERT_EQ(starts.size(), 4u) << help.out;
    for (size_t start : starts) {
        EXPECT_EQ(start, starts[0]) << help.out;
    }
}

TEST_F(FirstRunTest, AppListAsJson)
{
    Outcome list = Ctl({"app", "list", "--json"});
    EXPECT_EQ(list.exitCode, 0) << list.err;
    EXPECT_NE(list.out.find("{\"package\": \"org.example.videos\", \"webapp\": \"VideoStore0042\", \"apps\": ["),
              std::string::npos)
        << list.out;
    EXPECT_NE(list.out.find("{\"app\": \"org.example.videos.main\", \"metadata\": "
                            "{\"http://developer.quillon.com/tv/metadata/use.preview\": \"true\"}}"),
              std::string::npos)
        << list.out;
}

}  // namespace
