/*
 * The statistics' pieces in process: the latency buckets, what one request
 * records and under which reason, switching them off, reset, and their JSON.
 * (The statistics of the real service after a scripted session:
 * OperationsTest.)
 */
#include <gtest/gtest.h>

#include <string>

#include "Json.h"
#include "requests/refusal_reasons.h"
#include "requests/request_glue.h"
#include "stats/request_stats.h"

namespace stats = tilvane::host::stats;

namespace {

class RequestStatsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        stats::SetEnabled(true);
        stats::Reset();
    }
    void TearDown() override
    {
        stats::SetEnabled(true);
        stats::Reset();
    }
};

TEST_F(RequestStatsTest, EachLatencyFallsInTheBucketOfItsUpperBound)
{
    stats::Histogram histogram;
    for (int64_t us : {0, 50, 51, 100, 4999999, 5000000, 5000001, 90000000}) {
        histogram.Add(us);
    }
    EXPECT_EQ(histogram.counts[0], 2u);  /* 0, 50 */
    EXPECT_EQ(histogram.counts[1], 2u);  /* 51, 100 */
    EXPECT_EQ(histogram.counts[15], 2u); /* up to 5 s */
    EXPECT_EQ(histogram.counts[16], 2u); /* above */
    EXPECT_EQ(histogram.total, 8u);
    EXPECT_EQ(histogram.maxUs, 90000000);
    EXPECT_EQ(histogram.sumUs, 0 + 50 + 51 + 100 + 4999999 + 5000000 + 5000001 + 90000000);
}

TEST_F(RequestStatsTest, ARequestIsCountedOnceWithItsFirstReasonOrItsBudget)
{
    const std::string content = "Content";
    const std::string select = "Select";
    {
        stats::RequestScope scope(content, select, stats::MonotonicUs());
        stats::NoteStatement(120);
        stats::NoteStatement(30);
    }
    {
        stats::RequestScope scope(content, select, stats::MonotonicUs());
        stats::NoteRefusal("permission-level");
        stats::NoteRefusal("no-result");
    }
    {
        stats::RequestScope scope(content, select, stats::MonotonicUs());
        stats::NoteBudgetHit(stats::Budget::Time);
        stats::NoteBudgetHit(stats::Budget::Memory);
        stats::NoteRefusal("no-result");
    }
    /* Outside a request nothing is counted. */
    stats::NoteRefusal("no-result");
    stats::NoteStatement(5);
    EXPECT_FALSE(stats::CountingRequest());

    const stats::Snapshot snapshot = stats::Take();
    ASSERT_EQ(snapshot.kinds.size(), 1u);
    const stats::KindStats& kind = snapshot.kinds.at("Content.Select");
    EXPECT_EQ(kind.requests, 3u);
    EXPECT_EQ(kind.answered, 1u);
    EXPECT_EQ(kind.refused, (std::map<std::string, uint64_t>{{"permission-level", 1}, {"budget-time", 1}}));
    EXPECT_EQ(kind.budgetHits, (std::map<std::string, uint64_t>{{"time", 1}, {"memory", 1}}));
    EXPECT_EQ(kind.statementUs.total, 2u);
    EXPECT_EQ(kind.statementUs.sumUs, 150);
    EXPECT_EQ(kind.endToEndUs.total, 3u);
}

TEST_F(RequestStatsTest, SwitchedOffNothingIsCountedAndResetStartsAgain)
{
    const std::string dc = "DataControl";
    const std::string insert = "Insert";
    stats::SetEnabled(false);
    {
        stats::RequestScope scope(dc, insert, stats::MonotonicUs());
        EXPECT_FALSE(stats::CountingRequest());
    }
    stats::NoteMessage(nullptr);
    EXPECT_TRUE(stats::Take().kinds.empty());
    EXPECT_EQ(stats::Take().messages.sent, 0u);
    EXPECT_FALSE(stats::Take().enabled);

    stats::SetEnabled(true);
    {
        stats::RequestScope scope(dc, insert, stats::MonotonicUs());
    }
    stats::NoteMessage(nullptr);
    stats::NoteMessage("port-not-found");
    EXPECT_EQ(stats::Take().kinds.size(), 1u);
    EXPECT_EQ(stats::Take().messages.droppedBy.at("port-not-found"), 1u);
    const int64_t since = stats::Take().sinceUs;
    stats::Reset();
    EXPECT_TRUE(stats::Take().kinds.empty());
    EXPECT_EQ(stats::Take().messages.sent, 0u);
    EXPECT_GE(stats::Take().sinceUs, since);
}

TEST_F(RequestStatsTest, TheJsonHoldsEveryCounterAndReadsBack)
{
    const std::string content = "Content";
    const std::string update = "Update";
    {
        stats::RequestScope scope(content, update, stats::MonotonicUs() - 700);
        stats::NoteRefusal("strict-where-clause");
    }
    stats::NoteMessage("receiver-not-answering");
    const std::string json = stats::ToJson(stats::Take(), {{"subscribers", "2"}});
    tilvanectl::JsonValue value;
    std::string error;
    ASSERT_TRUE(tilvanectl::ParseJson(json, value, error)) << error << json;
    EXPECT_EQ(value.Member("subscribers")->text, "2");
    EXPECT_EQ(value.Member("latency_bounds_us")->items.size(), stats::kLatencyBoundsUs.size());
    const tilvanectl::JsonValue& entry = value.Member("requests")->items.at(0);
    EXPECT_EQ(entry.Member("interface")->text, "Content");
    EXPECT_EQ(entry.Member("kind")->text, "Update");
    EXPECT_EQ(entry.Member("refused")->Member("strict-where-clause")->text, "1");
    EXPECT_EQ(entry.Member("end_to_end_us")->Member("buckets")->items.size(), stats::kLatencyBuckets);
    EXPECT_GE(std::stoll(entry.Member("end_to_end_us")->Member("sum")->text), 700);
    EXPECT_EQ(value.Member("messages")->Member("dropped_by")->Member("receiver-not-answering")->text, "1");
}

TEST_F(RequestStatsTest, EveryAnswerOfTheInterfacesHasItsReason)
{
    using namespace tilvane::host::requests;
    const tilvane_reason none = TILVANE_REASON_NONE;
    EXPECT_EQ(RefusalOfError(kErrorNotAuthorized, none, "x"), "sender-not-authorized");
    EXPECT_EQ(RefusalOfError(kErrorNotServed, none, "x"), "not-served");
    EXPECT_EQ(RefusalOfError(kErrorInvalidRequest, none, "x"), "invalid-request");
    EXPECT_EQ(RefusalOfError(kErrorRefused, TILVANE_REASON_STRICT_CONFINEMENT,
                             "a subquery (strict confinement, rule statement-authorizer, result -1)"),
              "strict-statement-authorizer");
    /* The code decides, whatever the words say. */
    EXPECT_EQ(RefusalOfError(kErrorProviderError, TILVANE_REASON_PERMISSION_LEVEL, "failed by permission"),
              "permission-level");
    EXPECT_EQ(RefusalOfError(kErrorProviderError, TILVANE_REASON_PROVIDER_FAILURE, "permission level too low"),
              "provider-error");
    EXPECT_EQ(RefusalOfError(kErrorNoResult, TILVANE_REASON_PERMISSION_LEVEL, "anything"), "permission-level");
    EXPECT_EQ(RefusalOfError(kErrorNoResult, TILVANE_REASON_NOT_CHANGEABLE, "anything"), "invalid-uri");
    EXPECT_EQ(RefusalOfError(kErrorNoResult, TILVANE_REASON_STATEMENT_FAILED, "no such column: x"), "no-result");
    EXPECT_EQ(RefusalOfError(kErrorNoResult, TILVANE_REASON_SYNC_END_MARK, "sync end mark sent"), "");
    EXPECT_EQ(RefusalOfError(kErrorNoResult, TILVANE_REASON_SYNC_START_MARK, "sync start mark"), "");
    EXPECT_EQ(std::string(RefusalOfCode(-13)), "permission-level");
    EXPECT_EQ(std::string(RefusalOfCode(-22)), "invalid-uri");
    EXPECT_EQ(std::string(RefusalOfCode(13)), "failed");
}

}  // namespace
