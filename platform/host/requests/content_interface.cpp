/*
 * The content-library interface: org.tilvane.Content at /org/tilvane/Content.
 * Its calls run here on the default main context, one small function per
 * method, each handing the request to the callback registered for its kind
 * and URI. Every method but Select is served as a ContentStep
 * (content_steps.h), the same way a step of an atomic publish is.
 */
#include <cstring>
#include <memory>
#include <utility>

#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "content_provider_dispatch.h"
#include "requests/content_steps.h"
#include "requests/request_glue.h"
#include "requests/row_codec.h"
#include "requests/reply_budget.h"

namespace tilvane {
namespace host {
namespace requests {

namespace {

/* ---- content-library interface ----------------------------------------------- */

/* The texts of a bulk's rows (owned by `array`), or why they are refused:
 * more rows or bytes than a bulk may have. */
BundleRefusal BulkTexts(GVariant* array, std::vector<std::pair<const gchar*, size_t>>& texts)
{
    const gsize count = g_variant_n_children(array);
    if (count > kBulkMaxRows) {
        return BundleRefusal::OverLimits;
    }
    texts.reserve(count);
    size_t total = 0;
    GVariantIter iter;
    g_variant_iter_init(&iter, array);
    const gchar* text = nullptr;
    while (g_variant_iter_next(&iter, "&s", &text)) {
        const size_t length = std::strlen(text);
        texts.emplace_back(text, length);
        total += length;
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

/* Calls the provider's callback of the step's kind; false when none is
 * registered. */
bool DispatchStep(const std::string& clientApp, ContentStep& step, const RequestReport& report, StepOutcome& outcome)
{
    using namespace tilvane::content;
    bool found = false;
    if (step.kind == RequestKind::Insert) {
        auto in = StepRecord<PT_PROVIDER_INSERT_IN_PARAM>(clientApp, step);
        in.pValues = OnlyRow(step);
        PT_PROVIDER_INSERT_OUT_PARAM out;
        found = DispatchInsert(in, out, outcome.result);
        outcome.rowId = out.nRowId;
        outcome.reason = SyncMarkOf(in.pValues);
        outcome.syncEndMark = outcome.reason == kSyncEndMarkSent;
    } else if (step.kind == RequestKind::BulkInsert) {
        auto in = StepRecord<PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM>(clientApp, step);
        in.vecValues = Borrowed(step.rows);
        PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM out;
        found = DispatchBulkInsert(in, out, outcome.result);
        outcome.rowId = out.nRowId;
    } else if (step.kind == RequestKind::Update) {
        auto in = StepRecord<PT_PROVIDER_UPDATE_IN_PARAM>(clientApp, step);
        in.pValues = OnlyRow(step);
        in.strWhere = step.where;
        in.vecWhereArgs = step.whereArgs;
        PT_PROVIDER_UPDATE_OUT_PARAM out;
        found = DispatchUpdate(in, out, outcome.result);
    } else if (step.kind == RequestKind::BulkUpdate) {
        auto in = StepRecord<PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM>(clientApp, step);
        in.vecValues = Borrowed(step.rows);
        PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM out;
        found = DispatchBulkUpdate(in, out, outcome.result);
    } else if (step.kind == RequestKind::Delete) {
        auto in = StepRecord<PT_PROVIDER_DELETE_IN_PARAM>(clientApp, step);
        in.strWhere = step.where;
        in.vecWhereArgs = step.whereArgs;
        found = DispatchDelete(in, outcome.result);
    } else if (step.kind == RequestKind::GetId) {
        auto in = StepRecord<PT_PROVIDER_SELECT_IN_PARAM>(clientApp, step);
        in.strWhere = step.where;
        in.vecWhereArgs = step.whereArgs;
        PT_PROVIDER_GET_ID_OUT_PARAM out;
        bool answered = false;
        found = DispatchGetId(in, out, answered);
        outcome.rowIds = std::move(out.vecRowIds);
        if (found && !answered) {
            outcome.error = kErrorNoResult;
            outcome.errorText = NoResultText(report, "the provider's row-id lookup failed");
        } else if (found && !report.budget.empty()) {
            /* The provider stops at a failed step and answers what it had read. */
            outcome.error = kErrorNoResult;
            outcome.errorText = report.budget;
        }
    }
    outcome.changedRows = outcome.result == 0 ? report.changedRows : 0;
    if (outcome.reason.empty()) {
        outcome.reason = ReasonForCode(outcome.result, report);
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
    } else if (!found) {
        outcome.error = kErrorNotServed;
        outcome.errorText = kNoCallbackText;
    }
    return outcome;
}

BundleRefusal DecodeRows(GVariant* array, std::vector<BundlePtr>& rows)
{
    std::vector<std::pair<const gchar*, size_t>> texts;
    BundleRefusal why = BulkTexts(array, texts);
    if (why != BundleRefusal::None) {
        return why;
    }
    rows.reserve(texts.size());
    for (const auto& text : texts) {
        BundlePtr b = DecodeBundle(text.first, text.second, &why);
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

/* True (and the call answered) when the step ended in an error. */
bool AnsweredStepError(Job& job, const StepOutcome& outcome)
{
    if (outcome.error == nullptr) {
        return false;
    }
    ReturnError(job.invocation.get(), outcome.error, outcome.errorText.c_str());
    return true;
}

/* (result, x, reason) of a write: x the new (last) row's id of an insert,
 * the rows changed by an update or delete. */
void ReplyWrite(Job& job, ContentStep& step)
{
    const StepOutcome outcome = ServeContentStep(job.clientApp, step);
    if (AnsweredStepError(job, outcome)) {
        return;
    }
    const bool inserts = step.kind == content::RequestKind::Insert || step.kind == content::RequestKind::BulkInsert;
    g_dbus_method_invocation_return_value(
        job.invocation.get(), g_variant_new("(ixs)", outcome.result,
                                            static_cast<gint64>(inserts ? outcome.rowId : outcome.changedRows),
                                            outcome.reason.c_str()));
}

ContentStep StepOf(const Job& job, content::RequestKind kind)
{
    ContentStep step;
    step.kind = kind;
    step.uri = StringArg(job.parameters.get(), 1);
    return step;
}

/* The step's one row from the string argument at `index`; false after
 * answering why it is refused. */
bool OneRowArg(Job& job, gsize index, ContentStep& step)
{
    BundleRefusal refused = BundleRefusal::None;
    BundlePtr values = DecodeBundle(StringArg(job.parameters.get(), index), &refused);
    if (values == nullptr) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, ValuesRefusal(refused));
        return false;
    }
    step.rows.push_back(std::move(values));
    return true;
}

/* The step's rows from the array argument at 2; false after answering why
 * they are refused. */
bool BulkRowsArg(Job& job, ContentStep& step)
{
    GVariantPtr rows(g_variant_get_child_value(job.parameters.get(), 2));
    const BundleRefusal refused = DecodeRows(rows.get(), step.rows);
    if (refused != BundleRefusal::None) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, RowsRefusal(refused));
        return false;
    }
    return true;
}

void ContentInsert(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::Insert);
    if (OneRowArg(job, 2, step)) {
        ReplyWrite(job, step);
    }
}

void ContentBulkInsert(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::BulkInsert);
    if (BulkRowsArg(job, step)) {
        ReplyWrite(job, step);
    }
}

void ContentBulkUpdate(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::BulkUpdate);
    if (BulkRowsArg(job, step)) {
        ReplyWrite(job, step);
    }
}

void ContentUpdate(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::Update);
    step.where = StringArg(job.parameters.get(), 3);
    step.whereArgs = StringsArg(job.parameters.get(), 4);
    if (OneRowArg(job, 2, step)) {
        ReplyWrite(job, step);
    }
}

void ContentDelete(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::Delete);
    step.where = StringArg(job.parameters.get(), 2);
    step.whereArgs = StringsArg(job.parameters.get(), 3);
    ReplyWrite(job, step);
}

void ContentGetRowIds(Job& job)
{
    ContentStep step = StepOf(job, content::RequestKind::GetId);
    step.where = StringArg(job.parameters.get(), 2);
    step.whereArgs = StringsArg(job.parameters.get(), 3);
    const StepOutcome outcome = ServeContentStep(job.clientApp, step);
    if (AnsweredStepError(job, outcome)) {
        return;
    }
    if (outcome.rowIds.size() > MaxReplyPayloadBytes() / sizeof(int64_t)) {
        NoteReplyTooLarge(job.clientApp, "Content.GetRowIds");
        ReturnError(job.invocation.get(), kErrorNoResult, kReplyTooLargeText);
        return;
    }
    GVariant* ids = g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, outcome.rowIds.data(), outcome.rowIds.size(),
                                              sizeof(int64_t));
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ax)", ids));
}

/* Whether a select was served and answered; when not, the call has been
 * answered with why. */
bool SelectAnswered(Job& job, const RequestReport& report, bool found, bool answered)
{
    if (AnsweredCurrentRefusal(job.invocation.get(), nullptr)) {
        return false;
    }
    if (!found) {
        ReturnError(job.invocation.get(), kErrorNotServed, kNoCallbackText);
        return false;
    }
    if (!answered) {
        ReturnError(job.invocation.get(), kErrorNoResult, NoResultText(report, "the provider's select failed").c_str());
        return false;
    }
    return true;
}

void ContentSelect(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    PT_PROVIDER_SELECT_IN_PARAM in;
    in.strAppId = job.clientApp;
    in.strUri = StringArg(p, 1);
    in.vecProjection = StringsArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 4);
    in.strOrderBy = StringArg(p, 5);
    in.strLimit = StringArg(p, 6);
    in.strWhere = StringArg(p, 3);
    if (!WithinRequestLimits({}, in.strWhere.c_str())) {
        AnsweredCurrentRefusal(job.invocation.get(), nullptr);
        return;
    }
    PT_PROVIDER_SELECT_OUT_PARAM out;
    bool answered = false;
    const bool found = DispatchSelect(in, out, answered);
    if (!SelectAnswered(job, report, found, answered)) {
        if (answered) {
            CSharedQueryObject::TakeCursor(out.nRequestId);  // the refused request's cursor goes unread
        }
        return;
    }
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
    std::string encoded;
    const RowsEncoding ended =
        cursor ? EncodeCursorRows(*cursor, encoded, MaxReplyPayloadBytes()) : RowsEncoding::Failed;
    if (ended == RowsEncoding::TooLarge) {
        NoteReplyTooLarge(job.clientApp, "Content.Select");
    }
    if (ended != RowsEncoding::Done) {
        ReturnError(job.invocation.get(), kErrorNoResult, BudgetOr(report, "the provider's select left no readable cursor"));
        return;
    }
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ay)", RowsVariant(std::move(encoded))));
}

}  // namespace

void RunContent(Job& job)
{
    static const std::map<std::string, void (*)(Job&)> methods = {
        {"Insert", ContentInsert}, {"BulkInsert", ContentBulkInsert}, {"BulkUpdate", ContentBulkUpdate},
        {"Update", ContentUpdate}, {"Delete", ContentDelete},         {"GetRowIds", ContentGetRowIds},
        {"Publish", RunPublish},
    };
    if (job.method == "Select") {
        confinement::RequestScope scope(confinement::TableOfUri(StringArg(job.parameters.get(), 1)), job.clientApp);
        RequestReportScope reportScope;
        ContentSelect(job, reportScope.Report());
        return;
    }
    auto method = methods.find(job.method);
    if (method != methods.end()) {
        method->second(job);
    }
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
