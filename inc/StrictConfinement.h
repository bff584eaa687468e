/*
 * The rules of strict confinement for callers below the internal level, in
 * one place for every request handler. Strict confinement is the integrator's
 * choice (confinement_policy.h); with it off, none of these is called and the
 * handlers behave as they always have.
 *
 * Every Check* returns false when the request must be refused; the refusal
 * (the rule and a reason the caller can show) has then been reported through
 * confinement_policy_refuse, which also writes the service's log line.
 */
#ifndef TILVANE_STRICT_CONFINEMENT_H
#define TILVANE_STRICT_CONFINEMENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "ContentDbConnection.h"
#include "PermissionHelper.h"

typedef struct _bundle_t bundle;

class CStrictConfinement
{
public:
    /* True when strict confinement applies to a caller of `level`. */
    static bool AppliesTo(CPermissionHelper::PermissionLevel level);

    /* The caller's where clause must be one expression over the columns of
     * `table` with nothing after it: its parentheses must pair up within it
     * (outside quotes and comments), and "SELECT 1 FROM table WHERE (clause)"
     * must prepare on its own and leave no second statement. An empty clause
     * passes. */
    static bool CheckWhereClause(CContentDbConnection* pConnection, const std::string& table,
                                 const std::string& where);
    /* The filter, " AND (", the clause, ")"; the filter alone for an empty clause. */
    static std::string JoinFilter(const std::string& filter, const std::string& where);

    /* Every requested name must be a column of the table that `level` may
     * read; `allowed` is then the request as given, or the level's default
     * columns for an empty request. Never empty when true. */
    static bool CheckProjection(CPermissionHelper& permissionHelper, const std::string& tableUri,
                                std::vector<std::string> requested, CPermissionHelper::PermissionLevel level,
                                std::vector<std::string>& allowed);

    /* The rows a request writes into "sections" or "tiles" (other tables
     * pass). For an insert, each must name an owner of the caller's package (a
     * section an accelerator of it, a tile a section under one; a row that
     * names none would belong to nobody) and the package must stay within its
     * limit of rows in the table; for an update, a row that names a new owner
     * must name one of the caller's. Owners and package ids are bound, never
     * pasted. */
    static bool CheckWrittenRows(CContentDbConnection* pConnection, const std::string& table,
                                 const std::vector<bundle*>& rows, const std::string& packageId, bool bInsert);

    /* The statement that tells, in one step, whether an owner (bound as ?1)
     * belongs to a package (?2) and how many rows of `table` the package
     * holds; "" for a table whose rows have no owner. */
    static std::string OwnedAndCountStatement(const std::string& table);

    /* The filter of the caller's own rows of `table`, from row ids looked up
     * with the package id bound; `bKnown` false (and "") for another table. */
    static std::string RowFilter(CContentDbConnection* pConnection, const std::string& table,
                                 const std::string& packageId, bool& bKnown);

    /* The row ids of the package's accelerators and of the sections under
     * them, looked up with the package id bound, never pasted. */
    static std::vector<int64_t> AcceleratorIds(CContentDbConnection* pConnection, const std::string& packageId);
    static std::vector<int64_t> SectionIds(CContentDbConnection* pConnection, const std::string& packageId);
    /* "column IN (a,b,c)"; "column IN ()" for no id, which matches nothing. */
    static std::string IdFilter(const std::string& column, const std::vector<int64_t>& ids);
};

#endif
