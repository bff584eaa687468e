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

constexpr int kPermissionDenied = -13;
constexpr int kInvalidUri = -22;

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

/* The reason of a provider's refusal told in the client's words (the
 * provider's own text or ReasonForProviderText's), "" for any other text. */
const char* KnownRefusal(const std::string& text)
{
    const std::string words = ReasonForProviderText(text);
    const std::string& said = words.empty() ? text : words;
    if (said == "permission level too low") {
        return "permission-level";
    }
    return said == "this table cannot be changed through this request" ? "invalid-uri" : "";
}

}  // namespace

std::string RefusalOfError(const char* errorName, const std::string& text)
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
    if (std::strcmp(errorName, kErrorRefused) == 0) {
        return StrictRule(text);
    }
    const std::string known = KnownRefusal(text);
    if (std::strcmp(errorName, kErrorProviderError) == 0) {
        return known.empty() ? "provider-error" : known;
    }
    if (std::strcmp(errorName, kErrorNoResult) == 0) {
        /* A data-control insert that carries a sync mark writes no row and
         * is answered so on purpose. */
        if (text.rfind("sync ", 0) == 0) {
            return std::string();
        }
        return known.empty() ? "no-result" : known;
    }
    return "error";
}

const char* RefusalOfCode(int code)
{
    if (code == kPermissionDenied) {
        return "permission-level";
    }
    return code == kInvalidUri ? "invalid-uri" : "failed";
}

void CountErrorAnswer(const char* errorName, const std::string& text)
{
    if (!stats::CountingRequest()) {
        return;
    }
    const std::string reason = RefusalOfError(errorName, text);
    if (!reason.empty()) {
        stats::NoteRefusal(reason.c_str());
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
