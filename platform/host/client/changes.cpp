/*
 * Following an application's own changes (tilvane_publisher.h): a local
 * message port of the client's, subscribed to the service's preview events
 * ("preview-event-receiver"), that calls back for the events of the
 * application's package only, and only when the service sent them (the
 * sender is the bus-checked application id of the message).
 */
#include <glib.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>

#include "bundle_ptr.h"
#include "identity/app_identity.h"
#include "message_port.h"
#include "package_manager.h"
#include "tilvane_publisher.h"

namespace tilvane {
namespace client {

struct Subscription::Impl {
    std::function<void(const ChangeEvent&)> onChange;
    std::string service;
    std::string packageId;
    int portId = 0;
};

namespace {

constexpr char kServicePort[] = "preview-event-receiver";
constexpr char kDefaultService[] = "com.quillon.px.tilvane";

/* The live subscriptions by their port, so that a message never reaches one
 * that was cancelled. */
struct Subscriptions {
    std::mutex mutex;
    std::map<int, std::shared_ptr<Subscription::Impl>> byPort;
    int next = 1;
};

Subscriptions& TheSubscriptions()
{
    static Subscriptions* subscriptions = new Subscriptions();
    return *subscriptions;
}

std::atomic<int> changesCalledBack{0};

std::string ServiceAppId()
{
    const char* fromEnvironment = std::getenv("TILVANE_SERVICE_APP_ID");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : kDefaultService;
}

/* The package the service names in the events of `appId`'s changes: the
 * registry's, or the id itself when the registry does not know it (as the
 * service decides). */
std::string PackageOf(const std::string& appId)
{
    char* packageId = nullptr;
    if (package_manager_get_package_id_by_app_id(appId.c_str(), &packageId) != PACKAGE_MANAGER_ERROR_NONE ||
        packageId == nullptr) {
        return appId;
    }
    std::string found = packageId;
    std::free(packageId);
    return found;
}

ChangeEvent EventOf(bundle* message)
{
    ChangeEvent event;
    const char* operation = bundle_get_val(message, "OPERATION");
    const char* mark = bundle_get_val(message, schema::kSyncKey);
    if (operation != nullptr && std::string(operation) == "DELETE") {
        event.kind = ChangeEvent::Kind::Deleted;
    } else if (mark != nullptr && std::string(mark) == schema::kSyncEnd) {
        event.kind = ChangeEvent::Kind::Published;
    } else {
        event.kind = ChangeEvent::Kind::Inserted;
    }
    const char* section = bundle_get_val(message, schema::tiles::kSectionRowId);
    char* end = nullptr;
    const long long id = section != nullptr ? std::strtoll(section, &end, 10) : -1;
    event.sectionRowId = section != nullptr && *section != '\0' && *end == '\0' ? id : -1;
    return event;
}

void OnEventCB(int localPortId, const char* remoteAppId, const char* /*remotePort*/, bool /*trusted*/,
               bundle* message, void* /*userData*/)
{
    std::shared_ptr<Subscription::Impl> impl;
    {
        Subscriptions& all = TheSubscriptions();
        std::lock_guard<std::mutex> lock(all.mutex);
        auto found = all.byPort.find(localPortId);
        if (found != all.byPort.end()) {
            impl = found->second;
        }
    }
    const char* package = bundle_get_val(message, schema::accelerators::kPackage);
    if (!impl || remoteAppId == nullptr || impl->service != remoteAppId || package == nullptr ||
        impl->packageId != package) {
        return;
    }
    ++changesCalledBack;
    impl->onChange(EventOf(message));
}

int SendRequest(const Subscription::Impl& impl, const char* requestType)
{
    BundlePtr request = MakeBundle();
    bundle_add_str(request.get(), "request_type", requestType);
    return message_port_send_message_with_local_port(impl.service.c_str(), kServicePort, request.get(), impl.portId);
}

Status Failed(ErrorCode code, std::string reason)
{
    Status status;
    status.code = code;
    status.reason = std::move(reason);
    return status;
}

Status SubscriptionFailure(int result, const std::string& service)
{
    if (result == MESSAGE_PORT_ERROR_PORT_NOT_FOUND) {
        return Failed(ErrorCode::NotRunning, "the service " + service + " does not run (no port " + kServicePort + ")");
    }
    if (result == MESSAGE_PORT_ERROR_RESOURCE_UNAVAILABLE) {
        return Failed(ErrorCode::NotAuthorized, "another process runs as this application");
    }
    return Failed(ErrorCode::BusError, "the subscription could not be sent (" + std::to_string(result) + ")");
}

}  // namespace

StatusOr<Subscription> Publisher::Subscribe(std::function<void(const ChangeEvent&)> onChange) const
{
    auto impl = std::make_shared<Subscription::Impl>();
    impl->onChange = std::move(onChange);
    impl->service = ServiceAppId();
    impl->packageId = PackageOf(AppId());
    Subscriptions& all = TheSubscriptions();
    std::string port;
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        port = "tilvane-client-changes-" + std::to_string(all.next++);
    }
    impl->portId = message_port_register_local_port(port.c_str(), OnEventCB, nullptr);
    if (impl->portId <= 0) {
        return SubscriptionFailure(impl->portId, impl->service);
    }
    {
        std::lock_guard<std::mutex> lock(all.mutex);
        all.byPort[impl->portId] = impl;
    }
    const int sent = SendRequest(*impl, "SubscribePreviewEvent");
    if (sent != MESSAGE_PORT_ERROR_NONE) {
        Subscription(impl).Cancel();
        return SubscriptionFailure(sent, impl->service);
    }
    return Subscription(impl);
}

void Subscription::Cancel()
{
    if (!m_impl) {
        return;
    }
    {
        Subscriptions& all = TheSubscriptions();
        std::lock_guard<std::mutex> lock(all.mutex);
        all.byPort.erase(m_impl->portId);
    }
    SendRequest(*m_impl, "UnsubscribePreviewEvent");
    message_port_unregister_local_port(m_impl->portId);
    m_impl.reset();
}

namespace {

gboolean TimeUpCB(gpointer data)
{
    *static_cast<bool*>(data) = true;
    return G_SOURCE_REMOVE;
}

}  // namespace

int Publisher::WaitForChanges(int timeoutMs) const
{
    const int before = changesCalledBack.load();
    GMainContext* context = g_main_context_default();
    if (!g_main_context_acquire(context)) {
        /* Another thread runs the loop: it calls back; wait for it to. */
        const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
        while (changesCalledBack.load() == before && g_get_monotonic_time() < deadline) {
            g_usleep(1000);
        }
        return changesCalledBack.load() - before;
    }
    bool timeUp = false;
    GSource* timer = g_timeout_source_new(static_cast<guint>(timeoutMs < 0 ? 0 : timeoutMs));
    g_source_set_callback(timer, TimeUpCB, &timeUp, nullptr);
    g_source_attach(timer, context);
    while (changesCalledBack.load() == before && !timeUp) {
        g_main_context_iteration(context, TRUE);
    }
    g_source_destroy(timer);
    g_source_unref(timer);
    g_main_context_release(context);
    return changesCalledBack.load() - before;
}

}  // namespace client
}  // namespace tilvane
