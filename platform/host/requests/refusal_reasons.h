/*
 * The reason under which the statistics (stats/request_stats.h) count a
 * request that was refused or failed, from the answer the request interface
 * gave it: an error of the call with its reason code, or a result code that
 * is not 0. The reasons are short fixed names (docs/tools.md, "tilvanectl
 * stats").
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_REFUSAL_REASONS_H
#define TILVANE_PLATFORM_REFUSAL_REASONS_H

#include <string>

#include "tilvane_reason.h"

namespace tilvane {
namespace host {
namespace requests {

/* The reason of an error answer `errorName` (one of request_glue.h's kError*
 * names) with its reason code and words; "" when the answer is no refusal (a
 * sync mark answered with no result by design). */
std::string RefusalOfError(const char* errorName, tilvane_reason reason, const std::string& text);

/* The reason of a provider's result code that is not 0. */
const char* RefusalOfCode(int code);

/* Tells the statistics how the request served on this thread ended. */
void CountFailure(const char* errorName, tilvane_reason reason, const std::string& text);
void CountResultCode(int code);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
