#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include <dlog.h>
#include <host_control.h>

#include "DBLock.h"

namespace {

class ContentDbLockTest : public ::testing::Test
{
protected:
    void SetUp() override { tilvane::host::Reset(); }
    void TearDown() override { tilvane::host::Reset(); }
};

/* Whether another thread can take `lock` right now. */
bool FreeForOtherThread(const CDBLock& lock)
{
    return std::async(std::launch::async, [&lock] {
               if (!lock.TryLock()) {
                   return false;
               }
               lock.Unlock();
               return true;
           })
        .get();
}

TEST_F(ContentDbLockTest, LocksOfTheSameNameShareOneMutex)
{
    CDBLock first("tiles.db");
    CDBLock second("tiles.db");
    CDBLock other("apps.db");
    EXPECT_EQ("tiles.db", second.GetName());

    first.Lock();
    EXPECT_FALSE(FreeForOtherThread(second));
    EXPECT_TRUE(FreeForOtherThread(other));
    first.Unlock();
    EXPECT_TRUE(FreeForOtherThread(second));
}

TEST_F(ContentDbLockTest, SecondThreadBlocksUntilTheHolderUnlocks)
{
    CDBLock holder("shared");
    std::atomic<bool> acquired{false};
    holder.Lock();
    std::thread waiter([&] {
        CDBLock mine("shared");
        mine.Lock();
        acquired = true;
        mine.Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(acquired.load());
    holder.Unlock();
    waiter.join();
    EXPECT_TRUE(acquired.load());
}

TEST_F(ContentDbLockTest, HolderMayLockAgain)
{
    CDBLock lock("recursive");
    CDBLock alias("recursive");
    lock.Lock();
    ASSERT_TRUE(alias.TryLock());
    alias.Lock();
    alias.Unlock();
    alias.Unlock();
    EXPECT_FALSE(FreeForOtherThread(lock));
    lock.Unlock();
    EXPECT_TRUE(FreeForOtherThread(lock));
}

TEST_F(ContentDbLockTest, ScopedLockHoldsForItsScope)
{
    CDBLock lock("scoped");
    {
        CDBLocalScopedLock scoped(&lock);
        EXPECT_FALSE(FreeForOtherThread(lock));
        // A null lock holds nothing and does not disturb the one held.
        {
            CDBLocalScopedLock nothing(nullptr);
            EXPECT_FALSE(FreeForOtherThread(lock));
        }
        EXPECT_FALSE(FreeForOtherThread(lock));
    }
    EXPECT_TRUE(FreeForOtherThread(lock));
}

TEST_F(ContentDbLockTest, NameIsFreedWhenItsLastLockGoes)
{
    auto held = std::make_unique<CDBLock>("transient");
    held->Lock();
    held->Unlock();
    held.reset();
    // A new lock of that name is a fresh mutex, free for everyone.
    CDBLock fresh("transient");
    EXPECT_TRUE(FreeForOtherThread(fresh));
}

TEST_F(ContentDbLockTest, DestructionIsLogged)
{
    tilvane::host::StartLogCapture();
    {
        CDBLock lock("logged.db");
    }
    bool found = false;
    for (const auto& line : tilvane::host::CapturedLog()) {
        found |= line.tag == "tilvane-content" && line.priority == DLOG_DEBUG &&
                 line.message == "lock destroyed: logged.db";
    }
    EXPECT_TRUE(found);
}

}  // namespace
