#include "FaultVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace tilvane {
namespace test {
namespace faultvfs {
namespace {

struct Plan {
    std::mutex mutex;
    std::string filter;
    unsigned operations = 0;
    long nth = 0;
    int code = SQLITE_IOERR;
    bool persistent = false;
    long calls = 0;
    long failures = 0;
    bool (*gate)() = nullptr;
};

Plan& ThePlan()
{
    static Plan* plan = new Plan();
    return *plan;
}

/* The plan, locked while this lives. */
class LockedPlan
{
public:
    LockedPlan() : m_plan(ThePlan()), m_lock(m_plan.mutex) {}
    Plan* operator->() { return &m_plan; }

private:
    Plan& m_plan;
    std::lock_guard<std::mutex> m_lock;
};

sqlite3_vfs* gReal = nullptr;
bool gInstalled = false;

/* Our file: the real VFS's file follows it in the same allocation. */
struct File {
    sqlite3_file base;
    bool counted;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

File* Of(sqlite3_file* file) { return reinterpret_cast<File*>(file); }

int ExtendedCode(unsigned operation, int code)
{
    if (code != SQLITE_IOERR) {
        return code;
    }
    switch (operation) {
    case kRead: return SQLITE_IOERR_READ;
    case kWrite: return SQLITE_IOERR_WRITE;
    case kSync: return SQLITE_IOERR_FSYNC;
    case kLock: return SQLITE_IOERR_LOCK;
    case kTruncate: return SQLITE_IOERR_TRUNCATE;
    default: return SQLITE_IOERR;
    }
}

bool Matches(const char* path)
{
    LockedPlan plan;
    return plan->filter.empty() || (path != nullptr && std::strstr(path, plan->filter.c_str()) != nullptr);
}

/* SQLITE_OK, or the code this call fails with. */
int Count(bool counted, unsigned operation)
{
    if (!counted) {
        return SQLITE_OK;
    }
    LockedPlan plan;
    if ((plan->operations & operation) == 0 || (plan->gate != nullptr && !plan->gate())) {
        return SQLITE_OK;
    }
    const long call = ++plan->calls;
    if (plan->nth > 0 && (call == plan->nth || (plan->persistent && call > plan->nth))) {
        ++plan->failures;
        return ExtendedCode(operation, plan->code);
    }
    return SQLITE_OK;
}

int Close(sqlite3_file* file)
{
    sqlite3_file* real = Of(file)->real();
    int rc = real->pMethods != nullptr ? real->pMethods->xClose(real) : SQLITE_OK;
    return rc;
}

/* The real file's method `Method`, called with the same arguments; a method
 * of an operation `Kind` (not 0) is counted first and fails when the plan
 * says so. */
template <typename Member, Member Method, unsigned Kind>
struct Forward;

template <typename Result, typename... Args, Result (*sqlite3_io_methods::*Method)(sqlite3_file*, Args...),
          unsigned Kind>
struct Forward<Result (*sqlite3_io_methods::*)(sqlite3_file*, Args...), Method, Kind> {
    static Result Call(sqlite3_file* file, Args... args)
    {
        if constexpr (Kind != 0) {
            if (int rc = Count(Of(file)->counted, Kind)) {
                return rc;
            }
        }
        sqlite3_file* real = Of(file)->real();
        return (real->pMethods->*Method)(real, args...);
    }
};

template <auto Method, unsigned Kind = 0>
constexpr auto Forwarded = &Forward<decltype(Method), Method, Kind>::Call;

int ShmLock(sqlite3_file* file, int offset, int n, int flags)
{
    /* Only taking a lock can fail; releasing one always succeeds. */
    if ((flags & SQLITE_SHM_LOCK) != 0) {
        if (int rc = Count(Of(file)->counted, kLock)) {
            return rc == SQLITE_IOERR_LOCK ? SQLITE_IOERR_SHMLOCK : rc;
        }
    }
    return Forwarded<&sqlite3_io_methods::xShmLock>(file, offset, n, flags);
}

int Fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out)
{
    /* No memory-mapped reads: every read goes through xRead and is counted. */
    (void)file;
    (void)offset;
    (void)amount;
    *out = nullptr;
    return SQLITE_OK;
}

int Unfetch(sqlite3_file* /*file*/, sqlite3_int64 /*offset*/, void* /*page*/)
{
    return SQLITE_OK;
}

using M = sqlite3_io_methods;

const sqlite3_io_methods kMethods = {
    3,
    Close,
    Forwarded<&M::xRead, kRead>,
    Forwarded<&M::xWrite, kWrite>,
    Forwarded<&M::xTruncate, kTruncate>,
    Forwarded<&M::xSync, kSync>,
    Forwarded<&M::xFileSize>,
    Forwarded<&M::xLock, kLock>,
    Forwarded<&M::xUnlock>,
    Forwarded<&M::xCheckReservedLock>,
    Forwarded<&M::xFileControl>,
    Forwarded<&M::xSectorSize>,
    Forwarded<&M::xDeviceCharacteristics>,
    Forwarded<&M::xShmMap>,
    ShmLock,
    Forwarded<&M::xShmBarrier>,
    Forwarded<&M::xShmUnmap>,
    Fetch,
    Unfetch,
};

int Open(sqlite3_vfs* /*vfs*/, const char* path, sqlite3_file* file, int flags, int* outFlags)
{
    File* ours = Of(file);
    ours->base.pMethods = nullptr;
    ours->counted = Matches(path);
    if (int rc = Count(ours->counted, kOpen)) {
        return rc;
    }
    sqlite3_file* real = ours->real();
    std::memset(real, 0, static_cast<size_t>(gReal->szOsFile));
    int rc = gReal->xOpen(gReal, path, real, flags, outFlags);
    if (real->pMethods != nullptr) {
        ours->base.pMethods = &kMethods;
    }
    return rc;
}

/* The real VFS's method `Method`, called with the same arguments. */
template <typename Member, Member Method>
struct ForwardToVfs;

template <typename Result, typename... Args, Result (*sqlite3_vfs::*Method)(sqlite3_vfs*, Args...)>
struct ForwardToVfs<Result (*sqlite3_vfs::*)(sqlite3_vfs*, Args...), Method> {
    static Result Call(sqlite3_vfs* /*vfs*/, Args... args) { return (gReal->*Method)(gReal, args...); }
};

template <auto Method>
constexpr auto ForwardedToVfs = &ForwardToVfs<decltype(Method), Method>::Call;

using V = sqlite3_vfs;

/* Version 2: the sizes are the real VFS's, set at installation. */
sqlite3_vfs gShim = {
    2,
    0,
    0,
    nullptr,
    "tilvane-fault",
    nullptr,
    Open,
    ForwardedToVfs<&V::xDelete>,
    ForwardedToVfs<&V::xAccess>,
    ForwardedToVfs<&V::xFullPathname>,
    ForwardedToVfs<&V::xDlOpen>,
    ForwardedToVfs<&V::xDlError>,
    ForwardedToVfs<&V::xDlSym>,
    ForwardedToVfs<&V::xDlClose>,
    ForwardedToVfs<&V::xRandomness>,
    ForwardedToVfs<&V::xSleep>,
    ForwardedToVfs<&V::xCurrentTime>,
    ForwardedToVfs<&V::xGetLastError>,
    ForwardedToVfs<&V::xCurrentTimeInt64>,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

bool Install()
{
    if (gInstalled) {
        return true;
    }
    if (sqlite3_initialize() != SQLITE_OK) {
        return false;
    }
    gReal = sqlite3_vfs_find(nullptr);
    if (gReal == nullptr || gReal->iVersion < 2) {
        return false;
    }
    gShim.szOsFile = static_cast<int>(sizeof(File)) + gReal->szOsFile;
    gShim.mxPathname = gReal->mxPathname;
    if (sqlite3_vfs_register(&gShim, 1) != SQLITE_OK) {
        return false;
    }
    gInstalled = true;
    return true;
}

void Uninstall()
{
    if (!gInstalled) {
        return;
    }
    Disarm();
    sqlite3_vfs_unregister(&gShim);
    sqlite3_vfs_register(gReal, 1);
    gInstalled = false;
}

void SetFileFilter(const std::string& text)
{
    LockedPlan()->filter = text;
}

void Arm(unsigned operations, long nth, int code, bool persistent)
{
    LockedPlan plan;
    plan->operations = operations;
    plan->nth = nth;
    plan->code = code;
    plan->persistent = persistent;
    plan->calls = 0;
    plan->failures = 0;
}

void SetCountingGate(bool (*gate)())
{
    LockedPlan()->gate = gate;
}

void Disarm()
{
    LockedPlan()->nth = 0;
}

long Calls()
{
    return LockedPlan()->calls;
}

long Failures()
{
    return LockedPlan()->failures;
}

const Fault kFaults[4] = {
    {"an I/O error once", kAllIo, SQLITE_IOERR, false},
    {"I/O errors from then on", kAllIo, SQLITE_IOERR, true},
    {"a full disk", kWrite | kTruncate, SQLITE_FULL, true},
    {"a busy lock once", kLock, SQLITE_BUSY, false},
};

}  // namespace faultvfs
}  // namespace test
}  // namespace tilvane
