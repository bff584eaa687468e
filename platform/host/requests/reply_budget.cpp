#include "requests/reply_budget.h"

#include <cstdint>

#include "config/config_keys.h"
#include "requests/request_glue.h"
#include "base/request_report.h"
#include "stats/request_stats.h"

namespace tilvane {
namespace host {
namespace requests {
namespace {

/* A reply's header (serial, destination, sender, signature, error name) and
 * the array's length take a few hundred bytes; this leaves room to spare. */
constexpr size_t kHeaderRoom = 4096;

}  // namespace

size_t MaxMessageBytes()
{
    /* The default is dbus-daemon's own, which the shipped bus configurations state. */
    return static_cast<size_t>(config::IntegerSetting("bus", "max-message-bytes", 2 * kHeaderRoom + 1));
}

size_t MaxReplyPayloadBytes()
{
    return MaxMessageBytes() - kHeaderRoom;
}

void NoteReplyTooLarge(const std::string& app, const std::string& request)
{
    RecordBudgetFailure(kReplyTooLargeText);
    stats::NoteBudgetHit(stats::Budget::Reply);
    REQUEST_LOGE("request %s of %s failed: %s (a reply carries at most %zu bytes of rows)", request.c_str(),
                 app.c_str(), kReplyTooLargeText, MaxReplyPayloadBytes());
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
