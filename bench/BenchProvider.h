/*
 * The provider in this benchmark process, on a platform root of its own that
 * is removed afterwards: one installed application, the virtual clock (the
 * preview-event port is retried without a bus; that costs nothing on it, and
 * no handler measured in process sends events), and the tiles database that
 * the provider made. The benchmarks reach its handlers through the content
 * library's dispatch.
 */
#ifndef TILVANE_BENCH_PROVIDER_H
#define TILVANE_BENCH_PROVIDER_H

#include <string>
#include <vector>

#include "BenchData.h"

struct sqlite3;
struct sqlite3_stmt;
typedef struct _bundle_t bundle;

class BenchProvider
{
public:
    BenchProvider(const std::string& name, const std::string& packageId, const std::string& appId);
    ~BenchProvider();
    BenchProvider(const BenchProvider&) = delete;
    BenchProvider& operator=(const BenchProvider&) = delete;

    std::string DatabasePath() const;
    /* Runs `sql` through a connection of its own, outside any timing. */
    void Exec(const std::string& sql) const;

    /* An insert of `values` into the tiles as `appId`, through the content
     * library's dispatch to the provider's handler; true when it succeeded. */
    static bool InsertTile(const char* appId, bundle* values);

private:
    std::string m_root;
};

/*
 * Copies the write-ahead log of `db`'s database into the database file.
 * Benchmarks in which both sides write call it untimed, often enough that
 * SQLite's own checkpoint never comes due, and let an untimed write follow
 * it (that write starts the log afresh). Left to SQLite, the checkpoint and
 * the new start of the log fall on the same request of the repeating pattern
 * every time, always on the same side, and charge that side with both sides'
 * write-back.
 */
void CheckpointLog(sqlite3* db);

/* The raw side of the benchmarks that store tiles: the insert of a row of
 * `shape`'s columns into the tiles, every column quoted and bound. */
std::string RawInsertSql(const BenchValues& shape);

/* Steps `insert` (made from RawInsertSql) once per row, binding every value as
 * the content library binds it (no copy); in one transaction when there is
 * more than one row. True when every row was stored. */
bool RawInsertRows(sqlite3* db, sqlite3_stmt* insert, const std::vector<BenchValues>& rows);

#endif
