/*
 * Strict confinement in the host platform: the integrator's switch and limits,
 * the start line, and the statement authorizer that keeps a request statement
 * to its own table while a request is dispatched.
 */
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <confinement_policy.h>
#include <content_provider_dispatch.h>
#include <host_control.h>
#include <service_app.h>

#include "ContentDbConnection.h"
#include "ContentProviderParam.h"
#include "TestSupport.h"
#include "content/statement_authorizer.h"

using namespace tilvane::test;

namespace {

const char kPlatformTag[] = "tilvane-platform";
const char kTilesUri[] = "content://org.example.strict/tiles";
const char kStrict[] = "[strict]\nconfinement = true\n";

bool CreateFailsCB(void*)
{
    return false;
}

TEST(ConfinementPolicyTest, OffWithItsDefaultLimitsWhenTheFileSaysNothing)
{
    PlatformSandbox sandbox;
    tilvane::host::SetConfigurationText("");
    EXPECT_FALSE(confinement_policy_is_strict());
    EXPECT_EQ(confinement_policy_max_sections_per_package(), 64);
    EXPECT_EQ(confinement_policy_max_tiles_per_package(), 1024);
    EXPECT_EQ(confinement_policy_max_value_bytes(), 16384);
    EXPECT_EQ(confinement_policy_max_where_bytes(), 8192);
    EXPECT_FALSE(confinement_policy_is_trusted_sender("org.example.launcher"));
    EXPECT_FALSE(confinement_policy_is_trusted_sender(nullptr));
}

TEST(ConfinementPolicyTest, TheIntegratorsGroupSetsSwitchLimitsAndTrustedSenders)
{
    PlatformSandbox sandbox;
    tilvane::host::SetConfigurationText("[strict]\nconfinement = true\nsections-per-package = 3\n"
                                        "tiles-per-package = 9\nvalue-bytes = 100\nwhere-bytes = 0\n"
                                        "trusted-senders = org.example.launcher; org.example.packages\n");
    EXPECT_TRUE(confinement_policy_is_strict());
    EXPECT_EQ(confinement_policy_max_sections_per_package(), 3);
    EXPECT_EQ(confinement_policy_max_tiles_per_package(), 9);
    EXPECT_EQ(confinement_policy_max_value_bytes(), 100);
    EXPECT_EQ(confinement_policy_max_where_bytes(), 1); /* never below one */
    EXPECT_TRUE(confinement_policy_is_trusted_sender("org.example.launcher"));
    EXPECT_TRUE(confinement_policy_is_trusted_sender("org.example.packages"));
    EXPECT_FALSE(confinement_policy_is_trusted_sender("org.example.launcher.evil"));
}

TEST(ConfinementPolicyTest, TheSwitchFollowsEveryChangeOfTheConfiguration)
{
    PlatformSandbox sandbox;
    for (int round = 0; round < 2; ++round) {
        tilvane::host::SetConfigurationText("[strict]\nconfinement = true\n");
        EXPECT_TRUE(confinement_policy_is_strict()) << round;
        EXPECT_TRUE(confinement_policy_is_strict()) << round;
        tilvane::host::SetConfigurationText("[strict]\nconfinement = false\n");
        EXPECT_FALSE(confinement_policy_is_strict()) << round;
        tilvane::host::SetConfigurationText("");
        EXPECT_FALSE(confinement_policy_is_strict()) << round;
    }
}

TEST(ConfinementPolicyTest, ServiceStartSaysOnceWhichModeIsInForce)
{
    for (bool strict : {false, true}) {
        PlatformSandbox sandbox;
        tilvane::host::SetConfigurationText(strict ? kStrict : "");
        service_app_lifecycle_callback_s callbacks = {};
        callbacks.create = CreateFailsCB;
        // An embedded run (no command line): the program's start-up checks
        // need a bus, the start line does not.
        service_app_main(0, nullptr, &callbacks, nullptr);
        EXPECT_EQ(CountExactLines(kPlatformTag, "strict confinement on"), strict ? 1 : 0);
        EXPECT_EQ(CountExactLines(kPlatformTag, "strict confinement off"), strict ? 0 : 1);
    }
}

/* ---- the statement authorizer -------------------------------------------- */

CContentDbConnection* g_connection = nullptr;
std::string g_where;
std::vector<std::string> g_projection;
bool g_cursorMade = false;

bool SelectCB(PT_PROVIDER_SELECT_IN_PARAM&, PT_PROVIDER_SELECT_OUT_PARAM&)
{
    std::shared_ptr<ISQLiteCursor> cursor = g_connection->SelectRequest("tiles", g_projection, g_where, "");
    g_cursorMade = cursor != nullptr;
    return g_cursorMade;
}

int DeleteCB(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    return g_connection->DeleteRequest("sections", in.strWhere, in.vecWhereArgs);
}

class StatementAuthorizerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_connection.reset(new CContentDbConnection(m_dir.Path(), "strict.db"));
        ASSERT_TRUE(m_connection->OpenOperation());
        std::string error;
        ASSERT_EQ(m_connection->ExcuteSQL(
                      "PRAGMA foreign_keys = ON;"
                      "CREATE TABLE sections (_id INTEGER PRIMARY KEY, owner TEXT);"
                      "CREATE TABLE tiles (_id INTEGER PRIMARY KEY, title TEXT,"
                      " section INTEGER REFERENCES sections(_id) ON DELETE CASCADE);"
                      "INSERT INTO sections VALUES (1, 'news'), (2, 'sports');"
                      "INSERT INTO tiles VALUES (10, 'a', 1), (20, 'b', 2);",
                      error),
                  0)
            << error;
        g_connection = m_connection.get();
        g_projection = {"_id"};
        ASSERT_TRUE(register_select_db_callback(kTilesUri, SelectCB, nullptr));
        ASSERT_TRUE(register_delete_db_callback("content://org.example.strict/sections", DeleteCB, nullptr));
    }

    void TearDown() override
    {
        unregister_select_db_callback(kTilesUri);
        unregister_delete_db_callback("content://org.example.strict/sections");
        g_connection = nullptr;
        m_connection.reset();
    }

    /* A select on the tiles through the content library's dispatch, as a request. */
    bool Select(const std::string& where)
    {
        g_where = where;
        g_cursorMade = false;
        PT_PROVIDER_SELECT_IN_PARAM in;
        in.strAppId = "org.example.caller";
        in.strUri = kTilesUri;
        PT_PROVIDER_SELECT_OUT_PARAM out;
        bool result = false;
        tilvane::content::DispatchSelect(in, out, result);
        return g_cursorMade;
    }

    PlatformSandbox m_sandbox;
    TempDir m_dir;
    std::unique_ptr<CContentDbConnection> m_connection;
};

TEST_F(StatementAuthorizerTest, DefaultModeLetsARequestStatementReachEveryTable)
{
    EXPECT_TRUE(Select("_id IN (SELECT _id FROM sections) OR 1 = 1"));
    EXPECT_TRUE(Select("EXISTS (SELECT 1 FROM sqlite_master)"));
    EXPECT_EQ(CountLines(kPlatformTag, "strict confinement refused"), 0);
}

TEST_F(StatementAuthorizerTest, StrictModeKeepsARequestStatementToItsOwnTable)
{
    tilvane::host::SetConfigurationText(kStrict);
    EXPECT_TRUE(Select("title = 'a' OR length(title) = 1 AND substr(title, 1, 1) >= 'a'"));

    EXPECT_FALSE(Select("_id IN (SELECT _id FROM sections)"));
    EXPECT_EQ(CountExactLines(kPlatformTag, "strict confinement refused (rule statement-authorizer) for "
                                            "org.example.caller: the statement may reach only the request's own "
                                            "rows: a subquery (a SELECT inside the statement) is refused"),
              1);
    EXPECT_FALSE(Select("title IN (SELECT owner FROM sections)"));
    EXPECT_FALSE(Select("EXISTS (SELECT 1 FROM sqlite_master)"));
    EXPECT_FALSE(Select("load_extension('x') IS NULL"));
    EXPECT_EQ(CountLines(kPlatformTag, "rows: function load_extension is not one of the value functions a statement "
                                       "may call (abs, coalesce,"),
              1);
    EXPECT_FALSE(Select("EXISTS (SELECT 1 FROM pragma_table_info('sections'))"));
    g_projection = {"(SELECT owner FROM sections LIMIT 1)"};
    EXPECT_FALSE(Select(""));
    g_projection = {"_id"};
    /* Another table named in the statement itself. */
    EXPECT_FALSE(Select("sections.owner = 'x'"));
}

TEST_F(StatementAuthorizerTest, StrictModeRefusesSubqueriesOfTheOwnTableCommonTableExpressionsAndUnboundedFunctions)
{
    tilvane::host::SetConfigurationText(kStrict);
    struct Case {
        const char* where;
        const char* refusal;
    };
    const std::vector<Case> cases = {
        /* A subquery of the same table is not confined by the row filter. */
        {"unicode(substr((SELECT title FROM tiles WHERE _id = 10), 1, 1)) >= 97",
         "a subquery (a SELECT inside the statement) is refused"},
        {"_id IN (SELECT _id FROM tiles)", "a subquery (a SELECT inside the statement) is refused"},
        {"EXISTS (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT 1 FROM c WHERE x < 0)",
         "rows: a "},
        {"length(randomblob(900000000)) > 0", "function randomblob is not one of the value functions"},
        {"length(zeroblob(30000000)) > 0", "function zeroblob is not one"},
        {"length(printf('%.*c', 40000000, 'x')) > 0", "function printf is not one"},
        {"length(format('%.*c', 40000000, 'x')) > 0", "function format is not one"},
        {"length(char(120, 120)) > 0", "function char is not one"},
        {"length(replace(title, '', title)) > 0", "function replace is not one"},
        {"random() > 0", "function random is not one"},
    };
    for (const Case& c : cases) {
        tilvane::host::ClearCapturedLog();
        EXPECT_FALSE(Select(c.where)) << c.where;
        EXPECT_EQ(CountLines(kPlatformTag, std::string("strict confinement refused (rule statement-authorizer) for "
                                                       "org.example.caller: the statement may reach only the "
                                                       "request's own rows: ")),
                  1)
            << c.where;
        EXPECT_EQ(CountLines(kPlatformTag, c.refusal), 1) << c.where;
    }
    /* The default mode keeps every one of them. */
    tilvane::host::SetConfigurationText("[strict]\nconfinement = false\n");
    EXPECT_TRUE(Select("unicode(substr((SELECT title FROM tiles WHERE _id = 10), 1, 1)) >= 97"));
    EXPECT_TRUE(Select("length(char(120, 120)) > 0"));
}

TEST_F(StatementAuthorizerTest, StrictModeRefusesAttachAndPragmaInAPreparedRequestStatement)
{
    tilvane::host::SetConfigurationText(kStrict);
    /* PrepareCMD runs under the request's table when a request is dispatched. */
    static std::vector<int> results;
    results.clear();
    ASSERT_TRUE(unregister_select_db_callback(kTilesUri));
    ASSERT_TRUE(register_select_db_callback(
        kTilesUri,
        [](PT_PROVIDER_SELECT_IN_PARAM&, PT_PROVIDER_SELECT_OUT_PARAM&) {
            for (const char* sql : {"ATTACH DATABASE ':memory:' AS other", "PRAGMA table_info(sections)",
                                    "SELECT title FROM tiles"}) {
                sqlite3_stmt* statement = nullptr;
                std::string error;
                results.push_back(g_connection->PrepareCMD(sql, &statement, nullptr, error));
                sqlite3_finalize(statement);
            }
            return true;
        },
        nullptr));
    EXPECT_FALSE(Select(""));
    ASSERT_EQ(results.size(), 3u);
    EXPECT_NE(results[0], 0);
    EXPECT_NE(results[1], 0);
    EXPECT_EQ(results[2], 0);
    EXPECT_EQ(CountLines(kPlatformTag, "not attach"), 1);
    EXPECT_EQ(CountLines(kPlatformTag, "not pragma table_info"), 1);
}

TEST_F(StatementAuthorizerTest, StrictModeLetsTheSchemasCascadesRun)
{
    tilvane::host::SetConfigurationText(kStrict);
    PT_PROVIDER_DELETE_IN_PARAM in;
    in.strAppId = "org.example.caller";
    in.strUri = "content://org.example.strict/sections";
    in.strWhere = "_id = ?";
    in.vecWhereArgs = {"2"};
    int result = -1;
    ASSERT_TRUE(tilvane::content::DispatchDelete(in, result));
    EXPECT_EQ(result, 0);
    tilvane::test::RawDatabase db(m_dir.File("strict.db"));
    EXPECT_EQ(db.Scalar("SELECT group_concat(_id) FROM tiles"), "10");
}

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM&)
{
    return g_connection->InsertRequest("tiles", in.pValues);
}

TEST_F(StatementAuthorizerTest, StrictModeLetsAnInsertCheckItsForeignKey)
{
    tilvane::host::SetConfigurationText(kStrict);
    ASSERT_TRUE(register_insert_db_callback(kTilesUri, InsertCB, nullptr));
    bundle* values = bundle_create();
    bundle_add_str(values, "title", "c");
    bundle_add_str(values, "section", "1");
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strAppId = "org.example.caller";
    in.strUri = kTilesUri;
    in.pValues = values;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = -1;
    EXPECT_TRUE(tilvane::content::DispatchInsert(in, out, result));
    EXPECT_EQ(result, 0);
    bundle_del(values, "section");
    bundle_add_str(values, "section", "9");
    EXPECT_TRUE(tilvane::content::DispatchInsert(in, out, result));
    EXPECT_EQ(result, SQLITE_CONSTRAINT); /* the key is still checked */
    bundle_free(values);
    unregister_insert_db_callback(kTilesUri);
    EXPECT_EQ(CountLines(kPlatformTag, "strict confinement refused"), 0);
}

TEST_F(StatementAuthorizerTest, StrictModeLeavesStatementsOutsideARequestAlone)
{
    tilvane::host::SetConfigurationText(kStrict);
    g_where = "_id IN (SELECT _id FROM sections)";
    EXPECT_NE(g_connection->SelectRequest("tiles", g_projection, g_where, ""), nullptr);
}

}  // namespace

namespace {

TEST(StatementKeywordsTest, SelectAndWithAreCountedOutsideQuotesAndCommentsOnly)
{
    using tilvane::content::CountKeywords;
    EXPECT_EQ(CountKeywords("SELECT _id FROM \"tiles\" WHERE (title = 'select')").select, 1);
    EXPECT_TRUE(CountKeywords("  select 1").firstIsSelect);
    EXPECT_FALSE(CountKeywords("UPDATE tiles SET a = 1").firstIsSelect);
    EXPECT_EQ(CountKeywords("x = 'a''select' AND \"sel\"\"ect\" = [select] AND `select` = 1 -- select\n").select, 0);
    EXPECT_EQ(CountKeywords("x = 1 /* select */ AND y IN (SeLeCt 1)").select, 1);
    EXPECT_EQ(CountKeywords("x IN (SELECT/**/1)").select, 1);
    EXPECT_EQ(CountKeywords("selected = 1 AND _select = 2 AND select_ = 3").select, 0);
    EXPECT_EQ(CountKeywords("EXISTS (WITH c AS (VALUES(1)) SELECT 1 FROM c)").with, 1);
    EXPECT_EQ(CountKeywords("x = 'unterminated select").select, 0);
}

}  // namespace
