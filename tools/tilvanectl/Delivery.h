/*
 * What tilvanectl tells after sending a message-port message: a send returns
 * once the message is written, so the tool waits for the receiver's answer
 * (given when the receiver has checked who sent it) and reports a refusal
 * with its reason. A rule that drops a message after that answer (strict
 * confinement of the change-manager ports) is checked before sending, from
 * the same configuration the service reads.
 */
#ifndef TILVANECTL_DELIVERY_H
#define TILVANECTL_DELIVERY_H

#include <string>

namespace tilvanectl {

/* One line on standard error: the bus refused this process the name of its
 * application id (or of a port of it). */
void ExplainRefusedName(const char* group);

/* Waits for the answers to what was sent: EXIT_OK when the service took
 * every message; EXIT_FAILED after one line on standard error naming the
 * refusal, or saying that no answer came. */
int ConfirmDelivery(const char* group, const std::string& service);

/* Under strict confinement the service acts on `kind` messages ("install",
 * "uninstall", "visibility") only from the platform: EXIT_OK when this
 * process counts as the platform or strict confinement is off; otherwise
 * EXIT_FAILED after the reason, and nothing should be sent. */
int RequirePlatformSender(const char* group, const char* kind);

/* Configuration-key changes and power-off count only from the platform in the
 * verified identity mode: EXIT_OK when this process counts, else
 * EXIT_FAILED after the reason. */
int RequirePlatformUser(const char* group, const char* what);

}  // namespace tilvanectl

#endif
