/*
 * Host side of the content library's request interface: finds the callback that a
 * provider registered for (kind, content URI), hands it the request record with
 * the registered user data, and gives back what it returned. The request interface
 * between processes and the tests call these; the system never does.
 */
#ifndef TILVANE_PLATFORM_CONTENT_PROVIDER_DISPATCH_H
#define TILVANE_PLATFORM_CONTENT_PROVIDER_DISPATCH_H

#include <cstddef>
#include <string>

#include "ContentProviderParam.h"

namespace tilvane {
namespace content {

enum class RequestKind
{
    Insert,
    BulkInsert,
    Delete,
    Select,
    Update,
    BulkUpdate,
    GetId,
};

/* "insert", "insert bulk", "delete", "select", "update", "update bulk", "get id". */
const char* RequestKindName(RequestKind kind);

bool IsRegistered(RequestKind kind, const std::string& uri);
/* Number of (kind, URI) pairs that have a callback. */
size_t RegisteredCount();
/* Removes every registration (tests). */
void ClearRegistrations();

/* Each returns false, without calling anything, when no callback is registered
 * for (kind, in.strUri); otherwise fills in.pUserData, calls the callback and
 * stores its return value in `result`. */
bool DispatchInsert(PT_PROVIDER_INSERT_IN_PARAM& in, PT_PROVIDER_INSERT_OUT_PARAM& out, int& result);
bool DispatchBulkInsert(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out,
                        int& result);
bool DispatchDelete(PT_PROVIDER_DELETE_IN_PARAM& in, int& result);
bool DispatchSelect(PT_PROVIDER_SELECT_IN_PARAM& in, PT_PROVIDER_SELECT_OUT_PARAM& out, bool& result);
bool DispatchUpdate(PT_PROVIDER_UPDATE_IN_PARAM& in, PT_PROVIDER_UPDATE_OUT_PARAM& out, int& result);
bool DispatchBulkUpdate(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM& in, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM& out,
                        int& result);
bool DispatchGetId(PT_PROVIDER_GET_ID_IN_PARAM& in, PT_PROVIDER_GET_ID_OUT_PARAM& out, bool& result);

}  // namespace content
}  // namespace tilvane

#endif
