/*
 * One content-library request of a kind that changes rows or looks up row
 * ids, as both the single methods of org.tilvane.Content (content_interface.cpp)
 * and the steps of an atomic publish (content_publish.cpp) serve it: the same
 * request confinement, limits, dispatch to the provider's registered callback
 * and reasons, so that a step of a publish is exactly the request it names.
 */
#ifndef TILVANE_PLATFORM_CONTENT_STEPS_H
#define TILVANE_PLATFORM_CONTENT_STEPS_H

#include <cstdint>
#include <string>
#include <vector>

#include "bundle/bundle_limits.h"
#include "bundle_ptr.h"
#include "content_provider_dispatch.h"
#include "requests/request_glue.h"

namespace tilvane {
namespace host {
namespace requests {

/* What the single method of the same kind would be asked. */
struct ContentStep {
    content::RequestKind kind = content::RequestKind::Insert;
    std::string uri;
    /* Insert and Update: one row; BulkInsert and BulkUpdate: the rows. */
    std::vector<BundlePtr> rows;
    std::string where;
    std::vector<std::string> whereArgs;
};

/* How the request ended: as the single method would answer it. */
struct StepOutcome {
    /* The error the single method answers with (kErrorNotServed, kErrorRefused,
     * kErrorNoResult) and its reason, null when the provider answered with a
     * result. */
    const char* error = nullptr;
    std::string errorText;
    tilvane_reason errorReason = TILVANE_REASON_NONE;
    int result = 0;
    /* Insert, BulkInsert: the new (last) row's id. */
    int64_t rowId = -1;
    /* Update, BulkUpdate, Delete: the rows changed (0 unless result is 0). */
    int64_t changedRows = 0;
    /* GetId: the ids found. */
    std::vector<int64_t> rowIds;
    /* The reply's reason: none on success, what a sync mark did, or why. */
    Reason reason;
    /* An Insert whose values carry the sync end mark: nothing is written and
     * the provider answers with its failure code by design. */
    bool syncEndMark = false;
};

/* Runs `step` for `clientApp`: the provider's callback for its kind and URI,
 * under the request's confinement and report, after the request limits. */
StepOutcome ServeContentStep(const std::string& clientApp, ContentStep& step);

/* The rows of a request (binary forms of bundles), each a bundle, within the
 * bulk limits; why they are refused otherwise (`rows` left empty). */
BundleRefusal DecodeRows(const std::vector<wire::Bytes>& encoded, std::vector<BundlePtr>& rows);

/* The error text of rows that were refused. */
const char* RowsRefusal(BundleRefusal why);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
