#include "app/allocator.h"

#include <malloc.h>

#include <algorithm>

#include "config/config_keys.h"

namespace tilvane {
namespace host {

void KeepOneMallocArena()
{
    mallopt(M_ARENA_MAX, 1);
}

void KeepLargeBuffersInTheHeap()
{
    const int64_t block =
        std::min(config::IntegerSetting("memory", "heap-block-bytes", kLeastHeapBlockBytes), kMostHeapBlockBytes);
    const int64_t kept = config::IntegerSetting("memory", "kept-heap-bytes", 0);
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(block));
    mallopt(M_TRIM_THRESHOLD, static_cast<int>(std::min<int64_t>(kept, INT32_MAX)));
}

void UseServiceAllocator()
{
    KeepOneMallocArena();
    KeepLargeBuffersInTheHeap();
}

}  // namespace host
}  // namespace tilvane
