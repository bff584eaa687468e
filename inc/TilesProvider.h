/*
 * The provider singleton. Its constructor brings the service up (the database
 * lock, the tiles database with its corruption check and schema, the preview
 * event helper, the permission helper, the package-id cache); its destructor
 * takes it down again in order.
 */
#ifndef TILVANE_TILES_PROVIDER_H
#define TILVANE_TILES_PROVIDER_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <vconf.h>
#include <data_control.h>

#include "ContentProviderParam.h"
#include "PermissionHelper.h"

class CAppSectionChangeManager;
class CDBLock;
class CDbHelper;
class CMessageHelper;
class CContentDbConnection;
class ISQLiteCursor;

class CTilesProvider
{
public:
    /* The sync mark that a client's insert carries instead of a row. */
    enum TilesEvent
    {
        TILES_EVENT_NONE = 0,
        TILES_EVENT_SYNC_START = 3,
        TILES_EVENT_SYNC_END = 4
    };

    /* What a synchronisation event reports. */
    enum DbOperation
    {
        DB_OPERATION_INSERT = 1,
        DB_OPERATION_DELETE = 2
    };

    /* Where SendSyncEventThread delivers: the image download manager's port. */
    static const std::string SYNC_EVENT_MESSAGE_PORT_APP_ID;
    static const std::string SYNC_EVENT_MESSAGE_PORT_NAME;

    static CTilesProvider* GetInstance();
    static void ReleaseInstance();

    virtual ~CTilesProvider();

    CTilesProvider(const CTilesProvider&) = delete;
    CTilesProvider& operator=(const CTilesProvider&) = delete;

    /* True as soon as `path` exists; tries three times, 0.1 seconds apart. */
    bool isDBFileExist(std::string path);

    /* Whether an insert's values carry the start or end mark of a batch. */
    TilesEvent GetSyncEvent(bundle* values);
    /* Builds the synchronisation event of an application's change and hands it
     * to the message helper; 0 on success, -22 for any event but the end mark. */
    int SendSyncEvent(TilesEvent event, DbOperation operation, const char* appId, const char* sectionRawId,
                      bool bDbChanged);
    /* The package id of an application id, asked of the package manager at
     * most once per id for the life of the provider. */
    std::string GetPackageId(std::string appId);
    /* Thread body: delivers one event bundle (which it frees) straight to the
     * download manager, trying five times a second apart. */
    static void* SendSyncEventThread(void* eventBundle);

    /* Result codes of the request handlers. */
    static const int RESULT_SUCCESS = 0;
    static const int RESULT_INVALID_URI = -22;
    static const int RESULT_PERMISSION_DENIED = -13;
    static const int RESULT_FAILED = static_cast<int>(0xC0000000);

    /* Data-control interface: the platform's request id and handle; the provider
     * is the user data. Each answers the platform itself. */
    static void InsertRequestCB(int requestId, data_control_s* provider, _bundle_t* insertData, void* userData);
    static void SelectRequestCB(int requestId, data_control_s* provider, char const** columns, int columnCount,
                                char const* where, char const* order, void* userData);
    static void UpdateRequestCB(int requestId, data_control_s* provider, _bundle_t* updateData, char const* where,
                                void* userData);
    static void DeleteRequestCB(int requestId, data_control_s* provider, char const* where, void* userData);

    /* Content-library interface: the library fills the record, the provider is its
     * last field; the result goes back to the library's client. */
    static int InsertRequestCB(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out);
    static int InsertRequestCB(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in,
                               PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out);
    static bool SelectRequestCB(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out);
    static int UpdateRequestCB(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out);
    static int UpdateRequestCB(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in,
                               PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out);
    static int DeleteRequestCB(PT_PROVIDER_DELETE_IN_PARAM& in);
    static bool GetRowIDRequestCB(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out);

    /* The request handlers both interfaces end in. */
    int InsertRequest(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out);
    int InsertRequest(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out);
    bool SelectRequest(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out);
    int UpdateRequest(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out);
    int UpdateRequest(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out);
    int DeleteRequest(PT_PROVIDER_DELETE_IN_PARAM& in);
    bool GetRowIDRequest(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out);

    /* A text the platform allocated for the caller; freed with the holder. */
    using PlatformTextHolder = std::unique_ptr<char, void (*)(void*)>;

    /* The 21 content-library callbacks (seven kinds, three tables). */
    void registerDatabaseCB();
    void unregisterDatabaseCB();
    /* The data-control SQL callbacks. */
    void InitializeDatacontrolProvider();
    void DeinitializeDatacontrolProvider();

    /* Reset handling: clears every section and tile after a factory reset
     * (once per boot), at a power-off of a factory or service reset, and the
     * content-hub packages' sections when the content hub is reset. */
    void FactoryResetChecker();
    static int PowerOffCB(int type, void* userData);
    static void HalcyonResetCB(keynode_t* node, void* userData);

    /* Launcher-list maintenance. */
    bool NeedRecoveryLauncherList();
    bool InstalledPackagesRecovery();
    bool CheckLauncherItems();
    bool VerifyAccelerator();

private:
    CTilesProvider();

    /* Ids that call the provider but are no installed packages: their own package ids. */
    void SeedPackageIdCache();
    /* Chooses the factory-reset watcher (the start-up check when the key
     * exists, else the power-off subscription) and watches the content-hub
     * reset key. */
    void WatchResets();
    /* Deletes every tile and section (accelerators stay); lock held by the caller. */
    void ClearAllSectionsAndTiles(CContentDbConnection* pConnection);

    /* Whether a request reads or writes: a write must name the sections or
     * tiles table and is decided by the write level. */
    enum class Access
    {
        READ,
        WRITE
    };
    /* What a request's opening found: the table, the caller's package and
     * level, and the connection. */
    struct RequestScope
    {
        std::string table;
        std::string packageId;
        CPermissionHelper::PermissionLevel level = CPermissionHelper::PERMISSION_LEVEL_NONE;
        CContentDbConnection* pConnection = nullptr;
        /* Strict confinement refused the request (the refusal is reported). */
        bool bRefused = false;
    };
    /* How a bulk ended: its result, and whether its transaction commits. */
    struct BulkOutcome
    {
        int result;
        bool bCommit;
    };
    /* Writes the confined rows of a table: (connection, table, where) -> result. */
    using ConfinedWriteBody =
        std::function<int(CContentDbConnection& connection, const std::string& table, const std::string& where)>;
    /* Writes a bulk's rows to the opened scope's table -> how the bulk ended. */
    using BulkWriteBody = std::function<BulkOutcome(RequestScope& scope)>;
    /* A data-control request: its id, the caller's id and the URI's two parts. */
    struct DataControlRequest
    {
        explicit DataControlRequest(int id);
        std::string Uri() const;
        /* A content-request record of the caller, the URI and the provider. */
        template <typename Record>
        Record MakeRecord(CTilesProvider* pProvider) const
        {
            Record record;
            record.strAppId = appId.get();
            record.strUri = Uri();
            record.pUserData = pProvider;
            return record;
        }

        int requestId;
        PlatformTextHolder appId;
        PlatformTextHolder providerId;
        PlatformTextHolder dataId;
    };

    /* The caller's level, decided under the lock; 0 without a permission helper. */
    CPermissionHelper::PermissionLevel LockedPermissionLevel(Access access, const std::string& appId,
                                                             const std::string& packageId);
    /* The tiles database's connection, or null. */
    CContentDbConnection* Connection();

    /* Pieces the request handlers share. Each writes its lines in the name of
     * the handler `func` that uses it. */
    int CheckCaller(const char* func, Access access, const std::string& appId, const std::string& uri,
                    RequestScope& scope, const std::function<void()>& refuse);
    int OpenRequest(const char* func, Access access, const std::string& appId, const std::string& uri,
                    RequestScope& scope);
    std::string ConfinedWhere(const char* func, const std::string& where, RequestScope& scope);
    /* Strict confinement's checks of a request's projection and written rows
     * (of the scope's table); true when the request may go on (always in the
     * default mode). */
    bool StrictProjection(const std::string& uri, const std::vector<std::string>& requested, RequestScope& scope,
                          std::vector<std::string>& projection);
    bool StrictWrittenRows(const std::vector<bundle*>& rows, RequestScope& scope, bool bInsert);
    int StrictInsert(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out, RequestScope& scope);
    bool StrictBulkRowWhere(const char* func, const std::vector<bundle*>& rows, RequestScope& scope,
                            std::string& rowWhere);
    std::vector<std::string> SelectProjection(const std::string& uri, std::vector<std::string> requested,
                                              RequestScope& scope);
    int ConfinedWrite(const char* func, const std::string& appId, const std::string& uri, const std::string& where,
                      const std::vector<bundle*>& rows, const ConfinedWriteBody& write);
    std::shared_ptr<ISQLiteCursor> ConfinedSelect(const char* func, PT_PROVIDER_SELECT_IN_PARAM& in, bool bIdsOnly,
                                                  std::string& table);
    int BulkWrite(const char* func, const std::string& appId, const std::string& uri, bool bEmpty,
                  const BulkWriteBody& body);

    static CTilesProvider* ContentRequestProvider(const char* func, void* pUserData);
    static void LogSyncEventResult(const char* func, int sendResult);
    template <typename Result>
    static Result RunContentRequest(const char* func, void* pUserData, Result failed,
                                    const std::function<Result(CTilesProvider&)>& handle);
    template <typename In, typename Out>
    static int RunUpdate(const char* func, In& in, Out& out);

    static CTilesProvider* DataControlRequestProvider(const char* func, int requestId, void* userData,
                                                      bool bDataPresent, const char* errorText, const char* logText);
    static CTilesProvider* OpenDataControlRequest(const char* func, data_control_s* provider, void* userData,
                                                  bool bDataPresent, const char* errorText, const char* logText,
                                                  DataControlRequest& request);
    bool FetchRequestUri(const char* func, data_control_s* provider, DataControlRequest& request);
    bool RelaySyncMark(const char* func, bundle* insertData, const PlatformTextHolder& appId);
    int SendWriteResult(int result, const std::function<int()>& send);
    void AnswerSelect(const char* func, int requestId, data_control_s* provider,
                      const std::vector<std::string>& columns, const std::string& where, char const* order);

    /* Data-control interface: the caller's application id, the provider id and the
     * data id of a request, each fetched under the lock (null on failure). */
    PlatformTextHolder FetchClientAppId(int requestId);
    void FetchProviderAndDataId(data_control_s* provider, PlatformTextHolder& providerId, PlatformTextHolder& dataId);

    /* Owned; deleted first by the destructor. Tests reach it as a plain pointer. */
    CAppSectionChangeManager* m_pAppSectionChangeManager;
    std::unique_ptr<CPermissionHelper> m_pPermissionHelper;
    std::unique_ptr<CDbHelper> m_pDbHelper;
    std::map<std::string, std::string> m_packageIdCache;
    std::unique_ptr<CDBLock> m_pDbLock;
    /* Never deleted: the preview-event port lives until the process exits. */
    CMessageHelper* m_pSyncEventHelper;
    bool m_bDbCorrupted;
    bool m_bPowerOffSubscribed;

    static CTilesProvider* m_pTilesProvider;

    /* Lets tests reach the members that no operation exposes. */
    friend class CTilesProviderTestAccess;
};

#endif
