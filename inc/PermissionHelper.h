/*
 * Access control of the tiles database: the permission level of a calling
 * application, the columns each level may read or change, and the launcher
 * entry (accelerator row) of a launcher-supporting package.
 *
 * A caller's level comes from, in this order: the white list of system
 * services, an existing accelerator row of its package, the launcher-support
 * metadata it declares, and the privileges it declares as metadata. Nothing
 * is cached: every call decides afresh. Calls must not overlap; the provider
 * makes them on its main loop under its lock.
 */
#ifndef TILVANE_PERMISSION_HELPER_H
#define TILVANE_PERMISSION_HELPER_H

#include <bundle.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ContentHelper.h"

class CPermissionHelper
{
public:
    /* Ordered: a higher value means more access. 2 is left unassigned. */
    enum PermissionLevel
    {
        PERMISSION_LEVEL_NONE = 0,
        PERMISSION_LEVEL_PUBLIC = 1,
        PERMISSION_LEVEL_MVPD = 3,
        PERMISSION_LEVEL_INTERNAL = 4
    };

    /* The privileges an application declares (as metadata) to read or write
     * preview content. WRITE_TILES_INTERNAL is recognised nowhere: a write
     * level of 4 is given only by the white list. */
    static std::string READ_TILES;
    static std::string WRITE_TILES;
    static std::string READ_TILES_MVPD;
    static std::string WRITE_TILES_MVPD;
    static std::string READ_TILES_INTERNAL;
    static std::string WRITE_TILES_INTERNAL;

    /* Fills the column tables of the accelerators, sections and tiles, then the white list. */
    CPermissionHelper();

    /* The caller's level for reading and for writing. `appId` is the calling
     * application, `packageId` its package, `dbHelper` the tiles database
     * (may be null: the accelerator row is then neither looked up nor made). */
    PermissionLevel GetReadPermissionLevel(std::string appId, std::string packageId, CContentHelper* dbHelper);
    PermissionLevel GetWritePermissionLevel(std::string appId, std::string packageId, CContentHelper* dbHelper);

    /* The level of one privilege string; 0 for anything not recognised. */
    PermissionLevel GetPermissionLevel(std::string privilege);
    /* True when the package is one of the white-listed system services. */
    bool CheckPermissionWhiteList(std::string packageId);

    /* True when `level` may change every column named by a key of `values`.
     * Every key is checked and each refusal logged. */
    bool ValidateColumns(bundle* values, std::string tableUri, PermissionLevel level);
    /* The columns of `projection` that `level` may read, in the requested
     * order; for an empty request the table's default projection. */
    std::vector<std::string> GetAllowedProjectionForPermission(std::string tableUri,
                                                               std::vector<std::string>& projection,
                                                               PermissionLevel level);

    /* The id of the package's accelerator row, or -1. */
    int64_t GetAcceleratorID(CContentHelper* dbHelper, std::string packageId);
    /* The id of the package's accelerator row, made when there is none; -1 on failure. */
    int64_t RecoverAcceleratorID(std::string packageId, CContentHelper* dbHelper);

    /* Metadata callbacks for app_info_foreach_metadata. GetSupportNimbeCB takes
     * a bool flag that it sets when the launcher-support key is declared; the
     * permission callbacks take the helper. True goes on, false stops. */
    static bool GetSupportNimbeCB(const char* key, const char* value, void* userData);
    static bool GetReadPermissionCB(const char* key, const char* value, void* userData);
    static bool GetWritePermissionCB(const char* key, const char* value, void* userData);
    bool GetReadPermission(const char* key, const char* value);
    bool GetWritePermission(const char* key, const char* value);

    /* Bundle iteration callback of ValidateColumns; the helper is the user data. */
    static void ValidateColumnForPermissionCB(const char* key, const char* value, void* userData);
    void ValidateColumnForPermission(const char* key, const char* value);

private:
    /* What tells the read decision from the write decision. */
    struct LevelProcedure
    {
        const char* name;                      // the decision's name in its log lines
        const std::string* launcherPrivilege;  // what launcher support gives
        const char* callbackName;              // the declared-privilege pass, as logged
        const char* declaredName;              // where that pass keeps what it found, as logged
        bool (*callback)(const char* key, const char* value, void* userData);
        std::string CPermissionHelper::*declared;
    };
    static const LevelProcedure READ_LEVEL;
    static const LevelProcedure WRITE_LEVEL;

    PermissionLevel DecideLevel(const LevelProcedure& procedure, const std::string& appId,
                                const std::string& packageId, CContentHelper* dbHelper);
    std::string PrivilegeFromMetadata(const LevelProcedure& procedure, const std::string& appId,
                                      const std::string& packageId, CContentHelper* dbHelper);

    /* The column levels of a table's URI; null for any other URI. */
    std::map<std::string, PermissionLevel>* TablePermissions(const std::string& tableUri);
    /* The columns an empty projection stands for at `level`. */
    static std::vector<std::string> DefaultProjection(const std::string& tableUri, PermissionLevel level);

    /* True when the accelerators table has a row of exactly this package. */
    bool HasAcceleratorRow(const std::string& packageId, CContentHelper* dbHelper);

    void InitializeAcceleratorPermissions();
    void InitializeSectionPermissions();
    void InitializeTilePermissions();
    void InitializePermissionWhiteList();

    bool m_bColumnsValid;
    std::string m_readPermission;
    std::string m_writePermission;
    std::string m_validateTable;
    PermissionLevel m_validateLevel;
    std::map<std::string, PermissionLevel> m_acceleratorPermissions;
    std::map<std::string, PermissionLevel> m_sectionPermissions;
    std::map<std::string, PermissionLevel> m_tilePermissions;
    std::map<std::string, PermissionLevel> m_permissionWhiteList;
};

#endif
