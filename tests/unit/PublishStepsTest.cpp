/*
 * The atomic publish in process, against the real provider: the steps go
 * through the provider's registered callbacks as their single requests do,
 * back-references carry row ids, and a publish that fails anywhere (a step,
 * a bulk's row, the commit) leaves every table byte for byte and sends no
 * event. The call's two ends are those of the bus (publish_call.h and
 * AnswerPublish); only the bus itself is left out.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <host_control.h>
#include <message_port.h>

#include "MessageHelper.h"
#include "PreviewApps.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"
#include "client/client_calls.h"
#include "client/publish_call.h"
#include "requests/request_glue.h"

using tilvane::host::publish::Reply;
using tilvane::host::publish::Step;
using tilvane::test::CountLines;
using tilvane::test::RawDatabase;
namespace schema = tilvane::client::schema;

namespace {

const char kNewsApp[] = "org.example.news.ui";
const char kSportsApp[] = "org.example.sports.ui";
const char kListenerPort[] = "publish-events";

void IgnoreMessage(int, const char*, const char*, bool, bundle*, void*)
{
}

std::string Row(const tilvane::client::Values& values)
{
    bool ok = false;
    std::string encoded = tilvane::host::clientcalls::Encode(values, ok);
    EXPECT_TRUE(ok);
    return encoded;
}

Step EntryStep()
{
    return Step{"GetRowIds", schema::accelerators::kUri, {}, "", {}, {}, {}};
}

Step SectionStep(const std::string& title, uint32_t entryStep = 0)
{
    return Step{"Insert", schema::sections::kUri, {Row({{schema::sections::kTitle, title}})}, "", {},
                {{schema::sections::kEntryRowId, entryStep}}, {}};
}

Step TilesStep(const std::vector<std::string>& titles, uint32_t sectionStep)
{
    Step step{"BulkInsert", schema::tiles::kUri, {}, "", {}, {{schema::tiles::kSectionRowId, sectionStep}}, {}};
    for (const std::string& title : titles) {
        step.rows.push_back(Row({{schema::tiles::kTitle, title}}));
    }
    return step;
}

Step EndMarkStep(uint32_t sectionStep)
{
    return Step{"Insert", schema::tiles::kUri, {Row({{schema::kSyncKey, schema::kSyncEnd}})}, "", {},
                {{schema::tiles::kSectionRowId, sectionStep}}, {}};
}

Step ReplaceStep()
{
    return Step{"Delete", schema::sections::kUri, {}, std::string(schema::sections::kEntryRowId) + " = ?", {""}, {},
                {{0, 0}}};
}

class PublishStepsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::UseVirtualClock(true);
        tilvane::host::SetOwnAppId("com.quillon.px.tilvane");
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.news", kNewsApp));
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter("org.example.sports", kSportsApp));
        m_provider = CTilesProvider::GetInstance();
        ASSERT_NE(m_provider, nullptr);
        ASSERT_GT(message_port_register_local_port(kListenerPort, IgnoreMessage, nullptr), 0);
        CTilesProviderTestAccess::SyncEventHelper(m_provider)->SubscribalRequest("com.quillon.px.tilvane",
                                                                                kListenerPort);
        tilvane::host::RecordSentMessages(true);
    }

    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    /* Runs the steps as `app` would send them; `invalid` receives why a
     * publish was refused before any step ran. */
    Reply Publish(const std::string& app, const std::vector<Step>& steps, std::string* invalid = nullptr)
    {
        GVariant* arguments = g_variant_ref_sink(tilvane::host::publish::Arguments(steps));
        std::string why;
        GVariant* answer = tilvane::host::requests::AnswerPublish(app, arguments, why);
        g_variant_unref(arguments);
        Reply reply;
        if (answer != nullptr) {
            g_variant_ref_sink(answer);
            tilvane::host::publish::ReadReply(answer, reply);
            g_variant_unref(answer);
        }
        if (invalid != nullptr) {
            *invalid = why;
        }
        return reply;
    }

    /* Every column of every row of the three tables, and the row-id
     * counters, as exact SQL literals. */
    std::string Dump()
    {
        return RawDatabase(m_sandbox.DatabaseDirectory() + ".preview.db")
            .Dump({"accelerators", "sections", "tiles", "sqlite_sequence"});
    }

    std::vector<std::string> Column(const std::string& sql)
    {
        return RawDatabase(m_sandbox.DatabaseDirectory() + ".preview.db").Column(sql);
    }

    size_t Events() const
    {
        size_t count = 0;
        for (const tilvane::host::SentMessage& message : tilvane::host::SentMessages()) {
            count += message.port == kListenerPort ? 1 : 0;
        }
        return count;
    }

    /* A published section "Old" with two tiles under the news entry. */
    void PublishOldContent()
    {
        const Reply old = Publish(kNewsApp, {EntryStep(), SectionStep("Old"), TilesStep({"o1", "o2"}, 1),
                                             EndMarkStep(1)});
        ASSERT_TRUE(old.result.Ok()) << old.result.message;
    }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
    CTilesProvider* m_provider = nullptr;
};

TEST_F(PublishStepsTest, LaterStepsUseTheRowIdsOfEarlierOnes)
{
    Step retitle{"Update", schema::tiles::kUri, {Row({{schema::tiles::kTitle, "renamed"}})}, "_id = ?", {"x"}, {},
                 {{0, 2}}};
    const Reply reply = Publish(kNewsApp, {EntryStep(), SectionStep("Evening"), TilesStep({"a", "b", "c"}, 1),
                                           retitle, EndMarkStep(1)});
    ASSERT_TRUE(reply.result.Ok()) << reply.result.message;
    ASSERT_EQ(reply.result.rowIds.size(), 5u);
    const std::string entry = Column("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = "
                                     "'org.example.news'")[0];
    EXPECT_EQ(std::to_string(reply.result.rowIds[0]), entry);
    const std::string section = std::to_string(reply.result.rowIds[1]);
    EXPECT_EQ(Column("SELECT section_accelerator_raw_id FROM sections WHERE _id = " + section)[0], entry);
    EXPECT_EQ(Column("SELECT group_concat(tile_title) FROM (SELECT tile_title FROM tiles WHERE "
                     "tile_section_raw_id = " + section + " ORDER BY _id)")[0],
              "a,b,renamed");
    EXPECT_EQ(reply.changedRows[3], 1) << "the update changed the bulk's last row";
    EXPECT_EQ(reply.result.rowIds[4], -1) << "the sync end mark writes no row";
    EXPECT_EQ(CountLines("tilvane-platform", "publish of org.example.news.ui: 5 step(s) stored"), 1);
}

TEST_F(PublishStepsTest, AThirdStepThatFailsStoresNothingAndSendsNoEvent)
{
    PublishOldContent();
    const size_t eventsBefore = Events();
    ASSERT_EQ(eventsBefore, 2u) << "the old content's bulk and its end mark";
    const std::string before = Dump();

    Step broken = SectionStep("New");
    broken.rows = {Row({{schema::sections::kTitle, "New"}, {"no_such_column", "x"}})};
    const Reply reply =
        Publish(kNewsApp, {EntryStep(), ReplaceStep(), broken, TilesStep({"n1"}, 2), EndMarkStep(2)});

    EXPECT_FALSE(reply.result.Ok());
    EXPECT_EQ(reply.failedStep, 2);
    EXPECT_EQ(reply.result.outcome, tilvane::client::Outcome::Answered);
    EXPECT_NE(reply.result.code, 0);
    EXPECT_EQ(reply.result.message, "table sections has no column named no_such_column");
    EXPECT_EQ(Dump(), before);
    EXPECT_EQ(Events(), eventsBefore) << "the replace's delete event is dropped with it";
    EXPECT_EQ(CountLines("tilvane-platform", "publish of org.example.news.ui: step 2 of 5 failed, nothing stored"),
              1);
}

TEST_F(PublishStepsTest, AReplaceThatSucceedsSendsItsEventsAfterTheCommitInOrder)
{
    PublishOldContent();
    tilvane::host::ClearSentMessages();
    const Reply reply = Publish(kNewsApp, {EntryStep(), ReplaceStep(), SectionStep("New"), TilesStep({"n1"}, 2),
                                           EndMarkStep(2)});
    ASSERT_TRUE(reply.result.Ok()) << reply.result.message;
    EXPECT_EQ(reply.changedRows[1], 1) << "the old section was removed";
    std::vector<std::string> kinds;
    for (const tilvane::host::SentMessage& message : tilvane::host::SentMessages()) {
        std::string text;
        for (const auto& entry : message.entries) {
            text += entry.first + "=" + entry.second + " ";
        }
        kinds.push_back(text);
    }
    ASSERT_EQ(kinds.size(), 3u);
    EXPECT_NE(kinds[0].find("OPERATION=DELETE"), std::string::npos) << kinds[0];
    EXPECT_NE(kinds[1].find("tile_section_raw_id=" + std::to_string(reply.result.rowIds[2])), std::string::npos);
    EXPECT_NE(kinds[2].find("tiles_sync_event=sync_end"), std::string::npos) << kinds[2];
    EXPECT_EQ(Column("SELECT group_concat(tile_title) FROM tiles WHERE tile_id IS NULL")[0], "n1");
}

TEST_F(PublishStepsTest, ACommitThatFailsStoresNothingAndSendsNoEvent)
{
    PublishOldContent();
    const size_t eventsBefore = Events();
    const std::string before = Dump();
    tilvane::host::FailNextCalls("OuterTransaction::Commit", 1);
    const Reply reply = Publish(kNewsApp, {EntryStep(), ReplaceStep(), SectionStep("New"), TilesStep({"n1"}, 2),
                                           EndMarkStep(2)});
    EXPECT_EQ(reply.failedStep, 5) << "the commit, after the last step";
    EXPECT_EQ(reply.result.message, "the changes could not be stored: disk I/O error");
    EXPECT_EQ(Dump(), before);
    EXPECT_EQ(Events(), eventsBefore);
}

TEST_F(PublishStepsTest, ABulkWhoseRowFailsRollsBackItsOwnSavepointAndThePublish)
{
    PublishOldContent();
    const std::string before = Dump();
    Step tiles = TilesStep({"n1", "n2"}, 1);
    tiles.rows.push_back(Row({{schema::tiles::kTitle, "n3"}, {"tile_colour", "red"}}));
    const Reply reply = Publish(kNewsApp, {EntryStep(), SectionStep("New"), tiles, EndMarkStep(1)});
    EXPECT_EQ(reply.failedStep, 2);
    EXPECT_EQ(reply.result.message, "table tiles has no column named tile_colour");
    EXPECT_EQ(CountLines("tilvane", "failed to InsertRequest for bulk"), 1) << "the bulk handler ran as alone";
    EXPECT_EQ(Dump(), before);
}

TEST_F(PublishStepsTest, EachStepIsConfinedAsItsSingleRequestIs)
{
    PublishOldContent();
    const std::string newsTiles = Column("SELECT group_concat(tile_title) FROM tiles")[0];
    /* Sports deletes "every" section and renames "every" tile: only its own. */
    Step everything{"Delete", schema::sections::kUri, {}, "1 = 1", {}, {}, {}};
    Step renameAll{"Update", schema::tiles::kUri, {Row({{schema::tiles::kTitle, "taken"}})}, "1 = 1", {}, {}, {}};
    const Reply reply = Publish(kSportsApp, {EntryStep(), everything, renameAll});
    ASSERT_TRUE(reply.result.Ok()) << reply.result.message;
    EXPECT_EQ(reply.changedRows[1], 0);
    EXPECT_EQ(reply.changedRows[2], 0);
    EXPECT_EQ(Column("SELECT group_concat(tile_title) FROM tiles")[0], newsTiles);
}

TEST_F(PublishStepsTest, ACallerWithoutALevelIsRefusedAtTheFirstStep)
{
    tilvane::host::RegisteredPackage stranger;
    stranger.packageId = "org.example.stranger";
    stranger.applications.push_back({"org.example.stranger.ui", {}});
    ASSERT_TRUE(tilvane::host::InstallPackage(stranger));
    const std::string before = Dump();
    const Reply reply = Publish("org.example.stranger.ui", {EntryStep(), SectionStep("x")});
    EXPECT_EQ(reply.failedStep, 0);
    EXPECT_EQ(reply.result.outcome, tilvane::client::Outcome::NoResult);
    EXPECT_EQ(reply.result.message, "permission level too low");
    EXPECT_EQ(Dump(), before);
}

TEST_F(PublishStepsTest, AStepThatRefersToAStepWithoutARowIdFailsTheWholePublish)
{
    const std::string before = Dump();
    /* Tiles under "the section" of a step that found several rows. */
    Step severalIds{"GetRowIds", schema::tiles::kUri, {}, "", {}, {}, {}};
    PublishOldContent();
    const std::string withOld = Dump();
    const Reply reply = Publish(kNewsApp, {severalIds, SectionStep("x"), TilesStep({"t"}, 1)});
    EXPECT_EQ(reply.failedStep, 1);
    EXPECT_EQ(reply.result.outcome, tilvane::client::Outcome::InvalidRequest);
    EXPECT_EQ(reply.result.message, "step 0 gave no row id for section_accelerator_raw_id");
    EXPECT_EQ(Dump(), withOld);
    EXPECT_NE(before, withOld);
}

TEST_F(PublishStepsTest, MalformedAndOversizedPublishesRunNoStep)
{
    PublishOldContent();
    const std::string before = Dump();
    std::string invalid;
    Reply reply = Publish(kNewsApp, {Step{"Select", schema::tiles::kUri, {}, "", {}, {}, {}}}, &invalid);
    EXPECT_EQ(invalid, "step 0: \"Select\" is not a kind of step");
    Publish(kNewsApp, {EntryStep(), SectionStep("x", 2)}, &invalid);
    EXPECT_EQ(invalid, "step 1: a value back-reference to step 2 is not to an earlier step");
    Step twoRows = SectionStep("x");
    twoRows.rows.push_back(twoRows.rows.front());
    Publish(kNewsApp, {EntryStep(), twoRows}, &invalid);
    EXPECT_EQ(invalid, "step 1: Insert takes 1 row(s), not 2");
    Publish(kNewsApp, {}, &invalid);
    EXPECT_NE(invalid.find("a publish has 1 to 4096 steps"), std::string::npos) << invalid;
    Publish(kNewsApp, std::vector<Step>(4097, EntryStep()), &invalid);
    EXPECT_NE(invalid.find("this one has 4097 steps"), std::string::npos) << invalid;
    std::vector<Step> manyRows(17, TilesStep(std::vector<std::string>(4096, "t"), 0));
    Publish(kNewsApp, manyRows, &invalid);
    EXPECT_NE(invalid.find("69632 rows"), std::string::npos) << invalid;
    EXPECT_EQ(Dump(), before);
    EXPECT_EQ(CountLines("tilvane-platform", "publish of org.example.news.ui: step"), 0);
}

TEST_F(PublishStepsTest, UnderStrictConfinementARefusedStepAnswersWithItsRuleAndStoresNothing)
{
    PublishOldContent();
    const std::string before = Dump();
    tilvane::host::SetConfigurationText("[identity]\nmode = development\n[strict]\nconfinement = true\n"
                                        "value-bytes = 16\n");
    const Reply reply = Publish(kNewsApp, {EntryStep(), ReplaceStep(),
                                           SectionStep("a title of more than sixteen bytes"), EndMarkStep(2)});
    EXPECT_EQ(reply.failedStep, 2);
    EXPECT_EQ(reply.result.outcome, tilvane::client::Outcome::ProviderError);
    EXPECT_EQ(reply.result.message,
              "the value of section_title has 34 bytes, more than the 16 allowed (strict confinement, rule limits, "
              "result -1)");
    EXPECT_EQ(Dump(), before);
}

}  // namespace
