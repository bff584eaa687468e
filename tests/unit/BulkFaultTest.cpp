/*
 * The provider's bulk insert and bulk update under every I/O failure of the
 * tiles database (the fault-injecting VFS of tests/support/FaultVfs.h),
 * through the callbacks the provider registers, as the content library's
 * clients reach them. A bulk answered 0 is stored whole; any other answer
 * leaves no row of it; the provider answers the next request once the faults
 * stop; the database passes PRAGMA integrity_check.
 */
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <bundle.h>
#include <bundle_ptr.h>
#include <confinement_policy.h>
#include <content_provider_dispatch.h>

#include "FaultVfs.h"
#include "PermissionHelper.h"
#include "TestSupport.h"
#include "TilesModel.h"
#include "TilesProvider.h"
#include "TilesProviderTestAccess.h"

using tilvane::test::RawDatabase;
namespace content = tilvane::content;
namespace faultvfs = tilvane::test::faultvfs;

namespace {

const char kApp[] = "org.example.news.ui";
const char kPackage[] = "org.example.news";
constexpr auto& kTilesUri = TilesModel::Tiles::CONTENT_URI;
constexpr int kRowsPerBulk = 3;
constexpr long kMaxWalk = 150;

using faultvfs::Fault;
using faultvfs::kFaults;

struct Bundles {
    std::vector<bundle*> list;
    ~Bundles()
    {
        for (bundle* b : list) {
            bundle_free(b);
        }
    }
    void Add(const std::vector<std::pair<std::string, std::string>>& entries)
    {
        bundle* b = bundle_create();
        for (const auto& entry : entries) {
            bundle_add_str(b, entry.first.c_str(), entry.second.c_str());
        }
        list.push_back(b);
    }
};

class BulkFaultTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(faultvfs::Install());
        faultvfs::SetFileFilter(".preview.db");
        tilvane::host::UseVirtualClock(true);
        tilvane::host::SetOwnAppId("com.quillon.px.tilvane");
        tilvane::host::RegisteredPackage package;
        package.packageId = kPackage;
        package.applications.push_back(
            {kApp,
             {{TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
              {TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}}});
        ASSERT_TRUE(tilvane::host::InstallPackage(package));
        ASSERT_NE(CTilesProvider::GetInstance(), nullptr);
        RawDatabase db(DatabasePath());
        ASSERT_EQ(0, db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news');"
                             "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (10, 'a', 101);"));
    }

    void TearDown() override
    {
        CTilesProviderTestAccess::ReleaseInstanceAndMessageHelper();
        faultvfs::Uninstall();
    }

    std::string DatabasePath() const { return m_sandbox.DatabaseDirectory() + ".preview.db"; }
    std::string Scalar(const std::string& sql) const
    {
        std::vector<std::string> values = RawDatabase(DatabasePath()).Column(sql);
        return values.empty() ? std::string() : values[0];
    }

    int BulkInsert(const std::string& marker, int64_t& rowId)
    {
        Bundles rows;
        for (int i = 0; i < kRowsPerBulk; ++i) {
            rows.Add({{"tile_id", marker + "-" + std::to_string(i)}, {"tile_section_raw_id", "10"},
                      {"tile_title", marker}});
        }
        PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM in;
        in.strAppId = kApp;
        in.strUri = kTilesUri;
        in.vecValues = rows.list;
        PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchBulkInsert(in, out, result));
        rowId = out.nRowId;
        return result;
    }

    int BulkUpdate(const std::vector<std::string>& ids, const std::string& title)
    {
        Bundles rows;
        for (const std::string& id : ids) {
            rows.Add({{"bulk_update_row_id_key", id}, {"tile_title", title}});
        }
        PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM in;
        in.strAppId = kApp;
        in.strUri = kTilesUri;
        in.vecValues = rows.list;
        PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
        int result = 0;
        EXPECT_TRUE(content::DispatchBulkUpdate(in, out, result));
        return result;
    }

    int CountTitled(const std::string& title) const
    {
        return std::stoi(Scalar("SELECT count(*) FROM tiles WHERE tile_title = '" + title + "'"));
    }

    /* A bulk insert with the faults stopped: answered 0 and stored. */
    void ExpectAnswersAfterwards(const std::string& marker, const std::string& context)
    {
        int64_t rowId = -1;
        EXPECT_EQ(0, BulkInsert(marker, rowId)) << context;
        EXPECT_EQ(kRowsPerBulk, CountTitled(marker)) << context;
        EXPECT_EQ("ok", Scalar("PRAGMA integrity_check")) << context;
    }

    tilvane::test::PlatformSandbox m_sandbox;
    tilvane::test::PrivateBus m_bus;
};

TEST_F(BulkFaultTest, BulkInsertIsStoredWholeWhenAnsweredZeroAndNotAtAllOtherwise)
{
    int bulk = 0;
    long runs = 0;
    for (const Fault& fault : kFaults) {
        int64_t rowId = -1;
        faultvfs::Arm(fault.operations, 0, fault.code, false);
        ASSERT_EQ(0, BulkInsert("count-" + std::to_string(bulk++), rowId));
        const long calls = faultvfs::Calls();
        faultvfs::Disarm();
        std::printf("[ walk ] bulk insert, %s: %ld calls\n", fault.name, calls);
        for (long n = 1; n <= calls && n <= kMaxWalk; ++n) {
            const std::string marker = "b" + std::to_string(bulk++);
            const std::string context = std::string(fault.name) + " at call " + std::to_string(n);
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            const int result = BulkInsert(marker, rowId);
            faultvfs::Disarm();
            ++runs;
            const int stored = CountTitled(marker);
            if (result == 0) {
                EXPECT_EQ(kRowsPerBulk, stored) << context << ": acknowledged but not stored";
                EXPECT_GT(rowId, 0) << context;
            } else {
                EXPECT_EQ(0, stored) << context << ": answered " << result << " but stored";
                EXPECT_EQ(-1, rowId) << context;
            }
            ExpectAnswersAfterwards("after-" + marker, context);
        }
    }
    EXPECT_GT(runs, 0);
}

TEST_F(BulkFaultTest, BulkUpdateChangesEveryRowWhenAnsweredZeroAndNoneOtherwise)
{
    int64_t rowId = -1;
    ASSERT_EQ(0, BulkInsert("target", rowId));
    std::vector<std::string> ids = RawDatabase(DatabasePath()).Column("SELECT _id FROM tiles WHERE tile_title = 'target'");
    ASSERT_EQ(static_cast<size_t>(kRowsPerBulk), ids.size());
    int round = 0;
    long runs = 0;
    std::string current = "target";
    for (const Fault& fault : kFaults) {
        faultvfs::Arm(fault.operations, 0, fault.code, false);
        current = "count-" + std::to_string(round++);
        ASSERT_EQ(0, BulkUpdate(ids, current));
        const long calls = faultvfs::Calls();
        faultvfs::Disarm();
        std::printf("[ walk ] bulk update, %s: %ld calls\n", fault.name, calls);
        for (long n = 1; n <= calls && n <= kMaxWalk; ++n) {
            const std::string title = "u" + std::to_string(round++);
            const std::string context = std::string(fault.name) + " at call " + std::to_string(n);
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            const int result = BulkUpdate(ids, title);
            faultvfs::Disarm();
            ++runs;
            if (result == 0) {
                EXPECT_EQ(kRowsPerBulk, CountTitled(title)) << context << ": acknowledged but not stored";
                current = title;
            } else {
                EXPECT_EQ(0, CountTitled(title)) << context << ": answered " << result << " but stored";
                EXPECT_EQ(kRowsPerBulk, CountTitled(current)) << context;
            }
            /* Once the faults stop, the next bulk update is answered and stored. */
            const std::string later = "later-" + title;
            EXPECT_EQ(0, BulkUpdate(ids, later)) << context;
            EXPECT_EQ(kRowsPerBulk, CountTitled(later)) << context;
            current = later;
            EXPECT_EQ("ok", Scalar("PRAGMA integrity_check")) << context;
        }
    }
    EXPECT_GT(runs, 0);
}

TEST_F(BulkFaultTest, AFailedCommitAnswersItsCodeAndRowIdMinusOne)
{
    /* Every write of the commit fails: the rows were inserted inside the
     * transaction, only COMMIT finds the disk full. */
    int64_t rowId = -1;
    faultvfs::Arm(faultvfs::kWrite, 1, SQLITE_FULL, true);
    const int result = BulkInsert("full", rowId);
    faultvfs::Disarm();
    EXPECT_EQ(SQLITE_FULL, result);
    EXPECT_EQ(-1, rowId);
    EXPECT_EQ(0, CountTitled("full"));

    ASSERT_EQ(0, BulkInsert("kept", rowId));
    std::vector<std::string> ids = RawDatabase(DatabasePath()).Column("SELECT _id FROM tiles WHERE tile_title = 'kept'");
    faultvfs::Arm(faultvfs::kWrite, 1, SQLITE_FULL, true);
    const int updated = BulkUpdate(ids, "changed");
    faultvfs::Disarm();
    EXPECT_EQ(SQLITE_FULL, updated);
    EXPECT_EQ(0, CountTitled("changed"));
    EXPECT_EQ(kRowsPerBulk, CountTitled("kept"));
}

/* Under strict confinement a single insert checks its owner and writes its
 * row in one transaction: a fault anywhere in it is answered with a code
 * other than 0 and leaves no row; without one the row is stored. */
TEST_F(BulkFaultTest, AStrictSingleInsertIsStoredWhenAnsweredZeroAndNotAtAllOtherwise)
{
    tilvane::host::SetConfigurationText("[strict]\nconfinement = true\n");
    auto insert = [](const std::string& marker, int& result) {
        BundlePtr values = MakeBundle({{"tile_id", marker}, {"tile_section_raw_id", "10"}, {"tile_title", marker}});
        PT_PROVIDER_INSERT_IN_PARAM in;
        in.strAppId = kApp;
        in.strUri = kTilesUri;
        in.pValues = values.get();
        PT_PROVIDER_INSERT_OUT_PARAM out;
        result = -1;
        EXPECT_TRUE(content::DispatchInsert(in, out, result));
        return out.nRowId;
    };
    int result = -1;
    long runs = 0;
    for (const Fault& fault : kFaults) {
        faultvfs::Arm(fault.operations, 0, fault.code, false);
        insert("strict-count", result);
        const long calls = faultvfs::Calls();
        faultvfs::Disarm();
        ASSERT_EQ(0, result) << fault.name;
        for (long n = 1; n <= calls && n <= kMaxWalk; ++n, ++runs) {
            const std::string marker = "s" + std::to_string(runs);
            const std::string context = std::string(fault.name) + " at call " + std::to_string(n);
            faultvfs::Arm(fault.operations, n, fault.code, fault.persistent);
            const int64_t rowId = insert(marker, result);
            faultvfs::Disarm();
            EXPECT_EQ(result == 0 ? 1 : 0, CountTitled(marker)) << context << ", answered " << result;
            EXPECT_EQ(result == 0, rowId > 0) << context;
            EXPECT_EQ("ok", Scalar("PRAGMA integrity_check")) << context;
        }
    }
    EXPECT_GT(runs, 0);
    /* The fault is over: answered and stored. */
    insert("strict-after", result);
    EXPECT_EQ(0, result);
    EXPECT_EQ(1, CountTitled("strict-after"));
    /* Strict confinement was on: a row in no section of the caller's is refused. */
    BundlePtr orphan = MakeBundle({{"tile_id", "orphan"}, {"tile_title", "orphan"}});
    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strAppId = kApp;
    in.strUri = kTilesUri;
    in.pValues = orphan.get();
    PT_PROVIDER_INSERT_OUT_PARAM out;
    EXPECT_TRUE(content::DispatchInsert(in, out, result));
    EXPECT_EQ(CONFINEMENT_POLICY_REFUSED, result);
    EXPECT_EQ(0, CountTitled("orphan"));
}

}  // namespace
