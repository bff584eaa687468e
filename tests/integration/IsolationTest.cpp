/*
 * Nothing that is not an application's reaches it by a road beside the
 * request interfaces: files, the preview, ids, port names, subqueries, the
 * change-manager ports, the tool and users. Each test reproduces one way a
 * hostile application (or any local user) tried to read or change another
 * package's content, on a system-style bus (data/dbus/tilvane-bus.conf, the
 * registry's per-package policy included) with the real service in the
 * verified identity mode and strict confinement on, every process under its
 * own user (setpriv), and checks that it is refused and that nothing changed.
 *
 * Users: the news package runs as daemon, sports as nobody, a package that
 * declares nothing (level 0) as bin; sys is a local user with no package.
 * Switching users needs root; CI runs as root. Elsewhere these tests skip.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
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

using namespace tilvane::test;

namespace {

constexpr int kRoot = 0;
const int kNewsUser = UserIdOf("daemon");
const int kSportsUser = UserIdOf("nobody");
const int kMuteUser = UserIdOf("bin");
const int kLocalUser = UserIdOf("sys");
const char kNewsApp[] = "org.example.news.ui";
const char kSportsApp[] = "org.example.sports.ui";
const char kMuteApp[] = "org.example.mute.ui";
const char kPng[] = "\x89PNG\r\n\x1a\n0000IHDR";

const char kLauncherMetadata[] =
    "metadata = http://developer.quillon.com/tv/metadata/use.preview true\n"
    "metadata = accelerator_read_permission com.quillon.px.permission.READ_TILES\n"
    "metadata = accelerator_write_permission com.quillon.px.permission.WRITE_TILES\n";

std::string Manifest(const std::string& packageId, const std::string& appId, int uid, bool launcher = true)
{
    return "package = " + packageId + "\n" + (uid >= 0 ? "user = " + std::to_string(uid) + "\n" : "") +
           "app = " + appId + "\n" + (launcher ? kLauncherMetadata : "");
}

std::string Mode(const std::string& path)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return "missing";
    }
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(info.st_mode & 07777));
    return text;
}

size_t OpenDescriptors(pid_t pid)
{
    size_t count = 0;
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    while (dir != nullptr && readdir(dir) != nullptr) {
        ++count;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return count > 2 ? count - 2 : 0; /* "." and ".." */
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

class IsolationTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!CanSwitchUsers() || kNewsUser <= 0 || kSportsUser <= 0 || kMuteUser <= 0 || kLocalUser <= 0) {
            GTEST_SKIP() << "needs root, setpriv and the users daemon, nobody, bin and sys";
        }
        unsetenv("TILVANE_CONFIG");
        unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
        /* Every process of the test inherits a umask that would leave every
         * file open: the platform's modes may not depend on it. */
        m_umask = umask(0);
        ASSERT_EQ(chmod(m_root.Path().c_str(), 0755), 0);
        std::filesystem::create_directories(Root() + "/etc/dbus");
        WriteConfig("");
        std::filesystem::copy_file(std::string(TILVANE_DATA_DIR) + "/dbus/tilvane-bus.conf",
                                   Root() + "/etc/dbus/tilvane-bus.conf");
        m_bus = std::make_unique<MultiUserBus>(Root() + "/etc/dbus/tilvane-bus.conf");
        ASSERT_TRUE(m_bus->IsRunning());
        Install("org.example.news", kNewsApp, kNewsUser);
        Install("org.example.sports", kSportsApp, kSportsUser);
        Install("org.example.mute", kMuteApp, kMuteUser, false);
    }

    void TearDown() override
    {
        if (m_service) {
            m_service->Signal(SIGTERM);
            m_service->Wait(20000);
        }
        if (CanSwitchUsers()) {
            umask(m_umask);
        }
    }

    const std::string& Root() const { return m_root.Path(); }
    std::string Database(const std::string& name) const { return Root() + "/opt/dbspace/" + name; }
    std::string Images() const { return Root() + "/opt/usr/apps"; }

    /* The verified mode, strict confinement, and `extra` lines. */
    void WriteConfig(const std::string& extra)
    {
        WriteFile(Root() + "/etc/tilvane.conf",
                  "[identity]\nmode = verified\nplatform-users = 0\nsignal-linger-ms = 1000\n" + extra +
                      "[strict]\nconfinement = true\n");
        chmod((Root() + "/etc/tilvane.conf").c_str(), 0644);
    }

    RunResult Run(int uid, const std::vector<std::string>& argv, const std::string& appId)
    {
        return RunAs(m_logs, uid, argv,
                     {"TILVANE_PLATFORM_ROOT=" + Root(), "TILVANE_APP_ID=" + appId, "TILVANE_LOG_LEVEL=W"});
    }

    RunResult Ctl(int uid, const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY, "--app-id", appId};
        argv.insert(argv.end(), args.begin(), args.end());
        return Run(uid, argv, appId);
    }

    /* tilvanectl with no --app-id: its default id. */
    RunResult DefaultCtl(int uid, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANECTL_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunAs(m_logs, uid, argv, {"TILVANE_PLATFORM_ROOT=" + Root(), "TILVANE_LOG_LEVEL=W"});
    }

    RunResult Raw(int uid, const std::string& appId, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {TILVANE_RAW_CLIENT_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        return Run(uid, argv, appId);
    }

    void Install(const std::string& packageId, const std::string& appId, int uid, bool launcher = true)
    {
        const std::string path = m_logs.File(packageId + ".manifest");
        WriteFile(path, Manifest(packageId, appId, uid, launcher));
        RunResult installed = DefaultCtl(kRoot, {"app", "install", path});
        ASSERT_EQ(installed.status, 0) << installed.err;
    }

    /* Its output goes to files of `name` (a new name for each start: a
     * file of the last start may still be read before it is emptied). */
    void StartService(const std::string& name = "service")
    {
        m_service = std::make_unique<Process>(
            std::vector<std::string>{TILVANE_SERVICE_BINARY},
            std::vector<std::string>{"TILVANE_PLATFORM_ROOT=" + Root(), "TILVANE_LOG_LEVEL=D",
                                     std::string("TILVANE_APP_ID=") + kServiceAppId},
            m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
    }

    std::string ServiceLog() const { return m_service->Err(); }

    int CountInLog(const std::string& text) const { return m_service->Count(text); }

    std::string Scalar(const std::string& sql) { return RawDatabase(Database(".preview.db")).Scalar(sql); }

    /* Every row of the three tables, as text: what no refused request may change. */
    std::string Snapshot()
    {
        RawDatabase db(Database(".preview.db"));
        std::string rows;
        for (const char* sql : {"SELECT quote(_id) || quote(accelerator_app_pkg_name) || quote(accelerator_enabled) "
                                "FROM accelerators ORDER BY _id",
                                "SELECT quote(_id) || quote(section_id) || quote(section_accelerator_raw_id) FROM "
                                "sections ORDER BY _id",
                                "SELECT quote(_id) || quote(tile_id) || quote(tile_title) || quote(tile_image_path) || "
                                "quote(tile_section_raw_id) FROM tiles ORDER BY _id"}) {
            for (const std::string& row : db.Column(sql)) {
                rows += row + "\n";
            }
        }
        return rows;
    }

    std::string Match(const std::string& text, const char* pattern)
    {
        std::smatch match;
        EXPECT_TRUE(std::regex_search(text, match, std::regex(pattern))) << text;
        return match.size() > 1 ? match[1].str() : "";
    }

    /* The application, as its own user, makes a section under its launcher
     * entry and the tiles given (key=value words each); the section's row id. */
    std::string Publish(int uid, const std::string& appId, const std::string& sectionId,
                        const std::vector<std::vector<std::string>>& tiles)
    {
        RunResult entry = Ctl(uid, appId, {"data", "select", "accelerators", "--columns", "_id", "--json"});
        EXPECT_EQ(entry.status, 0) << entry.err;
        RunResult section = Ctl(uid, appId, {"data", "insert", "sections", "section_id=" + sectionId,
                                             "section_accelerator_raw_id=" + Match(entry.out, "\"_id\": ([0-9]+)")});
        EXPECT_EQ(section.status, 0) << section.err;
        const std::string sectionRow = Match(section.out, "inserted row ([0-9]+)");
        for (std::vector<std::string> values : tiles) {
            values.insert(values.begin(), {"data", "insert", "tiles", "tile_section_raw_id=" + sectionRow});
            RunResult tile = Ctl(uid, appId, values);
            EXPECT_EQ(tile.status, 0) << tile.err;
        }
        return sectionRow;
    }

    void PublishBoth()
    {
        Publish(kNewsUser, kNewsApp, "news-section", {{"tile_id=news1", "tile_title=news title"}});
        m_sportsSection = Publish(kSportsUser, kSportsApp, "sports-section",
                                  {{"tile_id=sports1", "tile_title=secret sports title"}});
    }

    /* RequestName of `name` by `uid` on the test's bus, through dbus-send. */
    RunResult RequestName(int uid, const std::string& name)
    {
        return RunAs(m_logs, uid,
                     {"/usr/bin/dbus-send", "--bus=" + m_bus->Address(), "--print-reply",
                      "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.RequestName",
                      "string:" + name, "uint32:4"},
                     {});
    }

    void ExpectAccessDenied(int uid, const std::string& name)
    {
        RunResult claimed = RequestName(uid, name);
        EXPECT_NE(claimed.status, 0) << name;
        EXPECT_NE(claimed.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos)
            << uid << " " << name << ": " << claimed.out << claimed.err;
    }

    void ExpectOwned(int uid, const std::string& name)
    {
        RunResult claimed = RequestName(uid, name);
        EXPECT_EQ(claimed.status, 0) << claimed.err;
        EXPECT_NE(claimed.out.find("uint32 1"), std::string::npos) << name << ": " << claimed.out;
    }

    TempDir m_logs;
    TempDir m_root;
    std::unique_ptr<MultiUserBus> m_bus;
    std::unique_ptr<Process> m_service;
    std::string m_sportsSection;
    mode_t m_umask = 022;
};

/* ---- files ------------------------------------------------------------------------- */

TEST_F(IsolationTest, EveryFileOfThePlatformIsClosedToApplicationUsersWhateverTheUmask)
{
    StartService();
    PublishBoth();
    ASSERT_EQ(DefaultCtl(kRoot, {"key", "set", "memory/example/key", "1"}).status, 0);
    const std::string before = Snapshot();
    /* Every file in the database folder, and the bus policy. */
    std::vector<std::string> files = {Root() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf"};
    for (const auto& entry : std::filesystem::directory_iterator(Root() + "/opt/dbspace")) {
        files.push_back(entry.path().string());
    }
    for (const std::string& expected : {Database(".preview.db"), Database(".preview.db-wal"),
                                        Database(".preview.db.sqlite"), Database(".tilvane-app-registry.db"),
                                        Database(".tilvane-settings.db")}) {
        EXPECT_NE(std::find(files.begin(), files.end(), expected), files.end()) << expected;
    }
    EXPECT_EQ(Mode(Root() + "/opt/dbspace"), "0700");
    for (const std::string& file : files) {
        EXPECT_EQ(Mode(file), "0600") << file;
        for (int uid : {kNewsUser, kSportsUser, kLocalUser}) {
            RunResult read = RunAs(m_logs, uid, {"/usr/bin/cat", file}, {});
            EXPECT_NE(read.status, 0) << uid << " read " << file;
            EXPECT_NE(read.err.find("Permission denied"), std::string::npos) << read.err;
            EXPECT_TRUE(read.out.empty());
        }
    }
    /* What was tried: the database opened read-only by an application's user. */
    for (const char* name : {".preview.db", ".preview.db.sqlite", ".tilvane-app-registry.db"}) {
        RunResult opened = RunAs(m_logs, kNewsUser,
                                 {"/usr/bin/sqlite3", "-readonly", Database(name), "SELECT * FROM sqlite_master"}, {});
        EXPECT_NE(opened.status, 0) << name << ": " << opened.out;
        EXPECT_EQ(opened.out.find("CREATE TABLE"), std::string::npos) << opened.out;
    }
    /* Nor through the tool: it says why instead of listing nothing. */
    RunResult list = Ctl(kNewsUser, kNewsApp, {"app", "list"});
    EXPECT_EQ(list.status, 1);
    EXPECT_NE(list.err.find("the application registry cannot be read (it is the platform's own"), std::string::npos)
        << list.err;
    EXPECT_EQ(list.out.find("org.example.sports"), std::string::npos);
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(IsolationTest, ModesLeftOpenByAnEarlierStartAreCorrectedWithOneLogLine)
{
    /* As an earlier version left them: every file 0644, the folder 0755, the
     * configuration writable by everyone. */
    std::filesystem::create_directories(Root() + "/opt/dbspace");
    {
        RawDatabase db(Database(".preview.db"));
        ASSERT_EQ(db.Exec("CREATE TABLE t (x)"), 0);
    }
    for (const std::string& path : {Database(".preview.db"), Database(".tilvane-app-registry.db"),
                                    Root() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf"}) {
        ASSERT_EQ(chmod(path.c_str(), 0644), 0) << path;
    }
    ASSERT_EQ(chmod((Root() + "/opt/dbspace").c_str(), 0755), 0);
    ASSERT_EQ(chmod((Root() + "/etc/tilvane.conf").c_str(), 0666), 0);

    StartService();
    EXPECT_EQ(CountInLog("file modes corrected: "), 1) << ServiceLog();
    for (const std::string& change :
         {Root() + "/opt/dbspace 0755 -> 0700", Database(".preview.db") + " 0644 -> 0600",
          Database(".tilvane-app-registry.db") + " 0644 -> 0600",
          Root() + "/etc/dbus/tilvane-bus.d/tilvane-apps.conf 0644 -> 0600",
          Root() + "/etc/tilvane.conf 0666 -> 0644"}) {
        EXPECT_EQ(CountInLog(change), 1) << change << "\n" << ServiceLog();
    }
    EXPECT_EQ(Mode(Database(".preview.db")), "0600");
    EXPECT_EQ(Mode(Root() + "/etc/tilvane.conf"), "0644");
    RunResult read = RunAs(m_logs, kNewsUser, {"/usr/bin/cat", Database(".tilvane-app-registry.db")}, {});
    EXPECT_NE(read.status, 0);
    /* Nothing is left to correct at the next start. */
    m_service->Signal(SIGTERM);
    ASSERT_EQ(m_service->Wait(20000), 0);
    StartService("service-again");
    EXPECT_EQ(CountInLog("file modes corrected: "), 0) << ServiceLog();
}

/* ---- the preview ------------------------------------------------------------------- */

#ifdef TILVANE_PREVIEW_BINARY

class PreviewIsolationTest : public IsolationTest
{
protected:
    /* The preview as root, the platform user, asked for explicitly. */
    void StartPreview(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> argv = {TILVANE_PREVIEW_BINARY, "--port", "0", "--allow-verified-mode"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        m_preview = std::make_unique<Process>(argv,
                                              std::vector<std::string>{"TILVANE_PLATFORM_ROOT=" + Root(),
                                                                       "TILVANE_LOG_LEVEL=W"},
                                              m_logs.File("preview.out"), m_logs.File("preview.err"));
        ASSERT_TRUE(m_preview->WaitFor("tilvane-preview: http://", false, 20000)) << m_preview->Err();
        ASSERT_TRUE(m_preview->WaitFor("subscribed to preview events", true, 20000)) << m_preview->Err();
        m_address = Match(m_preview->Out(), "tilvane-preview: (http://[^\\s]+)");
        m_port = Match(m_address, "127\\.0\\.0\\.1:([0-9]+)/");
    }

    void TearDown() override
    {
        if (m_preview) {
            m_preview->Signal(SIGTERM);
            m_preview->Wait(20000);
        }
        IsolationTest::TearDown();
    }

    /* curl as `uid`: the status code, then the body. */
    RunResult Curl(int uid, const std::string& url)
    {
        return RunAs(m_logs, uid,
                     {"/usr/bin/curl", "-s", "--max-time", "5", "-w", "\n%{http_code}", "-o", "-", url}, {});
    }

    std::string Status(const RunResult& curl)
    {
        const size_t line = curl.out.rfind('\n');
        return line == std::string::npos ? curl.out : curl.out.substr(line + 1);
    }

    std::string TileRow(const std::string& tileId)
    {
        return Scalar("SELECT _id FROM tiles WHERE tile_id = '" + tileId + "'");
    }

    /* A folder of the images folder that belongs to `uid`. */
    std::string PackageFolder(const std::string& packageId, int uid)
    {
        const std::string folder = Images() + "/" + packageId;
        std::filesystem::create_directories(folder);
        chmod((Root() + "/opt/usr").c_str(), 0755);
        chmod(Images().c_str(), 0755);
        EXPECT_EQ(chown(folder.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(uid)), 0);
        EXPECT_EQ(chmod(folder.c_str(), 0755), 0);
        return folder;
    }

    std::unique_ptr<Process> m_preview;
    std::string m_address;
    std::string m_port;
};

TEST_F(PreviewIsolationTest, ItStartsOnADeviceOnlyForAPlatformUserWhoAsks)
{
    StartService();
    RunResult unasked = RunAs(m_logs, kRoot, {TILVANE_PREVIEW_BINARY, "--port", "0"},
                              {"TILVANE_PLATFORM_ROOT=" + Root()});
    EXPECT_EQ(unasked.status, 1);
    EXPECT_NE(unasked.err.find("it starts only when asked for with --allow-verified-mode"), std::string::npos)
        << unasked.err;
    for (int uid : {kNewsUser, kLocalUser}) {
        RunResult application = RunAs(m_logs, uid, {TILVANE_PREVIEW_BINARY, "--port", "0", "--allow-verified-mode"},
                                      {"TILVANE_PLATFORM_ROOT=" + Root()});
        EXPECT_EQ(application.status, 1);
        EXPECT_NE(application.err.find("is not a platform user: the preview shows every package's content, so only a "
                                       "platform user may run it"),
                  std::string::npos)
            << application.err;
    }
}

TEST_F(PreviewIsolationTest, NoLocalUserReadsAnythingWithoutTheSecret)
{
    StartService();
    PublishBoth();
    StartPreview();
    const std::string base = "http://127.0.0.1:" + m_port;
    std::string wrong = m_address;
    wrong[base.size() + 3] = wrong[base.size() + 3] == 'a' ? 'b' : 'a';
    for (int uid : {kLocalUser, kNewsUser}) {
        for (const std::string& url : {base + "/api/sections/" + m_sportsSection + "/tiles", base + "/api/entries",
                                       base + "/api/events", base + "/", wrong + "api/entries"}) {
            RunResult read = Curl(uid, url);
            EXPECT_EQ(Status(read), "403") << uid << " " << url << ": " << read.out;
            EXPECT_EQ(read.out.find("sports"), std::string::npos) << read.out;
        }
    }
    /* With the secret (the developer who started it) the content is there. */
    RunResult developer = Curl(kRoot, m_address + "api/sections/" + m_sportsSection + "/tiles");
    EXPECT_EQ(Status(developer), "200") << developer.out;
    EXPECT_NE(developer.out.find("secret sports title"), std::string::npos);
}

TEST_F(PreviewIsolationTest, ImagesAreReadAsThePackageThatOwnsTheTileAndNeverThroughALink)
{
    StartService();
    /* News plants links to the databases in its own folder; sports keeps a
     * private image in a folder of its own. */
    const std::string news = PackageFolder("org.example.news", kNewsUser);
    const std::string sports = PackageFolder("org.example.sports", kSportsUser);
    ASSERT_EQ(RunAs(m_logs, kNewsUser, {"/usr/bin/mkdir", news + "/res"}, {}).status, 0);
    ASSERT_EQ(RunAs(m_logs, kNewsUser, {"/usr/bin/ln", "-s", "../../../../dbspace/.preview.db", news + "/res/a.png"}, {})
                  .status,
              0);
    ASSERT_EQ(RunAs(m_logs, kNewsUser,
                    {"/usr/bin/ln", "-s", "../../../../dbspace/.tilvane-app-registry.db", news + "/res/r.png"}, {})
                  .status,
              0);
    std::filesystem::create_directories(sports + "/private");
    WriteFile(sports + "/private/p.png", std::string(kPng, sizeof(kPng) - 1));
    for (const std::string& path : {sports + "/private", sports + "/private/p.png"}) {
        ASSERT_EQ(chown(path.c_str(), static_cast<uid_t>(kSportsUser), static_cast<gid_t>(kSportsUser)), 0);
    }
    chmod((sports + "/private").c_str(), 0700);
    chmod((sports + "/private/p.png").c_str(), 0600);

    Publish(kNewsUser, kNewsApp, "news-section",
            {{"tile_id=planted", "tile_image_path=/opt/usr/apps/org.example.news/res/a.png"},
             {"tile_id=planted-registry", "tile_image_path=/opt/usr/apps/org.example.news/res/r.png"},
             {"tile_id=borrowed", "tile_image_path=/opt/usr/apps/org.example.sports/private/p.png"}});
    Publish(kSportsUser, kSportsApp, "sports-section",
            {{"tile_id=own", "tile_image_path=/opt/usr/apps/org.example.sports/private/p.png"}});
    StartPreview();

    for (const char* tile : {"planted", "planted-registry"}) {
        RunResult image = Curl(kRoot, m_address + "api/tiles/" + TileRow(tile) + "/image");
        EXPECT_EQ(Status(image), "403") << image.out;
        EXPECT_NE(image.out.find("is a symbolic link or not a folder"), std::string::npos) << image.out;
        EXPECT_EQ(image.out.find("SQLite format"), std::string::npos);
    }
    RunResult borrowed = Curl(kRoot, m_address + "api/tiles/" + TileRow("borrowed") + "/image");
    EXPECT_EQ(Status(borrowed), "403") << borrowed.out;
    EXPECT_NE(borrowed.out.find("the package's user may not read it"), std::string::npos) << borrowed.out;
    RunResult own = Curl(kRoot, m_address + "api/tiles/" + TileRow("own") + "/image");
    EXPECT_EQ(Status(own), "200") << own.out;
    EXPECT_EQ(own.out.compare(0, 4, "\x89PNG"), 0);
}

TEST_F(PreviewIsolationTest, AThousandClosedStreamsLeaveNothingOpen)
{
    StartService();
    StartPreview({"--max-streams", "1000"});
    const pid_t preview = m_preview->Pid();
    const size_t before = OpenDescriptors(preview);
    const std::string path = m_address.substr(m_address.find('/', 7)) + "api/events";
    std::vector<int> streams;
    for (int i = 0; i < 1000; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in peer {};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<uint16_t>(std::stoi(m_port)));
        peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)), 0);
        const std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + m_port + "\r\n\r\n";
        ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
        streams.push_back(fd);
        /* One at a time: the listening socket's backlog is short, and a
         * connection beyond it would wait for the client to try again. */
        const struct timeval wait = {10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
        char answer[64] = {0};
        ASSERT_GT(recv(fd, answer, sizeof(answer) - 1, 0), 0) << i;
        ASSERT_EQ(std::string(answer).rfind("HTTP/1.1 200", 0), 0u) << answer;
    }
    ASSERT_TRUE(m_preview->WaitFor("a page follows the changes (1000 open)", true, 60000)) << m_preview->Err();
    EXPECT_GE(OpenDescriptors(preview), before + 1000);
    for (int fd : streams) {
        close(fd);
    }
    /* Each ends because its page went away, not when a keep-alive finds out. */
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(preview) <= before; }, 60000))
        << OpenDescriptors(preview) << " descriptors, " << before << " before";
    EXPECT_EQ(m_preview->Count("stream ends: its page went away"), 1000);
}

#endif  // TILVANE_PREVIEW_BINARY

/* ---- ids, names and ports ---------------------------------------------------------- */

TEST_F(IsolationTest, IdsThatCollideAreRefusedAndTheBusGrantsNoneOfThem)
{
    struct Case {
        std::string manifest;
        std::string error;
    };
    const std::string rule =
        ": an id may not equal a platform id, the service's id or any id of another package, whatever the case";
    const std::vector<Case> cases = {
        {Manifest("DownloadManager", "org.example.x.ui", kLocalUser), "the package id 'DownloadManager' is one of the "
                                                                      "platform's own ids ('DownloadManager')" + rule},
        {Manifest("org.example.x", "ContentServiceManager", kLocalUser), "'ContentServiceManager' is one of the"},
        {Manifest("contentservicemanager", "org.example.x.ui", kLocalUser), "('ContentServiceManager')" + rule},
        {Manifest(kServiceAppId, "org.example.x.ui", kLocalUser), "('com.quillon.px.tilvane')" + rule},
        {Manifest(kNewsApp, "org.example.x.ui", kLocalUser),
         "the package id 'org.example.news.ui' is application 'org.example.news.ui' of the package 'org.example.news'" +
             rule},
        {Manifest("org.example.x", "ORG.EXAMPLE.SPORTS", kLocalUser),
         "the application id 'ORG.EXAMPLE.SPORTS' is the package 'org.example.sports'" + rule},
    };
    int index = 0;
    for (const Case& c : cases) {
        const std::string path = m_logs.File("collision" + std::to_string(++index) + ".manifest");
        WriteFile(path, c.manifest);
        RunResult install = DefaultCtl(kRoot, {"app", "install", path});
        EXPECT_EQ(install.status, 1) << c.manifest;
        EXPECT_NE(install.err.find(c.error), std::string::npos) << install.err;
    }
    RunResult list = DefaultCtl(kRoot, {"app", "list"});
    EXPECT_EQ(list.out.find("DownloadManager"), std::string::npos) << list.out;
    EXPECT_EQ(list.out.find("user " + std::to_string(kLocalUser)), std::string::npos) << list.out;
    /* So the bus grants that user none of those names. */
    for (const std::string& id : {std::string("DownloadManager"), std::string("ContentServiceManager"),
                                  std::string(kServiceAppId), std::string(kNewsApp)}) {
        ExpectAccessDenied(kLocalUser, tilvane::host::BusNameForAppId(id));
    }
    /* And the service starts and serves as ever. */
    StartService();
    RunResult read = Ctl(kNewsUser, kNewsApp, {"data", "select", "accelerators", "--columns", "_id"});
    EXPECT_EQ(read.status, 0) << read.err;
}

TEST_F(IsolationTest, OnlyAnApplicationsUserOwnsTheNamesOfItsPortsAndOnlyThePlatformTheServices)
{
    StartService();
    for (int uid : {kSportsUser, kLocalUser}) {
        for (const char* port : {"tilvanectl-events", "inbox"}) {
            ExpectAccessDenied(uid, tilvane::host::BusNameForPort(kNewsApp, port));
        }
        for (const char* port : {"accelerator_port", "launcher_event_port", "preview-event-receiver"}) {
            ExpectAccessDenied(uid, tilvane::host::BusNameForPort(kServiceAppId, port));
        }
        ExpectAccessDenied(uid, tilvane::host::BusNameForPort("DownloadManager", "image_update_db"));
    }
    /* The application's own user owns them, and its events arrive. */
    ExpectOwned(kNewsUser, tilvane::host::BusNameForPort(kNewsApp, "inbox"));
    RunResult trigger = Ctl(kNewsUser, kNewsApp, {"events", "trigger", "--timeout", "10"});
    EXPECT_EQ(trigger.status, 0) << trigger.err;
    EXPECT_NE(trigger.out.find("sync="), std::string::npos) << trigger.out;
}

/* ---- strict confinement ------------------------------------------------------------ */

TEST_F(IsolationTest, AWhereClauseReachesOnlyTheCallersOwnRows)
{
    StartService();
    PublishBoth();
    const std::string sportsEntry =
        Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.sports'");
    const std::string before = Snapshot();
    struct Case {
        const char* table;
        std::string where;
        const char* refusal;
    };
    const std::vector<Case> cases = {
        {"tiles",
         "unicode(substr((SELECT tile_title FROM tiles WHERE tile_section_raw_id = " + m_sportsSection +
             "), 1, 1)) >= 115",
         "a subquery (a SELECT inside the statement) is refused"},
        {"accelerators",
         "unicode(substr((SELECT accelerator_app_pkg_name FROM accelerators WHERE _id = " + sportsEntry +
             "), 1, 1)) >= 111",
         "a subquery"},
        {"tiles", "'secret sports title' IN (SELECT tile_title FROM tiles)", "a subquery"},
        {"tiles", "length(randomblob(900000000)) > 0", "function randomblob is not one of the value functions"},
    };
    for (const Case& c : cases) {
        for (const char* interface : {"content", "data-control"}) {
            RunResult read = Ctl(kNewsUser, kNewsApp,
                                 {"data", "select", c.table, "--interface", interface, "--columns", "_id", "--where",
                                  c.where});
            EXPECT_EQ(read.status, 1) << c.where << " " << interface << ": " << read.out;
            EXPECT_NE(read.err.find("rule statement-authorizer"), std::string::npos) << read.err;
            EXPECT_NE(read.err.find(c.refusal), std::string::npos) << read.err;
        }
    }
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(IsolationTest, OnlyThePlatformInstallsUninstallsOrHidesLauncherEntries)
{
    StartService();
    PublishBoth();
    const std::string before = Snapshot();
    /* A level-0 application asks for launcher entries on "accelerator_port". */
    for (const char* package : {"org.example.mute", "org.example.mute2", "org.example.mute3"}) {
        RunResult sent = Raw(kMuteUser, kMuteApp,
                             {"send", kServiceAppId, "accelerator_port", "action=0",
                              std::string("accelerator_app_pkg_name=") + package});
        EXPECT_EQ(sent.status, 0) << sent.out << sent.err;
    }
    /* Another package's entry: hidden and uninstalled. */
    Raw(kNewsUser, kNewsApp,
        {"send", kServiceAppId, "launcher_event_port", "visibility=hidden", "accelerator_app_pkg_name=org.example.sports"});
    Raw(kNewsUser, kNewsApp,
        {"send", kServiceAppId, "accelerator_port", "action=1", "accelerator_app_pkg_name=org.example.sports"});
    ASSERT_TRUE(WaitUntil([&] { return CountInLog("dropped: not a platform sender") == 5; }, 10000)) << ServiceLog();
    EXPECT_EQ(CountInLog("install message from org.example.mute.ui dropped: not a platform sender"), 3);
    EXPECT_EQ(CountInLog("visibility message from org.example.news.ui dropped: not a platform sender"), 1);
    EXPECT_EQ(CountInLog("uninstall message from org.example.news.ui dropped: not a platform sender"), 1);
    EXPECT_EQ(Snapshot(), before);
    RunResult level = Ctl(kMuteUser, kMuteApp, {"data", "select", "accelerators", "--columns", "_id"});
    EXPECT_EQ(level.status, 1);
    EXPECT_NE(level.err.find("permission level too low"), std::string::npos) << level.err;

    /* tilvanectl says so instead of sending. */
    RunResult install = Ctl(kMuteUser, kMuteApp, {"accelerator", "install", "org.example.mute", "--timeout", "3"});
    EXPECT_EQ(install.status, 1);
    EXPECT_NE(install.err.find("strict confinement is on, and the service acts on install messages only from the "
                               "platform"),
              std::string::npos)
        << install.err;
    RunResult hide = Ctl(kNewsUser, kNewsApp, {"launcher", "hidden", "org.example.sports"});
    EXPECT_EQ(hide.status, 1);
    EXPECT_NE(hide.err.find("nothing was sent"), std::string::npos) << hide.err;
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(IsolationTest, PreviewEventsOfAPackageReachOnlyItsOwnApplicationsAndThePlatform)
{
    StartService();
    auto subscribe = [&](int uid, const std::string& appId, const std::string& name) {
        std::vector<std::string> argv = {TILVANECTL_BINARY, "events", "subscribe"};
        if (!appId.empty()) {
            argv.insert(argv.begin() + 1, {"--app-id", appId});
        }
        auto tool = std::make_unique<Process>(tilvane::test::AsUser(static_cast<unsigned>(uid), argv),
                                              std::vector<std::string>{"TILVANE_PLATFORM_ROOT=" + Root()},
                                              m_logs.File(name + ".out"), m_logs.File(name + ".err"));
        EXPECT_TRUE(tool->WaitFor("subscribed to preview events", true, 20000)) << tool->Err();
        return tool;
    };
    /* The news package's bare id listens: its application publishes meanwhile
     * (one process per id on the bus). */
    auto newsListener = subscribe(kNewsUser, "org.example.news", "news-listener");
    auto platformListener = subscribe(kRoot, "", "platform-listener");
    PublishBoth();
    /* Each publisher ends with its sync end mark: one event of each package. */
    for (int uid : {kSportsUser, kNewsUser}) {
        const std::string app = uid == kNewsUser ? kNewsApp : kSportsApp;
        ASSERT_EQ(Ctl(uid, app, {"data", "insert", "tiles", "tiles_sync_event=sync_end"}).status, 0);
    }
    EXPECT_TRUE(newsListener->WaitFor("accelerator_app_pkg_name=org.example.news", false, 20000))
        << newsListener->Out();
    EXPECT_TRUE(platformListener->WaitFor("accelerator_app_pkg_name=org.example.news", false, 20000));
    EXPECT_NE(platformListener->Out().find("accelerator_app_pkg_name=org.example.sports"), std::string::npos)
        << platformListener->Out();
    /* The sports events were sent before the last news one, on the same road. */
    EXPECT_EQ(newsListener->Out().find("org.example.sports"), std::string::npos) << newsListener->Out();
    for (auto* listener : {newsListener.get(), platformListener.get()}) {
        listener->Signal(SIGTERM);
        EXPECT_EQ(listener->Wait(10000), 0) << listener->Err();
    }
}

/* ---- the tool ---------------------------------------------------------------------- */

TEST_F(IsolationTest, RunByAPlatformUserTheToolIsThePlatformAndEveryCommandWorks)
{
    StartService();
    PublishBoth();
    RunResult install = DefaultCtl(kRoot, {"accelerator", "install", "org.example.mute", "--timeout", "10"});
    EXPECT_EQ(install.status, 0) << install.err;
    EXPECT_EQ(install.out, Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.mute'") +
                               "\n");
    RunResult trigger = DefaultCtl(kRoot, {"events", "trigger", "--timeout", "10"});
    EXPECT_EQ(trigger.status, 0) << trigger.err;
    RunResult hidden = DefaultCtl(kRoot, {"launcher", "hidden", "org.example.sports"});
    EXPECT_EQ(hidden.status, 0) << hidden.err;
    EXPECT_TRUE(WaitUntil(
        [&] { return Scalar("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = "
                            "'org.example.sports'") == "0"; },
        10000));
    /* An application's user with the tool's default id: the bus refuses it the
     * platform's name, and the tool says so. */
    RunResult refused = DefaultCtl(kNewsUser, {"events", "trigger", "--timeout", "3"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("the bus refuses the name of application 'tilvanectl' to this user (" +
                               std::to_string(kNewsUser) + ")"),
              std::string::npos)
        << refused.err;
    RunResult powerOff = DefaultCtl(kNewsUser, {"power-off", "13"});
    EXPECT_EQ(powerOff.status, 1);
    EXPECT_NE(powerOff.err.find("not a platform user: a power-off counts only from the platform"), std::string::npos);
}

TEST_F(IsolationTest, OnlyAPlatformUserReadsTheStatisticsOrBacksUpRestoresAndChecksTheDatabase)
{
    StartService();
    PublishBoth();
    const std::string before = Scalar("SELECT group_concat(tile_title) FROM tiles");
    const std::string backup = m_logs.File("platform.db");
    RunResult made = DefaultCtl(kRoot, {"db", "backup", backup});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(Mode(backup), "0600");
    EXPECT_EQ(DefaultCtl(kRoot, {"stats"}).status, 0);
    EXPECT_EQ(DefaultCtl(kRoot, {"db", "check"}).status, 0);
    /* A folder every user may write, and the copy readable by all: what stops
     * the others below is the service, not the files. */
    TempDir openFolder;
    const std::string open = openFolder.Path();
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    const std::string readable = open + "/copy.db";
    std::filesystem::copy_file(backup, readable);
    ASSERT_EQ(chmod(readable.c_str(), 0644), 0);
    for (const auto& who : std::vector<std::pair<int, std::string>>{{kNewsUser, kNewsApp}, {kLocalUser, "sys.tool"}}) {
        const std::string refusal = "refused: user " + std::to_string(who.first) +
                                    " is not a platform user: only platform users may use it";
        for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
                 {"stats"}, {"stats", "reset"}, {"db", "check"}, {"db", "backup", open + "/stolen.db"},
                 {"db", "restore", readable}}) {
            RunResult run = Ctl(who.first, who.second, words);
            EXPECT_EQ(run.status, 1) << words[0] << " " << words[1 % words.size()];
            EXPECT_NE(run.err.find(refusal), std::string::npos) << run.err;
            EXPECT_EQ(run.out, "");
        }
        EXPECT_FALSE(std::filesystem::exists(open + "/stolen.db"));
    }
    for (const auto& entry : std::filesystem::directory_iterator(open)) {
        EXPECT_EQ(entry.path().string(), readable) << "a half copy was left";
    }
    EXPECT_EQ(Scalar("SELECT group_concat(tile_title) FROM tiles"), before);
    /* The statistics were not reset by them. */
    RunResult stats = DefaultCtl(kRoot, {"stats", "--json"});
    EXPECT_NE(stats.out.find("\"kind\": \"Insert\", \"requests\": 4"), std::string::npos) << stats.out;
}

/* ---- users ------------------------------------------------------------------------- */

TEST_F(IsolationTest, APackageWithoutAUserLineGetsAnExistingAccountOrAClearRefusal)
{
    uid_t unused = 64000;
    while (getpwuid(unused) != nullptr && unused < 64100) {
        ++unused;
    }
    WriteConfig("first-app-user = " + std::to_string(unused) + "\nlast-app-user = " + std::to_string(unused) + "\n");
    const std::string path = m_logs.File("nouser.manifest");
    WriteFile(path, Manifest("org.example.nouser", "org.example.nouser.ui", -1));
    RunResult refused = DefaultCtl(kRoot, {"app", "install", path});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("no free user account is left in " + std::to_string(unused) + ".." +
                               std::to_string(unused) + ": create an account for the package in that range"),
              std::string::npos)
        << refused.err;

    /* A range with an account: it is bound, and the bus lets it work. */
    WriteConfig("first-app-user = " + std::to_string(kLocalUser) + "\nlast-app-user = " + std::to_string(kLocalUser) +
                "\n");
    RunResult installed = DefaultCtl(kRoot, {"app", "install", path});
    ASSERT_EQ(installed.status, 0) << installed.err;
    EXPECT_EQ(RawDatabase(Database(".tilvane-app-registry.db"))
                  .Scalar("SELECT user_id FROM packages WHERE package_id = 'org.example.nouser'"),
              std::to_string(kLocalUser));
    StartService();
    RunResult read = Ctl(kLocalUser, "org.example.nouser.ui", {"data", "select", "accelerators", "--columns", "_id"});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_NE(read.out.find("1 row"), std::string::npos) << read.out;
}

}  // namespace
