/*
 * The record of an orderly close (content/clean_close.h) and the corruption
 * check it shortens: after a clean close the full quick check is left out,
 * and anything that may have damaged the file since brings it back.
 */
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <glib.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <dlog.h>
#include <host_control.h>

#include "ContentDbConnection.h"
#include "ContentHelper.h"
#include "content/background_check.h"
#include "TestSupport.h"

namespace {

class ShelfHelper : public CContentHelper
{
public:
    explicit ShelfHelper(const std::string& directory) : CContentHelper(directory, "shelf.db", 1) {}
    void OnCreate(CContentDbConnection* connection) override
    {
        std::string error;
        connection->ExcuteSQL("CREATE TABLE item (id INTEGER PRIMARY KEY, title TEXT)", error);
    }
};

class CleanCloseTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override
    {
        tilvane::content::WaitForBackgroundChecks(60000);
        tilvane::host::Reset();
    }

    std::string DbPath() const { return m_dir.Path() + "/shelf.db"; }
    std::string RecordPath() const { return DbPath() + "-clean"; }

    /* A file of about 2,000 rows, written and closed in order. */
    void MakeFilledFile()
    {
        ShelfHelper helper(m_dir.Path());
        ASSERT_TRUE(helper.ConnectDB());
        std::string error;
        ASSERT_EQ(0, helper.GetConnection()->ExcuteSQL(
                         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
                         "INSERT INTO item (title) SELECT hex(randomblob(100)) FROM n;",
                         error))
            << error;
    }

    /* Pages 11 to 30 overwritten; page 1 (header and schema) intact. */
    void DamagePages()
    {
        std::fstream file(DbPath(), std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(file.is_open());
        file.seekp(10 * 4096);
        std::srand(5);
        for (int i = 0; i < 20 * 4096; ++i) {
            file.put(static_cast<char>(std::rand() & 0xff));
        }
    }

    /* Opens, writes, and ends without closing, as a crash would. */
    void Crash()
    {
        const pid_t child = fork();
        if (child == 0) {
            ShelfHelper helper(m_dir.Path());
            std::string error;
            const bool ok = helper.ConnectDB() &&
                            helper.GetConnection()->ExcuteSQL("INSERT INTO item (title) VALUES ('last')", error) == 0;
            _exit(ok ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    static bool Logged(const std::string& message)
    {
        for (const auto& line : tilvane::host::CapturedLog()) {
            if (line.message == message) {
                return true;
            }
        }
        return false;
    }

    static bool LoggedStart(const std::string& prefix)
    {
        for (const auto& line : tilvane::host::CapturedLog()) {
            if (line.message.rfind(prefix, 0) == 0) {
                return true;
            }
        }
        return false;
    }

    /* Checks a fresh helper's file; whether the quick check ran at open is in
     * `ran`, whether it was left to the background in `deferred`. */
    bool Corrupt(bool& ran, bool* deferred = nullptr)
    {
        tilvane::host::StartLogCapture();
        ShelfHelper helper(m_dir.Path());
        helper.ConnectDB();
        const bool corrupt = helper.CheckDBCorruption();
        // The helper's end would stop a check still running in the background.
        EXPECT_TRUE(tilvane::content::WaitForBackgroundChecks(60000));
        ran = Logged(DbPath() + " was not closed cleanly or changed since: running the quick check");
        const bool skipped =
            Logged(DbPath() + " was closed cleanly and not changed since: header checked, quick check skipped");
        const bool background =
            Logged(DbPath() + " was not closed cleanly: header and tables checked, quick check in the background");
        if (deferred != nullptr) {
            *deferred = background;
        }
        if (!background) {
            tilvane::host::StopLogCapture();
            tilvane::host::ClearCapturedLog();
        }
        EXPECT_EQ(1, int(ran) + int(skipped) + int(background));
        return corrupt;
    }

    tilvane::test::TempDir m_dir;
};

TEST_F(CleanCloseTest, AnOrderlyCloseLeavesARecordThatTheNextOpenConsumes)
{
    MakeFilledFile();
    EXPECT_TRUE(tilvane::test::FileExists(RecordPath()));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath() + "-wal"));

    bool ran = true;
    EXPECT_FALSE(Corrupt(ran));
    EXPECT_FALSE(ran);
    // The open took the record away; the helper's close wrote a new one.
    EXPECT_TRUE(tilvane::test::FileExists(RecordPath()));
}

TEST_F(CleanCloseTest, PagesDamagedAfterACleanCloseAreFound)
{
    MakeFilledFile();
    ASSERT_TRUE(tilvane::test::FileExists(RecordPath()));
    DamagePages();

    bool ran = false;
    EXPECT_TRUE(Corrupt(ran));
    EXPECT_TRUE(ran);
}

TEST_F(CleanCloseTest, DamageWhoseModificationTimeWasPutBackIsFound)
{
    MakeFilledFile();
    struct stat before;
    ASSERT_EQ(0, stat(DbPath().c_str(), &before));
    DamagePages();
    // Same size, same modification time: only the change time tells.
    struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, DbPath().c_str(), times, 0));

    bool ran = false;
    EXPECT_TRUE(Corrupt(ran));
    EXPECT_TRUE(ran);
}

TEST_F(CleanCloseTest, AHeaderThatDoesNotMatchTheSizeBringsTheFullCheckBack)
{
    MakeFilledFile();
    struct stat before;
    ASSERT_EQ(0, stat(DbPath().c_str(), &before));
    // The file holds one page more than its header says, and the record is
    // rewritten to name the file as it is now, as if nothing had changed.
    ASSERT_EQ(0, truncate(DbPath().c_str(), before.st_size + 4096));
    struct stat after;
    ASSERT_EQ(0, stat(DbPath().c_str(), &after));
    ASSERT_TRUE(tilvane::test::FileExists(RecordPath()));
    std::ofstream(RecordPath(), std::ios::trunc)
        << "tilvane-clean-close-1 " << after.st_dev << ' ' << after.st_ino << ' ' << after.st_size << ' '
        << after.st_mtim.tv_sec << ' ' << after.st_mtim.tv_nsec << ' ' << after.st_ctim.tv_sec << ' '
        << after.st_ctim.tv_nsec << '\n';

    bool ran = false;
    Corrupt(ran);
    EXPECT_TRUE(ran);
}

TEST_F(CleanCloseTest, AProcessThatEndsWithoutClosingLeavesTheNextOpenUnclean)
{
    MakeFilledFile();
    ASSERT_TRUE(tilvane::test::FileExists(RecordPath()));
    Crash();
    EXPECT_FALSE(tilvane::test::FileExists(RecordPath()));
    EXPECT_TRUE(tilvane::test::FileExists(DbPath() + "-inuse"));

    // The integrator's choice: the full check at start after a crash too.
    tilvane::host::SetConfigurationText("[content]\ncheck-after-crash = at-start\n");
    bool ran = false;
    EXPECT_FALSE(Corrupt(ran));
    EXPECT_TRUE(ran);
}

TEST_F(CleanCloseTest, AfterACrashTheFullCheckRunsInTheBackgroundAndTheNextCloseIsClean)
{
    MakeFilledFile();
    Crash();

    bool ran = true;
    bool deferred = false;
    EXPECT_FALSE(Corrupt(ran, &deferred));
    EXPECT_FALSE(ran);
    EXPECT_TRUE(deferred);
    EXPECT_TRUE(Logged(DbPath() + " passed the check in the background"));
    // The check passed before the helper closed the file: its close was clean.
    EXPECT_TRUE(tilvane::test::FileExists(RecordPath()));
    EXPECT_FALSE(tilvane::test::FileExists(DbPath() + "-inuse"));
}

TEST_F(CleanCloseTest, DamageAfterACrashInPagesTheOpenDoesNotReadIsFoundInTheBackground)
{
    MakeFilledFile();
    Crash();
    DamagePages();
    static std::string reported;
    reported.clear();
    tilvane::content::SetDamageFoundHandler([](const char* path) { reported = path; });

    bool ran = true;
    bool deferred = false;
    {
        tilvane::host::StartLogCapture();
        ShelfHelper helper(m_dir.Path());
        // Served at once: the open read the header and the tables' first pages only.
        EXPECT_FALSE(helper.CheckDBCorruption());
        ASSERT_TRUE(tilvane::content::WaitForBackgroundChecks(60000));
        for (int i = 0; i < 1000 && reported.empty(); ++i) {
            g_main_context_iteration(nullptr, FALSE);
        }
    }
    EXPECT_EQ(reported, DbPath());
    // Findings, or SQLite's "malformed" when a damaged page stops the check.
    EXPECT_TRUE(LoggedStart(DbPath() + " is corrupt (") ||
                LoggedStart("quick check of " + DbPath() + ": database disk image is malformed"));
    EXPECT_TRUE(tilvane::test::FileExists(DbPath() + "-corrupt"));
    // The close after the damage was found left no clean record.
    EXPECT_FALSE(tilvane::test::FileExists(RecordPath()));
    tilvane::host::ClearCapturedLog();

    // The next open runs the full check at once and condemns the file.
    EXPECT_TRUE(Corrupt(ran, &deferred));
    EXPECT_TRUE(ran);
    EXPECT_FALSE(deferred);
}

TEST_F(CleanCloseTest, AHeaderThatDoesNotMatchTheSizeAfterACrashIsCheckedInFullAtOnce)
{
    MakeFilledFile();
    Crash();
    struct stat st;
    ASSERT_EQ(0, stat(DbPath().c_str(), &st));
    ASSERT_EQ(0, truncate(DbPath().c_str(), st.st_size / 2));

    bool ran = false;
    bool deferred = true;
    EXPECT_TRUE(Corrupt(ran, &deferred));
    EXPECT_TRUE(ran);
    EXPECT_FALSE(deferred);
}

TEST_F(CleanCloseTest, AFileNoRunOfOursHadOpenIsCheckedInFullAtOnce)
{
    MakeFilledFile();
    Crash();
    // Neither record: the file may come from anywhere.
    ASSERT_EQ(0, unlink((DbPath() + "-inuse").c_str()));

    bool ran = false;
    bool deferred = true;
    EXPECT_FALSE(Corrupt(ran, &deferred));
    EXPECT_TRUE(ran);
    EXPECT_FALSE(deferred);
}

}  // namespace

namespace {

/* Frames the write-ahead log of `path` has room for: its file is never cut
 * short, so this is the most it ever held. */
long WalFrames(const std::string& path)
{
    struct stat st {};
    if (stat((path + "-wal").c_str(), &st) != 0 || st.st_size < 32) {
        return 0;
    }
    return static_cast<long>((st.st_size - 32) / (4096 + 24));
}

/* `count` rows, one commit each. */
void InsertOneByOne(CContentHelper& helper, int count)
{
    std::string error;
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(0, helper.GetConnection()->ExcuteSQL("INSERT INTO item (title) VALUES ('row')", error)) << error;
    }
}

}  // namespace

/* A check in the background reads in one long transaction, which keeps the
 * log from being started afresh; SQLite's checkpoint after every commit would
 * then walk the whole growing log each time. It is held off while a check
 * runs, and the first commit after the check checkpoints the log. */
TEST_F(CleanCloseTest, WhileACheckRunsInTheBackgroundCommitsDoNotCheckpointAndTheFirstOneAfterItDoes)
{
    ShelfHelper helper(m_dir.Path());
    ASSERT_TRUE(helper.ConnectDB());
    InsertOneByOne(helper, 1500);
    const long unheld = WalFrames(DbPath());
    // SQLite's own rule: checkpointed at 1,000 frames, the log starts again.
    EXPECT_GE(unheld, 1000);
    EXPECT_LT(unheld, 1100);

    // Another file's check, kept waiting by a connection that holds its lock.
    const std::string other = m_dir.File("other.db");
    sqlite3* holder = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(other.c_str(), &holder));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(holder,
                                      "PRAGMA journal_mode=WAL; CREATE TABLE t (x); PRAGMA locking_mode=EXCLUSIVE; "
                                      "INSERT INTO t VALUES (1);",
                                      nullptr, nullptr, nullptr));
    tilvane::host::StartLogCapture();
    tilvane::content::StartBackgroundCheck(other);
    EXPECT_EQ(tilvane::content::RunningBackgroundChecks(), 1);
    InsertOneByOne(helper, 1500);
    EXPECT_EQ(tilvane::content::RunningBackgroundChecks(), 1);
    const long held = WalFrames(DbPath());
    EXPECT_GE(held, 1500) << "the log was checkpointed while the check ran";

    sqlite3_close(holder);
    ASSERT_TRUE(tilvane::content::WaitForBackgroundChecks(60000));
    EXPECT_EQ(tilvane::content::RunningBackgroundChecks(), 0);
    EXPECT_TRUE(Logged(other + " passed the check in the background"));
    InsertOneByOne(helper, 1500);
    // The first commit after it goes at the log's end, then the log starts again.
    EXPECT_LE(WalFrames(DbPath()), held + 1) << "the log was not checkpointed after the check";
}
