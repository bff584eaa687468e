/*
 * tilvanectl data against a test provider in a forked child: the content interface
 * by default, data control with --interface, refusals with their code and exit 1,
 * usage errors with exit 2.
 */
#include <data_control.h>
#include <gtest/gtest.h>
#include <host_control.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ContentProviderParam.h"
#include "TestSupport.h"
#include "bundle.h"

using namespace tilvane::test;

namespace {

constexpr char kProvider[] = "content://org.example.cli";

int InsertCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    const char* title = nullptr;
    bundle_get_str(in.pValues, "title", const_cast<char**>(&title));
    if (title == nullptr) {
        return -22;
    }
    out.nRowId = in.strAppId == "org.example.writer" ? 11 : 12;
    return std::string(title) == "forbidden" ? -13 : 0;
}

int BulkInsertCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    const char* title = nullptr;
    bundle_get_str(in.vecValues.back(), "title", const_cast<char**>(&title));
    out.nRowId = static_cast<int64_t>(in.vecValues.size()) * 100;
    return title != nullptr && std::string(title) == "caf\xc3\xa9 \"2\"" ? 0 : static_cast<int>(0xC0000000);
}

int DeleteCB(PT_PROVIDER_DELETE_IN_PARAM&)
{
    return static_cast<int>(0xC0000000);
}

void DcSelectCB(int id, data_control_h, const char**, int, const char* where, const char*, void*)
{
    data_control_provider_send_error(id, where != nullptr ? where : "no where");
}

struct CliRun {
    int exitCode;
    std::string out;
};

CliRun Tilvanectl(const std::string& arguments)
{
    const std::string command = std::string(TILVANECTL_BINARY) + " --app-id org.example.writer data " + arguments +
                                " --provider " + kProvider + " 2>&1";
    CliRun run{-1, ""};
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return run;
    }
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        run.out += buffer;
    }
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

}  // namespace

TEST(DataCommandsTest, InsertsSelectsAndRefusalsThroughBothInterfaces)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    PlatformSandbox sandbox;
    setenv("TILVANE_DATA_CONTROL_PROVIDER_ID", kProvider, 1);
    ChildProcess provider([](int readyFd) {
        tilvane::host::SetOwnAppId("org.example.cliprovider");
        const std::string tiles = std::string(kProvider) + "/tiles";
        data_control_provider_sql_cb callbacks = {nullptr, DcSelectCB, nullptr, nullptr};
        if (!register_insert_db_callback(tiles, InsertCB, nullptr) ||
            !register_insert_db_callback_for_bulkdata(tiles, BulkInsertCB, nullptr) ||
            !register_delete_db_callback(tiles, DeleteCB, nullptr) ||
            data_control_provider_sql_register_cb(&callbacks, nullptr) != 0) {
            return 10;
        }
        ChildProcess::SignalReady(readyFd);
        IterateMainContextUntil([] { return false; }, 20000);
        return 0;
    });
    ASSERT_TRUE(provider.Started());
    ASSERT_TRUE(provider.Go());
    ASSERT_TRUE(provider.WaitReady());

    CliRun run = Tilvanectl("insert tiles title=news");
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_EQ(run.out, "inserted row 11\n");

    run = Tilvanectl("insert tiles title=forbidden");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("permission denied (-13)"), std::string::npos) << run.out;

    run = Tilvanectl("insert tiles other=1");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("invalid URI (-22)"), std::string::npos) << run.out;

    run = Tilvanectl("delete tiles --all");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("failed (-1073741824)"), std::string::npos) << run.out;

    TempDir dir;
    const std::string bulk = dir.Path() + "/rows.jsonl";
    tilvane::test::WriteFile(bulk, "{\"title\": \"one\", \"tile_section_id\": 3}\n\n"
                                   "{\"title\": \"caf\\u00e9 \\\"2\\\"\", \"score\": -1.5e2}\n");
    run = Tilvanectl("insert tiles --bulk " + bulk);
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_EQ(run.out, "inserted 2 rows, last row id 200\n");

    tilvane::test::WriteFile(bulk, "{\"title\": true}\n");
    run = Tilvanectl("insert tiles --bulk " + bulk);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("rows.jsonl:1:"), std::string::npos) << run.out;

    /* The data-control interface: the provider answers the select with an error text. */
    run = Tilvanectl("select tiles --interface data-control --where \"_id = 4\"");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("the provider refused: _id = 4"), std::string::npos) << run.out;
    run = Tilvanectl("insert tiles --interface data-control title=x");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("not served"), std::string::npos) << run.out;

    /* Nobody serves selects on the content interface here. */
    run = Tilvanectl("select tiles");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("not served"), std::string::npos) << run.out;

    EXPECT_EQ(Tilvanectl("insert nowhere a=b").exitCode, 2);
    EXPECT_EQ(Tilvanectl("update tiles a=b").exitCode, 2);
    EXPECT_EQ(Tilvanectl("insert tiles --interface data-control --bulk " + bulk).exitCode, 2);
    EXPECT_EQ(Tilvanectl("select tiles --interface sideways").exitCode, 2);
    unsetenv("TILVANE_DATA_CONTROL_PROVIDER_ID");
}
