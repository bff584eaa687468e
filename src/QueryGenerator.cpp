#include "QueryGenerator.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "SQLiteCursor.h"
#include "StrictConfinement.h"
#include "TilesModel.h"
#include "TilvaneLog.h"

CQueryGenerator::CQueryGenerator(CContentHelper* dbHelper) : m_pDbHelper(dbHelper)
{
}

std::string CQueryGenerator::GetAcceleratorsFilter(std::string packageId)
{
    /* The package id is pasted between the quotes as it stands. */
    std::string filter = std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + "='" + packageId + "'";
    LOGI("accelerators filter = %s", filter.c_str());
    return filter;
}

std::string CQueryGenerator::GetSectionsFilter(std::string packageId)
{
    return IdListFilter(__func__, TilesModel::Accelerators::CONTENT_URI,
                        [&] { return GetAcceleratorsFilter(packageId); },
                        TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID, "sections");
}

std::string CQueryGenerator::GetTilesFilter(std::string packageId)
{
    return IdListFilter(__func__, TilesModel::Sections::CONTENT_URI, [&] { return GetSectionsFilter(packageId); },
                        TilesModel::Tiles::TILE_SECTION_RAW_ID, "tiles");
}

/* "<column> IN (ids)" with the ids of the parent table's rows that
 * `parentFilter` selects. The filter is logged from the second id on. */
std::string CQueryGenerator::IdListFilter(const char* func, const char* parentUri,
                                          const std::function<std::string()>& parentFilter, const char* column,
                                          const char* name)
{
    CContentDbConnection* connection = m_pDbHelper != nullptr ? m_pDbHelper->GetConnection() : nullptr;
    if (connection == nullptr) {
        LOGE_AS(func, "database is null");
        return "1 = 0";
    }

    std::string table = CContentHelper::GetTableNameFromUri(parentUri);
    std::vector<std::string> projection = {"_id"};
    std::shared_ptr<ISQLiteCursor> cursor = connection->SelectRequest(table, projection, parentFilter(), "");
    if (cursor == nullptr) {
        LOGE_AS(func, "cursor is null");
        return "1 = 0";
    }

    std::string filter = std::string(column) + " IN (";
    char buffer[100];
    if (cursor->Step() == 0) {
        int id = 0;
        cursor->GetInt(0, id);
        snprintf(buffer, sizeof buffer, "%d", id);
        filter += buffer;
        while (cursor->Step() == 0) {
            id = 0;
            cursor->GetInt(0, id);
            snprintf(buffer, sizeof buffer, "%d", id);
            filter += ",";
            filter += buffer;
            LOGI_AS(func, "%s filter = %s", name, filter.c_str());
        }
    }
    filter += ")";
    return filter;
}

std::string CQueryGenerator::GenerateQuery(std::string tableName, std::string where, std::string packageId,
                                           CPermissionHelper::PermissionLevel level)
{
    if (CStrictConfinement::AppliesTo(level)) {
        /* The clause was checked to be one expression: it is kept whole, in
         * parentheses, behind a filter built without pasting the package id. */
        CContentDbConnection* connection = m_pDbHelper != nullptr ? m_pDbHelper->GetConnection() : nullptr;
        bool known = false;
        std::string filter = CStrictConfinement::RowFilter(connection, tableName, packageId, known);
        return known ? CStrictConfinement::JoinFilter(filter, where) : "";
    }

    std::string query;

    /* Nothing from the first semicolon on reaches the database, so a second
     * statement can never be smuggled in behind the filter. */
    std::string::size_type semicolon = where.find(';');
    if (semicolon != std::string::npos) {
        std::string kept = where.substr(0, semicolon);
        LOGI("found Semicolon in where : [%s] -> [%s]", where.c_str(), kept.c_str());
        where = kept;
    }

    bool known = true;
    std::string filter;
    bool internal = level == CPermissionHelper::PERMISSION_LEVEL_INTERNAL;
    if (tableName == CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI)) {
        filter = internal ? "1 = 1" : GetAcceleratorsFilter(packageId);
    } else if (tableName == CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI)) {
        filter = internal ? "1 = 1" : GetSectionsFilter(packageId);
    } else if (tableName == CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_URI)) {
        filter = internal ? "1 = 1" : GetTilesFilter(packageId);
    } else {
        known = false;
    }

    if (known) {
        /* Neither side is parenthesised: the text is kept exactly so. */
        query = where.empty() ? filter : filter + " AND " + where;
    }
    return query;
}
