/*
 * What every transport of the request interfaces shares: a method call read
 * once into its typed request, run through its handler (request_handlers.h)
 * and answered, or refused. The bus transport (bus_transport.cpp) and the
 * direct request socket (socket_transport.cpp) differ only in how they learn
 * who the caller is. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_REQUEST_TRANSPORT_H
#define TILVANE_PLATFORM_REQUEST_TRANSPORT_H

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/glib_ptr.h"
#include "request_wire.h"

namespace tilvane {
namespace host {
namespace requests {

/* Where a call's answer goes: a GDBus invocation (the bus) or a message of a
 * direct peer's connection. Each call is answered exactly once. */
class CallAnswer {
public:
    virtual ~CallAnswer() = default;
    /* Answers with `value`, a tuple of the method's out arguments (a
     * floating reference is sunk). */
    virtual void Return(GVariant* value) = 0;
    /* Answers with the D-Bus error `name` and its text. */
    virtual void Fail(const char* name, const char* message) = 0;
};

/* A method call on its way to its handler; it holds its own references to
 * where it is answered and to the arguments, which its request borrows from. */
struct Job {
    std::unique_ptr<CallAnswer> answer;
    GVariantPtr parameters;
    wire::Method method;
    wire::Request request;
    std::string clientApp;
    /* Why the sender was refused; empty when it may make the call. */
    std::string refusal;
    /* When the call reached the process (stats::MonotonicUs). */
    int64_t arrivedUs = 0;
};

/* The introspection data of both interfaces (parsed once). */
GDBusNodeInfo* RequestNodeInfo();

/* The call read into its typed request; null (and the call answered) when it
 * is not one of the interfaces' methods with its arguments. */
std::unique_ptr<Job> ReadCall(const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                              std::unique_ptr<CallAnswer> answer);

/* Runs the job's handler under the request's budgets and answers the call;
 * the bytes of the answer's body. */
size_t RunJob(Job& job);

/* Answers the job's call with NotAuthorized and logs why, one line. */
void RefuseSender(Job& job, const std::string& reason);

/* Runs the job, or refuses its sender when it has a refusal, counted in the
 * request statistics; the bytes of the answer's body. */
size_t ServeJob(Job& job);

}  // namespace requests
}  // namespace host
}  // namespace tilvane

#endif
