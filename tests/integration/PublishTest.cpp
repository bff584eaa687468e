/*
 * The atomic publish against the real service on a private bus: this process
 * is the publishing application (the typed client of tilvane_publisher.h),
 * other processes are a preview-event subscriber (tilvanectl events
 * subscribe) and the launcher reading while content is replaced.
 */
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <host_control.h>
#include <tilvane_publisher.h>

#include "ProcessesUnderRoot.h"
#include "TestProcess.h"
#include "TestSupport.h"

using tilvane::test::Process;
using tilvane::test::RawDatabase;
namespace client = tilvane::client;

namespace {

const char kPublisher[] = "org.example.videos.main";
const char kOtherPublisher[] = "org.example.radio.main";

size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

/* `sections` sections of `tiles` tiles, every tile id starting with `mark`. */
client::Content Generation(const std::string& mark, int sections, int tiles)
{
    client::Content content;
    for (int s = 0; s < sections; ++s) {
        client::Section& section = content.AddSection(mark + " section " + std::to_string(s));
        section.position = s;
        for (int t = 0; t < tiles; ++t) {
            client::Tile& tile = section.AddTile(mark + " tile " + std::to_string(t));
            tile.id = mark + "-" + std::to_string(s) + "-" + std::to_string(t);
            tile.position = t;
            tile.imageUrl = "https://example.org/" + tile.id + ".jpg";
        }
    }
    return content;
}

class PublishTest : public tilvane::test::ProcessesUnderRootTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        setenv("TILVANE_PLATFORM_ROOT", m_root.Path().c_str(), 1);
        tilvane::host::SetPlatformRoot(m_root.Path());
        ASSERT_EQ(Ctl({"app", "install", std::string(TILVANE_EXAMPLES_DIR) + "/apps/launcher.manifest"}), 0);
        const std::string radio = m_logs.File("radio.manifest");
        std::ofstream(radio) << "package = org.example.radio\napp = org.example.radio.main\n"
                                "metadata = http://developer.quillon.com/tv/metadata/use.preview true\n";
        ASSERT_EQ(Ctl({"app", "install", radio}), 0);
    }

    void TearDown() override { StopAll(); }

    /* Extra lines of the integrator's configuration, before the service starts. */
    void Configure(const std::string& lines) { std::ofstream(m_root.File("etc/tilvane.conf"), std::ios::app) << lines; }

    Process* RunningService()
    {
        Process* service = Start({TILVANE_SERVICE_BINARY}, "service", {"TILVANE_LOG_LEVEL=D"});
        EXPECT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();
        return service;
    }

    int Ctl(const std::vector<std::string>& words, std::string* out = nullptr, std::string* err = nullptr)
    {
        std::vector<std::string> args = {TILVANECTL_BINARY};
        args.insert(args.end(), words.begin(), words.end());
        const std::string name = "ctl" + std::to_string(++m_runs);
        Process ctl(args, {"TILVANE_PLATFORM_ROOT=" + m_root.Path()}, m_logs.File(name + ".out"),
                    m_logs.File(name + ".err"));
        const int code = ctl.Wait(60000);
        if (out != nullptr) {
            *out = ctl.Out();
        }
        if (err != nullptr) {
            *err = ctl.Err();
        }
        return code;
    }

    /* Every column of every row of the three tables, and the row-id
     * counters, as exact SQL literals. */
    std::string Dump()
    {
        return RawDatabase(m_root.File("opt/dbspace/.preview.db"))
            .Dump({"accelerators", "sections", "tiles", "sqlite_sequence"});
    }

    int m_runs = 0;
};

TEST_F(PublishTest, OneSectionWithTwoTilesIsPublishedAndReadsBackEqual)
{
    Process* service = RunningService();
    const client::Publisher publisher(kPublisher);
    client::Content content;
    client::Section& news = content.AddSection("Evening news");
    news.id = "evening";
    news.titleDisplay = client::DisplayMode::Always;
    news.AddTile("Headlines").imageUrl = "https://example.org/news/headlines.jpg";
    client::Tile& weather = news.AddTile("Weather for the week");
    weather.imageRatio = client::ImageRatio::Wide;
    weather.progress = 40;
    weather.favorite = true;

    const auto published = publisher.Publish(content, client::PublishMode::Replace);
    ASSERT_TRUE(published) << published.status().reason;
    const auto read = publisher.Read();
    ASSERT_TRUE(read) << read.status().reason;
    EXPECT_TRUE(*read == content);
    EXPECT_EQ(read->entry.rowId, published->entryRowId);
    ASSERT_EQ(read->sections.size(), 1u);
    EXPECT_EQ(read->sections[0].rowId, published->sectionRowIds[0]);
    EXPECT_EQ(read->sections[0].tiles[1].imageRatio, client::ImageRatio::Wide);
    EXPECT_TRUE(service->WaitFor("publish of org.example.videos.main: 5 step(s) stored", true, 5000));

    /* Publishing again appends; replacing leaves one copy. */
    ASSERT_TRUE(publisher.Publish(content));
    EXPECT_EQ(publisher.Read()->sections.size(), 2u);
    const auto replaced = publisher.Publish(content, client::PublishMode::Replace);
    ASSERT_TRUE(replaced);
    EXPECT_EQ(replaced->removedSections, 2);
    EXPECT_TRUE(*publisher.Read() == content);
}

TEST_F(PublishTest, AnApplicationWithoutALauncherEntryIsToldWhyAndPublishesNothing)
{
    RunningService();
    const client::Publisher stranger("org.example.stranger");
    const auto published = stranger.Publish(Generation("x", 1, 1));
    EXPECT_EQ(published.status().code, client::ErrorCode::PermissionDenied);
    EXPECT_EQ(published.status().reason, "finding the launcher entry: permission level too low");
    EXPECT_EQ(RawDatabase(m_root.File("opt/dbspace/.preview.db")).Count("sections"), 0);
}

TEST_F(PublishTest, APublishWhoseThirdStepFailsLeavesThePreviousContentByteForByteAndSendsNoEvent)
{
    /* Values of more than 64 bytes are refused: the third step of a replace
     * (the first section) carries one. */
    /* The listener is a trusted sender: under strict confinement only the
     * platform hears of another package's changes. */
    Configure("[strict]\nconfinement = true\nvalue-bytes = 64\ntrusted-senders = org.example.listener\n");
    Process* service = RunningService();
    Process* subscriber = Start({TILVANECTL_BINARY, "--app-id", "org.example.listener", "events", "subscribe"},
                                "subscriber", {"TILVANE_LOG_LEVEL=D"});
    ASSERT_TRUE(service->WaitFor("[org.example.listener] was added", true, 10000)) << service->Err();

    const client::Publisher publisher(kPublisher);
    ASSERT_TRUE(publisher.Publish(Generation("old", 3, 4), client::PublishMode::Replace));
    ASSERT_TRUE(subscriber->WaitFor("sync=end", false, 10000));
    ASSERT_TRUE(subscriber->WaitFor("tiles_sync_event=sync_end", false, 10000)) << subscriber->Out();
    const std::string before = Dump();
    const std::string eventsBefore = subscriber->Out();
    ASSERT_EQ(CountOf(eventsBefore, "\n"), 5u) << "the replace's delete, three bulks, the end mark:\n"
                                                << eventsBefore;

    client::Content refused = Generation("new", 3, 4);
    refused.sections[0].title = std::string(65, 't');
    const auto failed = publisher.Publish(refused, client::PublishMode::Replace);
    EXPECT_EQ(failed.status().code, client::ErrorCode::Refused);
    EXPECT_EQ(failed.status().section, 0);
    EXPECT_EQ(failed.status().reason,
              "writing section 0 (\"" + std::string(65, 't') +
                  "\"): the value of section_title has 65 bytes, more than the 64 allowed (strict confinement, "
                  "rule limits, result -1)");
    EXPECT_TRUE(service->WaitFor("publish of org.example.videos.main: step 2 of 9 failed, nothing stored", true,
                                 5000));
    EXPECT_EQ(Dump(), before);

    /* The next publish's events are the next the subscriber sees: none came
     * of the failed one (its delete and bulks ran before the refusal). */
    client::Content marker;
    marker.AddSection("marker").AddTile("m");
    ASSERT_TRUE(publisher.Publish(marker));
    /* Its end mark is the first one past what was seen before (its section's
     * row id alone could match an old line). */
    const std::string endMark = "tiles_sync_event=sync_end";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (subscriber->Out().find(endMark, eventsBefore.size()) == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string after = subscriber->Out().substr(eventsBefore.size());
    ASSERT_NE(after.find(endMark), std::string::npos) << subscriber->Out();
    EXPECT_EQ(CountOf(after, "\n"), 2u) << "the marker's bulk and end mark only:\n" << after;
    EXPECT_EQ(after.find("OPERATION=DELETE"), std::string::npos) << after;
}

TEST_F(PublishTest, ARefusedPublishOfTilvanectlLeavesNoneOfItsSectionsPublished)
{
    /* The listener is a trusted sender: under strict confinement only the
     * platform hears of another package's changes. */
    Configure("[strict]\nconfinement = true\nvalue-bytes = 64\ntrusted-senders = org.example.listener\n");
    RunningService();
    ASSERT_EQ(Ctl({"--app-id", kPublisher, "publish", std::string(TILVANE_EXAMPLES_DIR) + "/publish/news.json"}), 0);
    const std::string before = Dump();
    const std::string file = m_logs.File("third-refused.json");
    std::ofstream(file) << "{\"sections\": [{\"section_title\": \"one\", \"tiles\": [{\"tile_title\": \"a\"}]},"
                           " {\"section_title\": \"two\"}, {\"section_title\": \"" + std::string(80, 'x') + "\"}]}";
    std::string out;
    std::string err;
    EXPECT_EQ(Ctl({"--app-id", kPublisher, "publish", file, "--replace"}, &out, &err), 1);
    EXPECT_NE(err.find("tilvanectl publish: refused: writing section 2"), std::string::npos) << err;
    EXPECT_NE(err.find("; nothing was published"), std::string::npos) << err;
    EXPECT_EQ(out, "");
    EXPECT_EQ(Dump(), before);
}

/* The launcher's view of the tiles, one line each time it changes: "old" or
 * "new" when a read showed 1,000 tiles of one generation, else "mixed <rows>
 * <old> <new>". */
std::string ViewOf(const tilvane::client::RowSet& rows)
{
    size_t olds = 0;
    size_t news = 0;
    for (const auto& row : rows.rows) {
        olds += row[0].text.rfind("old", 0) == 0 ? 1 : 0;
        news += row[0].text.rfind("new", 0) == 0 ? 1 : 0;
    }
    if (rows.rows.size() == 1000 && (olds == 1000 || news == 1000)) {
        return olds == 1000 ? "old" : "new";
    }
    return "mixed " + std::to_string(rows.rows.size()) + " " + std::to_string(olds) + " " + std::to_string(news);
}

TEST_F(PublishTest, AReplaceOfAThousandTilesWhileTheLauncherReadsNeverShowsAMix)
{
    RunningService();
    const std::string stopFile = m_logs.File("stop");
    const std::string seenFile = m_logs.File("seen");
    /* The launcher: a process of its own, forked before this one connects,
     * reading every tile again and again and writing down each view it gets. */
    tilvane::test::ChildProcess launcher([&](int readyFd) {
        tilvane::host::SetOwnAppId("ContentServiceManager");
        tilvane::client::ContentClient reader;
        tilvane::test::ChildProcess::SignalReady(readyFd);
        std::string last;
        while (!tilvane::test::FileExists(stopFile)) {
            const auto read = reader.Select(tilvane::client::schema::tiles::kUri, {"tile_id"}, "", {}, "", "");
            if (!read.Ok()) {
                return 2;
            }
            const std::string view = ViewOf(read.rows);
            if (view != last) {
                std::ofstream(seenFile, std::ios::app) << view << "\n";
                last = view;
            }
        }
        return 0;
    });
    ASSERT_TRUE(launcher.Started());
    const client::Publisher publisher(kPublisher);
    const auto first = publisher.Publish(Generation("old", 10, 100), client::PublishMode::Replace);
    ASSERT_TRUE(first);
    ASSERT_TRUE(launcher.Go());
    ASSERT_TRUE(launcher.WaitReady());
    std::string expected = "old\n";
    auto seen = [&](const std::string& views) {
        return tilvane::test::IterateMainContextUntil(
            [&] { return tilvane::test::ReadAll(seenFile) == views; }, 20000);
    };
    ASSERT_TRUE(seen(expected)) << tilvane::test::ReadAll(seenFile);
    for (int round = 0; round < 6; ++round) {
        const std::string generation = round % 2 == 0 ? "new" : "old";
        const auto replaced = publisher.Publish(Generation(generation, 10, 100), client::PublishMode::Replace);
        ASSERT_TRUE(replaced) << replaced.status().reason;
        EXPECT_EQ(replaced->removedSections, 10);
        /* The launcher reads on while the next replace runs: each replace is
         * seen whole, and no other view comes between. */
        expected += generation + "\n";
        ASSERT_TRUE(seen(expected)) << tilvane::test::ReadAll(seenFile);
    }

    /* The same reader does see a replace made of single requests half done. */
    tilvane::client::ContentClient requests;
    ASSERT_TRUE(requests
                    .Delete(tilvane::client::schema::sections::kUri, "section_accelerator_raw_id = ?",
                            {std::to_string(first->entryRowId)})
                    .Ok());
    EXPECT_TRUE(seen(expected + "mixed 0 0 0\n")) << tilvane::test::ReadAll(seenFile);
    tilvane::test::WriteFile(stopFile, "");
    EXPECT_EQ(launcher.Wait(60000), 0) << "a read failed";
}

TEST_F(PublishTest, ASubscriptionCallsBackForTheApplicationsOwnChangesOnly)
{
    RunningService();
    const client::Publisher publisher(kPublisher);
    std::vector<client::ChangeEvent> changes;
    auto subscription = publisher.Subscribe([&changes](const client::ChangeEvent& change) { changes.push_back(change); });
    ASSERT_TRUE(subscription) << subscription.status().reason;

    /* Another application's publish is not this one's change. */
    const std::string file = m_logs.File("weather.json");
    std::ofstream(file) << "{\"sections\": [{\"section_title\": \"Weather\", \"tiles\": [{\"tile_title\": \"Sun\"}]}]}";
    ASSERT_EQ(Ctl({"--app-id", kOtherPublisher, "publish", file}), 0);
    EXPECT_EQ(publisher.WaitForChanges(500), 0);

    const auto published = publisher.Publish(Generation("own", 1, 2), client::PublishMode::Replace);
    ASSERT_TRUE(published);
    while (changes.size() < 3 && publisher.WaitForChanges(5000) > 0) {
    }
    ASSERT_EQ(changes.size(), 3u) << "the replace's delete, the tiles' bulk and the end mark";
    EXPECT_EQ(changes[0].kind, client::ChangeEvent::Kind::Deleted);
    EXPECT_EQ(changes[1].kind, client::ChangeEvent::Kind::Inserted);
    EXPECT_EQ(changes[1].sectionRowId, published->sectionRowIds[0]);
    EXPECT_EQ(changes[2].kind, client::ChangeEvent::Kind::Published);
    EXPECT_EQ(changes[2].sectionRowId, published->sectionRowIds[0]);

    subscription->Cancel();
    ASSERT_TRUE(publisher.Publish(Generation("own", 1, 2), client::PublishMode::Replace));
    EXPECT_EQ(publisher.WaitForChanges(500), 0);
    EXPECT_EQ(changes.size(), 3u);
}

TEST_F(PublishTest, ABulkFileOverTheLimitGoesInPartsWithProgressOnATerminal)
{
    RunningService();
    const client::Publisher publisher(kPublisher);
    client::Content content;
    content.AddSection("bulk");
    const auto published = publisher.Publish(content, client::PublishMode::Replace);
    ASSERT_TRUE(published);
    const std::string section = std::to_string(published->sectionRowIds[0]);
    const std::string file = m_logs.File("tiles.jsonl");
    {
        std::ofstream rows(file);
        for (int i = 0; i < 10000; ++i) {
            rows << "{\"tile_id\": \"t" << i << "\", \"tile_section_raw_id\": " << section << "}\n";
        }
    }
    /* On a terminal (script gives the command one): a progress line. */
    const std::string command = std::string(TILVANECTL_BINARY) + " --app-id " + kOtherPublisher +
                                " data insert tiles --bulk " + file;
    std::string out;
    Process onTerminal({"/usr/bin/script", "-qec", command, "/dev/null"}, {"TILVANE_PLATFORM_ROOT=" + m_root.Path()},
                       m_logs.File("tty.out"), m_logs.File("tty.err"));
    EXPECT_EQ(onTerminal.Wait(60000), 0) << onTerminal.Out();
    EXPECT_NE(onTerminal.Out().find("\rinserting: 4096 of 10000 rows (part 1 of 3)"), std::string::npos)
        << onTerminal.Out();
    EXPECT_NE(onTerminal.Out().find("inserted 10000 rows in 3 parts, last row id"), std::string::npos);

    /* Not on a terminal: the result line only. */
    std::string err;
    ASSERT_EQ(Ctl({"--app-id", kOtherPublisher, "data", "insert", "tiles", "--bulk", file}, &out, &err), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(out.rfind("inserted 10000 rows in 3 parts, last row id ", 0), 0u) << out;
    EXPECT_EQ(RawDatabase(m_root.File("opt/dbspace/.preview.db")).Count("tiles"), 20000);

    /* A row that alone is over the limit is named, and nothing is sent. */
    std::ofstream(file, std::ios::app) << "{\"tile_title\": \"" << std::string(1100000, 'x') << "\"}\n";
    EXPECT_EQ(Ctl({"--app-id", kOtherPublisher, "data", "insert", "tiles", "--bulk", file}, &out, &err), 1);
    EXPECT_NE(err.find("row 10001 has 1100010 bytes of column names and values; a row may have at most 1048576 "
                       "(the limit of one request); nothing was inserted"),
              std::string::npos)
        << err;
    EXPECT_EQ(RawDatabase(m_root.File("opt/dbspace/.preview.db")).Count("tiles"), 20000);
}

}  // namespace
