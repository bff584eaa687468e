/*
 * The content-library interface: org.tilvane.Content at /org/tilvane/Content.
 * Its calls run here on the default main context, one small function per
 * method, each handing the request to the callback registered for its kind
 * and URI.
 */
#include <cstring>
#include <memory>
#include <utility>

#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "content_provider_dispatch.h"
#include "requests/request_glue.h"
#include "bundle/row_codec.h"

namespace tilvane {
namespace host {
namespace requests {

namespace {

/* ---- content-library interface ----------------------------------------------- */

void ReturnResult(GDBusMethodInvocation* invocation, bool found, GVariant* value)
{
    if (AnsweredCurrentRefusal(invocation, value)) {
        return;
    }
    if (!found) {
        if (value != nullptr) {
            g_variant_unref(g_variant_ref_sink(value));
        }
        ReturnError(invocation, kErrorNotServed, "no callback is registered for this kind of request and URI");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, value);
}

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

/* The rows of a bulk, each an owned bundle, within the bulk's limits
 * (bundle_limits.h); empty with the reason when any row is refused. Linear in
 * the request's size. */
BundleRefusal DecodeBundles(GVariant* array, std::vector<BundlePtr>& bundles)
{
    std::vector<std::pair<const gchar*, size_t>> texts;
    BundleRefusal why = BulkTexts(array, texts);
    if (why != BundleRefusal::None) {
        return why;
    }
    bundles.reserve(texts.size());
    for (const auto& text : texts) {
        BundlePtr b = DecodeBundle(text.first, text.second, &why);
        if (b == nullptr) {
            bundles.clear();
            return why;
        }
        bundles.push_back(std::move(b));
    }
    return BundleRefusal::None;
}

/* (result, rows changed, reason) of an update or delete. */
GVariant* ChangeReply(int result, const RequestReport& report)
{
    return g_variant_new("(ixs)", result, static_cast<gint64>(result == 0 ? report.changedRows : 0),
                         ReasonForCode(result, report).c_str());
}

std::vector<bundle*> Borrowed(const std::vector<BundlePtr>& bundles)
{
    std::vector<bundle*> pointers;
    for (const BundlePtr& b : bundles) {
        pointers.push_back(b.get());
    }
    return pointers;
}

/* True (and the call answered) when the request carries more than strict
 * confinement allows. */
bool RefusedForLimits(Job& job, const std::vector<bundle*>& rows, const char* where)
{
    if (WithinRequestLimits(rows, where)) {
        return false;
    }
    AnsweredCurrentRefusal(job.invocation.get(), nullptr);
    return true;
}

/* A content request's record of the caller and the URI. */
template <typename Record>
Record ContentRecord(const Job& job)
{
    Record record;
    record.strAppId = job.clientApp;
    record.strUri = StringArg(job.parameters.get(), 1);
    return record;
}

void ContentInsert(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    auto in = ContentRecord<PT_PROVIDER_INSERT_IN_PARAM>(job);
    BundleRefusal refused = BundleRefusal::None;
    BundlePtr values = DecodeBundle(StringArg(job.parameters.get(), 2), &refused);
    if (values == nullptr) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, ValuesRefusal(refused));
        return;
    }
    if (RefusedForLimits(job, {values.get()}, nullptr)) {
        return;
    }
    in.pValues = values.get();
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = 0;
    const bool found = DispatchInsert(in, out, result);
    const std::string mark = SyncMarkOf(values.get());
    const std::string reason = !mark.empty() ? mark : ReasonForCode(result, report);
    values.reset();
    ReturnResult(job.invocation.get(), found,
                 g_variant_new("(ixs)", result, static_cast<gint64>(out.nRowId), reason.c_str()));
}

/* The rows of a bulk call; false after answering why they are refused. */
bool BulkRows(Job& job, std::vector<BundlePtr>& bundles)
{
    GVariantPtr rows(g_variant_get_child_value(job.parameters.get(), 2));
    const BundleRefusal refused = DecodeBundles(rows.get(), bundles);
    if (refused != BundleRefusal::None) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest,
                    refused == BundleRefusal::OverLimits ? "the rows are over the bulk or bundle limits"
                                                         : "a row is not a bundle");
        return false;
    }
    return true;
}

/* A bulk call: its rows decoded and handed to `dispatch`; answered with what
 * `answer` makes of the result. */
template <typename In, typename Out, typename Dispatch, typename Answer>
void ContentBulk(Job& job, const RequestReport& report, Dispatch dispatch, Answer answer)
{
    std::vector<BundlePtr> bundles;
    if (!BulkRows(job, bundles)) {
        return;
    }
    auto in = ContentRecord<In>(job);
    in.vecValues = Borrowed(bundles);
    if (RefusedForLimits(job, in.vecValues, nullptr)) {
        return;
    }
    Out out;
    int result = 0;
    const bool found = dispatch(in, out, result);
    bundles.clear();
    ReturnResult(job.invocation.get(), found, answer(result, out, report));
}

void ContentBulkInsert(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    ContentBulk<PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM>(
        job, report, DispatchBulkInsert,
        [](int result, const PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out, const RequestReport& r) {
            return g_variant_new("(ixs)", result, static_cast<gint64>(out.nRowId), ReasonForCode(result, r).c_str());
        });
}

void ContentBulkUpdate(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    ContentBulk<PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM>(
        job, report, DispatchBulkUpdate,
        [](int result, const PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM&, const RequestReport& r) {
            return ChangeReply(result, r);
        });
}

void ContentUpdate(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_UPDATE_IN_PARAM>(job);
    BundleRefusal refused = BundleRefusal::None;
    BundlePtr values = DecodeBundle(StringArg(p, 2), &refused);
    in.strWhere = StringArg(p, 3);
    in.vecWhereArgs = StringsArg(p, 4);
    if (values == nullptr) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, ValuesRefusal(refused));
        return;
    }
    if (RefusedForLimits(job, {values.get()}, in.strWhere.c_str())) {
        return;
    }
    in.pValues = values.get();
    PT_PROVIDER_UPDATE_OUT_PARAM out;
    int result = 0;
    const bool found = DispatchUpdate(in, out, result);
    values.reset();
    ReturnResult(job.invocation.get(), found, ChangeReply(result, report));
}

void ContentDelete(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_DELETE_IN_PARAM>(job);
    in.strWhere = StringArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 3);
    if (RefusedForLimits(job, {}, in.strWhere.c_str())) {
        return;
    }
    int result = 0;
    const bool found = DispatchDelete(in, result);
    ReturnResult(job.invocation.get(), found, ChangeReply(result, report));
}

/* Whether a select or row-id lookup was served and answered; when not, the
 * call has been answered with why. */
bool SelectAnswered(Job& job, const RequestReport& report, bool found, bool answered, const char* failure)
{
    if (!found) {
        ReturnResult(job.invocation.get(), false, nullptr);
        return false;
    }
    if (AnsweredCurrentRefusal(job.invocation.get(), nullptr)) {
        return false;
    }
    if (!answered) {
        ReturnError(job.invocation.get(), kErrorNoResult, NoResultText(report, failure).c_str());
        return false;
    }
    return true;
}

void ContentSelect(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_SELECT_IN_PARAM>(job);
    in.vecProjection = StringsArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 4);
    in.strOrderBy = StringArg(p, 5);
    in.strLimit = StringArg(p, 6);
    in.strWhere = StringArg(p, 3);
    if (RefusedForLimits(job, {}, in.strWhere.c_str())) {
        return;
    }
    PT_PROVIDER_SELECT_OUT_PARAM out;
    bool answered = false;
    const bool found = DispatchSelect(in, out, answered);
    if (!SelectAnswered(job, report, found, answered, "the provider's select failed")) {
        if (answered) {
            CSharedQueryObject::TakeCursor(out.nRequestId);  // the refused request's cursor goes unread
        }
        return;
    }
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
    std::string encoded;
    if (!cursor || !EncodeCursorRows(*cursor, encoded)) {
        ReturnError(job.invocation.get(), kErrorNoResult, "the provider's select left no readable cursor");
        return;
    }
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ay)", RowsVariant(std::move(encoded))));
}

void ContentGetRowIds(Job& job, const RequestReport& report)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_SELECT_IN_PARAM>(job);
    in.strWhere = StringArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 3);
    if (RefusedForLimits(job, {}, in.strWhere.c_str())) {
        return;
    }
    PT_PROVIDER_GET_ID_OUT_PARAM out;
    bool answered = false;
    const bool found = DispatchGetId(in, out, answered);
    if (!SelectAnswered(job, report, found, answered, "the provider's row-id lookup failed")) {
        return;
    }
    GVariant* ids =
        g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, out.vecRowIds.data(), out.vecRowIds.size(), sizeof(int64_t));
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ax)", ids));
}

}  // namespace

void RunContent(Job& job)
{
    static const std::map<std::string, void (*)(Job&, const RequestReport&)> methods = {
        {"Insert", ContentInsert},         {"BulkInsert", ContentBulkInsert}, {"BulkUpdate", ContentBulkUpdate},
        {"Update", ContentUpdate},         {"Delete", ContentDelete},         {"Select", ContentSelect},
        {"GetRowIds", ContentGetRowIds},
    };
    auto method = methods.find(job.method);
    if (method != methods.end()) {
        confinement::RequestScope scope(confinement::TableOfUri(StringArg(job.parameters.get(), 1)), job.clientApp);
        RequestReportScope reportScope;
        method->second(job, reportScope.Report());
    }
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
