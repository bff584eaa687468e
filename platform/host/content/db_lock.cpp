#include "DBLock.h"

#include <unordered_map>
#include <utility>

#include "content/content_log.h"

namespace {

struct LockRegistry
{
    std::mutex mutex;
    std::unordered_map<std::string, std::weak_ptr<std::recursive_mutex>> locks;
};

LockRegistry& Registry()
{
    static LockRegistry* registry = new LockRegistry();
    return *registry;
}

std::shared_ptr<std::recursive_mutex> SharedMutexFor(const std::string& name)
{
    LockRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    std::weak_ptr<std::recursive_mutex>& slot = registry.locks[name];
    std::shared_ptr<std::recursive_mutex> mutex = slot.lock();
    if (!mutex) {
        mutex = std::make_shared<std::recursive_mutex>();
        slot = mutex;
    }
    return mutex;
}

void ForgetIfUnused(const std::string& name)
{
    LockRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.locks.find(name);
    if (found != registry.locks.end() && found->second.expired()) {
        registry.locks.erase(found);
    }
}

}  // namespace

CDBLock::CDBLock(std::string name) : m_strName(std::move(name)), m_pMutex(SharedMutexFor(m_strName)) {}

CDBLock::~CDBLock()
{
    m_pMutex.reset();
    ForgetIfUnused(m_strName);
    CONTENT_LOGD("lock destroyed: %s", m_strName.c_str());
}

void CDBLock::Lock() const
{
    m_pMutex->lock();
}

void CDBLock::Unlock() const
{
    m_pMutex->unlock();
}

bool CDBLock::TryLock() const
{
    return m_pMutex->try_lock();
}

CDBLocalScopedLock::CDBLocalScopedLock(const CDBLock* pLock) : m_pLock(pLock)
{
    if (m_pLock != nullptr) {
        m_pLock->Lock();
    }
}

CDBLocalScopedLock::~CDBLocalScopedLock()
{
    if (m_pLock != nullptr) {
        m_pLock->Unlock();
    }
}
