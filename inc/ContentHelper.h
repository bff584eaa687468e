/*
 * Content library: the owner of one database and its connection.
 *
 * A subclass supplies the schema callbacks. ConnectDB opens the file and then,
 * on that connection and in this order: OnConfigure (every time a connection
 * is opened, before any other use), OnCreate (once, for a database that has no
 * schema version yet) or OnUpgrade (when the stored version differs from the
 * helper's); the version is stored after either. After OnCreate the library
 * adds an index on every foreign-key child column of the new tables, so that
 * cascades and id-list lookups do not scan whole tables.
 */
#ifndef TILVANE_CONTENT_HELPER_H
#define TILVANE_CONTENT_HELPER_H

#include <string>

#include "ContentDbConnection.h"

class CContentHelper
{
public:
    CContentHelper(std::string directory, std::string fileName, int version);
    virtual ~CContentHelper();

    CContentHelper(const CContentHelper&) = delete;
    CContentHelper& operator=(const CContentHelper&) = delete;

    /* Opens the database and runs the schema callbacks. False when the file
     * cannot be opened or is not a database; the connection then stays held
     * (when a handle could be opened at all) so that CheckDBCorruption and
     * DeleteDatabase can act on it. */
    bool ConnectDB();
    /* Closes the connection; the next GetConnection opens the database again. */
    void DisconnectDB();
    /* The open connection; connects first when there is none. Null when the
     * database cannot be opened. */
    CContentDbConnection* GetConnection();

    /* True when the database file cannot be read as a healthy SQLite database:
     * not a database at all, or failing SQLite's quick check. The quick check
     * reads the whole file; it is left out when the file was closed in order
     * and not changed since (content/clean_close.h), and its header matches
     * its size. */
    bool CheckDBCorruption();

    const std::string& GetDirectory() const { return m_strDirectory; }
    const std::string& GetFileName() const { return m_strFileName; }
    int GetVersion() const { return m_nVersion; }

    /* "scheme://authority/table" gives "table": the last path segment of a
     * content URI; empty when the URI has no path. */
    static std::string GetTableNameFromUri(const std::string& uri);
    /* The form in which a value is written into a statement. Values are always
     * bound, so this is the value itself; a null pointer gives "". */
    static std::string ToSQLFormat(const char* value);
    static std::string ToSQLFormat(const std::string& value);

    /* Schema callbacks; the base versions do nothing. */
    virtual void OnConfigure(CContentDbConnection* connection);
    virtual void OnCreate(CContentDbConnection* connection);
    virtual void OnUpgrade(CContentDbConnection* connection, int oldVersion, int newVersion);

private:
    bool PrepareSchema(CContentDbConnection* connection);

    std::string m_strDirectory;
    std::string m_strFileName;
    int m_nVersion;
    CContentDbConnection* m_pConnection;
    bool m_bSchemaReady = false; /* the connection went through the schema callbacks */
};

#endif
