/*
 * The catalogue of hostile requests, each run against the real service on a
 * private bus in both modes: the default mode shows the outcome the service
 * keeps on purpose (most of them an escape from the row confinement), strict
 * confinement shows the refusal (or the confined answer) and that no other
 * package's row was read or changed.
 *
 * The hostile caller is this test process, running as the public-level
 * application "org.example.news.ui"; the other packages' rows are written
 * straight into the service's database before the first request.
 */
#include <gtest/gtest.h>

#include <bundle.h>
#include <host_control.h>
#include <message_port.h>
#include <tilvane_client.h>
#include <tilvane_schema.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PermissionHelper.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "TilesModel.h"

using namespace tilvane::client;
using namespace tilvane::test;

namespace {

constexpr const char* kProviderId = tilvane::client::schema::kProviderId;
const char kHostile[] = "org.example.news.ui";
const char kQuotePackage[] = "org.example.q' OR '1'='1";
const char kQuoteApp[] = "org.example.quote.ui";
/* A package that declares nothing: its application has level 0. */
const char kMutePackage[] = "org.example.mute";
const char kMute[] = "org.example.mute.ui";

enum class Mode { Default, Strict };

/* Rows seeded for three packages: news (the caller), sports and films. */
const char kSeed[] =
    "INSERT INTO accelerators (_id, accelerator_title, accelerator_enabled, accelerator_app_pkg_name) VALUES"
    " (100, 'news', 1, 'org.example.news'), (200, 'sports', 1, 'org.example.sports'),"
    " (300, 'films', 1, 'org.example.films');"
    "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES"
    " (10, 'news-section', 100), (20, 'sports-section', 200), (30, 'films-section', 300);"
    "INSERT INTO tiles (_id, tile_id, tile_title, tile_section_raw_id) VALUES"
    " (1001, 'news1', 'news one', 10), (1002, 'news2', 'news two', 10),"
    " (2001, 'sports1', 'sports one', 20), (2002, 'sports2', 'sports two', 20),"
    " (3001, 'films1', 'films one', 30);";

std::string Uri(const char* table)
{
    return std::string(kProviderId) + "/" + table;
}

/* Every cell of a select's answer, as text, so that a test can look for
 * another package's data in it. */
std::string Text(const Result& result)
{
    std::string text = result.message + "\n";
    for (const std::string& column : result.rows.columns) {
        text += column + ";";
    }
    text += "\n";
    for (const auto& row : result.rows.rows) {
        for (const auto& cell : row) {
            text += cell.type == tilvane::client::Cell::Type::Integer ? std::to_string(cell.integer) : cell.text;
            text += ";";
        }
        text += "\n";
    }
    return text;
}

/* The first column of every row of a select's answer, joined by ",". */
std::string FirstColumn(const Result& result)
{
    std::string joined;
    for (const auto& row : result.rows.rows) {
        if (row.empty()) {
            continue;
        }
        const auto& cell = row[0];
        joined += (joined.empty() ? "" : ",") +
                  (cell.type == tilvane::client::Cell::Type::Integer ? std::to_string(cell.integer) : cell.text);
    }
    return joined;
}

class Catalogue;

struct HostileRequest {
    const char* name;
    /* Runs the request as the caller; its answer. */
    std::function<Result(Catalogue&)> send;
    /* What the default mode keeps. */
    std::function<void(Catalogue&, const Result&)> expectDefault;
    /* The rule strict confinement names in its refusal; null when strict
     * confinement answers the request, confined (then expectStrict says how). */
    const char* strictRule;
    std::function<void(Catalogue&, const Result&)> expectStrict;
};

const std::vector<HostileRequest>& Requests();

class Catalogue : public ::testing::TestWithParam<std::tuple<size_t, Mode>>
{
public:
    std::string DatabasePath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }

    /* Every row that does not belong to the caller's package, as text. */
    std::string ForeignRows()
    {
        RawDatabase db(DatabasePath());
        std::string rows;
        for (const std::string& row :
             db.Column("SELECT _id || '|' || ifnull(accelerator_title, '') || '|' || accelerator_enabled || '|' || "
                       "ifnull(accelerator_app_pkg_name, '') FROM accelerators WHERE ifnull(accelerator_app_pkg_name, "
                       "'') NOT IN ('org.example.news', 'org.example.q'' OR ''1''=''1') ORDER BY _id")) {
            rows += "a:" + row + "\n";
        }
        for (const std::string& row :
             db.Column("SELECT _id || '|' || ifnull(section_id, '') || '|' || ifnull(section_accelerator_raw_id, '') "
                       "FROM sections WHERE ifnull(section_accelerator_raw_id, -1) <> 100 ORDER BY _id")) {
            rows += "s:" + row + "\n";
        }
        for (const std::string& row :
             db.Column("SELECT _id || '|' || ifnull(tile_id, '') || '|' || ifnull(tile_title, '') || '|' || "
                       "ifnull(tile_section_raw_id, '') FROM tiles WHERE tile_section_raw_id IS NULL OR "
                       "tile_section_raw_id NOT IN (SELECT _id FROM sections WHERE section_accelerator_raw_id = 100) "
                       "ORDER BY _id")) {
            rows += "t:" + row + "\n";
        }
        return rows;
    }

    std::string Scalar(const std::string& sql)
    {
        RawDatabase db(DatabasePath());
        return db.Scalar(sql);
    }

    /* Waits until `sql` gives `value` (the change-manager ports act later than
     * the send returns); false when it did not within a few seconds. */
    bool WaitForScalar(const std::string& sql, const std::string& value)
    {
        return tilvane::test::IterateMainContextUntil([&] { return Scalar(sql) == value; }, 5000);
    }

    /* Waits until the service wrote a line containing `text`. */
    bool WaitForServiceLine(const std::string& text)
    {
        return m_service->WaitFor(text, true, 5000, true);
    }

    std::string ServiceLog() const { return m_service->Err(); }

    Result SendToPort(const char* port, const std::vector<std::pair<const char*, const char*>>& entries)
    {
        bundle* message = bundle_create();
        for (const auto& entry : entries) {
            bundle_add_str(message, entry.first, entry.second);
        }
        Result result;
        result.code = message_port_send_message(kServiceAppId, port, message);
        result.outcome = Outcome::Answered;
        bundle_free(message);
        return result;
    }

    /* Subscribes this process to preview events, has the sports application
     * (another process) and then this one send their sync end marks, and
     * answers with the packages of the events heard, in order. */
    Result EventsHeardWhileSportsAndNewsPublish()
    {
        static std::vector<std::string> heard;
        heard.clear();
        const int port = message_port_register_local_port(
            "catalogue-events",
            [](int, const char*, const char*, bool, bundle* event, void*) {
                const char* package = bundle_get_val(event, "accelerator_app_pkg_name");
                heard.push_back(package != nullptr ? package : "");
            },
            nullptr);
        bundle* request = bundle_create();
        bundle_add_str(request, "request_type", "SubscribePreviewEvent");
        EXPECT_EQ(message_port_send_message_with_local_port(kServiceAppId, "preview-event-receiver", request, port), 0);
        bundle_free(request);
        EXPECT_TRUE(WaitForServiceLine("[org.example.news.ui] was added - [catalogue-events]")) << ServiceLog();
        Process sports({TILVANECTL_BINARY, "--app-id", "org.example.sports.ui", "data", "insert", "tiles",
                        "tiles_sync_event=sync_end"},
                       {"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_CONFIG=" + m_config.File("tilvane.conf")},
                       m_logs.File("sports.out"), m_logs.File("sports.err"));
        EXPECT_EQ(sports.Wait(30000, true), 0) << sports.Err();
        content.Insert(Uri("tiles"), {{"tiles_sync_event", "sync_end"}});
        tilvane::test::IterateMainContextUntil(
            [] { return std::find(heard.begin(), heard.end(), "org.example.news") != heard.end(); }, 10000);
        Result result;
        result.outcome = Outcome::Answered;
        for (const std::string& package : heard) {
            result.message += (result.message.empty() ? "" : ",") + package;
        }
        return result;
    }

    ContentClient content;
    DataControlClient dataControl{kProviderId};

protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_bus.IsRunning());
        tilvane::host::Reset();
        tilvane::host::SetPlatformRoot(m_root.Path());
        const bool strict = std::get<1>(GetParam()) == Mode::Strict;
        tilvane::test::WriteFile(m_config.File("tilvane.conf"),
                                 std::string("[identity]\nmode = development\n[strict]\nconfinement = ") +
                                     (strict ? "true" : "false") +
                                     "\ntrusted-senders = org.example.launcher\nsections-per-package = 3\n"
                                     "tiles-per-package = 6\nvalue-bytes = 4096\nwhere-bytes = 65536\n");
        InstallApplication("org.example.news", kHostile);
        InstallApplication("org.example.sports", "org.example.sports.ui");
        InstallApplication("org.example.films", "org.example.films.ui");
        InstallApplication(kQuotePackage, kQuoteApp);
        std::string error;
        ASSERT_TRUE(tilvane::host::InstallPackage(
            tilvane::host::RegisteredPackage{kMutePackage, {tilvane::host::RegisteredApplication{kMute, {}}}, ""},
            &error))
            << error;

        m_service = std::make_unique<Process>(
            std::vector<std::string>{TILVANE_SERVICE_BINARY},
            std::vector<std::string>{"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_LOG_LEVEL=D",
                                     std::string("TILVANE_APP_ID=") + kServiceAppId,
                                     std::string("TILVANE_DATA_CONTROL_PROVIDER_ID=") + kProviderId,
                                     "TILVANE_CONFIG=" + m_config.File("tilvane.conf")},
            m_logs.File("service.out"), m_logs.File("service.err"));
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
        ASSERT_TRUE(m_service->WaitFor(strict ? "strict confinement on" : "strict confinement off", true, 1000));

        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec(kSeed), 0);
        tilvane::host::SetOwnAppId(kHostile);
    }

    void TearDown() override
    {
        if (m_service != nullptr) {
            m_service->Signal(SIGTERM);
            m_service->Wait(20000);
        }
        tilvane::host::Reset();
    }

    static void InstallApplication(const std::string& packageId, const std::string& appId)
    {
        std::string error;
        ASSERT_TRUE(tilvane::test::InstallPreviewWriter(packageId, appId, &error)) << error;
    }

    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_config;
    TempDir m_logs;
    std::unique_ptr<Process> m_service;
};

/* ---- expectations shared by the entries --------------------------------- */

void ExpectReadsOtherPackages(Catalogue&, const Result& result)
{
    EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
    EXPECT_NE(Text(result).find("sports"), std::string::npos) << Text(result);
}

void ExpectOwnTilesOnly(Catalogue&, const Result& result)
{
    EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
    EXPECT_EQ(FirstColumn(result), "news1,news2") << Text(result);
}

void ExpectNoResult(Catalogue&, const Result& result)
{
    EXPECT_EQ(result.outcome, Outcome::NoResult) << Text(result);
}

using Expectation = std::function<void(Catalogue&, const Result&)>;

/* The write succeeded, and `sql` on the database gives `value` after it. */
Expectation WroteSo(std::string sql, std::string value)
{
    return [sql, value](Catalogue& c, const Result& result) {
        EXPECT_TRUE(result.Ok()) << Text(result);
        EXPECT_EQ(c.Scalar(sql), value);
    };
}

/* The same for data control, whose write answers carry no result of their own. */
Expectation AnsweredAndWroteSo(std::string sql, std::string value)
{
    return [sql, value](Catalogue& c, const Result& result) {
        EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
        EXPECT_EQ(c.Scalar(sql), value);
    };
}

/* The message was sent, and the service acted on it: `sql` comes to give `value`. */
Expectation SentAndActedOn(std::string sql, std::string value)
{
    return [sql, value](Catalogue& c, const Result& result) {
        EXPECT_EQ(result.code, 0);
        EXPECT_TRUE(c.WaitForScalar(sql, value));
    };
}

/* The line of strict confinement dropping a `kind` message from `sender`. */
std::string DroppedMessageLine(const std::string& kind, const std::string& sender)
{
    return "strict confinement refused (rule trusted-sender) for (no request): " + kind + " message from " + sender +
           " dropped: not a platform sender";
}

/* The message was sent, and strict confinement dropped it as the caller's. */
Expectation SentAndDropped(std::string kind)
{
    return [kind](Catalogue& c, const Result& result) {
        EXPECT_EQ(result.code, 0);
        EXPECT_TRUE(c.WaitForServiceLine(DroppedMessageLine(kind, kHostile))) << c.ServiceLog();
    };
}

Result SelectTiles(Catalogue& c, const std::string& where, std::vector<std::string> projection = {"tile_id"})
{
    return c.content.Select(Uri("tiles"), projection, where, {}, "tile_id", "");
}

Result DcSelectTiles(Catalogue& c, const std::string& where, std::vector<std::string> columns = {"tile_id"})
{
    return c.dataControl.Select("tiles", columns, where, "tile_id");
}

/* Reads the text `subquery` selects one byte at a time, by a binary search
 * over a yes-or-no question put to a select of the caller's own rows (of
 * `table`): are they answered? Stops at the first request that is not
 * answered and returns it; otherwise an answer whose message is the text
 * read, and the number of requests it took. */
Result ReadThroughOwnRows(Catalogue& c, const char* table, const std::string& subquery, int& requests)
{
    std::string text;
    requests = 0;
    for (int position = 1; position <= 40; ++position) {
        int low = 0;
        int high = 128; /* the byte is in [low, high) */
        while (high - low > 1) {
            const int middle = (low + high) / 2;
            const std::string where = "unicode(substr((" + subquery + "), " + std::to_string(position) +
                                      ", 1)) >= " + std::to_string(middle);
            const Result answer = c.content.Select(Uri(table), {"_id"}, where, {}, "", "");
            ++requests;
            if (answer.outcome != Outcome::Answered) {
                return answer;
            }
            (answer.rows.rows.empty() ? high : low) = middle;
        }
        if (low == 0) {
            break; /* past the end: unicode('') is NULL, no row */
        }
        text += static_cast<char>(low);
    }
    Result read;
    read.outcome = Outcome::Answered;
    read.message = text;
    return read;
}

void ExpectReadText(const std::string& expected, const Result& result)
{
    EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
    EXPECT_EQ(result.message, expected);
}

const std::vector<HostileRequest>& Requests()
{
    static const std::vector<HostileRequest> requests = {
        /* ---- the where clause ---- */
        {"WhereWithTopLevelOr",
         [](Catalogue& c) { return SelectTiles(c, "tile_title = 'none' OR 1=1"); }, ExpectReadsOtherPackages,
         nullptr, ExpectOwnTilesOnly},
        {"WhereWithTopLevelOrOnDataControl",
         [](Catalogue& c) { return DcSelectTiles(c, "tile_title = 'none' OR 1=1"); }, ExpectReadsOtherPackages,
         nullptr, ExpectOwnTilesOnly},
        {"UpdateWithTopLevelOr",
         [](Catalogue& c) {
             return c.content.Update(Uri("tiles"), {{"tile_title", "taken"}}, "tile_id = 'none' OR 1=1", {});
         },
         WroteSo("SELECT tile_title FROM tiles WHERE _id = 2001", "taken"), nullptr,
         WroteSo("SELECT tile_title FROM tiles WHERE _id = 1001", "taken")},
        {"WhereThatClosesTheFilter",
         [](Catalogue& c) { return SelectTiles(c, "1) OR (1=1"); }, ExpectNoResult, "where-clause", nullptr},
        {"WhereWithParenthesisInAString",
         [](Catalogue& c) { return SelectTiles(c, "tile_title = ')' OR (1=1)"); }, ExpectReadsOtherPackages,
         nullptr, ExpectOwnTilesOnly},
        {"WhereWithUnion",
         [](Catalogue& c) {
             return SelectTiles(c, "1=0 UNION SELECT accelerator_app_pkg_name FROM accelerators");
         },
         [](Catalogue&, const Result& result) {
             EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
             EXPECT_NE(Text(result).find("org.example.sports"), std::string::npos) << Text(result);
         },
         /* Its SELECT is a statement beyond the caller's own. */
         "statement-authorizer", nullptr},
        {"WhereWithSubqueryIntoAnotherTable",
         [](Catalogue& c) {
             return SelectTiles(c, "tile_id IN (SELECT section_id FROM sections) OR 1=1");
         },
         ExpectReadsOtherPackages, "statement-authorizer", nullptr},
        {"WhereReadingTheSchema",
         [](Catalogue& c) { return SelectTiles(c, "EXISTS (SELECT 1 FROM sqlite_master)"); },
         [](Catalogue&, const Result& result) { EXPECT_TRUE(result.Ok()) << Text(result); },
         "statement-authorizer", nullptr},
        {"WhereWithSecondStatement",
         [](Catalogue& c) { return SelectTiles(c, "1=1; DELETE FROM tiles"); },
         /* Cut at the semicolon: the caller's own rows, nothing deleted. */
         ExpectOwnTilesOnly, "where-clause", nullptr},
        {"WhereEndingInLineComment",
         [](Catalogue& c) { return SelectTiles(c, "tile_title = 'none' OR 1=1 --"); }, ExpectReadsOtherPackages,
         "where-clause", nullptr},
        {"WhereEndingInOpenComment",
         [](Catalogue& c) { return SelectTiles(c, "tile_title = 'none' OR 1=1 /*"); }, ExpectReadsOtherPackages,
         "where-clause", nullptr},
        {"WhereOfOneMegabyte",
         [](Catalogue& c) { return SelectTiles(c, "tile_title = '" + std::string(1 << 20, 'a') + "'"); },
         [](Catalogue&, const Result& result) {
             EXPECT_TRUE(result.Ok()) << result.message;
             EXPECT_TRUE(result.rows.rows.empty());
         },
         "limits", nullptr},
        /* ---- reaching other rows through the statement itself ---- */
        {"WhereReadingAnotherPackagesTitleThroughASubqueryOfItsOwnTable",
         [](Catalogue& c) {
             int requests = 0;
             return ReadThroughOwnRows(c, "tiles", "SELECT tile_title FROM tiles WHERE _id = 2001", requests);
         },
         [](Catalogue&, const Result& result) { ExpectReadText("sports one", result); }, "statement-authorizer",
         nullptr},
        {"WhereReadingAnotherPackagesNameThroughASubqueryOfItsOwnTable",
         [](Catalogue& c) {
             int requests = 0;
             return ReadThroughOwnRows(c, "accelerators",
                                       "SELECT accelerator_app_pkg_name FROM accelerators WHERE _id = 200", requests);
         },
         [](Catalogue&, const Result& result) { ExpectReadText("org.example.sports", result); },
         "statement-authorizer", nullptr},
        {"WhereAskingWhetherAnotherPackageHasATitle",
         /* SQLite reads "IN (SELECT column FROM table)" straight from the
          * table, without telling an authorizer of a subquery. */
         [](Catalogue& c) { return SelectTiles(c, "'sports one' IN (SELECT tile_title FROM tiles)"); },
         ExpectOwnTilesOnly, "statement-authorizer", nullptr},
        {"WhereWithRecursiveCommonTableExpression",
         [](Catalogue& c) {
             return SelectTiles(c, "EXISTS (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c WHERE x < "
                                   "1000) SELECT 1 FROM c WHERE x = 1000)");
         },
         ExpectOwnTilesOnly, "statement-authorizer", nullptr},
        {"WhereWithRandomblob",
         [](Catalogue& c) { return SelectTiles(c, "length(randomblob(100000)) > 0"); }, ExpectOwnTilesOnly,
         "statement-authorizer", nullptr},
        {"WhereWithZeroblobOnDataControl",
         [](Catalogue& c) { return DcSelectTiles(c, "length(zeroblob(100000)) > 0"); }, ExpectOwnTilesOnly,
         "statement-authorizer", nullptr},
        {"WhereWithPrintf",
         [](Catalogue& c) { return SelectTiles(c, "length(printf('%.*c', 100000, 'x')) = 100000"); },
         ExpectOwnTilesOnly, "statement-authorizer", nullptr},
        {"WhereWithCharOfAComputedValue",
         [](Catalogue& c) { return SelectTiles(c, "char(unicode(tile_title)) = 'n'"); }, ExpectOwnTilesOnly,
         "statement-authorizer", nullptr},
        /* ---- projections ---- */
        {"ProjectionSubquery",
         [](Catalogue& c) {
             return SelectTiles(c, "", {"(SELECT group_concat(accelerator_app_pkg_name) FROM accelerators)"});
         },
         ExpectReadsOtherPackages, "projection", nullptr},
        {"ProjectionSubqueryOnDataControl",
         [](Catalogue& c) {
             return DcSelectTiles(c, "", {"(SELECT group_concat(accelerator_app_pkg_name) FROM accelerators)"});
         },
         ExpectReadsOtherPackages, "projection", nullptr},
        {"ProjectionExpression",
         [](Catalogue& c) { return SelectTiles(c, "", {"tile_id || tile_title"}); },
         [](Catalogue&, const Result& result) {
             EXPECT_EQ(FirstColumn(result), "news1news one,news2news two") << Text(result);
         },
         "projection", nullptr},
        {"ProjectionOfInternalColumnsOnly",
         [](Catalogue& c) {
             return c.content.Select(Uri("accelerators"), {"accelerator_app_pkg_name"}, "", {}, "", "");
         },
         /* Reduced to nothing, which the content library reads as every column. */
         [](Catalogue&, const Result& result) {
             EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
             EXPECT_NE(Text(result).find("accelerator_app_pkg_name;"), std::string::npos) << Text(result);
         },
         "projection", nullptr},
        {"ProjectionOfInternalColumnsOnlyOnDataControl",
         [](Catalogue& c) { return c.dataControl.Select("accelerators", {"accelerator_position"}, "", ""); },
         [](Catalogue&, const Result& result) {
             EXPECT_EQ(result.outcome, Outcome::Answered) << Text(result);
             EXPECT_NE(Text(result).find("accelerator_app_pkg_name;"), std::string::npos) << Text(result);
         },
         "projection", nullptr},
        /* ---- package ids pasted into the filters ---- */
        {"PackageIdWithQuote",
         [](Catalogue& c) {
             /* This process has not used the bus yet: it can still become the
              * quoting package's application. Its first request makes its
              * launcher entry. */
             tilvane::host::SetOwnAppId(kQuoteApp);
             return SelectTiles(c, "");
         },
         ExpectReadsOtherPackages, nullptr,
         [](Catalogue&, const Result& result) {
             EXPECT_TRUE(result.Ok()) << Text(result);
             EXPECT_EQ(FirstColumn(result), "") << Text(result);
         }},
        /* ---- inserts ---- */
        {"SectionUnderAnotherPackagesAccelerator",
         [](Catalogue& c) {
             return c.content.Insert(Uri("sections"), {{"section_id", "planted"}, {"section_accelerator_raw_id", "200"}});
         },
         WroteSo("SELECT section_accelerator_raw_id FROM sections WHERE section_id = 'planted'", "200"),
         "insert-owner", nullptr},
        {"SectionUnderAnotherPackagesAcceleratorOnDataControl",
         [](Catalogue& c) {
             return c.dataControl.Insert("sections", {{"section_id", "planted"}, {"section_accelerator_raw_id", "200"}});
         },
         AnsweredAndWroteSo("SELECT section_accelerator_raw_id FROM sections WHERE section_id = 'planted'", "200"),
         "insert-owner", nullptr},
        {"TileInAnotherPackagesSection",
         [](Catalogue& c) {
             return c.content.Insert(Uri("tiles"), {{"tile_id", "planted"}, {"tile_section_raw_id", "20"}});
         },
         WroteSo("SELECT tile_section_raw_id FROM tiles WHERE tile_id = 'planted'", "20"),
         "insert-owner", nullptr},
        {"TileOfNobody",
         [](Catalogue& c) { return c.content.Insert(Uri("tiles"), {}); },
         WroteSo("SELECT count(*) FROM tiles WHERE tile_section_raw_id IS NULL", "1"),
         "insert-owner", nullptr},
        /* ---- bulk updates ---- */
        {"BulkUpdateOfAnotherPackagesTile",
         [](Catalogue& c) {
             return c.content.BulkUpdate(Uri("tiles"),
                                         {{{"bulk_update_row_id_key", "1001"}, {"tile_title", "taken"}},
                                          {{"bulk_update_row_id_key", "2001"}, {"tile_title", "taken"}}});
         },
         WroteSo("SELECT tile_title FROM tiles WHERE _id = 2001", "taken"), nullptr,
         /* Confined like a single update: the caller's own row changes. */
         WroteSo("SELECT tile_title FROM tiles WHERE _id = 1001", "taken")},
        /* ---- the change manager's ports ---- */
        {"UninstallOfAnotherPackage",
         [](Catalogue& c) {
             return c.SendToPort("accelerator_port", {{"action", "1"}, {"accelerator_app_pkg_name", "org.example.sports"}});
         },
         SentAndActedOn("SELECT count(*) FROM tiles WHERE tile_section_raw_id = 20", "0"),
         nullptr,
         SentAndDropped("uninstall")},
        {"VisibilityOfAnotherPackage",
         [](Catalogue& c) {
             return c.SendToPort("launcher_event_port",
                                 {{"visibility", "hidden"}, {"accelerator_app_pkg_name", "org.example.films"}});
         },
         SentAndActedOn("SELECT accelerator_enabled FROM accelerators WHERE _id = 300", "0"),
         nullptr,
         SentAndDropped("visibility")},
        {"InstallOfItsOwnPackageByALevelZeroApplication",
         [](Catalogue& c) {
             /* This process has not used the bus yet: it can still become the
              * application of a package that declares nothing (level 0). */
             tilvane::host::SetOwnAppId(kMute);
             Result before = c.content.Select(Uri("accelerators"), {"_id"}, "", {}, "", "");
             EXPECT_EQ(before.outcome, Outcome::NoResult) << Text(before);
             Result sent = c.SendToPort("accelerator_port", {{"action", "0"}, {"accelerator_app_pkg_name", kMutePackage}});
             EXPECT_EQ(sent.code, 0);
             return sent;
         },
         [](Catalogue& c, const Result&) {
             EXPECT_TRUE(c.WaitForScalar("SELECT count(*) FROM accelerators WHERE accelerator_app_pkg_name = '" +
                                             std::string(kMutePackage) + "'",
                                         "1"));
             /* Its launcher entry gives it the public level. */
             Result after = c.content.Select(Uri("accelerators"), {"_id"}, "", {}, "", "");
             EXPECT_EQ(after.outcome, Outcome::Answered) << Text(after);
             EXPECT_EQ(after.rows.rows.size(), 1u);
         },
         nullptr,
         [](Catalogue& c, const Result&) {
             EXPECT_TRUE(c.WaitForServiceLine(DroppedMessageLine("install", kMute))) << c.ServiceLog();
             EXPECT_EQ(c.Scalar("SELECT count(*) FROM accelerators WHERE accelerator_app_pkg_name = '" +
                                std::string(kMutePackage) + "'"),
                       "0");
             Result after = c.content.Select(Uri("accelerators"), {"_id"}, "", {}, "", "");
             EXPECT_EQ(after.outcome, Outcome::NoResult) << Text(after);
         }},
        {"PreviewEventsOfAnotherPackage",
         [](Catalogue& c) { return c.EventsHeardWhileSportsAndNewsPublish(); },
         [](Catalogue&, const Result& result) {
             EXPECT_NE(result.message.find("org.example.sports"), std::string::npos) << result.message;
         },
         nullptr,
         [](Catalogue&, const Result& result) {
             EXPECT_EQ(result.message, "org.example.news") << result.message;
         }},
        /* ---- limits ---- */
        {"ValueLargerThanTheLimit",
         [](Catalogue& c) {
             return c.content.Insert(Uri("tiles"),
                                     {{"tile_id", "big"}, {"tile_section_raw_id", "10"}, {"tile_title", std::string(5000, 'x')}});
         },
         WroteSo("SELECT length(tile_title) FROM tiles WHERE tile_id = 'big'", "5000"),
         "limits", nullptr},
        {"ValueLargerThanTheLimitOnDataControl",
         [](Catalogue& c) {
             return c.dataControl.Update("tiles", {{"tile_title", std::string(5000, 'x')}}, "tile_id = 'news1'");
         },
         AnsweredAndWroteSo("SELECT length(tile_title) FROM tiles WHERE tile_id = 'news1'", "5000"),
         "limits", nullptr},
        {"MoreSectionsThanTheLimit",
         [](Catalogue& c) {
             Result last;
             for (int i = 0; i < 3; ++i) {
                 last = c.content.Insert(Uri("sections"),
                                         {{"section_id", "more" + std::to_string(i)}, {"section_accelerator_raw_id", "100"}});
             }
             return last;
         },
         WroteSo("SELECT count(*) FROM sections WHERE section_accelerator_raw_id = 100", "4"),
         "limits", nullptr},
        {"MoreTilesThanTheLimit",
         [](Catalogue& c) {
             std::vector<Values> rows;
             for (int i = 0; i < 5; ++i) {
                 rows.push_back({{"tile_id", "bulk" + std::to_string(i)}, {"tile_section_raw_id", "10"}});
             }
             return c.content.BulkInsert(Uri("tiles"), rows);
         },
         WroteSo("SELECT count(*) FROM tiles WHERE tile_section_raw_id = 10", "7"),
         "limits", nullptr},
    };
    return requests;
}

TEST_P(Catalogue, HostileRequest)
{
    const HostileRequest& request = Requests()[std::get<0>(GetParam())];
    const bool strict = std::get<1>(GetParam()) == Mode::Strict;
    const std::string foreignBefore = ForeignRows();

    const Result result = request.send(*this);

    if (!strict) {
        request.expectDefault(*this, result);
        return;
    }
    if (request.strictRule != nullptr) {
        EXPECT_EQ(result.outcome, Outcome::ProviderError) << Text(result);
        EXPECT_NE(result.message.find(std::string("strict confinement, rule ") + request.strictRule + ", result -1"),
                  std::string::npos)
            << Text(result);
        EXPECT_TRUE(WaitForServiceLine(std::string("strict confinement refused (rule ") + request.strictRule + ")"))
            << ServiceLog();
    } else {
        request.expectStrict(*this, result);
    }
    EXPECT_EQ(Text(result).find("sports"), std::string::npos) << Text(result);
    EXPECT_EQ(Text(result).find("films"), std::string::npos) << Text(result);
    EXPECT_EQ(ForeignRows(), foreignBefore);
}

std::string EntryName(const ::testing::TestParamInfo<std::tuple<size_t, Mode>>& info)
{
    return std::string(Requests()[std::get<0>(info.param)].name) +
           (std::get<1>(info.param) == Mode::Strict ? "_Strict" : "_Default");
}

INSTANTIATE_TEST_SUITE_P(StrictConfinement, Catalogue,
                         ::testing::Combine(::testing::Range<size_t>(0, Requests().size()),
                                            ::testing::Values(Mode::Default, Mode::Strict)),
                         EntryName);

}  // namespace

namespace {

/* The senders the integrator trusts keep both ports under strict confinement. */
class TrustedSender : public Catalogue
{
};

TEST_P(TrustedSender, LauncherStillUninstallsAndHidesUnderStrictConfinement)
{
    tilvane::host::SetOwnAppId("org.example.launcher");
    EXPECT_EQ(SendToPort("launcher_event_port",
                         {{"visibility", "hidden"}, {"accelerator_app_pkg_name", "org.example.films"}})
                  .code,
              0);
    EXPECT_TRUE(WaitForScalar("SELECT accelerator_enabled FROM accelerators WHERE _id = 300", "0"));
    EXPECT_EQ(SendToPort("accelerator_port", {{"action", "1"}, {"accelerator_app_pkg_name", "org.example.sports"}}).code,
              0);
    EXPECT_TRUE(WaitForScalar("SELECT count(*) FROM tiles WHERE tile_section_raw_id = 20", "0"));
    EXPECT_EQ(ServiceLog().find("strict confinement refused"), std::string::npos) << ServiceLog();
}

INSTANTIATE_TEST_SUITE_P(StrictConfinement, TrustedSender,
                         ::testing::Values(std::make_tuple(size_t{0}, Mode::Strict)));

}  // namespace
