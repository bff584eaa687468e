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

struct Opens
{
    std::mutex mutex;
    std::map<std::string, bool> afterCleanClose;
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
    bool clean = false;
    std::string recorded;
    {
        std::ifstream in(RecordPath(path));
        std::getline(in, recorded);
    }
    if (!recorded.empty()) {
        std::remove(RecordPath(path).c_str());
        struct stat st;
        clean = stat(path.c_str(), &st) == 0 && recorded == Identity(st) && !LogLeftBehind(path);
    }
    Opens& opens = TheOpens();
    std::lock_guard<std::mutex> lock(opens.mutex);
    opens.afterCleanClose[path] = clean;
}

void WriteCleanCloseRecord(const std::string& path)
{
    struct stat st;
    if (LogLeftBehind(path) || access((path + "-wal").c_str(), F_OK) == 0 || stat(path.c_str(), &st) != 0) {
        return;
    }
    LetTheClockPass(st);
    /* A file of the platform like the database beside it (platform_files.h). */
    std::string error;
    tilvane::host::files::WriteFile(RecordPath(path), Identity(st) + "\n", error);
}

bool OpenedAfterCleanClose(const std::string& path)
{
    Opens& opens = TheOpens();
    std::lock_guard<std::mutex> lock(opens.mutex);
    auto found = opens.afterCleanClose.find(path);
    return found != opens.afterCleanClose.end() && found->second;
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
