/*
 * The client library's direct connections to providers: a peer-to-peer D-Bus
 * connection on the provider's request socket (requests/request_names.h's
 * RequestSocketPath), one per provider name, kept while it stays open.
 * Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_CLIENT_REQUEST_SOCKET_H
#define TILVANE_PLATFORM_CLIENT_REQUEST_SOCKET_H

#include <string>

#include "base/glib_ptr.h"

namespace tilvane {
namespace host {

/* The open direct connection to the provider of `busName`, connecting when
 * there is none; null when its socket is not there or cannot be used (then
 * requests take the bus). In the verified identity mode the socket's user
 * must be the user the bus reports for the owner of `busName`, so that no
 * other process can stand in for the provider. */
GDBusConnectionPtr DirectRequestConnection(const std::string& busName);

/* Forgets `connection` when it is the one kept for `busName` (it closed). */
void DropDirectRequestConnection(const std::string& busName, GDBusConnection* connection);

}  // namespace host
}  // namespace tilvane

#endif
