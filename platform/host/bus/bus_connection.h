/*
 * The process's one connection to the message bus (DBUS_SESSION_BUS_ADDRESS),
 * shared by the message ports, the request interfaces and the client library.
 * Internal to the host platform.
 *
 * The connection is opened lazily, by the first room that needs it, and owns
 * the bus name of the process's application id (identity/app_identity.h) when
 * asked to; it never queues for that name, so two processes cannot run as one
 * application. Calls made to the objects exported on it are answered on the
 * platform's bus thread, which has a main context of its own, unless the room
 * that exports them says otherwise.
 *
 * The rooms above that export objects on the connection or own names of their
 * own register a ConnectionUser: the connection tells them when it is opened
 * and closed, when its names change owners, and when a connection replaced a
 * lost one; it knows nothing else of them.
 */
#ifndef TILVANE_PLATFORM_BUS_CONNECTION_H
#define TILVANE_PLATFORM_BUS_CONNECTION_H

#include <string>

#include "base/glib_ptr.h"

namespace tilvane {
namespace host {

/* Why the connection cannot be used. */
enum class ConnectionProblem {
    None,
    NoBus,      /* no bus address, or the bus cannot be reached */
    NameTaken,  /* another process owns the application's name */
    NameDenied, /* the bus's policy refuses the application's name to this user */
    NoName      /* the application id cannot make a bus name */
};

/* The connection, opened when needed, owning the application's own bus name
 * when `needAppName`. Null, with the problem in *problem, when the bus cannot
 * be used. A connection that replaces a lost one owns again every name the
 * process owned. */
GDBusConnectionPtr SharedBusConnection(bool needAppName, ConnectionProblem* problem);
/* The connection when one is open; never opens one. */
GDBusConnectionPtr OpenBusConnectionIfAny();
/* The application id the open connection was opened as; empty when none is
 * open (the next one opens as CurrentAppId()). */
std::string ConnectedAppId();

/* A room that exports objects on the connection, follows its names or owns
 * names of its own. Every hook may be null. */
struct ConnectionUser {
    /* The connection was just opened, before any name is owned, with the bus
     * thread's context as this thread's default: export objects, add filters.
     * False when the connection cannot serve the room (then it is not used). */
    bool (*opened)(GDBusConnection* connection);
    /* The connection is about to be closed: unexport, remove filters. */
    void (*closing)(GDBusConnection* connection);
    /* The connection owns the application's name: own the room's names. False,
     * with `why`, while one of them cannot be owned yet (tried again on the
     * next use of the connection). */
    bool (*claimNames)(GDBusConnection* connection, const std::string& appId, std::string& why);
    /* A name of the platform's namespace changed its owner (bus thread). */
    void (*nameOwnerChanged)(GDBusConnection* connection, const char* name, const char* oldOwner,
                             const char* newOwner);
    /* A connection replaced a lost one: catch up with what happened meanwhile
     * and own again what the room owned. */
    void (*reopened)(GDBusConnection* connection);
    /* Whether the room owns again everything it owned (RestoreBusConnection);
     * false, with `why`, while it does not. */
    bool (*ownsAll)(std::string& why);
};
/* Registers `user` for every connection from now on (from a static object of
 * the room, before the first connection is opened). */
void AddConnectionUser(const ConnectionUser& user);

/* True when the connection `sender` (a unique name) owns the bus name of the
 * application `appId` and, in the verified identity mode, runs as a user bound
 * to it (credentials.h); answers are cached per unique name and forgotten when
 * that connection loses an application name. Otherwise `reason` says why not. */
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
 * application's loop sets one while it runs (app/bus_supervision.h). */
void SetConnectionLostHandler(void (*handler)());
/* Opens a connection in place of a lost one and owns again every name the
 * process owned: the application's and every user's. False, with `why`,
 * while that cannot be done yet. */
bool RestoreBusConnection(std::string& why);

}  // namespace host
}  // namespace tilvane

#endif
