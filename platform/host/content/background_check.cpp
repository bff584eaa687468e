#include "content/background_check.h"

#include <glib.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "base/reset_hooks.h"
#include "content/clean_close.h"
#include "content/content_log.h"
#include "content/database.h"
#include "content/statement_cache.h"

namespace tilvane {
namespace content {
namespace {

bool IsUnreadable(int rc)
{
    return rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT || rc == SQLITE_IOERR || rc == SQLITE_CANTOPEN;
}

struct Check
{
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<bool> done{false};
    std::atomic<pid_t> tid{0};
};

struct Checks
{
    std::mutex mutex;
    std::condition_variable ended;
    std::map<std::string, std::unique_ptr<Check>> byPath;
    std::atomic<void (*)(const char*)> handler{nullptr};
};

Checks& TheChecks()
{
    static Checks* checks = new Checks();
    return *checks;
}

/* Checks whose thread has not ended yet. */
std::atomic<int> runningChecks{0};

constexpr int kIoWhoProcess = 1;
constexpr int kIoClassShift = 13;

/* The check's thread back at the ordinary priority, so that a stop does not
 * wait for a core that other work keeps busy. */
void RaisePriority(pid_t tid)
{
    if (tid == 0) {
        return;
    }
    struct sched_param parameter = {};
    sched_setscheduler(tid, SCHED_OTHER, &parameter);
    constexpr int kClassBestEffort = 2;
    constexpr int kLevelNormal = 4;
    syscall(SYS_ioprio_set, kIoWhoProcess, tid, (kClassBestEffort << kIoClassShift) | kLevelNormal);
}

/* The calling thread at idle CPU priority (it runs only when nothing else
 * wants the core) and in the idle I/O class. */
void LowerOwnPriority(Check* check)
{
    const pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
    check->tid = tid;
    struct sched_param parameter = {};
    if (pthread_setschedparam(pthread_self(), SCHED_IDLE, &parameter) != 0) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(tid), 19);
    }
    constexpr int kClassIdle = 3;
    syscall(SYS_ioprio_set, kIoWhoProcess, tid, kClassIdle << kIoClassShift);
    if (check->stop) {
        RaisePriority(tid);  // a stop that came before the priority was lowered
    }
}

int StopRequested(void* check)
{
    return static_cast<Check*>(check)->stop.load() ? 1 : 0;
}

/* One run of the quick check on a read-only connection of its own. */
int CheckOnce(const std::string& path, Check* check, std::vector<std::string>& results)
{
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(raw, sqlite3_close_v2);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("cannot open %s for the check in the background: %s (%d)", path.c_str(),
                     raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc), rc);
        return rc;
    }
    sqlite3_busy_timeout(db.get(), 5000);
    sqlite3_progress_handler(db.get(), 1000, StopRequested, check);
    results.clear();
    return QuickCheck(db.get(), path, results);
}

gboolean ReportDamageCB(gpointer data)
{
    std::unique_ptr<std::string> path(static_cast<std::string*>(data));
    void (*handler)(const char*) = TheChecks().handler.load();
    if (handler != nullptr) {
        handler(path->c_str());
    }
    return G_SOURCE_REMOVE;
}

void Finish(Check* check)
{
    Checks& checks = TheChecks();
    std::lock_guard<std::mutex> lock(checks.mutex);
    --runningChecks;
    check->done = true;
    checks.ended.notify_all();
}

void RunCheck(std::string path, Check* check)
{
    LowerOwnPriority(check);
    CONTENT_LOGD("checking %s in the background", path.c_str());
    std::vector<std::string> results;
    int rc = CheckOnce(path, check, results);
    if (CheckCondemns(rc, results) && !check->stop) {
        CONTENT_LOGI("checking %s once more", path.c_str());  // an I/O error can pass
        rc = CheckOnce(path, check, results);
    }
    if (check->stop) {
        CONTENT_LOGD("check of %s in the background stopped", path.c_str());
    } else if (CheckCondemns(rc, results)) {
        if (rc == SQLITE_OK) {
            CONTENT_LOGE("%s is corrupt (%zu finding(s)), first: %s", path.c_str(), results.size(),
                         results.empty() ? "no result" : results[0].c_str());
        }
        RecordDamageFound(path);  // the check stays owed
        g_idle_add(ReportDamageCB, new std::string(path));
    } else if (rc != SQLITE_OK) {
        CONTENT_LOGW("check of %s in the background did not end: %s", path.c_str(), sqlite3_errstr(rc));
    } else {
        SetFullCheckOwed(path, false);
        CONTENT_LOGD("%s passed the check in the background", path.c_str());
    }
    results.clear();
    results.shrink_to_fit();
    // The check's pages went back to this thread's arena; the system gets them.
    malloc_trim(0);
    Finish(check);
}

/* Joins and forgets a check that ended; with `stop`, ends a running one first. */
void JoinLocked(std::unique_lock<std::mutex>& lock, const std::string& path, bool stop)
{
    Checks& checks = TheChecks();
    auto found = checks.byPath.find(path);
    if (found == checks.byPath.end() || (!stop && !found->second->done)) {
        return;
    }
    std::unique_ptr<Check> check = std::move(found->second);
    checks.byPath.erase(found);
    check->stop = true;
    RaisePriority(check->tid);
    // Bounded: a thread the system will not run in time is left to end by
    // itself (its connection is its own; the object is not freed under it).
    const bool ended = checks.ended.wait_for(lock, std::chrono::seconds(2), [&] { return check->done.load(); });
    lock.unlock();
    if (ended && check->thread.joinable()) {
        check->thread.join();
    } else if (check->thread.joinable()) {
        CONTENT_LOGW("check of %s in the background did not stop in time; left to end by itself", path.c_str());
        check->thread.detach();
        check.release();
    }
    lock.lock();
}

void StopAll()
{
    Checks& checks = TheChecks();
    std::unique_lock<std::mutex> lock(checks.mutex);
    while (!checks.byPath.empty()) {
        const std::string path = checks.byPath.begin()->first;
        JoinLocked(lock, path, true);
    }
    checks.handler = nullptr;
}

/* Reset(): no check runs, no handler is set. */
const tilvane::host::ResetHook kResetBackgroundChecks(7, StopAll);

}  // namespace

int ReadSchema(sqlite3* db, const std::string& path)
{
    StatementHandle statement;
    int rc = PrepareStatement(db, "SELECT count(*) FROM sqlite_master", statement);
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(statement.get());
        rc = rc == SQLITE_ROW ? SQLITE_OK : rc;
    }
    statement.reset();
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("%s cannot be read: %s (%d)", path.c_str(), sqlite3_errmsg(db), rc);
    }
    return rc;
}

int QuickCheck(sqlite3* db, const std::string& path, std::vector<std::string>& results)
{
    int rc = ReadSchema(db, path);
    if (rc != SQLITE_OK) {
        return rc;
    }
    StatementHandle statement;
    rc = PrepareStatement(db, "PRAGMA quick_check", statement);
    if (rc == SQLITE_OK) {
        while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
            const unsigned char* text = sqlite3_column_text(statement.get(), 0);
            results.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
        rc = rc == SQLITE_DONE ? SQLITE_OK : rc;
    }
    statement.reset();
    if (rc != SQLITE_OK && rc != SQLITE_INTERRUPT) {
        CONTENT_LOGE("quick check of %s: %s (%d)", path.c_str(), sqlite3_errmsg(db), rc);
    }
    return rc;
}

bool CheckCondemns(int rc, const std::vector<std::string>& results)
{
    if (rc != SQLITE_OK) {
        return IsUnreadable(rc);
    }
    return !(results.size() == 1 && results[0] == "ok");
}

bool TableRootsReadable(sqlite3* db, const std::string& path)
{
    StatementHandle tables;
    int rc = PrepareStatement(db, "SELECT name FROM sqlite_master WHERE type = 'table' AND rootpage > 0", tables);
    std::vector<std::string> names;
    while (rc == SQLITE_OK && sqlite3_step(tables.get()) == SQLITE_ROW) {
        const unsigned char* name = sqlite3_column_text(tables.get(), 0);
        names.emplace_back(name != nullptr ? reinterpret_cast<const char*>(name) : "");
    }
    tables.reset();
    for (size_t i = 0; rc == SQLITE_OK && i < names.size(); ++i) {
        StatementHandle first;
        rc = PrepareStatement(db, "SELECT * FROM " + QuoteIdentifier(names[i]) + " LIMIT 1", first);
        if (rc == SQLITE_OK) {
            rc = sqlite3_step(first.get());
            rc = rc == SQLITE_ROW || rc == SQLITE_DONE ? SQLITE_OK : rc;
        }
    }
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("a table of %s cannot be read: %s (%d)", path.c_str(), sqlite3_errmsg(db), rc);
    }
    return rc == SQLITE_OK;
}

void StartBackgroundCheck(const std::string& path)
{
    Checks& checks = TheChecks();
    std::unique_lock<std::mutex> lock(checks.mutex);
    JoinLocked(lock, path, false);
    if (checks.byPath.count(path) != 0) {
        return;
    }
    SetFullCheckOwed(path, true);
    std::unique_ptr<Check> check(new Check());
    Check* running = check.get();
    ++runningChecks;
    check->thread = std::thread(RunCheck, path, running);
    checks.byPath[path] = std::move(check);
}

int RunningBackgroundChecks()
{
    return runningChecks.load(std::memory_order_relaxed);
}

void StopBackgroundCheck(const std::string& path)
{
    Checks& checks = TheChecks();
    std::unique_lock<std::mutex> lock(checks.mutex);
    JoinLocked(lock, path, true);
}

bool WaitForBackgroundChecks(int timeoutMs)
{
    Checks& checks = TheChecks();
    std::unique_lock<std::mutex> lock(checks.mutex);
    return checks.ended.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        for (const auto& entry : checks.byPath) {
            if (!entry.second->done) {
                return false;
            }
        }
        return true;
    });
}

void SetDamageFoundHandler(void (*handler)(const char* path))
{
    TheChecks().handler = handler;
}

}  // namespace content
}  // namespace tilvane
