#include <gtest/gtest.h>

#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "app/allocator.h"
#include "config/platform_config.h"
#include "host_control.h"
#include "TestSupport.h"

namespace {

constexpr size_t kMiB = 1024 * 1024;

class AllocatorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "AddressSanitizer replaces glibc's malloc, whose settings these tests read";
#endif
    }
    void TearDown() override
    {
        /* This process's malloc back to the service's defaults. */
        tilvane::host::SetConfigurationText("");
        tilvane::host::KeepLargeBuffersInTheHeap();
        tilvane::host::Reset();
    }

    /* Bytes of this process's blocks that are mapped on their own. */
    static size_t Mapped() { return mallinfo2().hblkhd; }

    /* A block of `bytes`, written so that it is really there; held where
     * the compiler cannot see it unused, so that neither the malloc nor the
     * free is left out. */
    static void* Block(size_t bytes)
    {
        /* The heap's free top handed back first: a block that fits in it
         * would be taken from it whatever the threshold. */
        malloc_trim(0);
        void* block = std::malloc(bytes);
        std::memset(block, 1, bytes);
        s_held = block;
        return s_held;
    }
    static void* volatile s_held;

    tilvane::test::PlatformSandbox m_sandbox;
};

void* volatile AllocatorTest::s_held = nullptr;

TEST_F(AllocatorTest, BlocksBelowHeapBlockBytesComeFromTheHeapAndLargerOnesAreMapped)
{
    tilvane::host::SetConfigurationText("[memory]\nheap-block-bytes = 2097152\n");
    tilvane::host::KeepLargeBuffersInTheHeap();
    const size_t before = Mapped();
    void* fromHeap = Block(1 * kMiB);
    EXPECT_EQ(Mapped(), before);
    void* mapped = Block(3 * kMiB);
    EXPECT_GE(Mapped(), before + 3 * kMiB);
    std::free(mapped);
    std::free(fromHeap);

    /* Below glibc's own threshold the setting reads as its default, 4 MiB. */
    tilvane::host::SetConfigurationText("[memory]\nheap-block-bytes = 1000\n");
    tilvane::host::KeepLargeBuffersInTheHeap();
    const size_t again = Mapped();
    void* stillFromHeap = Block(3 * kMiB);
    EXPECT_EQ(Mapped(), again);
    std::free(stillFromHeap);

    /* Above glibc's largest threshold it is held to that largest, 32 MiB:
     * a block of 8 MiB from the heap, one of 40 MiB mapped. */
    tilvane::host::SetConfigurationText("[memory]\nheap-block-bytes = 999999999999\n");
    tilvane::host::KeepLargeBuffersInTheHeap();
    const size_t large = Mapped();
    void* largeFromHeap = Block(8 * kMiB);
    EXPECT_EQ(Mapped(), large);
    std::free(largeFromHeap);
    void* largestMapped = Block(40 * kMiB);
    EXPECT_GE(Mapped(), large + 40 * kMiB);
    std::free(largestMapped);
}

TEST_F(AllocatorTest, FreeHeapTopIsKeptUpToKeptHeapBytesAndGivenBackBeyondIt)
{
    tilvane::host::SetConfigurationText("[memory]\nkept-heap-bytes = 16777216\n");
    tilvane::host::KeepLargeBuffersInTheHeap();
    void* block = Block(2 * kMiB);
    std::free(block);
    /* The freed block is the heap's top and stays with the process. */
    EXPECT_GE(mallinfo2().keepcost, 2 * kMiB);

    tilvane::host::SetConfigurationText("[memory]\nkept-heap-bytes = 65536\n");
    tilvane::host::KeepLargeBuffersInTheHeap();
    block = Block(2 * kMiB);
    std::free(block);
    EXPECT_LT(mallinfo2().keepcost, 1 * kMiB);
}

}  // namespace
