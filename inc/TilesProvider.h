/*
 * The provider singleton. Its constructor brings the service up (the database
 * lock, the tiles database with its corruption check and schema); its
 * destructor takes it down again in order.
 */
#ifndef TILVANE_TILES_PROVIDER_H
#define TILVANE_TILES_PROVIDER_H

#include <string>

class CDBLock;
class CDbHelper;

class CTilesProvider
{
public:
    static CTilesProvider* GetInstance();
    static void ReleaseInstance();

    virtual ~CTilesProvider();

    CTilesProvider(const CTilesProvider&) = delete;
    CTilesProvider& operator=(const CTilesProvider&) = delete;

    /* True as soon as `path` exists; tries three times, 0.1 seconds apart. */
    bool isDBFileExist(std::string path);

private:
    CTilesProvider();

    CDbHelper* m_pDbHelper;
    CDBLock* m_pDbLock;
    bool m_bDbCorrupted;

    static CTilesProvider* m_pTilesProvider;
};

#endif
