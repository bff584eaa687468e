#include "registry/bus_policy.h"

#include <glib.h>
#include <glib/gstdio.h>
#include <gio/gio.h>

#include "identity/app_identity.h"
#include "identity/identity_mode.h"
#include "host_control/identity.h"
#include "dlog.h"
#include "base/glib_ptr.h"
#include "base/host_state.h"
#include "config/paths.h"
#include "config/platform_files.h"

#define POLICY_LOGD(...) __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, __VA_ARGS__)
#define POLICY_LOGE(...) __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformLogTag, __VA_ARGS__)

namespace tilvane {
namespace host {
namespace {

constexpr char kPolicyFile[] = "tilvane-apps.conf";
constexpr int kReloadTimeoutMs = 10000;

/* The names of application `id` and of its ports: the application's user
 * may own them. An id that stands for the platform is never granted (the
 * registry refuses such ids; one left from the development mode is skipped). */
void AddOwnRules(std::string& text, const std::string& id)
{
    std::string platformId;
    if (identity::IsLikePlatformId(id, platformId)) {
        POLICY_LOGE("bus policy: '%s' is like the platform's id '%s'; its names are not granted", id.c_str(),
                    platformId.c_str());
        return;
    }
    const std::string name = BusNameForAppId(id);
    const std::string ports = PortBusNamePrefix(id);
    if (!name.empty()) {
        text += "    <allow own=\"" + name + "\"/>\n";
    }
    if (!ports.empty()) {
        text += "    <allow own_prefix=\"" + ports + "\"/>\n";
    }
}

void ReloadBus()
{
    const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        return;
    }
    ScopedError error;
    GDBusConnectionPtr connection(g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.Out()));
    if (!connection) {
        POLICY_LOGE("bus policy: cannot reach the bus to reload it: %s", error.Message());
        return;
    }
    GVariantPtr reply(g_dbus_connection_call_sync(connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "ReloadConfig", nullptr, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, kReloadTimeoutMs, nullptr, error.Out()));
    if (!reply) {
        POLICY_LOGE("bus policy: the bus did not reload its configuration: %s", error.Message());
    }
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
}

}  // namespace

std::string BusPolicyDirectory()
{
    return PlatformRootDirectory() + "/etc/dbus/tilvane-bus.d";
}

std::string BusPolicyFile()
{
    return BusPolicyDirectory() + "/" + kPolicyFile;
}

std::string BusPolicyText(const std::vector<RegisteredPackage>& packages)
{
    std::string text =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<!-- Written by the application registry at every install and removal. -->\n"
        "<busconfig>\n";
    for (uid_t uid : identity::PlatformUsers()) {
        text += "  <policy user=\"" + std::to_string(uid) + "\">\n"
                "    <allow own_prefix=\"org.tilvane\"/>\n"
                "    <allow send_type=\"signal\" send_interface=\"org.tilvane.Configuration\"/>\n"
                "    <allow send_type=\"signal\" send_interface=\"org.tilvane.Power\"/>\n"
                "  </policy>\n";
    }
    for (const RegisteredPackage& package : packages) {
        if (package.userId < 0) {
            continue;
        }
        text += "  <policy user=\"" + std::to_string(package.userId) + "\">\n";
        AddOwnRules(text, package.packageId);
        for (const RegisteredApplication& app : package.applications) {
            AddOwnRules(text, app.appId);
        }
        text += "  </policy>\n";
    }
    text += "</busconfig>\n";
    return text;
}

void UpdateBusPolicy()
{
    if (identity::CurrentMode() != identity::Mode::Verified) {
        return;
    }
    const std::string directory = BusPolicyDirectory();
    if (g_mkdir_with_parents(directory.c_str(), 0755) != 0) {
        POLICY_LOGE("bus policy: cannot make %s", directory.c_str());
        return;
    }
    const std::string path = BusPolicyFile();
    const std::string text = BusPolicyText(ListPackages());
    std::string error;
    if (!files::WriteFile(path, text, error)) {
        POLICY_LOGE("bus policy: cannot write %s: %s", path.c_str(), error.c_str());
        return;
    }
    POLICY_LOGD("bus policy written to %s", path.c_str());
    ReloadBus();
}

}  // namespace host
}  // namespace tilvane
