/*
 * Synchronisation events: the sync mark of an insert, the event bundle the
 * provider builds, and the package-id cache behind it.
 */
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <message_port.h>

#include "MessageHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;
using tilvane::test::CountLines;

const char kSubscriberPort[] = "sync-event-listener";

void IgnoreMessage(int, const char*, const char*, bool, bundle*, void*)
{
}

class SyncEventTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tilvane::host::UseVirtualClock(true);
        tilvane::host::SetOwnAppId("org.example.listener");
        m_provider = CTilesProvider::GetInstance();
        ASSERT_NE(m_provider, nullptr);
    }

    void TearDown() override { CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper(); }

    /* Subscribes a port of this process to preview events, so the provider's
     * events are really sent (and recorded) instead of skipped. */
    void SubscribeListener()
    {
        ASSERT_GT(message_port_register_local_port(kSubscriberPort, IgnoreMessage, nullptr), 0);
        CMessageHelper* helper = CTilesProviderTestAccess::SyncEventHelper(m_provider);
        ASSERT_NE(helper, nullptr);
        helper->SubscribalRequest("org.example.listener", kSubscriberPort);
        tilvane::host::RecordSentMessages(true);
    }

    /* The entries of the events sent to the listener's port. */
    std::vector<Entries> EventsToListener() const
    {
        std::vector<Entries> events;
        for (const tilvane::host::SentMessage& message : tilvane::host::SentMessages()) {
            if (message.appId == "org.example.listener" && message.port == kSubscriberPort) {
                events.push_back(message.entries);
            }
        }
        return events;
    }

    void InstallPackage(const std::string& packageId, const std::string& appId)
    {
        tilvane::host::RegisteredPackage package;
        package.packageId = packageId;
        package.applications.push_back({appId, {}});
        ASSERT_TRUE(tilvane::host::InstallPackage(package));
    }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
    CTilesProvider* m_provider = nullptr;
};

bundle* MakeBundle(const Entries& entries)
{
    bundle* b = bundle_create();
    for (const auto& entry : entries) {
        bundle_add_str(b, entry.first.c_str(), entry.second.c_str());
    }
    return b;
}

TEST_F(SyncEventTest, NullBundleOrNoKeyIsNoMark)
{
    EXPECT_EQ(m_provider->GetSyncEvent(nullptr), CTilesProvider::TILES_EVENT_NONE);

    bundle* row = MakeBundle({{TilesModel::Tiles::TILE_TITLE, "a row"}});
    EXPECT_EQ(m_provider->GetSyncEvent(row), CTilesProvider::TILES_EVENT_NONE);
    bundle_free(row);
}

TEST_F(SyncEventTest, StartAndEndMarksAreRecognisedAndLogged)
{
    bundle* start = MakeBundle({{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_START}});
    bundle* end = MakeBundle({{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END}});

    EXPECT_EQ(m_provider->GetSyncEvent(start), CTilesProvider::TILES_EVENT_SYNC_START);
    EXPECT_EQ(m_provider->GetSyncEvent(end), CTilesProvider::TILES_EVENT_SYNC_END);

    std::string expected = std::string("key = ") + TilesModel::EVENT_TILES_SYNC_KEY + "\tvalue = " +
                           TilesModel::EVENT_TILES_SYNC_STATUS_END;
    EXPECT_EQ(CountLines("tilvane", expected), 1);
    bundle_free(start);
    bundle_free(end);
}

TEST_F(SyncEventTest, AValueDifferingOnlyInCaseCountsAsNoMark)
{
    std::string upper = TilesModel::EVENT_TILES_SYNC_STATUS_END;
    for (char& c : upper) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    ASSERT_NE(upper, TilesModel::EVENT_TILES_SYNC_STATUS_END);
    bundle* mark = MakeBundle({{TilesModel::EVENT_TILES_SYNC_KEY, upper}});

    EXPECT_EQ(m_provider->GetSyncEvent(mark), CTilesProvider::TILES_EVENT_NONE);
    bundle_free(mark);
}

TEST_F(SyncEventTest, AnyEventButTheEndMarkIsRefusedWithoutBuildingAnything)
{
    SubscribeListener();
    tilvane::host::ClearCapturedLog();

    EXPECT_EQ(m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_NONE, CTilesProvider::DB_OPERATION_INSERT,
                                        "org.example.app", nullptr, true),
              -22);
    EXPECT_EQ(m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_START, CTilesProvider::DB_OPERATION_INSERT,
                                        "org.example.app", nullptr, true),
              -22);

    EXPECT_TRUE(EventsToListener().empty());
    EXPECT_EQ(CountLines("tilvane", "AppId = "), 0);
    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 0);
}

TEST_F(SyncEventTest, WithoutAMessageHelperTheEventIsRefused)
{
    CMessageHelper*& helper = CTilesProviderTestAccess::SyncEventHelper(m_provider);
    CMessageHelper* kept = helper;
    helper = nullptr;

    int result = m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_INSERT,
                                           "livetv_dish", nullptr, true);

    helper = kept;
    EXPECT_EQ(result, -22);
    std::vector<tilvane::host::LogLine> lines = tilvane::test::LinesContaining("tilvane", "m_pSyncEventHelper is NULL! ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, DLOG_INFO);
}

TEST_F(SyncEventTest, BulkInsertEventCarriesPackageSectionAndSyncEnd)
{
    InstallPackage("org.example.news", "org.example.news.ui");
    SubscribeListener();

    int result = m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_INSERT,
                                           "org.example.news.ui", "17", true);

    EXPECT_EQ(result, 0);
    std::vector<Entries> events = EventsToListener();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "org.example.news"},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "17"},
                                  {"sync", "end"}}));
    EXPECT_EQ(CountLines("tilvane", "Try to Send sync event appID org.example.news.ui\tPackageId = org.example.news"),
              1);
}

TEST_F(SyncEventTest, DeleteEventCarriesOperationAndNoSyncKey)
{
    SubscribeListener();

    EXPECT_EQ(m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_DELETE,
                                        "livetv_antenna", "delete", true),
              0);

    std::vector<Entries> events = EventsToListener();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "livetv_antenna"},
                                  {TilesModel::Tiles::TILE_SECTION_RAW_ID, "delete"},
                                  {"OPERATION", "DELETE"},
                                  {"sync", "end"}}));
}

TEST_F(SyncEventTest, RelayedEndMarkCarriesTheSyncKeyAndNoOperation)
{
    SubscribeListener();

    EXPECT_EQ(m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_INSERT,
                                        "livetv_antenna", nullptr, false),
              0);

    std::vector<Entries> events = EventsToListener();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (Entries{{TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, "livetv_antenna"},
                                  {TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END},
                                  {"sync", "end"}}));
}

TEST_F(SyncEventTest, UnknownApplicationIsItsOwnPackageAndIsAskedForOnce)
{
    SubscribeListener();

    m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_INSERT,
                              "org.example.unknown", nullptr, true);
    m_provider->SendSyncEvent(CTilesProvider::TILES_EVENT_SYNC_END, CTilesProvider::DB_OPERATION_INSERT,
                              "org.example.unknown", nullptr, true);

    std::vector<Entries> events = EventsToListener();
    ASSERT_EQ(events.size(), 2u);
    for (const Entries& event : events) {
        ASSERT_FALSE(event.empty());
        EXPECT_EQ(event[0], std::make_pair(std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME),
                                           std::string("org.example.unknown")));
    }
    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 1);
    EXPECT_EQ(CountLines("tilvane", "Using cached package ID[org.example.unknown] for app ID[org.example.unknown]"), 1);
}

TEST_F(SyncEventTest, InstalledApplicationResolvesToItsPackageOncePerId)
{
    InstallPackage("org.example.sports", "org.example.sports.tv");

    EXPECT_EQ(m_provider->GetPackageId("org.example.sports.tv"), "org.example.sports");
    EXPECT_EQ(m_provider->GetPackageId("org.example.sports.tv"), "org.example.sports");
    EXPECT_EQ(m_provider->GetPackageId("org.example.sports.tv"), "org.example.sports");

    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 1);
}

TEST_F(SyncEventTest, AFailedQueryIsCachedToo)
{
    InstallPackage("org.example.movies", "org.example.movies.ui");
    tilvane::host::FailNextCalls("package_manager_get_package_id_by_app_id", 1);

    EXPECT_EQ(m_provider->GetPackageId("org.example.movies.ui"), "org.example.movies.ui");
    EXPECT_EQ(m_provider->GetPackageId("org.example.movies.ui"), "org.example.movies.ui");

    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 1);
}

TEST_F(SyncEventTest, SeededIdsAreTheirOwnPackageWithoutAQuery)
{
    EXPECT_EQ(m_provider->GetPackageId("livetv_dish"), "livetv_dish");
    EXPECT_EQ(m_provider->GetPackageId("ContentServiceManager"), "ContentServiceManager");

    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 0);
    const std::map<std::string, std::string>& cache = CTilesProviderTestAccess::PackageIdCache(m_provider);
    EXPECT_EQ(cache.size(), 11u);
    for (const char* id : {"livetv_antenna", "livetv_mbr_1", "livetv_mbr_2", "livetv_mbr_3", "livetv_mbr_4",
                           "livetv_dish", "livetv_twc", "livetv_directv", "livetv_rvu", "DownloadManager",
                           "ContentServiceManager"}) {
        auto entry = cache.find(id);
        ASSERT_NE(entry, cache.end()) << id;
        EXPECT_EQ(entry->second, id);
    }
}

TEST_F(SyncEventTest, EmptyApplicationIdGivesAnEmptyPackageWithoutAQuery)
{
    EXPECT_EQ(m_provider->GetPackageId(""), "");
    EXPECT_EQ(tilvane::host::CallCount("package_manager_get_package_id_by_app_id"), 0);
    EXPECT_EQ(CTilesProviderTestAccess::PackageIdCache(m_provider).size(), 11u);
}

/* The thread body is static: it needs no provider, only the bus. */
class SyncEventThreadTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::UseVirtualClock(true); }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
};

TEST_F(SyncEventThreadTest, SendThreadWithNoDownloadManagerTriesFiveTimesAndGivesUp)
{
    tilvane::host::ClearCapturedLog();
    bundle* event = MakeBundle({{"sync", "end"}});

    EXPECT_EQ(CTilesProvider::SendSyncEventThread(event), nullptr);

    EXPECT_EQ(tilvane::host::RecordedSleeps(), (std::vector<int64_t>{1000000, 1000000, 1000000, 1000000, 1000000}));
    EXPECT_EQ(CountLines("tilvane", "failed by Message port not ready"), 1);
    EXPECT_EQ(CTilesProvider::SendSyncEventThread(nullptr), nullptr);
}

TEST_F(SyncEventThreadTest, SendThreadDeliversToTheDownloadManagerAtTheFirstAttemptItFindsIt)
{
    tilvane::host::SetOwnAppId("DownloadManager");
    ASSERT_GT(message_port_register_local_port("image_update_db", IgnoreMessage, nullptr), 0);
    tilvane::host::ClearCapturedLog();
    tilvane::host::RecordSentMessages(true);
    tilvane::host::ClearCapturedLog();
    bundle* event = MakeBundle({{"sync", "end"}});

    CTilesProvider::SendSyncEventThread(event);

    std::vector<tilvane::host::SentMessage> sent = tilvane::host::SentMessages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].appId, "DownloadManager");
    EXPECT_EQ(sent[0].port, "image_update_db");
    EXPECT_EQ(tilvane::host::RecordedSleeps(), (std::vector<int64_t>{1000000}));
    EXPECT_EQ(CountLines("tilvane", "success to send sync event in thread : 0"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed by Message port not ready"), 0);
}

}  // namespace
