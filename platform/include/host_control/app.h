/*
 * Test control API, service application: its event handlers and its end.
 * Part of host_control.h (for tests only).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_APP_H
#define TILVANE_PLATFORM_HOST_CONTROL_APP_H

#include <vector>

#include "service_app.h"

namespace tilvane {
namespace host {

/* The event types of the handlers registered with service_app_add_event_handler
 * (and not removed), in registration order. */
std::vector<app_event_type_e> RegisteredAppEventTypes();
/* Calls every handler registered for `type`; returns how many were called. */
int RaiseAppEvent(app_event_type_e type);
/* Ends service_app_main's loop as SIGTERM would, from any thread. */
void RequestTermination();

}  // namespace host
}  // namespace tilvane

#endif
