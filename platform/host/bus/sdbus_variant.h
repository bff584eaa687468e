/*
 * Method-call bodies between sd-bus messages and GVariant values. The request
 * interfaces read and write their arguments as GVariant tuples
 * (request_wire.h); the direct request connection carries them with sd-bus,
 * which reads and writes a message in the calling thread. Byte arrays, which
 * carry the rows, are read where the message holds them (the value keeps the
 * message) and copied once into a message written. Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_SDBUS_VARIANT_H
#define TILVANE_PLATFORM_SDBUS_VARIANT_H

#include <glib.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "base/glib_ptr.h"

namespace tilvane {
namespace host {

struct SdBusMessageUnref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
/* Closes without waiting for queued messages to be read: a peer that never
 * reads must not hold up the one who lets it go. */
struct SdBusUnref {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using SdBusMessagePtr = std::unique_ptr<sd_bus_message, SdBusMessageUnref>;
using SdBusPtr = std::unique_ptr<sd_bus, SdBusUnref>;

/* The whole body of `message`, from its start, as one tuple. Null when the
 * body holds what GVariant cannot (a file descriptor, a string that is not
 * UTF-8) or does not read; `error` says what. When `expected` is not null
 * the tuple must be of that type. */
GVariantPtr ReadMessageBody(sd_bus_message* message, const GVariantType* expected, std::string& error);

/* Appends the children of `tuple` to `message` as its arguments. A negative
 * errno when a value has no D-Bus form (a maybe, a handle) or sd-bus refuses
 * it; 0 on success. */
int AppendMessageBody(sd_bus_message* message, GVariant* tuple);

}  // namespace host
}  // namespace tilvane

#endif
