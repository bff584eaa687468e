/*
 * Content library: the provider side of the library's request interface.
 *
 * A provider registers one callback per (kind of request, table content URI).
 * When a client's request arrives, the library fills the kind's request
 * record, puts the user data given at registration into the record's last
 * field, calls the callback on the provider's main loop and answers the client
 * with what the callback returned.
 *
 * Records are plain structures owned by whoever fills them; their destructors
 * release strings and vectors only, never the bundles they point to.
 */
#ifndef TILVANE_CONTENT_PROVIDER_PARAM_H
#define TILVANE_CONTENT_PROVIDER_PARAM_H

#include <cstdint>
#include <string>
#include <vector>

typedef struct _bundle_t bundle;

struct PT_PROVIDER_INSERT_IN_PARAM
{
    std::string strAppId;       /* the calling application */
    std::string strUri;         /* the table's content URI */
    bundle* pValues = nullptr;  /* column name -> value */
    void* pUserData = nullptr;  /* given at registration */
};

struct PT_PROVIDER_INSERT_OUT_PARAM
{
    int64_t nRowId = -1;
};

struct PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM
{
    std::string strAppId;
    std::string strUri;
    std::vector<bundle*> vecValues; /* one bundle per row, in order */
    void* pUserData = nullptr;
};

struct PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM
{
    int64_t nRowId = -1; /* the last row inserted */
};

struct PT_PROVIDER_DELETE_IN_PARAM
{
    std::string strAppId;
    std::string strUri;
    std::string strWhere;
    std::vector<std::string> vecWhereArgs;
    std::string strReserved; /* carried unchanged; the library gives it no meaning */
    void* pUserData = nullptr;
};

struct PT_PROVIDER_UPDATE_IN_PARAM
{
    std::string strAppId;
    std::string strUri;
    bundle* pValues = nullptr;
    std::string strWhere;
    std::vector<std::string> vecWhereArgs;
    std::string strReserved;
    void* pUserData = nullptr;
};

/* An update answers with its result code alone. */
struct PT_PROVIDER_UPDATE_OUT_PARAM
{
};

struct PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM
{
    std::string strAppId;
    std::string strUri;
    std::vector<bundle*> vecValues; /* each names its row under "bulk_update_row_id_key" */
    void* pUserData = nullptr;
};

struct PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM
{
};

struct PT_PROVIDER_SELECT_IN_PARAM
{
    std::string strAppId;
    std::string strUri;
    std::string strWhere;
    std::vector<std::string> vecWhereArgs;
    std::string strOrderBy;              /* passed to the select as its ORDER BY */
    std::vector<std::string> vecProjection;
    std::string strLimit;                /* passed to the select as its LIMIT */
    void* pUserData = nullptr;
};

struct PT_PROVIDER_SELECT_OUT_PARAM
{
    int nRequestId = -1;       /* the stored cursor's id (CSharedQueryObject) */
    std::string strSharedName; /* filled by CSharedQueryObject::StoreCursor */
    int nColumnCount = 0;      /* filled by CSharedQueryObject::StoreCursor */
};

typedef PT_PROVIDER_SELECT_IN_PARAM PT_PROVIDER_GET_ID_IN_PARAM;

struct PT_PROVIDER_GET_ID_OUT_PARAM
{
    std::vector<int64_t> vecRowIds; /* in cursor order */
};

/* Callback types, one per kind of request. */
typedef int (*ContentInsertCallback)(PT_PROVIDER_INSERT_IN_PARAM&, PT_PROVIDER_INSERT_OUT_PARAM&);
typedef int (*ContentBulkInsertCallback)(PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM&,
                                         PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM&);
typedef int (*ContentDeleteCallback)(PT_PROVIDER_DELETE_IN_PARAM&);
typedef bool (*ContentSelectCallback)(PT_PROVIDER_SELECT_IN_PARAM&, PT_PROVIDER_SELECT_OUT_PARAM&);
typedef int (*ContentUpdateCallback)(PT_PROVIDER_UPDATE_IN_PARAM&, PT_PROVIDER_UPDATE_OUT_PARAM&);
typedef int (*ContentBulkUpdateCallback)(PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM&,
                                         PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM&);
typedef bool (*ContentGetIdCallback)(PT_PROVIDER_GET_ID_IN_PARAM&, PT_PROVIDER_GET_ID_OUT_PARAM&);

/*
 * Registration. A register_* call returns true when the callback is now
 * registered for the URI; a (kind, URI) pair that already has a callback is
 * refused. An unregister_* call returns true when it removed a callback.
 */
bool register_insert_db_callback(std::string uri, ContentInsertCallback callback, void* userData);
bool register_insert_db_callback_for_bulkdata(std::string uri, ContentBulkInsertCallback callback, void* userData);
bool register_delete_db_callback(std::string uri, ContentDeleteCallback callback, void* userData);
bool register_select_db_callback(std::string uri, ContentSelectCallback callback, void* userData);
bool register_update_db_callback(std::string uri, ContentUpdateCallback callback, void* userData);
bool register_update_db_callback_for_bulkdata(std::string uri, ContentBulkUpdateCallback callback, void* userData);
bool register_get_id_db_callback(std::string uri, ContentGetIdCallback callback, void* userData);

bool unregister_insert_db_callback(std::string uri);
bool unregister_insert_db_callback_for_bulkdata(std::string uri);
bool unregister_delete_db_callback(std::string uri);
bool unregister_select_db_callback(std::string uri);
bool unregister_update_db_callback(std::string uri);
bool unregister_update_db_callback_for_bulkdata(std::string uri);
bool unregister_get_id_db_callback(std::string uri);

#endif
