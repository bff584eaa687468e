#include "StrictConfinement.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <map>
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

/* The sections under the given accelerators. */
std::vector<int64_t> SectionIdsOf(CContentDbConnection* pConnection, const std::vector<int64_t>& acceleratorIds)
{
    return IdsOf(pConnection, TableOf(TilesModel::Sections::CONTENT_URI),
                 CStrictConfinement::IdFilter(TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID, acceleratorIds), {});
}

/* Who owns the rows of a table that a package may write: the column that
 * names a row's owner, the statements that tell whether an owner is the
 * package's and, in one step with it, how many rows the package holds (owner
 * and package id bound as ?1 and ?2), and the package's limit. */
struct OwnerRule
{
    std::string column;
    std::string ownedSql;
    std::string ownedAndCountSql;
    int (*limit)();
};

std::string Quoted(const std::string& name)
{
    return "\"" + name + "\"";
}

/* "t"."c" */
std::string ColumnOf(const std::string& table, const std::string& column)
{
    return Quoted(table) + "." + column;
}

/* The package's accelerators joined, with `join`, to the rows of
 * `ownerTable` that they own (the accelerators alone when they are the owners). */
std::string OwnersJoin(const std::string& ownerTable, const char* join)
{
    const std::string accelerators = TableOf(TilesModel::Accelerators::CONTENT_URI);
    if (ownerTable == accelerators) {
        return Quoted(accelerators);
    }
    return Quoted(accelerators) + " " + join + " " + Quoted(ownerTable) + " ON " +
           ColumnOf(ownerTable, TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID) + " = " +
           ColumnOf(accelerators, TilesModel::BaseColumnsID);
}

/* The rule of `table`, whose `column` names a row of `ownerTable`. Whether
 * one owner is the package's is looked up from the owner's row id; the
 * package's rows are counted from its accelerators down, in that order (a
 * CROSS JOIN fixes it), through the indexes of the owner columns, so that the
 * cost follows the package's rows, not the table's. */
OwnerRule RuleOf(const std::string& table, const char* column, const std::string& ownerTable, int (*limit)())
{
    const std::string package =
        ColumnOf(TableOf(TilesModel::Accelerators::CONTENT_URI), TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME);
    const std::string ownerId = ColumnOf(ownerTable, TilesModel::BaseColumnsID);
    const std::string owned = "EXISTS (SELECT 1 FROM " + OwnersJoin(ownerTable, "JOIN") + " WHERE " + ownerId +
                              " = ?1 AND " + package + " = ?2)";
    const std::string count = "SELECT count(*) FROM " + OwnersJoin(ownerTable, "CROSS JOIN") + " CROSS JOIN " +
                              Quoted(table) + " ON " + ColumnOf(table, column) + " = " + ownerId + " WHERE " + package +
                              " = ?2";
    return {column, "SELECT " + owned, "SELECT " + owned + ", (" + count + ")", limit};
}

/* Null for a table whose rows have no owner column. */
const OwnerRule* OwnerRuleOf(const std::string& table)
{
    static const std::string acceleratorsTable = TableOf(TilesModel::Accelerators::CONTENT_URI);
    static const std::string sectionsTable = TableOf(TilesModel::Sections::CONTENT_URI);
    static const std::string tilesTable = TableOf(TilesModel::Tiles::CONTENT_URI);
    static const OwnerRule sections = RuleOf(sectionsTable, TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID,
                                             acceleratorsTable, confinement_policy_max_sections_per_package);
    static const OwnerRule tiles = RuleOf(tilesTable, TilesModel::Tiles::TILE_SECTION_RAW_ID, sectionsTable,
                                          confinement_policy_max_tiles_per_package);
    return table == sectionsTable ? &sections : table == tilesTable ? &tiles : nullptr;
}

/* True when a row names the owner column of `table`. */
bool NamesOwner(const std::string& table, const std::vector<bundle*>& rows)
{
    const OwnerRule* pRule = OwnerRuleOf(table);
    for (bundle* pValues : rows) {
        if (pRule != nullptr && pValues != nullptr && bundle_get_val(pValues, pRule->column.c_str()) != nullptr) {
            return true;
        }
    }
    return false;
}

/* The owner that a row names: false when it names none, or not as a row id. */
bool OwnerOf(const OwnerRule& rule, bundle* pValues, long long& owner)
{
    const char* pOwner = pValues != nullptr ? bundle_get_val(pValues, rule.column.c_str()) : nullptr;
    char* pEnd = nullptr;
    owner = pOwner != nullptr ? std::strtoll(pOwner, &pEnd, 10) : 0;
    return pOwner != nullptr && pEnd != pOwner && *pEnd == '\0';
}

/* Whether the owners that rows name belong to one package, each owner
 * looked up once per request; and how many rows the package holds, looked up
 * in the same step as the first owner. */
class COwnerCheck
{
public:
    COwnerCheck(CContentDbConnection& connection, const OwnerRule& rule, const std::string& packageId)
        : m_connection(connection), m_rule(rule), m_packageId(packageId)
    {
    }

    /* The package's rows of the rule's table, -1 when they cannot be counted. */
    int64_t PackageRows(bundle* pFirstRow)
    {
        long long owner = 0;
        OwnerOf(m_rule, pFirstRow, owner);
        std::vector<int64_t> row;
        if (m_connection.QueryIntegers(m_rule.ownedAndCountSql, {std::to_string(owner), m_packageId}, row) != 0 ||
            row.size() != 2) {
            return -1;
        }
        m_owned.emplace(owner, row[0] == 1);
        return row[1];
    }

    bool OwnedRow(bundle* pValues)
    {
        const char* pOwner = pValues != nullptr ? bundle_get_val(pValues, m_rule.column.c_str()) : nullptr;
        if (pOwner == nullptr || *pOwner == '\0') {
            return Refuse(CONFINEMENT_RULE_INSERT_OWNER,
                          "the row names no " + m_rule.column + ": it would belong to nobody");
        }
        long long owner = 0;
        if (!OwnerOf(m_rule, pValues, owner) || !IsOwned(owner)) {
            return Refuse(CONFINEMENT_RULE_INSERT_OWNER,
                          m_rule.column + " " + pOwner + " does not belong to package " + m_packageId);
        }
        return true;
    }

private:
    bool IsOwned(long long owner)
    {
        auto known = m_owned.find(owner);
        if (known != m_owned.end()) {
            return known->second;
        }
        std::vector<int64_t> row;
        const bool owned = m_connection.QueryIntegers(m_rule.ownedSql, {std::to_string(owner), m_packageId}, row) == 0 &&
                           !row.empty() && row[0] == 1;
        m_owned.emplace(owner, owned);
        return owned;
    }

    CContentDbConnection& m_connection;
    const OwnerRule& m_rule;
    const std::string& m_packageId;
    std::map<long long, bool> m_owned;
};

bool WithinLimit(COwnerCheck& owners, const std::string& table, const OwnerRule& rule, const std::string& packageId,
                 const std::vector<bundle*>& rows)
{
    const int64_t count = owners.PackageRows(rows.empty() ? nullptr : rows.front());
    if (count < 0) {
        return Refuse(CONFINEMENT_RULE_LIMITS, "the package's rows cannot be counted");
    }
    const int64_t limit = rule.limit();
    const size_t adding = rows.size();
    if (count + static_cast<int64_t>(adding) > limit) {
        return Refuse(CONFINEMENT_RULE_LIMITS, "package " + packageId + " has " + std::to_string(count) + " rows in " +
                                                   table + "; " + std::to_string(adding) + " more exceed the limit of " +
                                                   std::to_string(limit));
    }
    return true;
}

}  // namespace

bool CStrictConfinement::CheckWrittenRows(CContentDbConnection* pConnection, const std::string& table,
                                          const std::vector<bundle*>& rows, const std::string& packageId, bool bInsert)
{
    if (!bInsert && !NamesOwner(table, rows)) {
        return true; /* an update that moves no row */
    }
    const OwnerRule* pRule = OwnerRuleOf(table);
    if (pRule == nullptr) {
        return true;
    }
    if (pConnection == nullptr) {
        return Refuse(CONFINEMENT_RULE_INSERT_OWNER, "the rows' owners cannot be looked up");
    }
    COwnerCheck owners(*pConnection, *pRule, packageId);
    if (bInsert && !WithinLimit(owners, table, *pRule, packageId, rows)) {
        return false;
    }
    for (bundle* pValues : rows) {
        const bool namesOwner = pValues != nullptr && bundle_get_val(pValues, pRule->column.c_str()) != nullptr;
        if ((bInsert || namesOwner) && !owners.OwnedRow(pValues)) {
            return false;
        }
    }
    return true;
}

std::string CStrictConfinement::OwnedAndCountStatement(const std::string& table)
{
    const OwnerRule* pRule = OwnerRuleOf(table);
    return pRule != nullptr ? pRule->ownedAndCountSql : "";
}

std::string CStrictConfinement::RowFilter(CContentDbConnection* pConnection, const std::string& table,
                                          const std::string& packageId, bool& bKnown)
{
    bKnown = true;
    if (table == TableOf(TilesModel::Accelerators::CONTENT_URI)) {
        return IdFilter(TilesModel::BaseColumnsID, AcceleratorIds(pConnection, packageId));
    }
    if (table == TableOf(TilesModel::Sections::CONTENT_URI)) {
        return IdFilter(TilesModel::Sections::SECTION_ACCELERATOR_RAW_ID, AcceleratorIds(pConnection, packageId));
    }
    if (table == TableOf(TilesModel::Tiles::CONTENT_URI)) {
        return IdFilter(TilesModel::Tiles::TILE_SECTION_RAW_ID, SectionIds(pConnection, packageId));
    }
    bKnown = false;
    return "";
}

std::vector<int64_t> CStrictConfinement::AcceleratorIds(CContentDbConnection* pConnection, const std::string& packageId)
{
    return IdsOf(pConnection, TableOf(TilesModel::Accelerators::CONTENT_URI),
                 std::string(TilesInternalModel::Accelerators::ACCELERATOR_APP_PKG_NAME) + " = ?", {packageId});
}

std::vector<int64_t> CStrictConfinement::SectionIds(CContentDbConnection* pConnection, const std::string& packageId)
{
    return SectionIdsOf(pConnection, AcceleratorIds(pConnection, packageId));
}

std::string CStrictConfinement::IdFilter(const std::string& column, const std::vector<int64_t>& ids)
{
    std::string filter = column + " IN (";
    for (size_t i = 0; i < ids.size(); ++i) {
        filter += (i > 0 ? "," : "") + std::to_string(ids[i]);
    }
    return filter + ")";
}
