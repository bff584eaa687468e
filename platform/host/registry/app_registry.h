/*
 * The host's application registry, shared by package_manager.cpp, app_info.cpp,
 * qeb_app_list.cpp and the control API. Not a public interface.
 */
#ifndef TILVANE_PLATFORM_APP_REGISTRY_H
#define TILVANE_PLATFORM_APP_REGISTRY_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host_control/registry.h"

namespace tilvane {
namespace host {
namespace registry {

enum class Result {
    Ok,
    NotFound, /* the id names nothing installed */
    Failed    /* the registry file cannot be opened or read */
};

/* Each call reads or writes in one transaction of its own, on a connection
 * its thread keeps between lookups (opened again when the file is replaced),
 * so what another process wrote is always seen. */
Result ReadPackages(std::vector<RegisteredPackage>& packages);
Result FindPackageOfApp(const std::string& appId, std::string& packageId);
Result ReadApplication(const std::string& appId, std::string& packageId,
                       std::vector<std::pair<std::string, std::string>>& metadata);
Result ReadWebApps(std::vector<std::pair<std::string, std::string>>& webAppIdAndPackage);
/* The user bound to `id`: the user of the package that holds `id` as an
 * application, else of the package whose id is `id`. */
Result FindUserOfId(const std::string& id, int64_t& userId);

/* Closes the connection this thread keeps for its lookups, giving back its
 * memory and its mapping of the registry's shared-memory file; the next
 * lookup opens it again. For an idle process. */
void CloseThisThreadsLookupConnection();

}  // namespace registry
}  // namespace host
}  // namespace tilvane

#endif
