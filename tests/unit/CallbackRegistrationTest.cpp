/*
 * Registration of the content library's 21 request callbacks at start, with
 * the retries of the first one, and their removal at shutdown.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <content_provider_dispatch.h>

#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using tilvane::host::LogLine;
using tilvane::test::CountLines;
using tilvane::test::LinesContaining;
namespace content = tilvane::content;

namespace {

const char kRetryText[] = "failed to register insert callback for Accelerators table - retry : ";

const char* const kUnregisterFunctions[] = {
    "unregister_insert_db_callback", "unregister_insert_db_callback_for_bulkdata", "unregister_delete_db_callback",
    "unregister_select_db_callback", "unregister_update_db_callback",              "unregister_update_db_callback_for_bulkdata",
    "unregister_get_id_db_callback",
};

int UnregisterCalls()
{
    int calls = 0;
    for (const char* function : kUnregisterFunctions) {
        calls += tilvane::host::CallCount(function);
    }
    return calls;
}

class CallbackRegistrationTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::UseVirtualClock(true); }
    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
};

TEST_F(CallbackRegistrationTest, TenRefusalsOfTheFirstRegistrationAreRetriedWithCounters60To51)
{
    tilvane::host::FailNextCalls("register_insert_db_callback", 10);

    CTilesProvider::GetInstance();

    std::vector<LogLine> retries = LinesContaining("tilvane", kRetryText);
    ASSERT_EQ(retries.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_NE(retries[i].message.find(kRetryText + std::to_string(60 - i)), std::string::npos)
            << retries[i].message;
        EXPECT_EQ(retries[i].priority, DLOG_INFO);
    }
    EXPECT_EQ(content::RegisteredCount(), 21u);
    // Ten refused attempts, the accepted one, then Sections and Tiles.
    EXPECT_EQ(tilvane::host::CallCount("register_insert_db_callback"), 11 + 2);
}

TEST_F(CallbackRegistrationTest, RefusalsForeverGiveSixtyRetriesHalfASecondApartAndTheOtherTwenty)
{
    tilvane::host::FailNextCalls("register_insert_db_callback", 61);

    CTilesProvider::GetInstance();

    std::vector<LogLine> retries = LinesContaining("tilvane", kRetryText);
    ASSERT_EQ(retries.size(), 60u);
    EXPECT_NE(retries.front().message.find(kRetryText + std::string("60")), std::string::npos);
    EXPECT_NE(retries.back().message.find(kRetryText + std::string("1")), std::string::npos);
    for (size_t i = 1; i < retries.size(); ++i) {
        EXPECT_EQ(retries[i].timeUs - retries[i - 1].timeUs, 500000) << i;
    }
    EXPECT_FALSE(content::IsRegistered(content::RequestKind::Insert, TilesModel::Accelerators::CONTENT_URI));
    EXPECT_EQ(content::RegisteredCount(), 20u);
    EXPECT_EQ(tilvane::host::CallCount("register_insert_db_callback"), 61 + 2);
}

TEST_F(CallbackRegistrationTest, ARefusedSectionsSelectIsUnregisteredAndRegisteredOnceMoreWithOneMessage)
{
    // Accelerators' select passes, Sections' first attempt fails.
    tilvane::host::FailCallsAfter("register_select_db_callback", 1, 1);

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "failed to register select callback for Sections table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to register"), 1);
    EXPECT_TRUE(content::IsRegistered(content::RequestKind::Select, TilesModel::Sections::CONTENT_URI));
    EXPECT_EQ(tilvane::host::CallCount("unregister_select_db_callback"), 1);
    EXPECT_EQ(content::RegisteredCount(), 21u);
}

TEST_F(CallbackRegistrationTest, ASecondRefusalIsSilentAndThePairStaysUnserved)
{
    tilvane::host::FailCallsAfter("register_get_id_db_callback", 2, 2);

    CTilesProvider::GetInstance();

    EXPECT_EQ(CountLines("tilvane", "failed to register get id  callback for Tiles table"), 1);
    EXPECT_FALSE(content::IsRegistered(content::RequestKind::GetId, TilesModel::Tiles::CONTENT_URI));
    EXPECT_EQ(content::RegisteredCount(), 20u);
}

TEST_F(CallbackRegistrationTest, ShutdownAttemptsAllTwentyOneRemovalsEvenAfterFailedRegistrations)
{
    tilvane::host::FailNextCalls("register_insert_db_callback", 61);
    tilvane::host::FailCallsAfter("register_update_db_callback_for_bulkdata", 0, 6);
    CTilesProvider::GetInstance();
    int before = UnregisterCalls();

    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();

    EXPECT_EQ(UnregisterCalls() - before, 21);
    EXPECT_EQ(content::RegisteredCount(), 0u);
    // The four pairs that were never registered report their removal failing,
    // the bulk-insert and get-id removals with their own texts.
    EXPECT_EQ(CountLines("tilvane", "failed to unregister insert callback for Accelerators table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister update bulk data callback for Accelerators table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister update bulk data callback for Sections table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister update bulk data callback for Tiles table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister"), 4);
}

TEST_F(CallbackRegistrationTest, RemovalTextsKeepTheirAsymmetries)
{
    CTilesProvider::GetInstance();
    // Make every removal fail to see each text once.
    for (const char* function : kUnregisterFunctions) {
        tilvane::host::FailNextCalls(function, 3);
    }

    CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();

    EXPECT_EQ(CountLines("tilvane", "failed to unregister insert callback for Sections table"), 2);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister get ID callback for Tiles table"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister insert bulk"), 0);
    EXPECT_EQ(CountLines("tilvane", "failed to unregister"), 21);
}

}  // namespace
