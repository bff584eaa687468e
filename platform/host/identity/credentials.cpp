/*
 * Identity from the operating system's credentials (credentials.h).
 *
 * The bus daemon knows the user of every connection from the socket it came
 * in on; the caller cannot choose what it reports. That user is compared with
 * the binding of the application id the caller claims.
 */
#include "identity/credentials.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <mutex>

#include "registry/app_registry.h"
#include "dlog.h"
#include "base/glib_ptr.h"
#include "host_control.h"
#include "base/host_state.h"
#include "config/platform_config.h"

#define IDENTITY_LOGI(...) __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, __VA_ARGS__)
#define IDENTITY_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace identity {
namespace {

constexpr char kGroup[] = "identity";
constexpr char kUsersGroup[] = "identity-users";
constexpr int kBusCallTimeoutMs = 10000;
/* Unique names are never reused on one bus; the cache only has to stay small. */
constexpr size_t kMaxCachedConnections = 4096;

/* The platform's own application ids: the white-listed system services, the
 * live-TV pseudo applications, the service itself and the command-line tool
 * (which a platform user runs as "tilvanectl" unless it names another id). */
const std::array<const char*, 14> kPlatformAppIds = {
    "DownloadManager", "ContentServiceManager", "livetv_antenna", "livetv_mbr_1",   "livetv_mbr_2",
    "livetv_mbr_3",    "livetv_mbr_4",          "livetv_dish",    "livetv_twc",     "livetv_directv",
    "livetv_rvu",      "livetv_none_mbr",       "com.quillon.px.tilvane", "tilvanectl"};

struct CredentialState {
    std::mutex mutex;
    std::map<std::string, uid_t> users; /* bus guid + "/" + unique name -> uid */
    bool modeLogged = false;
};

CredentialState& TheCredentialState()
{
    static CredentialState* state = new CredentialState();
    return *state;
}

std::string UsersText(const std::vector<uid_t>& users)
{
    std::string text;
    for (uid_t uid : users) {
        text += (text.empty() ? "" : ",") + std::to_string(uid);
    }
    return text;
}

thread_local bool t_senderKnown = false;
thread_local uid_t t_senderUid = 0;

}  // namespace

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
    const std::string mode = config::String(kGroup, "mode", "verified");
    return mode == "development" ? Mode::Development : Mode::Verified;
}

void LogModeOnce()
{
    CredentialState& s = TheCredentialState();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.modeLogged) {
            return;
        }
        s.modeLogged = true;
    }
    const std::string mode = config::String(kGroup, "mode", "verified");
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
    return std::find(extra.begin(), extra.end(), id) != extra.end();
}

bool IsLikePlatformId(const std::string& id, std::string& platformId)
{
    std::vector<std::string> ids(kPlatformAppIds.begin(), kPlatformAppIds.end());
    const std::vector<std::string> extra = config::StringList(kGroup, "platform-ids");
    ids.insert(ids.end(), extra.begin(), extra.end());
    ids.push_back(config::String("service", "app-id", "com.quillon.px.tilvane"));
    for (const std::string& known : ids) {
        if (g_ascii_strcasecmp(known.c_str(), id.c_str()) == 0) {
            platformId = known;
            return true;
        }
    }
    return false;
}

bool BoundUsers(const std::string& appId, std::vector<uid_t>& users)
{
    users.clear();
    if (IsPlatformAppId(appId)) {
        if (config::Has(kUsersGroup, appId.c_str())) {
            for (const std::string& name : config::StringList(kUsersGroup, appId.c_str())) {
                uid_t uid = 0;
                if (ParseUser(name, uid)) {
                    users.push_back(uid);
                }
            }
        } else {
            users = PlatformUsers();
        }
        return !users.empty();
    }
    int64_t user = -1;
    if (registry::FindUserOfId(appId, user) != registry::Result::Ok || user < 0) {
        return false;
    }
    users.push_back(static_cast<uid_t>(user));
    return true;
}

/* Unique names repeat across buses (a test starts many): the key names the bus too. */
std::string CacheKey(GDBusConnection* connection, const std::string& uniqueName)
{
    const gchar* guid = g_dbus_connection_get_guid(connection);
    return std::string(guid != nullptr ? guid : "") + "/" + uniqueName;
}

bool ConnectionUser(GDBusConnection* connection, const std::string& uniqueName, uid_t& uid)
{
    CredentialState& s = TheCredentialState();
    const std::string key = CacheKey(connection, uniqueName);
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        auto it = s.users.find(key);
        if (it != s.users.end()) {
            uid = it->second;
            return true;
        }
    }
    ScopedError error;
    GVariantPtr reply(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetConnectionUnixUser",
                                                  g_variant_new("(s)", uniqueName.c_str()), G_VARIANT_TYPE("(u)"),
                                                  G_DBUS_CALL_FLAGS_NONE, kBusCallTimeoutMs, nullptr, error.Out()));
    if (!reply) {
        return false;
    }
    guint32 value = 0;
    g_variant_get(reply.get(), "(u)", &value);
    uid = static_cast<uid_t>(value);
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.users.size() >= kMaxCachedConnections) {
        s.users.clear();
    }
    s.users[key] = uid;
    return true;
}

void ForgetConnection(GDBusConnection* connection, const std::string& uniqueName)
{
    CredentialState& s = TheCredentialState();
    const std::string key = CacheKey(connection, uniqueName);
    std::lock_guard<std::mutex> lock(s.mutex);
    s.users.erase(key);
}

void ForgetAllConnections()
{
    CredentialState& s = TheCredentialState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.users.clear();
    s.modeLogged = false;
}

bool SenderMayActAs(GDBusConnection* connection, const std::string& sender, const std::string& appId,
                    std::string& reason)
{
    if (CurrentMode() == Mode::Development) {
        return true;
    }
    uid_t uid = 0;
    if (!ConnectionUser(connection, sender, uid)) {
        reason = "the bus does not report the user of " + sender;
        return false;
    }
    std::vector<uid_t> users;
    if (!BoundUsers(appId, users)) {
        reason = "application " + appId + " is bound to no user (sender user " + std::to_string(uid) + ")";
        return false;
    }
    if (std::find(users.begin(), users.end(), uid) == users.end()) {
        reason = "sender " + sender + " runs as user " + std::to_string(uid) + ", application " + appId +
                 " is bound to user " + UsersText(users);
        return false;
    }
    return true;
}

bool SenderIsPlatform(GDBusConnection* connection, const std::string& sender, std::string& reason)
{
    if (CurrentMode() == Mode::Development) {
        return true;
    }
    uid_t uid = 0;
    if (!ConnectionUser(connection, sender, uid)) {
        reason = "the bus does not report the user of " + sender;
        return false;
    }
    if (!IsPlatformUser(uid)) {
        reason = "sender " + sender + " runs as user " + std::to_string(uid) + ", not a platform user";
        return false;
    }
    return true;
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
