#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <host_control.h>
#include <vconf.h>

#include "TestSupport.h"

using namespace tilvane::test;

namespace {

struct Seen {
    std::string key;
    int value;
};

void RecordChangeCB(keynode_t* node, void* userData)
{
    static_cast<std::vector<Seen>*>(userData)->push_back(Seen{vconf_keynode_get_name(node), vconf_keynode_get_int(node)});
}

void OtherChangeCB(keynode_t* node, void* userData)
{
    RecordChangeCB(node, userData);
}

class VconfTest : public ::testing::Test
{
protected:
    PlatformSandbox m_sandbox;
};

TEST_F(VconfTest, AMissingKeyFailsAndLeavesTheValue)
{
    int value = -1;
    EXPECT_EQ(vconf_get_int("db/test/missing", &value), VCONF_ERROR_FILE_NO_ENT);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(vconf_get_int(nullptr, &value), VCONF_ERROR);
    EXPECT_EQ(vconf_get_int("db/test/missing", nullptr), VCONF_ERROR);
}

TEST_F(VconfTest, SetThenGetAndRemove)
{
    ASSERT_EQ(vconf_set_int("db/test/number", 42), VCONF_OK);
    int value = 0;
    ASSERT_EQ(vconf_get_int("db/test/number", &value), VCONF_OK);
    EXPECT_EQ(value, 42);
    ASSERT_TRUE(tilvane::host::SetConfigurationKey("db/test/number", -7));
    ASSERT_EQ(vconf_get_int("db/test/number", &value), VCONF_OK);
    EXPECT_EQ(value, -7);
    EXPECT_TRUE(tilvane::host::RemoveConfigurationKey("db/test/number"));
    EXPECT_FALSE(tilvane::host::RemoveConfigurationKey("db/test/number"));
    EXPECT_EQ(vconf_get_int("db/test/number", &value), VCONF_ERROR_FILE_NO_ENT);
}

TEST_F(VconfTest, WatchersOfTheKeyRunOnTheMainContextUntilIgnored)
{
    std::vector<Seen> seen;
    ASSERT_EQ(vconf_notify_key_changed("memory/test/watched", RecordChangeCB, &seen), VCONF_OK);
    EXPECT_EQ(vconf_notify_key_changed("memory/test/watched", RecordChangeCB, &seen), VCONF_ERROR);
    EXPECT_EQ(tilvane::host::KeyWatcherCount("memory/test/watched"), 1);

    ASSERT_EQ(vconf_set_int("memory/test/other", 5), VCONF_OK);
    ASSERT_EQ(vconf_set_int("memory/test/watched", 3), VCONF_OK);
    EXPECT_TRUE(seen.empty()) << "watchers run from the main context, not inside the set";
    ASSERT_TRUE(IterateMainContextUntil([&] { return !seen.empty(); }, 2000));
    IterateMainContextUntil([] { return false; }, 100);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].key, "memory/test/watched");
    EXPECT_EQ(seen[0].value, 3);

    EXPECT_EQ(vconf_ignore_key_changed("memory/test/watched", RecordChangeCB), VCONF_OK);
    EXPECT_EQ(vconf_ignore_key_changed("memory/test/watched", RecordChangeCB), VCONF_ERROR);
    ASSERT_EQ(vconf_set_int("memory/test/watched", 4), VCONF_OK);
    IterateMainContextUntil([] { return false; }, 100);
    EXPECT_EQ(seen.size(), 1u);
}

TEST_F(VconfTest, InjectedFailuresFailEachFunction)
{
    std::vector<Seen> seen;
    int value = 0;
    ASSERT_EQ(vconf_set_int("db/test/f", 1), VCONF_OK);
    for (const char* name : {"vconf_get_int", "vconf_set_int", "vconf_notify_key_changed", "vconf_ignore_key_changed"}) {
        tilvane::host::FailNextCalls(name, 1);
    }
    EXPECT_EQ(vconf_get_int("db/test/f", &value), VCONF_ERROR);
    EXPECT_EQ(vconf_set_int("db/test/f", 2), VCONF_ERROR);
    EXPECT_EQ(vconf_notify_key_changed("db/test/f", OtherChangeCB, &seen), VCONF_ERROR);
    ASSERT_EQ(vconf_notify_key_changed("db/test/f", OtherChangeCB, &seen), VCONF_OK);
    EXPECT_EQ(vconf_ignore_key_changed("db/test/f", OtherChangeCB), VCONF_ERROR);
    ASSERT_EQ(vconf_get_int("db/test/f", &value), VCONF_OK);
    EXPECT_EQ(value, 1);
}

TEST(VconfBetweenProcesses, AKeySetByAnotherProcessReachesTheWatcher)
{
    PlatformSandbox sandbox;
    PrivateBus bus;
    ASSERT_TRUE(bus.IsRunning());
    ChildProcess child([](int /*readyFd*/) {
        return vconf_set_int("memory/test/shared", 17) == VCONF_OK ? 0 : 1;
    });
    ASSERT_TRUE(child.Started());

    std::vector<Seen> seen;
    ASSERT_EQ(vconf_notify_key_changed("memory/test/shared", RecordChangeCB, &seen), VCONF_OK);
    ASSERT_TRUE(child.Go());
    EXPECT_EQ(child.Wait(10000), 0);
    ASSERT_TRUE(IterateMainContextUntil([&] { return !seen.empty(); }, 5000));
    EXPECT_EQ(seen[0].key, "memory/test/shared");
    EXPECT_EQ(seen[0].value, 17);
    int value = 0;
    ASSERT_EQ(vconf_get_int("memory/test/shared", &value), VCONF_OK);
    EXPECT_EQ(value, 17);
}

}  // namespace
