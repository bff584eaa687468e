/*
 * A fault-injecting SQLite VFS for tests: a shim over the default VFS that
 * counts the reads, writes, syncs, locks (of the file and, in WAL mode, of its
 * shared memory), truncations and opens made on the files whose names contain
 * a chosen text, and makes the Nth of the chosen kinds fail with a chosen
 * SQLite code, once or from then on.
 *
 * Install() registers it as SQLite's default VFS, so every connection opened
 * after it (the content library's among them) goes through it; Uninstall()
 * gives the default back. The counters are process-wide and thread-safe.
 */
#ifndef TILVANE_TEST_FAULT_VFS_H
#define TILVANE_TEST_FAULT_VFS_H

#include <string>

namespace tilvane {
namespace test {
namespace faultvfs {

enum Operation : unsigned {
    kRead = 1u << 0,
    kWrite = 1u << 1,
    kSync = 1u << 2,
    kLock = 1u << 3,
    kTruncate = 1u << 4,
    kOpen = 1u << 5,
    kAllIo = kRead | kWrite | kSync | kLock | kTruncate,
};

/* True when the shim is the default VFS. */
bool Install();
void Uninstall();

/* Only files whose path contains `text` are counted and failed ("" = all). */
void SetFileFilter(const std::string& text);

/* From now on, count the calls of the kinds in `operations`; the `nth` of them
 * (1 = the next) fails with `code` (SQLITE_IOERR is given as the operation's
 * own extended code, e.g. SQLITE_IOERR_WRITE), and with `persistent` every one
 * after it too. nth = 0 only counts. */
void Arm(unsigned operations, long nth, int code, bool persistent);
/* No more failures; counting goes on. */
void Disarm();

/* Calls are counted (and failed) only while `gate` returns true (null: always). */
void SetCountingGate(bool (*gate)());

/* Calls counted since the last Arm. */
long Calls();
/* Calls failed since the last Arm. */
long Failures();

/* One kind of failure a walk injects: which operations fail, with what code,
 * once or from then on. */
struct Fault {
    const char* name;
    unsigned operations;
    int code;
    bool persistent;
};

/* The failures every walk goes through: an I/O error once, I/O errors from
 * then on, a full disk, a busy lock once. */
extern const Fault kFaults[4];

}  // namespace faultvfs
}  // namespace test
}  // namespace tilvane

#endif
