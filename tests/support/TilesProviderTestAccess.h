/*
 * Reaches the provider's members that no operation exposes, for tests. The
 * provider names this class as a friend.
 */
#ifndef TILVANE_TILES_PROVIDER_TEST_ACCESS_H
#define TILVANE_TILES_PROVIDER_TEST_ACCESS_H

#include <map>
#include <string>

#include "MessageHelper.h"
#include "TilesProvider.h"

class CTilesProviderTestAccess
{
public:
    static CMessageHelper*& SyncEventHelper(CTilesProvider* provider) { return provider->m_pSyncEventHelper; }
    static CPermissionHelper* PermissionHelper(CTilesProvider* provider) { return provider->m_pPermissionHelper.get(); }
    static const std::map<std::string, std::string>& PackageIdCache(CTilesProvider* provider)
    {
        return provider->m_packageIdCache;
    }

    static CAppSectionChangeManager*& AppSectionChangeManager(CTilesProvider* provider)
    {
        return provider->m_pAppSectionChangeManager;
    }
    static bool DbCorrupted(CTilesProvider* provider) { return provider->m_bDbCorrupted; }
    static bool PowerOffSubscribed(CTilesProvider* provider) { return provider->m_bPowerOffSubscribed; }

    /* Releases the singleton and deletes its message helper too. The service
     * keeps that helper, with its port, until the process ends; a test that
     * builds several providers frees each one's helper so that leak checks
     * see only real leaks. */
    static void ReleaseInstanceAndMessageHelper()
    {
        if (CTilesProvider::m_pTilesProvider == nullptr) {
            return;
        }
        CMessageHelper* helper = CTilesProvider::m_pTilesProvider->m_pSyncEventHelper;
        CTilesProvider::ReleaseInstance();
        delete helper;
        /* The content-hub reset watch also stays for the process's life; a
         * later provider must not find the released one's watch. */
        vconf_ignore_key_changed("memory/korro/halcyon_reset_event", CTilesProvider::HalcyonResetCB);
    }
};

#endif
