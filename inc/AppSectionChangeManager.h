/*
 * Keeps the accelerators table in step with the applications on the device and
 * with what the launcher reports. It keeps a backup copy of the accelerators
 * (".preview.db.sqlite"), listens on "accelerator_port" (install and uninstall
 * requests) and "launcher_event_port" (visibility changes), makes sure the
 * live-television launcher entries exist, and clears the sections of packages
 * on request.
 */
#ifndef TILVANE_APP_SECTION_CHANGE_MANAGER_H
#define TILVANE_APP_SECTION_CHANGE_MANAGER_H

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <app_info.h>
#include <bundle.h>
#include <bundle_ptr.h>
#include <package_manager.h>

class CContentHelper;
class CDbHelper;

class CAppSectionChangeManager
{
public:
    /* `pDbHelper` is the main tiles database helper; it is not owned. */
    explicit CAppSectionChangeManager(CContentHelper* pDbHelper);
    ~CAppSectionChangeManager();

    CAppSectionChangeManager(const CAppSectionChangeManager&) = delete;
    CAppSectionChangeManager& operator=(const CAppSectionChangeManager&) = delete;

    /* The one callback of both local ports; the manager is the user data. */
    static void MessagePortCB(int localPortId, const char* remoteAppId, const char* remotePort,
                              bool trustedRemotePort, bundle* message, void* userData);
    void HandleAcceleratorEvent(int localPortId, const char* remoteAppId, const char* remotePort,
                                bool trustedRemotePort, bundle* message, void* userData);
    void HandleLauncherEvent(int localPortId, const char* remoteAppId, const char* remotePort,
                             bool trustedRemotePort, bundle* message, void* userData);

    /* Adds the package's accelerator to both databases; its row id, or -1. */
    int64_t HandleAppInstall(bundle* message);
    /* Deletes the package's accelerator from both databases. */
    void HandleAppUninstall(bundle* message);
    /* The web-application store id of a package, or "". */
    std::string GetQEBAppId(std::string packageName);

    static bool GetPackageInfoCB(package_info_h packageInfo, void* userData);
    static bool GetPackageInfoAppCB(package_info_app_component_type_e componentType, const char* appId,
                                    void* userData);
    static bool GetSupportNimbeCB(const char* metadataKey, const char* metadataValue, void* userData);

    /* The package's accelerator row id in the database of `pDbHelper`, or -1. */
    int64_t GetAcceleratorID(CContentHelper* pDbHelper, std::string packageName);
    /* The row ids of the package's sections, in row order. */
    std::vector<int64_t> GetSectionID(CContentHelper* pDbHelper, std::string packageName);
    /* Deletes the package's sections (and so their tiles) from the main database. */
    void HandleClearContentsByPkgName(std::string packageName);
    void ClearTiles(std::list<std::string> packageNames);

    /* Launcher entries for every installed package that declares launcher support. */
    bool RecoverInstalledPackages();
    /* Launcher entries for every package of the backup database. */
    bool RefreshLauncherItemFromBackup();

private:
    BundlePtr AcceleratorRow(bundle* message, const std::string& packageName);
    int64_t InstallEnabledEntry(const std::string& packageName);

    int32_t m_acceleratorPortId;
    int32_t m_launcherEventPortId;
    CContentHelper* m_pDbHelper;
    CDbHelper* m_pBackupDbHelper;

    friend class CAppSectionChangeManagerTestAccess;
};

#endif
