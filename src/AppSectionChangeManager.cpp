#include "AppSectionChangeManager.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include <bundle_ptr.h>
#include <confinement_policy.h>
#include <message_port.h>
#include <qeb_app_list.h>
#include <system_info.h>
#include <tzplatform_config.h>

#include "ContentDbConnection.h"
#include "ContentHelper.h"
#include "DbHelper.h"
#include "SQLiteCursor.h"
#include "TilesModel.h"
#include "TilvaneLog.h"

/* The selected pay-TV operator. No operation reads it: live-television
 * packages are treated alike whatever operator is selected. */
const char* const SELECTED_MVPD_VCONF_KEY = "db/mvpd_list/selected_mvpd";

namespace {

const char BACKUP_DB_FILE_NAME[] = ".preview.db.sqlite";
const int BACKUP_DB_VERSION = 15;

const char ACCELERATOR_PORT[] = "accelerator_port";
const char LAUNCHER_EVENT_PORT[] = "launcher_event_port";
const int PORT_REGISTER_RETRIES = 60;

const char CONTENT_SERVICE_APP_ID[] = "ContentServiceManager";
const char CONTENT_SERVICE_PORT[] = "CONTENT_SERVICE_ACCELERATOR_EVENT_PORT";

const int SYSTEM_INFO_GLAZE_MODE = 583;
const char GLAZE_APP_PACKAGE[] = "org.tizen.glaze-app";

const char* const PREINSTALLED_PACKAGES[] = {
    "livetv_antenna", "livetv_mbr_1", "livetv_mbr_2", "livetv_mbr_3", "livetv_mbr_4", "livetv_none_mbr",
};

const char LIVE_TV_PREFIX[] = "livetv_";
const char PLATFORM_PACKAGE_PREFIX[] = "org.korro";

const int QEB_LIST_ALL = 65535;

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::strlen(prefix), prefix) == 0 && text.size() >= std::strlen(prefix);
}

/* A string value of the bundle, or null. */
const char* GetString(bundle* message, const char* key)
{
    char* pValue = nullptr;
    if (message == nullptr || bundle_get_str(message, key, &pValue) != BUNDLE_ERROR_NONE) {
        return nullptr;
    }
    return pValue;
}

void AddFormatted(bundle* values, const char* key, const char* value)
{
    if (value != nullptr) {
        bundle_add_str(values, key, CContentHelper::ToSQLFormat(value).c_str());
    }
}

/* Registers `port`, retrying once a second for a minute while it fails. */
int32_t RegisterPort(const char* port, message_port_message_cb callback, void* userData)
{
    int32_t portId = message_port_register_local_port(port, callback, userData);
    if (portId < 0) {
        for (int attempt = 0; attempt < PORT_REGISTER_RETRIES; ++attempt) {
            if (std::strcmp(port, ACCELERATOR_PORT) == 0) {
                LOGI("failed to message_port_register_local_port(accelerator_port) : %d", portId);
            } else {
                LOGI("failed to message_port_register_local_port(launcher_event_port) : %d", portId);
            }
            sleep(1);
            portId = message_port_register_local_port(port, callback, userData);
            if (portId >= 0) {
                LOGI("message port is ready : %d", attempt);
                break;
            }
        }
    }
    return portId;
}

}  // namespace

CAppSectionChangeManager::CAppSectionChangeManager(CContentHelper* pDbHelper)
    : m_acceleratorPortId(-1)
    , m_launcherEventPortId(-1)
    , m_pDbHelper(pDbHelper)
    , m_pBackupDbHelper(nullptr)
{
    const char* pDbPath = tzplatform_getenv(TZ_SYS_DB);
    std::string directory = std::string(pDbPath != nullptr ? pDbPath : "") + "/";
    m_pBackupDbHelper = new CDbHelper(directory, BACKUP_DB_FILE_NAME, BACKUP_DB_VERSION);
    if (m_pBackupDbHelper != nullptr) {
        m_pBackupDbHelper->OnCreate(m_pBackupDbHelper->GetConnection());
    }

    m_acceleratorPortId = RegisterPort(ACCELERATOR_PORT, MessagePortCB, this);
    m_launcherEventPortId = RegisterPort(LAUNCHER_EVENT_PORT, MessagePortCB, this);

    bool bGlazeMode = false;
    if (system_info_get_value_bool(SYSTEM_INFO_GLAZE_MODE, &bGlazeMode) != SYSTEM_INFO_ERROR_NONE) {
        bGlazeMode = false;
    }

    std::list<std::string> preinstalled(std::begin(PREINSTALLED_PACKAGES), std::end(PREINSTALLED_PACKAGES));
    if (bGlazeMode) {
        LOGI("glaze-app is needed to add preinstalled package");
        preinstalled.push_back(GLAZE_APP_PACKAGE);
    }

    for (const std::string& package : preinstalled) {
        if (InstallEnabledEntry(package) > 0) {
            LOGI("Added an package");
        }
    }
}

CAppSectionChangeManager::~CAppSectionChangeManager()
{
    int result = message_port_unregister_local_port(m_acceleratorPortId);
    if (result != 0) {
        LOGI("failed to message_port_unregister_local_port(accelerator_port) : %d", result);
    }
    result = message_port_unregister_local_port(m_launcherEventPortId);
    if (result != 0) {
        LOGI("failed to message_port_unregister_local_port(launcher_event_port) : %d", result);
    }
    delete m_pBackupDbHelper;
    m_pBackupDbHelper = nullptr;
}

namespace {

/* Under strict confinement, install, uninstall and visibility messages are
 * acted on only for the platform (confinement_policy_sender_is_platform); the
 * default mode acts for anyone. */
bool ActsForSender(const char* remoteAppId, const char* messageKind)
{
    if (!confinement_policy_is_strict() || confinement_policy_sender_is_platform(remoteAppId)) {
        return true;
    }
    std::string reason = std::string(messageKind) + " message from " +
                         (remoteAppId != nullptr ? remoteAppId : "(unknown)") +
                         " dropped: not a platform sender";
    confinement_policy_refuse(CONFINEMENT_RULE_TRUSTED_SENDER, reason.c_str());
    return false;
}

}  // namespace

void CAppSectionChangeManager::MessagePortCB(int localPortId, const char* remoteAppId, const char* remotePort,
                                             bool trustedRemotePort, bundle* message, void* userData)
{
    if (remoteAppId != nullptr) {
        LOGI("received message from %s:%s", remoteAppId, remotePort != nullptr ? remotePort : "");
    } else {
        LOGI("received message from Message port");
    }

    CAppSectionChangeManager* pManager = static_cast<CAppSectionChangeManager*>(userData);
    if (pManager == nullptr) {
        return;
    }
    if (localPortId == pManager->m_acceleratorPortId) {
        pManager->HandleAcceleratorEvent(localPortId, remoteAppId, remotePort, trustedRemotePort, message, userData);
    } else if (localPortId == pManager->m_launcherEventPortId) {
        pManager->HandleLauncherEvent(localPortId, remoteAppId, remotePort, trustedRemotePort, message, userData);
    }
}

void CAppSectionChangeManager::HandleAcceleratorEvent(int /*localPortId*/, const char* remoteAppId,
                                                      const char* remotePort, bool /*trustedRemotePort*/,
                                                      bundle* message, void* /*userData*/)
{
    const char* pAction = GetString(message, "action");
    if (pAction == nullptr) {
        return;
    }

    // Text that does not start with a number converts to 0: an install.
    long action = std::strtol(pAction, nullptr, 10);
    if (action == 0) {
        if (!ActsForSender(remoteAppId, "install")) {
            return;
        }
        long long acceleratorId = HandleAppInstall(message);
        LOGI("Accelerator Id = %lld", acceleratorId);

        char idText[20] = {0};
        snprintf(idText, sizeof(idText), "%lld", acceleratorId);

        const char* pPackageName = GetString(message, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);

        BundlePtr pReply = MakeBundle();
        bundle_add_str(pReply.get(), TilesModel::Accelerators::_ID, idText);
        if (pPackageName != nullptr) {
            bundle_add_str(pReply.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, pPackageName);
        }
        int result = message_port_send_message(remoteAppId, remotePort, pReply.get());
        if (result != 0) {
            LOGI("failed to message_port_send_message : %d", result);
        }
    } else if (action == 1) {
        if (!ActsForSender(remoteAppId, "uninstall")) {
            return;
        }
        LOGI("uninstall app");
        HandleAppUninstall(message);
    }
}

void CAppSectionChangeManager::HandleLauncherEvent(int /*localPortId*/, const char* remoteAppId,
                                                   const char* /*remotePort*/, bool /*trustedRemotePort*/,
                                                   bundle* message, void* /*userData*/)
{
    if (m_pDbHelper == nullptr) {
        LOGE("m_pDbHelper is NULL !!");
        return;
    }

    const char* pVisibility = GetString(message, "visibility");
    if (pVisibility == nullptr) {
        return;
    }
    std::string visibility = pVisibility;
    if (visibility != "visible" && visibility != "hidden") {
        return;
    }
    if (!ActsForSender(remoteAppId, "visibility")) {
        return;
    }

    CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
    if (pConnection == nullptr) {
        return;
    }

    const char* pPackageName = GetString(message, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);

    BundlePtr pValues = MakeBundle();
    bundle_add_str(pValues.get(), TilesModel::Accelerators::ACCELERATOR_ENABLED,
                   visibility == "visible" ? TilesModel::Accelerators::AcceleratorStatus::ENABLED
                                           : TilesModel::Accelerators::AcceleratorStatus::DISABLED);

    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?";
    std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(pPackageName)};

    int result = pConnection->UpdateRequest(table, pValues.get(), where, whereArgs);
    if (result != 0) {
        LOGI("failed to update %s event", visibility.c_str());
    } else {
        result = message_port_send_message(CONTENT_SERVICE_APP_ID, CONTENT_SERVICE_PORT, message);
        if (result == 0) {
            LOGI("success to send %s event", visibility.c_str());
        } else {
            LOGI("failed to send %s event", visibility.c_str());
        }
    }
}

int64_t CAppSectionChangeManager::HandleAppInstall(bundle* message)
{
    const char* pAppPkgName = GetString(message, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);
    if (pAppPkgName == nullptr) {
        LOGI("pAppPkgName is NULL");
        return -1;
    }
    if (std::strlen(pAppPkgName) == 0) {
        LOGI("Length of pAppPkgName is zero");
        return -1;
    }
    std::string packageName = pAppPkgName;

    if (m_pDbHelper == nullptr) {
        LOGE("m_pDbHelper is NULL !!");
        return -1;
    }
    CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
    if (pConnection == nullptr) {
        LOGI("Failed to connect preview DB");
        return -1;
    }

    int64_t existingId = GetAcceleratorID(m_pDbHelper, packageName);
    if (existingId > 0) {
        return existingId;
    }

    BundlePtr pValues = AcceleratorRow(message, packageName);
    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    // The result is not examined: a failed insert gives the connection's
    // previous last row id.
    pConnection->InsertRequest(table, pValues.get());
    int64_t acceleratorId = pConnection->GetLastInsertRowID();

    if (m_pBackupDbHelper != nullptr) {
        CContentDbConnection* pBackupConnection = m_pBackupDbHelper->GetConnection();
        if (pBackupConnection != nullptr && GetAcceleratorID(m_pBackupDbHelper, packageName) <= 0) {
            pBackupConnection->InsertRequest(table, pValues.get());
        }
    }
    return acceleratorId;
}

/* The accelerator row of an install message: its values in SQL form, and the
 * package's web-application store id where it has one. */
BundlePtr CAppSectionChangeManager::AcceleratorRow(bundle* message, const std::string& packageName)
{
    namespace Accelerators = TilesModel::Accelerators;
    namespace Internal = TilesInternalModel::Accelerators;
    BundlePtr pValues = MakeBundle();
    AddFormatted(pValues.get(), Accelerators::ACCELERATOR_ENABLED, GetString(message, Accelerators::ACCELERATOR_ENABLED));
    AddFormatted(pValues.get(), Internal::ACCELERATOR_APP_PKG_NAME, packageName.c_str());
    for (const char* key : {Accelerators::ACCELERATOR_ICON, Accelerators::ACCELERATOR_ICON_UNFOCUSED,
                            Internal::ACCELERATOR_POSITION, Accelerators::ACCELERATOR_TITLE,
                            Accelerators::ACCELERATOR_ID}) {
        AddFormatted(pValues.get(), key, GetString(message, key));
    }

    // Live television, platform packages and the glaze application have no
    // web-application store entry.
    bool bWebApp = !StartsWith(packageName, LIVE_TV_PREFIX) && !StartsWith(packageName, PLATFORM_PACKAGE_PREFIX) &&
                   packageName != GLAZE_APP_PACKAGE;
    if (bWebApp) {
        std::string webAppId = GetQEBAppId(packageName);
        bundle_add_str(pValues.get(), Internal::ACCELERATOR_QEB_WEB_APP_ID,
                       CContentHelper::ToSQLFormat(webAppId).c_str());
    }
    return pValues;
}

/* An enabled launcher entry for the package; its row id, or -1. */
int64_t CAppSectionChangeManager::InstallEnabledEntry(const std::string& packageName)
{
    BundlePtr pValues = MakeBundle();
    bundle_add_str(pValues.get(), TilesModel::Accelerators::ACCELERATOR_ENABLED,
                   TilesModel::Accelerators::AcceleratorStatus::ENABLED);
    bundle_add_str(pValues.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME,
                   CContentHelper::ToSQLFormat(packageName).c_str());
    return HandleAppInstall(pValues.get());
}

void CAppSectionChangeManager::HandleAppUninstall(bundle* message)
{
    if (m_pDbHelper == nullptr) {
        LOGE("m_pDbHelper is NULL !!");
        return;
    }
    const char* pPackageName = GetString(message, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);
    if (pPackageName == nullptr) {
        return;
    }

    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?";
    std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(pPackageName)};

    CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
    if (pConnection != nullptr) {
        pConnection->DeleteRequest(table, where, whereArgs);
    }
    if (m_pBackupDbHelper != nullptr) {
        CContentDbConnection* pBackupConnection = m_pBackupDbHelper->GetConnection();
        if (pBackupConnection != nullptr) {
            pBackupConnection->DeleteRequest(table, where, whereArgs);
        }
    }
}

std::string CAppSectionChangeManager::GetQEBAppId(std::string packageName)
{
    std::string webAppId;
    void* pList = nullptr;
    int count = 0;
    int result = qeb_get_app_list(QEB_LIST_ALL, QEB_LIST_ALL, QEB_LIST_ALL, 1, 0, 0, &pList, &count);
    if (result != 0) {
        LOGI("failed to get app list");
        if (pList != nullptr) {
            free(pList);
        }
        return "";
    }

    const char* pRecords = static_cast<const char*>(pList);
    for (int i = 0; pRecords != nullptr && i < count; ++i) {
        const char* pRecord = pRecords + static_cast<size_t>(i) * QEB_APP_RECORD_SIZE;
        if (packageName == pRecord + QEB_APP_RECORD_PACKAGE_OFFSET) {
            webAppId = pRecord + QEB_APP_RECORD_WEB_APP_ID_OFFSET;
            LOGI("WebappId = %s", webAppId.c_str());
            break;
        }
    }
    if (webAppId.empty()) {
        LOGI("Not found this package [%s]", packageName.c_str());
    }
    free(pList);
    return webAppId;
}

bool CAppSectionChangeManager::GetPackageInfoCB(package_info_h packageInfo, void* userData)
{
    std::list<std::string>* pNames = static_cast<std::list<std::string>*>(userData);
    if (pNames == nullptr) {
        LOGI("Invalid Parameter");
        return false;
    }

    bool bSupported = false;
    if (package_info_foreach_app_from_package(packageInfo, PACKAGE_INFO_APP_COMPONENT_TYPE_ALL, GetPackageInfoAppCB,
                                              &bSupported) != PACKAGE_MANAGER_ERROR_NONE) {
        return true;
    }
    if (!bSupported) {
        return true;
    }

    char* pPackage = nullptr;
    if (package_info_get_package(packageInfo, &pPackage) != PACKAGE_MANAGER_ERROR_NONE) {
        return true;
    }
    if (pPackage != nullptr) {
        pNames->push_back(pPackage);
        LOGI("Add Nimbe Package : %s", pPackage);
        free(pPackage);
    } else {
        LOGI("Error : get Package name");
    }
    return true;
}

bool CAppSectionChangeManager::GetPackageInfoAppCB(package_info_app_component_type_e /*componentType*/,
                                                   const char* appId, void* userData)
{
    if (appId == nullptr || userData == nullptr) {
        LOGI("app id or user data is NULL pointer, skip ");
        return false;
    }
    app_info_h appInfo = nullptr;
    if (app_info_create(appId, &appInfo) == APP_MANAGER_ERROR_NONE) {
        if (app_info_foreach_metadata(appInfo, GetSupportNimbeCB, userData) != APP_MANAGER_ERROR_NONE) {
            LOGI("failed to call metadata callback");
        }
        app_info_destroy(appInfo);
    } else {
        LOGI("failed to call metadata callback");
    }
    return true;
}

bool CAppSectionChangeManager::GetSupportNimbeCB(const char* metadataKey, const char* /*metadataValue*/,
                                                 void* userData)
{
    if (metadataKey == nullptr || userData == nullptr) {
        LOGI("metadata_key or user data is NULL pointer, skip ");
        return false;
    }
    if (std::strcmp(metadataKey, AppMetadata::USE_ACCELERATOR) == 0 ||
        std::strcmp(metadataKey, AppMetadata::USE_PREVIEW) == 0) {
        *static_cast<bool*>(userData) = true;
    }
    return true;
}

int64_t CAppSectionChangeManager::GetAcceleratorID(CContentHelper* pDbHelper, std::string packageName)
{
    int64_t acceleratorId = -1;
    if (pDbHelper == nullptr) {
        return -1;
    }

    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::vector<std::string> projection = {TilesModel::Accelerators::_ID};
    std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?";
    std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(packageName)};

    CContentDbConnection* pConnection = pDbHelper->GetConnection();
    if (pConnection == nullptr) {
        return -1;
    }
    std::shared_ptr<ISQLiteCursor> pCursor = pConnection->SelectRequest(table, projection, where, whereArgs, "", "");
    while (pCursor != nullptr && pCursor->Step() == ISQLiteCursor::STEP_ROW) {
        int64_t value = -1;
        if (pCursor->GetInt64(0, value)) {
            acceleratorId = value;
            break;
        }
    }
    pCursor.reset();
    return acceleratorId;
}

std::vector<int64_t> CAppSectionChangeManager::GetSectionID(CContentHelper* pDbHelper, std::string packageName)
{
    LOGD("Enter");
    std::vector<int64_t> sectionIds;
    if (pDbHelper == nullptr) {
        return sectionIds;
    }

    long long acceleratorId = GetAcceleratorID(pDbHelper, packageName);
    LOGD("pacakge [%s] lAcceleratorId is : %lld", packageName.c_str(), acceleratorId);

    std::ostringstream idText;
    idText << acceleratorId;

    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI);
    std::vector<std::string> projection = {TilesModel::Sections::_ID};
    std::string where = std::string(TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID) + " = ?";
    std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(idText.str())};

    CContentDbConnection* pConnection = pDbHelper->GetConnection();
    if (pConnection == nullptr) {
        return sectionIds;
    }
    std::shared_ptr<ISQLiteCursor> pCursor = pConnection->SelectRequest(table, projection, where, whereArgs, "", "");
    while (pCursor != nullptr && pCursor->Step() == ISQLiteCursor::STEP_ROW) {
        int64_t value = -1;
        if (pCursor->GetInt64(0, value) && value > 0) {
            LOGD("pacakge [%s] section ID : %lld", packageName.c_str(), static_cast<long long>(value));
            sectionIds.push_back(value);
        }
    }
    return sectionIds;
}

void CAppSectionChangeManager::HandleClearContentsByPkgName(std::string packageName)
{
    LOGD("Enter");
    if (m_pDbHelper == nullptr) {
        LOGE("m_pDbHelper is NULL !!");
        return;
    }
    CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
    if (pConnection == nullptr) {
        LOGE("pConnection is NULL !!");
        return;
    }

    std::vector<int64_t> sectionIds = GetSectionID(m_pDbHelper, packageName);
    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI);
    std::string where = std::string(TilesModel::Sections::_ID) + " = ?";
    for (int64_t sectionId : sectionIds) {
        std::ostringstream idText;
        idText << sectionId;
        std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(idText.str())};
        pConnection->DeleteRequest(table, where, whereArgs);
        LOGD("Delete section ID : %s[%s]", packageName.c_str(), idText.str().c_str());
    }
}

void CAppSectionChangeManager::ClearTiles(std::list<std::string> packageNames)
{
    LOGI("ClearTiles Request");
    for (const std::string& packageName : packageNames) {
        HandleClearContentsByPkgName(packageName);
    }
}

bool CAppSectionChangeManager::RecoverInstalledPackages()
{
    std::list<std::string> packageNames;
    int result = package_manager_foreach_package_info(GetPackageInfoCB, &packageNames);
    if (result != PACKAGE_MANAGER_ERROR_NONE) {
        LOGI("foreach_package_info error : %d", result);
        return false;
    }
    if (packageNames.empty()) {
        return true;
    }

    for (const std::string& packageName : packageNames) {
        InstallEnabledEntry(packageName);
        LOGI("Recovered package %s", packageName.c_str());
    }
    return true;
}

bool CAppSectionChangeManager::RefreshLauncherItemFromBackup()
{
    if (m_pBackupDbHelper == nullptr) {
        LOGI("Skip! : Preview DB backup is not opened");
        return false;
    }

    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::vector<std::string> projection = {TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME};
    std::vector<std::string> whereArgs;

    std::shared_ptr<ISQLiteCursor> pCursor;
    CContentDbConnection* pBackupConnection = m_pBackupDbHelper->GetConnection();
    if (pBackupConnection != nullptr) {
        pCursor = pBackupConnection->SelectRequest(table, projection, "", whereArgs, "", "");
    }
    if (pCursor == nullptr) {
        LOGI("BackupDB : Fail to get list");
        return false;
    }

    std::list<std::string> packageNames;
    while (pCursor->Step() == ISQLiteCursor::STEP_ROW) {
        std::string name;
        if (pCursor->GetString(0, name)) {
            packageNames.push_back(name);
        }
    }
    pCursor.reset();
    LOGI("BackupDB : package(%d)", static_cast<int>(packageNames.size()));

    for (const std::string& packageName : packageNames) {
        InstallEnabledEntry(packageName);
    }

    LOGI("Finish refreshing Launcher Item  ");
    return true;
}
