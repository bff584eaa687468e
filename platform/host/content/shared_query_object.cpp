#include "SharedQueryObject.h"

#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "content/content_log.h"

namespace {

struct Store
{
    std::mutex mutex;
    std::map<int, std::shared_ptr<ISQLiteCursor>> cursors;
    int nextId = 1;
};

Store& TheStore()
{
    // Never destroyed: cursors may be dropped by threads still running at exit.
    static Store* store = new Store();
    return *store;
}

thread_local int t_lastStoredId = -1;

}  // namespace

int CSharedQueryObject::StoreCursor(std::shared_ptr<ISQLiteCursor> cursor, const std::string& table,
                                    std::string& sharedName, int& columnCount)
{
    if (!cursor) {
        CONTENT_LOGE("no cursor to store for %s", table.c_str());
        return -1;
    }
    const int columns = cursor->GetColumnCount();
    int id = 0;
    {
        Store& store = TheStore();
        std::lock_guard<std::mutex> lock(store.mutex);
        id = store.nextId++;
        if (store.nextId <= 0) {
            store.nextId = 1;  // wrapped after two billion requests
        }
        store.cursors[id] = std::move(cursor);
    }
    t_lastStoredId = id;
    sharedName = table + "#" + std::to_string(id);
    columnCount = columns;
    return 0;
}

int CSharedQueryObject::GetRequestID()
{
    return t_lastStoredId;
}

std::shared_ptr<ISQLiteCursor> CSharedQueryObject::TakeCursor(int requestId)
{
    Store& store = TheStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    auto found = store.cursors.find(requestId);
    if (found == store.cursors.end()) {
        return nullptr;
    }
    std::shared_ptr<ISQLiteCursor> cursor = std::move(found->second);
    store.cursors.erase(found);
    return cursor;
}

size_t CSharedQueryObject::GetStoredCount()
{
    Store& store = TheStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    return store.cursors.size();
}

void CSharedQueryObject::Clear()
{
    std::map<int, std::shared_ptr<ISQLiteCursor>> dropped;
    {
        Store& store = TheStore();
        std::lock_guard<std::mutex> lock(store.mutex);
        dropped.swap(store.cursors);
    }
    // The cursors go here, outside the store's lock: releasing one takes its
    // database's lock.
}
