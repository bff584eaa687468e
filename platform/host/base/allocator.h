/*
 * How the service's process uses glibc's malloc. Internal to the host
 * platform; the benchmarks' bare server uses it too, so that both sides of a
 * comparison allocate alike.
 */
#ifndef TILVANE_PLATFORM_ALLOCATOR_H
#define TILVANE_PLATFORM_ALLOCATOR_H

namespace tilvane {
namespace host {

/*
 * Set before any thread starts:
 *   - one malloc arena for every thread (the loop, GDBus's worker, the check
 *     in the background): each further arena keeps its own partly used pages
 *     after the idle trim (0.2-0.3 MiB of the idle service's private memory
 *     after the request benchmarks), and the threads seldom allocate at once;
 *   - blocks of up to kHeapBlockBytes from the heap, and the heap's free top
 *     kept up to kKeptTopBytes: a select of 1,000 tiles builds buffers of
 *     0.1-1 MB (its encoding, GDBus's message), which glibc would otherwise
 *     map afresh for each request and fault in page by page (a fifth of the
 *     select's time in the service). Between requests the pages stay in the
 *     heap; the idle trim (requests/idle_trim.h) gives them back.
 */
void UseServiceAllocator();

constexpr int kHeapBlockBytes = 4 * 1024 * 1024;
constexpr int kKeptTopBytes = 16 * 1024 * 1024;

}  // namespace host
}  // namespace tilvane

#endif
