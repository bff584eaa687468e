/*
 * The content-library interface: org.tilvane.Content at /org/tilvane/Content.
 * Its typed requests run here on the default main context, one handler per
 * method (request_handlers.h), each handing the request to the callback
 * registered for its kind and URI. Every method but Select is served as a
 * ContentStep (content_steps.h), the same way a step of an atomic publish is.
 */
#include <cstring>
#include <memory>
#include <utility>

#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "confinement_policy.h"
#include "content_provider_dispatch.h"
#include "requests/content_steps.h"
#include "requests/reply_budget.h"
#include "requests/request_glue.h"
#include "requests/request_handlers.h"
#include "requests/row_codec.h"

namespace tilvane {
namespace host {
namespace requests {

namespace {

/* The texts of a bulk's rows, or why they are refused: more rows or bytes
 * than a bulk may have. */
BundleRefusal BulkBytes(const std::vector<wire::Bytes>& encoded)
{
    if (encoded.size() > kBulkMaxRows) {
        return BundleRefusal::OverLimits;
    }
    size_t total = 0;
    for (const wire::Bytes& row : encoded) {
        total += row.Size();
    }
    return total > kBulkMaxBytes ? BundleRefusal::OverLimits : BundleRefusal::None;
}

std::vector<bundle*> Borrowed(const std::vector<BundlePtr>& bundles)
{
    std::vector<bundle*> pointers;
    pointers.reserve(bundles.size());
    for (const BundlePtr& b : bundles) {
        pointers.push_back(b.get());
    }
    return pointers;
}

/* The one row of an insert or update; null for the other kinds. */
bundle* OnlyRow(const ContentStep& step)
{
    return step.rows.empty() ? nullptr : step.rows.front().get();
}

/* A request record of the caller and the URI. */
template <typename Record>
Record StepRecord(const std::string& clientApp, const ContentStep& step)
{
    Record record;
    record.strAppId = clientApp;
    record.strUri = step.uri;
    return record;
}

/* A row-id lookup: the provider's callback, and the ids it found. */
bool DispatchGetIdStep(const std::string& clientApp, ContentStep& step, const RequestReport& report,
                       StepOutcome& outcome)
{
    auto in = StepRecord<PT_PROVIDER_SELECT_IN_PARAM>(clientApp, step);
    in.strWhere = step.where;
    in.vecWhereArgs = step.whereArgs;
    PT_PROVIDER_GET_ID_OUT_PARAM out;
    bool answered = false;
    const bool found = content::DispatchGetId(in, out, answered);
    outcome.rowIds = std::move(out.vecRowIds);
    if (found && !answered) {
        const Reason reason = NoResultReason(report, "the provider's row-id lookup failed");
        outcome.error = kErrorNoResult;
        outcome.errorText = reason.text;
        outcome.errorReason = reason.code;
    } else if (found && !report.budget.empty()) {
        /* The provider stops at a failed step and answers what it had read. */
        outcome.error = kErrorNoResult;
        outcome.errorText = report.budget;
        outcome.errorReason = TILVANE_REASON_BUDGET;
    }
    return found;
}

/* An insert or a bulk insert: the provider's callback and the new row's id. */
bool DispatchInsertStep(const std::string& clientApp, ContentStep& step, StepOutcome& outcome)
{
    if (step.kind == content::RequestKind::Insert) {
        auto in = StepRecord<PT_PROVIDER_INSERT_IN_PARAM>(clientApp, step);
        in.pValues = OnlyRow(step);
        PT_PROVIDER_INSERT_OUT_PARAM out;
        const bool found = content::DispatchInsert(in, out, outcome.result);
        outcome.rowId = out.nRowId;
        outcome.reason = SyncMarkOf(in.pValues);
        outcome.syncEndMark = outcome.reason.code == TILVANE_REASON_SYNC_END_MARK;
        return found;
    }
    auto in = StepRecord<PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM>(clientApp, step);
    in.vecValues = Borrowed(step.rows);
    PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
    const bool found = content::DispatchBulkInsert(in, out, outcome.result);
    outcome.rowId = out.nRowId;
    return found;
}

/* An update, bulk update or delete: the provider's callback. */
bool DispatchChangeStep(const std::string& clientApp, ContentStep& step, StepOutcome& outcome)
{
    using content::RequestKind;
    if (step.kind == RequestKind::Update) {
        auto in = StepRecord<PT_PROVIDER_UPDATE_IN_PARAM>(clientApp, step);
        in.pValues = OnlyRow(step);
        in.strWhere = step.where;
        in.vecWhereArgs = step.whereArgs;
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        return content::DispatchUpdate(in, out, outcome.result);
    }
    if (step.kind == RequestKind::BulkUpdate) {
        auto in = StepRecord<PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM>(clientApp, step);
        in.vecValues = Borrowed(step.rows);
        PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
        return content::DispatchBulkUpdate(in, out, outcome.result);
    }
    auto in = StepRecord<PT_PROVIDER_DELETE_IN_PARAM>(clientApp, step);
    in.strWhere = step.where;
    in.vecWhereArgs = step.whereArgs;
    return content::DispatchDelete(in, outcome.result);
}

/* Calls the provider's callback of the step's kind; false when none is
 * registered. */
bool DispatchStep(const std::string& clientApp, ContentStep& step, const RequestReport& report, StepOutcome& outcome)
{
    using content::RequestKind;
    bool found = false;
    if (step.kind == RequestKind::GetId) {
        found = DispatchGetIdStep(clientApp, step, report, outcome);
    } else if (step.kind == RequestKind::Insert || step.kind == RequestKind::BulkInsert) {
        found = DispatchInsertStep(clientApp, step, outcome);
    } else {
        found = DispatchChangeStep(clientApp, step, outcome);
    }
    outcome.changedRows = outcome.result == 0 ? report.changedRows : 0;
    if (outcome.reason.code == TILVANE_REASON_NONE) {
        outcome.reason = ReasonForResult(outcome.result, report);
    }
    return found;
}

/* Whether the kind's request names a where clause. */
bool HasWhere(content::RequestKind kind)
{
    using content::RequestKind;
    return kind == RequestKind::Update || kind == RequestKind::Delete || kind == RequestKind::GetId;
}

}  // namespace

StepOutcome ServeContentStep(const std::string& clientApp, ContentStep& step)
{
    confinement::RequestScope scope(confinement::TableOfUri(step.uri), clientApp);
    RequestReportScope reportScope;
    StepOutcome outcome;
    const std::vector<bundle*> rows = Borrowed(step.rows);
    const bool within = WithinRequestLimits(rows, HasWhere(step.kind) ? step.where.c_str() : nullptr);
    const bool found = within && DispatchStep(clientApp, step, reportScope.Report(), outcome);
    if (scope.Refused()) {
        outcome.error = kErrorRefused;
        outcome.errorText = scope.RefusalText();
        outcome.errorReason = TILVANE_REASON_STRICT_CONFINEMENT;
    } else if (!found) {
        outcome.error = kErrorNotServed;
        outcome.errorText = kNoCallbackText;
        outcome.errorReason = TILVANE_REASON_NONE;
    }
    return outcome;
}

BundleRefusal DecodeRows(const std::vector<wire::Bytes>& encoded, std::vector<BundlePtr>& rows)
{
    BundleRefusal why = BulkBytes(encoded);
    if (why != BundleRefusal::None) {
        return why;
    }
    rows.reserve(encoded.size());
    for (const wire::Bytes& row : encoded) {
        BundlePtr b = DecodeBundle(row, &why);
        if (b == nullptr) {
            rows.clear();
            return why;
        }
        rows.push_back(std::move(b));
    }
    return BundleRefusal::None;
}

const char* RowsRefusal(BundleRefusal why)
{
    return why == BundleRefusal::OverLimits ? "the rows are over the bulk or bundle limits" : "a row is not a bundle";
}

namespace {

Failure StepFailure(const StepOutcome& outcome)
{
    return Failure{outcome.error, outcome.errorText, outcome.errorReason};
}

/* An insert's reply carries the new (last) row's id, ... */
template <typename Out>
auto SetCount(Out& out, const StepOutcome& outcome, int) -> decltype(out.rowId, void())
{
    out.rowId = outcome.rowId;
}

/* ... an update's or delete's the rows it changed. */
template <typename Out>
void SetCount(Out& out, const StepOutcome& outcome, long)
{
    out.changedRows = outcome.changedRows;
}

/* The answer of a write: (result, x, reason), x the new (last) row's id of an
 * insert, the rows changed by an update or delete; the result is the code. */
template <typename Out>
Answer<Out> AnswerWrite(const char* clientApp, ContentStep& step)
{
    const StepOutcome outcome = ServeContentStep(clientApp, step);
    if (outcome.error != nullptr) {
        return Answer<Out>::Fail(StepFailure(outcome));
    }
    Out out;
    out.result = outcome.result;
    out.reason = outcome.reason.text;
    SetCount(out, outcome, 0);
    return Answer<Out>::Reply(std::move(out));
}

ContentStep StepOf(content::RequestKind kind, const char* uri)
{
    ContentStep step;
    step.kind = kind;
    step.uri = uri;
    return step;
}

/* The step's one row; false, with the failure, when it is refused. */
bool OneRow(const wire::Bytes& encoded, ContentStep& step, Failure& failure)
{
    BundleRefusal refused = BundleRefusal::None;
    BundlePtr values = DecodeBundle(encoded, &refused);
    if (values == nullptr) {
        failure = Failure{kErrorInvalidRequest, ValuesRefusal(refused)};
        return false;
    }
    step.rows.push_back(std::move(values));
    return true;
}

/* The step's rows; false, with the failure, when they are refused. */
bool BulkRows(const std::vector<wire::Bytes>& encoded, ContentStep& step, Failure& failure)
{
    const BundleRefusal refused = DecodeRows(encoded, step.rows);
    if (refused != BundleRefusal::None) {
        failure = Failure{kErrorInvalidRequest, RowsRefusal(refused)};
        return false;
    }
    return true;
}

}  // namespace

Answer<wire::ContentInsertOut> Handle(const wire::ContentInsertIn& in)
{
    ContentStep step = StepOf(content::RequestKind::Insert, in.uri);
    Failure failure;
    if (!OneRow(in.values, step, failure)) {
        return Answer<wire::ContentInsertOut>::Fail(failure);
    }
    return AnswerWrite<wire::ContentInsertOut>(in.clientApp, step);
}

Answer<wire::ContentBulkInsertOut> Handle(const wire::ContentBulkInsertIn& in)
{
    ContentStep step = StepOf(content::RequestKind::BulkInsert, in.uri);
    Failure failure;
    if (!BulkRows(in.rows, step, failure)) {
        return Answer<wire::ContentBulkInsertOut>::Fail(failure);
    }
    return AnswerWrite<wire::ContentBulkInsertOut>(in.clientApp, step);
}

Answer<wire::ContentUpdateOut> Handle(const wire::ContentUpdateIn& in)
{
    ContentStep step = StepOf(content::RequestKind::Update, in.uri);
    step.where = in.where;
    step.whereArgs = Strings(in.whereArgs);
    Failure failure;
    if (!OneRow(in.values, step, failure)) {
        return Answer<wire::ContentUpdateOut>::Fail(failure);
    }
    return AnswerWrite<wire::ContentUpdateOut>(in.clientApp, step);
}

Answer<wire::ContentBulkUpdateOut> Handle(const wire::ContentBulkUpdateIn& in)
{
    ContentStep step = StepOf(content::RequestKind::BulkUpdate, in.uri);
    Failure failure;
    if (!BulkRows(in.rows, step, failure)) {
        return Answer<wire::ContentBulkUpdateOut>::Fail(failure);
    }
    return AnswerWrite<wire::ContentBulkUpdateOut>(in.clientApp, step);
}

Answer<wire::ContentDeleteOut> Handle(const wire::ContentDeleteIn& in)
{
    ContentStep step = StepOf(content::RequestKind::Delete, in.uri);
    step.where = in.where;
    step.whereArgs = Strings(in.whereArgs);
    return AnswerWrite<wire::ContentDeleteOut>(in.clientApp, step);
}

Answer<wire::ContentGetRowIdsOut> Handle(const wire::ContentGetRowIdsIn& in)
{
    using Reply = Answer<wire::ContentGetRowIdsOut>;
    ContentStep step = StepOf(content::RequestKind::GetId, in.uri);
    step.where = in.where;
    step.whereArgs = Strings(in.whereArgs);
    StepOutcome outcome = ServeContentStep(in.clientApp, step);
    if (outcome.error != nullptr) {
        return Reply::Fail(StepFailure(outcome));
    }
    if (outcome.rowIds.size() > MaxReplyPayloadBytes() / sizeof(int64_t)) {
        NoteReplyTooLarge(in.clientApp, "Content.GetRowIds");
        return Reply::Fail(Failure{kErrorNoResult, kReplyTooLargeText, TILVANE_REASON_BUDGET});
    }
    wire::ContentGetRowIdsOut out;
    out.rowIds = std::move(outcome.rowIds);
    return Reply::Reply(std::move(out));
}

namespace {

using SelectAnswer = Answer<wire::ContentSelectOut>;

/* Why a select has no rows to send: refused under strict confinement, not
 * served, or not answered; false when it has. */
bool SelectFailed(const RequestReport& report, bool found, bool answered, Failure& failure)
{
    confinement::RequestContext* request = confinement::CurrentRequest();
    if (request != nullptr && request->refused) {
        failure = Failure{kErrorRefused,
                          request->reason + " (strict confinement, rule " + request->rule + ", result " +
                              std::to_string(CONFINEMENT_POLICY_REFUSED) + ")",
                          TILVANE_REASON_STRICT_CONFINEMENT};
        return true;
    }
    if (!found) {
        failure = Failure{kErrorNotServed, kNoCallbackText};
        return true;
    }
    if (!answered) {
        const Reason reason = NoResultReason(report, "the provider's select failed");
        failure = Failure{kErrorNoResult, reason.text, reason.code};
        return true;
    }
    return false;
}

/* The rows of the cursor the provider stored, or why they cannot be sent. */
SelectAnswer EncodedRows(const char* clientApp, int requestId, const RequestReport& report)
{
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(requestId);
    wire::ContentSelectOut out;
    const RowsEncoding ended =
        cursor ? EncodeCursorRows(*cursor, out.rows.owned, MaxReplyPayloadBytes()) : RowsEncoding::Failed;
    if (ended == RowsEncoding::TooLarge) {
        NoteReplyTooLarge(clientApp, "Content.Select");
    }
    if (ended != RowsEncoding::Done) {
        const bool budget = !report.budget.empty();
        return SelectAnswer::Fail(Failure{kErrorNoResult,
                                          budget ? report.budget : "the provider's select left no readable cursor",
                                          budget ? TILVANE_REASON_BUDGET : TILVANE_REASON_NONE});
    }
    return SelectAnswer::Reply(std::move(out));
}

}  // namespace

Answer<wire::ContentSelectOut> Handle(const wire::ContentSelectIn& in)
{
    confinement::RequestScope scope(confinement::TableOfUri(in.uri), in.clientApp);
    RequestReportScope reportScope;
    PT_PROVIDER_SELECT_IN_PARAM request;
    request.strAppId = in.clientApp;
    request.strUri = in.uri;
    request.vecProjection = Strings(in.projection);
    request.vecWhereArgs = Strings(in.whereArgs);
    request.strOrderBy = in.order;
    request.strLimit = in.limit;
    request.strWhere = in.where;
    /* Over strict confinement's limits: refused, with the refusal recorded. */
    Failure failure{kErrorRefused, "the request is over strict confinement's limits",
                    TILVANE_REASON_STRICT_CONFINEMENT};
    if (!WithinRequestLimits({}, request.strWhere.c_str())) {
        SelectFailed(reportScope.Report(), true, true, failure);
        return SelectAnswer::Fail(failure);
    }
    PT_PROVIDER_SELECT_OUT_PARAM out;
    bool answered = false;
    const bool found = content::DispatchSelect(request, out, answered);
    if (SelectFailed(reportScope.Report(), found, answered, failure)) {
        if (answered) {
            CSharedQueryObject::TakeCursor(out.nRequestId);  // the refused request's cursor goes unread
        }
        return SelectAnswer::Fail(failure);
    }
    return EncodedRows(in.clientApp, out.nRequestId, reportScope.Report());
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
