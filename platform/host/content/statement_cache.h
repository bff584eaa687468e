/*
 * Content library internals: prepared statements and their reuse.
 *
 * A connection keeps the statements it builds from requests (inserts, updates,
 * deletes, selects) keyed by their SQL text, so that a bulk of rows with the
 * same columns is prepared once. A statement is lent to one user at a time;
 * when the cached one is still lent (a live cursor steps it), the borrower gets
 * a statement of its own that is finalised when given back. None of this is
 * thread-safe by itself: the owning Database's mutex guards it.
 */
#ifndef TILVANE_CONTENT_STATEMENT_CACHE_H
#define TILVANE_CONTENT_STATEMENT_CACHE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include <sqlite3.h>

namespace tilvane {
namespace content {

/* Frees an SQLite object of type T with `Free` when its owner lets go. */
template <typename T, int (*Free)(T*)>
struct SQLiteFree
{
    void operator()(T* object) const noexcept
    {
        if (object != nullptr) {
            Free(object);
        }
    }
};

using StatementHandle = std::unique_ptr<sqlite3_stmt, SQLiteFree<sqlite3_stmt, sqlite3_finalize>>;

/* sqlite3_prepare_v2 of the library; every preparation the library makes goes
 * through it and is counted. */
int PrepareStatement(sqlite3* db, const char* sql, int bytes, sqlite3_stmt** statement, const char** tail);
int PrepareStatement(sqlite3* db, const std::string& sql, StatementHandle& statement);

/* Number of statements the library has prepared in this process. */
uint64_t PreparedStatementCount();

class StatementCache;

/* One cached statement. */
struct CachedStatement
{
    StatementHandle statement;
    bool lent = false;
    uint64_t lastUse = 0;
};

/* A statement lent by a StatementCache, or owned outright. Giving it back
 * (destruction or Release) resets it and clears its bindings when it is the
 * cached one and finalises it otherwise. Must be given back under the owning
 * Database's mutex, before the cache is destroyed. */
class StatementLease
{
public:
    StatementLease() = default;
    explicit StatementLease(StatementHandle owned);
    ~StatementLease();

    StatementLease(StatementLease&& other) noexcept;
    StatementLease& operator=(StatementLease&& other) noexcept;
    StatementLease(const StatementLease&) = delete;
    StatementLease& operator=(const StatementLease&) = delete;

    sqlite3_stmt* get() const { return m_pStatement; }
    explicit operator bool() const { return m_pStatement != nullptr; }
    bool IsCached() const { return m_pEntry != nullptr; }
    void Release();

private:
    friend class StatementCache;

    StatementLease(StatementCache* cache, CachedStatement* entry);

    StatementCache* m_pCache = nullptr;
    CachedStatement* m_pEntry = nullptr;
    sqlite3_stmt* m_pStatement = nullptr;
    StatementHandle m_owned;
};

class StatementCache
{
public:
    static constexpr size_t kDefaultCapacity = 32;

    explicit StatementCache(size_t capacity = kDefaultCapacity);
    ~StatementCache();

    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;

    /* Lends the statement of `sql`, preparing it when the cache has none that
     * is free. On failure returns the SQLite result code and an empty lease. */
    int Acquire(sqlite3* db, const std::string& sql, StatementLease& lease);
    /* The same, the statement kept under `key` instead of its text (for
     * statements whose preparation depended on more than their text). */
    int Acquire(sqlite3* db, const std::string& sql, const std::string& key, StatementLease& lease);

    /* Whether a statement is kept under `key`. */
    bool Holds(const std::string& key) const { return m_entries.count(key) != 0; }

    /* Finalises every statement that is not lent out. */
    void Clear();
    size_t Size() const { return m_entries.size(); }
    size_t LentCount() const;

private:
    friend class StatementLease;
    void GiveBack(CachedStatement* entry);
    void EvictOne();

    std::unordered_map<std::string, CachedStatement> m_entries;
    size_t m_nCapacity;
    uint64_t m_nClock = 0;
};

}  // namespace content
}  // namespace tilvane

#endif
