#include "PermissionHelper.h"

#include <app_info.h>
#include <bundle_ptr.h>
#include <confinement_policy.h>

#include <memory>

#include "SQLiteCursor.h"
#include "TilesModel.h"
#include "TilvaneLog.h"

namespace {

/* The level a column of `table` requires. A name the table does not list
 * requires level 0, so it passes; it is not added to the table, which would
 * otherwise grow with every name an application makes up. */
CPermissionHelper::PermissionLevel RequiredLevel(const std::map<std::string, CPermissionHelper::PermissionLevel>& table,
                                                 const std::string& name)
{
    auto it = table.find(name);
    return it != table.end() ? it->second : CPermissionHelper::PERMISSION_LEVEL_NONE;
}

}  // namespace

std::string CPermissionHelper::READ_TILES = "com.quillon.px.permission.READ_TILES";
std::string CPermissionHelper::WRITE_TILES = "com.quillon.px.permission.WRITE_TILES";
std::string CPermissionHelper::READ_TILES_MVPD = "com.quillon.px.permission.READ_TILES_MVPD";
std::string CPermissionHelper::WRITE_TILES_MVPD = "com.quillon.px.permission.WRITE_TILES_MVPD";
std::string CPermissionHelper::READ_TILES_INTERNAL = "com.quillon.px.permission.READ_TILES_INTERNAL";
std::string CPermissionHelper::WRITE_TILES_INTERNAL = "com.quillon.px.permission.WRITE_TILES_INTERNAL";

CPermissionHelper::CPermissionHelper()
    : m_bColumnsValid(false), m_validateLevel(PERMISSION_LEVEL_NONE)
{
    InitializeAcceleratorPermissions();
    InitializeSectionPermissions();
    InitializeTilePermissions();
    InitializePermissionWhiteList();
}

namespace {

using ColumnList = std::vector<const char*>;

/* Every table's columns in the order of its default projection. */
const ColumnList& PublicAcceleratorColumns()
{
    using namespace TilesModel::Accelerators;
    static const ColumnList columns = {_ID,      ACCELERATOR_TITLE, ACCELERATOR_ICON, ACCELERATOR_ICON_UNFOCUSED,
                                       ACCELERATOR_ENABLED, ACCELERATOR_ID};
    return columns;
}

/* The accelerators' own columns, and two names that are no columns but are
 * listed so that only level 4 can name them. */
const ColumnList& InternalAcceleratorColumns()
{
    namespace Internal = TilesInternalModel::Accelerators;
    static const ColumnList columns = {Internal::ACCELERATOR_POSITION, Internal::ACCELERATOR_APP_PKG_NAME,
                                       Internal::ACCELERATOR_READ_PERMISSION, Internal::ACCELERATOR_WRITE_PERMISSION,
                                       Internal::ACCELERATOR_QEB_WEB_APP_ID};
    return columns;
}

const ColumnList& SectionColumns()
{
    using namespace TilesModel::Sections;
    static const ColumnList columns = {
        _ID, SECTION_ID, SECTION_TITLE, SECTION_POSITION, SECTION_ACCELERATOR_RAW_ID,
        SECTION_TITLE_DISPLAY_MODE, SECTION_SUBTITLE_DISPLAY_MODE};
    return columns;
}

const ColumnList& TileColumns()
{
    using namespace TilesModel::Tiles;
    static const ColumnList columns = {
        _ID, TILE_ID, TILE_SECTION_RAW_ID, TILE_TYPE, TILE_TITLE, TILE_SUBTITLE,
        TILE_DISPLAY_FROM, TILE_DISPLAY_UNTIL, TILE_ACTION_PLAY, TILE_ACTION_CLICK,
        TILE_ACTION_TYPE, TILE_ACTION_DETAILS, TILE_IMAGE_URL, TILE_IMAGE_PATH,
        TILE_IMAGE_WIDTH, TILE_IMAGE_HEIGHT, TILE_IMAGE_RATIO, TILE_SOURCE_ICON,
        TILE_SOURCE_ICON_PATH, TILE_ACTION_PRE_PLAY, TILE_ACTION_POST_PLAY,
        TILE_PLAYABLE, TILE_PROGRESS, TILE_NOTIFICATION, TILE_FAVORITE, TILE_POSITION,
        TILE_EXTRA_APP_ID};
    return columns;
}

void SetLevel(std::map<std::string, CPermissionHelper::PermissionLevel>& levels, const ColumnList& columns,
              CPermissionHelper::PermissionLevel level)
{
    for (const char* column : columns) {
        levels[column] = level;
    }
}

void Append(std::vector<std::string>& names, const ColumnList& columns)
{
    names.insert(names.end(), columns.begin(), columns.end());
}

}  // namespace

void CPermissionHelper::InitializeAcceleratorPermissions()
{
    SetLevel(m_acceleratorPermissions, PublicAcceleratorColumns(), PERMISSION_LEVEL_PUBLIC);
    SetLevel(m_acceleratorPermissions, InternalAcceleratorColumns(), PERMISSION_LEVEL_INTERNAL);
}

void CPermissionHelper::InitializeSectionPermissions()
{
    SetLevel(m_sectionPermissions, SectionColumns(), PERMISSION_LEVEL_PUBLIC);
}

void CPermissionHelper::InitializeTilePermissions()
{
    SetLevel(m_tilePermissions, TileColumns(), PERMISSION_LEVEL_PUBLIC);
}

void CPermissionHelper::InitializePermissionWhiteList()
{
    m_permissionWhiteList["DownloadManager"] = PERMISSION_LEVEL_INTERNAL;
    m_permissionWhiteList["ContentServiceManager"] = PERMISSION_LEVEL_INTERNAL;
}

/* The read and the write decision: one procedure, with the read or the write
 * privilege. Its lines carry the name of the decision that wrote them. */
const CPermissionHelper::LevelProcedure CPermissionHelper::READ_LEVEL = {
    "GetReadPermissionLevel", &CPermissionHelper::READ_TILES, "GetReadPermissionCB", "m_readPermission",
    &CPermissionHelper::GetReadPermissionCB, &CPermissionHelper::m_readPermission};
const CPermissionHelper::LevelProcedure CPermissionHelper::WRITE_LEVEL = {
    "GetWritePermissionLevel", &CPermissionHelper::WRITE_TILES, "GetWritePermissionCB", "m_writePermission",
    &CPermissionHelper::GetWritePermissionCB, &CPermissionHelper::m_writePermission};

CPermissionHelper::PermissionLevel CPermissionHelper::GetReadPermissionLevel(std::string appId, std::string packageId,
                                                                            CContentHelper* dbHelper)
{
    return DecideLevel(READ_LEVEL, appId, packageId, dbHelper);
}

CPermissionHelper::PermissionLevel CPermissionHelper::GetWritePermissionLevel(std::string appId,
                                                                             std::string packageId,
                                                                             CContentHelper* dbHelper)
{
    return DecideLevel(WRITE_LEVEL, appId, packageId, dbHelper);
}

/* The white list first; then an accelerator row of the package gives the
 * public privilege; without one, the application's metadata decides. */
CPermissionHelper::PermissionLevel CPermissionHelper::DecideLevel(const LevelProcedure& procedure,
                                                                  const std::string& appId,
                                                                  const std::string& packageId,
                                                                  CContentHelper* dbHelper)
{
    auto whiteListed = m_permissionWhiteList.find(packageId);
    if (whiteListed != m_permissionWhiteList.end()) {
        return whiteListed->second;
    }

    std::string permission;
    if (HasAcceleratorRow(packageId, dbHelper)) {
        permission = *procedure.launcherPrivilege;
    }
    if (permission.empty()) {
        permission = PrivilegeFromMetadata(procedure, appId, packageId, dbHelper);
    }
    return GetPermissionLevel(permission);
}

/* Launcher support gives the public privilege (and makes the package's
 * accelerator row); a declared privilege overrides it. Empty when the
 * application is unknown or declares neither. */
std::string CPermissionHelper::PrivilegeFromMetadata(const LevelProcedure& procedure, const std::string& appId,
                                                     const std::string& packageId, CContentHelper* dbHelper)
{
    const char* const func = procedure.name;
    app_info_h appInfo = nullptr;
    if (app_info_create(appId.c_str(), &appInfo) != APP_MANAGER_ERROR_NONE) {
        return "";
    }

    std::string permission;
    LOGI_AS(func, "Start get GetSupportNimbeCB for [%s]", packageId.c_str());
    bool supportNimbe = false;
    if (app_info_foreach_metadata(appInfo, GetSupportNimbeCB, &supportNimbe) != APP_MANAGER_ERROR_NONE) {
        LOGI_AS(func, "failed to call metadata callback");
    } else if (supportNimbe) {
        LOGI_AS(func, "Need to recover [%s] to acceleartors", packageId.c_str());
        if (dbHelper != nullptr) {
            RecoverAcceleratorID(packageId, dbHelper);
            permission = *procedure.launcherPrivilege;
        }
    }
    LOGI_AS(func, "End get GetSupportNimbeCB for [%s]", packageId.c_str());

    LOGI_AS(func, "Start get %s for [%s]", procedure.callbackName, packageId.c_str());
    std::string& declared = this->*procedure.declared;
    declared.clear();
    if (app_info_foreach_metadata(appInfo, procedure.callback, this) == APP_MANAGER_ERROR_NONE) {
        LOGI_AS(func, "success to call metadata callback");
    } else {
        LOGI_AS(func, "failed to call metadata callback");
    }
    LOGI_AS(func, "End get %s for [%s]", procedure.callbackName, packageId.c_str());

    if (!declared.empty()) {
        LOGI_AS(func, "%s is not empty for [%s]", procedure.declaredName, packageId.c_str());
        permission = declared;
    }
    app_info_destroy(appInfo);
    return permission;
}

/* The package id is pasted between quotes, not bound: the row must then read
 * back as exactly that id. */
bool CPermissionHelper::HasAcceleratorRow(const std::string& packageId, CContentHelper* dbHelper)
{
    CContentDbConnection* connection = dbHelper != nullptr ? dbHelper->GetConnection() : nullptr;
    if (connection == nullptr) {
        return false;
    }
    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::vector<std::string> projection = {TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME};
    std::shared_ptr<ISQLiteCursor> cursor;
    if (confinement_policy_is_strict()) {
        /* Strict confinement binds the package id. */
        std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?";
        cursor = connection->SelectRequest(table, projection, where, {packageId}, "", "");
    } else {
        std::string where = TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME;
        where.reserve(where.size() + packageId.size() + 3);
        where.append("='", 2).append(packageId).push_back('\'');
        cursor = connection->SelectRequest(table, projection, where, "");
    }
    std::string pkgName;
    return cursor != nullptr && cursor->Step() == 0 && cursor->GetString(0, pkgName) && pkgName == packageId;
}

CPermissionHelper::PermissionLevel CPermissionHelper::GetPermissionLevel(std::string privilege)
{
    if (privilege == READ_TILES || privilege == WRITE_TILES) {
        return PERMISSION_LEVEL_PUBLIC;
    }
    if (privilege == READ_TILES_MVPD || privilege == WRITE_TILES_MVPD) {
        return PERMISSION_LEVEL_MVPD;
    }
    /* WRITE_TILES_INTERNAL is deliberately not recognised. */
    if (privilege == READ_TILES_INTERNAL) {
        return PERMISSION_LEVEL_INTERNAL;
    }
    return PERMISSION_LEVEL_NONE;
}

bool CPermissionHelper::CheckPermissionWhiteList(std::string packageId)
{
    return m_permissionWhiteList.find(packageId) != m_permissionWhiteList.end();
}

bool CPermissionHelper::GetSupportNimbeCB(const char* key, const char* /*value*/, void* userData)
{
    if (key == nullptr || userData == nullptr) {
        LOGI("metadata_key or user data is NULL pointer, skip ");
        return false;
    }
    std::string metadataKey(key);
    if (metadataKey == AppMetadata::USE_ACCELERATOR || metadataKey == AppMetadata::USE_PREVIEW) {
        *static_cast<bool*>(userData) = true;
    }
    return true;
}

bool CPermissionHelper::GetReadPermissionCB(const char* key, const char* value, void* userData)
{
    if (userData == nullptr) {
        return false;
    }
    return static_cast<CPermissionHelper*>(userData)->GetReadPermission(key, value);
}

bool CPermissionHelper::GetWritePermissionCB(const char* key, const char* value, void* userData)
{
    if (userData == nullptr) {
        return false;
    }
    return static_cast<CPermissionHelper*>(userData)->GetWritePermission(key, value);
}

bool CPermissionHelper::GetReadPermission(const char* key, const char* value)
{
    return TakeDeclaredPrivilege(key, value, TilesInternalModel::Accelerators::ACCELERATOR_READ_PERMISSION,
                                 {&READ_TILES_INTERNAL, &READ_TILES_MVPD, &READ_TILES}, m_readPermission);
}

/* A declared WRITE_TILES_INTERNAL is not recognised on purpose. */
bool CPermissionHelper::GetWritePermission(const char* key, const char* value)
{
    return TakeDeclaredPrivilege(key, value, TilesInternalModel::Accelerators::ACCELERATOR_WRITE_PERMISSION,
                                 {&WRITE_TILES_MVPD, &WRITE_TILES}, m_writePermission);
}

/* One metadata entry: when it is `privilegeKey` with one of the `recognised`
 * privileges, that privilege is kept in `declared` and the pass stops
 * (false); anything else goes on. */
bool CPermissionHelper::TakeDeclaredPrivilege(const char* key, const char* value, const char* privilegeKey,
                                              std::initializer_list<const std::string*> recognised,
                                              std::string& declared)
{
    if (key == nullptr || value == nullptr || std::string(key) != privilegeKey) {
        return true;
    }
    for (const std::string* privilege : recognised) {
        if (*privilege == value) {
            declared = *privilege;
            return false;
        }
    }
    return true;
}

int64_t CPermissionHelper::GetAcceleratorID(CContentHelper* dbHelper, std::string packageId)
{
    if (dbHelper == nullptr) {
        return -1;
    }
    CContentDbConnection* connection = dbHelper->GetConnection();
    if (connection == nullptr) {
        return -1;
    }
    std::string table = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::vector<std::string> projection = {TilesModel::Accelerators::_ID};
    std::string where = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?";
    std::vector<std::string> whereArgs = {CContentHelper::ToSQLFormat(packageId)};

    int64_t acceleratorId = -1;
    std::shared_ptr<ISQLiteCursor> cursor = connection->SelectRequest(table, projection, where, whereArgs, "", "");
    if (cursor != nullptr) {
        while (cursor->Step() == 0) {
            int64_t value = 0;
            if (cursor->GetInt64(0, value)) {
                acceleratorId = value;
                break;
            }
        }
        cursor.reset();
    }
    return acceleratorId;
}

int64_t CPermissionHelper::RecoverAcceleratorID(std::string packageId, CContentHelper* dbHelper)
{
    if (packageId.empty()) {
        LOGI("appPkgName is empty");
        return -1;
    }
    if (dbHelper == nullptr) {
        LOGE("m_pDbHelper is NULL !!");
        return -1;
    }
    CContentDbConnection* connection = dbHelper->GetConnection();
    if (connection == nullptr) {
        LOGI("Failed to connect preview DB");
        return -1;
    }

    int64_t acceleratorId = GetAcceleratorID(dbHelper, packageId);
    if (acceleratorId > 0) {
        return acceleratorId;
    }

    /* A bare row: every other column takes the schema's default. */
    BundlePtr values = MakeBundle();
    bundle_add_str(values.get(), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME,
                   CContentHelper::ToSQLFormat(packageId).c_str());
    connection->InsertRequest("accelerators", values.get());
    acceleratorId = connection->GetLastInsertRowID();
    return acceleratorId;
}

bool CPermissionHelper::ValidateColumns(bundle* values, std::string tableUri, PermissionLevel level)
{
    m_validateTable = tableUri;
    m_validateLevel = level;
    m_bColumnsValid = true;
    /* Every key is visited, even after a refusal, so that each one is logged. */
    bundle_iterate(values, ValidateColumnForPermissionCB, this);
    return m_bColumnsValid;
}

void CPermissionHelper::ValidateColumnForPermissionCB(const char* key, const char* value, void* userData)
{
    if (userData == nullptr) {
        return;
    }
    static_cast<CPermissionHelper*>(userData)->ValidateColumnForPermission(key, value);
}

void CPermissionHelper::ValidateColumnForPermission(const char* key, const char* /*value*/)
{
    std::map<std::string, PermissionLevel>* tablePermissions = TablePermissions(m_validateTable);
    if (tablePermissions == nullptr) {
        LOGI("%s : unknown table", __func__);
        m_bColumnsValid = false;
        return;
    }
    if (key == nullptr) {
        m_bColumnsValid = false;
        return;
    }

    PermissionLevel required = RequiredLevel(*tablePermissions, key);
    LOGI("%s : client permission = %d permission of [ %s ] in Table [ %s ] = %d", __func__, m_validateLevel, key,
         m_validateTable.c_str(), required);
    if (m_validateLevel < required) {
        LOGI("%s : Permission to modify [ %s ] is not granted", __func__, key);
        m_bColumnsValid = false;
    }
}

std::vector<std::string> CPermissionHelper::GetAllowedProjectionForPermission(std::string tableUri,
                                                                              std::vector<std::string>& projection,
                                                                              PermissionLevel level)
{
    if (projection.empty()) {
        return DefaultProjection(tableUri, level);
    }

    std::vector<std::string> allowed;
    for (const std::string& name : projection) {
        std::map<std::string, PermissionLevel>* tablePermissions = TablePermissions(tableUri);
        if (tablePermissions == nullptr) {
            continue;
        }
        PermissionLevel required = RequiredLevel(*tablePermissions, name);
        if (required <= level) {
            allowed.push_back(name);
        }
        LOGI("%s : tablePermissions[%s] = %d", __func__, name.c_str(), required);
    }
    return allowed;
}

std::map<std::string, CPermissionHelper::PermissionLevel>* CPermissionHelper::TablePermissions(
    const std::string& tableUri)
{
    if (tableUri == TilesModel::Accelerators::CONTENT_URI) {
        return &m_acceleratorPermissions;
    }
    if (tableUri == TilesModel::Sections::CONTENT_URI) {
        return &m_sectionPermissions;
    }
    if (tableUri == TilesModel::Tiles::CONTENT_URI) {
        return &m_tilePermissions;
    }
    return nullptr;
}

/* What an empty projection stands for: every column the table shows its
 * readers; the internal level also sees the accelerators' own columns. */
std::vector<std::string> CPermissionHelper::DefaultProjection(const std::string& tableUri, PermissionLevel level)
{
    std::vector<std::string> allowed;
    if (level < PERMISSION_LEVEL_PUBLIC) {
        return allowed;
    }
    if (tableUri == TilesModel::Accelerators::CONTENT_URI) {
        Append(allowed, PublicAcceleratorColumns());
        if (level == PERMISSION_LEVEL_INTERNAL) {
            Append(allowed, InternalAcceleratorColumns());
        }
    } else if (tableUri == TilesModel::Sections::CONTENT_URI) {
        Append(allowed, SectionColumns());
    } else if (tableUri == TilesModel::Tiles::CONTENT_URI) {
        Append(allowed, TileColumns());
    }
    return allowed;
}
