/*
 * How message ports reach other applications without waiting for them.
 * Internal to the host platform; used by message_port.cpp.
 *
 * Announcing a port. Registering a local port also makes the process's
 * connection own the port's bus name,
 *
 *   org.tilvane.Port.A<escaped id>.H<32 hex digits: SHA-256 of the port's name>
 *
 * (app_identity.h), so the bus daemon itself knows which ports run, and its
 * policy lets only the application's user own the names of its ports. A port
 * exists for a sender when the owner of that name is the connection that owns
 * the application's name; both are asked of the bus daemon (GetNameOwner), never of the
 * application, so a check is answered even when the application never reads.
 *
 * Sending. A Deliver call is written to the bus and the sender goes on: the
 * answer is taken by a filter of the connection (on GDBus's own worker thread)
 * and only logged. A send to an application that has `max-unanswered`
 * deliveries waiting for their answer and has answered nothing for
 * `unanswered-quiet-ms` (or has 16 times that many waiting, answering or not)
 * is dropped (one log line when dropping starts, one when it ends) and
 * reported as MESSAGE_PORT_ERROR_MAX_EXCEEDED. A delivery unanswered after
 * `delivery-timeout-ms` no longer counts.
 */
#ifndef TILVANE_PLATFORM_PORT_DELIVERY_H
#define TILVANE_PLATFORM_PORT_DELIVERY_H

#include <gio/gio.h>

#include <string>

namespace tilvane {
namespace host {

/* The bus name that announces `port` of application `appId`. */
std::string PortBusName(const std::string& appId, const std::string& port);

/* Makes `connection` own the name of `port` of `appId`. A MESSAGE_PORT_ERROR_*:
 * RESOURCE_UNAVAILABLE when another connection owns it that may act as the
 * application. One that may not (another user, in the verified identity
 * mode) cannot hold the port back: the connection queues for the name with
 * the bus daemon, which hands it over as soon as that connection lets it go,
 * and the claim succeeds at once. */
int ClaimPortName(GDBusConnection* connection, const std::string& appId, const std::string& port);
/* Told of every owner change of a name: logs when this connection, whose
 * unique name is `ownUniqueName`, got the name of a port it queued for. */
void NoteQueuedPortName(const std::string& name, const std::string& newOwner, const std::string& ownUniqueName);
void ReleasePortName(GDBusConnection* connection, const std::string& appId, const std::string& port);

/* Whether `port` of `appId` runs, from the bus daemon's name owners only.
 * MESSAGE_PORT_ERROR_NONE with *exist set, or IO_ERROR when the daemon cannot
 * be asked. */
int RemotePortExists(GDBusConnection* connection, const std::string& appId, const std::string& port, bool* exist);

/* Writes a Deliver call to `port` of `appId` and returns without waiting for
 * the answer (MESSAGE_PORT_ERROR_NONE), or drops it (MAX_EXCEEDED) when too
 * many deliveries to that application are unanswered. */
int SendDeliverCall(GDBusConnection* connection, const std::string& appId, const std::string& port,
                    const std::string& senderApp, const std::string& senderPort, const std::string& encoded);

/* The filter that takes the answers of Deliver calls; installed on the
 * connection when it is opened. Returns its id for removal. */
guint AddDeliveryReplyFilter(GDBusConnection* connection);

/* Forgets every delivery in flight (the connection was closed). */
void ForgetDeliveries();

/* The unique name that owns the bus name of `appId`, "" when none; false when
 * the daemon cannot be asked. */
bool ApplicationOwner(GDBusConnection* connection, const std::string& appId, std::string& owner);

/* Owned by port_watch.cpp. Told of every owner change of an org.tilvane name
 * (on GDBus's worker thread): a name that lost its owner ends the remote
 * ports watched under it. */
void NotePortWatchOwnerChange(GDBusConnection* connection, const char* name, const char* oldOwner,
                              const char* newOwner);
/* After a new connection: the watched ports whose application no longer runs
 * are reported gone (their end may have passed while there was no bus). */
void RecheckPortWatches(GDBusConnection* connection);
/* The remote ports this process watches (message_port_add_unregistered_cb):
 * the service's preview-event subscribers. */
size_t WatchedRemotePorts();
/* Forgets every watch. */
void ForgetPortWatches();


}  // namespace host
}  // namespace tilvane

#endif
