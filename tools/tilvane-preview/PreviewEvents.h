/*
 * The preview's subscription to preview events: a local message port of its
 * own, announced to the service's port "preview-event-receiver" with a
 * "SubscribePreviewEvent" request. Each event from the service is handed to
 * the handler as its entries in order; messages from anyone else are ignored.
 * When the service is not running yet, the request is sent again every two
 * seconds until it arrives.
 */
#ifndef TILVANE_PREVIEW_PREVIEW_EVENTS_H
#define TILVANE_PREVIEW_PREVIEW_EVENTS_H

#include <bundle.h>
#include <glib.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tilvane {
namespace preview {

using EventEntries = std::vector<std::pair<std::string, std::string>>;

class PreviewEvents {
public:
    using Handler = std::function<void(const EventEntries&)>;

    PreviewEvents(std::string service, std::string portName, Handler handler);
    ~PreviewEvents();
    PreviewEvents(const PreviewEvents&) = delete;
    PreviewEvents& operator=(const PreviewEvents&) = delete;

    /* Registers the local port and subscribes; false (with `error`) when the
     * port cannot be registered. A service that is not there yet is retried. */
    bool Start(std::string& error);
    /* Removes the subscription (when it was made). */
    void Stop();
    bool Subscribed() const { return m_subscribed; }

private:
    static void MessageCB(int localPortId, const char* remoteAppId, const char* remotePort, bool trusted,
                          bundle* message, void* self);
    static gboolean RetryCB(gpointer self);
    int SendRequest(const char* requestType);
    bool TrySubscribe();

    std::string m_service;
    std::string m_portName;
    Handler m_handler;
    int m_portId = 0;
    bool m_subscribed = false;
    guint m_retry = 0;
};

/* The text of a message-port result for a person. */
std::string DescribePortResult(int result);

}  // namespace preview
}  // namespace tilvane

#endif
