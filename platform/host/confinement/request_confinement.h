/*
 * Strict confinement inside the host platform: the request in progress on
 * this thread, as the request interfaces announce it around the provider's
 * callback, and the refusal that the provider recorded for it.
 *
 * The content library asks CurrentRequest() before it prepares a request
 * statement: with strict confinement on and a request in progress, the
 * statement is prepared under an SQLite authorizer that lets it touch only its
 * own table (content/statement_authorizer.h).
 *
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_REQUEST_CONFINEMENT_H
#define TILVANE_PLATFORM_REQUEST_CONFINEMENT_H

#include <string>

namespace tilvane {
namespace host {
namespace confinement {

struct RequestContext {
    /* The table the request names (the data id, or the last segment of the URI). */
    std::string table;
    std::string caller;
    bool refused = false;
    std::string rule;
    std::string reason;
};

/* Announces one request for the length of the provider's callback, on the
 * calling thread; inactive (CurrentRequest() stays null) when strict
 * confinement is off, and inactive inside another scope, which keeps the
 * request (the interface's scope around the content library's dispatch). */
class RequestScope {
public:
    RequestScope(const std::string& table, const std::string& caller);
    ~RequestScope();
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

    /* True when the provider refused the request under strict confinement. */
    bool Refused() const { return m_context.refused; }
    /* "<reason> (strict confinement, rule <rule>, result -1)". */
    std::string RefusalText() const;

private:
    RequestContext m_context;
    bool m_active = false;
};

/* The request in progress on this thread, or null. */
RequestContext* CurrentRequest();

/* The last path segment of a content URI: the table it names. */
std::string TableOfUri(const std::string& uri);

}  // namespace confinement
}  // namespace host
}  // namespace tilvane

#endif
