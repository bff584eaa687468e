/*
 * Reaches the change manager's members for tests; the manager names this class
 * as a friend.
 */
#ifndef TILVANE_APP_SECTION_CHANGE_MANAGER_TEST_ACCESS_H
#define TILVANE_APP_SECTION_CHANGE_MANAGER_TEST_ACCESS_H

#include <cstdint>

#include "AppSectionChangeManager.h"
#include "DbHelper.h"

class CAppSectionChangeManagerTestAccess
{
public:
    static int32_t AcceleratorPortId(CAppSectionChangeManager* manager) { return manager->m_acceleratorPortId; }
    static int32_t LauncherEventPortId(CAppSectionChangeManager* manager) { return manager->m_launcherEventPortId; }
    static CDbHelper*& BackupDbHelper(CAppSectionChangeManager* manager) { return manager->m_pBackupDbHelper; }
};

#endif
