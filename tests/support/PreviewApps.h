/*
 * Installed applications for tests and benchmarks: header-only, so that the
 * benchmark program, which does not link the test support, shares it.
 */
#ifndef TILVANE_TEST_PREVIEW_APPS_H
#define TILVANE_TEST_PREVIEW_APPS_H

#include <string>

#include <host_control.h>

#include "PermissionHelper.h"
#include "TilesModel.h"

namespace tilvane {
namespace test {

/* Installs, in the registry of the current platform root, a package with one
 * application that uses preview and declares the public read and write
 * privileges: a launcher client of level 1. False, with the registry's reason
 * in `error` when given, when the registry refused it. */
inline bool InstallPreviewWriter(const std::string& packageId, const std::string& appId, std::string* error = nullptr)
{
    host::RegisteredPackage package;
    package.packageId = packageId;
    package.applications.push_back(
        {appId,
         {{AppMetadata::USE_PREVIEW, "true"},
          {TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION, CPermissionHelper::READ_TILES},
          {TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION, CPermissionHelper::WRITE_TILES}}});
    return host::InstallPackage(package, error);
}

}  // namespace test
}  // namespace tilvane

#endif
