/*
 * Application information on the host, reading the application registry
 * (app_registry.cpp). A handle keeps the metadata read at its creation.
 */
#include "app_info.h"

#include <string.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "registry/app_registry.h"
#include "host_control/base.h"

struct app_info_s {
    std::string appId;
    std::string packageId;
    std::vector<std::pair<std::string, std::string>> metadata;
};

extern "C" int app_info_create(const char* app_id, app_info_h* app_info)
{
    if (tilvane::host::ShouldFail("app_info_create")) {
        return APP_MANAGER_ERROR_DB_FAILED;
    }
    if (app_id == nullptr || app_info == nullptr) {
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    }
    app_info_s* info = new (std::nothrow) app_info_s();
    if (info == nullptr) {
        return APP_MANAGER_ERROR_OUT_OF_MEMORY;
    }
    info->appId = app_id;
    using tilvane::host::registry::Result;
    Result result = tilvane::host::registry::ReadApplication(info->appId, info->packageId, info->metadata);
    if (result != Result::Ok) {
        delete info;
        return result == Result::NotFound ? APP_MANAGER_ERROR_NO_SUCH_APP : APP_MANAGER_ERROR_DB_FAILED;
    }
    *app_info = info;
    return APP_MANAGER_ERROR_NONE;
}

extern "C" int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void* user_data)
{
    if (tilvane::host::ShouldFail("app_info_foreach_metadata")) {
        return APP_MANAGER_ERROR_IO_ERROR;
    }
    if (app_info == nullptr || callback == nullptr) {
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    }
    for (const auto& entry : app_info->metadata) {
        if (!callback(entry.first.c_str(), entry.second.c_str(), user_data)) {
            break;
        }
    }
    return APP_MANAGER_ERROR_NONE;
}

extern "C" int app_info_get_package(app_info_h app_info, char** package)
{
    if (tilvane::host::ShouldFail("app_info_get_package")) {
        return APP_MANAGER_ERROR_IO_ERROR;
    }
    if (app_info == nullptr || package == nullptr) {
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    }
    *package = strdup(app_info->packageId.c_str());
    return *package != nullptr ? APP_MANAGER_ERROR_NONE : APP_MANAGER_ERROR_OUT_OF_MEMORY;
}

extern "C" int app_info_destroy(app_info_h app_info)
{
    if (tilvane::host::ShouldFail("app_info_destroy")) {
        return APP_MANAGER_ERROR_IO_ERROR;
    }
    if (app_info == nullptr) {
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    }
    delete app_info;
    return APP_MANAGER_ERROR_NONE;
}
