#include "requests/reply_budget.h"

#include <cstdint>

#include "config/platform_config.h"
#include "requests/request_glue.h"
#include "base/request_report.h"
#include "stats/request_stats.h"

namespace tilvane {
namespace host {
namespace requests {
namespace {

/* dbus-daemon's own default, which the shipped bus configurations state. */
constexpr int64_t kDefaultMaxMessageBytes = 32 * 1024 * 1024;
/* A reply's header (serial, destination, sender, signature, error name) and
 * the array's length take a few hundred bytes; this leaves room to spare. */
constexpr size_t kHeaderRoom = 4096;

}  // namespace

size_t MaxMessageBytes()
{
    const int64_t bytes = config::Integer("bus", "max-message-bytes", kDefaultMaxMessageBytes);
    return static_cast<size_t>(bytes > static_cast<int64_t>(2 * kHeaderRoom) ? bytes : kDefaultMaxMessageBytes);
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
