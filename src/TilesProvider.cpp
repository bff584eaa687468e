#include "TilesProvider.h"

#include <unistd.h>

#include <tzplatform_config.h>

#include "DBLock.h"
#include "DbHelper.h"
#include "TilvaneLog.h"

namespace {

const char DB_LOCK_NAME[] = "CTilesProviderLock";
const char DB_FILE_NAME[] = ".preview.db";
const int DB_VERSION = 15;

const int DB_FILE_CHECK_TRIES = 3;
const useconds_t DB_FILE_CHECK_INTERVAL_US = 100000;

std::string DatabaseDirectory()
{
    const char* pPath = tzplatform_getenv(TZ_SYS_DB);
    return std::string(pPath != nullptr ? pPath : "") + "/";
}

}  // namespace

CTilesProvider* CTilesProvider::m_pTilesProvider = nullptr;

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
    : m_pDbHelper(nullptr)
    , m_pDbLock(nullptr)
    , m_bDbCorrupted(false)
{
    m_pDbLock = new CDBLock(DB_LOCK_NAME);

    std::string directory = DatabaseDirectory();
    std::string path = directory + DB_FILE_NAME;

    // Only waits (and logs) while the file is missing; the helper creates it.
    isDBFileExist(path);

    m_pDbHelper = new CDbHelper(directory, DB_FILE_NAME, DB_VERSION);

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
}

CTilesProvider::~CTilesProvider()
{
    delete m_pDbHelper;
    m_pDbHelper = nullptr;

    m_bDbCorrupted = false;

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
