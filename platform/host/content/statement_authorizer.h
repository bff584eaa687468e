/*
 * Content library internals: the SQLite authorizer that strict confinement
 * puts on a connection while a request statement is prepared.
 *
 * It lets the statement read and write only its own table. Refused: any other
 * table (sqlite_master / sqlite_schema and the temporary schema included),
 * ATTACH and DETACH, PRAGMA, schema changes, and every function that is not
 * an ordinary value function (load_extension, fts3_tokenizer and the like).
 * Statements that the schema's triggers run are allowed, because the schema
 * is the service's own; so is what the foreign keys of an insert, update or
 * delete need: reading the key columns of a link whose child is the table or one of the tables its
 * deletions cascade to, and deleting or updating rows of those tables. SQLite
 * consults an authorizer only while preparing.
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

    /* The first refusal, as "<action> <object>", or "" when nothing was refused. */
    const std::string& Refusal() const { return m_refusal; }

    int Authorize(int action, const char* first, const char* second, const char* trigger);

private:
    int Refuse(const char* what, const char* object);

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
    std::string m_refusal;
};

}  // namespace content
}  // namespace tilvane

#endif
