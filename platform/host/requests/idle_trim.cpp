#include "requests/idle_trim.h"

#include <glib.h>
#include <malloc.h>

#include "content/database.h"
#include "registry/app_registry.h"
#include "base/reset_hooks.h"
#include "host_control/base.h"

namespace tilvane {
namespace host {
namespace {

/* Touched on the default main context only. */
guint gSource = 0;
bool gRequestSinceArmed = false;

gboolean TrimCB(gpointer)
{
    if (gRequestSinceArmed) {
        gRequestSinceArmed = false;
        return G_SOURCE_CONTINUE;
    }
    gSource = 0;
    // Counted for the tests (host_control.h CallCount("malloc_trim")).
    ShouldFail("malloc_trim");
    // SQLite's page caches first: their pages go back to the allocator, which
    // then gives what is free back to the system.
    content::Database::ReleaseCachedMemoryOfAll();
    registry::CloseThisThreadsLookupConnection();
    malloc_trim(0);
    return G_SOURCE_REMOVE;
}

}  // namespace

void TrimWhenIdle()
{
    if (gSource != 0) {
        gRequestSinceArmed = true;
        return;
    }
    gRequestSinceArmed = false;
    gSource = g_timeout_add(kIdleTrimDelayMs, TrimCB, nullptr);
}

void CancelIdleTrim()
{
    if (gSource != 0) {
        g_source_remove(gSource);
        gSource = 0;
    }
    gRequestSinceArmed = false;
}

namespace {
/* Reset(): no trim is pending. */
const ResetHook kResetIdleTrim(8, CancelIdleTrim);
}  // namespace

}  // namespace host
}  // namespace tilvane
