/*
 * The change manager in the running service: accelerator installs over
 * "accelerator_port" from tilvanectl, visibility changes passed on to the
 * content service, a content-hub reset through a key set by another process,
 * and launcher entries coming back from the backup at the next start.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <bundle.h>
#include <host_control.h>
#include <message_port.h>

#include "ProcessesUnderRoot.h"
#include "TestProcess.h"
#include "ServiceUnderTest.h"
#include "TestSupport.h"

using namespace tilvane::test;

namespace {




class ChangeManagerTest : public tilvane::test::ProcessesUnderRootTest
{
protected:
    Process* Tool(const std::vector<std::string>& words, const std::string& name)
    {
        std::vector<std::string> args = {TILVANECTL_BINARY, "--app-id", "com.example." + name};
        args.insert(args.end(), words.begin(), words.end());
        return Start(args, name);
    }

    Process* Service(const std::string& name = "service")
    {
        return Start({TILVANE_SERVICE_BINARY}, name,
                     {"TILVANE_LOG_LEVEL=D", std::string("TILVANE_APP_ID=") + kServiceAppId});
    }

    std::string MainPath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }
    std::string BackupPath() const { return m_root.Path() + "/opt/dbspace/.preview.db.sqlite"; }
};

TEST_F(ChangeManagerTest, InstallGetsTheNewIdAndTheRowIsInBothDatabases)
{
    ASSERT_TRUE(m_bus.IsRunning());
    Process* service = Service();
    ASSERT_TRUE(service->WaitFor("Finish refreshing Launcher Item  ", true, 20000)) << service->Err();
    ASSERT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();

    Process* install = Tool({"accelerator", "install", "org.example.videos", "--title", "Videos"}, "installer");
    ASSERT_EQ(install->Wait(20000), 0) << install->Err();
    RawDatabase main(MainPath());
    const std::string id =
        main.Scalar("SELECT _id FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.videos'");
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(install->Out(), id + "\n");
    EXPECT_EQ(main.Scalar("SELECT accelerator_title FROM accelerators WHERE _id = " + id), "Videos");
    RawDatabase backup(BackupPath());
    EXPECT_EQ(backup.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.videos'"),
              "1");

    // The same package again: the same id, no second row.
    Process* again = Tool({"accelerator", "install", "org.example.videos"}, "again");
    ASSERT_EQ(again->Wait(20000), 0) << again->Err();
    EXPECT_EQ(again->Out(), id + "\n");
    EXPECT_EQ(main.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.videos'"),
              "1");

    // An empty package name fails with -1.
    Process* failed = Tool({"accelerator", "install", ""}, "failed");
    EXPECT_NE(failed->Wait(20000), 0);

    Process* uninstall = Tool({"accelerator", "uninstall", "org.example.videos"}, "uninstaller");
    ASSERT_EQ(uninstall->Wait(20000), 0) << uninstall->Err();
    ASSERT_TRUE(service->WaitFor("uninstall app", true, 10000));
    EXPECT_EQ(backup.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.videos'"),
              "0");
}

TEST_F(ChangeManagerTest, VisibilityChangesReachTheContentService)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ChildProcess listener([](int readyFd) {
        tilvane::host::SetOwnAppId("ContentServiceManager");
        std::vector<std::string> seen;
        int port = message_port_register_local_port(
            "CONTENT_SERVICE_ACCELERATOR_EVENT_PORT",
            [](int, const char* remoteAppId, const char*, bool, bundle* message, void* userData) {
                char* visibility = nullptr;
                char* package = nullptr;
                bundle_get_str(message, "visibility", &visibility);
                bundle_get_str(message, "accelerator_app_pkg_name", &package);
                static_cast<std::vector<std::string>*>(userData)->push_back(
                    std::string(remoteAppId != nullptr ? remoteAppId : "") + " " + (visibility ? visibility : "") +
                    " " + (package ? package : ""));
            },
            &seen);
        if (port <= 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        if (!IterateMainContextUntil([&] { return !seen.empty(); }, 30000)) {
            return 11;
        }
        return seen[0] == "com.quillon.px.tilvane hidden livetv_mbr_1" ? 0 : 12;
    });
    ASSERT_TRUE(listener.Started());
    ASSERT_TRUE(listener.Go());
    ASSERT_TRUE(listener.WaitReady());

    Process* service = Service();
    ASSERT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();
    Process* launcher = Tool({"launcher", "hidden", "livetv_mbr_1"}, "launcher");
    ASSERT_EQ(launcher->Wait(20000), 0) << launcher->Err();
    EXPECT_EQ(listener.Wait(30000), 0);
    EXPECT_TRUE(service->WaitFor("success to send hidden event", true, 10000)) << service->Err();
    RawDatabase main(MainPath());
    EXPECT_EQ(
        main.Scalar("SELECT accelerator_enabled FROM accelerators WHERE accelerator_app_pkg_name = 'livetv_mbr_1'"),
        "0");
}

TEST_F(ChangeManagerTest, AContentHubResetKeyClearsTheTwoPackagesInTheRunningService)
{
    ASSERT_TRUE(m_bus.IsRunning());
    Process* service = Service();
    ASSERT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();
    {
        RawDatabase main(MainPath());
        ASSERT_EQ(main.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'Qx7TmWp2Lc'), "
                            "(102, 'Hb4NzRk9Fs'), (103, 'org.example.other');"
                            "INSERT INTO sections (_id, section_accelerator_raw_id) VALUES (1, 101), (2, 102), (3, 103);"
                            "INSERT INTO tiles (tile_section_raw_id) VALUES (1), (2), (3);"),
                  0);
    }
    Process* key = Tool({"key", "set", "memory/korro/halcyon_reset_event", "1"}, "key");
    ASSERT_EQ(key->Wait(20000), 0) << key->Err();
    ASSERT_TRUE(service->WaitFor("Delete section ID : Hb4NzRk9Fs[2]", true, 10000)) << service->Err();
    RawDatabase main(MainPath());
    EXPECT_EQ(main.Column("SELECT _id FROM sections"), (std::vector<std::string>{"3"}));
    EXPECT_EQ(main.Column("SELECT tile_section_raw_id FROM tiles"), (std::vector<std::string>{"3"}));
    EXPECT_EQ(main.Scalar("SELECT COUNT(*) FROM accelerators WHERE _id > 100"), "3");
}

TEST_F(ChangeManagerTest, ADeletedAcceleratorComesBackFromTheBackupAtTheNextStart)
{
    ASSERT_TRUE(m_bus.IsRunning());
    Process* service = Service();
    ASSERT_TRUE(service->WaitFor("service application created", true, 20000)) << service->Err();
    Process* install = Tool({"accelerator", "install", "org.example.kept"}, "installer");
    ASSERT_EQ(install->Wait(20000), 0) << install->Err();
    service->Signal(SIGTERM);
    ASSERT_EQ(service->Wait(20000), 0) << service->Err();
    {
        RawDatabase main(MainPath());
        ASSERT_EQ(main.Exec("DELETE FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.kept'"), 0);
        ASSERT_EQ(main.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.kept'"),
                  "0");
    }
    Process* restarted = Service("restarted");
    ASSERT_TRUE(restarted->WaitFor("Finish refreshing Launcher Item  ", true, 20000)) << restarted->Err();
    EXPECT_TRUE(restarted->WaitFor("BackupDB : package(7)", true, 1000)) << restarted->Err();
    RawDatabase main(MainPath());
    EXPECT_EQ(main.Scalar("SELECT COUNT(*) FROM accelerators WHERE accelerator_app_pkg_name = 'org.example.kept'"), "1");
}

}  // namespace
