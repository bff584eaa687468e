/*
 * One connection to a small SQLite file of the host platform under the
 * platform's database directory (the application registry, the settings
 * store), shared by processes: WAL, synchronous NORMAL, foreign keys on, a
 * busy timeout, and the file's schema in place. A connection holds no
 * transaction between operations, so a change made by another process is
 * seen by the next one.
 * A new file gets the platform's file mode (platform_files.h): no
 * application's user reads or writes it.
 */
#ifndef TILVANE_PLATFORM_SHARED_DATABASE_FILE_H
#define TILVANE_PLATFORM_SHARED_DATABASE_FILE_H

#include <string>

struct sqlite3;

namespace tilvane {
namespace host {

class SharedDatabaseFile
{
public:
    /* Opens (creating when missing) `fileName` in tzplatform_getenv(TZ_SYS_DB)
     * and runs `schema`; failures are logged with `label` and leave it closed. */
    SharedDatabaseFile(const char* fileName, const char* schema, const char* label);
    ~SharedDatabaseFile();
    SharedDatabaseFile(const SharedDatabaseFile&) = delete;
    SharedDatabaseFile& operator=(const SharedDatabaseFile&) = delete;

    bool IsOpen() const { return m_db != nullptr; }
    sqlite3* Handle() const { return m_db; }
    /* Runs statements without results; false (logged) on failure. */
    bool Exec(const char* sql);

private:
    void Close();

    std::string m_label;
    sqlite3* m_db = nullptr;
};

}  // namespace host
}  // namespace tilvane

#endif
