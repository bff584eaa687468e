/*
 * Modes of the platform's files (platform_files.h).
 */
#include "config/platform_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/host_state.h"
#include "config/platform_config.h"
#include "dlog.h"
#include "tzplatform_config.h"

namespace tilvane {
namespace host {
namespace files {
namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kGroupFile = 0640;
constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kGroupDirectory = 0750;
/* Group and others may never write the integrator's configuration. */
constexpr mode_t kNotWritableByOthers = 0022;

/* The group the configuration names ([files] group), false when none (or
 * one that does not exist, which is logged). */
bool PlatformGroup(gid_t& gid)
{
    const std::string name = config::String("files", "group", "");
    if (name.empty()) {
        return false;
    }
    char* end = nullptr;
    const unsigned long number = std::strtoul(name.c_str(), &end, 10);
    if (end != nullptr && *end == '\0' && name[0] >= '0' && name[0] <= '9') {
        gid = static_cast<gid_t>(number);
        return true;
    }
    struct group entry;
    struct group* found = nullptr;
    std::array<char, 4096> buffer{};
    if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        gid = found->gr_gid;
        return true;
    }
    __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "[files] group \"%s\" is not a group; files are 0600",
                 name.c_str());
    return false;
}

std::string DatabaseDirectory()
{
    const char* directory = tzplatform_getenv(TZ_SYS_DB);
    return directory != nullptr ? directory : "";
}

std::string ParentOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

/* Who a new file of the platform belongs to: root hands it to the owner of
 * its folder (the service's user on a device); anyone else keeps it. The
 * group is the platform's when one is configured. */
void HandOver(int fd, const std::string& path)
{
    gid_t gid = static_cast<gid_t>(-1);
    const bool grouped = PlatformGroup(gid);
    uid_t uid = static_cast<uid_t>(-1);
    struct stat folder;
    if (geteuid() == 0 && stat(ParentOf(path).c_str(), &folder) == 0 && folder.st_uid != 0) {
        uid = folder.st_uid;
    }
    if ((grouped || uid != static_cast<uid_t>(-1)) && fchown(fd, uid, gid) != 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, "cannot give %s its owner: %s", path.c_str(),
                     strerror(errno));
    }
}

std::string OctalMode(mode_t mode)
{
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

/* Brings one existing file or folder to `wanted` (and the platform group);
 * appends what changed or what could not be changed to `changes`. */
void Correct(const std::string& path, const struct stat& info, mode_t wanted, std::vector<std::string>& changes)
{
    gid_t gid = static_cast<gid_t>(-1);
    const bool grouped = PlatformGroup(gid);
    const mode_t current = info.st_mode & 07777;
    if (grouped && info.st_gid != gid && chown(path.c_str(), static_cast<uid_t>(-1), gid) != 0) {
        changes.push_back(path + " " + OctalMode(current) + ": cannot give it group " + std::to_string(gid) + ": " +
                          strerror(errno));
    }
    if (current == wanted) {
        return;
    }
    if (chmod(path.c_str(), wanted) != 0) {
        changes.push_back(path + " " + OctalMode(current) + ": " + strerror(errno));
        return;
    }
    changes.push_back(path + " " + OctalMode(current) + " -> " + OctalMode(wanted));
}

void CorrectFile(const std::string& path, std::vector<std::string>& changes)
{
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return;
    }
    Correct(path, info, FileMode(), changes);
}

void CorrectDatabaseDirectory(std::vector<std::string>& changes)
{
    const std::string directory = DatabaseDirectory();
    struct stat info;
    if (directory.empty() || lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return;
    }
    Correct(directory, info, DirectoryMode(), changes);
    DIR* listing = opendir(directory.c_str());
    if (listing == nullptr) {
        return;
    }
    while (const struct dirent* entry = readdir(listing)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            CorrectFile(directory + "/" + entry->d_name, changes);
        }
    }
    closedir(listing);
}

/* The integrator's configuration stays readable (every process of the
 * platform, applications' included, reads its modes and budgets) but is
 * nobody else's to write. */
void CorrectConfiguration(std::vector<std::string>& changes)
{
    const std::string path = config::Source();
    struct stat info;
    if (path.empty() || lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
        (info.st_mode & kNotWritableByOthers) == 0) {
        return;
    }
    const mode_t wanted = info.st_mode & 07777 & ~kNotWritableByOthers;
    if (chmod(path.c_str(), wanted) != 0) {
        changes.push_back(path + " " + OctalMode(info.st_mode) + ": " + strerror(errno));
        return;
    }
    changes.push_back(path + " " + OctalMode(info.st_mode) + " -> " + OctalMode(wanted));
}

}  // namespace

mode_t FileMode()
{
    gid_t gid = 0;
    return PlatformGroup(gid) ? kGroupFile : kPrivateFile;
}

mode_t DirectoryMode()
{
    gid_t gid = 0;
    return PlatformGroup(gid) ? kGroupDirectory : kPrivateDirectory;
}

bool CreateFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPrivateFile);
    if (fd < 0) {
        return errno == EEXIST;
    }
    /* The umask never widens what open gave; fchmod sets the group bits too. */
    const bool moded = fchmod(fd, FileMode()) == 0;
    HandOver(fd, path);
    close(fd);
    return moded;
}

bool WriteFile(const std::string& path, const std::string& text, std::string& error)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(&temporary[0], O_CLOEXEC);
    if (fd < 0) {
        error = std::string("cannot create a file beside it: ") + strerror(errno);
        return false;
    }
    bool ok = fchmod(fd, FileMode()) == 0;
    HandOver(fd, path);
    for (size_t written = 0; ok && written < text.size();) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        ok = n > 0 || (n < 0 && errno == EINTR);
        written += n > 0 ? static_cast<size_t>(n) : 0;
    }
    ok = ok && fsync(fd) == 0;
    if (ok) {
        ok = close(fd) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
    } else {
        close(fd);
    }
    if (!ok) {
        error = strerror(errno);
        unlink(temporary.c_str());
    }
    return ok;
}

std::vector<std::string> CorrectModes(const std::vector<std::string>& more)
{
    std::vector<std::string> changes;
    CorrectDatabaseDirectory(changes);
    for (const std::string& path : more) {
        CorrectFile(path, changes);
    }
    CorrectConfiguration(changes);
    return changes;
}

void CorrectModesAtStart(const std::vector<std::string>& more)
{
    const std::vector<std::string> changes = CorrectModes(more);
    if (changes.empty()) {
        return;
    }
    std::string text;
    for (const std::string& change : changes) {
        text += (text.empty() ? "" : ", ") + change;
    }
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, kPlatformLogTag, "file modes corrected: %s", text.c_str());
}

}  // namespace files
}  // namespace host
}  // namespace tilvane
