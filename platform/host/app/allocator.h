/*
 * How the service's process uses glibc's malloc. Internal to the host
 * platform; the benchmarks' bare server uses it too, so that both sides of a
 * comparison allocate alike.
 */
#ifndef TILVANE_PLATFORM_ALLOCATOR_H
#define TILVANE_PLATFORM_ALLOCATOR_H

#include <cstdint>

namespace tilvane {
namespace host {

/* One malloc arena for every thread (the loop, GDBus's worker, the check in
 * the background): each further arena keeps its own partly used pages after
 * the idle trim (0.2-0.3 MiB of the idle service's private memory after the
 * request benchmarks), and the threads seldom allocate at once. Call before
 * any thread starts. */
void KeepOneMallocArena();

/* Blocks of less than [memory] heap-block-bytes come from the heap, and up
 * to [memory] kept-heap-bytes of free heap top stay with the process between
 * requests. A select of 1,000 tiles builds buffers of 0.1-1 MB (its
 * encoding, GDBus's message) that glibc would otherwise map afresh for each
 * request and fault in page by page (a fifth of the select's time in the
 * service). Between requests the pages stay in the heap; the idle trim
 * (requests/idle_trim.h) gives them back. Read once, at start. */
void KeepLargeBuffersInTheHeap();

/* Both, as the service starts. */
void UseServiceAllocator();

/* What glibc takes as a threshold: from its own default up to its largest. */
constexpr int64_t kLeastHeapBlockBytes = 128 * 1024;
constexpr int64_t kMostHeapBlockBytes = 32 * 1024 * 1024;

}  // namespace host
}  // namespace tilvane

#endif
