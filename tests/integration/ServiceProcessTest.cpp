/*
 * Starts the real service binary under a temporary platform root and drives it
 * from outside, as the platform would: it must create the tiles database, keep
 * running, and end cleanly on SIGTERM with its shutdown steps in order.
 */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using namespace tilvane::test;

namespace {

class ServiceProcess
{
public:
    ServiceProcess(const std::string& root, const std::string& logPath) : m_logPath(logPath)
    {
        m_pid = fork();
        if (m_pid == 0) {
            int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, STDERR_FILENO);
            dup2(fd, STDOUT_FILENO);
            close(fd);
            setenv("TILVANE_PLATFORM_ROOT", root.c_str(), 1);
            setenv("TILVANE_LOG_LEVEL", "D", 1);
            setenv("TILVANE_APP_ID", "com.quillon.px.tilvane", 1);
            execl(TILVANE_SERVICE_BINARY, TILVANE_SERVICE_BINARY, static_cast<char*>(nullptr));
            _exit(127);
        }
    }

    ~ServiceProcess()
    {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    std::string Log() const
    {
        std::ifstream in(m_logPath);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    bool WaitForLog(const std::string& text, std::chrono::seconds limit) const
    {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (Log().find(text) != std::string::npos) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    bool IsRunning()
    {
        int status = 0;
        return waitpid(m_pid, &status, WNOHANG) == 0;
    }

    /* Sends `signal` and waits for the exit; the exit status, or -1 if it did not end. */
    int StopWith(int signal, std::chrono::seconds limit)
    {
        kill(m_pid, signal);
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_reaped = true;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

private:
    std::string m_logPath;
    pid_t m_pid = -1;
    bool m_reaped = false;
};

/* Position of `text` in `log` after `from`, or npos. */
size_t Find(const std::string& log, const std::string& text, size_t from = 0)
{
    return log.find(text, from);
}

class ServiceProcessTest : public ::testing::Test
{
protected:
    // Every service process of a test runs on this bus.
    tilvane::test::PrivateBus m_bus;
    tilvane::test::DevelopmentRoot m_root;
    TempDir m_logs;

    std::string DatabasePath() const { return m_root.Path() + "/opt/dbspace/.preview.db"; }
};

TEST_F(ServiceProcessTest, StartsCreatesTheTilesDatabaseAndEndsCleanlyOnSigterm)
{
    ServiceProcess service(m_root.Path(), m_logs.File("service.log"));
    ASSERT_TRUE(service.WaitForLog("service application created", std::chrono::seconds(20))) << service.Log();
    ASSERT_TRUE(service.IsRunning());

    ASSERT_TRUE(FileExists(DatabasePath()));
    {
        RawDatabase db(DatabasePath());
        EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    }

    EXPECT_EQ(service.StopWith(SIGTERM, std::chrono::seconds(20)), 0) << service.Log();

    std::string log = service.Log();
    size_t terminating = Find(log, "terminating");
    size_t closed = Find(log, "database closed: " + DatabasePath(), terminating);
    size_t lockGone = Find(log, "lock destroyed: CTilesProviderLock", closed);
    size_t loopEnded = Find(log, "main loop ended");
    ASSERT_NE(terminating, std::string::npos) << log;
    ASSERT_NE(closed, std::string::npos) << log;
    ASSERT_NE(lockGone, std::string::npos) << log;
    ASSERT_NE(loopEnded, std::string::npos) << log;
}

TEST_F(ServiceProcessTest, SigintEndsTheServiceCleanlyToo)
{
    ServiceProcess service(m_root.Path(), m_logs.File("service.log"));
    ASSERT_TRUE(service.WaitForLog("service application created", std::chrono::seconds(20))) << service.Log();

    EXPECT_EQ(service.StopWith(SIGINT, std::chrono::seconds(20)), 0) << service.Log();
    EXPECT_NE(service.Log().find("lock destroyed: CTilesProviderLock"), std::string::npos);
}

TEST_F(ServiceProcessTest, RegistersTheFiveEventHandlersInOrder)
{
    ServiceProcess service(m_root.Path(), m_logs.File("service.log"));
    ASSERT_TRUE(service.WaitForLog("service application created", std::chrono::seconds(20))) << service.Log();
    std::string log = service.Log();

    // Low battery, low memory, orientation, language, region.
    size_t position = 0;
    for (int type : {1, 0, 3, 2, 4}) {
        position = Find(log, "event handler added: type " + std::to_string(type), position);
        ASSERT_NE(position, std::string::npos) << "type " << type << "\n" << log;
    }
    EXPECT_EQ(service.StopWith(SIGTERM, std::chrono::seconds(20)), 0);
}

TEST_F(ServiceProcessTest, LogLinesCarryTheServiceTagAndSourcePosition)
{
    ServiceProcess service(m_root.Path(), m_logs.File("service.log"));
    ASSERT_TRUE(service.WaitForLog("service application created", std::chrono::seconds(20))) << service.Log();
    std::string log = service.Log();

    // The first start finds no database: three waits, each a line of the service's own.
    size_t line = Find(log, "I/tilvane(");
    ASSERT_NE(line, std::string::npos) << log;
    EXPECT_NE(Find(log, "TilesProvider.cpp: isDBFileExist(", line), std::string::npos) << log;
    EXPECT_NE(Find(log, ") > DB file is not exist"), std::string::npos) << log;
    EXPECT_EQ(service.StopWith(SIGTERM, std::chrono::seconds(20)), 0);
}

TEST_F(ServiceProcessTest, RestartKeepsTheDatabaseAndItsRows)
{
    {
        ServiceProcess first(m_root.Path(), m_logs.File("first.log"));
        ASSERT_TRUE(first.WaitForLog("service application created", std::chrono::seconds(20))) << first.Log();
        {
            RawDatabase db(DatabasePath());
            ASSERT_EQ(db.Exec("INSERT INTO accelerators (accelerator_app_pkg_name) VALUES ('pkg.survives')"), 0);
        }
        ASSERT_EQ(first.StopWith(SIGTERM, std::chrono::seconds(20)), 0);
    }

    ServiceProcess second(m_root.Path(), m_logs.File("second.log"));
    ASSERT_TRUE(second.WaitForLog("service application created", std::chrono::seconds(20))) << second.Log();
    EXPECT_EQ(second.Log().find("DB file is not exist"), std::string::npos);
    EXPECT_EQ(second.Log().find("remove original file"), std::string::npos);
    {
        RawDatabase db(DatabasePath());
        EXPECT_EQ(db.Column("SELECT accelerator_app_pkg_name FROM accelerators WHERE accelerator_app_pkg_name = 'pkg.survives'"),
                  (std::vector<std::string>{"pkg.survives"}));
    }
    EXPECT_EQ(second.StopWith(SIGTERM, std::chrono::seconds(20)), 0);
}

/* A service killed with SIGKILL after `fill` ran on its database (raw, the
 * log written back into the file). */
void StartFillAndKill(const std::string& root, const std::string& log, const std::string& database,
                      const std::string& fill)
{
    ServiceProcess first(root, log);
    ASSERT_TRUE(first.WaitForLog("service application created", std::chrono::seconds(20))) << first.Log();
    {
        RawDatabase db(database);
        ASSERT_EQ(db.Exec(fill + "PRAGMA wal_checkpoint(TRUNCATE);"), 0);
    }
    ASSERT_EQ(first.StopWith(SIGKILL, std::chrono::seconds(20)), 128 + SIGKILL);
}

const char kFiller[] =
    "CREATE TABLE filler (a TEXT);"
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 4000) "
    "INSERT INTO filler SELECT hex(randomblob(100)) FROM n;";

TEST_F(ServiceProcessTest, AfterAKillTheNextStartServesAtOnceAndChecksTheFileInTheBackground)
{
    StartFillAndKill(m_root.Path(), m_logs.File("first.log"), DatabasePath(), kFiller);
    ASSERT_TRUE(FileExists(DatabasePath() + "-inuse"));

    ServiceProcess second(m_root.Path(), m_logs.File("second.log"));
    ASSERT_TRUE(second.WaitForLog("main loop running", std::chrono::seconds(20))) << second.Log();
    const std::string log = second.Log();
    EXPECT_NE(log.find(DatabasePath() + " was not closed cleanly: header and tables checked, quick check in the "
                                        "background"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("running the quick check"), std::string::npos) << log;
    ASSERT_TRUE(second.WaitForLog(DatabasePath() + " passed the check in the background", std::chrono::seconds(60)))
        << second.Log();
    EXPECT_TRUE(second.IsRunning());
    EXPECT_EQ(second.Log().find("remove original file"), std::string::npos);
    {
        RawDatabase db(DatabasePath());
        EXPECT_EQ(db.Count("filler"), 4000);
    }
    EXPECT_EQ(second.StopWith(SIGTERM, std::chrono::seconds(20)), 0) << second.Log();
    EXPECT_TRUE(FileExists(DatabasePath() + "-clean"));
}

TEST_F(ServiceProcessTest, DamageFoundInTheBackgroundEndsTheServiceAndItsNextStartReplacesTheFile)
{
    StartFillAndKill(m_root.Path(), m_logs.File("first.log"), DatabasePath(), kFiller);
    {
        // The last twenty pages (leaves of the filler table, which the start
        // does not read) overwritten; the header and every table's first
        // pages intact.
        const size_t size = tilvane::test::FileSize(DatabasePath());
        ASSERT_GT(size, static_cast<size_t>(100 * 4096));
        std::fstream file(DatabasePath(), std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(file.is_open());
        file.seekp(static_cast<std::streamoff>(size - 20 * 4096));
        const std::string noise = tilvane::test::RandomBytes(20 * 4096, 17);
        file.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }

    {
        ServiceProcess second(m_root.Path(), m_logs.File("second.log"));
        ASSERT_TRUE(second.WaitForLog("main loop running", std::chrono::seconds(20))) << second.Log();
        EXPECT_NE(second.Log().find("quick check in the background"), std::string::npos) << second.Log();
        // Signal 0 sends nothing: this waits for the service to end by itself.
        EXPECT_EQ(second.StopWith(0, std::chrono::seconds(60)), 4) << second.Log();
        const std::string log = second.Log();
        // Findings, or SQLite's "malformed" when a damaged page stops the check.
        EXPECT_TRUE(log.find(DatabasePath() + " is corrupt (") != std::string::npos ||
                    log.find("quick check of " + DatabasePath() + ": database disk image is malformed") !=
                        std::string::npos)
            << log;
        EXPECT_NE(log.find(DatabasePath() + " is damaged: the service ends and its next start replaces the file"),
                  std::string::npos)
            << log;
        EXPECT_NE(log.find("lock destroyed: CTilesProviderLock"), std::string::npos) << log;
        EXPECT_EQ(log.find("remove original file"), std::string::npos) << log;
    }

    ServiceProcess third(m_root.Path(), m_logs.File("third.log"));
    ASSERT_TRUE(third.WaitForLog("service application created", std::chrono::seconds(20))) << third.Log();
    const std::string log = third.Log();
    EXPECT_NE(log.find("running the quick check"), std::string::npos) << log;
    EXPECT_NE(log.find("----------remove original file-----------"), std::string::npos) << log;
    {
        RawDatabase db(DatabasePath());
        EXPECT_EQ(db.TableNames(), (std::vector<std::string>{"accelerators", "sections", "tiles"}));
    }
    EXPECT_EQ(third.StopWith(SIGTERM, std::chrono::seconds(20)), 0) << third.Log();
}

TEST_F(ServiceProcessTest, SigtermWhileTheCheckRunsInTheBackgroundEndsTheServiceInOrder)
{
    // About 25 MB: the check at idle priority is still reading when the
    // service is told to stop (or, on an idle machine, has just passed).
    StartFillAndKill(m_root.Path(), m_logs.File("first.log"), DatabasePath(),
                     "CREATE TABLE filler (a TEXT);"
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
                     "INSERT INTO filler SELECT hex(randomblob(100)) FROM n;");

    ServiceProcess second(m_root.Path(), m_logs.File("second.log"));
    ASSERT_TRUE(second.WaitForLog("checking " + DatabasePath() + " in the background", std::chrono::seconds(20)))
        << second.Log();
    ASSERT_TRUE(second.WaitForLog("main loop running", std::chrono::seconds(20))) << second.Log();
    EXPECT_EQ(second.StopWith(SIGTERM, std::chrono::seconds(20)), 0) << second.Log();
    const std::string log = second.Log();
    EXPECT_TRUE(log.find("check of " + DatabasePath() + " in the background stopped") != std::string::npos ||
                log.find(DatabasePath() + " passed the check in the background") != std::string::npos)
        << log;
    EXPECT_NE(log.find("lock destroyed: CTilesProviderLock"), std::string::npos) << log;
    // A check that did not pass leaves no record of a clean close: the next
    // start checks again.
    if (log.find("passed the check in the background") == std::string::npos) {
        EXPECT_FALSE(FileExists(DatabasePath() + "-clean"));
    }
}

TEST_F(ServiceProcessTest, HelpExplainsTheEnvironmentAndStartsNothing)
{
    std::string command = std::string(TILVANE_SERVICE_BINARY) + " --help 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        output += buffer;
    }
    int status = pclose(pipe);

    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(output.find("Usage: "), std::string::npos) << output;
    EXPECT_NE(output.find("TILVANE_PLATFORM_ROOT"), std::string::npos) << output;
    EXPECT_NE(output.find("TILVANE_LOG_LEVEL"), std::string::npos) << output;
    EXPECT_EQ(output.find("DB file is not exist"), std::string::npos) << output;
}

}  // namespace
