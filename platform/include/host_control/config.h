/*
 * Test control API, config: the platform root and the integrator's
 * configuration of this process. Part of host_control.h (for tests only).
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_CONFIG_H
#define TILVANE_PLATFORM_HOST_CONTROL_CONFIG_H

#include <string>

namespace tilvane {
namespace host {

/* Makes tzplatform_getenv resolve under `root` instead of TILVANE_PLATFORM_ROOT
 * or the default; an empty root goes back to those. */
void SetPlatformRoot(const std::string& root);

/* Replaces the configuration file (platform_config.h) of this process by
 * `keyFileText`, read on next use; Reset() goes back to the file. */
void SetConfigurationText(const std::string& keyFileText);

}  // namespace host
}  // namespace tilvane

#endif
