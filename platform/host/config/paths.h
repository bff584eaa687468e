/*
 * Where the platform's files are: everything under one root directory,
 * SetPlatformRoot's (host_control/config.h), else TILVANE_PLATFORM_ROOT's,
 * else <cwd>/tilvane-data; tzplatform_getenv resolves the platform's folders
 * under it. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_PATHS_H
#define TILVANE_PLATFORM_PATHS_H

#include <string>

namespace tilvane {
namespace host {

/* The absolute platform root. */
std::string PlatformRootDirectory();

}  // namespace host
}  // namespace tilvane

#endif
