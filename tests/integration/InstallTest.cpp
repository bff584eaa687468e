/*
 * `cmake --install` into a DESTDIR: the tree it lays out, the systemd units as
 * systemd-analyze sees them, programs built against the installed pkg-config
 * file and CMake package (the client examples in C++, C and Python among
 * them), the client library's exported symbols and its silence, and the
 * installed service started on a private bus that runs with the installed bus
 * policy, published to and read from with the installed tools.
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <tilvane_version.h>

#include "MultiUserBus.h"
#include "TestProcess.h"
#include "TestSupport.h"

using namespace tilvane::test;

namespace {

struct Shell {
    int exitCode = -1;
    std::string output;
};

Shell RunShell(const std::string& command)
{
    Shell run;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        run.output += buffer;
    }
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

std::string Quoted(const std::string& text)
{
    return "'" + text + "'";
}

class InstallTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_destDir = new TempDir();
        s_install = new Shell(RunShell("DESTDIR=" + Quoted(s_destDir->Path()) + " cmake --install " +
                                       Quoted(TILVANE_BUILD_DIR)));
    }

    static void TearDownTestSuite()
    {
        delete s_install;
        delete s_destDir;
        s_install = nullptr;
        s_destDir = nullptr;
    }

    void SetUp() override { ASSERT_EQ(s_install->exitCode, 0) << s_install->output; }

    /* An installed path: DESTDIR + prefix + `relative`. */
    static std::string Installed(const std::string& relative)
    {
        return s_destDir->Path() + TILVANE_INSTALL_PREFIX + "/" + relative;
    }

    /* pkg-config reading the installed tree. */
    static std::string PkgConfigEnvironment()
    {
        return "PKG_CONFIG_PATH=" + Quoted(Installed(TILVANE_INSTALL_LIBDIR "/pkgconfig")) +
               " PKG_CONFIG_SYSROOT_DIR=" + Quoted(s_destDir->Path());
    }

    /* Builds `source` into `program` with `compiler` and the installed
     * pkg-config file's flags. */
    static Shell BuildWithPkgConfig(const std::string& compiler, const std::string& source, const std::string& program)
    {
        const std::string environment = PkgConfigEnvironment();
        return RunShell(environment + " " + compiler + " " TILVANE_TEST_PROGRAM_FLAGS " -o " + Quoted(program) + " " +
                        Quoted(source) + " $(" + environment + " pkg-config --cflags --libs tilvane-client)");
    }

    /* A Python that loads a library built with the sanitizers needs their
     * runtime first, and Python's own allocations are not this test's leaks. */
    static const std::vector<std::string>& PythonSanitizerEnvironment()
    {
        static const std::vector<std::string> env = [] {
            std::vector<std::string> found;
            if (std::string(TILVANE_TEST_PROGRAM_FLAGS).empty()) {
                return found;
            }
            std::string asan = RunShell("c++ -print-file-name=libasan.so").output;
            std::string ubsan = RunShell("c++ -print-file-name=libubsan.so").output;
            asan.erase(asan.find_last_not_of("\n") + 1);
            ubsan.erase(ubsan.find_last_not_of("\n") + 1);
            found = {"LD_PRELOAD=" + asan + ":" + ubsan, "ASAN_OPTIONS=detect_leaks=0"};
            return found;
        }();
        return env;
    }

    static TempDir* s_destDir;
    static Shell* s_install;
};

TempDir* InstallTest::s_destDir = nullptr;
Shell* InstallTest::s_install = nullptr;

/* Every file and link under `root`, as paths relative to it, with its mode
 * ("0755", or "link" for a symbolic link). */
std::map<std::string, std::string> TreeOf(const std::string& root)
{
    std::map<std::string, std::string> tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().string().substr(root.size());
        if (entry.is_symlink()) {
            tree[path] = "link";
        } else if (entry.is_regular_file()) {
            char mode[8];
            std::snprintf(mode, sizeof mode, "%04o",
                          static_cast<unsigned>(std::filesystem::status(entry.path()).permissions() &
                                                std::filesystem::perms::mask));
            tree[path] = mode;
        }
    }
    return tree;
}

/* A systemd unit's path as installed (without DESTDIR): the units' folder is
 * relative to the prefix, or absolute (/lib/systemd on Debian 12). */
std::string UnitPath(const std::string& scope)
{
    const std::string folder = TILVANE_INSTALL_SYSTEMD_DIR;
    const std::string base = folder.rfind("/", 0) == 0 ? folder : std::string(TILVANE_INSTALL_PREFIX "/") + folder;
    return base + "/" + scope + "/tilvane.service";
}

/* What `cmake --install` lays out, file by file: the path under DESTDIR and
 * its mode, and the source it is a copy of ("" when it is made or
 * configured at build time). */
struct ExpectedFile {
    std::string mode;
    std::string source;
};

std::map<std::string, ExpectedFile> ExpectedInstallTree(const std::string& buildType)
{
    const std::string prefix = TILVANE_INSTALL_PREFIX "/";
    const std::string source = TILVANE_SOURCE_DIR "/";
    std::map<std::string, ExpectedFile> files = {
        {prefix + TILVANE_INSTALL_SBINDIR "/tilvane", {"0755", ""}},
        {prefix + TILVANE_INSTALL_BINDIR "/tilvanectl", {"0755", ""}},
        {TILVANE_INSTALL_FULL_SYSCONFDIR "/tilvane/tilvane.conf", {"0644", source + "data/tilvane.conf"}},
        {prefix + TILVANE_INSTALL_DATADIR "/tilvane/tilvane-development.conf",
         {"0644", source + "data/tilvane-development.conf"}},
        {prefix + TILVANE_INSTALL_LIBDIR "/libtilvane-client.so." TILVANE_VERSION, {TILVANE_SHARED_LIBRARY_MODE, ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/libtilvane-client.so.0", {"link", ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/libtilvane-client.so", {"link", ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/pkgconfig/tilvane-client.pc", {"0644", ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/cmake/TilvaneClient/TilvaneClientConfig.cmake",
         {"0644", source + "packaging/TilvaneClientConfig.cmake"}},
        {prefix + TILVANE_INSTALL_LIBDIR "/cmake/TilvaneClient/TilvaneClientConfigVersion.cmake", {"0644", ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/cmake/TilvaneClient/TilvaneClientTargets.cmake", {"0644", ""}},
        {prefix + TILVANE_INSTALL_LIBDIR "/cmake/TilvaneClient/TilvaneClientTargets-" + buildType + ".cmake",
         {"0644", ""}},
        {UnitPath("system"), {"0644", ""}},
        {UnitPath("user"), {"0644", ""}},
        {prefix + "lib/sysusers.d/tilvane.conf", {"0644", source + "packaging/sysusers/tilvane.conf"}},
        {prefix + TILVANE_INSTALL_DATADIR "/dbus-1/system-services/org.tilvane.App.Acom_2equillon_2epx_2etilvane.service",
         {"0644", ""}},
        {prefix + TILVANE_INSTALL_DATADIR "/dbus-1/system.d/tilvane.conf", {"0644", ""}},
        {prefix + TILVANE_INSTALL_DATADIR "/bash-completion/completions/tilvanectl",
         {"0644", source + "packaging/completion/tilvanectl"}},
        {prefix + TILVANE_INSTALL_MANDIR "/man1/tilvanectl.1", {"0644", ""}},
        {prefix + TILVANE_INSTALL_MANDIR "/man3/tilvane_publisher.3", {"0644", ""}},
        {prefix + TILVANE_INSTALL_MANDIR "/man5/tilvane.conf.5", {"0644", ""}},
        {prefix + TILVANE_INSTALL_MANDIR "/man8/tilvane.8", {"0644", ""}},
    };
    for (const char* header :
         {"tilvane_client.h", "tilvane_schema.h", "tilvane_publisher.h", "tilvane_c.h", "tilvane_reason.h"}) {
        files[prefix + TILVANE_INSTALL_INCLUDEDIR "/tilvane/" + header] = {"0644",
                                                                          source + "platform/include/" + header};
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(source + "examples")) {
        if (entry.is_regular_file()) {
            const std::string relative = entry.path().string().substr(source.size() + std::string("examples").size());
            files[prefix + TILVANE_INSTALL_DATADIR "/tilvane/examples" + relative] = {"0644", entry.path().string()};
        }
    }
#ifdef TILVANE_PREVIEW_BINARY
    files[prefix + TILVANE_INSTALL_BINDIR "/tilvane-preview"] = {"0755", ""};
    files[prefix + TILVANE_INSTALL_MANDIR "/man1/tilvane-preview.1"] = {"0644", ""};
    for (const char* page : {"index.html", "preview.js", "preview.css"}) {
        files[prefix + TILVANE_INSTALL_DATADIR "/tilvane-preview/" + page] = {
            "0644", source + "tools/tilvane-preview/www/" + page};
    }
#endif
    return files;
}

TEST_F(InstallTest, TheInstalledTreeHoldsExactlyTheExpectedFilesWithTheirModesAndContents)
{
    std::string buildType = TILVANE_BUILD_TYPE;
    std::transform(buildType.begin(), buildType.end(), buildType.begin(), ::tolower);
    const std::map<std::string, ExpectedFile> expected = ExpectedInstallTree(buildType.empty() ? "noconfig" : buildType);
    const std::map<std::string, std::string> tree = TreeOf(s_destDir->Path());
    for (const auto& file : expected) {
        auto found = tree.find(file.first);
        if (found == tree.end()) {
            ADD_FAILURE() << "not installed: " << file.first;
            continue;
        }
        EXPECT_EQ(found->second, file.second.mode) << file.first;
        if (!file.second.source.empty()) {
            EXPECT_EQ(tilvane::test::ReadAll(s_destDir->Path() + file.first), tilvane::test::ReadAll(file.second.source))
                << file.first << " differs from " << file.second.source;
        }
    }
    for (const auto& file : tree) {
        EXPECT_EQ(expected.count(file.first), 1u) << "installed but not expected: " << file.first;
    }
    /* The configuration goes to the system's configuration folder, where the
     * system unit reads it: /etc for the /usr prefix. */
    if (std::string(TILVANE_INSTALL_PREFIX) == "/usr") {
        EXPECT_EQ(std::string(TILVANE_INSTALL_FULL_SYSCONFDIR), "/etc");
    }
}

TEST_F(InstallTest, LaysOutProgramsLibraryUnitsBusFilesManPagesAndExamples)
{
    const std::string library = Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so." TILVANE_VERSION);
    Shell soname = RunShell("readelf -d " + Quoted(library));
    EXPECT_NE(soname.output.find("Library soname: [libtilvane-client.so.0]"), std::string::npos) << soname.output;
    EXPECT_EQ(std::filesystem::read_symlink(Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so.0")).string(),
              "libtilvane-client.so." TILVANE_VERSION);
    EXPECT_EQ(std::filesystem::read_symlink(Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so")).string(),
              "libtilvane-client.so.0");
    const std::string unit = tilvane::test::ReadAll(s_destDir->Path() + UnitPath("system"));
    for (const char* line : {"Type=notify", "NotifyAccess=main", "WatchdogSec=", "Restart=on-failure",
                             "RestartPreventExitStatus=6", "User=tilvane", "StateDirectory=tilvane",
                             "ExecReload=/bin/kill -HUP $MAINPID",
                             "Environment=TILVANE_CONFIG=" TILVANE_INSTALL_FULL_SYSCONFDIR "/tilvane/tilvane.conf",
                             "ExecStart=" TILVANE_INSTALL_PREFIX "/" TILVANE_INSTALL_SBINDIR "/tilvane"}) {
        EXPECT_NE(unit.find(std::string("\n") + line), std::string::npos) << line << "\n" << unit;
    }
    const std::string configuration =
        tilvane::test::ReadAll(s_destDir->Path() + TILVANE_INSTALL_FULL_SYSCONFDIR "/tilvane/tilvane.conf");
    EXPECT_NE(configuration.find("mode = verified"), std::string::npos);
    /* The system bus policy includes the folder where the registry writes
     * the per-package policy of the system unit's platform root. */
    const std::string policy = tilvane::test::ReadAll(Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d/tilvane.conf"));
    EXPECT_NE(policy.find("<includedir>/var/lib/tilvane/etc/dbus/tilvane-bus.d</includedir>"), std::string::npos)
        << policy;
    Shell completion = RunShell("bash -n " + Quoted(Installed(TILVANE_INSTALL_DATADIR
                                                               "/bash-completion/completions/tilvanectl")));
    EXPECT_EQ(completion.exitCode, 0) << completion.output;
    /* The completion completes groups, commands, options and tables. */
    const std::string script = Installed(TILVANE_INSTALL_DATADIR "/bash-completion/completions/tilvanectl");
    auto complete = [&](const std::string& words, int current) {
        return RunShell("bash -c " + Quoted("source " + script + "; COMP_WORDS=(" + words + "); COMP_CWORD=" +
                                            std::to_string(current) + "; _tilvanectl; echo \"${COMPREPLY[*]}\""))
            .output;
    };
    EXPECT_EQ(complete("tilvanectl pu", 1), "publish\n");
    EXPECT_EQ(complete("tilvanectl data se", 2), "select\n");
    EXPECT_EQ(complete("tilvanectl data select ti", 3), "tiles\n");
    EXPECT_EQ(complete("tilvanectl data select tiles --inter", 4), "--interface\n");
    EXPECT_EQ(complete("tilvanectl data select tiles --interface d", 5), "data-control\n");
    EXPECT_EQ(complete("tilvanectl st", 1), "stats\n");
    EXPECT_EQ(complete("tilvanectl stats --j", 2), "--json\n");
    EXPECT_EQ(complete("tilvanectl db b", 2), "backup\n");
}

bool HaveSystemdAnalyze()
{
    return access("/usr/bin/systemd-analyze", X_OK) == 0 || access("/bin/systemd-analyze", X_OK) == 0;
}

/* `unit` as installed, but pointing at the staged binary, written to
 * `work`/`scope`/tilvane.service so that systemd can check that the command
 * exists. */
std::string StagedUnit(const TempDir& work, const std::string& scope, const std::string& unitText,
                       const std::string& stagedBinary)
{
    std::string unit = unitText;
    const std::string installedCommand = "ExecStart=" TILVANE_INSTALL_PREFIX "/" TILVANE_INSTALL_SBINDIR "/tilvane";
    const size_t at = unit.find(installedCommand);
    EXPECT_NE(at, std::string::npos) << unit;
    if (at != std::string::npos) {
        unit.replace(at, installedCommand.size(), "ExecStart=" + stagedBinary);
    }
    mkdir(work.File(scope).c_str(), 0755);
    tilvane::test::WriteFile(work.File(scope + "/tilvane.service"), unit);
    return work.File(scope + "/tilvane.service");
}

/* The overall exposure systemd-analyze gives a unit file, -1 when it gives none. */
double ExposureOf(const std::string& unitFile, Shell& run)
{
    run = RunShell("systemd-analyze security --offline=true --no-pager " + Quoted(unitFile));
    const std::string marker = "Overall exposure level for tilvane.service: ";
    const size_t at = run.output.find(marker);
    return at == std::string::npos ? -1 : std::stod(run.output.substr(at + marker.size()));
}

TEST_F(InstallTest, SystemdAcceptsTheUnits)
{
    if (!HaveSystemdAnalyze()) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    /* systemd-analyze exits 0 on lines it ignores: any output at all is a
     * finding. */
    TempDir work;
    for (const std::string scope : {"system", "user"}) {
        const std::string unit = StagedUnit(work, scope, tilvane::test::ReadAll(s_destDir->Path() + UnitPath(scope)),
                                            Installed(TILVANE_INSTALL_SBINDIR "/tilvane"));
        mkdir(work.File("runtime").c_str(), 0700);
        const std::string flags = scope == "user" ? "XDG_RUNTIME_DIR=" + Quoted(work.File("runtime")) + " " : "";
        Shell verify = RunShell(flags + "systemd-analyze verify --man=no" + (scope == "user" ? " --user " : " ") +
                                Quoted(unit));
        EXPECT_EQ(verify.exitCode, 0) << scope << "\n" << verify.output;
        EXPECT_EQ(verify.output, "") << scope;
    }
}

TEST_F(InstallTest, TheSystemUnitIsConfinedToAnExposureOfAtMostTwoAndAHalf)
{
    if (!HaveSystemdAnalyze()) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    TempDir work;
    const std::string installed = tilvane::test::ReadAll(s_destDir->Path() + UnitPath("system"));
    const std::string staged = Installed(TILVANE_INSTALL_SBINDIR "/tilvane");
    Shell run;
    const double exposure = ExposureOf(StagedUnit(work, "system", installed, staged), run);
    ASSERT_GE(exposure, 0) << run.output;
    EXPECT_LE(exposure, 2.5) << run.output;
    /* systemd-analyze's own threshold (in tenths) agrees. */
    Shell threshold = RunShell("systemd-analyze security --offline=true --threshold=25 --no-pager " +
                               Quoted(work.File("system/tilvane.service")));
    EXPECT_EQ(threshold.exitCode, 0) << threshold.output;
    /* The check can fail: the same unit without its sandbox (every line
     * after User= up to [Install]) is rated far above it. */
    const size_t from = installed.find("\nUser=");
    const size_t to = installed.find("\n[Install]");
    ASSERT_NE(from, std::string::npos);
    ASSERT_NE(to, std::string::npos);
    const std::string bare = installed.substr(0, from) + installed.substr(to);
    const double bareExposure = ExposureOf(StagedUnit(work, "bare", bare, staged), run);
    EXPECT_GT(bareExposure, 2.5) << run.output;
    Shell bareThreshold = RunShell("systemd-analyze security --offline=true --threshold=25 --no-pager " +
                                   Quoted(work.File("bare/tilvane.service")));
    EXPECT_NE(bareThreshold.exitCode, 0) << bareThreshold.output;
}

/* A system-style bus (everyone connects; nobody owns a name or calls a
 * method unless a policy says so, as Debian's system.conf) that includes the
 * installed policy, its per-package folder pointed at `policyFolder`. */
std::string SystemStyleBusConfig(const TempDir& work, const std::string& installedPolicy,
                                 const std::string& policyFolder)
{
    std::string policy = tilvane::test::ReadAll(installedPolicy);
    const std::string shipped = "<includedir>/var/lib/tilvane/etc/dbus/tilvane-bus.d</includedir>";
    const size_t at = policy.find(shipped);
    EXPECT_NE(at, std::string::npos) << policy;
    if (at != std::string::npos) {
        policy.replace(at, shipped.size(), "<includedir>" + policyFolder + "</includedir>");
    }
    tilvane::test::WriteFile(work.File("tilvane-policy.conf"), policy);
    const std::string config = work.File("system-bus.conf");
    tilvane::test::WriteFile(
        config, "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
                " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                "<busconfig>\n  <type>system</type>\n  <listen>unix:tmpdir=/tmp</listen>\n  <auth>EXTERNAL</auth>\n"
                "  <policy context=\"default\">\n    <allow user=\"*\"/>\n    <deny own=\"*\"/>\n"
                "    <deny send_type=\"method_call\"/>\n    <allow send_type=\"signal\"/>\n"
                "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
                "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
                "    <allow receive_type=\"method_call\"/>\n    <allow receive_type=\"method_return\"/>\n"
                "    <allow receive_type=\"error\"/>\n    <allow receive_type=\"signal\"/>\n"
                "    <allow send_destination=\"org.freedesktop.DBus\"/>\n  </policy>\n"
                "  <include>" + work.File("tilvane-policy.conf") + "</include>\n</busconfig>\n");
    return config;
}

TEST_F(InstallTest, TheInstalledSystemBusPolicyAppliesTheRegistrysPerPackageRules)
{
    const int newsUser = tilvane::test::UserIdOf("daemon");
    const int otherUser = tilvane::test::UserIdOf("nobody");
    if (!tilvane::test::CanSwitchUsers() || newsUser <= 0 || otherUser <= 0) {
        GTEST_SKIP() << "running clients as other users needs root, setpriv and the users daemon and nobody";
    }
    TempDir work;
    TempDir root;
    chmod(root.Path().c_str(), 0755);
    tilvane::test::WriteFile(work.File("tilvane.conf"), "[identity]\nmode = verified\n");
    const std::string policyFolder = root.Path() + "/etc/dbus/tilvane-bus.d";
    tilvane::test::MultiUserBus bus(
        SystemStyleBusConfig(work, Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d/tilvane.conf"), policyFolder));
    ASSERT_TRUE(bus.IsRunning());
    const std::vector<std::string> env = {"TILVANE_PLATFORM_ROOT=" + root.Path(),
                                          "TILVANE_CONFIG=" + work.File("tilvane.conf"), "TILVANE_LOG_LEVEL=W"};
    /* The installed tool, as root, installs a package of the user daemon:
     * the registry writes the per-package policy and the bus reloads it. */
    tilvane::test::WriteFile(work.File("news.manifest"), "package = org.example.news\nuser = " +
                                                             std::to_string(newsUser) + "\napp = org.example.news.ui\n");
    tilvane::test::RunResult installed =
        tilvane::test::RunAs(work, -1, {Installed(TILVANE_INSTALL_BINDIR "/tilvanectl"), "app", "install",
                                        work.File("news.manifest")},
                             env);
    ASSERT_EQ(installed.status, 0) << installed.err;
    ASSERT_TRUE(tilvane::test::FileExists(policyFolder + "/tilvane-apps.conf"));

    auto requestName = [&](int uid, const std::string& name) {
        return tilvane::test::RunAs(work, uid,
                                    {"/usr/bin/dbus-send", "--bus=" + bus.Address(), "--print-reply",
                                     "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus.RequestName", "string:" + name, "uint32:4"},
                                    env);
    };
    const std::string app = tilvane::host::BusNameForAppId("org.example.news.ui");
    const std::string port = tilvane::host::BusNameForPort("org.example.news.ui", "events");
    for (const std::string& name : {app, port}) {
        tilvane::test::RunResult stolen = requestName(otherUser, name);
        EXPECT_NE(stolen.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << name << stolen.err;
        tilvane::test::RunResult own = requestName(newsUser, name);
        EXPECT_EQ(own.status, 0) << name << own.err;
        EXPECT_NE(own.out.find("uint32 1"), std::string::npos) << own.out;
    }
    /* The service's names are the platform's: not the package's user's. */
    tilvane::test::RunResult service =
        requestName(newsUser, tilvane::host::BusNameForAppId("com.quillon.px.tilvane"));
    EXPECT_NE(service.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << service.err;
    EXPECT_EQ(requestName(0, tilvane::host::BusNameForAppId("com.quillon.px.tilvane")).status, 0);
}

/* The installed service on a private bus with the installed policy in force,
 * the launcher example installed, for programs built against the installed
 * tree. */
class InstalledService
{
public:
    InstalledService(const TempDir& work, const std::string& busPolicy, const std::string& installedPrefix)
        : m_work(work), m_prefix(installedPrefix)
    {
        const std::string busConfig = work.File("bus.conf");
        tilvane::test::WriteFile(
            busConfig,
            "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            "  <listen>unix:dir=" + work.Path() + "</listen>\n"
            "  <auth>EXTERNAL</auth>\n"
            "  <policy context=\"default\">\n"
            "    <allow user=\"*\"/>\n"
            "    <deny own=\"*\"/>\n"
            "    <deny send_type=\"method_call\"/>\n"
            "    <allow send_type=\"signal\"/>\n"
            "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
            "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
            "    <allow receive_type=\"method_call\"/>\n"
            "    <allow receive_type=\"method_return\"/>\n"
            "    <allow receive_type=\"error\"/>\n"
            "    <allow receive_type=\"signal\"/>\n"
            "    <allow send_destination=\"org.freedesktop.DBus\"/>\n"
            "  </policy>\n"
            "  <includedir>" + busPolicy + "</includedir>\n"
            "</busconfig>\n");
        m_bus.reset(new Process({"/usr/bin/dbus-daemon", "--config-file=" + busConfig, "--nofork", "--print-address=1"},
                                {}, work.File("bus.out"), work.File("bus.err")));
        if (!m_bus->WaitFor("unix:", false, 10000)) {
            ADD_FAILURE() << m_bus->Err();
            return;
        }
        std::string address = m_bus->Out();
        address.erase(address.find_last_not_of("\n") + 1);
        m_env = {"DBUS_SESSION_BUS_ADDRESS=" + address, "TILVANE_PLATFORM_ROOT=" + work.File("root"),
                 "TILVANE_CONFIG=" + Installed(TILVANE_INSTALL_DATADIR "/tilvane/tilvane-development.conf"),
                 "TILVANE_LOG_LEVEL=D"};
        Process install({Ctl(), "app", "install", Examples() + "/apps/launcher.manifest"}, m_env, work.File("i.out"),
                        work.File("i.err"));
        EXPECT_EQ(install.Wait(20000), 0) << install.Err();
        m_service.reset(new Process({Installed(TILVANE_INSTALL_SBINDIR "/tilvane")}, m_env, work.File("service.out"),
                                    work.File("service.err")));
        m_running = m_service->WaitFor("service application created", true, 20000);
        EXPECT_TRUE(m_running) << m_service->Err();
    }

    ~InstalledService()
    {
        if (m_service) {
            m_service->Signal(SIGTERM);
            EXPECT_EQ(m_service->Wait(20000), 0) << m_service->Err();
        }
        if (m_bus) {
            m_bus->Signal(SIGTERM);
            m_bus->Wait(5000);
        }
    }

    bool Running() const { return m_running; }
    const std::vector<std::string>& Environment() const { return m_env; }
    /* The environment of a program of the installed tree running as `appId`. */
    std::vector<std::string> AppEnvironment(const std::string& appId) const
    {
        std::vector<std::string> env = m_env;
        env.push_back("LD_LIBRARY_PATH=" + Installed(TILVANE_INSTALL_LIBDIR));
        env.push_back("TILVANE_APP_ID=" + appId);
        return env;
    }
    Process& Service() { return *m_service; }
    std::string Installed(const std::string& relative) const { return m_prefix + "/" + relative; }
    std::string Ctl() const { return Installed(TILVANE_INSTALL_BINDIR "/tilvanectl"); }
    std::string Examples() const { return Installed(TILVANE_INSTALL_DATADIR "/tilvane/examples"); }

private:
    const TempDir& m_work;
    std::string m_prefix;
    std::unique_ptr<Process> m_bus;
    std::unique_ptr<Process> m_service;
    std::vector<std::string> m_env;
    bool m_running = false;
};

TEST_F(InstallTest, AProgramBuildsAgainstTheInstalledPkgConfigFileAndTalksToTheInstalledService)
{
    TempDir work;
    const std::string environment = PkgConfigEnvironment();
    Shell flags = RunShell(environment + " pkg-config --cflags --libs tilvane-client");
    ASSERT_EQ(flags.exitCode, 0) << flags.output;
    EXPECT_NE(flags.output.find("-ltilvane-client"), std::string::npos) << flags.output;
    Shell version = RunShell(environment + " pkg-config --modversion tilvane-client");
    EXPECT_EQ(version.output, std::string(TILVANE_VERSION) + "\n");

    const std::string source = std::string(TILVANE_SOURCE_DIR) + "/tests/integration/programs/reader.cpp";
    Shell build = BuildWithPkgConfig("c++ -std=c++17", source, work.File("reader"));
    ASSERT_EQ(build.exitCode, 0) << build.output;

    InstalledService installed(work, Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d"), Installed(""));
    ASSERT_TRUE(installed.Running());
    std::vector<std::string> publishArgs = {installed.Ctl(), "--app-id", "org.example.videos.main", "publish",
                                            installed.Examples() + "/publish/news.json"};
    Process publish(publishArgs, installed.Environment(), work.File("p.out"), work.File("p.err"));
    ASSERT_EQ(publish.Wait(20000), 0) << publish.Err() << installed.Service().Err();
    EXPECT_NE(publish.Out().find("published 2 sections and 3 tiles; sync end mark sent"), std::string::npos)
        << publish.Out();

    Process reader({work.File("reader"), "content://com.quillon.px.tiles/tiles"},
                   installed.AppEnvironment("org.example.videos.main"), work.File("r.out"), work.File("r.err"));
    EXPECT_EQ(reader.Wait(20000), 0) << reader.Err();
    EXPECT_EQ(reader.Out(), "done|3\n") << reader.Err();

    Process stranger({work.File("reader"), "content://com.quillon.px.tiles/tiles"},
                     installed.AppEnvironment("org.example.stranger"), work.File("s.out"), work.File("s.err"));
    EXPECT_EQ(stranger.Wait(20000), 1);
    EXPECT_EQ(stranger.Out(), "refused: permission level too low|0\n") << stranger.Err();
}

/* Lines of application code in the body of `main` of a source file: neither
 * blank nor a lone brace. */
size_t ApplicationLines(const std::string& source)
{
    const std::string text = tilvane::test::ReadAll(source);
    const size_t body = text.find("int main(");
    size_t lines = 0;
    std::stringstream stream(body == std::string::npos ? "" : text.substr(text.find('{', body) + 1));
    std::string line;
    while (std::getline(stream, line)) {
        const std::string trimmed = line.substr(std::min(line.find_first_not_of(' '), line.size()));
        if (trimmed == "}") {
            break;
        }
        lines += trimmed.empty() || trimmed == "{" || trimmed == "}" ? 0 : 1;
    }
    return lines;
}

TEST_F(InstallTest, TheClientExamplesBuildThroughPkgConfigAndFindPackageAndPublish)
{
    TempDir work;
    const std::string examples = Installed(TILVANE_INSTALL_DATADIR "/tilvane/examples/client");
    EXPECT_LE(ApplicationLines(examples + "/publish.cpp"), 12u);
    EXPECT_GE(ApplicationLines(examples + "/publish.cpp"), 8u) << "the count reads the example's main";

    Shell cpp = BuildWithPkgConfig("c++ -std=c++17 -Wall -Werror", examples + "/publish.cpp", work.File("publish"));
    ASSERT_EQ(cpp.exitCode, 0) << cpp.output;
    Shell c = BuildWithPkgConfig("cc -std=c99 -Wall -Werror", examples + "/publish.c", work.File("publish-c"));
    ASSERT_EQ(c.exitCode, 0) << c.output;
    Shell configured = RunShell("cmake -S " + Quoted(examples) + " -B " + Quoted(work.File("cmake")) +
                                " -DCMAKE_PREFIX_PATH=" + Quoted(Installed("")) +
                                " -DCMAKE_CXX_FLAGS=" + Quoted(TILVANE_TEST_PROGRAM_FLAGS) +
                                " -DCMAKE_C_FLAGS=" + Quoted(TILVANE_TEST_PROGRAM_FLAGS));
    ASSERT_EQ(configured.exitCode, 0) << configured.output;
    Shell built = RunShell("cmake --build " + Quoted(work.File("cmake")));
    ASSERT_EQ(built.exitCode, 0) << built.output;

    InstalledService installed(work, Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d"), Installed(""));
    ASSERT_TRUE(installed.Running());
    const auto env = installed.AppEnvironment("org.example.videos.main");
    for (const std::string& program :
         {work.File("publish"), work.File("publish-c"), work.File("cmake/publish"), work.File("cmake/publish-c")}) {
        Process run({program}, env, work.File("run.out"), work.File("run.err"));
        EXPECT_EQ(run.Wait(20000), 0) << program << "\n" << run.Err() << installed.Service().Err();
        EXPECT_EQ(run.Out(), "published and read back 1 section(s)\n") << program;
        EXPECT_EQ(run.Err(), "") << program;
    }
    RawDatabase db(work.File("root/opt/dbspace/.preview.db"));
    EXPECT_EQ(db.Column("SELECT group_concat(tile_title, '|') FROM (SELECT tile_title FROM tiles ORDER BY _id)"),
              (std::vector<std::string>{"Headlines|Weather"}))
        << "each publish replaced the one before";
}

TEST_F(InstallTest, ThePythonExamplePublishesThroughTheCInterfaceAndReadsBack)
{
    TempDir work;
    InstalledService installed(work, Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d"), Installed(""));
    ASSERT_TRUE(installed.Running());
    std::vector<std::string> env = installed.AppEnvironment("org.example.videos.main");
    env.push_back("TILVANE_CLIENT_LIBRARY=" + Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so.0"));
    /* env(1) sets what the test's own environment may hold already. */
    std::vector<std::string> args = {"/usr/bin/env"};
    args.insert(args.end(), PythonSanitizerEnvironment().begin(), PythonSanitizerEnvironment().end());
    args.push_back("/usr/bin/python3");
    args.push_back(Installed(TILVANE_INSTALL_DATADIR "/tilvane/examples/client/publish.py"));
    Process python(args, env, work.File("py.out"), work.File("py.err"));
    EXPECT_EQ(python.Wait(30000), 0) << python.Err() << installed.Service().Err();
    EXPECT_EQ(python.Out(), "read back: Headlines, Wetter für die Woche\n") << python.Err();
    RawDatabase db(work.File("root/opt/dbspace/.preview.db"));
    EXPECT_EQ(db.Column("SELECT tile_image_ratio FROM tiles WHERE tile_title = 'Wetter für die Woche'"),
              (std::vector<std::string>{"16:9"}));
}

TEST_F(InstallTest, TheClientLibraryExportsExactlyItsApiUnderOneSymbolVersion)
{
    const std::string library = Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so." TILVANE_VERSION);
    Shell symbols = RunShell("nm -D --defined-only " + Quoted(library) + " | c++filt");
    ASSERT_EQ(symbols.exitCode, 0) << symbols.output;
    std::set<std::string> exported;
    size_t count = 0;
    std::stringstream lines(symbols.output);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string name = line.substr(line.find(' ', line.find(' ') + 1) + 1);
        const size_t version = name.rfind("@@TILVANE_CLIENT_0");
        EXPECT_TRUE(version != std::string::npos || name == "TILVANE_CLIENT_0") << name;
        const std::string bare = name.substr(0, version);
        EXPECT_TRUE(bare.rfind("tilvane_", 0) == 0 || bare.rfind("tilvane::client::", 0) == 0 ||
                    bare == "TILVANE_CLIENT_0")
            << bare;
        exported.insert(bare);
        count += bare == "TILVANE_CLIENT_0" ? 0 : 1;
    }
    EXPECT_LE(count, 60u);
    std::set<std::string> listed;
    std::stringstream file(tilvane::test::ReadAll(TILVANE_PACKAGING_DIR "/libtilvane-client.symbols"));
    while (std::getline(file, line)) {
        if (line.rfind(" ", 0) != 0) {
            continue;
        }
        std::string name = line.substr(1, line.rfind(' ') - 1);
        if (name.rfind("(c++)\"", 0) == 0) {
            name = name.substr(6, name.size() - 7);
        }
        listed.insert(name.substr(0, name.rfind("@TILVANE_CLIENT_0")));
    }
    EXPECT_EQ(exported, listed);
    /* Every C function it exports is declared in the installed headers. */
    const std::string headers = tilvane::test::ReadAll(Installed(TILVANE_INSTALL_INCLUDEDIR "/tilvane/tilvane_c.h"));
    for (const std::string& name : exported) {
        if (name.rfind("tilvane_", 0) == 0) {
            EXPECT_NE(headers.find(name + "("), std::string::npos) << name << " is exported but not declared";
        }
    }
    Shell soname = RunShell("readelf -d " + Quoted(library));
    EXPECT_NE(soname.output.find("Library soname: [libtilvane-client.so.0]"), std::string::npos) << soname.output;
}

TEST_F(InstallTest, TheClientLibraryWritesNothingToStandardErrorUnlessAHandlerIsInstalled)
{
    TempDir work;
    const std::string source = std::string(TILVANE_SOURCE_DIR) + "/tests/integration/programs/quiet.c";
    Shell build = BuildWithPkgConfig("cc -std=c99 -Wall -Werror", source, work.File("quiet"));
    ASSERT_EQ(build.exitCode, 0) << build.output;
    const std::string library = "LD_LIBRARY_PATH=" + Installed(TILVANE_INSTALL_LIBDIR);

    /* Without a bus: the platform logs why it cannot connect. */
    std::vector<std::string> env = {library, "TILVANE_PLATFORM_ROOT=" + work.File("alone"), "TILVANE_LOG_LEVEL=V",
                                    "DBUS_SESSION_BUS_ADDRESS="};
    Process alone({work.File("quiet")}, env, work.File("alone.out"), work.File("alone.err"));
    EXPECT_EQ(alone.Wait(20000), 0);
    EXPECT_EQ(alone.Out(), "publish: bus error\n");
    EXPECT_EQ(alone.Err(), "");
    Process told({work.File("quiet"), "--handler"}, env, work.File("told.out"), work.File("told.err"));
    EXPECT_EQ(told.Wait(20000), 0);
    EXPECT_NE(told.Out().find("log 6 tilvane-platform no message bus: DBUS_SESSION_BUS_ADDRESS is not set"),
              std::string::npos)
        << told.Out();
    EXPECT_EQ(told.Err(), "");

    /* With the service, as an application with a launcher entry and as one without. */
    InstalledService installed(work, Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d"), Installed(""));
    ASSERT_TRUE(installed.Running());
    for (const char* appId : {"org.example.videos.main", "org.example.stranger"}) {
        std::vector<std::string> appEnv = installed.AppEnvironment(appId);
        appEnv.push_back("TILVANE_LOG_LEVEL=V");
        Process run({work.File("quiet")}, appEnv, work.File("run.out"), work.File("run.err"));
        EXPECT_EQ(run.Wait(20000), 0);
        EXPECT_EQ(run.Out(), std::string("publish: ") +
                                 (std::string(appId) == "org.example.stranger" ? "permission denied\n" : "ok\n"));
        EXPECT_EQ(run.Err(), "") << appId;
    }
}

}  // namespace
