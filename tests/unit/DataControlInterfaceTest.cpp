/*
 * The provider's data-control callbacks, reached through the platform's
 * data-control interface by a client in the same process.
 */
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <message_port.h>
#include <tilvane_client.h>

#include "MessageHelper.h"
#include "PermissionHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

const char kAppId[] = "org.example.news.ui";
const char kListenerPort[] = "data-control-events";

void IgnoreMessage(int, const char*, const char*, bool, bundle*, void*)
{
}

class DataControlInterfaceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TILVANE_DATA_CONTROL_PROVIDER_ID", TilesModel::PROVIDER_ID, 1);
        tilvane::host::UseVirtualClock(true);
        // Provider and client are this one process, running as the news application.
        tilvane::host::SetOwnAppId(kAppId);
        tilvane::host::RegisteredPackage package;
        package.packageId = "org.example.news";
        package.applications.push_back(
            {kAppId,
             {{TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
              {TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}}});
        ASSERT_TRUE(tilvane::host::InstallPackage(package));

        m_provider = CTilesProvider::GetInstance();
        RawDatabase db(m_sandbox.DatabaseDirectory() + ".preview.db");
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news'),"
                          " (102, 'org.example.other');"
                          "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (10, 101), (20, 102);"
                          "INSERT INTO tiles (_id, tile_id, tile_section_raw_id) VALUES (100, 'own', 10), "
                          "(200, 'other', 20);"),
                  0);
    }

    void TearDown() override
    {
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
    }

    std::vector<std::string> Column(const std::string& sql)
    {
        return RawDatabase(m_sandbox.DatabaseDirectory() + ".preview.db").Column(sql);
    }

    void SubscribeListener()
    {
        ASSERT_GT(message_port_register_local_port(kListenerPort, IgnoreMessage, nullptr), 0);
        CTilesProviderTestAccess::SyncEventHelper(m_provider)->SubscribalRequest(kAppId, kListenerPort);
        tilvane::host::RecordSentMessages(true);
    }

    size_t EventsSent() const
    {
        size_t count = 0;
        for (const tilvane::host::SentMessage& message : tilvane::host::SentMessages()) {
            count += (message.port == kListenerPort) ? 1 : 0;
        }
        return count;
    }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
    CTilesProvider* m_provider = nullptr;
    DataControlClient m_client{TilesModel::PROVIDER_ID};
};

TEST_F(DataControlInterfaceTest, InsertIsAnsweredWithTheNewRowId)
{
    Result result = m_client.Insert("tiles", {{"tile_id", "new"}, {"tile_section_raw_id", "10"}});

    ASSERT_EQ(result.outcome, Outcome::Answered) << tilvane::client::Describe(result);
    EXPECT_EQ(Column("SELECT tile_id FROM tiles WHERE _id = " + std::to_string(result.rowId)),
              (std::vector<std::string>{"new"}));
    EXPECT_EQ(CountLines("tilvane", std::string("[") + kAppId + "] INSERT row id = " + std::to_string(result.rowId)),
              1);
}

TEST_F(DataControlInterfaceTest, InsertWhoseClientIdCannotBeFetchedIsNotAnswered)
{
    tilvane::host::FailNextCalls("data_control_provider_get_client_appid", 1);

    Result result = m_client.Insert("tiles", {{"tile_id", "lost"}, {"tile_section_raw_id", "10"}});

    EXPECT_EQ(result.outcome, Outcome::NoResult) << tilvane::client::Describe(result);
    EXPECT_EQ(CountLines("tilvane", "failed to datacontrol_provider_get_client_appid : "), 1);
    EXPECT_EQ(CountLines("tilvane", "failed by invalid URI"), 1);
    EXPECT_TRUE(Column("SELECT _id FROM tiles WHERE tile_id = 'lost'").empty());
}

TEST_F(DataControlInterfaceTest, EndMarkSendsOneEventAndIsNotAnswered)
{
    SubscribeListener();

    Result result = m_client.Insert("tiles", {{TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END}});

    EXPECT_EQ(result.outcome, Outcome::NoResult);
    EXPECT_EQ(EventsSent(), 1u);
    EXPECT_EQ(CountLines("tilvane", std::string("success to send sync event : ") + kAppId), 1);
    EXPECT_EQ(Column("SELECT COUNT(*) FROM tiles")[0], "2");
}

TEST_F(DataControlInterfaceTest, RefusedInsertIsNotAnswered)
{
    Result result = m_client.Insert("accelerators", {{"accelerator_title", "x"}});

    EXPECT_EQ(result.outcome, Outcome::NoResult);
    EXPECT_EQ(CountLines("tilvane", "failed by invalid URI"), 1);
}

TEST_F(DataControlInterfaceTest, SelectIsConfinedToTheCallersRows)
{
    Result result = m_client.Select("tiles", {"tile_id"}, "", "");

    ASSERT_EQ(result.outcome, Outcome::Answered) << tilvane::client::Describe(result);
    ASSERT_EQ(result.rows.columns, (std::vector<std::string>{"tile_id"}));
    ASSERT_EQ(result.rows.rows.size(), 1u);
    EXPECT_EQ(result.rows.rows[0][0].text, "own");
    EXPECT_EQ(CountLines("tilvane", "generated query = tile_section_raw_id IN (10)"), 1);
}

TEST_F(DataControlInterfaceTest, SelectBelowLevelOneIsAnsweredWithTheRefusal)
{
    tilvane::host::RemovePackage("org.example.news");
    RawDatabase(m_sandbox.DatabaseDirectory() + ".preview.db").Exec("DELETE FROM accelerators WHERE _id = 101");

    Result result = m_client.Select("tiles", {}, "", "");

    EXPECT_EQ(result.outcome, Outcome::ProviderError);
    EXPECT_EQ(result.message, "failed SELECT by permission");
}

TEST_F(DataControlInterfaceTest, UpdateIsAnsweredAndSendsNoEvent)
{
    SubscribeListener();

    Result result = m_client.Update("tiles", {{"tile_title", "changed"}}, "");

    EXPECT_EQ(result.outcome, Outcome::Answered);
    EXPECT_EQ(Column("SELECT tile_id FROM tiles WHERE tile_title = 'changed'"), (std::vector<std::string>{"own"}));
    EXPECT_EQ(EventsSent(), 0u);
    EXPECT_EQ(CountLines("tilvane", std::string("[") + kAppId + "] UPDATE result = 0"), 1);
}

TEST_F(DataControlInterfaceTest, DeleteIsAnsweredConfinedAndSendsNoEvent)
{
    SubscribeListener();

    Result result = m_client.Delete("tiles", "");

    EXPECT_EQ(result.outcome, Outcome::Answered);
    EXPECT_EQ(Column("SELECT tile_id FROM tiles"), (std::vector<std::string>{"other"}));
    EXPECT_EQ(EventsSent(), 0u);
    EXPECT_EQ(CountLines("tilvane", std::string("[") + kAppId + "] DELETE result = 0"), 1);
}

TEST_F(DataControlInterfaceTest, CallbacksWithoutAProviderOrInputAnswerWithAnError)
{
    CTilesProvider::InsertRequestCB(1, nullptr, nullptr, m_provider);
    CTilesProvider::UpdateRequestCB(2, nullptr, nullptr, "", m_provider);
    CTilesProvider::DeleteRequestCB(3, nullptr, "", nullptr);
    CTilesProvider::SelectRequestCB(4, nullptr, nullptr, 0, "", "", nullptr);

    EXPECT_EQ(CountLines("tilvane", "failed by NULL user_data or insert_data"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed by NULL user_data or update_data"), 1);
    EXPECT_EQ(CountLines("tilvane", "failed SELECT by NULL user_data"), 1);
    EXPECT_EQ(tilvane::host::CallCount("data_control_provider_send_error"), 4);
}

}  // namespace
