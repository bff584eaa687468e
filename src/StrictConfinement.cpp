#include "StrictConfinement.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>

#include <bundle.h>
#include <confinement_policy.h>

#include "ContentHelper.h"
#include "SQLiteCursor.h"
#include "TilesModel.h"
#include "TilvaneLog.h"

namespace {

std::vector<int64_t> IdsOf(CContentDbConnection* pConnection, const std::string& table, const std::string& where,
                           const std::vector<std::string>& whereArgs)
{
    std::vector<int64_t> ids;
    if (pConnection == nullptr) {
        return ids;
    }
    std::vector<std::string> projection = {TilesModel::BaseColumnsID};
    std::shared_ptr<ISQLiteCursor> pCursor = pConnection->SelectRequest(table, projection, where, whereArgs, "", "");
    while (pCursor != nullptr && pCursor->Step() == ISQLiteCursor::STEP_ROW) {
        int64_t id = -1;
        if (pCursor->GetInt64(0, id)) {
            ids.push_back(id);
        }
    }
    return ids;
}

int64_t CountOf(CContentDbConnection* pConnection, const std::string& table, const std::string& where)
{
    std::vector<std::string> projection = {"count(*)"};
    std::shared_ptr<ISQLiteCursor> pCursor = pConnection->SelectRequest(table, projection, where, "");
    int64_t count = 0;
    if (pCursor == nullptr || pCursor->Step() != ISQLiteCursor::STEP_ROW || !pCursor->GetInt64(0, count)) {
        return -1;
    }
    return count;
}

bool Refuse(const char* rule, const std::string& reason)
{
    confinement_policy_refuse(rule, reason.c_str());
    return false;
}

std::string TableOf(const char* uri)
{
    return CContentHelper::GetTableNameFromUri(uri);
}

/* The index just after the quoted text, comment or bracketed name that starts
 * at `at`, or npos when it runs to the end unclosed. */
std::string::size_type SkipQuoted(const std::string& text, std::string::size_type at)
{
    const char open = text[at];
    if (open == '-' || open == '/') {
        const std::string close = open == '-' ? "\n" : "*/";
        const std::string::size_type end = text.find(close, at + 2);
        return end == std::string::npos ? text.size() : end + close.size(); /* a comment may end the text */
    }
    const char close = open == '[' ? ']' : open;
    for (std::string::size_type i = at + 1; i < text.size(); ++i) {
        if (text[i] == close) {
            if (close != ']' && i + 1 < text.size() && text[i + 1] == close) {
                ++i; /* a doubled quote stands for itself */
                continue;
            }
            return i + 1;
        }
    }
    return std::string::npos;
}

/* True when every ")" of the clause closes a "(" of the clause itself, and
 * every "(" is closed: the clause cannot close the parentheses it is put in. */
bool KeepsItsParentheses(const std::string& clause)
{
    int depth = 0;
    for (std::string::size_type i = 0; i < clause.size();) {
        const char c = clause[i];
        const char next = i + 1 < clause.size() ? clause[i + 1] : '\0';
        if (c == '\'' || c == '"' || c == '`' || c == '[' || (c == '-' && next == '-') || (c == '/' && next == '*')) {
            i = SkipQuoted(clause, i);
            if (i == std::string::npos) {
                return false;
            }
            continue;
        }
        if (c == '(') {
            ++depth;
        } else if (c == ')' && --depth < 0) {
            return false;
        }
        ++i;
    }
    return depth == 0;
}

/* The last clauses that passed the check, per table: a client repeats its
 * few clauses with new arguments, and whether a clause passes depends only
 * on its text and the table's schema, which is fixed while the service runs. */
class CCheckedClauses
{
public:
    bool Knows(const std::string& table, const std::string& clause)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_clauses.count(Key(table, clause)) != 0;
    }

    void Remember(const std::string& table, const std::string& clause)
    {
        if (clause.size() > MAX_CLAUSE_BYTES) {
            return;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_clauses.size() >= MAX_CLAUSES) {
            m_clauses.clear();
        }
        m_clauses.insert(Key(table, clause));
    }

private:
    static const size_t MAX_CLAUSES = 64;
    static const size_t MAX_CLAUSE_BYTES = 1024;

    static std::string Key(const std::string& table, const std::string& clause) { return table + '\n' + clause; }

    std::mutex m_mutex;
    std::set<std::string> m_clauses;
};

CCheckedClauses& CheckedClauses()
{
    static CCheckedClauses* pClauses = new CCheckedClauses();
    return *pClauses;
}

}  // namespace

bool CStrictConfinement::AppliesTo(CPermissionHelper::PermissionLevel level)
{
    return level < CPermissionHelper::PERMISSION_LEVEL_INTERNAL && confinement_policy_is_strict();
}

bool CStrictConfinement::CheckWhereClause(CContentDbConnection* pConnection, const std::string& table,
                                          const std::string& where)
{
    if (where.empty()) {
        return true;
    }
    if (pConnection == nullptr) {
        return Refuse(CONFINEMENT_RULE_WHERE_CLAUSE, "the where clause cannot be checked");
    }
    if (CheckedClauses().Knows(table, where)) {
        return true;
    }
    if (!KeepsItsParentheses(where)) {
        return Refuse(CONFINEMENT_RULE_WHERE_CLAUSE, "the where clause closes a parenthesis it did not open, or "
                                                     "leaves one open");
    }
    const std::string probe = "SELECT 1 FROM \"" + table + "\" WHERE (" + where + ")";
    sqlite3_stmt* pStatement = nullptr;
    const char* pTail = nullptr;
    std::string error;
    const int result = pConnection->PrepareCMD(probe, &pStatement, &pTail, error);
    bool secondStatement = false;
    if (pTail != nullptr) {
        for (const char* c = pTail; *c != '\0'; ++c) {
            if (*c != ' ' && *c != '\t' && *c != '\n' && *c != '\r') {
                secondStatement = true;
                break;
            }
        }
    }
    sqlite3_finalize(pStatement);
    if (result != 0) {
        return Refuse(CONFINEMENT_RULE_WHERE_CLAUSE, "the where clause is not one expression over " + table + ": " + error);
    }
    if (secondStatement) {
        return Refuse(CONFINEMENT_RULE_WHERE_CLAUSE, "the where clause holds a second statement");
    }
    CheckedClauses().Remember(table, where);
    return true;
}

std::string CStrictConfinement::JoinFilter(const std::string& filter, const std::string& where)
{
    return where.empty() ? filter : filter + " AND (" + where + ")";
}

bool CStrictConfinement::CheckProjection(CPermissionHelper& permissionHelper, const std::string& tableUri,
                                         std::vector<std::string> requested, CPermissionHelper::PermissionLevel level,
                                         std::vector<std::string>& allowed)
{
    std::vector<std::string> none;
    const std::vector<std::string> readable = permissionHelper.GetAllowedProjectionForPermission(tableUri, none, level);
    if (requested.empty()) {
        allowed = readable;
    } else {
        for (const std::string& name : requested) {
            if (std::find(readable.begin(), readable.end(), name) == readable.end()) {
                return Refuse(CONFINEMENT_RULE_PROJECTION,
                              "\"" + name + "\" is not a column of this table that the caller may read");
            }
        }
        allowed = requested;
    }
    if (allowed.empty()) {
        return Refuse(CONFINEMENT_RULE_PROJECTION, "no column is left to select");
    }
    return true;
}

namespace {

/* Who owns the rows of a table, for one package: the column that names a
 * row's owner, the owners that belong to the package, and the package's limit. */
struct Ownership
{
    const char* column = nullptr;
    std::vector<int64_t> owners;
    int64_t limit = 0;
};

/* False for a table whose rows have no owner column. */
bool OwnershipOf(CContentDbConnection* pConnection, const std::string& table, const std::string& packageId,
                 Ownership& ownership)
{
    if (table == TableOf(TilesModel::Sections::CONTENT_URI)) {
        ownership.column = TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID;
        ownership.owners = CStrictConfinement::AcceleratorIds(pConnection, packageId);
        ownership.limit = confinement_policy_max_sections_per_package();
        return true;
    }
    if (table == TableOf(TilesModel::Tiles::CONTENT_URI)) {
        ownership.column = TilesModel::Tiles::TILE_SECTION_RAW_ID;
        ownership.owners = CStrictConfinement::SectionIds(pConnection, packageId);
        ownership.limit = confinement_policy_max_tiles_per_package();
        return true;
    }
    return false;
}

/* True when a row names the owner column of `table`. */
bool NamesOwner(const std::string& table, const std::vector<bundle*>& rows)
{
    const char* pColumn = table == TableOf(TilesModel::Sections::CONTENT_URI) ? TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID
                          : table == TableOf(TilesModel::Tiles::CONTENT_URI)  ? TilesModel::Tiles::TILE_SECTION_RAW_ID
                                                                               : nullptr;
    for (bundle* pValues : rows) {
        if (pColumn != nullptr && pValues != nullptr && bundle_get_val(pValues, pColumn) != nullptr) {
            return true;
        }
    }
    return false;
}

bool OwnedRow(const Ownership& ownership, bundle* pValues, const std::string& packageId)
{
    const char* pOwner = pValues != nullptr ? bundle_get_val(pValues, ownership.column) : nullptr;
    if (pOwner == nullptr || *pOwner == '\0') {
        return Refuse(CONFINEMENT_RULE_INSERT_OWNER,
                      "the row names no " + std::string(ownership.column) + ": it would belong to nobody");
    }
    char* pEnd = nullptr;
    const long long owner = std::strtoll(pOwner, &pEnd, 10);
    if (pEnd == pOwner || *pEnd != '\0' ||
        std::find(ownership.owners.begin(), ownership.owners.end(), owner) == ownership.owners.end()) {
        return Refuse(CONFINEMENT_RULE_INSERT_OWNER,
                      std::string(ownership.column) + " " + pOwner + " does not belong to package " + packageId);
    }
    return true;
}

bool WithinLimit(CContentDbConnection* pConnection, const std::string& table, const Ownership& ownership,
                 const std::string& packageId, size_t adding)
{
    const int64_t count =
        pConnection != nullptr ? CountOf(pConnection, table, CStrictConfinement::IdFilter(ownership.column, ownership.owners))
                               : -1;
    if (count < 0) {
        return Refuse(CONFINEMENT_RULE_LIMITS, "the package's rows cannot be counted");
    }
    if (count + static_cast<int64_t>(adding) > ownership.limit) {
        return Refuse(CONFINEMENT_RULE_LIMITS, "package " + packageId + " has " + std::to_string(count) + " rows in " +
                                                   table + "; " + std::to_string(adding) + " more exceed the limit of " +
                                                   std::to_string(ownership.limit));
    }
    return true;
}

}  // namespace

bool CStrictConfinement::CheckInsertOwner(CContentDbConnection* pConnection, const std::string& table,
                                          bundle* pValues, const std::string& packageId)
{
    Ownership ownership;
    return !OwnershipOf(pConnection, table, packageId, ownership) || OwnedRow(ownership, pValues, packageId);
}

bool CStrictConfinement::CheckWrittenRows(CContentDbConnection* pConnection, const std::string& table,
                                          const std::vector<bundle*>& rows, const std::string& packageId, bool bInsert)
{
    if (!bInsert && !NamesOwner(table, rows)) {
        return true; /* an update that moves no row */
    }
    Ownership ownership;
    if (!OwnershipOf(pConnection, table, packageId, ownership)) {
        return true;
    }
    if (bInsert && !WithinLimit(pConnection, table, ownership, packageId, rows.size())) {
        return false;
    }
    for (bundle* pValues : rows) {
        const bool namesOwner = pValues != nullptr && bundle_get_val(pValues, ownership.column) != nullptr;
        if ((bInsert || namesOwner) && !OwnedRow(ownership, pValues, packageId)) {
            return false;
        }
    }
    return true;
}

std::string CStrictConfinement::RowFilter(CContentDbConnection* pConnection, const std::string& table,
                                          const std::string& packageId, bool& bKnown)
{
    bKnown = true;
    if (table == TableOf(TilesModel::Accelerators::CONTENT_URI)) {
        return IdFilter(TilesModel::BaseColumnsID, AcceleratorIds(pConnection, packageId));
    }
    Ownership ownership;
    if (OwnershipOf(pConnection, table, packageId, ownership)) {
        return IdFilter(ownership.column, ownership.owners);
    }
    bKnown = false;
    return "";
}

bool CStrictConfinement::CheckPackageLimits(CContentDbConnection* pConnection, const std::string& table,
                                            const std::string& packageId, size_t adding)
{
    Ownership ownership;
    return !OwnershipOf(pConnection, table, packageId, ownership) ||
           WithinLimit(pConnection, table, ownership, packageId, adding);
}

std::vector<int64_t> CStrictConfinement::AcceleratorIds(CContentDbConnection* pConnection, const std::string& packageId)
{
    return IdsOf(pConnection, TableOf(TilesModel::Accelerators::CONTENT_URI),
                 std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?", {packageId});
}

std::vector<int64_t> CStrictConfinement::SectionIds(CContentDbConnection* pConnection, const std::string& packageId)
{
    return IdsOf(pConnection, TableOf(TilesModel::Sections::CONTENT_URI),
                 IdFilter(TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID, AcceleratorIds(pConnection, packageId)),
                 {});
}

std::string CStrictConfinement::IdFilter(const std::string& column, const std::vector<int64_t>& ids)
{
    std::string filter = column + " IN (";
    for (size_t i = 0; i < ids.size(); ++i) {
        filter += (i > 0 ? "," : "") + std::to_string(ids[i]);
    }
    return filter + ")";
}
