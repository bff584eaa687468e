/*
 * The bus the benchmarks that cross processes run on: the session bus when
 * DBUS_SESSION_BUS_ADDRESS is set, otherwise one private dbus-daemon started
 * for the whole program and stopped when it exits.
 */
#ifndef TILVANE_BENCH_BUS_H
#define TILVANE_BENCH_BUS_H

/* True when a bus is there (DBUS_SESSION_BUS_ADDRESS then names it). */
bool EnsureBenchBus();

#endif
