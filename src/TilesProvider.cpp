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

#include <bundle_ptr.h>
#include <confinement_policy.h>
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
#include "StrictConfinement.h"
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
    , m_pSyncEventHelper(nullptr)
    , m_bDbCorrupted(false)
    , m_bPowerOffSubscribed(false)
{
    m_pDbLock.reset(new CDBLock(DB_LOCK_NAME));

    std::string directory = DatabaseDirectory();
    std::string path = directory + DB_FILE_NAME;

    // Only waits (and logs) while the file is missing; the helper creates it.
    isDBFileExist(path);

    m_pDbHelper.reset(new CDbHelper(directory, DB_FILE_NAME, DB_VERSION));

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

    m_pAppSectionChangeManager = new CAppSectionChangeManager(m_pDbHelper.get());

    m_pPermissionHelper.reset(new CPermissionHelper());

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

/* Taken down in this order: the change manager, the permission helper, the
 * database, the callbacks, the power-off watch, the lock. The message helper
 * is not deleted: it lives, with its port, until the process exits. */
CTilesProvider::~CTilesProvider()
{
    delete m_pAppSectionChangeManager;
    m_pAppSectionChangeManager = nullptr;

    m_pPermissionHelper.reset();
    m_pDbHelper.reset();

    unregisterDatabaseCB();
    DeinitializeDatacontrolProvider();

    if (m_bPowerOffSubscribed) {
        device_power_unsubscribe_poweroff(PowerOffCB);
        m_bPowerOffSubscribed = false;
    }

    m_bDbCorrupted = false;
    m_packageIdCache.clear();

    m_pDbLock.reset();
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

    BundlePtr pEvent = MakeBundle();
    bundle_add_str(pEvent.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME, packageId.c_str());
    if (sectionRawId != nullptr) {
        bundle_add_str(pEvent.get(), TilesModel::Tiles::TILE_SECTION_RAW_ID, sectionRawId);
    }
    if (!bDbChanged) {
        // A relayed end mark of the client's batch.
        bundle_add_str(pEvent.get(), TilesModel::EVENT_TILES_SYNC_KEY, TilesModel::EVENT_TILES_SYNC_STATUS_END);
    }
    if (operation == DB_OPERATION_DELETE) {
        bundle_add_str(pEvent.get(), "OPERATION", "DELETE");
    }
    bundle_add_str(pEvent.get(), "sync", "end");

    int result = 0;
    if (m_pSyncEventHelper != nullptr) {
        LOGI("Try to Send sync event appID %s\tPackageId = %s", applicationId.c_str(), packageId.c_str());
        result = m_pSyncEventHelper->Send(pEvent.get(), true);
    } else {
        LOGI("m_pSyncEventHelper is NULL! ");
        result = -22;
    }
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

    CDBLocalScopedLock lock(m_pDbLock.get());
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

    BundlePtr pEvent(static_cast<bundle*>(eventBundle));
    bool bPortExists = false;
    for (int attempt = 0; attempt < SYNC_EVENT_THREAD_ATTEMPTS; ++attempt) {
        sleep(1);
        bool bExists = false;
        if (message_port_check_remote_port(SYNC_EVENT_MESSAGE_PORT_APP_ID.c_str(),
                                           SYNC_EVENT_MESSAGE_PORT_NAME.c_str(), &bExists) == MESSAGE_PORT_ERROR_NONE &&
            bExists) {
            bPortExists = true;
            int result = message_port_send_message(SYNC_EVENT_MESSAGE_PORT_APP_ID.c_str(),
                                                   SYNC_EVENT_MESSAGE_PORT_NAME.c_str(), pEvent.get());
            if (result == MESSAGE_PORT_ERROR_NONE) {
                LOGI("success to send sync event in thread : %d", result);
            } else {
                LOGI("failed to send event in thread : %d", result);
            }
            break;
        }
    }

    pEvent.reset();
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

/* One kind of the content library's callbacks: how to register it for a
 * table and how to remove it, and the words its failures are logged with. */
struct DatabaseCallbackKind
{
    std::function<bool(const std::string& uri, void* pUserData)> Register;
    std::function<bool(const std::string& uri)> Unregister;
    const char* registerWords;
    const char* unregisterWords;
};

template <typename Callback>
DatabaseCallbackKind Kind(bool (*doRegister)(std::string, Callback, void*), Callback callback,
                          bool (*doUnregister)(std::string), const char* registerWords, const char* unregisterWords)
{
    return DatabaseCallbackKind{[=](const std::string& uri, void* pUserData) { return doRegister(uri, callback, pUserData); },
                                [=](const std::string& uri) { return doUnregister(uri); }, registerWords,
                                unregisterWords};
}

/* One (kind, table) pair of the content library's callbacks, with its texts. */
struct DatabaseCallbackRegistration
{
    std::function<bool()> Register;
    std::function<bool()> Unregister;
    std::string registerFailure;
    std::string unregisterFailure;
};

/* The kinds in their order: insert, insert bulk, delete, select, update,
 * update bulk, get id. The bulk-insert removals report with the plain insert
 * words, and the removals say "get ID" where registration says "get id " (so
 * its line has two blanks); both kept. */
std::vector<DatabaseCallbackKind> DatabaseCallbackKinds()
{
    ContentInsertCallback insertCB = &CTilesProvider::InsertRequestCB;
    ContentBulkInsertCallback bulkInsertCB = &CTilesProvider::InsertRequestCB;
    ContentDeleteCallback deleteCB = &CTilesProvider::DeleteRequestCB;
    ContentSelectCallback selectCB = &CTilesProvider::SelectRequestCB;
    ContentUpdateCallback updateCB = &CTilesProvider::UpdateRequestCB;
    ContentBulkUpdateCallback bulkUpdateCB = &CTilesProvider::UpdateRequestCB;
    ContentGetIdCallback getIdCB = &CTilesProvider::GetRowIDRequestCB;
    return {
        Kind(register_insert_db_callback, insertCB, unregister_insert_db_callback, "insert", "insert"),
        Kind(register_insert_db_callback_for_bulkdata, bulkInsertCB, unregister_insert_db_callback_for_bulkdata,
             "insert bulk data", "insert"),
        Kind(register_delete_db_callback, deleteCB, unregister_delete_db_callback, "delete", "delete"),
        Kind(register_select_db_callback, selectCB, unregister_select_db_callback, "select", "select"),
        Kind(register_update_db_callback, updateCB, unregister_update_db_callback, "update", "update"),
        Kind(register_update_db_callback_for_bulkdata, bulkUpdateCB, unregister_update_db_callback_for_bulkdata,
             "update bulk data", "update bulk data"),
        Kind(register_get_id_db_callback, getIdCB, unregister_get_id_db_callback, "get id ", "get ID"),
    };
}

/* The 21 registrations: every kind for Accelerators, Sections and Tiles, in that order. */
std::vector<DatabaseCallbackRegistration> DatabaseCallbackRegistrations(CTilesProvider* pProvider)
{
    const std::pair<const char*, const char*> tables[] = {
        {TilesModel::Accelerators::CONTENT_URI, "Accelerators"},
        {TilesModel::Sections::CONTENT_URI, "Sections"},
        {TilesModel::Tiles::CONTENT_URI, "Tiles"},
    };
    std::vector<DatabaseCallbackRegistration> registrations;
    for (const DatabaseCallbackKind& kind : DatabaseCallbackKinds()) {
        for (const auto& table : tables) {
            std::string uri = table.first;
            std::string tableWords = std::string(" callback for ") + table.second + " table";
            void* pUserData = pProvider;
            registrations.push_back({[=] { return kind.Register(uri, pUserData); }, [=] { return kind.Unregister(uri); },
                                     "failed to register " + std::string(kind.registerWords) + tableWords,
                                     "failed to unregister " + std::string(kind.unregisterWords) + tableWords});
        }
    }
    return registrations;
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
            LOGI("%s", registration.registerFailure.c_str());
            registration.Unregister();
            registration.Register();
        }
    }
}

void CTilesProvider::unregisterDatabaseCB()
{
    for (DatabaseCallbackRegistration& registration : DatabaseCallbackRegistrations(this)) {
        if (!registration.Unregister()) {
            LOGI("%s", registration.unregisterFailure.c_str());
        }
    }
}

void CTilesProvider::InitializeDatacontrolProvider()
{
    CDBLocalScopedLock lock(m_pDbLock.get());

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
    CDBLocalScopedLock lock(m_pDbLock.get());

    int result = data_control_provider_sql_unregister_cb();
    if (result != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to data_control_provider_sql_unregister_cb : %d", result);
    } else {
        LOGI("success data_control_provider_sql_unregister_cb");
    }
}

CPermissionHelper::PermissionLevel CTilesProvider::LockedPermissionLevel(Access access, const std::string& appId,
                                                                         const std::string& packageId)
{
    if (m_pPermissionHelper == nullptr) {
        return CPermissionHelper::PERMISSION_LEVEL_NONE;
    }
    CDBLocalScopedLock lock(m_pDbLock.get());
    if (access == Access::WRITE) {
        return m_pPermissionHelper->GetWritePermissionLevel(appId, packageId, m_pDbHelper.get());
    }
    return m_pPermissionHelper->GetReadPermissionLevel(appId, packageId, m_pDbHelper.get());
}

CContentDbConnection* CTilesProvider::Connection()
{
    return (m_pDbHelper != nullptr) ? m_pDbHelper->GetConnection() : nullptr;
}

/* Who may make the request, logged in the name of the handler `func`: a
 * write must name the sections or tiles table; then the caller's package and
 * its read or write level; a level below public is refused (by `refuse`, else
 * with the plain refusal line). RESULT_SUCCESS with `scope` filled but for
 * the connection, or the handler's result code. */
int CTilesProvider::CheckCaller(const char* func, Access access, const std::string& appId, const std::string& uri,
                                RequestScope& scope, const std::function<void()>& refuse)
{
    if (access == Access::WRITE && !IsWritableUri(uri)) {
        LOGI_AS(func, "failed by invalid URI");
        return RESULT_INVALID_URI;
    }

    scope.table = CContentHelper::GetTableNameFromUri(uri);
    scope.packageId = GetPackageId(appId);
    LOGD_AS(func, "AppId = %s\tPackageId = %s", appId.c_str(), scope.packageId.c_str());

    scope.level = LockedPermissionLevel(access, appId, scope.packageId);
    LOGD_AS(func, "%s permission level = %d", access == Access::WRITE ? "write" : "read", scope.level);
    if (scope.level < CPermissionHelper::PERMISSION_LEVEL_PUBLIC) {
        if (refuse) {
            refuse();
        } else {
            LOGI_AS(func, "failed by permission");
        }
        return RESULT_PERMISSION_DENIED;
    }
    return RESULT_SUCCESS;
}

/* The opening every content request shares: the caller checked, then the connection. */
int CTilesProvider::OpenRequest(const char* func, Access access, const std::string& appId, const std::string& uri,
                                RequestScope& scope)
{
    int checked = CheckCaller(func, access, appId, uri, scope, nullptr);
    if (checked != RESULT_SUCCESS) {
        return checked;
    }
    scope.pConnection = Connection();
    return (scope.pConnection == nullptr) ? RESULT_FAILED : RESULT_SUCCESS;
}

/* The client's where clause confined to the caller's own rows of the scope's
 * table. Under strict confinement a clause it refuses marks the scope refused. */
std::string CTilesProvider::ConfinedWhere(const char* func, const std::string& where, RequestScope& scope)
{
    if (CStrictConfinement::AppliesTo(scope.level) &&
        !CStrictConfinement::CheckWhereClause(scope.pConnection != nullptr ? scope.pConnection : Connection(),
                                              scope.table, where)) {
        scope.bRefused = true;
        return "1 = 0";
    }
    CQueryGenerator queryGenerator(m_pDbHelper.get());
    std::string confined = queryGenerator.GenerateQuery(scope.table, where, scope.packageId, scope.level);
    LOGD_AS(func, "generated query = %s", confined.c_str());
    return confined;
}

/* Under strict confinement, a caller below the internal level names only
 * columns it may read; `projection` is then what runs. False when refused. */
bool CTilesProvider::StrictProjection(const std::string& uri, const std::vector<std::string>& requested,
                                      RequestScope& scope, std::vector<std::string>& projection)
{
    if (!CStrictConfinement::AppliesTo(scope.level) || m_pPermissionHelper == nullptr) {
        return true;
    }
    if (!CStrictConfinement::CheckProjection(*m_pPermissionHelper, uri, requested, scope.level, projection)) {
        scope.bRefused = true;
        return false;
    }
    return true;
}

/* Under strict confinement, the rows a caller below the internal level writes
 * stay its own and within its package's limits. False when refused. */
bool CTilesProvider::StrictWrittenRows(const std::vector<bundle*>& rows, RequestScope& scope, bool bInsert)
{
    if (!CStrictConfinement::AppliesTo(scope.level)) {
        return true;
    }
    if (!CStrictConfinement::CheckWrittenRows(scope.pConnection, scope.table, rows, scope.packageId, bInsert)) {
        scope.bRefused = true;
        return false;
    }
    return true;
}

/* An update or delete of the caller's own rows: opened, confined, then
 * `write`. Strict confinement checks `rows`, the values an update writes. */
int CTilesProvider::ConfinedWrite(const char* func, const std::string& appId, const std::string& uri,
                                  const std::string& where, const std::vector<bundle*>& rows,
                                  const ConfinedWriteBody& write)
{
    RequestScope scope;
    int opened = OpenRequest(func, Access::WRITE, appId, uri, scope);
    if (opened != RESULT_SUCCESS) {
        return opened;
    }
    std::string confined = ConfinedWhere(func, where, scope);
    if (scope.bRefused || (!rows.empty() && !StrictWrittenRows(rows, scope, false))) {
        return CONFINEMENT_POLICY_REFUSED;
    }
    return write(*scope.pConnection, scope.table, confined);
}

/* The columns a select runs with: under strict confinement only columns the
 * caller may read (else the scope is refused), otherwise those of the
 * requested ones its level may read. */
std::vector<std::string> CTilesProvider::SelectProjection(const std::string& uri, std::vector<std::string> requested,
                                                          RequestScope& scope)
{
    std::vector<std::string> projection;
    if (CStrictConfinement::AppliesTo(scope.level)) {
        StrictProjection(uri, requested, scope, projection);
    } else if (m_pPermissionHelper != nullptr) {
        projection = m_pPermissionHelper->GetAllowedProjectionForPermission(uri, requested, scope.level);
    }
    return projection;
}

/* A read of the caller's own rows, of the columns its level may read; with
 * `bIdsOnly` of the row ids only, whatever the client asked for. Null when
 * refused or failed. */
std::shared_ptr<ISQLiteCursor> CTilesProvider::ConfinedSelect(const char* func, PT_PROVIDER_SELECT_IN_PARAM& in,
                                                              bool bIdsOnly, std::string& table)
{
    RequestScope scope;
    if (OpenRequest(func, Access::READ, in.strAppId, in.strUri, scope) != RESULT_SUCCESS) {
        return nullptr;
    }
    table = scope.table;

    std::vector<std::string> projection;
    if (bIdsOnly) {
        in.vecProjection = {TilesModel::BaseColumnsID};
        projection = in.vecProjection;
        if (m_pPermissionHelper != nullptr) {
            projection =
                m_pPermissionHelper->GetAllowedProjectionForPermission(in.strUri, in.vecProjection, scope.level);
        }
    } else {
        projection = SelectProjection(in.strUri, in.vecProjection, scope);
    }
    if (scope.bRefused) {
        return nullptr;
    }

    std::string where = ConfinedWhere(func, in.strWhere, scope);
    if (scope.bRefused) {
        return nullptr;
    }
    if (!bIdsOnly && in.vecWhereArgs.size() == 1) {
        LOGD_AS(func, " %s", in.vecWhereArgs[0].c_str());
    }

    std::shared_ptr<ISQLiteCursor> cursor =
        scope.pConnection->SelectRequest(scope.table, projection, where, in.vecWhereArgs, in.strOrderBy, in.strLimit);
    if (cursor == nullptr) {
        LOGI_AS(func, "failed to get cursor");
    }
    return cursor;
}

/* A bulk write: opened like any write, then `body` runs in one transaction
 * and says how the bulk ended (its result and whether to commit); an empty
 * bulk and an exception roll back. */
int CTilesProvider::BulkWrite(const char* func, const std::string& appId, const std::string& uri, bool bEmpty,
                              const BulkWriteBody& body)
{
    RequestScope scope;
    int opened = OpenRequest(func, Access::WRITE, appId, uri, scope);
    if (opened != RESULT_SUCCESS) {
        return opened;
    }

    CContentDbConnection* pConnection = scope.pConnection;
    if (pConnection->BeginTransaction() != 0) {
        return RESULT_FAILED;  // without a transaction a bulk could be stored in part
    }
    if (bEmpty) {
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }
    try {
        BulkOutcome outcome = body(scope);
        const int ended = pConnection->EndTransaction(outcome.bCommit);
        // A commit that fails stores no row of the bulk: its code is the answer.
        return (outcome.bCommit && ended != 0) ? ended : outcome.result;
    } catch (...) {
        LOGI_AS(func, "failed by exception");
        pConnection->EndTransaction(false);
        return RESULT_FAILED;
    }
}

int CTilesProvider::InsertRequest(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    out.nRowId = -1;
    RequestScope scope;
    int opened = OpenRequest(__func__, Access::WRITE, in.strAppId, in.strUri, scope);
    if (opened != RESULT_SUCCESS) {
        return opened;
    }

    if (CStrictConfinement::AppliesTo(scope.level)) {
        return StrictInsert(in, out, scope);
    }
    // The row is written as the client sent it: no column check.
    int result = scope.pConnection->InsertRequest(scope.table, in.pValues);
    if (result == 0) {
        out.nRowId = scope.pConnection->GetLastInsertRowID();
    }
    return result;
}

/* Strict confinement's checks and the row in one transaction: the lookups
 * share the write's lock instead of each taking its own, and nothing is
 * written between them and the row. */
int CTilesProvider::StrictInsert(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out,
                                 RequestScope& scope)
{
    CContentDbConnection& connection = *scope.pConnection;
    const int begun = connection.BeginTransaction();
    if (begun != 0) {
        return begun;
    }
    if (!StrictWrittenRows({in.pValues}, scope, true)) {
        connection.EndTransaction(false);
        return CONFINEMENT_POLICY_REFUSED;
    }
    int result = connection.InsertRequest(scope.table, in.pValues);
    const int64_t rowId = connection.GetLastInsertRowID();
    const int ended = connection.EndTransaction(result == 0);
    if (result == 0 && ended != 0) {
        result = ended;  // a commit that fails stores no row
    }
    if (result == 0) {
        out.nRowId = rowId;
    }
    return result;
}

/* All rows or none: the first failure rolls the bulk back. Strict
 * confinement checks the rows in the transaction that writes them. */
int CTilesProvider::InsertRequest(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in,
                                  PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    out.nRowId = -1;
    const char* const func = __func__;
    auto insertAll = [&](RequestScope& scope) -> BulkOutcome {
        if (!StrictWrittenRows(in.vecValues, scope, true)) {
            return {CONFINEMENT_POLICY_REFUSED, false};
        }
        CContentDbConnection& connection = *scope.pConnection;
        int result = 0;
        for (bundle* pValues : in.vecValues) {
            result = connection.InsertRequest(scope.table, pValues);
            if (result != 0) {
                break;
            }
            out.nRowId = connection.GetLastInsertRowID();
        }
        if (result == 0) {
            return {RESULT_SUCCESS, true};
        }
        LOGI_AS(func, "failed to InsertRequest for bulk");
        out.nRowId = -1;
        return {result, false};
    };
    const int result = BulkWrite(func, in.strAppId, in.strUri, in.vecValues.empty(), insertAll);
    if (result != RESULT_SUCCESS) {
        out.nRowId = -1;  // also when the commit failed after the last row
    }
    return result;
}

bool CTilesProvider::SelectRequest(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    out.nRequestId = -1;
    std::string table;
    std::shared_ptr<ISQLiteCursor> cursor = ConfinedSelect(__func__, in, false, table);
    if (cursor == nullptr) {
        return false;
    }

    CDBLocalScopedLock lock(m_pDbLock.get());
    CSharedQueryObject::StoreCursor(cursor, table, out.strSharedName, out.nColumnCount);
    out.nRequestId = CSharedQueryObject::GetRequestID();
    return true;
}

int CTilesProvider::UpdateRequest(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& /*out*/)
{
    return ConfinedWrite(__func__, in.strAppId, in.strUri, in.strWhere, {in.pValues},
                         [&](CContentDbConnection& connection, const std::string& table, const std::string& where) {
                             return connection.UpdateRequest(table, in.pValues, where, in.vecWhereArgs);
                         });
}

/* The where clause that names a bulk update's row: under strict confinement
 * confined to the caller's own rows, whose values are checked as for a single
 * update. False when refused. */
bool CTilesProvider::StrictBulkRowWhere(const char* func, const std::vector<bundle*>& rows, RequestScope& scope,
                                        std::string& rowWhere)
{
    rowWhere = BULK_UPDATE_WHERE;
    if (!CStrictConfinement::AppliesTo(scope.level)) {
        return true;
    }
    rowWhere = ConfinedWhere(func, BULK_UPDATE_WHERE, scope);
    return !scope.bRefused && StrictWrittenRows(rows, scope, false);
}

/* Each bundle names its row by id. The rows are not confined to the caller's
 * own: a bulk update reaches any row of the table it names, guarded only by
 * the write level. Strict confinement adds the caller's row filter, as for a
 * single update. */
int CTilesProvider::UpdateRequest(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in,
                                  PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& /*out*/)
{
    const char* const func = __func__;
    auto updateEach = [&](RequestScope& scope) -> BulkOutcome {
        std::string rowWhere;
        if (!StrictBulkRowWhere(func, in.vecValues, scope, rowWhere)) {
            return {CONFINEMENT_POLICY_REFUSED, false};
        }
        int lastResult = RESULT_FAILED;
        for (bundle* pValues : in.vecValues) {
            const char* pRowId = bundle_get_val(pValues, BULK_UPDATE_ROW_ID_KEY);
            std::vector<std::string> whereArgs = {(pRowId != nullptr) ? pRowId : ""};

            if (bundle_del(pValues, BULK_UPDATE_ROW_ID_KEY) != BUNDLE_ERROR_NONE) {
                // Commits what an earlier bundle of this bulk updated, if any.
                LOGI_AS(func, "failed to delete row ID bundle for bulk");
                return {lastResult, lastResult == 0};
            }

            lastResult = scope.pConnection->UpdateRequest(scope.table, pValues, rowWhere, whereArgs);
            if (lastResult != 0) {
                LOGI_AS(func, "failed to UpdateRequest for bulk");
                return {lastResult, false};
            }
        }
        return {RESULT_SUCCESS, true};
    };
    return BulkWrite(func, in.strAppId, in.strUri, in.vecValues.empty(), updateEach);
}

int CTilesProvider::DeleteRequest(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    return ConfinedWrite(__func__, in.strAppId, in.strUri, in.strWhere, {},
                         [&](CContentDbConnection& connection, const std::string& table, const std::string& where) {
                             return connection.DeleteRequest(table, where, in.vecWhereArgs);
                         });
}

bool CTilesProvider::GetRowIDRequest(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    std::string table;
    std::shared_ptr<ISQLiteCursor> cursor = ConfinedSelect(__func__, in, true, table);
    if (cursor == nullptr) {
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

/* ---- content-library interface -------------------------------------------------- */

/* The provider a content-library request carries; null (logged in the
 * handler's name) when it carries none. */
CTilesProvider* CTilesProvider::ContentRequestProvider(const char* func, void* pUserData)
{
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(pUserData);
    if (pProvider == nullptr) {
        LOGI_AS(func, "failed by NULL user_data");
    }
    return pProvider;
}

void CTilesProvider::LogSyncEventResult(const char* func, int sendResult)
{
    if (sendResult == 0) {
        LOGI_AS(func, "success to send sync event");
    } else {
        LOGI_AS(func, "failed to send event : %d", sendResult);
    }
}

/* Runs a content request's handler when the request carries the provider,
 * then writes its outcome line; `failed` when it carries none. */
template <typename Result>
Result CTilesProvider::RunContentRequest(const char* func, void* pUserData, Result failed,
                                         const std::function<Result(CTilesProvider&)>& handle)
{
    CTilesProvider* pProvider = ContentRequestProvider(func, pUserData);
    if (pProvider == nullptr) {
        return failed;
    }
    return handle(*pProvider);
}

int CTilesProvider::InsertRequestCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out)
{
    const char* const func = __func__;
    return RunContentRequest<int>(func, in.pUserData, RESULT_FAILED, [&](CTilesProvider& provider) {
        TilesEvent event = provider.GetSyncEvent(in.pValues);
        if (event == TILES_EVENT_NONE) {
            int result = provider.InsertRequest(in, out);
            LOGI_AS(func, "INSERT row id = %lld", static_cast<long long>(out.nRowId));
            return result;
        }
        if (event == TILES_EVENT_SYNC_END) {
            // The end of a client's batch: relayed as an event, nothing is written.
            const char* pSectionRawId = bundle_get_val(in.pValues, TilesModel::Tiles::TILE_SECTION_RAW_ID);
            LogSyncEventResult(func, provider.SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT,
                                                            in.strAppId.c_str(), pSectionRawId, false));
        }
        // The client reads a sync mark as not inserted, success included.
        return RESULT_FAILED;
    });
}

int CTilesProvider::InsertRequestCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in,
                                    PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out)
{
    const char* const func = __func__;
    return RunContentRequest<int>(func, in.pUserData, RESULT_FAILED, [&](CTilesProvider& provider) {
        int result = provider.InsertRequest(in, out);
        LOGI_AS(func, "INSERT row id = %lld", static_cast<long long>(out.nRowId));
        if (result == 0) {
            const char* pSectionRawId =
                in.vecValues.empty() ? nullptr
                                     : bundle_get_val(in.vecValues.back(), TilesModel::Tiles::TILE_SECTION_RAW_ID);
            LogSyncEventResult(func, provider.SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT,
                                                            in.strAppId.c_str(), pSectionRawId, true));
        }
        return result;
    });
}

bool CTilesProvider::SelectRequestCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out)
{
    const char* const func = __func__;
    return RunContentRequest<bool>(func, in.pUserData, false, [&](CTilesProvider& provider) {
        bool result = provider.SelectRequest(in, out);
        if (result) {
            LOGI_AS(func, "success SELECT");
        } else {
            LOGI_AS(func, "failed SELECT");
        }
        return result;
    });
}

/* Either update; a bulk update sends no synchronisation event. */
template <typename In, typename Out>
int CTilesProvider::RunUpdate(const char* func, In& in, Out& out)
{
    return RunContentRequest<int>(func, in.pUserData, RESULT_FAILED, [&](CTilesProvider& provider) {
        int result = provider.UpdateRequest(in, out);
        LOGI_AS(func, "UPDATE result = %d", result);
        return result;
    });
}

int CTilesProvider::UpdateRequestCB(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out)
{
    return RunUpdate(__func__, in, out);
}

int CTilesProvider::UpdateRequestCB(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in,
                                    PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out)
{
    return RunUpdate(__func__, in, out);
}

int CTilesProvider::DeleteRequestCB(PT_PROVIDER_DELETE_IN_PARAM& in)
{
    const char* const func = __func__;
    return RunContentRequest<int>(func, in.pUserData, RESULT_FAILED, [&](CTilesProvider& provider) {
        int result = provider.DeleteRequest(in);
        LOGI_AS(func, "DELETE result = %d", result);
        if (result == 0) {
            LogSyncEventResult(func, provider.SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_DELETE,
                                                            in.strAppId.c_str(), "delete", true));
        }
        return result;
    });
}

bool CTilesProvider::GetRowIDRequestCB(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out)
{
    const char* const func = __func__;
    return RunContentRequest<bool>(func, in.pUserData, false, [&](CTilesProvider& provider) {
        bool result = provider.GetRowIDRequest(in, out);
        LOGI_AS(func, "Get Row ID result = %d", result);
        return result;
    });
}

/* ---- data-control interface ----------------------------------------------------- */

/* The caller's application id, fetched under the lock; null when it cannot be had. */
CTilesProvider::PlatformTextHolder CTilesProvider::FetchClientAppId(int requestId)
{
    char* pAppId = nullptr;
    CDBLocalScopedLock lock(m_pDbLock.get());
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
    CDBLocalScopedLock lock(m_pDbLock.get());
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

CTilesProvider::DataControlRequest::DataControlRequest(int id) : requestId(id), appId(NoText()), providerId(NoText()), dataId(NoText())
{
}

std::string CTilesProvider::DataControlRequest::Uri() const
{
    return std::string(providerId.get()) + "/" + dataId.get();
}

/* The provider a data-control request carries. When it (or the request's
 * data) is missing the request is answered with `errorText` and null comes
 * back; the lines are written in the handler's name. */
CTilesProvider* CTilesProvider::DataControlRequestProvider(const char* func, int requestId, void* userData,
                                                           bool bDataPresent, const char* errorText,
                                                           const char* logText)
{
    LOGD_AS(func, "request_id = %d", requestId);
    CTilesProvider* pProvider = static_cast<CTilesProvider*>(userData);
    if (pProvider == nullptr || !bDataPresent) {
        data_control_provider_send_error(requestId, errorText);
        LOGI_AS(func, "%s", logText);
        return nullptr;
    }
    return pProvider;
}

/* The request's provider id and data id; false (logged in the handler's
 * name) when they or the caller's id cannot be had. */
bool CTilesProvider::FetchRequestUri(const char* func, data_control_s* provider, DataControlRequest& request)
{
    FetchProviderAndDataId(provider, request.providerId, request.dataId);
    if (request.appId == nullptr || request.providerId == nullptr || request.dataId == nullptr) {
        LOGI_AS(func, "failed by invalid URI");
        return false;
    }
    return true;
}

/* The opening of a data-control request but for an insert: the provider it
 * carries, the caller's id and the request's URI. Null when any is missing. */
CTilesProvider* CTilesProvider::OpenDataControlRequest(const char* func, data_control_s* provider, void* userData,
                                                       bool bDataPresent, const char* errorText, const char* logText,
                                                       DataControlRequest& request)
{
    CTilesProvider* pProvider =
        DataControlRequestProvider(func, request.requestId, userData, bDataPresent, errorText, logText);
    if (pProvider == nullptr) {
        return nullptr;
    }
    request.appId = pProvider->FetchClientAppId(request.requestId);
    return pProvider->FetchRequestUri(func, provider, request) ? pProvider : nullptr;
}

/* Answers a write that succeeded, under the lock; the platform's result, or
 * DATA_CONTROL_ERROR_NONE when there was nothing to answer. */
int CTilesProvider::SendWriteResult(int result, const std::function<int()>& send)
{
    if (result != 0) {
        return DATA_CONTROL_ERROR_NONE;
    }
    CDBLocalScopedLock lock(m_pDbLock.get());
    return send();
}

/* A client's end of batch is relayed as an event; its start is dropped.
 * True when `insertData` was such a mark. */
bool CTilesProvider::RelaySyncMark(const char* func, bundle* insertData, const PlatformTextHolder& appId)
{
    TilesEvent event = GetSyncEvent(insertData);
    if (event == TILES_EVENT_SYNC_END) {
        const char* pSectionRawId = bundle_get_val(insertData, TilesModel::Tiles::TILE_SECTION_RAW_ID);
        if (appId == nullptr) {
            LOGI_AS(func, "pAppId is NULL");
            return true;
        }
        int sendResult = SendSyncEvent(TILES_EVENT_SYNC_END, DB_OPERATION_INSERT, appId.get(), pSectionRawId, false);
        if (sendResult == 0) {
            LOGI_AS(func, "success to send sync event : %s", appId.get());
        } else {
            LOGI_AS(func, "failed to send event : %d", sendResult);
        }
        return true;
    }
    return event == TILES_EVENT_SYNC_START;
}

void CTilesProvider::InsertRequestCB(int requestId, data_control_s* provider, _bundle_t* insertData, void* userData)
{
    DataControlRequest request(requestId);
    CTilesProvider* pProvider = DataControlRequestProvider(__func__, requestId, userData, insertData != nullptr,
                                                           "failed by NULL user_data or insert_data",
                                                           "failed by NULL user_data or insert_data");
    if (pProvider == nullptr) {
        return;
    }
    request.appId = pProvider->FetchClientAppId(requestId);
    if (pProvider->RelaySyncMark(__func__, insertData, request.appId) ||
        !pProvider->FetchRequestUri(__func__, provider, request)) {
        return;
    }

    PT_PROVIDER_INSERT_IN_PARAM in = request.MakeRecord<PT_PROVIDER_INSERT_IN_PARAM>(pProvider);
    in.pValues = insertData;
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = pProvider->InsertRequest(in, out);

    int sendResult = pProvider->SendWriteResult(
        result, [&] { return data_control_provider_send_insert_result(requestId, out.nRowId); });
    if (sendResult != DATA_CONTROL_ERROR_NONE) {
        LOGI("failed to data_control_provider_send_insert_result failed : %d", sendResult);
    }
    LOGI("[%s] INSERT row id = %lld", request.appId.get(), static_cast<long long>(out.nRowId));
}

namespace {

std::vector<std::string> RequestedColumns(char const** columns, int columnCount)
{
    std::vector<std::string> requested;
    for (int i = 0; i < columnCount && columns != nullptr; ++i) {
        if (columns[i] != nullptr) {
            requested.push_back(columns[i]);
        }
    }
    return requested;
}

}  // namespace

/* Builds the platform's statement for the request and answers with its
 * rows. The lock is held until the statement is finalised: the platform
 * reads the rows while no other request uses the connection. */
void CTilesProvider::AnswerSelect(const char* func, int requestId, data_control_s* provider,
                                  const std::vector<std::string>& columns, const std::string& where, char const* order)
{
    std::vector<const char*> columnNames;
    for (const std::string& column : columns) {
        columnNames.push_back(column.c_str());
    }

    CDBLocalScopedLock lock(m_pDbLock.get());
    PlatformTextHolder statementText(
        data_control_provider_create_select_statement(provider, columnNames.data(), static_cast<int>(columnNames.size()),
                                                      where.c_str(), order),
        &free);
    if (statementText == nullptr) {
        data_control_provider_send_error(requestId, "failed SELECT by statement");
        LOGI_AS(func, "failed SELECT by statement");
        return;
    }

    CContentDbConnection* pConnection = Connection();
    if (pConnection == nullptr) {
        data_control_provider_send_error(requestId, "failed SELECT by connection");
        LOGI_AS(func, "failed SELECT by connection");
        return;
    }

    sqlite3_stmt* pStatement = nullptr;
    std::string error;
    if (pConnection->PrepareCMD(statementText.get(), &pStatement, nullptr, error) == 0) {
        int sendResult = data_control_provider_send_select_result(requestId, pStatement);
        if (sendResult != DATA_CONTROL_ERROR_NONE) {
            LOGI_AS(func, "failed to data_control_provider_send_select_result : %d", sendResult);
        } else {
            LOGI_AS(func, "success SELECT");
        }
    }
    sqlite3_finalize(pStatement);
}

void CTilesProvider::SelectRequestCB(int requestId, data_control_s* provider, char const** columns, int columnCount,
                                     char const* where, char const* order, void* userData)
{
    DataControlRequest request(requestId);
    CTilesProvider* pProvider = OpenDataControlRequest(__func__, provider, userData, true, "failed by NULL user_data",
                                                       "failed SELECT by NULL user_data", request);
    if (pProvider == nullptr) {
        return;
    }

    const char* const func = __func__;
    RequestScope scope;
    std::string uri = request.Uri();
    int checked = pProvider->CheckCaller(func, Access::READ, request.appId.get(), uri, scope, [&] {
        CDBLocalScopedLock lock(pProvider->m_pDbLock.get());
        data_control_provider_send_error(requestId, "failed SELECT by permission");
        LOGI_AS(func, "failed SELECT by permission");
    });
    if (checked != RESULT_SUCCESS) {
        return;
    }

    // On this interface the data id is the table's name.
    scope.table = request.dataId.get();
    std::vector<std::string> allowedColumns =
        pProvider->SelectProjection(uri, RequestedColumns(columns, columnCount), scope);
    std::string generatedWhere;
    if (!scope.bRefused) {
        generatedWhere = pProvider->ConfinedWhere(func, (where != nullptr) ? where : "", scope);
    }
    if (scope.bRefused) {
        return;  // the platform answers a refusal with its reason
    }
    pProvider->AnswerSelect(func, requestId, provider, allowedColumns, generatedWhere, order);
}

void CTilesProvider::UpdateRequestCB(int requestId, data_control_s* provider, _bundle_t* updateData,
                                     char const* where, void* userData)
{
    DataControlRequest request(requestId);
    CTilesProvider* pProvider = OpenDataControlRequest(__func__, provider, userData, updateData != nullptr,
                                                       "failed by NULL user_data or update_data",
                                                       "failed by NULL user_data or update_data", request);
    if (pProvider == nullptr) {
        return;
    }

    PT_PROVIDER_UPDATE_IN_PARAM in = request.MakeRecord<PT_PROVIDER_UPDATE_IN_PARAM>(pProvider);
    in.pValues = updateData;
    in.strWhere = (where != nullptr) ? where : "";
    PT_PROVIDER_UPDATE_OUT_PARAM out;
    int result = pProvider->UpdateRequest(in, out);

    int sendResult = pProvider->SendWriteResult(result, [&] { return data_control_provider_send_update_result(requestId); });
    if (sendResult != DATA_CONTROL_ERROR_NONE) {
        // The bracketed word is printed as it stands.
        LOGI("[pAppId] data_control_provider_send_update_result failed: %d", sendResult);
    }
    LOGI("[%s] UPDATE result = %d", request.appId.get(), result);
}

void CTilesProvider::DeleteRequestCB(int requestId, data_control_s* provider, char const* where, void* userData)
{
    DataControlRequest request(requestId);
    CTilesProvider* pProvider = OpenDataControlRequest(__func__, provider, userData, true, "failed by NULL user_data",
                                                       "failed by NULL user_data", request);
    if (pProvider == nullptr) {
        return;
    }

    PT_PROVIDER_DELETE_IN_PARAM in = request.MakeRecord<PT_PROVIDER_DELETE_IN_PARAM>(pProvider);
    in.strWhere = (where != nullptr) ? where : "";
    int result = pProvider->DeleteRequest(in);

    int sendResult = pProvider->SendWriteResult(result, [&] { return data_control_provider_send_delete_result(requestId); });
    if (sendResult != DATA_CONTROL_ERROR_NONE) {
        LOGI("[%s] data_control_provider_send_delete_result failed : %d", request.appId.get(), sendResult);
    }
    LOGI("[%s] DELETE result = %d", request.appId.get(), result);
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
    CDBLocalScopedLock lock(m_pDbLock.get());

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

    CDBLocalScopedLock lock(pProvider->m_pDbLock.get());
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

    CDBLocalScopedLock lock(pProvider->m_pDbLock.get());
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
