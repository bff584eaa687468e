/*
 * Content library internals: the SQLite authorizer that strict confinement
 * puts on a connection while a request statement is prepared.
 *
 * It lets the statement read and write only its own table, and reach only
 * the rows its own where clause (with the request's row filter) selects.
 * Refused: any other table (sqlite_master / sqlite_schema and the temporary
 * schema included), a SELECT beyond the statement's own (a subquery, which
 * the row filter would not confine, even one of the same table), a common
 * table expression, ATTACH and DETACH, PRAGMA, schema changes, and every
 * function outside a short list of value functions of bounded result. The
 * schema has no triggers: what a trigger or view would run is judged like the
 * statement itself. What the foreign keys of an insert, update or delete
 * need is allowed: reading the key columns of a link whose child is the
 * table or one of the tables its deletions cascade to, and deleting or
 * updating rows of those tables. SQLite consults an authorizer only while
 * preparing.
 */
#ifndef TILVANE_CONTENT_STATEMENT_AUTHORIZER_H
#define TILVANE_CONTENT_STATEMENT_AUTHORIZER_H

#include <set>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace tilvane {
namespace content {

/* One foreign key of the schema: child.childColumn references parent.parentColumn
 * (parentColumn empty: the parent's primary key). */
struct ForeignKeyLink
{
    std::string child;
    std::string childColumn;
    std::string parent;
    std::string parentColumn;
};

/* Every foreign key of the main schema of `db`. */
std::vector<ForeignKeyLink> ReadForeignKeyLinks(sqlite3* db);

class Database;

/* The keywords of an SQL text that matter to the confinement, counted as
 * SQLite's tokenizer would see them: never inside a quoted text or name or a
 * comment. */
struct SqlKeywords
{
    int select = 0;
    int with = 0;
    bool firstIsSelect = false; /* the text's first word is SELECT */
};
SqlKeywords CountKeywords(const std::string& sql);

class ScopedStatementAuthorizer
{
public:
    /* Confines the statements that `database` prepares, until destruction, to
     * `table`. The database keeps one SQLite authorizer installed from its
     * first confined statement on (installing one expires every prepared
     * statement, so it is done once) and forwards to the active confinement;
     * with none active it allows everything. */
    ScopedStatementAuthorizer(Database& database, std::string table);
    ~ScopedStatementAuthorizer();
    ScopedStatementAuthorizer(const ScopedStatementAuthorizer&) = delete;
    ScopedStatementAuthorizer& operator=(const ScopedStatementAuthorizer&) = delete;

    /* Checks the statement's text before it is prepared: SQLite does not
     * report every subquery to an authorizer (an "IN (SELECT column FROM
     * table)" is read straight from the table), so a SELECT beyond the
     * statement's own, and WITH, are refused from the words. False (with the
     * refusal) when it is refused. */
    bool CheckText(const std::string& sql);

    /* The first refusal as a reason for the caller ("the statement may use
     * only table tiles, not reading table sections"), or "" when nothing was
     * refused. */
    const std::string& Refusal() const { return m_refusal; }

    int Authorize(int action, const char* first, const char* second, const char* view);

private:
    int Refuse(const char* what, const char* object);
    int RefuseReach(const std::string& reason);

    bool IsKeyColumn(const char* table, const char* column) const;
    bool IsCascadeTable(const char* table) const;

    /* Fills m_cascade on the first question (most statements are cached and
     * never ask). */
    void LearnCascade();

    Database& m_database;
    std::string m_table;
    const std::vector<ForeignKeyLink>* m_pLinks;
    /* The table and every table its deletions cascade to, in lower case. */
    std::set<std::string> m_cascade;
    /* The action SQLite reported first: the kind of statement (-1: none yet).
     * Key columns are readable for writes only, which need them for their
     * foreign-key checks. */
    int m_statementKind = -1;
    /* Whether the select of a select statement was reported (any further one
     * is a subquery). */
    bool m_sawOwnSelect = false;
    std::string m_refusal;
};

}  // namespace content
}  // namespace tilvane

#endif
