/*
 * The system's own log texts that name why a request failed or was refused,
 * and their reason codes: the one table of them. The system's texts do not
 * change; the platform recognises them here and nowhere else.
 *
 * While a request report is open (base/request_report.h), the log hands
 * every line of the system's tag at INFO or above to NoteSystemLogLine, which
 * records the first failure line with its reason on the report. The request
 * interfaces read the reason from the report, and the texts a data-control
 * provider sends as its error with ReasonOfSystemText. Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_SYSTEM_REASONS_H
#define TILVANE_PLATFORM_SYSTEM_REASONS_H

#include <string>
#include <string_view>

#include "tilvane_reason.h"

namespace tilvane {
namespace host {

/* The reason a text of the system names ("failed by permission": refused for
 * the caller's level), TILVANE_REASON_NONE when it names none. */
tilvane_reason ReasonOfSystemText(const std::string& text);

/* Called by the log for each line while a request report is open. */
void NoteSystemLogLine(int priority, const char* tag, std::string_view message);

}  // namespace host
}  // namespace tilvane

#endif
