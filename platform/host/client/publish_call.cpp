#include "client/publish_call.h"

#include <gio/gio.h>

#include "client/client_calls.h"
#include "identity/app_identity.h"

namespace tilvane {
namespace host {
namespace publish {
namespace {

namespace wire = requests::wire;

std::vector<const char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<const char*> pointers;
    for (const std::string& text : strings) {
        pointers.push_back(text.c_str());
    }
    return pointers;
}

std::vector<wire::Bytes> Borrowed(const std::vector<std::string>& rows)
{
    std::vector<wire::Bytes> borrowed(rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        borrowed[i].data = reinterpret_cast<const uint8_t*>(rows[i].data());
        borrowed[i].size = rows[i].size();
    }
    return borrowed;
}

/* A step as the request carries it; it borrows `step`'s texts and rows. */
wire::PublishStep WireStep(const Step& step)
{
    wire::PublishStep wireStep;
    wireStep.kind = step.kind.c_str();
    wireStep.uri = step.uri.c_str();
    wireStep.rows = Borrowed(step.rows);
    wireStep.where = step.where.c_str();
    wireStep.whereArgs = Pointers(step.whereArgs);
    for (const auto& ref : step.valueRefs) {
        wireStep.valueRefs.push_back(wire::PublishValueRef{ref.first.c_str(), ref.second});
    }
    for (const auto& ref : step.argRefs) {
        wireStep.argRefs.push_back(wire::PublishArgRef{ref.first, ref.second});
    }
    return wireStep;
}

}  // namespace

GVariant* Arguments(const std::vector<Step>& steps)
{
    const std::string self = CurrentAppId();
    wire::ContentPublishIn in;
    in.clientApp = self.c_str();
    for (const Step& step : steps) {
        in.steps.push_back(WireStep(step));
    }
    return wire::ToVariant(in);
}

/* (result, step, error, reason, rowIds, changedRows) into `reply`. */
void ReadReply(GVariant* variant, Reply& reply)
{
    wire::ContentPublishOut out;
    client::Result& result = reply.result;
    if (!wire::Read(variant, out)) {
        result.outcome = client::Outcome::InvalidRequest;
        result.message = "the reply cannot be read";
        return;
    }
    result.outcome = !out.error.empty() ? clientcalls::OutcomeOfError(out.error) : client::Outcome::Answered;
    result.code = out.result;
    result.message = out.reason;
    result.reason = !out.error.empty() ? clientcalls::ReasonOfError(out.error) : clientcalls::ReasonOfResult(out.result);
    reply.failedStep = out.step;
    result.rowIds = out.rowIds;
    reply.changedRows = out.changedRows;
}

Reply Send(const std::string& providerId, const std::vector<Step>& steps)
{
    Reply reply;
    GVariantPtr answer =
        clientcalls::CallContent(providerId, wire::Method::ContentPublish, Arguments(steps), reply.result);
    if (answer) {
        ReadReply(answer.get(), reply);
    }
    return reply;
}

}  // namespace publish
}  // namespace host
}  // namespace tilvane
