/*
 * The shared bus connection (bus/bus_connection.h) as the message-port
 * interface reports on it: what a port call answers when the connection
 * cannot be used. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_PORT_CONNECTION_H
#define TILVANE_PLATFORM_PORT_CONNECTION_H

#include "bus/bus_connection.h"

namespace tilvane {
namespace host {

/* The MESSAGE_PORT_ERROR_* of `problem` (MESSAGE_PORT_ERROR_NONE for none). */
int MessagePortResult(ConnectionProblem problem);

/* The connection with the application's name owned when `needName`; null
 * with *result (a MESSAGE_PORT_ERROR_*) when the bus cannot be used. */
GDBusConnectionPtr PortsConnection(bool needName, int* result);

}  // namespace host
}  // namespace tilvane

#endif
