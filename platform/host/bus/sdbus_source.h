/*
 * An sd-bus connection driven from a GLib main context: a source that polls
 * the connection's socket for what sd-bus waits for, wakes at its timeouts,
 * and has sd-bus process what came. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_SDBUS_SOURCE_H
#define TILVANE_PLATFORM_SDBUS_SOURCE_H

#include <glib.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include "bus/sdbus_variant.h"

namespace tilvane {
namespace host {

/* A peer-to-peer connection on the connected socket `fd`, which it owns from
 * then on (closed on failure too), started: the server's side when
 * `serverId` is not null (the peer authenticates with EXTERNAL, checked
 * against the socket's credentials), else the client's. No file
 * descriptors are passed. Null when sd-bus cannot take it. */
SdBusPtr SdBusOnSocket(int fd, const sd_id128_t* serverId);

/* Called on the context when `bus` was found closed (the peer hung up, or it
 * was closed), once; the source is gone by then. */
using SdBusClosedCB = void (*)(sd_bus* bus, void* data);

/* Attaches `bus` (started, or being started) to `context`; the source holds a
 * reference of `bus`. The caller owns the reference returned, and ends the
 * source with g_source_destroy and g_source_unref. Each dispatch
 * processes at most `batch` messages, so that one busy peer does not keep
 * the others waiting. */
GSource* AttachSdBus(sd_bus* bus, GMainContext* context, int batch, SdBusClosedCB closed, void* data);

}  // namespace host
}  // namespace tilvane

#endif
