#include "TilesProvider.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <list>

#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

#include <sqlite3.h>

#include <data_control.h>
#include <message_port.h>
#include <package_manager.h>
#include <tzplatform_config.h>
#include <device_power.h>
#include <vconf.h>

#include "AppSectionChangeManager.h"
#include "DBLock.h"
#include "DbHelper.h"
#include "MessageHelper.h"
#include "PermissionHelper.h"
#include "QueryGenerator.h"
#include "SharedQueryObject.h"
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
    : m_pAppSectionChangeManager(nullptr)
    , m_pPermissionHelper(nullptr)
    , m_pDbHelper(nullptr)
    , m_pDbLock(nullptr)
    , m_pSyncEventHelper(nullptr)
    , m_bDbCorrupted(false)
    , m_bPowerOffSubscribed(false)
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

    m_pAppSectionChangeManager = new CAppSectionChangeManager(m_pDbHelper);

    m_pPermissionHelper = new CPermissionHelper();

    if (m_pAppSectionChangeManager != nullptr) {
        m_pAppSectionChangeManager->RefreshLauncherItemFromBackup();
    }

    registerDatabaseCB();
    InitializeDatacontrolProvider();

    // The factory-reset watcher and the content-hub reset watch.
    WatchResets();

    SeedPackageIdCache();

    if (m_pSyncEventHelper != nullptr) {
        m_pSyncEventHelper->Init();
    }
}

/* The message helper is not deleted: it lives, with its port, until the
 * process exits. */
CTilesProvider::~CTilesProvider()
{
    delete m_pAppSectionChangeManager;
    m_pAppSectionChangeManager = nullptr;

    delete m_pPermissionHelper;
    m_pPermissionHelper = nullptr;

    delete m_pDbHelper;
    m_pDbHelper = nullptr;

    unregisterDatabaseCB();
    DeinitializeDatacontrolProvider();

    if (m_bPowerOffSubscribed) {
        device_power_unsubscribe_poweroff(PowerOffCB);
        m_bPowerOffSubscribed = false;
    }

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

/* ---- request handling ------------------------------------------------------ */

namespace {

const char BULK_UPDATE_ROW_ID_KEY[] = "bulk_update_row_id_key";
const char BULK_UPDATE_WHERE[] = "_id = ?";

const int FIRST_REGISTRATION_RETRIES = 60;
const useconds_t FIRST_REGISTRATION_RETRY_INTERVAL_US = 500000;

CTilesProvider::PlatformTextHolder NoText()
{
    return CTilesProvider::PlatformTextHolder(nullptr, &free);
}

/* Inserts, updates and deletes may touch only the sections and tiles tables. */
bool IsWritableUri(const std::string& uri)
{
    return uri == TilesModel::Sections::CONTENT_URI || uri == TilesModel::Tiles::CONTENT_URI;
}

/* One (kind, table) pair of the content library's callbacks, with its texts. */
struct DatabaseCallbackRegistration
{
    std::function<bool()> Register;
    std::function<bool()> Unregister;
    const char* registerFailure;
    const char* unregisterFailure;
};

/* The 21 registrations in their order: kinds insert, insert bulk, delete,
 * select, update, update bulk, get id; within a kind Accelerators, Sections,
 * Tiles. The bulk-insert removals report with the plain insert texts, and the
 * removal texts say "get ID" where registration says "get id  "; both kept. */
std::vector<DatabaseCallbackRegistration> DatabaseCallbackRegistrations(CTilesProvider* pProvider)
{
    const std::string accelerators = TilesModel::Accelerators::CONTENT_URI;
    const std::string sections = TilesModel::Sections::CONTENT_URI;
    const std::string tiles = TilesModel::Tiles::CONTENT_URI;

    auto entry = [](std::function<bool()> doRegister, std::function<bool()> doUnregister, const char* registerFailure,
                    const char* unregisterFailure) {
        return DatabaseCallbackRegistration{doRegister, doUnregister, registerFailure, unregisterFailure};
    };
    ContentInsertCallback insertCB = &CTilesProvider::InsertRequestCB;
    ContentBulkInsertCallback bulkInsertCB = &CTilesProvider::InsertRequestCB;
    ContentDeleteCallback deleteCB = &CTilesProvider::DeleteRequestCB;
    ContentSelectCallback selectCB = &CTilesProvider::SelectRequestCB;
    ContentUpdateCallback updateCB = &CTilesProvider::UpdateRequestCB;
    ContentBulkUpdateCallback bulkUpdateCB = &CTilesProvider::UpdateRequestCB;
    ContentGetIdCallback getIdCB = &CTilesProvider::GetRowIDRequestCB;
    void* pUserData = pProvider;

    return {
        entry([=] { return register_insert_db_callback(std::string(accelerators), insertCB, pUserData); },
              [=] { return unregister_insert_db_callback(std::string(accelerators)); },
              "failed to register insert callback for Accelerators table",
              "failed to unregister insert callback for Accelerators table"),
        entry([=] { return register_insert_db_callback(std::string(sections), insertCB, pUserData); },
              [=] { return unregister_insert_db_callback(std::string(sections)); },
              "failed to register insert callback for Sections table",
              "failed to unregister insert callback for Sections table"),
        entry([=] { return register_insert_db_callback(std::string(tiles), insertCB, pUserData); },
              [=] { return unregister_insert_db_callback(std::string(tiles)); },
              "failed to register insert callback for Tiles table",
              "failed to unregister insert callback for Tiles table"),

        entry([=] { return register_insert_db_callback_for_bulkdata(std::string(accelerators), bulkInsertCB, pUserData); },
              [=] { return unregister_insert_db_callback_for_bulkdata(std::string(accelerators)); },
              "failed to register insert bulk data callback for Accelerators table",
              "failed to unregister insert callback for Accelerators table"),
        entry([=] { return register_insert_db_callback_for_bulkdata(std::string(sections), bulkInsertCB, pUserData); },
              [=] { return unregister_insert_db_callback_for_bulkdata(std::string(sections)); },
              "failed to register insert bulk data callback for Sections table",
              "failed to unregister insert callback for Sections table"),
        entry([=] { return register_insert_db_callback_for_bulkdata(std::string(tiles), bulkInsertCB, pUserData); },
              [=] { return unregister_insert_db_callback_for_bulkdata(std::string(tiles)); },
              "failed to register insert bulk data callback for Tiles table",
              "failed to unregister insert callback for Tiles table"),

        entry([=] { return register_delete_db_callback(std::string(accelerators), deleteCB, pUserData); },
              [=] { return unregister_delete_db_callback(std::string(accelerators)); },
              "failed to register delete callback for Accelerators table",
              "failed to unregister delete callback for Accelerators table"),
        entry([=] { return register_delete_db_callback(std::string(sections), deleteCB, pUserData); },
              [=] { return unregister_delete_db_callback(std::string(sections)); },
              "failed to register delete callback for Sections table",
              "failed to unregister delete callback for Sections table"),
        entry([=] { return register_delete_db_callback(std::string(tiles), deleteCB, pUserData); },
              [=] { return unregister_delete_db_callback(std::string(tiles)); },
              "failed to register delete callback for Tiles table",
              "failed to unregister delete callback for Tiles table"),

        entry([=] { return register_select_db_callback(std::string(accelerators), selectCB, pUserData); },
              [=] { return unregister_select_db_callback(std::string(accelerators)); },
              "failed to register select callback for Accelerators table",
              "failed to unregister select callback for Accelerators table"),
        entry([=] { return register_select_db_callback(std::string(sections), selectCB, pUserData); },
              [=] { return unregister_select_db_callback(std::string(sections)); },
              "failed to register select callback for Sections table",
              "failed to unregister select callback for Sections table"),
        entry([=] { return register_select_db_callback(std::string(tiles), selectCB, pUserData); },
              [=] { return unregister_select_db_callback(std::string(tiles)); },
              "failed to register select callback for Tiles table",
              "failed to unregister select callback for Tiles table"),

        entry([=] { return register_update_db_callback(std::string(accelerators), updateCB, pUserData); },
              [=] { return unregister_update_db_callback(std::string(accelerators)); },
              "failed to register update callback for Accelerators table",
              "failed to unregister update callback for Accelerators table"),
        entry([=] { return register_update_db_callback(std::string(sections), updateCB, pUserData); },
              [=] { return unregister_update_db_callback(std::string(sections)); },
              "failed to register update callback for Sections table",
              "failed to unregister update callback for Sections table"),
        entry([=] { return register_update_db_callback(std::string(tiles), updateCB, pUserData); },
              [=] { return unregister_update_db_callback(std::string(tiles)); },
              "failed to register update callback for Tiles table",
              "failed to unregister update callback for Tiles table"),

        entry([=] { return register_update_db_callback_for_bulkdata(std::string(accelerators), bulkUpdateCB, pUserData); },
              [=] { return unregister_update_db_callback_for_bulkdata(std::string(accelerators)); },
              "failed to register update bulk data callback for Accelerators table",
              "failed to unregister update bulk data callback for Accelerators table"),
        entry([=] { return register_update_db_callback_for_bulkdata(std::string(sections), bulkUpdateCB, pUserData); },
              [=] { return unregister_update_db_callback_for_bulkdata(std::string(sections)); },
              "failed to register update bulk data callback for Sections table",
              "failed to unregister update bulk data callback for Sections table"),
        entry([=] { return register_update_db_callback_for_bulkdata(std::string(tiles), bulkUpdateCB, pUserData); },
              [=] { return unregister_update_db_callback_for_bulkdata(std::string(tiles)); },
              "failed to register update bulk data callback for Tiles table",
              "failed to unregister update bulk data callback for Tiles table"),

        entry([=] { return register_get_id_db_callback(std::string(accelerators), getIdCB, pUserData); },
              [=] { return unregister_get_id_db_callback(std::string(accelerators)); },
              "failed to register get id  callback for Accelerators table",
              "failed to unregister get ID callback for Accelerators table"),
        entry([=] { return register_get_id_db_callback(std::string(sections), getIdCB, pUserData); },
              [=] { return unregister_get_id_db_callback(std::string(sections)); },
              "failed to register get id  callback for Sections table",
              "failed to unregister get ID callback for Sections table"),
        entry([=] { return register_get_id_db_callback(std::string(tiles), getIdCB, pUserData); },
              [=] { return unregister_get_id_db_callback(std::string(tiles)); },
              "failed to register get id  callback for Tiles table",
              "failed to unregister get ID callback for Tiles table"),
    };
}

}  // namespace

void CTilesProvider::registerDatabaseCB()
{
    std::vector<DatabaseCallbackRegistration> registrations = DatabaseCallbackRegistrations(this);

    // At boot the library's dispatcher may not be ready: the first
    // registration is retried for about 30 seconds.
    DatabaseCallbackRegistration& first = registrations.front();
    if (!first.Register()) {
        int retry = FIRST_REGISTRATION_RETRIES;
        while (true) {
            LOGI("failed to register insert callback for Accelerators table - retry : %d", retry);
            first.Unregister();
            if (first.Register()) {
                break;
            }
            usleep(FIRST_REGISTRATION_RETRY_INTERVAL_US);
            --retry;
            if (retry == 0) {
                break;
            }
        }
    }

    for (size_t i = 1; i < registrations.size(); ++i) {
        DatabaseCallbackRegistration& registration = registrations[i];
        if (!registration.Register()) {
            LOGI("%s", registration.registerFailure);
            registration.Unregister();
            registration.Register();
        }
    }
}

void CTilesProvider::unregisterDatabaseCB()
{
    for (DatabaseCallbackRegistration& registration : DatabaseCallbackRegistrations(this)) {
        if (!registration.Unregister()) {
            LOGI("%s", registration.unregisterFailure);
        }
    }
}

void CTilesProvider::InitializeDatacontrolProvider()
{
    CDBLocalScopedLock lock(m_pDbLock);

    data_control_provider_sql_cb callbacks = {};
    callbacks.insert_cb = InsertRequestCB;
    callbacks.select_cb = SelectRequestCB;
    callbacks.update_cb = UpdateRequestCB;
    callbacks.delete_cb = DeleteRequestCB;

    int result = data_control_provider_sql_register_cb(&callbacks, this);
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to data_control_sql_response_cb : %d", result);
    } else {
        LOGI("success to data_control_sql_response_cb");
    }
}

void CTilesProvider::DeinitializeDatacontrolProvider()
{
    CDBLocalScopedLock lock(m_pDbLock);

    int result = data_control_provider_sql_unregister_cb();
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to data_control_provider_sql_unregister_cb : %d", result);
    } else {
        LOGI("success data_control_provider_sql_unregister_cb");
    }
}

CPermissionHelper::PermissionLevel CTilesProvider::LockedWritePermissionLevel(const std::string& appId,
                                                                             const std::string& packageId)
{
    if (m_pPermissionHelper == nullptr) {
        return CPermissionHelper::PERMISSION_LEVEL_NONE;
    }
    CDBLocalScopedLock lock(m_pDbLock);
    return m_pPermissionHelper->GetWritePermissionLevel(appId, packageId, m_pDbHelper);
}

CPermissionHelper::PermissionLevel CTilesProvider::LockedReadPermissionLevel(const std::string& appId,
                                                                            const std::string& packageId)
{
    if (m_pPermissionHelper == nullptr) {
        return CPermissionHelper::PERMISSION_LEVEL_NONE;
    }
    CDBLocalScopedLock lock(m_pDbLock);
    return m_pPermissionHelper->GetReadPermissionLevel(appId, packageId, m_pDbHelper);
}

CContentDbConnection* CTilesProvider::Connection()
{
    return (m_pDbHelper != nullptr) ? m_pDbHelper->GetConnection() : nullptr;
}

int CTilesProvider::InsertRequest(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    out.nRowId = -1;
    if (!IsWritableUri(in.strUri)) {
        LOGI("failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedWritePermissionLevel(in.strAppId, packageId);
    LOGD("write permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return RESULT_PERMISSION_DENIED;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return RESULT_FAILED;
    }

    // The row is written as the client sent it: no column check.
    std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
    int result = pConnection->InsertRequest(table, in.pValues);
    if (result == 0) {
        out.nRowId = pConnection->GetLastInsertRowID();
    }
    return result;
}

int CTilesProvider::InsertRequest(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in,
                                  PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    out.nRowId = -1;
    if (!IsWritableUri(in.strUri)) {
        LOGI("failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedWritePermissionLevel(in.strAppId, packageId);
    LOGD("write permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return RESULT_PERMISSION_DENIED;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return RESULT_FAILED;
    }

    if (pConnection->BeginTransaction() != 0) {
        return RESULT_FAILED;  // without a transaction a bulk could be stored in part
    }
    if (in.vecValues.empty()) {
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }

    try {
        int result = 0;
        for (bundle* pValues : in.vecValues) {
            std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
            result = pConnection->InsertRequest(table, pValues);
            if (result != 0) {
                break;
            }
            out.nRowId = pConnection->GetLastInsertRowID();
        }

        if (result == 0) {
            // A commit that fails stores no row of the bulk: report its code.
            result = pConnection->EndTransaction(true);
            if (result != 0) {
                out.nRowId = -1;
            }
            return result;
        }
        LOGI("failed to InsertRequest for bulk");
        out.nRowId = -1;
        pConnection->EndTransaction(false);
        return result;
    } catch (...) {
        LOGI("failed by exception");
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }
}

bool CTilesProvider::SelectRequest(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    out.nRequestId = -1;

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedReadPermissionLevel(in.strAppId, packageId);
    LOGD("read permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return false;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return false;
    }

    std::vector<std::string> projection;
    if (m_pPermissionHelper != nullptr) {
        projection = m_pPermissionHelper->GetAllowedProjectionForPermission(in.strUri, in.vecProjection, level);
    }

    std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
    CQueryGenerator queryGenerator(m_pDbHelper);
    std::string where = queryGenerator.GenerateQuery(table, in.strWhere, packageId, level);
    LOGD("generated query = %s", where.c_str());
    if (in.vecWhereArgs.size() == 1) {
        LOGD(" %s", in.vecWhereArgs[0].c_str());
    }

    std::shared_ptr<ISQLiteCursor> cursor =
        pConnection->SelectRequest(table, projection, where, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (cursor == nullptr) {
        LOGI("failed to get cursor");
        return false;
    }

    CDBLocalScopedLock lock(m_pDbLock);
    CSharedQueryObject::StoreCursor(cursor, table, out.strSharedName, out.nColumnCount);
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

int CTilesProvider::UpdateRequest(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& /*out*/)
{
    if (!IsWritableUri(in.strUri)) {
        LOGI("failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedWritePermissionLevel(in.strAppId, packageId);
    LOGD("write permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return RESULT_PERMISSION_DENIED;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return RESULT_FAILED;
    }

    std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
    CQueryGenerator queryGenerator(m_pDbHelper);
    std::string where = queryGenerator.GenerateQuery(table, in.strWhere, packageId, level);
    LOGD("generated query = %s", where.c_str());

    return pConnection->UpdateRequest(table, in.pValues, where, in.vecWhereArgs);
}

/* Each bundle names its row by id. The rows are not confined to the caller's
 * own: a bulk update reaches any row of the table it names, guarded only by
 * the write level. */
int CTilesProvider::UpdateRequest(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in,
                                  PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& /*out*/)
{
    if (!IsWritableUri(in.strUri)) {
        LOGI("failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedWritePermissionLevel(in.strAppId, packageId);
    LOGD("write permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return RESULT_PERMISSION_DENIED;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return RESULT_FAILED;
    }

    if (pConnection->BeginTransaction() != 0) {
        return RESULT_FAILED;  // without a transaction a bulk could be stored in part
    }
    if (in.vecValues.empty()) {
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }

    int lastResult = RESULT_FAILED;
    try {
        for (bundle* pValues : in.vecValues) {
            const char* pRowId = bundle_get_val(pValues, BULK_UPDATE_ROW_ID_KEY);
            std::vector<std::string> whereArgs = {(pRowId != nullptr) ? pRowId : ""};

            if (bundle_del(pValues, BULK_UPDATE_ROW_ID_KEY) != BUNDLE_ERROR_NONE) {
                // Commits what an earlier bundle of this bulk updated, if any.
                LOGI("failed to delete row ID bundle for bulk");
                const int ended = pConnection->EndTransaction(lastResult == 0);
                return lastResult == 0 ? ended : lastResult;
            }

            std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
            lastResult = pConnection->UpdateRequest(table, pValues, BULK_UPDATE_WHERE, whereArgs);
            if (lastResult != 0) {
                LOGI("failed to UpdateRequest for bulk");
                pConnection->EndTransaction(false);
                return lastResult;
            }
        }
        // A commit that fails stores no row of the bulk: report its code.
        return pConnection->EndTransaction(true);
    } catch (...) {
        LOGI("failed by exception");
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }
}

int CTilesProvider::DeleteRequest(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    if (!IsWritableUri(in.strUri)) {
        LOGI("failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedWritePermissionLevel(in.strAppId, packageId);
    LOGD("write permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return RESULT_PERMISSION_DENIED;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return RESULT_FAILED;
    }

    std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
    CQueryGenerator queryGenerator(m_pDbHelper);
    std::string where = queryGenerator.GenerateQuery(table, in.strWhere, packageId, level);
    LOGD("generated query = %s", where.c_str());

    return pConnection->DeleteRequest(table, where, in.vecWhereArgs);
}

bool CTilesProvider::GetRowIDRequest(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    std::string packageId = GetPackageId(in.strAppId);
    LOGD("AppId = %s\tPackageId = %s", in.strAppId.c_str(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = LockedReadPermissionLevel(in.strAppId, packageId);
    LOGD("read permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        LOGI("failed by permission");
        return false;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        return false;
    }

    // Only ids, whatever the client asked for.
    in.vecProjection = {TilesModel::BaseColumnsID};
    std::vector<std::string> projection = in.vecProjection;
    if (m_pPermissionHelper != nullptr) {
        projection = m_pPermissionHelper->GetAllowedProjectionForPermission(in.strUri, in.vecProjection, level);
    }

    std::string table = CContentHelper::GetTableNameFromUri(in.strUri);
    CQueryGenerator queryGenerator(m_pDbHelper);
    std::string where = queryGenerator.GenerateQuery(table, in.strWhere, packageId, level);
    LOGD("generated query = %s", where.c_str());

    std::shared_ptr<ISQLiteCursor> cursor =
        pConnection->SelectRequest(table, projection, where, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (cursor == nullptr) {
        LOGI("failed to get cursor");
        return false;
    }

    int index = 0;
    while (cursor->Step() == ISQLiteCursor::STEP_ROW) {
        int64_t rowId = -1;
        if (!cursor->GetInt64(0, rowId)) {
            rowId = -1;
        }
        out.vecRowIds.push_back(rowId);
        LOGD("[%d]row ID is %lld", index, static_cast<long long>(rowId));
        ++index;
    }
    return true;
}

/* ---- content-library road --------------------------------------------------- */

int CTilesProvider::InsertRequestCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return RESULT_FAILED;
    }

    TilesEvent event = pProvider->GetSyncEvent(in.pValues);
    if (event == TILES_EVENT_NONE) {
        int result = pProvider->InsertRequest(in, out);
        LOGI("INSERT row id = %lld", static_cast<long long>(out.nRowId));
        return result;
    }

    if (event == TILES_EVENT_SYNC_END) {
        // The end of a client's batch: relayed as an event, nothing is written.
        const char* pSectionRawId = bundle_get_val(in.pValues, TilesModel::Tiles::TILE_SECTION_RAW_ID);
        int sendResult = pProvider->SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT, in.strAppId.c_str(),
                                                  pSectionRawId, false);
        if (sendResult == 0) {
            LOGI("success to send sync event");
        } else {
            LOGI("failed to send event : %d", sendResult);
        }
        // The client reads a sync mark as not inserted, success included.
        return RESULT_FAILED;
    }

    return RESULT_FAILED;
}

int CTilesProvider::InsertRequestCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in,
                                    PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return RESULT_FAILED;
    }

    int result = pProvider->InsertRequest(in, out);
    LOGI("INSERT row id = %lld", static_cast<long long>(out.nRowId));

    if (result == 0) {
        const char* pSectionRawId = in.vecValues.empty()
                                        ? nullptr
                                        : bundle_get_val(in.vecValues.back(), TilesModel::Tiles::TILE_SECTION_RAW_ID);
        int sendResult = pProvider->SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT, in.strAppId.c_str(),
                                                  pSectionRawId, true);
        if (sendResult == 0) {
            LOGI("success to send sync event");
        } else {
            LOGI("failed to send event : %d", sendResult);
        }
    }
    return result;
}

bool CTilesProvider::SelectRequestCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return false;
    }

    bool result = pProvider->SelectRequest(in, out);
    if (result) {
        LOGI("success SELECT");
    } else {
        LOGI("failed SELECT");
    }
    return result;
}

int CTilesProvider::UpdateRequestCB(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return RESULT_FAILED;
    }

    int result = pProvider->UpdateRequest(in, out);
    LOGI("UPDATE result = %d", result);
    return result;
}

int CTilesProvider::UpdateRequestCB(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in,
                                    PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return RESULT_FAILED;
    }

    int result = pProvider->UpdateRequest(in, out);
    LOGI("UPDATE result = %d", result);
    return result;
}

int CTilesProvider::DeleteRequestCB(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return RESULT_FAILED;
    }

    int result = pProvider->DeleteRequest(in);
    LOGI("DELETE result = %d", result);

    if (result == 0) {
        int sendResult =
            pProvider->SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_DELETE, in.strAppId.c_str(), "delete", true);
        if (sendResult == 0) {
            LOGI("success to send sync event");
        } else {
            LOGI("failed to send event : %d", sendResult);
        }
    }
    return result;
}

bool CTilesProvider::GetRowIDRequestCB(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(in.pUserData);
    if (pProvider == nullptr) {
        LOGI("failed by NULL user_data");
        return false;
    }

    bool result = pProvider->GetRowIDRequest(in, out);
    LOGI("Get Row ID result = %d", result);
    return result;
}

/* ---- data-control road -------------------------------------------------------- */

/* The caller's application id, fetched under the lock; null when it cannot be had. */
CTilesProvider::PlatformTextHolder CTilesProvider::FetchClientAppId(int requestId)
{
    char* pAppId = nullptr;
    CDBLocalScopedLock lock(m_pDbLock);
    int result = data_control_provider_get_client_appid(requestId, &pAppId);
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to datacontrol_provider_get_client_appid : %d", result);
    }
    return PlatformTextHolder(pAppId, &free);
}

void CTilesProvider::FetchProviderAndDataId(data_control_s* provider, PlatformTextHolder& providerId,
                                            PlatformTextHolder& dataId)
{
    char* pProviderId = nullptr;
    char* pDataId = nullptr;
    CDBLocalScopedLock lock(m_pDbLock);
    int result = data_control_sql_get_provider_id(provider, &pProviderId);
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to data_control_sql_get_provider_id : %d", result);
    }
    providerId.reset(pProviderId);
    result = data_control_sql_get_data_id(provider, &pDataId);
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to datacontrol_sql_get_data_id : %d", result);
    }
    dataId.reset(pDataId);
}

void CTilesProvider::InsertRequestCB(int requestId, data_control_s* provider, _bundle_t* insertData, void* userData)
{
    LOGD("request_id = %d", requestId);
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr || insertData == nullptr) {
        data_control_provider_send_error(requestId, "failed by NULL user_data or insert_data");
        LOGI("failed by NULL user_data or insert_data");
        return;
    }

    PlatformTextHolder appId = pProvider->FetchClientAppId(requestId);

    TilesEvent event = pProvider->GetSyncEvent(insertData);
    if (event == TILES_EVENT_SYNC_END) {
        const char* pSectionRawId = bundle_get_val(insertData, TilesModel::Tiles::TILE_SECTION_RAW_ID);
        if (appId == nullptr) {
            LOGI("pAppId is NULL");
            return;
        }
        int sendResult = pProvider->SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT, appId.get(),
                                                  pSectionRawId, false);
        if (sendResult == 0) {
            LOGI("success to send sync event : %s", appId.get());
        } else {
            LOGI("failed to send event : %d", sendResult);
        }
        return;
    }
    if (event == TILES_EVENT_SYNC_START) {
        return;
    }

    PlatformTextHolder providerId = NoText();
    PlatformTextHolder dataId = NoText();
    pProvider->FetchProviderAndDataId(provider, providerId, dataId);
    if (appId == nullptr || providerId == nullptr || dataId == nullptr) {
        LOGI("failed by invalid URI");
        return;
    }

    PT_PROVIDER_INSERT_IN_PARAM in;
    in.strAppId = appId.get();
    in.strUri = std::string(providerId.get()) + "/" + dataId.get();
    in.pValues = insertData;
    in.pUserData = pProvider;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = pProvider->InsertRequest(in, out);

    if (result == 0) {
        CDBLocalScopedLock lock(pProvider->m_pDbLock);
        int sendResult = data_control_provider_send_insert_result(requestId, out.nRowId);
        if (sendResult != DATA_CONTROL_ERROR_NONE) {
            LOGI("failed to data_control_provider_send_insert_result failed : %d", sendResult);
        }
    }
    LOGI("[%s] INSERT row id = %lld", appId.get(), static_cast<long long>(out.nRowId));
}

void CTilesProvider::SelectRequestCB(int requestId, data_control_s* provider, char const** columns, int columnCount,
                                     char const* where, char const* order, void* userData)
{
    LOGD("request_id = %d", requestId);
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr) {
        data_control_provider_send_error(requestId, "failed by NULL user_data");
        LOGI("failed SELECT by NULL user_data");
        return;
    }

    PlatformTextHolder appId = pProvider->FetchClientAppId(requestId);
    PlatformTextHolder providerId = NoText();
    PlatformTextHolder dataId = NoText();
    pProvider->FetchProviderAndDataId(provider, providerId, dataId);
    if (appId == nullptr || providerId == nullptr || dataId == nullptr) {
        LOGI("failed by invalid URI");
        return;
    }

    std::string packageId = pProvider->GetPackageId(appId.get());
    LOGD("AppId = %s\tPackageId = %s", appId.get(), packageId.c_str());

    CPermissionHelper::PermissionLevel level = pProvider->LockedReadPermissionLevel(appId.get(), packageId);
    LOGD("read permission level = %d", level);
    if (level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        CDBLocalScopedLock lock(pProvider->m_pDbLock);
        data_control_provider_send_error(requestId, "failed SELECT by permission");
        LOGI("failed SELECT by permission");
        return;
    }

    std::string uri = std::string(providerId.get()) + "/" + dataId.get();
    std::vector<std::string> projection;
    for (int i = 0; i < columnCount && columns != nullptr; ++i) {
        if (columns[i] != nullptr) {
            projection.push_back(columns[i]);
        }
    }
    if (pProvider->m_pPermissionHelper != nullptr) {
        projection = pProvider->m_pPermissionHelper->GetAllowedProjectionForPermission(uri, projection, level);
    }
    std::vector<const char*> allowedColumns;
    for (const std::string& column : projection) {
        allowedColumns.push_back(column.c_str());
    }

    // On this road the data id is the table's name.
    CQueryGenerator queryGenerator(pProvider->m_pDbHelper);
    std::string generatedWhere =
        queryGenerator.GenerateQuery(dataId.get(), (where != nullptr) ? where : "", packageId, level);
    LOGD("generated query = %s", generatedWhere.c_str());

    // Held until the statement is finalised: the platform reads its rows
    // while no other request uses the connection.
    CDBLocalScopedLock lock(pProvider->m_pDbLock);
    PlatformTextHolder statementText(
        data_control_provider_create_select_statement(provider, allowedColumns.data(),
                                                      static_cast<int>(allowedColumns.size()),
                                                      generatedWhere.c_str(), order),
        &free);
    if (statementText == nullptr) {
        data_control_provider_send_error(requestId, "failed SELECT by statement");
        LOGI("failed SELECT by statement");
        return;
    }

    CContentDbConnection* pConnection = pProvider->Connection();
    if (pConnection == nullptr) {
        data_control_provider_send_error(requestId, "failed SELECT by connection");
        LOGI("failed SELECT by connection");
        return;
    }

    sqlite3_stmt* pStatement = nullptr;
    std::string error;
    if (pConnection->PrepareCMD(statementText.get(), &pStatement, nullptr, error) == 0) {
        int sendResult = data_control_provider_send_select_result(requestId, pStatement);
        if (sendResult != DATA_CONTROL_ERROR_NONE) {
            LOGI("failed to data_control_provider_send_select_result : %d", sendResult);
        } else {
            LOGI("success SELECT");
        }
    }
    sqlite3_finalize(pStatement);
}

void CTilesProvider::UpdateRequestCB(int requestId, data_control_s* provider, _bundle_t* updateData,
                                     char const* where, void* userData)
{
    LOGD("request_id = %d", requestId);
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr || updateData == nullptr) {
        data_control_provider_send_error(requestId, "failed by NULL user_data or update_data");
        LOGI("failed by NULL user_data or update_data");
        return;
    }

    PlatformTextHolder appId = pProvider->FetchClientAppId(requestId);
    PlatformTextHolder providerId = NoText();
    PlatformTextHolder dataId = NoText();
    pProvider->FetchProviderAndDataId(provider, providerId, dataId);
    if (appId == nullptr || providerId == nullptr || dataId == nullptr) {
        LOGI("failed by invalid URI");
        return;
    }

    PT_PROVIDER_UPDATE_IN_PARAM in;
    in.strAppId = appId.get();
    in.strUri = std::string(providerId.get()) + "/" + dataId.get();
    in.pValues = updateData;
    in.strWhere = (where != nullptr) ? where : "";
    in.pUserData = pProvider;
    PT_PROVIDER_UPDATE_OUT_PARAM out;
    int result = pProvider->UpdateRequest(in, out);

    if (result == 0) {
        CDBLocalScopedLock lock(pProvider->m_pDbLock);
        int sendResult = data_control_provider_send_update_result(requestId);
        if (sendResult != DATA_CONTROL_ERROR_NONE) {
            // The bracketed word is printed as it stands.
            LOGI("[pAppId] data_control_provider_send_update_result failed: %d", sendResult);
        }
    }
    LOGI("[%s] UPDATE result = %d", appId.get(), result);
}

void CTilesProvider::DeleteRequestCB(int requestId, data_control_s* provider, char const* where, void* userData)
{
    LOGD("request_id = %d", requestId);
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr) {
        data_control_provider_send_error(requestId, "failed by NULL user_data");
        LOGI("failed by NULL user_data");
        return;
    }

    PlatformTextHolder appId = pProvider->FetchClientAppId(requestId);
    PlatformTextHolder providerId = NoText();
    PlatformTextHolder dataId = NoText();
    pProvider->FetchProviderAndDataId(provider, providerId, dataId);
    if (appId == nullptr || providerId == nullptr || dataId == nullptr) {
        LOGI("failed by invalid URI");
        return;
    }

    PT_PROVIDER_DELETE_IN_PARAM in;
    in.strAppId = appId.get();
    in.strUri = std::string(providerId.get()) + "/" + dataId.get();
    in.strWhere = (where != nullptr) ? where : "";
    in.pUserData = pProvider;
    int result = pProvider->DeleteRequest(in);

    if (result == 0) {
        CDBLocalScopedLock lock(pProvider->m_pDbLock);
        int sendResult = data_control_provider_send_delete_result(requestId);
        if (sendResult != DATA_CONTROL_ERROR_NONE) {
            LOGI("[%s] data_control_provider_send_delete_result failed : %d", appId.get(), sendResult);
        }
    }
    LOGI("[%s] DELETE result = %d", appId.get(), result);
}

/* ---- reset handling and launcher-list maintenance ---------------------------- */

namespace {

const char FACTORY_RESET_KEY[] = "db/qeb/factory_reset";
const char HALCYON_RESET_KEY[] = "memory/korro/halcyon_reset_event";
const char TILES_ERASED_MARKER[] = "/tmp/.cs_tiles_erased";
const int POWER_OFF_FACTORY_RESET = 13;
const int POWER_OFF_SERVICE_RESET = 14;
const char* const HALCYON_PACKAGES[] = {"Qx7TmWp2Lc", "Hb4NzRk9Fs"};

const char PACKAGE_DB_SUBDIRECTORY[] = "/ContentServiceManager/data/";
const char PACKAGE_DB_FILE_NAME[] = "PkgInfo.db";
const int ACCELERATOR_QUERY_ATTEMPTS = 3;

}  // namespace

void CTilesProvider::WatchResets()
{
    int factoryReset = -1;
    if (vconf_get_int(FACTORY_RESET_KEY, &factoryReset) != 0) {
        LOGI("Use power off callback to get reset event");
        if (device_power_subscribe_poweroff(PowerOffCB, this) == 0) {
            m_bPowerOffSubscribed = true;
        }
    } else {
        LOGI("Use vconf callback : %d", factoryReset);
        FactoryResetChecker();
    }

    int result = vconf_notify_key_changed(HALCYON_RESET_KEY, HalcyonResetCB, this);
    if (result != 0) {
        LOGI("register Halcyon reset callback failed, ret = %d", result);
    }
}

void CTilesProvider::ClearAllSectionsAndTiles(CContentDbConnection* pConnection)
{
    std::vector<std::string> noArgs;
    pConnection->DeleteRequest(CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_URI), "", noArgs);
    pConnection->DeleteRequest(CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI), "", noArgs);
}

void CTilesProvider::FactoryResetChecker()
{
    CDBLocalScopedLock lock(m_pDbLock);

    int factoryReset = 0;
    vconf_get_int(FACTORY_RESET_KEY, &factoryReset);
    if (factoryReset != 1 && factoryReset != 2) {
        return;
    }

    if (access(TILES_ERASED_MARKER, F_OK) == 0) {
        LOGI("Tiles are already erased");
        return;
    }

    LOGE("This is Factory reset or reset booting");
    if (m_pDbHelper != nullptr) {
        CContentDbConnection* pConnection = m_pDbHelper->GetConnection();
        if (pConnection != nullptr) {
            ClearAllSectionsAndTiles(pConnection);
            LOGE("sections/tiles were cleared!");
        }
    }

    // Marks this boot as cleared: a restart of the service does not clear again.
    FILE* pMarker = fopen(TILES_ERASED_MARKER, "w");
    if (pMarker != nullptr) {
        struct stat markerStat;
        if (lstat(TILES_ERASED_MARKER, &markerStat) != 0) {
            LOGE("lstat error");
        }
        fclose(pMarker);
    }
}

int CTilesProvider::PowerOffCB(int type, void* userData)
{
    LOGI("Power Off");
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr) {
        return 0;
    }

    CDBLocalScopedLock lock(pProvider->m_pDbLock);
    if (pProvider->m_pDbHelper == nullptr) {
        LOGE("Error : pDbHelper is NULL");
        return -1;
    }
    if (type == POWER_OFF_FACTORY_RESET || type == POWER_OFF_SERVICE_RESET) {
        LOGE("Factory reset or service reset : %d", type);
        CContentDbConnection* pConnection = pProvider->m_pDbHelper->GetConnection();
        if (pConnection != nullptr) {
            pProvider->ClearAllSectionsAndTiles(pConnection);
            LOGE("sections/tiles were cleared!");
        }
    }
    return 0;
}

void CTilesProvider::HalcyonResetCB(keynode_t* node, void* userData)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr) {
        LOGE("user_data is NULL!!!");
        return;
    }

    CDBLocalScopedLock lock(pProvider->m_pDbLock);
    if (pProvider->m_pDbHelper == nullptr) {
        LOGE("Error : pDbHelper is NULL");
        return;
    }

    int value = vconf_keynode_get_int(node);
    LOGD("halcyon reset callback called value = %d", value);
    if (value != 1) {
        return;
    }

    LOGE("halcyon reset");
    std::list<std::string> packageNames(std::begin(HALCYON_PACKAGES), std::end(HALCYON_PACKAGES));
    if (pProvider->m_pAppSectionChangeManager != nullptr) {
        pProvider->m_pAppSectionChangeManager->ClearTiles(packageNames);
    }
}

bool CTilesProvider::NeedRecoveryLauncherList()
{
    if (m_bDbCorrupted) {
        LOGI("Need Recovery Launcher App List");
    }
    return m_bDbCorrupted;
}

bool CTilesProvider::InstalledPackagesRecovery()
{
    if (m_pAppSectionChangeManager == nullptr) {
        m_bDbCorrupted = false;
        return true;
    }
    bool bResult = m_pAppSectionChangeManager->RecoverInstalledPackages();
    m_bDbCorrupted = false;
    return bResult;
}

bool CTilesProvider::CheckLauncherItems()
{
    if (m_pAppSectionChangeManager == nullptr) {
        return true;
    }
    return m_pAppSectionChangeManager->RefreshLauncherItemFromBackup();
}

bool CTilesProvider::VerifyAccelerator()
{
    LOGI("+++++++++++++++++++++++++ IN ++++++++++++++++++++++++++++");
    bool bResult = false;

    const char* pAppRoot = tzplatform_getenv(TZ_USER_APP);
    std::string packageDbDirectory = std::string(pAppRoot != nullptr ? pAppRoot : "") + PACKAGE_DB_SUBDIRECTORY;
    std::string packageDbPath = packageDbDirectory + PACKAGE_DB_FILE_NAME;

    std::unique_ptr<CContentDbConnection> pPackageDb;
    std::shared_ptr<ISQLiteCursor> pPackageCursor;
    std::shared_ptr<ISQLiteCursor> pAcceleratorCursor;

    if (!isDBFileExist(packageDbPath)) {
        LOGI("Cannot open PkgInfo.db");
    } else {
        pPackageDb.reset(new CContentDbConnection(packageDbDirectory, PACKAGE_DB_FILE_NAME));
        if (!pPackageDb->OpenOperation()) {
            LOGI("Cannot open PkgInfo.db");
        } else {
            std::vector<std::string> packageProjection = {"pkg_name"};
            pPackageCursor = pPackageDb->SelectRequest("pkg_info", packageProjection, "", "");
            std::string packageName;
            bool bHavePackage = pPackageCursor != nullptr && pPackageCursor->Step() == ISQLiteCursor::STEP_ROW &&
                                pPackageCursor->GetString(0, packageName);
            CContentDbConnection* pConnection = (m_pDbHelper != nullptr) ? m_pDbHelper->GetConnection() : nullptr;
            if (!bHavePackage) {
                LOGI("No query result");
            } else if (pConnection == nullptr) {
                LOGI("Cannot open px_tiles.db");
            } else {
                std::vector<std::string> projection = {TilesModel::Accelerators::_ID};
                std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + "= ?";
                std::vector<std::string> whereArgs = {packageName};
                for (int attempt = 0; attempt < ACCELERATOR_QUERY_ATTEMPTS; ++attempt) {
                    pAcceleratorCursor = pConnection->SelectRequest("accelerators", projection, where, whereArgs, "", "");
                    int64_t rowId = -1;
                    if (pAcceleratorCursor == nullptr || pAcceleratorCursor->Step() != ISQLiteCursor::STEP_ROW) {
                        LOGI("No query result");
                    } else if (pAcceleratorCursor->GetInt64(0, rowId) && rowId > 0) {
                        LOGI("Matched package row ID : %lld", static_cast<long long>(rowId));
                        bResult = true;
                        break;
                    }
                    LOGI("Try again : %d", attempt);
                }
            }
        }
    }

    pAcceleratorCursor.reset();
    pPackageCursor.reset();
    pPackageDb.reset();
    LOGI("+++++++++++++++++++++++++ OUT ++++++++++++++++++++++++++++");
    return bResult;
}
