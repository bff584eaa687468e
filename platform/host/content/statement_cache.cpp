#include "content/statement_cache.h"

#include <atomic>
#include <utility>

#include "content/content_log.h"

namespace tilvane {
namespace content {

namespace {
std::atomic<uint64_t> g_preparedStatements{0};
}

int PrepareStatement(sqlite3* db, const char* sql, int bytes, sqlite3_stmt** statement, const char** tail)
{
    if (statement != nullptr) {
        *statement = nullptr;
    }
    if (db == nullptr || sql == nullptr || statement == nullptr) {
        return SQLITE_MISUSE;
    }
    g_preparedStatements.fetch_add(1, std::memory_order_relaxed);
    return sqlite3_prepare_v2(db, sql, bytes, statement, tail);
}

int PrepareStatement(sqlite3* db, const std::string& sql, StatementHandle& statement)
{
    sqlite3_stmt* raw = nullptr;
    // The terminating NUL is part of the text handed over, which spares SQLite a copy.
    int rc = PrepareStatement(db, sql.c_str(), static_cast<int>(sql.size() + 1), &raw, nullptr);
    statement.reset(raw);
    if (rc == SQLITE_OK && raw == nullptr) {
        // Only whitespace or comments: nothing to run.
        return SQLITE_MISUSE;
    }
    return rc;
}

uint64_t PreparedStatementCount()
{
    return g_preparedStatements.load(std::memory_order_relaxed);
}

// ---- StatementLease ---------------------------------------------------------

StatementLease::StatementLease(StatementHandle owned) : m_pStatement(owned.get()), m_owned(std::move(owned)) {}

StatementLease::StatementLease(StatementCache* cache, CachedStatement* entry)
    : m_pCache(cache), m_pEntry(entry), m_pStatement(entry->statement.get())
{
}

StatementLease::~StatementLease()
{
    Release();
}

StatementLease::StatementLease(StatementLease&& other) noexcept
    : m_pCache(std::exchange(other.m_pCache, nullptr)),
      m_pEntry(std::exchange(other.m_pEntry, nullptr)),
      m_pStatement(std::exchange(other.m_pStatement, nullptr)),
      m_owned(std::move(other.m_owned))
{
}

StatementLease& StatementLease::operator=(StatementLease&& other) noexcept
{
    if (this != &other) {
        Release();
        m_pCache = std::exchange(other.m_pCache, nullptr);
        m_pEntry = std::exchange(other.m_pEntry, nullptr);
        m_pStatement = std::exchange(other.m_pStatement, nullptr);
        m_owned = std::move(other.m_owned);
    }
    return *this;
}

void StatementLease::Release()
{
    if (m_pEntry != nullptr && m_pCache != nullptr) {
        m_pCache->GiveBack(m_pEntry);
    }
    m_pCache = nullptr;
    m_pEntry = nullptr;
    m_pStatement = nullptr;
    m_owned.reset();
}

// ---- StatementCache ---------------------------------------------------------

StatementCache::StatementCache(size_t capacity) : m_nCapacity(capacity == 0 ? 1 : capacity) {}

StatementCache::~StatementCache()
{
    Clear();
}

int StatementCache::Acquire(sqlite3* db, const std::string& sql, StatementLease& lease)
{
    return Acquire(db, sql, sql, lease);
}

int StatementCache::Acquire(sqlite3* db, const std::string& sql, const std::string& key, StatementLease& lease)
{
    lease.Release();

    auto found = m_entries.find(key);
    if (found != m_entries.end() && !found->second.lent) {
        CachedStatement& entry = found->second;
        entry.lent = true;
        entry.lastUse = ++m_nClock;
        lease = StatementLease(this, &entry);
        return SQLITE_OK;
    }

    StatementHandle statement;
    int rc = PrepareStatement(db, sql, statement);
    if (rc != SQLITE_OK) {
        return rc;
    }

    if (found != m_entries.end()) {
        // The cached statement is stepped by someone else (a live cursor):
        // this borrower gets one of its own.
        lease = StatementLease(std::move(statement));
        return SQLITE_OK;
    }

    if (m_entries.size() >= m_nCapacity) {
        EvictOne();
    }
    if (m_entries.size() >= m_nCapacity) {
        // Every cached statement is lent out; do not grow past the limit.
        lease = StatementLease(std::move(statement));
        return SQLITE_OK;
    }

    CachedStatement& entry = m_entries[key];
    entry.statement = std::move(statement);
    entry.lent = true;
    entry.lastUse = ++m_nClock;
    lease = StatementLease(this, &entry);
    return SQLITE_OK;
}

void StatementCache::GiveBack(CachedStatement* entry)
{
    if (entry == nullptr) {
        return;
    }
    sqlite3_stmt* statement = entry->statement.get();
    if (statement != nullptr) {
        // The result of reset repeats the last step's error, which its user has
        // already seen; the statement is reusable either way.
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
    entry->lent = false;
}

void StatementCache::EvictOne()
{
    auto victim = m_entries.end();
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->second.lent) {
            continue;
        }
        if (victim == m_entries.end() || it->second.lastUse < victim->second.lastUse) {
            victim = it;
        }
    }
    if (victim != m_entries.end()) {
        m_entries.erase(victim);
    }
}

void StatementCache::Clear()
{
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (it->second.lent) {
            CONTENT_LOGW("statement still in use, kept: %s", it->first.c_str());
            ++it;
        } else {
            it = m_entries.erase(it);
        }
    }
}

size_t StatementCache::LentCount() const
{
    size_t lent = 0;
    for (const auto& item : m_entries) {
        if (item.second.lent) {
            ++lent;
        }
    }
    return lent;
}

}  // namespace content
}  // namespace tilvane
