/*
 * Giving memory back when the service falls idle: a request's buffers (a
 * select of 1,000 tiles is half a megabyte, several times over between SQLite,
 * the encoder and the bus) stay in the allocator's free lists after they are
 * freed, and SQLite keeps up to 2 MiB of pages per connection. A second after
 * the last request the page caches are released and the free memory of every
 * malloc arena goes back to the system (malloc_trim). Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_IDLE_TRIM_H
#define TILVANE_PLATFORM_IDLE_TRIM_H

namespace tilvane {
namespace host {

/* After a request, on the default main context: arms the trim, or pushes it
 * back by its delay when it is armed. */
void TrimWhenIdle();

/* Drops an armed trim (host reset). */
void CancelIdleTrim();

/* The delay after the last request, in milliseconds. */
constexpr unsigned kIdleTrimDelayMs = 1000;

}  // namespace host
}  // namespace tilvane

#endif
