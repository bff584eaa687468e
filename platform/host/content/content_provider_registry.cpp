/*
 * The providers' callbacks, one per (kind of request, table URI), and the host
 * side that calls them.
 */
#include <map>
#include <mutex>
#include <utility>

#include <content_provider_dispatch.h>
#include "host_control/base.h"

#include "ContentProviderParam.h"
#include "content/content_log.h"
#include "content/registration_observer.h"
#include "confinement/request_confinement.h"

namespace tilvane {
namespace content {

namespace {

/* Callbacks of every kind are kept as one function pointer type and turned back
 * into their own type by the kind's dispatch function. */
using AnyCallback = void (*)();

struct Registration
{
    AnyCallback callback = nullptr;
    void* userData = nullptr;
};

using Key = std::pair<RequestKind, std::string>;

struct Registry
{
    std::mutex mutex;
    std::map<Key, Registration> entries;
    RegistrationObserver observer{};
};

Registry& TheRegistry()
{
    static Registry* registry = new Registry();
    return *registry;
}

RegistrationObserver Observer()
{
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    return registry.observer;
}

template <typename Callback>
bool Register(const char* function, RequestKind kind, std::string uri, Callback callback, void* userData)
{
    if (tilvane::host::ShouldFail(function)) {
        CONTENT_LOGE("%s(%s) failed on purpose", function, uri.c_str());
        return false;
    }
    if (uri.empty() || callback == nullptr) {
        CONTENT_LOGE("%s: %s", function, uri.empty() ? "no URI" : "no callback");
        return false;
    }
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        Registration registration;
        registration.callback = reinterpret_cast<AnyCallback>(callback);
        registration.userData = userData;
        auto inserted = registry.entries.emplace(Key(kind, uri), registration);
        if (!inserted.second) {
            CONTENT_LOGE("%s: %s already has a %s callback", function, uri.c_str(), RequestKindName(kind));
            return false;
        }
        CONTENT_LOGD("%s callback registered for %s", RequestKindName(kind), uri.c_str());
    }
    if (RegistrationObserver observer = Observer(); observer.registered != nullptr) {
        observer.registered(uri);
    }
    return true;
}

bool Unregister(const char* function, RequestKind kind, const std::string& uri)
{
    if (tilvane::host::ShouldFail(function)) {
        CONTENT_LOGE("%s(%s) failed on purpose", function, uri.c_str());
        return false;
    }
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        if (registry.entries.erase(Key(kind, uri)) == 0) {
            CONTENT_LOGI("%s: %s has no %s callback", function, uri.c_str(), RequestKindName(kind));
            return false;
        }
        CONTENT_LOGD("%s callback unregistered for %s", RequestKindName(kind), uri.c_str());
    }
    if (RegistrationObserver observer = Observer(); observer.unregistered != nullptr) {
        observer.unregistered(uri);
    }
    return true;
}

/* The registration of (kind, uri), copied out so that the callback runs without
 * the registry's lock (it may register or unregister itself). */
bool Find(RequestKind kind, const std::string& uri, Registration& registration)
{
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.entries.find(Key(kind, uri));
    if (found == registry.entries.end()) {
        return false;
    }
    registration = found->second;
    return true;
}

}  // namespace

const char* RequestKindName(RequestKind kind)
{
    switch (kind) {
    case RequestKind::Insert:
        return "insert";
    case RequestKind::BulkInsert:
        return "insert bulk";
    case RequestKind::Delete:
        return "delete";
    case RequestKind::Select:
        return "select";
    case RequestKind::Update:
        return "update";
    case RequestKind::BulkUpdate:
        return "update bulk";
    case RequestKind::GetId:
        return "get id";
    }
    return "unknown";
}

bool IsRegistered(RequestKind kind, const std::string& uri)
{
    Registration registration;
    return Find(kind, uri, registration);
}

size_t RegisteredCount()
{
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    return registry.entries.size();
}

void ClearRegistrations()
{
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        registry.entries.clear();
    }
    if (RegistrationObserver observer = Observer(); observer.cleared != nullptr) {
        observer.cleared();
    }
}

void SetRegistrationObserver(const RegistrationObserver& observer)
{
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.observer = observer;
}


namespace {

template <typename Callback>
bool Lookup(RequestKind kind, const std::string& uri, Callback& callback, void*& userData)
{
    Registration registration;
    if (!Find(kind, uri, registration)) {
        CONTENT_LOGI("no %s callback for %s", RequestKindName(kind), uri.c_str());
        return false;
    }
    callback = reinterpret_cast<Callback>(registration.callback);
    userData = registration.userData;
    return true;
}

}  // namespace

namespace {

/* Calls the callback of (kind, in.strUri) with the request and its user data,
 * under the request's confinement; false when none is registered. */
template <typename Callback, typename Result, typename In, typename... Out>
bool Dispatch(RequestKind kind, Result& result, In& in, Out&... out)
{
    Callback callback = nullptr;
    if (!Lookup(kind, in.strUri, callback, in.pUserData)) {
        return false;
    }
    tilvane::host::confinement::RequestScope scope(tilvane::host::confinement::TableOfUri(in.strUri), in.strAppId);
    result = callback(in, out...);
    return true;
}

}  // namespace

bool DispatchInsert(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out, int& result)
{
    return Dispatch<ContentInsertCallback>(RequestKind::Insert, result, in, out);
}

bool DispatchBulkInsert(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out,
                        int& result)
{
    return Dispatch<ContentBulkInsertCallback>(RequestKind::BulkInsert, result, in, out);
}

bool DispatchDelete(PT_PROVIDER_DELETE_IN_PARAM& in, int& result)
{
    return Dispatch<ContentDeleteCallback>(RequestKind::Delete, result, in);
}

bool DispatchSelect(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out, bool& result)
{
    return Dispatch<ContentSelectCallback>(RequestKind::Select, result, in, out);
}

bool DispatchUpdate(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out, int& result)
{
    return Dispatch<ContentUpdateCallback>(RequestKind::Update, result, in, out);
}

bool DispatchBulkUpdate(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out,
                        int& result)
{
    return Dispatch<ContentBulkUpdateCallback>(RequestKind::BulkUpdate, result, in, out);
}

bool DispatchGetId(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out, bool& result)
{
    return Dispatch<ContentGetIdCallback>(RequestKind::GetId, result, in, out);
}

}  // namespace content
}  // namespace tilvane

using tilvane::content::RequestKind;

bool register_insert_db_callback(std::string uri, ContentInsertCallback callback, void* userData)
{
    return tilvane::content::Register("register_insert_db_callback", RequestKind::Insert, std::move(uri), callback,
                                      userData);
}

bool register_insert_db_callback_for_bulkdata(std::string uri, ContentBulkInsertCallback callback, void* userData)
{
    return tilvane::content::Register("register_insert_db_callback_for_bulkdata", RequestKind::BulkInsert,
                                      std::move(uri), callback, userData);
}

bool register_delete_db_callback(std::string uri, ContentDeleteCallback callback, void* userData)
{
    return tilvane::content::Register("register_delete_db_callback", RequestKind::Delete, std::move(uri), callback,
                                      userData);
}

bool register_select_db_callback(std::string uri, ContentSelectCallback callback, void* userData)
{
    return tilvane::content::Register("register_select_db_callback", RequestKind::Select, std::move(uri), callback,
                                      userData);
}

bool register_update_db_callback(std::string uri, ContentUpdateCallback callback, void* userData)
{
    return tilvane::content::Register("register_update_db_callback", RequestKind::Update, std::move(uri), callback,
                                      userData);
}

bool register_update_db_callback_for_bulkdata(std::string uri, ContentBulkUpdateCallback callback, void* userData)
{
    return tilvane::content::Register("register_update_db_callback_for_bulkdata", RequestKind::BulkUpdate,
                                      std::move(uri), callback, userData);
}

bool register_get_id_db_callback(std::string uri, ContentGetIdCallback callback, void* userData)
{
    return tilvane::content::Register("register_get_id_db_callback", RequestKind::GetId, std::move(uri), callback,
                                      userData);
}

bool unregister_insert_db_callback(std::string uri)
{
    return tilvane::content::Unregister("unregister_insert_db_callback", RequestKind::Insert, uri);
}

bool unregister_insert_db_callback_for_bulkdata(std::string uri)
{
    return tilvane::content::Unregister("unregister_insert_db_callback_for_bulkdata", RequestKind::BulkInsert, uri);
}

bool unregister_delete_db_callback(std::string uri)
{
    return tilvane::content::Unregister("unregister_delete_db_callback", RequestKind::Delete, uri);
}

bool unregister_select_db_callback(std::string uri)
{
    return tilvane::content::Unregister("unregister_select_db_callback", RequestKind::Select, uri);
}

bool unregister_update_db_callback(std::string uri)
{
    return tilvane::content::Unregister("unregister_update_db_callback", RequestKind::Update, uri);
}

bool unregister_update_db_callback_for_bulkdata(std::string uri)
{
    return tilvane::content::Unregister("unregister_update_db_callback_for_bulkdata", RequestKind::BulkUpdate, uri);
}

bool unregister_get_id_db_callback(std::string uri)
{
    return tilvane::content::Unregister("unregister_get_id_db_callback", RequestKind::GetId, uri);
}
