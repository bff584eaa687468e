/*
 * Identities from the operating system's credentials, with the real service on
 * a private bus and clients run as other users (setpriv): who may act as an
 * application, which data ids the provider serves, which platform events count,
 * which ids an install accepts, what the system-style bus itself refuses, and
 * the development mode that keeps every process one trusted user.
 *
 * Switching users needs root; CI runs as root. Elsewhere these tests skip.
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <host_control.h>

#include "MultiUserBus.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"
#include "tilvane_schema.h"

using namespace tilvane::test;

namespace {

constexpr const char* kProvider = tilvane::client::schema::kProviderId;
constexpr int kRoot = 0;
/* The applications' users must exist: the bus daemon looks up each
 * connection's groups and drops a connection whose user it cannot find. */
const int kNewsUser = tilvane::test::UserIdOf("daemon");
const int kSportsUser = tilvane::test::UserIdOf("nobody");
const std::string kNews = std::to_string(kNewsUser);
const std::string kSports = std::to_string(kSportsUser);
const char kNewsApp[] = "org.example.news.ui";
const char kSportsApp[] = "org.example.sports.ui";

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

/* A platform root that other users can read, with the identity mode given. */
void WriteIdentityConfig(const std::string& root, const std::string& mode)
{
    chmod(root.c_str(), 0755);
    std::filesystem::create_directories(root + "/etc");
    chmod((root + "/etc").c_str(), 0755);
    WriteFile(root + "/etc/tilvane.conf",
              "[identity]\nmode = " + mode + "\nplatform-users = 0\nsignal-linger-ms = 1000\n");
    chmod((root + "/etc/tilvane.conf").c_str(), 0644);
}

/* Runs a program (as `uid`, or as this process's user when uid < 0) with the
 * platform root and application id given, and waits for it. */
Outcome RunProgram(const TempDir& logs, const std::string& root, int uid, const std::vector<std::string>& argv,
                   const std::string& appId)
{
    const tilvane::test::RunResult run = tilvane::test::RunAs(
        logs, uid, argv, {"TILVANE_PLATFORM_ROOT=" + root, "TILVANE_APP_ID=" + appId, "TILVANE_LOG_LEVEL=W"});
    return {run.status, run.out, run.err};
}

std::string Manifest(const std::string& packageId, const std::string& appId, int uid)
{
    return "package = " + packageId + "\nuser = " + std::to_string(uid) + "\napp = " + appId +
           "\nmetadata = http://developer.quillon.com/tv/metadata/use.preview true\n"
           "metadata = accelerator_read_permission com.quillon.px.permission.READ_TILES\n"
           "metadata = accelerator_write_permission com.quillon.px.permission.WRITE_TILES\n";
}

class IdentityTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!CanSwitchUsers() || kNewsUser <= 0 || kSportsUser <= 0) {
            GTEST_SKIP() << "running clients as other users needs root, setpriv and the users daemon and nobody";
        }
        unsetenv("TILVANE_CONFIG");
        unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
        ASSERT_TRUE(m_bus.IsRunning());
        WriteIdentityConfig(m_root.Path(), "verified");
        Install("org.example.news", kNewsApp, kNewsUser);
        Install("org.example.sports", kSportsApp, kSportsUser);
    }

    void Install(const std::string& packageId, const std::string& appId, int uid)
    {
        const std::string path = m_logs.File(packageId + ".manifest");
        WriteFile(path, Manifest(packageId, appId, uid));
        Outcome installed = Ctl(kRoot, "tilvanectl", {"app", "install", path});
        ASSERT_EQ(installed.status, 0) << installed.err;
    }

    Outcome Ctl(int uid, const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY, "--app-id", appId};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(m_logs, m_root.Path(), uid, argv, appId);
    }

    Outcome RawSelect(int uid, const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANE_RAW_CLIENT_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(m_logs, m_root.Path(), uid, argv, appId);
    }

    void StartService()
    {
        m_service = std::make_unique<Process>(
            std::vector<std::string>{TILVANE_SERVICE_BINARY},
            std::vector<std::string>{"TILVANE_PLATFORM_ROOT=" + m_root.Path(), "TILVANE_LOG_LEVEL=D",
                                     std::string("TILVANE_APP_ID=") + kServiceAppId},
            m_logs.File("service.out"), m_logs.File("service.err"));
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
    }

    std::string ServiceLog() const { return m_service->Err(); }

    int CountInLog(const std::string& text) const { return m_service->Count(text); }

    std::string DatabasePath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }

    int64_t Count(const std::string& sql)
    {
        RawDatabase db(DatabasePath());
        return std::stoll(db.Scalar(sql));
    }

    std::string InsertedRowId(const Outcome& outcome)
    {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(outcome.out, match, std::regex("inserted row ([0-9]+)"))) << outcome.out;
        return match.size() > 1 ? match[1].str() : "";
    }

    /* The application, as its own user, makes its launcher entry, a section
     * and a tile on each interface. */
    void PublishContent(int uid, const std::string& appId, const std::string& prefix)
    {
        Outcome read = Ctl(uid, appId, {"data", "select", "accelerators", "--columns", "_id", "--json"});
        ASSERT_EQ(read.status, 0) << read.out << read.err;
        std::smatch match;
        ASSERT_TRUE(std::regex_search(read.out, match, std::regex("\"_id\": ([0-9]+)"))) << read.out;
        Outcome section = Ctl(uid, appId, {"data", "insert", "sections", "section_id=" + prefix + "-section",
                                           "section_accelerator_raw_id=" + match[1].str()});
        ASSERT_EQ(section.status, 0) << section.out << section.err;
        const std::string sectionId = InsertedRowId(section);
        for (const char* interface : {"content", "data-control"}) {
            Outcome tile = Ctl(uid, appId, {"data", "insert", "tiles", "--interface", interface,
                                            "tile_id=" + prefix + "-" + interface, "tile_section_raw_id=" + sectionId});
            ASSERT_EQ(tile.status, 0) << tile.out << tile.err;
        }
    }

    /* The tile ids a caller reads on one interface, as "a,b". */
    std::string TileIds(int uid, const std::string& appId, const std::string& interface, Outcome* outcome = nullptr)
    {
        Outcome read = Ctl(uid, appId, {"data", "select", "tiles", "--interface", interface, "--columns", "tile_id",
                                        "--order", "tile_id", "--json"});
        if (outcome != nullptr) {
            *outcome = read;
        }
        std::string ids;
        std::regex pattern("\"tile_id\": \"([^\"]*)\"");
        for (auto it = std::sregex_iterator(read.out.begin(), read.out.end(), pattern); it != std::sregex_iterator();
             ++it) {
            ids += (ids.empty() ? "" : ",") + (*it)[1].str();
        }
        return ids;
    }

    TempDir m_logs;
    MultiUserBus m_bus;
    TempDir m_root;
    std::unique_ptr<Process> m_service;
};

TEST_F(IdentityTest, AnotherUserCannotActAsAnInstalledApplicationOrAPlatformId)
{
    StartService();
    EXPECT_EQ(CountInLog("identities are verified: an application is the user the bus reports"), 1) << ServiceLog();
    PublishContent(kNewsUser, kNewsApp, "news");
    PublishContent(kSportsUser, kSportsApp, "sports");
    ASSERT_EQ(Count("SELECT COUNT(*) FROM tiles"), 4);
    ASSERT_EQ(Count("SELECT COUNT(*) FROM sections"), 2);

    /* The sports application's user claims the news application (running or
     * not), the bare news package id and the two white-listed services. */
    for (const std::string& claimed : {std::string(kNewsApp), std::string("org.example.news"),
                                      std::string("DownloadManager"), std::string("ContentServiceManager")}) {
        for (const char* interface : {"content", "data-control"}) {
            Outcome removal = Ctl(kSportsUser, claimed, {"data", "delete", "tiles", "--all", "--interface", interface});
            EXPECT_EQ(removal.status, 1) << claimed << " " << interface << ": " << removal.out;
            EXPECT_NE((removal.out + removal.err).find("not authorized"), std::string::npos) << removal.out << removal.err;
            Outcome read;
            EXPECT_EQ(TileIds(kSportsUser, claimed, interface, &read), "") << claimed;
            EXPECT_NE((read.out + read.err).find("not authorized"), std::string::npos) << read.out << read.err;
        }
    }
    /* A message-port message under the news application's id is dropped too. */
    Ctl(kSportsUser, kNewsApp, {"launcher", "hidden", "org.example.news"});
    ASSERT_TRUE(m_service->WaitFor("message for port launcher_event_port dropped: sender", true, 10000))
        << ServiceLog();
    EXPECT_EQ(CountInLog("message for port launcher_event_port dropped: sender"), 1);

    /* Nothing changed, and each refusal is one log line naming both users. */
    EXPECT_EQ(Count("SELECT COUNT(*) FROM tiles"), 4);
    EXPECT_EQ(Count("SELECT COUNT(*) FROM sections"), 2);
    EXPECT_EQ(CountInLog("runs as user " + kSports + ", application DownloadManager is bound to user 0"), 4) << ServiceLog();
    EXPECT_EQ(CountInLog("runs as user " + kSports + ", application ContentServiceManager is bound to user 0"), 4);
    EXPECT_EQ(CountInLog("runs as user " + kSports + ", application org.example.news.ui is bound to user " + kNews), 5);
    EXPECT_EQ(CountInLog("runs as user " + kSports + ", application org.example.news is bound to user " + kNews), 4);
}

/* The same claims over the direct request socket, which every user may
 * connect to: the socket's user is bound to applications as the bus's is. */
TEST_F(IdentityTest, OverTheRequestSocketAnotherUserCannotActAsAnotherApplication)
{
    StartService();
    PublishContent(kNewsUser, kNewsApp, "news");
    EXPECT_GE(CountInLog("request socket: connection of process "), 1) << ServiceLog();
    EXPECT_GE(CountInLog("(user " + kNews + ")"), 1) << ServiceLog();
    for (const char* interface : {"content", "data-control"}) {
        Outcome removal = Ctl(kSportsUser, kNewsApp, {"data", "delete", "tiles", "--all", "--interface", interface});
        EXPECT_EQ(removal.status, 1) << interface << ": " << removal.out;
        EXPECT_NE((removal.out + removal.err).find("not authorized"), std::string::npos) << removal.out << removal.err;
        Outcome read;
        EXPECT_EQ(TileIds(kSportsUser, kNewsApp, interface, &read), "") << interface;
        EXPECT_NE((read.out + read.err).find("not authorized"), std::string::npos) << read.out << read.err;
    }
    EXPECT_EQ(Count("SELECT COUNT(*) FROM tiles"), 2);
    /* Each refusal names the socket's peer, its user and the application's. */
    const std::regex refusal("refused: peer [0-9]+ runs as user " + kSports +
                             ", application org.example.news.ui is bound to user " + kNews);
    const std::string log = ServiceLog();
    EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), refusal), std::sregex_iterator()), 4)
        << log;
    EXPECT_EQ(TileIds(kNewsUser, kNewsApp, "content"), "news-content,news-data-control");
}

/* Nobody can stand in for the provider on the socket: not by owning its
 * folder before it starts (then it listens on nothing), nor by listening
 * where its socket would be (then clients do not talk to that listener). */
TEST_F(IdentityTest, AnotherUsersSocketOrFolderIsNeverTakenForTheProvider)
{
    const std::string folder = m_root.Path() + "/run/tilvane";
    std::filesystem::create_directories(folder);
    chmod((m_root.Path() + "/run").c_str(), 0755);
    ASSERT_EQ(chown(folder.c_str(), kSportsUser, kSportsUser), 0);
    chmod(folder.c_str(), 0777);
    /* The sports user listens where the content interface's socket would be
     * and writes down every byte a client sends it. */
    const std::string socket = folder + "/org.tilvane.Content.Pcom_2equillon_2epx_2etiles";
    const std::string heard = m_logs.File("heard");
    const std::string listener =
        "import os,socket,time\n"
        "s=socket.socket(socket.AF_UNIX); s.bind('" + socket + "'); os.chmod('" + socket + "', 0o666)\n"
        "s.listen(16); s.settimeout(0.2)\n"
        "end=time.time()+12; data=b''\n"
        "while time.time()<end:\n"
        "  try:\n    c,_=s.accept(); c.settimeout(0.5)\n    data+=b'[accepted]'+(c.recv(4096) or b'')\n"
        "  except Exception: pass\n"
        "  open('" + heard + "','wb').write(data)\n";
    chmod(m_logs.Path().c_str(), 0777);
    Process fake(tilvane::test::AsUser(kSportsUser, {"/usr/bin/python3", "-c", listener}), {},
                 m_logs.File("fake.out"), m_logs.File("fake.err"));
    for (int i = 0; i < 100 && access(socket.c_str(), F_OK) != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(access(socket.c_str(), F_OK), 0) << tilvane::test::ReadAll(m_logs.File("fake.err"));
    StartService();
    EXPECT_EQ(CountInLog("request socket folder " + folder + " is not this user's own; requests stay on the bus"), 2)
        << ServiceLog();
    /* The news application is still answered, over the bus. */
    PublishContent(kNewsUser, kNewsApp, "news");
    EXPECT_EQ(TileIds(kNewsUser, kNewsApp, "content"), "news-content,news-data-control");
    EXPECT_EQ(CountInLog("request socket: connection of process "), 0);
    fake.Signal(SIGKILL);
    fake.Wait(5000);
    /* The clients connected, saw whose socket it is, and said nothing. */
    const std::string bytes = tilvane::test::ReadAll(heard);
    EXPECT_NE(bytes.find("[accepted]"), std::string::npos);
    EXPECT_EQ(bytes.find("AUTH"), std::string::npos) << bytes;
}

TEST_F(IdentityTest, TheBoundUserGetsItsLevelAndOnlyItsRows)
{
    StartService();
    PublishContent(kNewsUser, kNewsApp, "news");
    PublishContent(kSportsUser, kSportsApp, "sports");
    for (const char* interface : {"content", "data-control"}) {
        EXPECT_EQ(TileIds(kNewsUser, kNewsApp, interface), "news-content,news-data-control") << interface;
        EXPECT_EQ(TileIds(kSportsUser, kSportsApp, interface), "sports-content,sports-data-control") << interface;
        /* A platform user is the white-listed service: level 4, every row. */
        EXPECT_EQ(TileIds(kRoot, "DownloadManager", interface),
                  "news-content,news-data-control,sports-content,sports-data-control")
            << interface;
    }
    /* The platform user is not the news application either. */
    Outcome read;
    EXPECT_EQ(TileIds(kRoot, kNewsApp, "content", &read), "");
    EXPECT_NE((read.out + read.err).find("not authorized"), std::string::npos) << read.out;
    EXPECT_EQ(CountInLog("runs as user 0, application org.example.news.ui is bound to user " + kNews), 1) << ServiceLog();
}

TEST_F(IdentityTest, AnAtomicPublishIsMadeOnlyAsTheCallersOwnApplication)
{
    StartService();
    /* In the platform root, which the applications' users may read. */
    const std::string file = m_root.File("content.json");
    WriteFile(file, "{\"sections\": [{\"section_id\": \"s\", \"tiles\": [{\"tile_id\": \"t\"}]}]}");
    chmod(file.c_str(), 0644);
    Outcome own = Ctl(kNewsUser, kNewsApp, {"publish", file});
    ASSERT_EQ(own.status, 0) << own.out << own.err;
    const std::string before = RawDatabase(DatabasePath()).Dump({"sections", "tiles"});

    /* The sports application's user replaces "the news application's" content. */
    Outcome claimed = Ctl(kSportsUser, kNewsApp, {"publish", file, "--replace"});
    EXPECT_EQ(claimed.status, 1) << claimed.out;
    EXPECT_NE(claimed.err.find("tilvanectl publish: not authorized:"), std::string::npos) << claimed.err;
    EXPECT_EQ(RawDatabase(DatabasePath()).Dump({"sections", "tiles"}), before);

    /* As itself it replaces its own content, and nobody else's. */
    Outcome mine = Ctl(kSportsUser, kSportsApp, {"publish", file, "--replace"});
    ASSERT_EQ(mine.status, 0) << mine.out << mine.err;
    EXPECT_NE(mine.out.find("removed 0 previous sections"), std::string::npos) << mine.out;
    EXPECT_EQ(TileIds(kNewsUser, kNewsApp, "content"), "t");
    EXPECT_EQ(Count("SELECT COUNT(*) FROM tiles"), 2);
}

TEST_F(IdentityTest, OnlyTheDeclaredDataIdsAreServedOnBothInterfaces)
{
    StartService();
    PublishContent(kNewsUser, kNewsApp, "news");
    PublishContent(kSportsUser, kSportsApp, "sports");
    const std::vector<std::string> refused = {"TILES", "tiles ", "main.tiles", "tiles WHERE 1=1 --", "ACCELERATORS",
                                              "sqlite_master"};
    for (const std::string& dataId : refused) {
        Outcome viaDataControl = RawSelect(kNewsUser, kNewsApp, {"data-control", kProvider, dataId});
        EXPECT_EQ(viaDataControl.status, 1) << dataId;
        EXPECT_NE(viaDataControl.out.find("outcome: not served"), std::string::npos) << dataId << viaDataControl.out;
        EXPECT_NE(viaDataControl.out.find("rows: 0"), std::string::npos) << viaDataControl.out;
        EXPECT_EQ(CountInLog("the provider serves no data id \"" + dataId + "\""), 1) << dataId;

        Outcome viaContent = RawSelect(kNewsUser, kNewsApp, {"content", std::string(kProvider) + "/" + dataId});
        EXPECT_EQ(viaContent.status, 1) << dataId;
        EXPECT_NE(viaContent.out.find("outcome: not served"), std::string::npos) << dataId << viaContent.out;
        EXPECT_NE(viaContent.out.find("rows: 0"), std::string::npos) << viaContent.out;
    }
    /* The declared id itself is served, confined to the caller's rows. */
    Outcome tiles = RawSelect(kNewsUser, kNewsApp, {"data-control", kProvider, "tiles"});
    EXPECT_EQ(tiles.status, 0) << tiles.out;
    EXPECT_NE(tiles.out.find("rows: 2"), std::string::npos) << tiles.out;
    tiles = RawSelect(kNewsUser, kNewsApp, {"content", std::string(kProvider) + "/tiles"});
    EXPECT_EQ(tiles.status, 0) << tiles.out;
    EXPECT_NE(tiles.out.find("rows: 2"), std::string::npos) << tiles.out;
}

TEST_F(IdentityTest, PowerOffAndResetKeyFromAnApplicationUserClearNothing)
{
    StartService();
    PublishContent(kNewsUser, kNewsApp, "news");
    {
        /* A content-hub package's launcher entry with a section. */
        RawDatabase db(DatabasePath());
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('Qx7TmWp2Lc');"
                          "INSERT INTO sections (section_id, section_accelerator_raw_id) "
                          "VALUES ('hub-section', last_insert_rowid());"),
                  0);
    }
    const std::string hubSections =
        "SELECT COUNT(*) FROM sections WHERE section_accelerator_raw_id IN "
        "(SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'Qx7TmWp2Lc')";
    ASSERT_EQ(Count(hubSections), 1);
    ASSERT_EQ(Count("SELECT COUNT(*) FROM tiles"), 2);

    /* Raised by the news application's user (not through tilvanectl, which
     * would refuse): ignored, one line each. */
    Outcome powerOff = RawSelect(kNewsUser, kNewsApp, {"power-off", "13"});
    EXPECT_EQ(powerOff.status, 0) << powerOff.err;
    Outcome forged = RunProgram(m_logs, m_root.Path(), kNewsUser,
                                {"/usr/bin/dbus-send", "--bus=" + m_bus.Address(), "--type=signal",
                                 "/org/tilvane/Platform", "org.tilvane.Configuration.KeyChanged",
                                 "string:memory/korro/halcyon_reset_event", "int32:1"},
                                kNewsApp);
    EXPECT_EQ(forged.status, 0) << forged.err;
    /* dbus-send ends at once: the service may find it gone before it asks for
     * its user, which is refused just the same. tilvanectl stays a while. */
    ASSERT_TRUE(m_service->WaitFor("org.tilvane.Configuration.KeyChanged ignored: ", true, 10000)) << ServiceLog();
    ASSERT_TRUE(m_service->WaitFor("org.tilvane.Power.PowerOff ignored: sender", true, 10000)) << ServiceLog();
    EXPECT_EQ(CountInLog("org.tilvane.Configuration.KeyChanged ignored: "), 1);
    EXPECT_EQ(CountInLog("org.tilvane.Power.PowerOff ignored: "), 1);
    EXPECT_EQ(CountInLog("org.tilvane.Power.PowerOff ignored: sender"), 1);
    EXPECT_GE(CountInLog("runs as user " + kNews + ", not a platform user"), 1) << ServiceLog();
    EXPECT_EQ(Ctl(kRoot, kServiceAppId, {"key", "get", "memory/korro/halcyon_reset_event"}).status, 1);
    EXPECT_EQ(CountInLog("halcyon reset callback called"), 0) << ServiceLog();
    EXPECT_EQ(Count(hubSections), 1);
    EXPECT_EQ(Count("SELECT COUNT(*) FROM tiles"), 2);

    /* The same events from a platform user take effect. */
    Outcome reset = Ctl(kRoot, kServiceAppId, {"key", "set", "memory/korro/halcyon_reset_event", "1"});
    EXPECT_EQ(reset.status, 0) << reset.err;
    ASSERT_TRUE(m_service->WaitFor("halcyon reset callback called value = 1", true, 10000)) << ServiceLog();
    Outcome platformPowerOff = Ctl(kRoot, kServiceAppId, {"power-off", "13"});
    EXPECT_EQ(platformPowerOff.status, 0) << platformPowerOff.err;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (Count("SELECT COUNT(*) FROM tiles") != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(Count("SELECT COUNT(*) FROM tiles"), 0) << ServiceLog();
    EXPECT_EQ(Count(hubSections), 0);
}

TEST_F(IdentityTest, TheToolRefusesToRaiseWhatWouldNotCountAndSaysWhy)
{
    StartService();
    Outcome refused = Ctl(kNewsUser, kNewsApp, {"power-off", "13"});
    EXPECT_EQ(refused.status, 1) << refused.err;
    EXPECT_NE(refused.err.find("tilvanectl power-off: identities are verified and this tool runs as user " + kNews +
                               ", not a platform user: a power-off counts only from the platform; nothing was sent"),
              std::string::npos)
        << refused.err;
    /* The settings file is not the application's to write. */
    Outcome keySet = Ctl(kNewsUser, kNewsApp, {"key", "set", "memory/korro/halcyon_reset_event", "1"});
    EXPECT_EQ(keySet.status, 1) << keySet.out;
    EXPECT_NE(keySet.err.find("not a platform user: a configuration key (the settings are the platform's own) counts "
                              "only from the platform"),
              std::string::npos)
        << keySet.err;
    EXPECT_EQ(CountInLog("org.tilvane.Power.PowerOff"), 0) << ServiceLog();
}

TEST_F(IdentityTest, TheToolExitsOneWithTheReasonWhenTheServiceRefusesItsMessage)
{
    StartService();
    PublishContent(kNewsUser, kNewsApp, "news");
    /* An application's user running the tool with its default id, the
     * platform's "tilvanectl": the service refuses, and the tool says why. */
    Outcome trigger = RunProgram(m_logs, m_root.Path(), kNewsUser, {TILVANECTL_BINARY, "events", "trigger",
                                                                    "--timeout", "3"}, "tilvanectl");
    EXPECT_EQ(trigger.status, 1) << trigger.err;
    EXPECT_NE(trigger.err.find("refused the message: org.tilvane.MessagePort.Error.NotAuthorized: the sender may not "
                               "act as application tilvanectl"),
              std::string::npos)
        << trigger.err;
    EXPECT_NE(trigger.err.find("this tool runs as application 'tilvanectl' and user " + kNews), std::string::npos)
        << trigger.err;
    /* An id that no package has. */
    Outcome hidden = Ctl(kSportsUser, "org.example.ghost", {"launcher", "hidden", "org.example.news"});
    EXPECT_EQ(hidden.status, 1) << hidden.err;
    EXPECT_NE(hidden.err.find("NotAuthorized: application org.example.ghost is bound to no user"), std::string::npos)
        << hidden.err;
    /* The platform user with the same default id is the platform. */
    Outcome platform = Ctl(kRoot, "tilvanectl", {"launcher", "hidden", "org.example.news"});
    EXPECT_EQ(platform.status, 0) << platform.err;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (Count("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.news'") !=
               0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(Count("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.news'"),
              0);
}

TEST_F(IdentityTest, DevelopmentModeSaysSoAtStartAndBelievesEveryClaim)
{
    WriteIdentityConfig(m_root.Path(), "development");
    StartService();
    EXPECT_EQ(CountInLog("development mode: identities are not verified; every process is believed to be the "
                         "application it claims"),
              1)
        << ServiceLog();
    EXPECT_EQ(CountInLog("identities are verified"), 0);
    /* One user runs everything, as before: root acts as both applications. */
    PublishContent(kRoot, kNewsApp, "news");
    PublishContent(kRoot, kSportsApp, "sports");
    EXPECT_EQ(TileIds(kRoot, kNewsApp, "content"), "news-content,news-data-control");
    /* Any user may claim any id: the development mode is no security boundary. */
    EXPECT_EQ(TileIds(kSportsUser, "DownloadManager", "data-control"),
              "news-content,news-data-control,sports-content,sports-data-control");
}

/* ---- installing ---------------------------------------------------------------- */

TEST(IdentityInstallTest, AManifestWithAQuoteABlankOrASlashInAnIdInstallsNothing)
{
    TempDir root;
    TempDir scratch;
    WriteIdentityConfig(root.Path(), "verified");
    unsetenv("TILVANE_CONFIG");
    struct Case {
        std::string manifest;
        std::string error;
    };
    const std::vector<Case> cases = {
        {"package = x'OR'1'='1\napp = org.example.quote\n",
         ":1: package id 'x'OR'1'='1' is refused: an id is 1 to 128 letters, digits, '.', '_' or '-', starting with "
         "a letter"},
        {"package = org.example.blank\napp = org.example.blank main\n",
         ":2: 'app' needs one application id without blanks"},
        {"# a slash\npackage = org.example.slash\napp = org.example/slash\n",
         ":3: application id 'org.example/slash' is refused: an id is 1 to 128"},
        {"package = org.example.quoted\napp = org.example.o'brien\n", ":2: application id 'org.example.o'brien'"},
        {"package = 9lives\napp = org.example.nine\n", ":1: package id '9lives' is refused"},
        {"package = org.example.long\napp = a" + std::string(128, 'b') + "\n", ":2: application id 'abbb"},
    };
    int index = 0;
    for (const Case& c : cases) {
        const std::string path = scratch.File("case" + std::to_string(++index) + ".manifest");
        WriteFile(path, c.manifest);
        Outcome install = RunProgram(scratch, root.Path(), -1, {TILVANECTL_BINARY, "app", "install", path}, "tilvanectl");
        EXPECT_EQ(install.status, 1) << c.manifest;
        EXPECT_NE(install.err.find(path + c.error), std::string::npos) << install.err;
        EXPECT_NE(install.err.find("nothing was installed"), std::string::npos) << install.err;
    }
    Outcome list = RunProgram(scratch, root.Path(), -1, {TILVANECTL_BINARY, "app", "list"}, "tilvanectl");
    EXPECT_EQ(list.out, "no packages installed\n");
}

/* ---- the bus's own policy ---------------------------------------------------------- */

TEST(IdentityBusPolicyTest, TheBusRefusesAnotherUsersClaimOfAnApplicationsName)
{
    if (!CanSwitchUsers() || kNewsUser <= 0 || kSportsUser <= 0) {
        GTEST_SKIP() << "running clients as other users needs root, setpriv and the users daemon and nobody";
    }
    unsetenv("TILVANE_CONFIG");
    TempDir root;
    TempDir scratch;
    WriteIdentityConfig(root.Path(), "verified");
    std::filesystem::create_directories(root.Path() + "/etc/dbus");
    const std::string config = root.Path() + "/etc/dbus/tilvane-bus.conf";
    std::filesystem::copy_file(std::string(TILVANE_DATA_DIR) + "/dbus/tilvane-bus.conf", config);
    MultiUserBus bus(config);
    ASSERT_TRUE(bus.IsRunning());

    /* Installing writes the policy and makes the bus reload it. */
    const std::string manifest = scratch.File("news.manifest");
    WriteFile(manifest, Manifest("org.example.news", kNewsApp, kNewsUser));
    Outcome installed = RunProgram(scratch, root.Path(), -1, {TILVANECTL_BINARY, "app", "install", manifest}, "tilvanectl");
    ASSERT_EQ(installed.status, 0) << installed.err;
    ASSERT_TRUE(tilvane::test::FileExists(root.Path() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf"));

    auto requestName = [&](int uid, const std::string& name) {
        return RunProgram(scratch, root.Path(), uid,
                          {"/usr/bin/dbus-send", "--bus=" + bus.Address(), "--print-reply",
                           "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus.RequestName", "string:" + name, "uint32:4"},
                          "dbus-send");
    };
    const std::string newsName = tilvane::host::BusNameForAppId(kNewsApp);
    const std::string managerName = tilvane::host::BusNameForAppId("DownloadManager");

    Outcome stolen = requestName(kSportsUser, newsName);
    EXPECT_NE(stolen.status, 0);
    EXPECT_NE(stolen.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << stolen.err;
    stolen = requestName(kNewsUser, managerName);
    EXPECT_NE(stolen.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << stolen.err;

    Outcome own = requestName(kNewsUser, newsName);
    EXPECT_EQ(own.status, 0) << own.err;
    EXPECT_NE(own.out.find("uint32 1"), std::string::npos) << own.out;
    Outcome platform = requestName(kRoot, managerName);
    EXPECT_EQ(platform.status, 0) << platform.err;
    EXPECT_NE(platform.out.find("uint32 1"), std::string::npos) << platform.out;
}

}  // namespace
