/*
 * The idle service gives back what a burst of requests took. Started with
 * the environment its installed unit gives it (read from the unit itself),
 * it serves bulk inserts, selects of thousands of tiles, single writes
 * all over its table and typed publishes of 1,000 tiles on both request
 * interfaces; a few seconds after the last request the private memory of its
 * heap is what it was after its start, though during the burst it was
 * megabytes more.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <host_control.h>
#include <tilvane_client.h>
#include <tilvane_publisher.h>
#include <tilvane_schema.h>

#include "PreviewApps.h"
#include "ServiceUnderTest.h"
#include "TestProcess.h"
#include "TestSupport.h"
#include "TilesModel.h"

namespace {

using namespace tilvane::client;
using namespace tilvane::test;

const char kWriter[] = "org.example.news.ui";
constexpr int kTiles = 20000;

/* The "Environment=" settings of the installed system unit. */
std::vector<std::string> UnitEnvironment()
{
    std::ifstream unit(TILVANE_SOURCE_DIR "/packaging/systemd/tilvane.service.in");
    EXPECT_TRUE(unit.good());
    std::vector<std::string> environment;
    const std::string prefix = "Environment=";
    for (std::string line; std::getline(unit, line);) {
        if (line.rfind(prefix, 0) == 0) {
            environment.push_back(line.substr(prefix.size()));
        }
    }
    return environment;
}

/* Private kilobytes (clean and dirty) of the mappings of `pid` named `name`. */
long PrivateKiB(long pid, const std::string& name)
{
    std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps");
    long total = 0;
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
        const size_t space = line.find(' ');
        const bool header = space != std::string::npos && line.find('-') < space;
        if (header) {
            inside = line.size() >= name.size() && line.compare(line.size() - name.size(), name.size(), name) == 0;
        } else if (inside && (line.rfind("Private_Clean:", 0) == 0 || line.rfind("Private_Dirty:", 0) == 0)) {
            total += std::stol(line.substr(line.find(':') + 1));
        }
    }
    return total;
}

class MemoryTest : public ServiceUnderTestFixture
{
protected:
    void SetUp() override
    {
        ServiceUnderTestFixture::SetUp();
        ASSERT_TRUE(InstallPreviewWriter("org.example.news", kWriter));
        tilvane::host::SetOwnAppId(kWriter);
    }

    void StartService(const std::vector<std::string>& environment)
    {
        WriteConfiguration(m_root.Path(), "[identity]\nmode = development\n");
        std::vector<std::string> env;
        for (const std::string& setting : environment) {
            // The unit's own folders and bus are not this test's.
            if (setting.rfind("TILVANE_", 0) != 0 && setting.rfind("DBUS_", 0) != 0) {
                env.push_back(setting);
            }
        }
        m_service = StartServiceUnderTest(m_root.Path(), m_logs, env);
        ASSERT_TRUE(m_service->WaitFor("local port preview-event-receiver registered", true, 30000))
            << m_service->Err();
        RawDatabase db(m_root.Path() + "/opt/dbspace/.preview.db");
        ASSERT_EQ(db.Exec("INSERT INTO accelerators (_id, accelerator_app_pkg_name) VALUES (101, 'org.example.news');"
                          "INSERT INTO sections (_id, section_id, section_accelerator_raw_id) VALUES (101, 's', 101);"
                          "INSERT INTO tiles (tile_id, tile_section_raw_id, tile_title) WITH RECURSIVE c(x) AS "
                          "(SELECT 1 UNION ALL SELECT x+1 FROM c WHERE x<" +
                          std::to_string(kTiles) + ") SELECT 't' || x, 101, hex(randomblob(400)) FROM c;"),
                  0);
    }

    /* Bulk inserts, selects of every tile and single writes, on `client`. */
    void Burst(const ContentClient& client)
    {
        const std::string& uri = TilesModel::Tiles::CONTENT_URI;
        std::vector<Values> rows;
        for (int i = 0; i < 500; ++i) {
            rows.push_back({{TilesModel::Tiles::TILE_ID, "b" + std::to_string(m_rows++)},
                            {TilesModel::Tiles::TILE_SECTION_RAW_ID, "101"},
                            {TilesModel::Tiles::TILE_TITLE, std::string(300, 'x')}});
        }
        for (int round = 0; round < 3; ++round) {
            ASSERT_TRUE(client.BulkInsert(uri, rows).Ok());
            for (Values& row : rows) {
                row[0].second = "b" + std::to_string(m_rows++);
            }
            const Result all = client.Select(uri, {}, "", {}, "", "");
            ASSERT_TRUE(all.Ok()) << Explain(all);
            ASSERT_GE(all.rows.rows.size(), static_cast<size_t>(kTiles));
        }
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(client.Insert(uri, {{TilesModel::Tiles::TILE_ID, "s" + std::to_string(m_rows++)},
                                            {TilesModel::Tiles::TILE_SECTION_RAW_ID, "101"}})
                            .Ok());
            // Rows all over the table: its pages come into the page cache.
            const std::string id = "t" + std::to_string(1 + (i * 7919 + m_rows * 31) % kTiles);
            ASSERT_TRUE(client.Update(uri, {{TilesModel::Tiles::TILE_TITLE, id}}, "tile_id = ?", {id}).Ok());
        }
    }

    /* The typed, atomic publish of 1,000 tiles in 10 sections of their own. */
    void Publish(int round)
    {
        tilvane::client::Content content;
        for (int s = 0; s < 10; ++s) {
            tilvane::client::Section& section = content.AddSection("section " + std::to_string(s));
            section.id = "published-" + std::to_string(round) + "-" + std::to_string(s);
            for (int t = 0; t < 100; ++t) {
                tilvane::client::Tile& tile = section.AddTile("tile " + std::to_string(t));
                tile.id = "p" + std::to_string(s * 100 + t);
                tile.imageUrl = "https://example.org/images/" + std::string(200, 'i') + std::to_string(t) + ".jpg";
            }
        }
        const tilvane::client::Publisher publisher;
        ASSERT_TRUE(publisher.Publish(content, tilvane::client::PublishMode::Append).ok());
    }

    long HeapKiB() const { return PrivateKiB(ServicePid(*m_service), "[heap]"); }

    PrivateBus m_bus;
    int m_rows = 0;
};

TEST_F(MemoryTest, TheIdleServiceIsBackAtItsStartUpHeapAfterABurstOfRequests)
{
    ASSERT_TRUE(m_bus.IsRunning());
    ASSERT_NO_FATAL_FAILURE(StartService(UnitEnvironment()));
    // Its start is over once it has been idle for a while.
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    const long atStart = HeapKiB();
    long busiest = atStart;
    ContentClient client;
    DataControlClient dataControl(tilvane::client::schema::kProviderId);
    for (int round = 0; round < 4; ++round) {
        ASSERT_NO_FATAL_FAILURE(Burst(client));
        ASSERT_NO_FATAL_FAILURE(Publish(round));
        const Result all = dataControl.Select(tilvane::client::schema::tiles::kTable, {}, "", "_id");
        ASSERT_TRUE(all.Ok()) << Explain(all);
        busiest = std::max(busiest, HeapKiB());
    }
    // The trim comes a second after the last request; the socket's large
    // connections close after a second idle too.
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    const long idle = HeapKiB();
    std::printf("service heap, private: %ld KiB after start, %ld KiB at the busiest, %ld KiB idle after\n", atStart,
                busiest, idle);
#if !defined(__SANITIZE_ADDRESS__)
    /* Under AddressSanitizer the heap is its allocator's, not glibc's: the
     * requests above are all that is checked there. */
    EXPECT_GT(busiest, atStart + 1024);
    EXPECT_LE(idle, atStart + 128);
#endif
}

}  // namespace
