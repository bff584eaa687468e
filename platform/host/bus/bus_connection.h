/*
 * The process's one connection to the message bus, shared by the message
 * ports and the request interfaces. Internal to the host platform.
 *
 * The connection is opened lazily by message_port.cpp; calls made to the
 * message ports' object are answered on the platform's bus thread. The request
 * interfaces (request_glue.cpp) export their objects on the same connection,
 * answered on the GLib default main context, and use the same sender check as
 * the message ports.
 */
#ifndef TILVANE_PLATFORM_BUS_CONNECTION_H
#define TILVANE_PLATFORM_BUS_CONNECTION_H

#include <string>

#include "base/glib_ptr.h"

namespace tilvane {
namespace host {

/* The connection, opened when needed, owning the application's own bus name
 * when `needAppName`. Null, with a MESSAGE_PORT_ERROR_* in *messagePortResult,
 * when the bus cannot be used. */
GDBusConnectionPtr SharedBusConnection(bool needAppName, int* messagePortResult);
/* The application id the open connection was opened as; empty when none is
 * open (the next one opens as CurrentAppId()). */
std::string ConnectedAppId();

/* True when the connection `sender` (a unique name) owns the bus name of the
 * application `appId` and, in the verified identity mode, runs as a user bound
 * to it (credentials.h); answers are cached as the message ports cache them.
 * Otherwise `reason` says why not. */
bool SenderIsApp(GDBusConnection* connection, const char* sender, const std::string& appId, std::string& reason);
/* The answer SenderIsApp would give from what it has cached, without asking
 * the bus: 1 yes, 0 no (with `reason`), -1 not known yet. */
int KnownSenderIsApp(const char* sender, const std::string& appId, std::string& reason);

/* org.freedesktop.DBus.RequestName of `name` for `connection`, never queued
 * behind another owner unless `queue` (then Queued while another owns it).
 * Denied: the bus's policy refuses the name to this connection's user.
 * `error` says why when Denied or Failed. */
enum class NameRequest { Owned, OwnedByAnother, Queued, Denied, Failed };
NameRequest RequestBusName(GDBusConnection* connection, const std::string& name, int timeoutMs, std::string& error,
                           bool queue = false);

/* Runs `function` on the platform's bus thread, where waiting for the bus
 * daemon holds up no application callback; false (and `destroy` not called)
 * when there is no connection. */
bool InvokeOnBusThread(GSourceFunc function, gpointer data, GDestroyNotify destroy);

/* Called on the GLib default main context when the connection was lost (the
 * bus daemon dropped it or went away); null for none. The service
 * application's loop sets one while it runs (bus_supervision.h). */
void SetConnectionLostHandler(void (*handler)());
/* Opens a connection in place of a lost one and owns again every name the
 * process owned: the application's, its ports', its providers'. False, with
 * `why`, while that cannot be done yet. */
bool RestoreBusConnection(std::string& why);

/* Owned by request_glue.cpp: the provider names of the request interfaces
 * that this process serves, owned again on a new connection. True when each
 * is owned. */
bool ReclaimRequestNames();

/* Owned by request_glue.cpp: called by message_port.cpp while the connection
 * is opened, and before it is closed. The objects answer on the GLib default
 * main context. */
void RegisterRequestObjects(GDBusConnection* connection);
void UnregisterRequestObjects(GDBusConnection* connection);

/* Owned by request_glue.cpp: the content library tells the interface that a
 * callback for `uri` was registered or removed, or that all were cleared, so
 * that the bus name of the URI's authority is owned while one is left. */
void ContentCallbackRegistered(const std::string& uri);
void ContentCallbackUnregistered(const std::string& uri);
void ContentCallbacksCleared();

/* The authority of "scheme://authority/path" ("authority" alone when there is
 * no scheme). */
std::string AuthorityOf(const std::string& uri);

/* Bus names of the providers of an authority on each interface; empty when the
 * authority cannot make a bus name. */
std::string DataControlBusName(const std::string& authority);
std::string ContentBusName(const std::string& authority);

/* True when this process owns `busName` for one of its request interfaces. */
bool OwnsRequestBusName(const std::string& busName);

/* The introspection XML of both request interfaces, as the code parses it. */
const char* RequestInterfacesIntrospectionXml();

}  // namespace host
}  // namespace tilvane

#endif
