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

/* Each call opens the registry file, reads or writes in one transaction and
 * closes it again, so what another process wrote is always seen. */
Result ReadPackages(std::vector<RegisteredPackage>& packages);
Result FindPackageOfApp(const std::string& appId, std::string& packageId);
Result ReadApplication(const std::string& appId, std::string& packageId,
                       std::vector<std::pair<std::string, std::string>>& metadata);
Result ReadWebApps(std::vector<std::pair<std::string, std::string>>& webAppIdAndPackage);
/* The user bound to `id`: the user of the package that holds `id` as an
 * application, else of the package whose id is `id`. */
Result FindUserOfId(const std::string& id, int64_t& userId);

}  // namespace registry
}  // namespace host
}  // namespace tilvane

#endif
