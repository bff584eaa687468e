/*
 * The client library's direct connections to providers: peer-to-peer D-Bus
 * connections on the provider's request socket (requests/request_names.h's
 * RequestSocketPath), made with sd-bus, which writes a call and reads its
 * answer in the calling thread. Each provider name keeps a few open
 * connections; a call takes one for its own while it waits, so that threads
 * do not wait for each other. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_CLIENT_REQUEST_SOCKET_H
#define TILVANE_PLATFORM_CLIENT_REQUEST_SOCKET_H

#include <gio/gio.h>

#include <string>

#include "base/glib_ptr.h"
#include "bus/sdbus_variant.h"

namespace tilvane {
namespace host {

/* One method call of the request interfaces. */
struct DirectCall {
    const char* path;
    const char* interfaceName;
    const char* method;
    GVariant* parameters;        /* a tuple; borrowed */
    const GVariantType* replyType;
    int timeoutMs;
};

/* Makes `call` on a direct connection to the provider of `busName`. False
 * when there is none to be had (no socket there, or one that cannot be
 * used; then the request takes the bus). True when the call was made: its
 * reply in `reply` (of the call's reply type), or the error in `error`, as
 * GDBus makes them (g_dbus_error_get_remote_error gives the provider's error
 * name). In the verified identity mode the socket's user must be the user
 * the bus reports for the owner of `busName`, so that no other process can
 * stand in for the provider. A connection found closed is replaced once: the
 * provider closes only connections that made no request for a while, so the
 * request was not run. */
bool CallOnDirectConnection(const std::string& busName, const DirectCall& call, GVariantPtr& reply, GError** error);

/* What CallOnDirectConnection does on each connection it takes: makes `call`
 * on `bus` and waits for the answer in this thread. False when the
 * connection went away before an answer (nothing set); true with `reply` or
 * `error` as above. */
bool CallOnSdBus(sd_bus* bus, const DirectCall& call, GVariantPtr& reply, GError** error);

/* A connection to the request socket at `path`, without the checks of a
 * provider's name (the benchmarks' bare server); null when there is none. */
SdBusPtr ConnectToRequestSocket(const std::string& path);

}  // namespace host
}  // namespace tilvane

#endif
