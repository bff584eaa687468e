#include "client/publish_call.h"

#include <gio/gio.h>

#include "client/client_calls.h"
#include "identity/app_identity.h"

namespace tilvane {
namespace host {
namespace publish {
namespace {

GVariant* StepVariant(const Step& step)
{
    GVariantBuilder values;
    g_variant_builder_init(&values, G_VARIANT_TYPE("a(su)"));
    for (const auto& ref : step.valueRefs) {
        g_variant_builder_add(&values, "(su)", ref.first.c_str(), ref.second);
    }
    GVariantBuilder args;
    g_variant_builder_init(&args, G_VARIANT_TYPE("a(uu)"));
    for (const auto& ref : step.argRefs) {
        g_variant_builder_add(&args, "(uu)", ref.first, ref.second);
    }
    return g_variant_new("(ss@as@s@as@a(su)@a(uu))", step.kind.c_str(), step.uri.c_str(), clientcalls::Strings(step.rows),
                         g_variant_new_string(step.where.c_str()), clientcalls::Strings(step.whereArgs),
                         g_variant_builder_end(&values), g_variant_builder_end(&args));
}

}  // namespace

GVariant* Arguments(const std::vector<Step>& steps)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssassasa(su)a(uu))"));
    for (const Step& step : steps) {
        g_variant_builder_add_value(&builder, StepVariant(step));
    }
    return g_variant_new("(s@a(ssassasa(su)a(uu)))", CurrentAppId().c_str(), g_variant_builder_end(&builder));
}

/* (result, step, error, reason, rowIds, changedRows) into `reply`. */
void ReadReply(GVariant* variant, Reply& reply)
{
    gint32 code = 0;
    gint32 step = -1;
    const gchar* error = "";
    const gchar* reason = "";
    GVariant* ids = nullptr;
    GVariant* changed = nullptr;
    g_variant_get(variant, "(ii&s&s@ax@ax)", &code, &step, &error, &reason, &ids, &changed);
    GVariantPtr ownedIds(ids);
    GVariantPtr ownedChanged(changed);
    client::Result& result = reply.result;
    result.outcome = *error != '\0' ? clientcalls::OutcomeOfError(error) : client::Outcome::Answered;
    result.code = code;
    result.message = reason;
    reply.failedStep = step;
    gsize count = 0;
    const gint64* values = static_cast<const gint64*>(g_variant_get_fixed_array(ids, &count, sizeof(gint64)));
    result.rowIds.assign(values, values + count);
    values = static_cast<const gint64*>(g_variant_get_fixed_array(changed, &count, sizeof(gint64)));
    reply.changedRows.assign(values, values + count);
}

Reply Send(const std::string& providerId, const std::vector<Step>& steps)
{
    Reply reply;
    GVariantPtr answer = clientcalls::CallContent(providerId, "Publish", Arguments(steps), reply.result);
    if (answer) {
        ReadReply(answer.get(), reply);
    }
    return reply;
}

}  // namespace publish
}  // namespace host
}  // namespace tilvane
