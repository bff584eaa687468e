/*
 * The provider singleton. Its constructor brings the service up (the database
 * lock, the tiles database with its corruption check and schema, the preview
 * event helper, the permission helper, the package-id cache); its destructor
 * takes it down again in order.
 */
#ifndef TILVANE_TILES_PROVIDER_H
#define TILVANE_TILES_PROVIDER_H

#include <map>
#include <string>

#include <bundle.h>

class CDBLock;
class CDbHelper;
class CMessageHelper;
class CPermissionHelper;

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

private:
    CTilesProvider();

    /* Ids that call the provider but are no installed packages: their own package ids. */
    void SeedPackageIdCache();

    CPermissionHelper* m_pPermissionHelper;
    CDbHelper* m_pDbHelper;
    std::map<std::string, std::string> m_packageIdCache;
    CDBLock* m_pDbLock;
    CMessageHelper* m_pSyncEventHelper;
    bool m_bDbCorrupted;

    static CTilesProvider* m_pTilesProvider;

    /* Lets tests reach the members that no operation exposes. */
    friend class CTilesProviderTestAccess;
};

#endif
