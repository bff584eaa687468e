/*
 * The service is never alive and unreachable. While a service application's
 * loop runs, a lost bus connection (the bus daemon dropped it, or went away)
 * is restored on the loop: a new connection owns again the application's
 * name, its ports' names and its providers' names, and the notification
 * signals are subscribed again. Attempts follow each other 100 ms apart,
 * then twice as far each time up to a second. When the connection is not
 * back within `[bus] reconnect-ms`, the loop ends with a failure: the
 * terminate callback runs as on SIGTERM and the process exits with code 3, so
 * that its unit (Restart=on-failure) starts it again. Internal to the host
 * platform.
 */
#ifndef TILVANE_PLATFORM_BUS_SUPERVISION_H
#define TILVANE_PLATFORM_BUS_SUPERVISION_H

namespace tilvane {
namespace host {

/* From now on a lost connection is restored, or `giveUp` is called on the
 * loop when it cannot be within the budget. */
void StartBusSupervision(void (*giveUp)());
/* Stops watching (the loop ended); an attempt still due is dropped. */
void StopBusSupervision();

}  // namespace host
}  // namespace tilvane

#endif
