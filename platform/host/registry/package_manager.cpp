/*
 * Package manager on the host, reading the application registry
 * (app_registry.cpp). Package handles live only for the duration of the
 * callback that receives them.
 */
#include "package_manager.h"

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "registry/app_registry.h"
#include "host_control/registry.h"
#include "host_control/base.h"

struct package_info_s {
    std::string packageId;
    std::vector<std::string> appIds;
};

namespace {

int ToPackageManagerError(tilvane::host::registry::Result result)
{
    using tilvane::host::registry::Result;
    switch (result) {
    case Result::Ok:
        return PACKAGE_MANAGER_ERROR_NONE;
    case Result::NotFound:
        return PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE;
    case Result::Failed:
        break;
    }
    return PACKAGE_MANAGER_ERROR_SYSTEM_ERROR;
}

}  // namespace

extern "C" int package_manager_get_package_id_by_app_id(const char* app_id, char** package_id)
{
    if (tilvane::host::ShouldFail("package_manager_get_package_id_by_app_id")) {
        return PACKAGE_MANAGER_ERROR_SYSTEM_ERROR;
    }
    if (app_id == nullptr || package_id == nullptr) {
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    }
    std::string packageId;
    int result = ToPackageManagerError(tilvane::host::registry::FindPackageOfApp(app_id, packageId));
    if (result != PACKAGE_MANAGER_ERROR_NONE) {
        return result;
    }
    *package_id = strdup(packageId.c_str());
    return *package_id != nullptr ? PACKAGE_MANAGER_ERROR_NONE : PACKAGE_MANAGER_ERROR_OUT_OF_MEMORY;
}

extern "C" int package_manager_foreach_package_info(package_manager_package_info_cb callback, void* user_data)
{
    if (tilvane::host::ShouldFail("package_manager_foreach_package_info")) {
        return PACKAGE_MANAGER_ERROR_SYSTEM_ERROR;
    }
    if (callback == nullptr) {
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    }
    std::vector<tilvane::host::RegisteredPackage> packages;
    int result = ToPackageManagerError(tilvane::host::registry::ReadPackages(packages));
    if (result != PACKAGE_MANAGER_ERROR_NONE) {
        return result;
    }
    for (const tilvane::host::RegisteredPackage& package : packages) {
        package_info_s info;
        info.packageId = package.packageId;
        for (const tilvane::host::RegisteredApplication& app : package.applications) {
            info.appIds.push_back(app.appId);
        }
        if (!callback(&info, user_data)) {
            break;
        }
    }
    return PACKAGE_MANAGER_ERROR_NONE;
}

extern "C" int package_info_foreach_app_from_package(package_info_h package_info,
                                                     package_info_app_component_type_e comp_type,
                                                     package_info_app_cb callback, void* user_data)
{
    if (tilvane::host::ShouldFail("package_info_foreach_app_from_package")) {
        return PACKAGE_MANAGER_ERROR_IO_ERROR;
    }
    if (package_info == nullptr || callback == nullptr || comp_type < PACKAGE_INFO_APP_COMPONENT_TYPE_ALL ||
        comp_type > PACKAGE_INFO_APP_COMPONENT_TYPE_WATCH) {
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    }
    /* Every application of the host's registry is a UI application. */
    if (comp_type != PACKAGE_INFO_APP_COMPONENT_TYPE_ALL && comp_type != PACKAGE_INFO_APP_COMPONENT_TYPE_UI) {
        return PACKAGE_MANAGER_ERROR_NONE;
    }
    for (const std::string& appId : package_info->appIds) {
        if (!callback(PACKAGE_INFO_APP_COMPONENT_TYPE_UI, appId.c_str(), user_data)) {
            break;
        }
    }
    return PACKAGE_MANAGER_ERROR_NONE;
}

extern "C" int package_info_get_package(package_info_h package_info, char** package)
{
    if (tilvane::host::ShouldFail("package_info_get_package")) {
        return PACKAGE_MANAGER_ERROR_IO_ERROR;
    }
    if (package_info == nullptr || package == nullptr) {
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    }
    *package = strdup(package_info->packageId.c_str());
    return *package != nullptr ? PACKAGE_MANAGER_ERROR_NONE : PACKAGE_MANAGER_ERROR_OUT_OF_MEMORY;
}
