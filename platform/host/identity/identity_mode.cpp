/*
 * Who may be whom: the identity mode, the platform's users and ids
 * (identity_mode.h), from the integrator's configuration.
 */
#include "identity/identity_mode.h"

#include <glib.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>

#include "base/host_state.h"
#include "base/reset_hooks.h"
#include "config/config_keys.h"
#include "dlog.h"
#include "host_control/identity.h"

#define IDENTITY_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define IDENTITY_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace identity {
namespace {

constexpr char kGroup[] = "identity";

/* The platform's own application ids beside the service's built-in one
 * (data/service-defaults.conf): the white-listed system services, the live-TV pseudo
 * applications and the command-line tool (which a platform user runs as
 * "tilvanectl" unless it names another id). */
const std::array<const char*, 13> kPlatformAppIds = {
    "DownloadManager", "ContentServiceManager", "livetv_antenna", "livetv_mbr_1", "livetv_mbr_2",
    "livetv_mbr_3",    "livetv_mbr_4",          "livetv_dish",    "livetv_twc",   "livetv_directv",
    "livetv_rvu",      "livetv_none_mbr",       "tilvanectl"};

thread_local bool t_senderKnown = false;
thread_local uid_t t_senderUid = 0;

/* The mode's start-up line was written (LogModeOnce). */
std::atomic<bool> g_modeLogged{false};

/* Reset(): the mode is stated again by the next process-like start. */
const ResetHook kResetModeLine(3, [] { g_modeLogged = false; });

}  // namespace

std::string UsersText(const std::vector<uid_t>& users)
{
    std::string text;
    for (uid_t uid : users) {
        text += (text.empty() ? "" : ",") + std::to_string(uid);
    }
    return text;
}

bool CurrentMessageSender(uid_t& uid)
{
    uid = t_senderUid;
    return t_senderKnown;
}

ScopedMessageSender::ScopedMessageSender(bool known, uid_t uid) : m_wasKnown(t_senderKnown), m_previous(t_senderUid)
{
    t_senderKnown = known;
    t_senderUid = uid;
}

ScopedMessageSender::~ScopedMessageSender()
{
    t_senderKnown = m_wasKnown;
    t_senderUid = m_previous;
}

bool ParseUser(const std::string& text, uid_t& uid)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text.c_str(), &end, 10);
    if (end != nullptr && *end == '\0' && g_ascii_isdigit(text[0]) && number < 0xFFFFFFFFull) {
        uid = static_cast<uid_t>(number);
        return true;
    }
    struct passwd entry;
    struct passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    if (getpwnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        uid = found->pw_uid;
        return true;
    }
    return false;
}

Mode CurrentMode()
{
    const std::string mode = config::StringSetting(kGroup, "mode");
    return mode == "development" ? Mode::Development : Mode::Verified;
}

void LogModeOnce()
{
    if (g_modeLogged.exchange(true)) {
        return;
    }
    const std::string mode = config::StringSetting(kGroup, "mode");
    if (mode != "verified" && mode != "development") {
        IDENTITY_LOGE("unknown identity mode \"%s\"; identities are verified", mode.c_str());
    }
    if (CurrentMode() == Mode::Development) {
        IDENTITY_LOGI("development mode: identities are not verified; every process is believed to be the "
                      "application it claims");
        return;
    }
    IDENTITY_LOGI("identities are verified: an application is the user the bus reports (platform users %s)",
                  UsersText(PlatformUsers()).c_str());
}

std::vector<uid_t> PlatformUsers()
{
    std::vector<std::string> names = config::StringList(kGroup, "platform-users");
    if (names.empty()) {
        names.push_back("0");
    }
    std::vector<uid_t> users;
    for (const std::string& name : names) {
        uid_t uid = 0;
        if (ParseUser(name, uid)) {
            users.push_back(uid);
        } else {
            IDENTITY_LOGE("platform user \"%s\" is neither a number nor a known user", name.c_str());
        }
    }
    return users;
}

bool IsPlatformUser(uid_t uid)
{
    const std::vector<uid_t> users = PlatformUsers();
    return std::find(users.begin(), users.end(), uid) != users.end();
}

bool IsPlatformAppId(const std::string& id)
{
    for (const char* known : kPlatformAppIds) {
        if (id == known) {
            return true;
        }
    }
    const std::vector<std::string> extra = config::StringList(kGroup, "platform-ids");
    return std::find(extra.begin(), extra.end(), id) != extra.end() || id == config::Default("service", "app-id");
}

bool IsLikePlatformId(const std::string& id, std::string& platformId)
{
    std::vector<std::string> ids(kPlatformAppIds.begin(), kPlatformAppIds.end());
    const std::vector<std::string> extra = config::StringList(kGroup, "platform-ids");
    ids.insert(ids.end(), extra.begin(), extra.end());
    ids.push_back(config::String("service", "app-id", std::string()));
    for (const std::string& known : ids) {
        if (g_ascii_strcasecmp(known.c_str(), id.c_str()) == 0) {
            platformId = known;
            return true;
        }
    }
    return false;
}

}  // namespace identity

bool IdentitiesVerified()
{
    return identity::CurrentMode() == identity::Mode::Verified;
}

bool CountsAsPlatform()
{
    return identity::CurrentMode() == identity::Mode::Development || identity::IsPlatformUser(geteuid());
}

bool IsValidPlatformId(const std::string& id, std::string* rule)
{
    bool valid = !id.empty() && id.size() <= kMaxPlatformIdLength && g_ascii_isalpha(id[0]);
    for (char c : id) {
        valid = valid && (g_ascii_isalnum(c) || c == '.' || c == '_' || c == '-');
    }
    if (!valid && rule != nullptr) {
        *rule = "an id is 1 to " + std::to_string(kMaxPlatformIdLength) +
                " letters, digits, '.', '_' or '-', starting with a letter";
    }
    return valid;
}
}  // namespace host
}  // namespace tilvane
