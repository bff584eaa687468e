/*
 * Identity from the operating system's credentials (credentials.h).
 *
 * The bus daemon knows the user of every connection from the socket it came
 * in on; the caller cannot choose what it reports. That user is compared with
 * the binding of the application id the caller claims.
 */
#include "bus/credentials.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <mutex>

#include "registry/app_registry.h"
#include "identity/identity_mode.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "config/platform_config.h"

namespace tilvane {
namespace host {
namespace identity {
namespace {

constexpr char kUsersGroup[] = "identity-users";
constexpr int kBusCallTimeoutMs = 10000;
/* Unique names are never reused on one bus; the cache only has to stay small. */
constexpr size_t kMaxCachedConnections = 4096;

struct CredentialState {
    std::mutex mutex;
    std::map<std::string, uid_t> users; /* bus guid + "/" + unique name -> uid */
};

CredentialState& TheCredentialState()
{
    static CredentialState* state = new CredentialState();
    return *state;
}

}  // namespace

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
}

namespace {

/* The user of `sender` in the verified mode; false, with `reason`, when the
 * bus does not report it. */
bool SenderUser(GDBusConnection* connection, const std::string& sender, uid_t& uid, std::string& reason)
{
    if (!ConnectionUser(connection, sender, uid)) {
        reason = "the bus does not report the user of " + sender;
        return false;
    }
    return true;
}

}  // namespace

bool UserMayActAs(uid_t uid, const std::string& who, const std::string& appId, std::string& reason)
{
    if (CurrentMode() == Mode::Development) {
        return true;
    }
    std::vector<uid_t> users;
    if (!BoundUsers(appId, users)) {
        reason = "application " + appId + " is bound to no user (sender user " + std::to_string(uid) + ")";
        return false;
    }
    if (std::find(users.begin(), users.end(), uid) == users.end()) {
        reason = who + " runs as user " + std::to_string(uid) + ", application " + appId + " is bound to user " +
                 UsersText(users);
        return false;
    }
    return true;
}

bool SenderMayActAs(GDBusConnection* connection, const std::string& sender, const std::string& appId,
                    std::string& reason)
{
    uid_t uid = 0;
    if (CurrentMode() == Mode::Development) {
        return true;
    }
    if (!SenderUser(connection, sender, uid, reason)) {
        return false;
    }
    return UserMayActAs(uid, "sender " + sender, appId, reason);
}

bool SenderIsPlatform(GDBusConnection* connection, const std::string& sender, std::string& reason)
{
    uid_t uid = 0;
    if (CurrentMode() == Mode::Development) {
        return true;
    }
    if (!SenderUser(connection, sender, uid, reason)) {
        return false;
    }
    if (!IsPlatformUser(uid)) {
        reason = "sender " + sender + " runs as user " + std::to_string(uid) + ", not a platform user";
        return false;
    }
    return true;
}

}  // namespace identity
}  // namespace host
}  // namespace tilvane
