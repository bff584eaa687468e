#include "TilesProvider.h"

#include <unistd.h>

#include <cstdlib>

#include <message_port.h>
#include <package_manager.h>
#include <tzplatform_config.h>

#include "DBLock.h"
#include "DbHelper.h"
#include "MessageHelper.h"
#include "PermissionHelper.h"
#include "TilesModel.h"
#include "TilvaneLog.h"

namespace {

const char DB_LOCK_NAME[] = "CTilesProviderLock";
const char DB_FILE_NAME[] = ".preview.db";
const int DB_VERSION = 15;

const int DB_FILE_CHECK_TRIES = 3;
const useconds_t DB_FILE_CHECK_INTERVAL_US = 100000;

const char PREVIEW_EVENT_PORT_NAME[] = "preview-event-receiver";

/* Pseudo application ids of live-television sources and platform services:
 * they call the provider but are no installed packages. */
const char* const SELF_PACKAGE_IDS[] = {
    "livetv_antenna", "livetv_mbr_1",   "livetv_mbr_2", "livetv_mbr_3",    "livetv_mbr_4",         "livetv_dish",
    "livetv_twc",     "livetv_directv", "livetv_rvu",   "DownloadManager", "ContentServiceManager",
};

const int SYNC_EVENT_THREAD_ATTEMPTS = 5;

std::string DatabaseDirectory()
{
    const char* pPath = tzplatform_getenv(TZ_SYS_DB);
    return std::string(pPath != nullptr ? pPath : "") + "/";
}

}  // namespace

CTilesProvider* CTilesProvider::m_pTilesProvider = nullptr;
const std::string CTilesProvider::SYNC_EVENT_MESSAGE_PORT_APP_ID = "DownloadManager";
const std::string CTilesProvider::SYNC_EVENT_MESSAGE_PORT_NAME = "image_update_db";

/* Called only from the service-application loop's thread, so no lock. */
CTilesProvider* CTilesProvider::GetInstance()
{
    if (m_pTilesProvider == nullptr) {
        m_pTilesProvider = new CTilesProvider();
    }
    return m_pTilesProvider;
}

void CTilesProvider::ReleaseInstance()
{
    if (m_pTilesProvider != nullptr) {
        delete m_pTilesProvider;
        m_pTilesProvider = nullptr;
    }
}

CTilesProvider::CTilesProvider()
    : m_pPermissionHelper(nullptr)
    , m_pDbHelper(nullptr)
    , m_pDbLock(nullptr)
    , m_pSyncEventHelper(nullptr)
    , m_bDbCorrupted(false)
{
    m_pDbLock = new CDBLock(DB_LOCK_NAME);

    std::string directory = DatabaseDirectory();
    std::string path = directory + DB_FILE_NAME;

    // Only waits (and logs) while the file is missing; the helper creates it.
    isDBFileExist(path);

    m_pDbHelper = new CDbHelper(directory, DB_FILE_NAME, DB_VERSION);

    // Not initialised until the rest of the service is up.
    m_pSyncEventHelper = new CMessageHelper(PREVIEW_EVENT_PORT_NAME);

    if (m_pDbHelper != nullptr) {
        CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
        if (m_pDbHelper->CheckDBCorruption()) {
            m_bDbCorrupted = true;
            if (pConnection != nullptr) {
                LOGI("----------remove original file-----------");
                pConnection->DeleteDatabase(directory, DB_FILE_NAME);
            }
            m_pDbHelper->DisconnectDB();
            pConnection = m_pDbHelper->GetConnection();
        }
        // Make sure the schema exists on the connection in use.
        m_pDbHelper->OnCreate(pConnection);
    }

    m_pPermissionHelper = new CPermissionHelper();

    SeedPackageIdCache();

    if (m_pSyncEventHelper != nullptr) {
        m_pSyncEventHelper->Init();
    }
}

/* The message helper is not deleted: it lives, with its port, until the
 * process exits. */
CTilesProvider::~CTilesProvider()
{
    delete m_pPermissionHelper;
    m_pPermissionHelper = nullptr;

    delete m_pDbHelper;
    m_pDbHelper = nullptr;

    m_bDbCorrupted = false;
    m_packageIdCache.clear();

    delete m_pDbLock;
    m_pDbLock = nullptr;
}

bool CTilesProvider::isDBFileExist(std::string path)
{
    for (int i = 0; i < DB_FILE_CHECK_TRIES; ++i) {
        if (access(path.c_str(), F_OK) == 0) {
            return true;
        }
        LOGI("DB file is not exist");
        usleep(DB_FILE_CHECK_INTERVAL_US);
    }
    return false;
}

void CTilesProvider::SeedPackageIdCache()
{
    m_packageIdCache.clear();
    for (const char* pId : SELF_PACKAGE_IDS) {
        m_packageIdCache.insert(std::make_pair(pId, pId));
    }
}

CTilesProvider::TilesEvent CTilesProvider::GetSyncEvent(bundle* values)
{
    if (values == nullptr) {
        return TILES_EVENT_NONE;
    }

    const char* pValue = bundle_get_val(values, TilesModel::EVENT_TILES_SYNC_KEY);
    std::string value = (pValue != nullptr) ? pValue : "";
    if (value == TilesModel::EVENT_TILES_SYNC_STATUS_START) {
        LOGD("key = %s\tvalue = %s", TilesModel::EVENT_TILES_SYNC_KEY, value.c_str());
        return TILES_EVENT_SYNC_START;
    }
    if (value == TilesModel::EVENT_TILES_SYNC_STATUS_END) {
        LOGD("key = %s\tvalue = %s", TilesModel::EVENT_TILES_SYNC_KEY, value.c_str());
        return TILES_EVENT_SYNC_END;
    }
    return TILES_EVENT_NONE;
}

int CTilesProvider::SendSyncEvent(TilesEvent event, DbOperation operation, const char* appId,
                                  const char* sectionRawId, bool bDbChanged)
{
    if (event != TILES_EVENT_SYNC_END) {
        return -22;
    }

    std::string applicationId = (appId != nullptr) ? appId : "";
    std::string packageId = GetPackageId(applicationId);
    LOGD("AppId = %s\tPackageId = %s", applicationId.c_str(), packageId.c_str());

    bundle* pEvent = bundle_create();
    bundle_add_str(pEvent, TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, packageId.c_str());
    if (sectionRawId != nullptr) {
        bundle_add_str(pEvent, TilesModel::Tiles::TILE_SECTION_RAW_ID, sectionRawId);
    }
    if (!bDbChanged) {
        // A relayed end mark of the client's batch.
        bundle_add_str(pEvent, TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END);
    }
    if (operation == DB_OPERATION_DELETE) {
        bundle_add_str(pEvent, "OPERATION", "DELETE");
    }
    bundle_add_str(pEvent, "sync", "end");

    int result = 0;
    if (m_pSyncEventHelper != nullptr) {
        LOGI("Try to Send sync event appID %s\tPackageId = %s", applicationId.c_str(), packageId.c_str());
        result = m_pSyncEventHelper->Send(pEvent, true);
    } else {
        LOGI("m_pSyncEventHelper is NULL! ");
        result = -22;
    }

    bundle_free(pEvent);
    return result;
}

std::string CTilesProvider::GetPackageId(std::string appId)
{
    if (appId.empty()) {
        return "";
    }

    auto cached = m_packageIdCache.find(appId);
    if (cached != m_packageIdCache.end()) {
        LOGD("Using cached package ID[%s] for app ID[%s]", cached->second.c_str(), appId.c_str());
        return cached->second;
    }

    CDBLocalScopedLock lock(m_pDbLock);
    std::string packageId = appId;
    char* pPackageId = nullptr;
    if (package_manager_get_package_id_by_app_id(appId.c_str(), &pPackageId) == PACKAGE_MANAGER_ERROR_NONE &&
        pPackageId != nullptr) {
        packageId = pPackageId;
    }
    free(pPackageId);

    // Failures are cached too: the package manager is asked once per id.
    m_packageIdCache.insert(std::make_pair(appId, packageId));
    return packageId;
}

void* CTilesProvider::SendSyncEventThread(void* eventBundle)
{
    if (eventBundle == nullptr) {
        return nullptr;
    }

    bundle* pEvent = static_cast<bundle*>(eventBundle);
    bool bPortExists = false;
    for (int attempt = 0; attempt < SYNC_EVENT_THREAD_ATTEMPTS; ++attempt) {
        sleep(1);
        bool bExists = false;
        if (message_port_check_remote_port(SYNC_EVENT_MESSAGE_PORT_APP_ID.c_str(),
                                           SYNC_EVENT_MESSAGE_PORT_NAME.c_str(), &bExists) == MESSAGE_PORT_ERROR_NONE &&
            bExists) {
            bPortExists = true;
            int result = message_port_send_message(SYNC_EVENT_MESSAGE_PORT_APP_ID.c_str(),
                                                   SYNC_EVENT_MESSAGE_PORT_NAME.c_str(), pEvent);
            if (result == MESSAGE_PORT_ERROR_NONE) {
                LOGI("success to send sync event in thread : %d", result);
            } else {
                LOGI("failed to send event in thread : %d", result);
            }
            break;
        }
    }

    bundle_free(pEvent);
    if (!bPortExists) {
        LOGI("failed by Message port not ready");
    }
    return nullptr;
}
