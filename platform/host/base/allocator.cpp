#include "base/allocator.h"

#include <malloc.h>

namespace tilvane {
namespace host {

void UseServiceAllocator()
{
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, kHeapBlockBytes);
    mallopt(M_TRIM_THRESHOLD, kKeptTopBytes);
}

}  // namespace host
}  // namespace tilvane
