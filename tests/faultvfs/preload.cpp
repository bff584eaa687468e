/*
 * The fault-injecting VFS as a preloaded library, so that the real service
 * binary meets a full disk without any test code in it:
 *
 *   LD_PRELOAD=libtilvane_fault_vfs.so
 *   TILVANE_FAULT_VFS_FULL_AFTER=N     the Nth write and every later one fail with SQLITE_FULL
 *   TILVANE_FAULT_VFS_FILE=text        only files whose path contains text (default ".preview.db")
 *   TILVANE_FAULT_VFS_START_FILE=path  writes are counted only once this file exists
 *
 * Without TILVANE_FAULT_VFS_FULL_AFTER the library does nothing.
 */
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>

#include "FaultVfs.h"

namespace {

/* Constant-initialised: the constructor below may run before the library's
 * dynamic initialisers. Points into the environment. */
const char* gStartFile = nullptr;

/* Before the start file exists, writes pass uncounted. */
bool Started()
{
    return gStartFile == nullptr || access(gStartFile, F_OK) == 0;
}

}  // namespace

namespace tilvane {
namespace test {
namespace faultvfs {
/* Consulted by the shim before it counts a call (see FaultVfs.cpp). */
bool PreloadCounting()
{
    return Started();
}
}  // namespace faultvfs
}  // namespace test
}  // namespace tilvane

__attribute__((constructor)) static void StartFaultVfs()
{
    namespace faultvfs = tilvane::test::faultvfs;
    const char* after = std::getenv("TILVANE_FAULT_VFS_FULL_AFTER");
    if (after == nullptr || *after == '\0') {
        return;
    }
    const char* file = std::getenv("TILVANE_FAULT_VFS_FILE");
    const char* start = std::getenv("TILVANE_FAULT_VFS_START_FILE");
    gStartFile = start != nullptr && *start != '\0' ? start : nullptr;
    if (!faultvfs::Install()) {
        return;
    }
    faultvfs::SetFileFilter(file != nullptr ? file : ".preview.db");
    faultvfs::SetCountingGate(faultvfs::PreloadCounting);
    faultvfs::Arm(faultvfs::kWrite, std::atol(after), SQLITE_FULL, true);
}
