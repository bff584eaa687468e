/*
 * The bus the benchmarks that cross processes run on: the session bus when
 * DBUS_SESSION_BUS_ADDRESS is set, otherwise one private dbus-daemon started
 * for the whole program and stopped when it exits.
 */
#ifndef TILVANE_BENCH_BUS_H
#define TILVANE_BENCH_BUS_H

#include <sys/types.h>

#include <string>
#include <vector>

/* True when a bus is there (DBUS_SESSION_BUS_ADDRESS then names it). */
bool EnsureBenchBus();

/* The real service owns its application's name on the bus, so one benchmark
 * at a time can run it: one that keeps a service running registers how to
 * stop it, and one about to start a service stops the others first. */
void RegisterBenchService(void (*stop)());
void StopBenchServices();

/* Waits (up to 30 s) until the service `appId` has registered `port`. */
bool WaitForBenchService(const char* appId, const char* port);
/* Starts `argv` with `extra` ("NAME=value") in place of this process's
 * entries of the same names; its standard error goes to `errPath`, its
 * standard output nowhere. */
pid_t SpawnBenchProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extra,
                        const std::string& errPath);

/* Ends the service `pid` (SIGTERM, waited for) and removes its platform root
 * `root`; both are cleared. */
void StopBenchServiceAndRemove(pid_t& pid, std::string& root);

#endif
