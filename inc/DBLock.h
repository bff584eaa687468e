/*
 * Content library: a named lock. Locks created with the same name in one
 * process share one recursive mutex, so a thread that holds it may take it again.
 */
#ifndef TILVANE_DB_LOCK_H
#define TILVANE_DB_LOCK_H

#include <memory>
#include <mutex>
#include <string>

class CDBLock
{
public:
    explicit CDBLock(std::string name);
    virtual ~CDBLock();

    CDBLock(const CDBLock&) = delete;
    CDBLock& operator=(const CDBLock&) = delete;

    void Lock() const;
    void Unlock() const;
    bool TryLock() const;
    const std::string& GetName() const { return m_strName; }

private:
    std::string m_strName;
    std::shared_ptr<std::recursive_mutex> m_pMutex;
};

/* Holds a CDBLock from construction to destruction. A null lock holds nothing. */
class CDBLocalScopedLock
{
public:
    explicit CDBLocalScopedLock(const CDBLock* pLock);
    ~CDBLocalScopedLock();

    CDBLocalScopedLock(const CDBLocalScopedLock&) = delete;
    CDBLocalScopedLock& operator=(const CDBLocalScopedLock&) = delete;

private:
    const CDBLock* m_pLock;
};

#endif
