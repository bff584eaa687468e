/*
 * The client side of Publish (requests/content_publish.cpp): several content
 * requests sent as one, which the provider runs as one transaction. The typed
 * Publisher builds its steps; tools and tests may send any. Internal to the
 * host platform.
 */
#ifndef TILVANE_PLATFORM_PUBLISH_CALL_H
#define TILVANE_PLATFORM_PUBLISH_CALL_H

#include <gio/gio.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tilvane_client.h"

namespace tilvane {
namespace host {
namespace publish {

struct Step {
    /* The single method the step stands for: "Insert", "BulkInsert",
     * "Update", "BulkUpdate", "Delete" or "GetRowIds". */
    std::string kind;
    std::string uri;
    /* Binary forms of bundles (clientcalls::Encode). */
    std::vector<std::string> rows;
    std::string where;
    std::vector<std::string> whereArgs;
    /* (column, step): the column of every row is the row id of that step. */
    std::vector<std::pair<std::string, uint32_t>> valueRefs;
    /* (where argument, step). */
    std::vector<std::pair<uint32_t, uint32_t>> argRefs;
};

/* How a publish ended. `result.Ok()` when every step was stored, with
 * `result.rowIds` one per step (-1: none) and `changedRows`. Otherwise `failedStep` is the step
 * that failed (the number of steps: the commit; -1: the call itself failed)
 * and `result` says how, as the step's single request would have: its outcome,
 * code and reason. */
struct Reply {
    client::Result result;
    int failedStep = -1;
    /* On success: the rows each step changed (updates and deletes). */
    std::vector<int64_t> changedRows;
};

/* Sends `steps` to the provider of `providerId` as this process's application. */
Reply Send(const std::string& providerId, const std::vector<Step>& steps);

/* The two ends of Send, for tests: the call's arguments (floating), and its
 * reply read into `reply`. */
GVariant* Arguments(const std::vector<Step>& steps);
void ReadReply(GVariant* answer, Reply& reply);

}  // namespace publish
}  // namespace host
}  // namespace tilvane

#endif
