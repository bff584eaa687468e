/*
 * Strict confinement: an opt-in mode, chosen by the platform integrator in the
 * configuration file (group "strict", see docs/configuration.md), in which
 * the request handlers refuse what the default mode lets a caller below the
 * internal level do (a where clause that escapes the row filter, projection
 * expressions, writes into other packages' rows, unbounded growth), and the
 * change-manager ports act only for trusted senders.
 *
 * Off by default; the host platform logs "strict confinement on" or
 * "strict confinement off" once when the service starts.
 */
#ifndef TILVANE_PLATFORM_CONFINEMENT_POLICY_H
#define TILVANE_PLATFORM_CONFINEMENT_POLICY_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The result code of a request that strict confinement refused (content-library
 * interface and data control alike). Never returned in the default mode. */
#define CONFINEMENT_POLICY_REFUSED (-1)

/* The names of the rules, as refusals and log lines give them. */
#define CONFINEMENT_RULE_WHERE_CLAUSE "where-clause"
#define CONFINEMENT_RULE_PROJECTION "projection"
#define CONFINEMENT_RULE_INSERT_OWNER "insert-owner"
#define CONFINEMENT_RULE_BULK_UPDATE "bulk-update"
#define CONFINEMENT_RULE_TRUSTED_SENDER "trusted-sender"
#define CONFINEMENT_RULE_STATEMENT "statement-authorizer"
#define CONFINEMENT_RULE_LIMITS "limits"

/* True when the integrator switched strict confinement on. */
bool confinement_policy_is_strict(void);

/* Per-package limits of strict confinement (each at least 1). */
int confinement_policy_max_sections_per_package(void);
int confinement_policy_max_tiles_per_package(void);
/* Bytes of one value of a written row, and of a caller's where clause. */
int confinement_policy_max_value_bytes(void);
int confinement_policy_max_where_bytes(void);

/* True when `app_id` is one of the senders that the change-manager ports act
 * for under strict confinement (the launcher and the platform's package
 * services, as the configuration names them). False for null. */
bool confinement_policy_is_trusted_sender(const char* app_id);

/* True when the sender of the message-port message being handled counts as
 * the platform, for which alone the change-manager ports act under strict
 * confinement: in the verified identity mode, when the bus reports that it
 * runs as a platform user (outside a message's callback: when this process
 * does); in the development mode, where every process runs as one user, when
 * `app_id` is one of the platform's own ids or of the trusted senders. */
bool confinement_policy_sender_is_platform(const char* app_id);

/* True when `app_id` is the platform's as a receiver: one of the platform's
 * own ids (bound to platform users in the verified identity mode); in the
 * development mode also one of the trusted senders. Under strict confinement
 * only such applications hear of every package's changes. */
bool confinement_policy_is_platform_app(const char* app_id);

/* Records that strict confinement refused the request in progress: logs one
 * line naming `rule`, and the request interface answers the caller with an error
 * that carries `reason` (in place of the handler's result). Outside a request
 * only the log line is written. */
void confinement_policy_refuse(const char* rule, const char* reason);

#ifdef __cplusplus
}
#endif

#endif
