/*
 * `cmake --install` into a DESTDIR: the tree it lays out, the systemd units as
 * systemd-analyze sees them, a program built against the installed pkg-config
 * file, and the installed service started on a private bus that runs with the
 * installed bus policy, published to and read from with the installed tools.
 */
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <tilvane_version.h>

#include "TestProcess.h"
#include "TestSupport.h"

using tilvane::test::Process;
using tilvane::test::TempDir;

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

bool IsFile(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool IsExecutable(const std::string& path)
{
    return IsFile(path) && access(path.c_str(), X_OK) == 0;
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

    static TempDir* s_destDir;
    static Shell* s_install;
};

TempDir* InstallTest::s_destDir = nullptr;
Shell* InstallTest::s_install = nullptr;

TEST_F(InstallTest, LaysOutProgramsLibraryUnitsBusFilesManPagesAndExamples)
{
    EXPECT_TRUE(IsExecutable(Installed(TILVANE_INSTALL_SBINDIR "/tilvane")));
    EXPECT_TRUE(IsExecutable(Installed(TILVANE_INSTALL_BINDIR "/tilvanectl")));
    const std::string library = Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so." TILVANE_VERSION);
    EXPECT_TRUE(IsFile(library));
    EXPECT_TRUE(IsFile(Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so")));
    EXPECT_TRUE(IsFile(Installed(TILVANE_INSTALL_LIBDIR "/libtilvane-client.so.0")));
    Shell soname = RunShell("readelf -d " + Quoted(library));
    EXPECT_NE(soname.output.find("Library soname: [libtilvane-client.so.0]"), std::string::npos) << soname.output;
    for (const char* file :
         {TILVANE_INSTALL_INCLUDEDIR "/tilvane/tilvane_client.h", TILVANE_INSTALL_LIBDIR "/pkgconfig/tilvane-client.pc",
          "lib/systemd/system/tilvane.service", "lib/systemd/user/tilvane.service",
          TILVANE_INSTALL_DATADIR "/dbus-1/system-services/org.tilvane.App.Acom_2equillon_2epx_2etilvane.service",
          TILVANE_INSTALL_DATADIR "/dbus-1/system.d/tilvane.conf", TILVANE_INSTALL_SYSCONFDIR "/tilvane/tilvane.conf",
          TILVANE_INSTALL_DATADIR "/tilvane/tilvane-development.conf", TILVANE_INSTALL_MANDIR "/man8/tilvane.8",
          TILVANE_INSTALL_MANDIR "/man1/tilvanectl.1", TILVANE_INSTALL_DATADIR "/bash-completion/completions/tilvanectl",
          TILVANE_INSTALL_DATADIR "/tilvane/examples/apps/launcher.manifest",
          TILVANE_INSTALL_DATADIR "/tilvane/examples/publish/news.json"}) {
        EXPECT_TRUE(IsFile(Installed(file))) << file;
    }
    const std::string unit = tilvane::test::ReadAll(Installed("lib/systemd/system/tilvane.service"));
    EXPECT_NE(unit.find("Type=dbus"), std::string::npos);
    EXPECT_NE(unit.find("BusName=org.tilvane.App.Acom_2equillon_2epx_2etilvane"), std::string::npos);
    EXPECT_NE(unit.find("ExecStart=" TILVANE_INSTALL_PREFIX "/" TILVANE_INSTALL_SBINDIR "/tilvane"), std::string::npos)
        << unit;
    EXPECT_NE(tilvane::test::ReadAll(Installed(TILVANE_INSTALL_SYSCONFDIR "/tilvane/tilvane.conf")).find("mode = verified"),
              std::string::npos);
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
}

TEST_F(InstallTest, SystemdAcceptsTheUnits)
{
    if (access("/usr/bin/systemd-analyze", X_OK) != 0 && access("/bin/systemd-analyze", X_OK) != 0) {
        GTEST_SKIP() << "systemd-analyze is not installed";
    }
    /* The units as installed, but pointing at the staged binary, so that
     * systemd can check that the command exists. systemd-analyze exits 0 on
     * lines it ignores: any output at all is a finding. */
    TempDir work;
    const std::string installedCommand = "ExecStart=" TILVANE_INSTALL_PREFIX "/" TILVANE_INSTALL_SBINDIR "/tilvane";
    const std::string stagedCommand = "ExecStart=" + Installed(TILVANE_INSTALL_SBINDIR "/tilvane");
    for (const std::string scope : {"system", "user"}) {
        std::string unit = tilvane::test::ReadAll(Installed("lib/systemd/" + scope + "/tilvane.service"));
        const size_t at = unit.find(installedCommand);
        ASSERT_NE(at, std::string::npos) << unit;
        unit.replace(at, installedCommand.size(), stagedCommand);
        mkdir(work.File(scope).c_str(), 0755);
        tilvane::test::WriteFile(work.File(scope + "/tilvane.service"), unit);
        mkdir(work.File("runtime").c_str(), 0700);
        const std::string flags = scope == "user" ? "XDG_RUNTIME_DIR=" + Quoted(work.File("runtime")) + " " : "";
        Shell verify = RunShell(flags + "systemd-analyze verify --man=no" + (scope == "user" ? " --user " : " ") +
                                Quoted(work.File(scope + "/tilvane.service")));
        EXPECT_EQ(verify.exitCode, 0) << scope << "\n" << verify.output;
        EXPECT_EQ(verify.output, "") << scope;
    }
}

TEST_F(InstallTest, AProgramBuildsAgainstTheInstalledPkgConfigFileAndTalksToTheInstalledService)
{
    TempDir work;
    const std::string environment = "PKG_CONFIG_PATH=" + Quoted(Installed(TILVANE_INSTALL_LIBDIR "/pkgconfig")) +
                                    " PKG_CONFIG_SYSROOT_DIR=" + Quoted(s_destDir->Path());
    Shell flags = RunShell(environment + " pkg-config --cflags --libs tilvane-client");
    ASSERT_EQ(flags.exitCode, 0) << flags.output;
    EXPECT_NE(flags.output.find("-ltilvane-client"), std::string::npos) << flags.output;
    Shell version = RunShell(environment + " pkg-config --modversion tilvane-client");
    EXPECT_EQ(version.output, std::string(TILVANE_VERSION) + "\n");

    const std::string source = work.File("reader.cpp");
    tilvane::test::WriteFile(source,
                             "#include <tilvane_client.h>\n"
                             "#include <cstdio>\n"
                             "int main(int argc, char** argv) {\n"
                             "    tilvane::client::ContentClient client;\n"
                             "    tilvane::client::Result result = client.Select(argv[1], {\"_id\"}, \"\", {}, \"\", \"\");\n"
                             "    std::printf(\"%s|%zu\\n\", tilvane::client::Explain(result).c_str(), result.rows.rows.size());\n"
                             "    return argc == 2 && result.Ok() ? 0 : 1;\n"
                             "}\n");
    flags.output.erase(flags.output.find_last_not_of("\n") + 1);
    Shell build = RunShell(environment + " c++ -std=c++17 " TILVANE_TEST_PROGRAM_FLAGS " -o " + Quoted(work.File("reader")) +
                           " " + Quoted(source) +
                           " $(" + environment + " pkg-config --cflags --libs tilvane-client)");
    ASSERT_EQ(build.exitCode, 0) << build.output;

    /* A private bus with the installed policy in force. */
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
        "  <includedir>" + Installed(TILVANE_INSTALL_DATADIR "/dbus-1/system.d") + "</includedir>\n"
        "</busconfig>\n");
    Process bus({"/usr/bin/dbus-daemon", "--config-file=" + busConfig, "--nofork", "--print-address=1"}, {},
                work.File("bus.out"), work.File("bus.err"));
    ASSERT_TRUE(bus.WaitFor("unix:", false, 10000)) << bus.Err();
    std::string address = bus.Out();
    address.erase(address.find_last_not_of("\n") + 1);

    const std::vector<std::string> env = {"DBUS_SESSION_BUS_ADDRESS=" + address,
                                          "TILVANE_PLATFORM_ROOT=" + work.File("root"),
                                          "TILVANE_CONFIG=" + Installed(TILVANE_INSTALL_DATADIR
                                                                        "/tilvane/tilvane-development.conf"),
                                          "TILVANE_LOG_LEVEL=D"};
    const std::string ctl = Installed(TILVANE_INSTALL_BINDIR "/tilvanectl");
    const std::string examples = Installed(TILVANE_INSTALL_DATADIR "/tilvane/examples");
    Process install({ctl, "app", "install", examples + "/apps/launcher.manifest"}, env, work.File("i.out"),
                    work.File("i.err"));
    ASSERT_EQ(install.Wait(20000), 0) << install.Err();

    Process service({Installed(TILVANE_INSTALL_SBINDIR "/tilvane")}, env, work.File("service.out"),
                    work.File("service.err"));
    ASSERT_TRUE(service.WaitFor("service application created", true, 20000)) << service.Err();

    std::vector<std::string> publishArgs = {ctl, "--app-id", "org.example.videos.main", "publish",
                                            examples + "/publish/news.json"};
    Process publish(publishArgs, env, work.File("p.out"), work.File("p.err"));
    ASSERT_EQ(publish.Wait(20000), 0) << publish.Err() << service.Err();
    EXPECT_NE(publish.Out().find("published 2 sections and 3 tiles; sync end mark sent"), std::string::npos)
        << publish.Out();

    std::vector<std::string> readerEnv = env;
    readerEnv.push_back("LD_LIBRARY_PATH=" + Installed(TILVANE_INSTALL_LIBDIR));
    readerEnv.push_back("TILVANE_APP_ID=org.example.videos.main");
    Process reader({work.File("reader"), "content://com.quillon.px.tiles/tiles"}, readerEnv, work.File("r.out"),
                   work.File("r.err"));
    EXPECT_EQ(reader.Wait(20000), 0) << reader.Err();
    EXPECT_EQ(reader.Out(), "done|3\n") << reader.Err();

    readerEnv.back() = "TILVANE_APP_ID=org.example.stranger";
    Process stranger({work.File("reader"), "content://com.quillon.px.tiles/tiles"}, readerEnv, work.File("s.out"),
                     work.File("s.err"));
    EXPECT_EQ(stranger.Wait(20000), 1);
    EXPECT_EQ(stranger.Out(), "refused: permission level too low|0\n") << stranger.Err();

    service.Signal(SIGTERM);
    EXPECT_EQ(service.Wait(20000), 0) << service.Err();
    bus.Signal(SIGTERM);
    bus.Wait(5000);
}

}  // namespace
