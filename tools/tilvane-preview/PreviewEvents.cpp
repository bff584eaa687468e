#include "PreviewEvents.h"

#include <message_port.h>

#include <cstdio>

namespace tilvane {
namespace preview {

namespace {

const char kServicePort[] = "preview-event-receiver";
const guint kRetrySeconds = 2;

void AppendEntryCB(const char* key, const char* value, void* data)
{
    static_cast<EventEntries*>(data)->emplace_back(key != nullptr ? key : "", value != nullptr ? value : "");
}

}  // namespace

std::string DescribePortResult(int result)
{
    switch (result) {
    case MESSAGE_PORT_ERROR_NONE: return "done";
    case MESSAGE_PORT_ERROR_PORT_NOT_FOUND: return "the service is not running (no such port)";
    case MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE: return "this application id is already running on the bus";
    case MESSAGE_PORT_ERROR_IO_ERROR: return "cannot reach the message bus (DBUS_SESSION_BUS_ADDRESS)";
    case MESSAGE_PORT_ERROR_CERTIFICATE_NOT_MATCH: return "the service refused this application's identity";
    default: return "error " + std::to_string(result);
    }
}

PreviewEvents::PreviewEvents(std::string service, std::string portName, Handler handler)
    : m_service(std::move(service)), m_portName(std::move(portName)), m_handler(std::move(handler))
{
}

PreviewEvents::~PreviewEvents()
{
    if (m_retry != 0) {
        g_source_remove(m_retry);
    }
    if (m_portId > 0) {
        message_port_unregister_local_port(m_portId);
    }
}

bool PreviewEvents::Start(std::string& error)
{
    m_portId = message_port_register_local_port(m_portName.c_str(), MessageCB, this);
    if (m_portId <= 0) {
        error = "cannot register the local port '" + m_portName + "': " + DescribePortResult(m_portId);
        m_portId = 0;
        return false;
    }
    if (!TrySubscribe()) {
        m_retry = g_timeout_add_seconds(kRetrySeconds, RetryCB, this);
    }
    return true;
}

bool PreviewEvents::TrySubscribe()
{
    int result = SendRequest("SubscribePreviewEvent");
    m_subscribed = result == MESSAGE_PORT_ERROR_NONE;
    if (m_subscribed) {
        std::fprintf(stderr, "tilvane-preview: subscribed to preview events of %s, port %s\n", m_service.c_str(),
                     m_portName.c_str());
    } else {
        std::fprintf(stderr, "tilvane-preview: cannot subscribe to preview events of %s: %s; trying again\n",
                     m_service.c_str(), DescribePortResult(result).c_str());
    }
    return m_subscribed;
}

gboolean PreviewEvents::RetryCB(gpointer self)
{
    PreviewEvents* events = static_cast<PreviewEvents*>(self);
    if (events->TrySubscribe()) {
        events->m_retry = 0;
        return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
}

void PreviewEvents::Stop()
{
    if (m_retry != 0) {
        g_source_remove(m_retry);
        m_retry = 0;
    }
    if (m_subscribed) {
        int result = SendRequest("UnsubscribePreviewEvent");
        if (result != MESSAGE_PORT_ERROR_NONE) {
            std::fprintf(stderr, "tilvane-preview: the subscription could not be removed: %s\n",
                         DescribePortResult(result).c_str());
        }
        m_subscribed = false;
    }
}

int PreviewEvents::SendRequest(const char* requestType)
{
    bundle* request = bundle_create();
    bundle_add_str(request, "request_type", requestType);
    int result = message_port_send_message_with_local_port(m_service.c_str(), kServicePort, request, m_portId);
    bundle_free(request);
    return result;
}

void PreviewEvents::MessageCB(int /*localPortId*/, const char* remoteAppId, const char* /*remotePort*/,
                              bool /*trusted*/, bundle* message, void* self)
{
    PreviewEvents* events = static_cast<PreviewEvents*>(self);
    if (remoteAppId == nullptr || events->m_service != remoteAppId) {
        std::fprintf(stderr, "tilvane-preview: ignored a message from %s\n",
                     remoteAppId != nullptr ? remoteAppId : "(unknown)");
        return;
    }
    EventEntries entries;
    bundle_iterate(message, AppendEntryCB, &entries);
    events->m_handler(entries);
}

}  // namespace preview
}  // namespace tilvane
