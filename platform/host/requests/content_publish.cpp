/*
 * Publish of the content-library interface: several content requests (its
 * steps) that the provider runs as one transaction, so that an application
 * replaces or extends its content all or nothing.
 *
 *   Publish(s clientApp, a(ssaaysasa(su)a(uu)) steps)
 *       -> (i result, i step, s error, s reason, ax rowIds, ax changedRows)
 *
 * A step is (kind, uri, rows, where, whereArgs, valueRefs, argRefs):
 *   kind       the single method it stands for: Insert, BulkInsert, Update,
 *              BulkUpdate, Delete or GetRowIds;
 *   rows       binary forms of bundles (Insert and Update: exactly one; Delete and
 *              GetRowIds: none);
 *   valueRefs  (column, step): every row gets `column` = the row id of that
 *              earlier step;
 *   argRefs    (index, step): where argument `index` = that row id.
 * The row id of a step is the new row's (Insert), the last new row's
 * (BulkInsert) or the one id found (GetRowIds: a lookup that found none or
 * several has none); the other kinds have none.
 *
 * Each step is served exactly as its single method is (content_steps.h): the
 * provider's registered callback with its permission checks, the request
 * confinement and limits. All steps run in one outer transaction of the
 * content library (content/outer_transaction.h), in which a handler's own
 * transaction is a savepoint, and every message the steps send to ports is
 * held (ports/held_sends.h). A step succeeds when the provider answers 0, or
 * when it is an Insert that carries the sync end mark (which the provider
 * answers with its failure code by design). When every step succeeds the
 * transaction is committed and then the held messages are sent; when a step
 * fails or the commit fails, nothing of the publish is stored and the held
 * messages are dropped. The reply: result 0, one row id per step (-1 for
 * none) and the rows each step changed (updates and deletes; 0 for the
 * others); or the failing step's index (the number of steps for the commit)
 * with either the error name and text its single method would answer with, or
 * the provider's result and reason (an error names the reason's code after
 * it, as the single method's would).
 */
#include <sqlite3.h>

#include <cstring>
#include <map>
#include <utility>

#include "base/glib_ptr.h"
#include "content/outer_transaction.h"
#include "ports/held_sends.h"
#include "requests/content_steps.h"
#include "requests/refusal_reasons.h"
#include "requests/request_glue.h"
#include "requests/request_handlers.h"

namespace tilvane {
namespace host {
namespace requests {
namespace {

struct PublishStep {
    ContentStep request;
    std::vector<std::pair<std::string, uint32_t>> valueRefs;
    std::vector<std::pair<uint32_t, uint32_t>> argRefs;
};

/* How a publish ended. */
struct PublishEnd {
    std::vector<int64_t> rowIds;
    std::vector<int64_t> changedRows;
    int step = -1;
    int result = 0;
    std::string error;
    Reason reason;
};

/* The request kind of a step: the method of the content interface it names,
 * one of those that change rows or look up row ids. */
bool KindOf(const char* name, content::RequestKind& kind)
{
    using content::RequestKind;
    using wire::Method;
    Method method = Method::ContentSelect;
    if (!wire::FindMethod(kContentInterface, name, method)) {
        return false;
    }
    switch (method) {
    case Method::ContentInsert: kind = RequestKind::Insert; return true;
    case Method::ContentBulkInsert: kind = RequestKind::BulkInsert; return true;
    case Method::ContentUpdate: kind = RequestKind::Update; return true;
    case Method::ContentBulkUpdate: kind = RequestKind::BulkUpdate; return true;
    case Method::ContentDelete: kind = RequestKind::Delete; return true;
    case Method::ContentGetRowIds: kind = RequestKind::GetId; return true;
    default: return false;
    }
}

/* How many rows a step of `kind` carries: -1 any number, else exactly. */
int RowsOfKind(content::RequestKind kind)
{
    using content::RequestKind;
    if (kind == RequestKind::Insert || kind == RequestKind::Update) {
        return 1;
    }
    return kind == RequestKind::BulkInsert || kind == RequestKind::BulkUpdate ? -1 : 0;
}

/* What the encoded rows of all steps add up to, before anything is decoded. */
bool WithinPublishLimits(const std::vector<wire::PublishStep>& steps, std::string& why)
{
    size_t rows = 0;
    size_t bytes = 0;
    for (const wire::PublishStep& step : steps) {
        rows += step.rows.size();
        for (const wire::Bytes& row : step.rows) {
            bytes += row.Size();
        }
    }
    if (steps.empty() || steps.size() > kPublishMaxSteps || rows > kPublishMaxRows || bytes > kPublishMaxBytes) {
        why = "a publish has 1 to " + std::to_string(kPublishMaxSteps) + " steps, at most " +
              std::to_string(kPublishMaxRows) + " rows and " + std::to_string(kPublishMaxBytes) +
              " bytes of rows; this one has " + std::to_string(steps.size()) + " steps, " + std::to_string(rows) +
              " rows and " + std::to_string(bytes) + " bytes";
        return false;
    }
    return true;
}

/* The back-references of step `index`, each to an earlier step. */
bool ReadReferences(const wire::PublishStep& wire, size_t index, PublishStep& step, std::string& why)
{
    if (wire.valueRefs.size() + wire.argRefs.size() > kPublishMaxReferencesPerStep) {
        why = "more than " + std::to_string(kPublishMaxReferencesPerStep) + " back-references";
        return false;
    }
    for (const wire::PublishValueRef& ref : wire.valueRefs) {
        step.valueRefs.emplace_back(ref.column, ref.step);
    }
    for (const wire::PublishArgRef& ref : wire.argRefs) {
        step.argRefs.emplace_back(ref.index, ref.step);
    }
    for (const auto& ref : step.valueRefs) {
        if (ref.second >= index || RowsOfKind(step.request.kind) == 0) {
            why = "a value back-reference to step " + std::to_string(ref.second) + " is not to an earlier step";
            return false;
        }
    }
    for (const auto& ref : step.argRefs) {
        if (ref.second >= index || ref.first >= step.request.whereArgs.size()) {
            why = "an argument back-reference names no where argument or no earlier step";
            return false;
        }
    }
    return true;
}

/* One step of the call, decoded; false with `why` when it is malformed. */
bool ReadStep(const wire::PublishStep& wire, size_t index, PublishStep& step, std::string& why)
{
    step.request.uri = wire.uri;
    step.request.where = wire.where;
    step.request.whereArgs = Strings(wire.whereArgs);
    if (!KindOf(wire.kind, step.request.kind)) {
        why = std::string("\"") + wire.kind + "\" is not a kind of step";
        return false;
    }
    const BundleRefusal refused = DecodeRows(wire.rows, step.request.rows);
    if (refused != BundleRefusal::None) {
        why = RowsRefusal(refused);
        return false;
    }
    const int expected = RowsOfKind(step.request.kind);
    if (expected >= 0 && step.request.rows.size() != static_cast<size_t>(expected)) {
        why = std::string(wire.kind) + " takes " + std::to_string(expected) + " row(s), not " +
              std::to_string(step.request.rows.size());
        return false;
    }
    return ReadReferences(wire, index, step, why);
}

bool ReadSteps(const std::vector<wire::PublishStep>& wire, std::vector<PublishStep>& steps, std::string& why)
{
    if (!WithinPublishLimits(wire, why)) {
        return false;
    }
    steps.resize(wire.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        if (!ReadStep(wire[i], i, steps[i], why)) {
            why = "step " + std::to_string(i) + ": " + why;
            return false;
        }
    }
    return true;
}

/* The row id a later step may refer to; -1 for none. */
int64_t RowIdOf(const ContentStep& step, const StepOutcome& outcome)
{
    if (step.kind == content::RequestKind::GetId) {
        return outcome.rowIds.size() == 1 ? outcome.rowIds.front() : -1;
    }
    const bool inserts = step.kind == content::RequestKind::Insert || step.kind == content::RequestKind::BulkInsert;
    return inserts && !outcome.syncEndMark ? outcome.rowId : -1;
}

/* Puts the row ids of earlier steps into `step`; false with `why` when one of
 * them has none. */
bool ResolveReferences(PublishStep& step, const std::vector<int64_t>& rowIds, std::string& why)
{
    for (const auto& ref : step.valueRefs) {
        if (rowIds[ref.second] < 0) {
            why = "step " + std::to_string(ref.second) + " gave no row id for " + ref.first;
            return false;
        }
        const std::string id = std::to_string(rowIds[ref.second]);
        for (BundlePtr& row : step.request.rows) {
            bundle_del(row.get(), ref.first.c_str());
            bundle_add_str(row.get(), ref.first.c_str(), id.c_str());
        }
    }
    for (const auto& ref : step.argRefs) {
        if (rowIds[ref.second] < 0) {
            why = "step " + std::to_string(ref.second) + " gave no row id for where argument " +
                  std::to_string(ref.first);
            return false;
        }
        step.request.whereArgs[ref.first] = std::to_string(rowIds[ref.second]);
    }
    return true;
}

bool StepSucceeded(const StepOutcome& outcome)
{
    return outcome.error == nullptr && (outcome.result == 0 || outcome.syncEndMark);
}

/* Runs the steps in order until one fails; `end.step` stays -1 when none did. */
void RunSteps(const std::string& clientApp, std::vector<PublishStep>& steps,
              const content::OuterTransaction& transaction, PublishEnd& end)
{
    for (size_t i = 0; i < steps.size(); ++i) {
        std::string why;
        if (!ResolveReferences(steps[i], end.rowIds, why)) {
            end = PublishEnd{{}, {}, static_cast<int>(i), 0, kErrorInvalidRequest, Reason{TILVANE_REASON_NONE, why}};
            return;
        }
        const StepOutcome outcome = ServeContentStep(clientApp, steps[i].request);
        if (!StepSucceeded(outcome)) {
            end = PublishEnd{{}, {}, static_cast<int>(i), outcome.result, outcome.error ? outcome.error : "",
                             outcome.error ? Reason{outcome.errorReason, outcome.errorText} : outcome.reason};
            if (transaction.JoinFailure() != 0) {
                end.reason = Reason{TILVANE_REASON_STATEMENT_FAILED, transaction.JoinFailureText()};
            }
            return;
        }
        end.rowIds.push_back(RowIdOf(steps[i].request, outcome));
        end.changedRows.push_back(outcome.changedRows);
    }
}

/* Runs every step in one transaction and sends what they sent only once it
 * is stored. */
PublishEnd Publish(const std::string& clientApp, std::vector<PublishStep>& steps)
{
    PublishEnd end;
    content::OuterTransaction transaction;
    HeldSends held;
    RunSteps(clientApp, steps, transaction, end);
    if (end.step >= 0) {
        transaction.Rollback();
        held.Drop();
        return end;
    }
    const int committed = transaction.Commit();
    if (committed != SQLITE_OK) {
        held.Drop();
        return PublishEnd{{}, {}, static_cast<int>(steps.size()), committed, "",
                          Reason{TILVANE_REASON_STATEMENT_FAILED,
                                 std::string("the changes could not be stored: ") + sqlite3_errstr(committed)}};
    }
    held.Release();
    return end;
}

}  // namespace

Answer<wire::ContentPublishOut> Handle(const wire::ContentPublishIn& in)
{
    std::vector<PublishStep> steps;
    std::string invalid;
    if (!ReadSteps(in.steps, steps, invalid)) {
        return Answer<wire::ContentPublishOut>::Fail(Failure{kErrorInvalidRequest, invalid});
    }
    PublishEnd end = Publish(in.clientApp, steps);
    if (!end.error.empty()) {
        CountFailure(end.error.c_str(), end.reason.code, end.reason.text);
    } else {
        CountResultCode(end.result);
    }
    if (end.step < 0) {
        REQUEST_LOGI("publish of %s: %zu step(s) stored", in.clientApp, steps.size());
    } else {
        REQUEST_LOGI("publish of %s: step %d of %zu failed, nothing stored: %s", in.clientApp, end.step,
                     steps.size(), end.reason.text.c_str());
    }
    wire::ContentPublishOut out;
    out.result = end.result;
    out.step = end.step;
    out.error = end.error.empty() ? std::string() : ErrorName(end.error.c_str(), end.reason.code);
    out.reason = std::move(end.reason.text);
    out.rowIds = std::move(end.rowIds);
    out.changedRows = std::move(end.changedRows);
    return Answer<wire::ContentPublishOut>::Reply(std::move(out));
}

GVariant* AnswerPublish(const std::string& clientApp, GVariant* parameters, std::string& invalid)
{
    wire::ContentPublishIn in;
    if (!wire::Read(parameters, in)) {
        invalid = "the arguments are not Publish's";
        return nullptr;
    }
    in.clientApp = clientApp.c_str();
    Answer<wire::ContentPublishOut> answer = Handle(in);
    if (answer.failed) {
        invalid = answer.failure.text;
        return nullptr;
    }
    return wire::ToVariant(std::move(answer.out));
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
