/*
 * The content library's outer transaction (content/outer_transaction.h): the
 * work of several requests stored at one commit or not at all, a handler's
 * own transaction inside it as a savepoint, and every I/O fault of the walk
 * leaving the database whole.
 */
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include <bundle_ptr.h>
#include <host_control.h>

#include "ContentDbConnection.h"
#include "FaultVfs.h"
#include "TestSupport.h"
#include "content/outer_transaction.h"

namespace {

using tilvane::content::OuterTransaction;
using tilvane::test::RawDatabase;
namespace faultvfs = tilvane::test::faultvfs;

class OuterTransactionTest : public ::testing::Test
{
protected:
    void SetUp() override { Open(); }

    void Open()
    {
        m_connection.reset(new CContentDbConnection(m_dir.Path(), "outer.db"));
        ASSERT_TRUE(m_connection->OpenOperation());
        std::string error;
        ASSERT_EQ(0, m_connection->ExcuteSQL("CREATE TABLE IF NOT EXISTS item (_id INTEGER PRIMARY KEY "
                                             "AUTOINCREMENT, name TEXT NOT NULL UNIQUE)",
                                             error))
            << error;
    }

    int Insert(const std::string& name)
    {
        BundlePtr values = MakeBundle({{"name", name}});
        return m_connection->InsertRequest("item", values.get());
    }

    std::string Path() const { return m_dir.File("outer.db"); }

    /* Every row and the row-id counter, as another connection reads them. */
    std::string Dump()
    {
        RawDatabase db(Path());
        std::string dump;
        for (const std::string& row : db.Column("SELECT quote(_id) || ',' || quote(name) FROM item ORDER BY _id")) {
            dump += row + ";";
        }
        for (const std::string& row : db.Column("SELECT name || '=' || seq FROM sqlite_sequence ORDER BY name")) {
            dump += row + ";";
        }
        return dump;
    }

    std::vector<std::string> Names() { return RawDatabase(Path()).Column("SELECT name FROM item ORDER BY _id"); }

    tilvane::test::TempDir m_dir;
    std::unique_ptr<CContentDbConnection> m_connection;
};

TEST_F(OuterTransactionTest, TheStepsAreStoredAtTheCommitAndNotBefore)
{
    OuterTransaction transaction;
    ASSERT_EQ(0, Insert("a"));
    ASSERT_EQ(0, Insert("b"));
    EXPECT_TRUE(Names().empty()) << "another connection sees nothing before the commit";
    EXPECT_EQ(0, transaction.Commit());
    EXPECT_EQ(Names(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(OuterTransaction::Current(), nullptr);
}

TEST_F(OuterTransactionTest, ARollbackLeavesTheDatabaseByteForByte)
{
    ASSERT_EQ(0, Insert("before"));
    const std::string before = Dump();
    {
        OuterTransaction transaction;
        ASSERT_EQ(0, Insert("a"));
        ASSERT_EQ(0, m_connection->BeginTransaction());
        ASSERT_EQ(0, Insert("b"));
        ASSERT_EQ(0, m_connection->EndTransaction(true));
        transaction.Rollback();
    }
    EXPECT_EQ(Dump(), before);
    /* The connection goes on in its own transactions afterwards. */
    ASSERT_EQ(0, Insert("after"));
    EXPECT_EQ(Names(), (std::vector<std::string>{"before", "after"}));
}

TEST_F(OuterTransactionTest, OneThatEndsWithoutCommitOrRollbackStoresNothing)
{
    const std::string before = Dump();
    {
        OuterTransaction transaction;
        ASSERT_EQ(0, Insert("a"));
    }
    EXPECT_EQ(Dump(), before);
}

TEST_F(OuterTransactionTest, AHandlersOwnLevelIsASavepointThatUndoesOnlyItsOwnWork)
{
    OuterTransaction transaction;
    ASSERT_EQ(0, Insert("a"));
    /* A bulk that fails part way rolls its own rows back and answers as alone. */
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert("b"));
    EXPECT_NE(0, Insert("a")) << "the unique name refuses the row";
    EXPECT_EQ(0, m_connection->EndTransaction(false));
    /* A bulk that succeeds, with a level of its own inside. */
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert("c"));
    ASSERT_EQ(0, m_connection->BeginTransaction());
    ASSERT_EQ(0, Insert("d"));
    EXPECT_EQ(0, m_connection->EndTransaction(true));
    EXPECT_EQ(0, m_connection->EndTransaction(true));
    EXPECT_TRUE(m_connection->InTransaction());
    EXPECT_EQ(0, transaction.Commit());
    EXPECT_EQ(Names(), (std::vector<std::string>{"a", "c", "d"}));
    EXPECT_FALSE(m_connection->InTransaction());
}

TEST_F(OuterTransactionTest, AnEndWithoutItsBeginInsideIsRefusedAndTheCommitToo)
{
    OuterTransaction transaction;
    ASSERT_EQ(0, Insert("a"));
    EXPECT_EQ(SQLITE_MISUSE, m_connection->EndTransaction(true));
    ASSERT_EQ(0, m_connection->BeginTransaction());
    /* A step that left its own level open: the commit refuses to store it. */
    EXPECT_EQ(SQLITE_MISUSE, transaction.Commit());
    EXPECT_TRUE(Names().empty());
}

TEST_F(OuterTransactionTest, ADatabaseInATransactionOfItsOwnCannotJoinAndItsRequestsFail)
{
    ASSERT_EQ(0, m_connection->BeginTransaction());
    {
        OuterTransaction transaction;
        EXPECT_NE(0, Insert("a"));
        EXPECT_EQ(transaction.JoinFailure(), SQLITE_MISUSE);
        EXPECT_EQ(transaction.JoinFailureText(), "a transaction of its own is still open");
        EXPECT_EQ(0, transaction.Commit());
    }
    EXPECT_EQ(0, m_connection->EndTransaction(true));
    EXPECT_TRUE(Names().empty());
}

TEST_F(OuterTransactionTest, AnInnerOuterTransactionLeavesTheWorkToTheOuterOne)
{
    OuterTransaction outer;
    {
        OuterTransaction inner;
        ASSERT_EQ(0, Insert("a"));
        EXPECT_EQ(0, inner.Commit());
    }
    EXPECT_TRUE(Names().empty()) << "the inner one commits nothing";
    EXPECT_EQ(OuterTransaction::Current(), &outer);
    EXPECT_EQ(0, outer.Commit());
    EXPECT_EQ(Names(), (std::vector<std::string>{"a"}));
}

TEST_F(OuterTransactionTest, ACommitThatFailsStoresNothing)
{
    const std::string before = Dump();
    tilvane::host::FailNextCalls("OuterTransaction::Commit", 1);
    OuterTransaction transaction;
    ASSERT_EQ(0, Insert("a"));
    EXPECT_EQ(SQLITE_IOERR, transaction.Commit());
    EXPECT_EQ(Dump(), before);
    tilvane::host::Reset();
}

/* The steps of one publish-like run: two single rows, a level that keeps its
 * row, a level that undoes its row. */
int RunSteps(CContentDbConnection& connection, OuterTransaction& transaction)
{
    auto insert = [&](const char* name) {
        BundlePtr values = MakeBundle({{"name", name}});
        return connection.InsertRequest("item", values.get());
    };
    int failure = insert("w1");
    if (failure == 0 && (failure = connection.BeginTransaction()) == 0) {
        failure = insert("w2");
        const int ended = connection.EndTransaction(failure == 0);
        failure = failure != 0 ? failure : ended;
    }
    if (failure == 0 && (failure = connection.BeginTransaction()) == 0) {
        insert("undone");
        failure = connection.EndTransaction(false);
    }
    failure = failure != 0 ? failure : insert("w3");
    if (failure != 0) {
        transaction.Rollback();
        return failure;
    }
    return transaction.Commit();
}

TEST_F(OuterTransactionTest, EveryFaultOfTheWalkStoresAllOrNothing)
{
    m_connection.reset();
    ASSERT_TRUE(faultvfs::Install());
    faultvfs::SetFileFilter("outer.db");
    int stored = 0;
    int refused = 0;
    for (const faultvfs::Fault& fault : faultvfs::kFaults) {
        Open();
        faultvfs::Arm(fault.operations, 0, fault.code, false);
        {
            OuterTransaction counting;
            RunSteps(*m_connection, counting);
        }
        const long calls = faultvfs::Calls();
        faultvfs::Disarm();
        for (long n = 1; n <= calls; ++n) {
            std::string error;
            faultvfs::Disarm();
            ASSERT_EQ(0, m_connection->ExcuteSQL("DELETE FROM item", error)) << error;
            const std::string before = Dump();
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            int result = 0;
            {
                OuterTransaction transaction;
                result = RunSteps(*m_connection, transaction);
            }
            faultvfs::Disarm();
            if (result == 0) {
                ++stored;
                EXPECT_EQ(Names(), (std::vector<std::string>{"w1", "w2", "w3"})) << fault.name << " at " << n;
            } else {
                ++refused;
                EXPECT_EQ(Dump(), before) << fault.name << " at " << n << ": " << result;
            }
            EXPECT_EQ(RawDatabase(Path()).Scalar("PRAGMA integrity_check"), "ok") << fault.name << " at " << n;
            /* Once the faults stop, the next run is stored. */
            OuterTransaction next;
            ASSERT_EQ(0, m_connection->ExcuteSQL("DELETE FROM item", error)) << fault.name << " at " << n << error;
            next.Commit();
        }
        m_connection.reset();
    }
    faultvfs::Uninstall();
    EXPECT_GT(stored, 0);
    EXPECT_GT(refused, 0);
}

}  // namespace
