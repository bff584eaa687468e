/*
 * The content-library interface: org.tilvane.Content at /org/tilvane/Content.
 * Its calls run here on the default main context, one small function per
 * method, each handing the request to the callback registered for its kind
 * and URI.
 */
#include <memory>

#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "content_provider_dispatch.h"
#include "request_glue.h"
#include "row_codec.h"

namespace tilvane {
namespace host {
namespace requests {

namespace {

/* ---- content-library interface ----------------------------------------------- */

void ReturnResult(GDBusMethodInvocation* invocation, bool found, GVariant* value)
{
    if (!found) {
        if (value != nullptr) {
            g_variant_unref(g_variant_ref_sink(value));
        }
        ReturnError(invocation, kErrorNotServed, "no callback is registered for this kind of request and URI");
        return;
    }
    g_dbus_method_invocation_return_value(invocation, value);
}

/* The rows of a bulk, each an owned bundle; false when one is no bundle. */
bool DecodeBundles(GVariant* array, std::vector<BundlePtr>& bundles)
{
    for (const std::string& encoded : StringsOf(array)) {
        BundlePtr b = DecodeBundle(encoded.c_str());
        if (b == nullptr) {
            bundles.clear();
            return false;
        }
        bundles.push_back(std::move(b));
    }
    return true;
}

std::vector<bundle*> Borrowed(const std::vector<BundlePtr>& bundles)
{
    std::vector<bundle*> pointers;
    for (const BundlePtr& b : bundles) {
        pointers.push_back(b.get());
    }
    return pointers;
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

void ContentInsert(Job& job)
{
    using namespace tilvane::content;
    auto in = ContentRecord<PT_PROVIDER_INSERT_IN_PARAM>(job);
    BundlePtr values = DecodeBundle(StringArg(job.parameters.get(), 2));
    if (values == nullptr) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, "the values are not a bundle");
        return;
    }
    in.pValues = values.get();
    PT_PROVIDER_INSERT_OUT_PARAM out;
    int result = 0;
    const bool found = DispatchInsert(in, out, result);
    values.reset();
    ReturnResult(job.invocation.get(), found, g_variant_new("(ix)", result, static_cast<gint64>(out.nRowId)));
}

/* The rows of a bulk call, or null after answering that one is no bundle. */
bool BulkRows(Job& job, std::vector<BundlePtr>& bundles)
{
    GVariantPtr rows(g_variant_get_child_value(job.parameters.get(), 2));
    if (!DecodeBundles(rows.get(), bundles)) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, "a row is not a bundle");
        return false;
    }
    return true;
}

/* A bulk call: its rows decoded and handed to `dispatch`; answered with what
 * `answer` makes of the result. */
template <typename In, typename Out, typename Dispatch, typename Answer>
void ContentBulk(Job& job, Dispatch dispatch, Answer answer)
{
    std::vector<BundlePtr> bundles;
    if (!BulkRows(job, bundles)) {
        return;
    }
    auto in = ContentRecord<In>(job);
    in.vecValues = Borrowed(bundles);
    Out out;
    int result = 0;
    const bool found = dispatch(in, out, result);
    bundles.clear();
    ReturnResult(job.invocation.get(), found, answer(result, out));
}

void ContentBulkInsert(Job& job)
{
    using namespace tilvane::content;
    ContentBulk<PT_PROVIDER_INSERT_FOR_BULKDATA_IN_PARAM, PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM>(
        job, DispatchBulkInsert, [](int result, const PT_PROVIDER_INSERT_FOR_BULKDATA_OUT_PARAM& out) {
            return g_variant_new("(ix)", result, static_cast<gint64>(out.nRowId));
        });
}

void ContentBulkUpdate(Job& job)
{
    using namespace tilvane::content;
    ContentBulk<PT_PROVIDER_UPDATE_FOR_BULKDATA_IN_PARAM, PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM>(
        job, DispatchBulkUpdate,
        [](int result, const PT_PROVIDER_UPDATE_FOR_BULKDATA_OUT_PARAM&) { return g_variant_new("(i)", result); });
}

void ContentUpdate(Job& job)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_UPDATE_IN_PARAM>(job);
    BundlePtr values = DecodeBundle(StringArg(p, 2));
    in.strWhere = StringArg(p, 3);
    in.vecWhereArgs = StringsArg(p, 4);
    if (values == nullptr) {
        ReturnError(job.invocation.get(), kErrorInvalidRequest, "the values are not a bundle");
        return;
    }
    in.pValues = values.get();
    PT_PROVIDER_UPDATE_OUT_PARAM out;
    int result = 0;
    const bool found = DispatchUpdate(in, out, result);
    values.reset();
    ReturnResult(job.invocation.get(), found, g_variant_new("(i)", result));
}

void ContentDelete(Job& job)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_DELETE_IN_PARAM>(job);
    in.strWhere = StringArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 3);
    int result = 0;
    const bool found = DispatchDelete(in, result);
    ReturnResult(job.invocation.get(), found, g_variant_new("(i)", result));
}

/* Whether a select or row-id lookup was served and answered; when not, the
 * call has been answered with why. */
bool SelectAnswered(Job& job, bool found, bool answered, const char* failure)
{
    if (!found) {
        ReturnResult(job.invocation.get(), false, nullptr);
        return false;
    }
    if (!answered) {
        ReturnError(job.invocation.get(), kErrorNoResult, failure);
        return false;
    }
    return true;
}

void ContentSelect(Job& job)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_SELECT_IN_PARAM>(job);
    in.vecProjection = StringsArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 4);
    in.strOrderBy = StringArg(p, 5);
    in.strLimit = StringArg(p, 6);
    in.strWhere = StringArg(p, 3);
    PT_PROVIDER_SELECT_OUT_PARAM out;
    bool answered = false;
    const bool found = DispatchSelect(in, out, answered);
    if (!SelectAnswered(job, found, answered, "the provider's select failed")) {
        return;
    }
    std::shared_ptr<ISQLiteCursor> cursor = CSharedQueryObject::TakeCursor(out.nRequestId);
    std::string encoded;
    if (!cursor || !EncodeCursorRows(*cursor, encoded)) {
        ReturnError(job.invocation.get(), kErrorNoResult, "the provider's select left no readable cursor");
        return;
    }
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ay)", RowsVariant(encoded)));
}

void ContentGetRowIds(Job& job)
{
    using namespace tilvane::content;
    GVariant* p = job.parameters.get();
    auto in = ContentRecord<PT_PROVIDER_SELECT_IN_PARAM>(job);
    in.strWhere = StringArg(p, 2);
    in.vecWhereArgs = StringsArg(p, 3);
    PT_PROVIDER_GET_ID_OUT_PARAM out;
    bool answered = false;
    const bool found = DispatchGetId(in, out, answered);
    if (!SelectAnswered(job, found, answered, "the provider's row-id lookup failed")) {
        return;
    }
    GVariant* ids =
        g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, out.vecRowIds.data(), out.vecRowIds.size(), sizeof(int64_t));
    g_dbus_method_invocation_return_value(job.invocation.get(), g_variant_new("(@ax)", ids));
}

}  // namespace

void RunContent(Job& job)
{
    static const std::map<std::string, void (*)(Job&)> methods = {
        {"Insert", ContentInsert},         {"BulkInsert", ContentBulkInsert}, {"BulkUpdate", ContentBulkUpdate},
        {"Update", ContentUpdate},         {"Delete", ContentDelete},         {"Select", ContentSelect},
        {"GetRowIds", ContentGetRowIds},
    };
    auto method = methods.find(job.method);
    if (method != methods.end()) {
        method->second(job);
    }
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
