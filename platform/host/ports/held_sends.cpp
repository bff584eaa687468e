#include "ports/held_sends.h"

#include "base/host_state.h"
#include "dlog.h"
#include "message_port.h"

namespace tilvane {
namespace host {
namespace {

thread_local HeldSends* t_hold = nullptr;

}  // namespace

HeldSends::HeldSends()
{
    if (t_hold == nullptr) {
        t_hold = this;
        m_active = true;
    }
}

HeldSends::~HeldSends()
{
    Drop();
}

bool HeldSends::Hold(const char* appId, const char* port, bundle* message, int localPortId)
{
    if (t_hold == nullptr) {
        return false;
    }
    t_hold->m_held.push_back(Held{appId, port, BundlePtr(bundle_dup(message)), localPortId});
    return true;
}

size_t HeldSends::Release()
{
    if (!m_active) {
        return 0;
    }
    t_hold = nullptr;
    m_active = false;
    size_t sent = 0;
    for (const Held& held : m_held) {
        const int result = held.localPortId < 0
                               ? message_port_send_message(held.appId.c_str(), held.port.c_str(), held.message.get())
                               : message_port_send_message_with_local_port(held.appId.c_str(), held.port.c_str(),
                                                                           held.message.get(), held.localPortId);
        if (result == MESSAGE_PORT_ERROR_NONE) {
            ++sent;
        } else {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, kPlatformLogTag, "held message to %s/%s not sent: %d",
                         held.appId.c_str(), held.port.c_str(), result);
        }
    }
    m_held.clear();
    return sent;
}

size_t HeldSends::Drop()
{
    if (!m_active) {
        return 0;
    }
    t_hold = nullptr;
    m_active = false;
    const size_t dropped = m_held.size();
    if (dropped > 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_DEBUG, kPlatformLogTag, "%zu held message(s) dropped: the changes were undone",
                     dropped);
    }
    m_held.clear();
    return dropped;
}

}  // namespace host
}  // namespace tilvane
