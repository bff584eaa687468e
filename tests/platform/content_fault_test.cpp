/*
 * Every I/O failure path of the content library, walked as SQLite walks its
 * own: a fault-injecting VFS (tests/support/FaultVfs.h) makes the Nth read,
 * write, sync, lock or truncation of the database files fail, once or for
 * good, for every N up to the number of such calls the operation makes (found
 * by a counting pass). After each run:
 *   - a result of success means the change is stored (nothing acknowledged is
 *     missing), and a failure means no part of it is;
 *   - once the faults stop, a later request on the same connection succeeds;
 *   - PRAGMA integrity_check says "ok".
 */
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>

#include "ContentDbConnection.h"
#include "ContentHelper.h"
#include "FaultVfs.h"
#include "TestSupport.h"

namespace {

namespace faultvfs = tilvane::test::faultvfs;

/* Bounds the walk: no operation below makes more calls than this. */
constexpr long kMaxWalk = 120;

using faultvfs::Fault;
using faultvfs::kFaults;

class ItemsHelper : public CContentHelper {
public:
    explicit ItemsHelper(const std::string& directory) : CContentHelper(directory, "items.db", 1) {}
    void OnCreate(CContentDbConnection* connection) override
    {
        std::string error;
        connection->ExcuteSQL("CREATE TABLE item (id INTEGER PRIMARY KEY, name TEXT UNIQUE, value TEXT, marker TEXT);"
                              "CREATE INDEX item_marker ON item(marker);",
                              error);
    }
};

/* One database for one run of an operation. */
struct Scene {
    tilvane::test::TempDir dir;
    std::unique_ptr<ItemsHelper> helper;
    int selectedRows = -1;

    std::string Path() const { return dir.File("items.db"); }
    CContentDbConnection* Connection() { return helper ? helper->GetConnection() : nullptr; }

    /* Opens the database (faults off) with `rows` rows named r0, r1, ... */
    void Open(int rows = 0)
    {
        helper.reset(new ItemsHelper(dir.Path()));
        ASSERT_TRUE(helper->ConnectDB());
        if (rows == 0) {
            return;
        }
        ASSERT_EQ(0, Connection()->BeginTransaction());
        for (int i = 0; i < rows; ++i) {
            BundlePtr values = MakeBundle({{"name", "r" + std::to_string(i)}, {"value", "old"}});
            ASSERT_EQ(0, Connection()->InsertRequest("item", values.get()));
        }
        ASSERT_EQ(0, Connection()->EndTransaction(true));
    }

    /* Reads with a connection of its own (committed state only). */
    std::string Scalar(const std::string& sql) const
    {
        tilvane::test::RawDatabase raw(Path());
        std::vector<std::string> values = raw.Column(sql);
        return values.empty() ? std::string() : values[0];
    }
};

enum class Effect { Absent, Present, Torn };

struct Operation {
    std::function<void(Scene&)> prepare;
    /* 0 when the operation reports success. */
    std::function<int(Scene&)> run;
    std::function<Effect(Scene&)> effect;
    /* What a user of the library does after a failure, before the next request. */
    std::function<void(Scene&, const std::string&)> recover;
};

/* A request after the faults: it must succeed on the same helper. */
void ExpectAnswersAfterwards(Scene& scene, const std::string& context)
{
    CContentDbConnection* connection = scene.Connection();
    ASSERT_NE(connection, nullptr) << context;
    BundlePtr values = MakeBundle({{"name", "later"}, {"value", "x"}});
    EXPECT_EQ(0, connection->InsertRequest("item", values.get())) << context;
    EXPECT_EQ("1", scene.Scalar("SELECT count(*) FROM item WHERE name = 'later'")) << context;
    EXPECT_EQ("ok", scene.Scalar("PRAGMA integrity_check")) << context;
}

/* Walks every N of every fault over `operation`; returns the runs made. */
long Walk(const Operation& operation, bool atomic = true)
{
    long runs = 0;
    for (const Fault& fault : kFaults) {
        long calls = 0;
        {
            Scene scene;
            operation.prepare(scene);
            faultvfs::Arm(fault.operations, 0, fault.code, false);
            EXPECT_EQ(0, operation.run(scene)) << "without faults";
            calls = faultvfs::Calls();
            faultvfs::Disarm();
            EXPECT_EQ(Effect::Present, operation.effect(scene)) << "without faults";
        }
        EXPECT_LE(calls, kMaxWalk) << fault.name;
        std::printf("[ walk ] %s: %ld calls\n", fault.name, calls);
        for (long n = 1; n <= calls && n <= kMaxWalk; ++n) {
            const std::string context = std::string(fault.name) + " at call " + std::to_string(n) + " of " +
                                        std::to_string(calls);
            Scene scene;
            operation.prepare(scene);
            if (::testing::Test::HasFatalFailure()) {
                return runs;
            }
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            const int rc = operation.run(scene);
            const long failures = faultvfs::Failures();
            faultvfs::Disarm();
            ++runs;
            const Effect effect = operation.effect(scene);
            EXPECT_GT(failures, 0) << context;
            if (rc == 0) {
                EXPECT_EQ(Effect::Present, effect) << context << ": acknowledged but not stored";
            } else if (atomic) {
                EXPECT_EQ(Effect::Absent, effect) << context << ": failed (" << rc << ") but stored";
            }
            EXPECT_NE(Effect::Torn, effect) << context;
            if (operation.recover) {
                operation.recover(scene, context);
            }
            ExpectAnswersAfterwards(scene, context);
        }
    }
    return runs;
}

class ContentFaultTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(faultvfs::Install());
        faultvfs::SetFileFilter("items.db");
    }
    void TearDown() override { faultvfs::Uninstall(); }
};

Effect NamedValue(Scene& scene, const std::string& name, const std::string& present, const std::string& absent)
{
    const std::string value = scene.Scalar("SELECT coalesce(value, 'NULL') FROM item WHERE name = '" + name + "'");
    if (value == present) {
        return Effect::Present;
    }
    return value == absent ? Effect::Absent : Effect::Torn;
}

TEST_F(ContentFaultTest, InsertUnderEveryFault)
{
    Operation insert;
    insert.prepare = [](Scene& s) { s.Open(3); };
    insert.run = [](Scene& s) {
        BundlePtr values = MakeBundle({{"name", "new"}, {"value", "v"}});
        return s.Connection()->InsertRequest("item", values.get());
    };
    insert.effect = [](Scene& s) { return NamedValue(s, "new", "v", ""); };
    EXPECT_GT(Walk(insert), 0);
}

TEST_F(ContentFaultTest, UpdateUnderEveryFault)
{
    Operation update;
    update.prepare = [](Scene& s) { s.Open(3); };
    update.run = [](Scene& s) {
        BundlePtr values = MakeBundle({{"value", "new"}});
        return s.Connection()->UpdateRequest("item", values.get(), "name = ?", {"r1"});
    };
    update.effect = [](Scene& s) { return NamedValue(s, "r1", "new", "old"); };
    EXPECT_GT(Walk(update), 0);
}

TEST_F(ContentFaultTest, DeleteUnderEveryFault)
{
    Operation remove;
    remove.prepare = [](Scene& s) { s.Open(3); };
    remove.run = [](Scene& s) { return s.Connection()->DeleteRequest("item", "name = ?", {"r1"}); };
    remove.effect = [](Scene& s) { return NamedValue(s, "r1", "", "old"); };
    EXPECT_GT(Walk(remove), 0);
}

TEST_F(ContentFaultTest, TransactionOfThreeInsertsUnderEveryFault)
{
    Operation transaction;
    transaction.prepare = [](Scene& s) { s.Open(3); };
    transaction.run = [](Scene& s) {
        CContentDbConnection* c = s.Connection();
        int rc = c->BeginTransaction();
        if (rc != 0) {
            return rc;
        }
        for (int i = 0; i < 3 && rc == 0; ++i) {
            BundlePtr values = MakeBundle({{"name", "t" + std::to_string(i)}, {"marker", "t"}});
            rc = c->InsertRequest("item", values.get());
        }
        const int ended = c->EndTransaction(rc == 0);
        return rc != 0 ? rc : ended;
    };
    transaction.effect = [](Scene& s) {
        const std::string count = s.Scalar("SELECT count(*) FROM item WHERE marker = 't'");
        return count == "3" ? Effect::Present : count == "0" ? Effect::Absent : Effect::Torn;
    };
    EXPECT_GT(Walk(transaction), 0);
}

TEST_F(ContentFaultTest, SelectAndStepUnderEveryFault)
{
    Operation select;
    select.prepare = [](Scene& s) {
        s.Open(200);
        s.helper->DisconnectDB(); /* the select reads from the file, not from a warm cache */
    };
    select.run = [](Scene& s) {
        CContentDbConnection* c = s.Connection();
        if (c == nullptr) {
            return -1;
        }
        std::vector<std::string> projection = {"name", "value"};
        std::shared_ptr<ISQLiteCursor> cursor = c->SelectRequest("item", projection, "", "id");
        if (!cursor) {
            return -1;
        }
        s.selectedRows = 0;
        int step = ISQLiteCursor::STEP_ROW;
        while ((step = cursor->Step()) == ISQLiteCursor::STEP_ROW) {
            ++s.selectedRows;
        }
        return step == ISQLiteCursor::STEP_DONE ? 0 : -2;
    };
    /* A read changes nothing; "present" is every row read. */
    select.effect = [](Scene& s) { return s.selectedRows == 200 ? Effect::Present : Effect::Absent; };
    EXPECT_GT(Walk(select), 0);
}

TEST_F(ContentFaultTest, ConnectToANewDatabaseUnderEveryFault)
{
    Operation connect;
    connect.prepare = [](Scene&) {};
    connect.run = [](Scene& s) {
        s.helper.reset(new ItemsHelper(s.dir.Path()));
        return s.helper->ConnectDB() ? 0 : 1;
    };
    connect.effect = [](Scene& s) {
        const std::string tables = s.Scalar("SELECT count(*) FROM sqlite_master WHERE name = 'item'");
        const std::string version = s.Scalar("PRAGMA user_version");
        if (tables == "1" && version == "1") {
            return Effect::Present;
        }
        return tables != "1" && version == "0" ? Effect::Absent : Effect::Torn;
    };
    /* A failed connect keeps the connection it could open (for the corruption
     * check); connecting again once the faults stop makes the schema. */
    connect.recover = [](Scene& s, const std::string& context) {
        EXPECT_TRUE(s.helper->ConnectDB()) << context << ": connecting again";
    };
    EXPECT_GT(Walk(connect), 0);
}

TEST_F(ContentFaultTest, CorruptionCheckOfAHealthyDatabaseUnderEveryFault)
{
    Operation check;
    check.prepare = [](Scene& s) {
        s.Open(200);
        s.helper->DisconnectDB();
    };
    /* 0: healthy. A fault that goes away must not make a healthy file look
     * corrupt (the service would delete it); lasting I/O errors may. */
    check.run = [](Scene& s) { return s.helper->CheckDBCorruption() ? 1 : 0; };
    check.effect = [](Scene& s) {
        return s.Scalar("SELECT count(*) FROM item") == "200" ? Effect::Present : Effect::Torn;
    };
    for (const Fault& fault : kFaults) {
        long calls = 0;
        {
            Scene scene;
            check.prepare(scene);
            faultvfs::Arm(fault.operations, 0, fault.code, false);
            ASSERT_EQ(0, check.run(scene));
            calls = faultvfs::Calls();
            faultvfs::Disarm();
        }
        for (long n = 1; n <= calls && n <= kMaxWalk; ++n) {
            const std::string context = std::string(fault.name) + " at call " + std::to_string(n);
            Scene scene;
            check.prepare(scene);
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            const int corrupt = check.run(scene);
            faultvfs::Disarm();
            if (!fault.persistent) {
                EXPECT_EQ(0, corrupt) << context << ": a passing fault made the file look corrupt";
            }
            EXPECT_EQ(Effect::Present, check.effect(scene)) << context;
            EXPECT_EQ(0, check.run(scene)) << context << ": healthy once the faults stop";
            ExpectAnswersAfterwards(scene, context);
        }
    }
}

TEST_F(ContentFaultTest, ShimCountsAndFailsTheCallsItIsAskedTo)
{
    Scene scene;
    scene.Open(1);
    faultvfs::Arm(faultvfs::kWrite, 1, SQLITE_FULL, true);
    BundlePtr values = MakeBundle({{"name", "x"}});
    const int rc = scene.Connection()->InsertRequest("item", values.get());
    faultvfs::Disarm();
    EXPECT_EQ(SQLITE_FULL, rc & 0xff);
    EXPECT_GE(faultvfs::Failures(), 1);
    EXPECT_EQ("0", scene.Scalar("SELECT count(*) FROM item WHERE name = 'x'"));
}

}  // namespace
