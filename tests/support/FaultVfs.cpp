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

sqlite3_vfs* gReal = nullptr;
sqlite3_vfs gShim;
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
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    return plan.filter.empty() || (path != nullptr && std::strstr(path, plan.filter.c_str()) != nullptr);
}

/* SQLITE_OK, or the code this call fails with. */
int Count(bool counted, unsigned operation)
{
    if (!counted) {
        return SQLITE_OK;
    }
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    if ((plan.operations & operation) == 0 || (plan.gate != nullptr && !plan.gate())) {
        return SQLITE_OK;
    }
    const long call = ++plan.calls;
    if (plan.nth > 0 && (call == plan.nth || (plan.persistent && call > plan.nth))) {
        ++plan.failures;
        return ExtendedCode(operation, plan.code);
    }
    return SQLITE_OK;
}

int Close(sqlite3_file* file)
{
    sqlite3_file* real = Of(file)->real();
    int rc = real->pMethods != nullptr ? real->pMethods->xClose(real) : SQLITE_OK;
    return rc;
}

int Read(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset)
{
    if (int rc = Count(Of(file)->counted, kRead)) {
        return rc;
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xRead(real, buffer, amount, offset);
}

int Write(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset)
{
    if (int rc = Count(Of(file)->counted, kWrite)) {
        return rc;
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xWrite(real, buffer, amount, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size)
{
    if (int rc = Count(Of(file)->counted, kTruncate)) {
        return rc;
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xTruncate(real, size);
}

int Sync(sqlite3_file* file, int flags)
{
    if (int rc = Count(Of(file)->counted, kSync)) {
        return rc;
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xSync(real, flags);
}

int FileSize(sqlite3_file* file, sqlite3_int64* size)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xFileSize(real, size);
}

int Lock(sqlite3_file* file, int level)
{
    if (int rc = Count(Of(file)->counted, kLock)) {
        return rc;
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xLock(real, level);
}

int Unlock(sqlite3_file* file, int level)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xUnlock(real, level);
}

int CheckReservedLock(sqlite3_file* file, int* out)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xCheckReservedLock(real, out);
}

int FileControl(sqlite3_file* file, int op, void* arg)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xFileControl(real, op, arg);
}

int SectorSize(sqlite3_file* file)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xSectorSize(real);
}

int DeviceCharacteristics(sqlite3_file* file)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xDeviceCharacteristics(real);
}

int ShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** out)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xShmMap(real, region, size, extend, out);
}

int ShmLock(sqlite3_file* file, int offset, int n, int flags)
{
    /* Only taking a lock can fail; releasing one always succeeds. */
    if ((flags & SQLITE_SHM_LOCK) != 0) {
        if (int rc = Count(Of(file)->counted, kLock)) {
            return rc == SQLITE_IOERR_LOCK ? SQLITE_IOERR_SHMLOCK : rc;
        }
    }
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xShmLock(real, offset, n, flags);
}

void ShmBarrier(sqlite3_file* file)
{
    sqlite3_file* real = Of(file)->real();
    real->pMethods->xShmBarrier(real);
}

int ShmUnmap(sqlite3_file* file, int deleteFlag)
{
    sqlite3_file* real = Of(file)->real();
    return real->pMethods->xShmUnmap(real, deleteFlag);
}

int Fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out)
{
    /* No memory-mapped reads: every read goes through Read and is counted. */
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

const sqlite3_io_methods kMethods = {
    3,         Close,       Read,         Write,    Truncate,          Sync,        FileSize,
    Lock,      Unlock,      CheckReservedLock,      FileControl,       SectorSize,  DeviceCharacteristics,
    ShmMap,    ShmLock,     ShmBarrier,   ShmUnmap, Fetch,             Unfetch,
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

int Delete(sqlite3_vfs* /*vfs*/, const char* path, int syncDir) { return gReal->xDelete(gReal, path, syncDir); }
int Access(sqlite3_vfs* /*vfs*/, const char* path, int flags, int* out) { return gReal->xAccess(gReal, path, flags, out); }
int FullPathname(sqlite3_vfs* /*vfs*/, const char* path, int size, char* out)
{
    return gReal->xFullPathname(gReal, path, size, out);
}
void* DlOpen(sqlite3_vfs* /*vfs*/, const char* path) { return gReal->xDlOpen(gReal, path); }
void DlError(sqlite3_vfs* /*vfs*/, int size, char* out) { gReal->xDlError(gReal, size, out); }
void (*DlSym(sqlite3_vfs* /*vfs*/, void* handle, const char* symbol))(void) { return gReal->xDlSym(gReal, handle, symbol); }
void DlClose(sqlite3_vfs* /*vfs*/, void* handle) { gReal->xDlClose(gReal, handle); }
int Randomness(sqlite3_vfs* /*vfs*/, int size, char* out) { return gReal->xRandomness(gReal, size, out); }
int Sleep(sqlite3_vfs* /*vfs*/, int micro) { return gReal->xSleep(gReal, micro); }
int CurrentTime(sqlite3_vfs* /*vfs*/, double* out) { return gReal->xCurrentTime(gReal, out); }
int GetLastError(sqlite3_vfs* /*vfs*/, int size, char* out) { return gReal->xGetLastError(gReal, size, out); }
int CurrentTimeInt64(sqlite3_vfs* /*vfs*/, sqlite3_int64* out) { return gReal->xCurrentTimeInt64(gReal, out); }

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
    std::memset(&gShim, 0, sizeof gShim);
    gShim.iVersion = 2;
    gShim.szOsFile = static_cast<int>(sizeof(File)) + gReal->szOsFile;
    gShim.mxPathname = gReal->mxPathname;
    gShim.zName = "tilvane-fault";
    gShim.xOpen = Open;
    gShim.xDelete = Delete;
    gShim.xAccess = Access;
    gShim.xFullPathname = FullPathname;
    gShim.xDlOpen = DlOpen;
    gShim.xDlError = DlError;
    gShim.xDlSym = DlSym;
    gShim.xDlClose = DlClose;
    gShim.xRandomness = Randomness;
    gShim.xSleep = Sleep;
    gShim.xCurrentTime = CurrentTime;
    gShim.xGetLastError = GetLastError;
    gShim.xCurrentTimeInt64 = CurrentTimeInt64;
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
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    plan.filter = text;
}

void Arm(unsigned operations, long nth, int code, bool persistent)
{
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    plan.operations = operations;
    plan.nth = nth;
    plan.code = code;
    plan.persistent = persistent;
    plan.calls = 0;
    plan.failures = 0;
}

void SetCountingGate(bool (*gate)())
{
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    plan.gate = gate;
}

void Disarm()
{
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    plan.nth = 0;
}

long Calls()
{
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    return plan.calls;
}

long Failures()
{
    Plan& plan = ThePlan();
    std::lock_guard<std::mutex> lock(plan.mutex);
    return plan.failures;
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
