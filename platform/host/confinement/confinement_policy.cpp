/*
 * Strict confinement's switch and limits (confinement_policy.h), read from the
 * integrator's configuration, and the request scope of request_confinement.h.
 */
#include "confinement_policy.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dlog.h"
#include "base/host_state.h"
#include "config/config_keys.h"
#include "confinement/request_confinement.h"
#include "identity/identity_mode.h"

namespace tilvane {
namespace host {
namespace {

constexpr char kGroup[] = "strict";
constexpr int64_t kLargestLimit = 1 << 30;

int Limit(const char* key)
{
    const int64_t value = config::IntegerSetting(kGroup, key);
    return static_cast<int>(std::min<int64_t>(std::max<int64_t>(value, 1), kLargestLimit));
}

thread_local confinement::RequestContext* t_request = nullptr;

}  // namespace

namespace confinement {

RequestScope::RequestScope(const std::string& table, const std::string& caller)
{
    /* An outer scope (the request interface's) keeps the request. */
    if (t_request != nullptr || !confinement_policy_is_strict()) {
        return;
    }
    m_context.table = table;
    m_context.caller = caller;
    m_active = true;
    t_request = &m_context;
}

RequestScope::~RequestScope()
{
    if (m_active) {
        t_request = nullptr;
    }
}

std::string RequestScope::RefusalText() const
{
    return m_context.reason + " (strict confinement, rule " + m_context.rule + ", result " +
           std::to_string(CONFINEMENT_POLICY_REFUSED) + ")";
}

RequestContext* CurrentRequest()
{
    return t_request;
}

std::string TableOfUri(const std::string& uri)
{
    const size_t slash = uri.rfind('/');
    return slash == std::string::npos ? uri : uri.substr(slash + 1);
}

}  // namespace confinement
}  // namespace host
}  // namespace tilvane

using namespace tilvane::host;

namespace {

bool ReadStrict()
{
    return config::BoolSetting(kGroup, "confinement");
}

}  // namespace

extern "C" bool confinement_policy_is_strict(void)
{
    static config::FollowedValue<bool> strict(ReadStrict);
    return strict.Get();
}

extern "C" int confinement_policy_max_sections_per_package(void)
{
    return Limit("sections-per-package");
}

extern "C" int confinement_policy_max_tiles_per_package(void)
{
    return Limit("tiles-per-package");
}

extern "C" int confinement_policy_max_value_bytes(void)
{
    return Limit("value-bytes");
}

extern "C" int confinement_policy_max_where_bytes(void)
{
    return Limit("where-bytes");
}

extern "C" bool confinement_policy_is_trusted_sender(const char* app_id)
{
    if (app_id == nullptr) {
        return false;
    }
    const std::vector<std::string> trusted = config::StringList(kGroup, "trusted-senders");
    return std::find(trusted.begin(), trusted.end(), app_id) != trusted.end();
}

extern "C" bool confinement_policy_sender_is_platform(const char* app_id)
{
    if (identity::CurrentMode() == identity::Mode::Development) {
        return confinement_policy_is_platform_app(app_id);
    }
    uid_t uid = 0;
    if (!identity::CurrentMessageSender(uid)) {
        uid = geteuid();
    }
    return identity::IsPlatformUser(uid);
}

extern "C" bool confinement_policy_is_platform_app(const char* app_id)
{
    if (app_id == nullptr) {
        return false;
    }
    return identity::IsPlatformAppId(app_id) ||
           (identity::CurrentMode() == identity::Mode::Development && confinement_policy_is_trusted_sender(app_id));
}

extern "C" void confinement_policy_refuse(const char* rule, const char* reason)
{
    const std::string ruleText = rule != nullptr ? rule : "";
    const std::string reasonText = reason != nullptr ? reason : "";
    confinement::RequestContext* request = confinement::CurrentRequest();
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, kPlatformLogTag, "strict confinement refused (rule %s) for %s: %s",
                 ruleText.c_str(), request != nullptr ? request->caller.c_str() : "(no request)", reasonText.c_str());
    if (request != nullptr && !request->refused) {
        request->refused = true;
        request->rule = ruleText;
        request->reason = reasonText;
    }
}
