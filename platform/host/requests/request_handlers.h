/*
 * The requests of both request interfaces, typed, and their handlers: the
 * seam between a transport and what a request does.
 *
 * A transport (bus_transport.cpp: method calls on the message bus;
 * socket_transport.cpp: the same on the direct request socket) reads each
 * request once into its typed struct (request_wire.h, generated from
 * request_interfaces.xml), makes sure the caller is the application the
 * request names (`clientApp`), calls Handle and sends what it answers. A
 * handler neither knows nor cares which connection a request came over: it
 * gets the request, runs it on the calling thread (the GLib default main
 * context, where the provider's callbacks run) and answers its reply or a
 * failure.
 */
#ifndef TILVANE_PLATFORM_REQUEST_HANDLERS_H
#define TILVANE_PLATFORM_REQUEST_HANDLERS_H

#include <string>
#include <utility>

#include "request_wire.h"
#include "tilvane_reason.h"

namespace tilvane {
namespace host {
namespace requests {

/* A request that ended without its reply: the error (one of request_glue.h's
 * kError* names), its words and, when known, its reason. */
struct Failure {
    const char* error = nullptr;
    std::string text;
    tilvane_reason reason = TILVANE_REASON_NONE;
};

/* A handler's answer: the reply, or a failure. */
template <typename Out>
struct Answer {
    Out out{};
    bool failed = false;
    Failure failure;

    static Answer Reply(Out value)
    {
        Answer answer;
        answer.out = std::move(value);
        return answer;
    }
    static Answer Fail(Failure why)
    {
        Answer answer;
        answer.failed = true;
        answer.failure = std::move(why);
        return answer;
    }
};

/* The data-control interface (data_control_interface.cpp). */
Answer<wire::DataControlInsertOut> Handle(const wire::DataControlInsertIn& in);
Answer<wire::DataControlSelectOut> Handle(const wire::DataControlSelectIn& in);
Answer<wire::DataControlUpdateOut> Handle(const wire::DataControlUpdateIn& in);
Answer<wire::DataControlDeleteOut> Handle(const wire::DataControlDeleteIn& in);

/* The content-library interface (content_interface.cpp). */
Answer<wire::ContentInsertOut> Handle(const wire::ContentInsertIn& in);
Answer<wire::ContentBulkInsertOut> Handle(const wire::ContentBulkInsertIn& in);
Answer<wire::ContentSelectOut> Handle(const wire::ContentSelectIn& in);
Answer<wire::ContentUpdateOut> Handle(const wire::ContentUpdateIn& in);
Answer<wire::ContentBulkUpdateOut> Handle(const wire::ContentBulkUpdateIn& in);
Answer<wire::ContentDeleteOut> Handle(const wire::ContentDeleteIn& in);
Answer<wire::ContentGetRowIdsOut> Handle(const wire::ContentGetRowIdsIn& in);
/* Publish: several content requests in one transaction (content_publish.cpp). */
Answer<wire::ContentPublishOut> Handle(const wire::ContentPublishIn& in);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
