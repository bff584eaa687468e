/*
 * The reasons of refused and failed requests (refusal_reasons.h).
 */
#include "requests/refusal_reasons.h"

#include <cstring>

#include "requests/request_glue.h"
#include "stats/request_stats.h"

namespace tilvane {
namespace host {
namespace requests {
namespace {

/* "... (strict confinement, rule where-clause, result -1)" -> "strict-where-clause". */
std::string StrictRule(const std::string& text)
{
    static const std::string marker = "(strict confinement, rule ";
    const size_t at = text.rfind(marker);
    if (at == std::string::npos) {
        return "strict-confinement";
    }
    const size_t start = at + marker.size();
    const size_t end = text.find(',', start);
    return "strict-" + text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

/* The reasons the request interfaces give a refusal of the system's. */
const char* KnownRefusal(tilvane_reason reason)
{
    switch (reason) {
    case TILVANE_REASON_PERMISSION_LEVEL: return "permission-level";
    case TILVANE_REASON_NOT_CHANGEABLE: return "invalid-uri";
    default: return "";
    }
}

}  // namespace

std::string RefusalOfError(const char* errorName, tilvane_reason reason, const std::string& text)
{
    if (std::strcmp(errorName, kErrorNotAuthorized) == 0) {
        return "sender-not-authorized";
    }
    if (std::strcmp(errorName, kErrorNotServed) == 0) {
        return "not-served";
    }
    if (std::strcmp(errorName, kErrorInvalidRequest) == 0) {
        return "invalid-request";
    }
    if (std::strcmp(errorName, kErrorRefused) == 0 || reason == TILVANE_REASON_STRICT_CONFINEMENT) {
        return StrictRule(text);
    }
    /* An insert that carries a sync mark writes no row and is answered so
     * on purpose. */
    if (reason == TILVANE_REASON_SYNC_END_MARK || reason == TILVANE_REASON_SYNC_START_MARK) {
        return std::string();
    }
    const std::string known = KnownRefusal(reason);
    if (!known.empty()) {
        return known;
    }
    if (std::strcmp(errorName, kErrorProviderError) == 0) {
        return "provider-error";
    }
    return std::strcmp(errorName, kErrorNoResult) == 0 ? "no-result" : "error";
}

const char* RefusalOfCode(int code)
{
    if (code == TILVANE_RESULT_PERMISSION_DENIED) {
        return "permission-level";
    }
    return code == TILVANE_RESULT_INVALID_URI ? "invalid-uri" : "failed";
}

void CountFailure(const char* errorName, tilvane_reason reason, const std::string& text)
{
    if (!stats::CountingRequest()) {
        return;
    }
    const std::string refusal = RefusalOfError(errorName, reason, text);
    if (!refusal.empty()) {
        stats::NoteRefusal(refusal.c_str());
    }
}

void CountResultCode(int code)
{
    if (code != 0) {
        stats::NoteRefusal(RefusalOfCode(code));
    }
}

}  // namespace requests
}  // namespace host
}  // namespace tilvane
