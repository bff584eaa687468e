/*
 * Who hears of the content library's callback registrations: the request
 * interface owns the bus name of an authority while a callback is registered
 * for one of its URIs, and registers this observer from above. The library
 * tells it and knows nothing of it. Internal to the host platform.
 */
#ifndef TILVANE_CONTENT_REGISTRATION_OBSERVER_H
#define TILVANE_CONTENT_REGISTRATION_OBSERVER_H

#include <string>

namespace tilvane {
namespace content {

struct RegistrationObserver {
    /* A callback for `uri` was registered, or removed. */
    void (*registered)(const std::string& uri);
    void (*unregistered)(const std::string& uri);
    /* Every registration was removed. */
    void (*cleared)();
};

/* Sets the one observer (from a static object of the room above). */
void SetRegistrationObserver(const RegistrationObserver& observer);

}  // namespace content
}  // namespace tilvane

#endif
