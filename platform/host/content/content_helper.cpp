#include "ContentHelper.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "content/background_check.h"
#include "content/clean_close.h"
#include "content/content_log.h"
#include "content/database.h"
#include "content/statement_cache.h"
#include "config/config_keys.h"

using tilvane::content::CheckCondemns;
using tilvane::content::QuickCheck;
using tilvane::content::QuoteIdentifier;
using tilvane::content::ReadSchema;
using tilvane::content::StatementHandle;

namespace {

std::string ColumnText(sqlite3_stmt* statement, int column);

/* The one integer that `sql` selects. */
int ReadInteger(sqlite3* db, const char* sql, int64_t& value)
{
    StatementHandle statement;
    int rc = tilvane::content::PrepareStatement(db, sql, statement);
    if (rc != SQLITE_OK) {
        return rc;
    }
    rc = sqlite3_step(statement.get());
    if (rc != SQLITE_ROW) {
        return rc == SQLITE_DONE ? SQLITE_ERROR : rc;
    }
    value = sqlite3_column_int64(statement.get(), 0);
    return SQLITE_OK;
}

int ReadVersion(sqlite3* db, int64_t& version)
{
    return ReadInteger(db, "PRAGMA user_version", version);
}

int CountUserTables(sqlite3* db, int64_t& count)
{
    return ReadInteger(db, "SELECT count(*) FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'",
                       count);
}

std::string ColumnText(sqlite3_stmt* statement, int column)
{
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text != nullptr ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

/* The names of a query's first column, with one bound text parameter. */
int QueryNames(sqlite3* db, const char* sql, const std::string& argument, std::vector<std::string>& names)
{
    names.clear();
    StatementHandle statement;
    int rc = tilvane::content::PrepareStatement(db, sql, statement);
    if (rc != SQLITE_OK) {
        return rc;
    }
    sqlite3_bind_text(statement.get(), 1, argument.data(), static_cast<int>(argument.size()), SQLITE_TRANSIENT);
    while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
        names.push_back(ColumnText(statement.get(), 0));
    }
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

/* True when an existing index of `table` starts with `columns`, in order, or
 * when the single column is the table's rowid alias. */
bool AlreadyIndexed(sqlite3* db, const std::string& table, const std::vector<std::string>& columns)
{
    if (columns.size() == 1) {
        StatementHandle info;
        if (tilvane::content::PrepareStatement(db, "SELECT name, type, pk FROM pragma_table_info(?)", info) ==
            SQLITE_OK) {
            sqlite3_bind_text(info.get(), 1, table.data(), static_cast<int>(table.size()), SQLITE_TRANSIENT);
            int keyColumns = 0;
            bool integerKey = false;
            while (sqlite3_step(info.get()) == SQLITE_ROW) {
                if (sqlite3_column_int(info.get(), 2) > 0) {
                    ++keyColumns;
                    integerKey = sqlite3_stricmp(ColumnText(info.get(), 1).c_str(), "INTEGER") == 0 &&
                                 sqlite3_stricmp(ColumnText(info.get(), 0).c_str(), columns[0].c_str()) == 0;
                }
            }
            if (keyColumns == 1 && integerKey) {
                return true;
            }
        }
    }

    std::vector<std::string> indexes;
    if (QueryNames(db, "SELECT name FROM pragma_index_list(?)", table, indexes) != SQLITE_OK) {
        return false;
    }
    for (const auto& index : indexes) {
        std::vector<std::string> indexed;
        if (QueryNames(db, "SELECT name FROM pragma_index_info(?) ORDER BY seqno", index, indexed) != SQLITE_OK) {
            continue;
        }
        if (indexed.size() < columns.size()) {
            continue;
        }
        bool prefix = true;
        for (size_t i = 0; i < columns.size(); ++i) {
            if (sqlite3_stricmp(indexed[i].c_str(), columns[i].c_str()) != 0) {
                prefix = false;
                break;
            }
        }
        if (prefix) {
            return true;
        }
    }
    return false;
}

/* Adds an index on the child columns of every foreign key of every table, so
 * that cascades and lookups by parent do not scan the child table. */
int IndexForeignKeys(CContentDbConnection* connection)
{
    sqlite3* db = connection->GetHandle();
    std::vector<std::string> tables;
    int rc = QueryNames(db,
                        "SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE ? ESCAPE '\\' "
                        "ORDER BY name",
                        "sqlite\\_%", tables);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("listing tables of %s: %s (%d)", connection->GetPath().c_str(), sqlite3_errmsg(db), rc);
        return rc;
    }

    for (const auto& table : tables) {
        StatementHandle keys;
        rc = tilvane::content::PrepareStatement(
            db, "SELECT id, \"from\" FROM pragma_foreign_key_list(?) ORDER BY id, seq", keys);
        if (rc != SQLITE_OK) {
            CONTENT_LOGE("foreign keys of %s: %s (%d)", table.c_str(), sqlite3_errmsg(db), rc);
            return rc;
        }
        sqlite3_bind_text(keys.get(), 1, table.data(), static_cast<int>(table.size()), SQLITE_TRANSIENT);
        std::map<int, std::vector<std::string>> childColumns;
        while ((rc = sqlite3_step(keys.get())) == SQLITE_ROW) {
            childColumns[sqlite3_column_int(keys.get(), 0)].push_back(ColumnText(keys.get(), 1));
        }
        if (rc != SQLITE_DONE) {
            CONTENT_LOGE("foreign keys of %s: %s (%d)", table.c_str(), sqlite3_errmsg(db), rc);
            return rc;
        }
        keys.reset();

        for (const auto& key : childColumns) {
            const std::vector<std::string>& columns = key.second;
            if (columns.empty() || AlreadyIndexed(db, table, columns)) {
                continue;
            }
            std::string name = "idx_" + table;
            std::string list;
            for (size_t i = 0; i < columns.size(); ++i) {
                name += "_" + columns[i];
                if (i > 0) {
                    list += ", ";
                }
                list += QuoteIdentifier(columns[i]);
            }
            std::string sql = "CREATE INDEX IF NOT EXISTS " + QuoteIdentifier(name) + " ON " + QuoteIdentifier(table) +
                              " (" + list + ")";
            std::string error;
            rc = connection->ExcuteSQL(sql, error);
            if (rc != SQLITE_OK) {
                return rc;
            }
            CONTENT_LOGD("index %s added on %s", name.c_str(), table.c_str());
        }
    }
    return SQLITE_OK;
}

/* The columns that rows are looked up by besides foreign keys, as
 * "table.column": `[content] lookup-indexes` of the integrator's
 * configuration, by default (data/service-defaults.conf) the package name of
 * the launcher entries, which every request looks its caller's entry up by,
 * and the client's own id of a tile, which clients update and delete tiles by. */
std::vector<std::pair<std::string, std::string>> LookupColumns()
{
    const std::vector<std::string> named = tilvane::host::config::StringList("content", "lookup-indexes");
    std::vector<std::pair<std::string, std::string>> columns;
    for (const std::string& name : named) {
        const std::string::size_type dot = name.find('.');
        if (dot != std::string::npos && dot > 0 && dot + 1 < name.size()) {
            columns.emplace_back(name.substr(0, dot), name.substr(dot + 1));
        }
    }
    return columns;
}

/* Indexes each lookup column of a table that exists, unless an index already
 * starts with it. Run at every open, so that a database made before the
 * column was named gets its index too. A failure costs speed, not rows: it is
 * logged and the database is used as it is. */
void IndexLookupColumns(CContentDbConnection* connection)
{
    sqlite3* db = connection->GetHandle();
    for (const auto& lookup : LookupColumns()) {
        const std::string& table = lookup.first;
        const std::string& column = lookup.second;
        std::vector<std::string> exists;
        if (QueryNames(db, "SELECT name FROM pragma_table_info(?)", table, exists) != SQLITE_OK ||
            std::find(exists.begin(), exists.end(), column) == exists.end() ||
            AlreadyIndexed(db, table, {column})) {
            continue;
        }
        const std::string name = "idx_" + table + "_" + column;
        std::string error;
        if (connection->ExcuteSQL("CREATE INDEX IF NOT EXISTS " + QuoteIdentifier(name) + " ON " +
                                      QuoteIdentifier(table) + " (" + QuoteIdentifier(column) + ")",
                                  error) != SQLITE_OK) {
            CONTENT_LOGE("index %s on %s: %s", name.c_str(), table.c_str(), error.c_str());
            continue;
        }
        CONTENT_LOGD("index %s added on %s", name.c_str(), table.c_str());
    }
}

/* After an unclean stop of our own, with the header matching the file and
 * the first page of every table readable, the full check can wait: SQLite's
 * journal recovery ran when the schema was read. The integrator may keep it
 * at start (`[content] check-after-crash = at-start`). */
bool DeferFullCheck(sqlite3* db, const std::string& path)
{
    if (!tilvane::content::OpenedAfterUncleanStop(path) ||
        tilvane::host::config::StringSetting("content", "check-after-crash") != "background") {
        return false;
    }
    return tilvane::content::HeaderMatchesFile(path) && tilvane::content::TableRootsReadable(db, path);
}

/* The quick check at start, once more when it fails in a way that can pass. */
bool FullCheckCondemns(sqlite3* db, const std::string& path)
{
    std::vector<std::string> results;
    int rc = QuickCheck(db, path, results);
    if (CheckCondemns(rc, results) && (rc == SQLITE_OK || rc == SQLITE_IOERR)) {
        // An I/O error can pass (the check also reports one as a finding,
        // "unable to get the page"); a healthy file is not condemned for it.
        CONTENT_LOGI("checking %s once more", path.c_str());
        results.clear();
        rc = QuickCheck(db, path, results);
    }
    if (rc == SQLITE_OK && CheckCondemns(rc, results)) {
        CONTENT_LOGE("%s is corrupt (%zu finding(s)), first: %s", path.c_str(), results.size(),
                     results.empty() ? "no result" : results[0].c_str());
    }
    return CheckCondemns(rc, results);
}

}  // namespace

CContentHelper::CContentHelper(std::string directory, std::string fileName, int version)
    : m_strDirectory(std::move(directory)), m_strFileName(std::move(fileName)), m_nVersion(version),
      m_pConnection(nullptr)
{
}

CContentHelper::~CContentHelper()
{
    if (m_pConnection != nullptr) {
        tilvane::content::StopBackgroundCheck(m_pConnection->GetPath());
    }
    DisconnectDB();
}

bool CContentHelper::ConnectDB()
{
    if (m_pConnection != nullptr) {
        // A connection that is open already went through the schema callbacks
        // unless it is a broken one kept for checking; start over for that.
        if (m_pConnection->IsOpen() && m_bSchemaReady) {
            return true;
        }
        delete m_pConnection;
        m_pConnection = nullptr;
    }
    m_bSchemaReady = false;

    CContentDbConnection* connection = new CContentDbConnection(m_strDirectory, m_strFileName);
    // Set before the callbacks run: they may reach the database through GetConnection().
    m_pConnection = connection;
    if (!connection->OpenOperation()) {
        if (!connection->IsOpen()) {
            m_pConnection = nullptr;
            delete connection;
        }
        CONTENT_LOGE("cannot open database %s/%s", m_strDirectory.c_str(), m_strFileName.c_str());
        return false;
    }

    OnConfigure(connection);
    if (!PrepareSchema(connection)) {
        CONTENT_LOGE("schema of %s could not be prepared", connection->GetPath().c_str());
        return false;
    }
    IndexLookupColumns(connection);
    m_bSchemaReady = true;
    CONTENT_LOGD("database opened: %s", connection->GetPath().c_str());
    return true;
}

void CContentHelper::DisconnectDB()
{
    if (m_pConnection == nullptr) {
        return;
    }
    std::string path = m_pConnection->GetPath();
    bool wasOpen = m_pConnection->IsOpen();
    delete m_pConnection;
    m_pConnection = nullptr;
    m_bSchemaReady = false;
    if (wasOpen) {
        CONTENT_LOGD("database closed: %s", path.c_str());
    }
}

CContentDbConnection* CContentHelper::GetConnection()
{
    if (m_pConnection == nullptr || !m_pConnection->IsOpen()) {
        ConnectDB();
    }
    return m_pConnection;
}

bool CContentHelper::PrepareSchema(CContentDbConnection* connection)
{
    sqlite3* db = connection->GetHandle();
    if (db == nullptr) {
        return false;
    }
    int64_t stored = 0;
    int rc = ReadVersion(db, stored);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("reading the version of %s: %s (%d)", connection->GetPath().c_str(), sqlite3_errmsg(db), rc);
        return false;
    }
    int64_t tables = 0;
    rc = CountUserTables(db, tables);
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("listing tables of %s: %s (%d)", connection->GetPath().c_str(), sqlite3_errmsg(db), rc);
        return false;
    }

    const bool create = stored == 0 && tables == 0;
    if (!create && stored == m_nVersion) {
        return true;
    }

    rc = connection->BeginTransaction();
    if (rc != SQLITE_OK) {
        CONTENT_LOGE("cannot begin the schema transaction on %s (%d)", connection->GetPath().c_str(), rc);
        return false;
    }
    bool ok = true;
    if (create) {
        CONTENT_LOGI("creating %s, version %d", connection->GetPath().c_str(), m_nVersion);
        OnCreate(connection);
        ok = IndexForeignKeys(connection) == SQLITE_OK;
    } else {
        CONTENT_LOGI("upgrading %s from version %lld to %d", connection->GetPath().c_str(),
                     static_cast<long long>(stored), m_nVersion);
        OnUpgrade(connection, static_cast<int>(stored), m_nVersion);
    }
    if (ok) {
        std::string error;
        // An integer of our own, not a value from outside: pragmas take no parameters.
        ok = connection->ExcuteSQL("PRAGMA user_version = " + std::to_string(m_nVersion), error) == SQLITE_OK;
    }
    rc = connection->EndTransaction(ok);
    if (!ok || rc != SQLITE_OK) {
        CONTENT_LOGE("schema of %s left unchanged (%d)", connection->GetPath().c_str(), rc);
        return false;
    }
    return true;
}

bool CContentHelper::CheckDBCorruption()
{
    // A second attempt: an I/O error while opening can pass.
    for (int attempt = 0; attempt < 2 && (m_pConnection == nullptr || !m_pConnection->IsOpen()); ++attempt) {
        ConnectDB();
    }
    if (m_pConnection == nullptr || m_pConnection->GetHandle() == nullptr) {
        CONTENT_LOGE("%s/%s cannot be opened", m_strDirectory.c_str(), m_strFileName.c_str());
        return true;
    }
    sqlite3* db = m_pConnection->GetHandle();
    const std::string& path = m_pConnection->GetPath();

    int rc = ReadSchema(db, path);
    if (rc == SQLITE_IOERR) {
        CONTENT_LOGI("reading %s once more", path.c_str());  // an I/O error can pass
        rc = ReadSchema(db, path);
    }
    if (rc != SQLITE_OK) {
        return CheckCondemns(rc, {});
    }

    // After an orderly close, with the file unchanged since, its header is
    // checked against its size; the full check runs after anything else.
    if (tilvane::content::OpenedAfterCleanClose(path) && tilvane::content::HeaderMatchesFile(path)) {
        CONTENT_LOGD("%s was closed cleanly and not changed since: header checked, quick check skipped", path.c_str());
        return false;
    }
    if (DeferFullCheck(db, path)) {
        CONTENT_LOGD("%s was not closed cleanly: header and tables checked, quick check in the background",
                     path.c_str());
        tilvane::content::StartBackgroundCheck(path);
        return false;
    }
    CONTENT_LOGD("%s was not closed cleanly or changed since: running the quick check", path.c_str());
    return FullCheckCondemns(db, path);
}

std::string CContentHelper::GetTableNameFromUri(const std::string& uri)
{
    // Read in place: every request asks, and the name is short.
    std::string_view rest(uri);
    const std::string_view::size_type scheme = rest.find("://");
    if (scheme != std::string_view::npos) {
        rest.remove_prefix(scheme + 3);
    }
    const std::string_view::size_type slash = rest.find('/');
    if (slash == std::string_view::npos) {
        return std::string();  // only an authority
    }
    std::string_view path = rest.substr(slash + 1);
    // Drop a query or fragment, then trailing slashes.
    path = path.substr(0, path.find_first_of("?#"));
    while (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    const std::string_view::size_type last = path.rfind('/');
    return std::string(last == std::string_view::npos ? path : path.substr(last + 1));
}

std::string CContentHelper::ToSQLFormat(const char* value)
{
    return value != nullptr ? std::string(value) : std::string();
}

std::string CContentHelper::ToSQLFormat(const std::string& value)
{
    return value;
}

void CContentHelper::OnConfigure(CContentDbConnection* /*connection*/) {}

void CContentHelper::OnCreate(CContentDbConnection* /*connection*/) {}

void CContentHelper::OnUpgrade(CContentDbConnection* /*connection*/, int /*oldVersion*/, int /*newVersion*/) {}
