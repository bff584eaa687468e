#include "content/clean_close.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "config/platform_files.h"
#include "content/content_log.h"

namespace tilvane {
namespace content {
namespace {

constexpr char kRecordTag[] = "tilvane-clean-close-1";

/* How the last open of a file in this process found it. */
enum class LastStop { Clean, Unclean, Unknown };

struct Opens
{
    std::mutex mutex;
    std::map<std::string, LastStop> lastStop;
    std::map<std::string, bool> checkOwed;
};

Opens& TheOpens()
{
    static Opens* opens = new Opens();
    return *opens;
}

std::string RecordPath(const std::string& path)
{
    return path + "-clean";
}

std::string InUsePath(const std::string& path)
{
    return path + "-inuse";
}

std::string DamagePath(const std::string& path)
{
    return path + "-corrupt";
}

bool Exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

LastStop Recorded(const std::string& path, LastStop fallback)
{
    Opens& opens = TheOpens();
    std::lock_guard<std::mutex> lock(opens.mutex);
    auto found = opens.lastStop.find(path);
    return found != opens.lastStop.end() ? found->second : fallback;
}

/* The identity of the file as a line of text; empty when it cannot be read. */
std::string Identity(const struct stat& st)
{
    std::ostringstream text;
    text << kRecordTag << ' ' << st.st_dev << ' ' << st.st_ino << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec
         << ' ' << st.st_mtim.tv_nsec << ' ' << st.st_ctim.tv_sec << ' ' << st.st_ctim.tv_nsec;
    return text.str();
}

bool LogLeftBehind(const std::string& path)
{
    struct stat st;
    return stat((path + "-wal").c_str(), &st) == 0 && st.st_size > 0;
}

bool Later(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec > b.tv_nsec);
}

/* Waits until the file system's clock has passed the file's times, so that
 * any later write gives the file another modification or change time (file
 * times come from a clock that may advance only every few milliseconds). */
void LetTheClockPass(const struct stat& st)
{
    for (int i = 0; i < 100; ++i) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        if (Later(now, st.st_mtim) && Later(now, st.st_ctim)) {
            return;
        }
        struct timespec pause = {0, 1000000};
        nanosleep(&pause, nullptr);
    }
}

uint32_t BigEndian32(const unsigned char* bytes)
{
    return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
           (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

}  // namespace

void ConsumeCleanCloseRecord(const std::string& path)
{
    LastStop stop = LastStop::Unknown;
    std::string recorded;
    {
        std::ifstream in(RecordPath(path));
        std::getline(in, recorded);
    }
    const bool damageRecorded = Exists(DamagePath(path));
    if (!recorded.empty()) {
        std::remove(RecordPath(path).c_str());
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && recorded == Identity(st) && !LogLeftBehind(path)) {
            stop = LastStop::Clean;
        }
    } else if (Exists(InUsePath(path)) && !damageRecorded) {
        stop = LastStop::Unclean;
    }
    if (damageRecorded) {
        std::remove(DamagePath(path).c_str());
        stop = LastStop::Unknown;
    }
    /* Made for the coming open; kept by a crash. Not synced: a record lost
     * with the power only brings the full check back. */
    tilvane::host::files::CreateFile(InUsePath(path));
    Opens& opens = TheOpens();
    std::lock_guard<std::mutex> lock(opens.mutex);
    opens.lastStop[path] = stop;
}

void WriteCleanCloseRecord(const std::string& path)
{
    {
        Opens& opens = TheOpens();
        std::lock_guard<std::mutex> lock(opens.mutex);
        if (opens.checkOwed[path]) {
            return;
        }
    }
    struct stat st;
    if (LogLeftBehind(path) || access((path + "-wal").c_str(), F_OK) == 0 || stat(path.c_str(), &st) != 0) {
        return;
    }
    LetTheClockPass(st);
    /* A file of the platform like the database beside it (platform_files.h). */
    std::string error;
    if (tilvane::host::files::WriteFile(RecordPath(path), Identity(st) + "\n", error)) {
        std::remove(InUsePath(path).c_str());
    }
}

bool OpenedAfterCleanClose(const std::string& path)
{
    return Recorded(path, LastStop::Unknown) == LastStop::Clean;
}

bool OpenedAfterUncleanStop(const std::string& path)
{
    return Recorded(path, LastStop::Unknown) == LastStop::Unclean;
}

void SetFullCheckOwed(const std::string& path, bool owed)
{
    Opens& opens = TheOpens();
    std::lock_guard<std::mutex> lock(opens.mutex);
    opens.checkOwed[path] = owed;
}

void RecordDamageFound(const std::string& path)
{
    std::string error;
    if (!tilvane::host::files::WriteFile(DamagePath(path), "damage found by the check in the background\n", error)) {
        CONTENT_LOGE("cannot record the damage of %s: %s", path.c_str(), error.c_str());
    }
}

bool HeaderMatchesFile(const std::string& path)
{
    unsigned char header[100];
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    const bool read = fstat(fd, &st) == 0 && pread(fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
    close(fd);
    if (!read || std::memcmp(header, "SQLite format 3", 16) != 0) {
        return false;
    }
    uint32_t pageSize = (static_cast<uint32_t>(header[16]) << 8) | header[17];
    if (pageSize == 1) {
        pageSize = 65536;
    }
    if (pageSize < 512 || (pageSize & (pageSize - 1)) != 0) {
        return false;
    }
    const uint32_t pages = BigEndian32(header + 28);
    // The page count in the header is valid when the change counter matches
    // the "version valid for" number.
    if (pages == 0 || BigEndian32(header + 24) != BigEndian32(header + 92)) {
        return false;
    }
    return static_cast<uint64_t>(st.st_size) == static_cast<uint64_t>(pages) * pageSize;
}

}  // namespace content
}  // namespace tilvane
