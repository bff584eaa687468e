#include "log/system_reasons.h"

#include <cstring>

#include "base/request_report.h"
#include "dlog.h"

namespace tilvane {
namespace host {
namespace {

/* The tag the system logs under. */
constexpr char kSystemLogTag[] = "tilvane";

/* The system's texts and what they mean, most specific first: a text is
 * matched whole, or (`prefix`) by its beginning. */
struct SystemText {
    const char* text;
    bool prefix;
    tilvane_reason reason;
};

constexpr SystemText kSystemTexts[] = {
    {"failed by permission", false, TILVANE_REASON_PERMISSION_LEVEL},
    {"failed SELECT by permission", false, TILVANE_REASON_PERMISSION_LEVEL},
    {"failed by invalid URI", false, TILVANE_REASON_NOT_CHANGEABLE},
    /* Any other failure: the first one names the cause, the ones after it
     * report the outcome. */
    {"failed", true, TILVANE_REASON_PROVIDER_FAILURE},
};

/* The system's lines read "File.cpp: Function(line) > text". */
std::string WithoutSourcePrefix(std::string_view message)
{
    const size_t marker = message.find(" > ");
    return std::string(marker == std::string_view::npos ? message : message.substr(marker + 3));
}

}  // namespace

tilvane_reason ReasonOfSystemText(const std::string& text)
{
    for (const SystemText& known : kSystemTexts) {
        const bool matches = known.prefix ? text.compare(0, std::strlen(known.text), known.text) == 0
                                          : text == known.text;
        if (matches) {
            return known.reason;
        }
    }
    return TILVANE_REASON_NONE;
}

void NoteSystemLogLine(int priority, const char* tag, std::string_view message)
{
    if (priority < DLOG_INFO || tag == nullptr || std::strcmp(tag, kSystemLogTag) != 0 || !RequestReportOpen()) {
        return;
    }
    const std::string text = WithoutSourcePrefix(message);
    const tilvane_reason reason = ReasonOfSystemText(text);
    if (reason != TILVANE_REASON_NONE) {
        RecordSystemFailure(reason, text);
    }
}

}  // namespace host
}  // namespace tilvane
