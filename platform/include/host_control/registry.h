/*
 * Test control API, application registry: the installed packages that
 * package_manager_*, app_info_* and qeb_get_app_list read. The registry is an
 * SQLite file under the platform's database directory
 * (tzplatform_getenv(TZ_SYS_DB)), shared by every process on the same platform
 * root. Part of host_control.h (for tests and tilvanectl).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_REGISTRY_H
#define TILVANE_PLATFORM_HOST_CONTROL_REGISTRY_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tilvane {
namespace host {

struct RegisteredApplication {
    std::string appId;
    /* Metadata key/value pairs in declaration order; keys are unique. */
    std::vector<std::pair<std::string, std::string>> metadata;
};

struct RegisteredPackage {
    std::string packageId;
    std::vector<RegisteredApplication> applications;
    /* The web-application store's id of the package; empty when it has none. */
    std::string webAppId;
    /* The operating-system user the package's applications run as; -1 lets
     * InstallPackage keep the package's previous user or allocate a free one
     * from [identity] first-app-user .. last-app-user. */
    int64_t userId = -1;
};

/* Installs `package`, replacing a package of the same id. Refused (false, with
 * the reason in `error`) when the package id is empty, an application id is
 * empty, repeated or held by another package, a metadata key is empty or
 * repeated within one application, or a text is too long for the store's list
 * (1023 bytes); in the verified identity mode also when a package or
 * application id breaks the platform's id syntax or the user is a platform
 * user; in every mode when the user is another package's. Nothing is written
 * when it is refused. In the verified mode the bus policy of the installed
 * packages is written again (<platform root>/etc/dbus/tilvane-bus.d). */
bool InstallPackage(const RegisteredPackage& package, std::string* error = nullptr);
/* Removes the package with its applications, metadata and store entry. False
 * when no such package is installed or the registry cannot be written. */
bool RemovePackage(const std::string& packageId, std::string* error = nullptr);
/* Every installed package in the order of installation; empty on failure. */
std::vector<RegisteredPackage> ListPackages();
/* The same, false when the registry cannot be read (it is the platform's
 * own: an application's user cannot open it). */
bool ReadInstalledPackages(std::vector<RegisteredPackage>& packages);

}  // namespace host
}  // namespace tilvane

#endif
