/*
 * Control API of the host platform, for tests and tools only: the system never
 * calls it.
 *
 * It lets a test make platform calls fail on purpose, read the lines that the
 * platform log wrote, replace real sleeping by a recorded virtual clock, raise
 * application events, install applications, set configuration keys and
 * observe the messages sent to ports. Everything here is process-wide; Reset()
 * puts it back to the state of a fresh process.
 *
 * Each room of the platform declares and implements its own part
 * (host_control/<room>.h); this header gathers them for the tests.
 */
#ifndef TILVANE_PLATFORM_HOST_CONTROL_H
#define TILVANE_PLATFORM_HOST_CONTROL_H

#include "host_control/base.h"
#include "host_control/log.h"
#include "host_control/config.h"
#include "host_control/identity.h"
#include "host_control/registry.h"
#include "host_control/ports.h"
#include "host_control/system.h"
#include "host_control/app.h"

#endif
