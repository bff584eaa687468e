/*
 * Platform paths on the host. Everything lives under one root directory:
 * SetPlatformRoot's, else TILVANE_PLATFORM_ROOT's, else <cwd>/tilvane-data.
 */
#include "tzplatform_config.h"
#include "config/paths.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <set>
#include <string>

#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "dlog.h"
#include "host_control/config.h"

namespace tilvane {
namespace host {
namespace {

struct RootOverride {
    std::mutex mutex;
    std::string root;
};

RootOverride& TheRootOverride()
{
    static RootOverride* state = new RootOverride();
    return *state;
}

std::string PlatformRootOverride()
{
    RootOverride& s = TheRootOverride();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.root;
}

std::string CurrentDirectory()
{
    char buffer[PATH_MAX];
    if (getcwd(buffer, sizeof buffer) == nullptr) {
        return ".";
    }
    return buffer;
}

std::string Absolute(const std::string& path)
{
    std::string result = path.empty() || path[0] == '/' ? path : CurrentDirectory() + "/" + path;
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

std::string PlatformRoot()
{
    std::string root = PlatformRootOverride();
    if (root.empty()) {
        const char* env = getenv("TILVANE_PLATFORM_ROOT");
        if (env != nullptr && *env != '\0') {
            root = env;
        }
    }
    if (root.empty()) {
        root = CurrentDirectory() + "/tilvane-data";
    }
    return Absolute(root);
}

/* Makes `path` and the folders above it; the last one gets `leafMode`. */
bool MakeDirectories(const std::string& path, mode_t leafMode)
{
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty()) {
            continue;
        }
        if (mkdir(partial.c_str(), pos == std::string::npos ? leafMode : 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

/* Returned paths are interned here and never freed, so a pointer handed out
 * once stays valid for the rest of the process. */
const char* Intern(const std::string& path)
{
    static std::mutex mutex;
    static std::set<std::string>* paths = new std::set<std::string>();
    std::lock_guard<std::mutex> lock(mutex);
    return paths->insert(path).first->c_str();
}

}  // namespace

std::string PlatformRootDirectory()
{
    return PlatformRoot();
}

void SetPlatformRoot(const std::string& root)
{
    RootOverride& s = TheRootOverride();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.root = root;
}

namespace {
/* Reset(): back to TILVANE_PLATFORM_ROOT or the default. */
const ResetHook kResetRoot(2, [] { SetPlatformRoot(std::string()); });
}  // namespace

}  // namespace host
}  // namespace tilvane

extern "C" const char* tzplatform_getenv(enum tzplatform_variable id)
{
    using namespace tilvane::host;
    const char* relative = nullptr;
    /* The database folder is the platform's own: no application lists or
     * opens anything in it (config/platform_files.h keeps its mode). */
    mode_t mode = 0755;
    switch (id) {
    case TZ_SYS_DB: relative = "/opt/dbspace"; mode = 0700; break;
    case TZ_USER_APP: relative = "/opt/usr/apps"; break;
    default: return nullptr;
    }
    const std::string path = PlatformRoot() + relative;
    if (!MakeDirectories(path, mode)) {
        __dlog_print(LOG_ID_MAIN, DLOG_WARN, kPlatformLogTag, "cannot create directory %s: %s",
                     path.c_str(), strerror(errno));
    }
    return Intern(path);
}
