/*
 * Row filters: the where clause that confines a request to the caller's own
 * rows. A caller owns the accelerators whose package name is its package id,
 * the sections under those accelerators and the tiles in those sections. The
 * chain is resolved by real selects at the time of the request, and the
 * filter that reaches the database is a plain list of row ids.
 */
#ifndef TILVANE_QUERY_GENERATOR_H
#define TILVANE_QUERY_GENERATOR_H

#include <functional>
#include <string>

#include "ContentHelper.h"
#include "PermissionHelper.h"

class CQueryGenerator
{
public:
    /* `dbHelper` is the tiles database; it is not owned. */
    explicit CQueryGenerator(CContentHelper* dbHelper);

    /* The package's accelerators: "<package column>='<package id>'". */
    std::string GetAcceleratorsFilter(std::string packageId);
    /* The sections under the package's accelerators: "<column> IN (ids)";
     * "1 = 0" when the database cannot be read. */
    std::string GetSectionsFilter(std::string packageId);
    /* The tiles in the package's sections, in the same form. */
    std::string GetTilesFilter(std::string packageId);

    /* The where clause to run for `tableName` (a table name, not a URI): the
     * caller's where clause, cut at its first ";", behind the table's filter;
     * "1 = 1" stands for the filter at the internal level. Empty for a table
     * that is none of the three. */
    std::string GenerateQuery(std::string tableName, std::string where, std::string packageId,
                              CPermissionHelper::PermissionLevel level);

private:
    /* The shared shape of the sections and tiles filters; logs as `func`. */
    std::string IdListFilter(const char* func, const char* parentUri, const std::function<std::string()>& parentFilter,
                             const char* column, const char* name);

    CContentHelper* m_pDbHelper;
};

#endif
