/*
 * Messages held back while a request whose changes may still be undone runs
 * (the steps of an atomic publish, requests/content_publish.cpp): a
 * subscriber must never hear of content that is not stored.
 *
 * While a HeldSends is open on a thread, message_port_send_message and
 * message_port_send_message_with_local_port called on that thread keep a copy
 * of the message and return MESSAGE_PORT_ERROR_NONE without sending. Release
 * sends what was held, in order, as those calls would have (after the
 * changes are stored); Drop, and the end of a HeldSends that was neither
 * released nor dropped, forget it (the changes were undone). Sends from other
 * threads are not held. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_HELD_SENDS_H
#define TILVANE_PLATFORM_HELD_SENDS_H

#include <cstddef>
#include <string>
#include <vector>

#include "bundle_ptr.h"

namespace tilvane {
namespace host {

class HeldSends {
public:
    /* Holds on the calling thread; inactive inside another HeldSends. */
    HeldSends();
    ~HeldSends();
    HeldSends(const HeldSends&) = delete;
    HeldSends& operator=(const HeldSends&) = delete;

    /* Stops holding and sends every held message; returns how many were
     * handed to the bus (the others are logged). */
    size_t Release();
    /* Stops holding and forgets every held message; returns how many. */
    size_t Drop();
    size_t Count() const { return m_held.size(); }

    /* For message_port.cpp: true when a HeldSends open on this thread took
     * the message (`localPortId` -1 for a send without a local port). */
    static bool Hold(const char* appId, const char* port, bundle* message, int localPortId);

private:
    struct Held {
        std::string appId;
        std::string port;
        BundlePtr message;
        int localPortId;
    };
    bool m_active = false;
    std::vector<Held> m_held;
};

}  // namespace host
}  // namespace tilvane

#endif
