/*
 * Content library: the store of select cursors handed to the library's
 * clients. A provider stores the cursor of a select; the library's request
 * interface takes it out again by request id and sends its rows to the client.
 */
#ifndef TILVANE_SHARED_QUERY_OBJECT_H
#define TILVANE_SHARED_QUERY_OBJECT_H

#include <memory>
#include <string>

#include "SQLiteCursor.h"

class CSharedQueryObject
{
public:
    /* Keeps `cursor` under a new request id. `sharedName` receives the name
     * under which the rows are published ("<table>#<request id>") and
     * `columnCount` the cursor's number of columns. Returns 0, or -1 for a null cursor. */
    static int StoreCursor(std::shared_ptr<ISQLiteCursor> cursor, const std::string& table, std::string& sharedName,
                           int& columnCount);
    /* The request id of the cursor last stored by this thread; -1 before any. */
    static int GetRequestID();
    /* Removes and returns the cursor of `requestId`; null when there is none. */
    static std::shared_ptr<ISQLiteCursor> TakeCursor(int requestId);
    /* Number of cursors stored and not yet taken. */
    static size_t GetStoredCount();
    /* Drops every stored cursor. */
    static void Clear();
};

#endif
