#!/usr/bin/env bash
# Runs a command on a D-Bus session bus: the one in DBUS_SESSION_BUS_ADDRESS
# when it answers, otherwise a private dbus-daemon started for the command and
# stopped after it. For a private bus the address is printed, so that a second
# terminal can export it and reach the command's processes:
#
#   scripts/with-bus.sh build/run/tilvane
#   D-Bus address: unix:path=/tmp/dbus-...,guid=...
#
#   export DBUS_SESSION_BUS_ADDRESS='unix:path=/tmp/dbus-...,guid=...'
#   tilvanectl events trigger
#
# Exits with the command's exit status. Ctrl-C (SIGINT) or SIGTERM is passed
# on to the command as SIGTERM, and the bus is stopped after it ends.
set -uo pipefail

if [ "$#" -eq 0 ]; then
    echo "Usage: $0 COMMAND [ARGS...]" >&2
    exit 2
fi

bus_answers() {
    [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || return 1
    timeout 5 dbus-send --session --dest=org.freedesktop.DBus --type=method_call --print-reply \
        /org/freedesktop/DBus org.freedesktop.DBus.GetId >/dev/null 2>&1
}

if bus_answers; then
    exec "$@"
fi

if ! command -v dbus-daemon >/dev/null 2>&1; then
    echo "$0: no usable session bus and no dbus-daemon to start one (apt-get install dbus-daemon)" >&2
    exit 1
fi

# --fork prints the address, then the pid, once the bus is ready.
if ! bus_info="$(dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=1)"; then
    echo "$0: dbus-daemon did not start" >&2
    exit 1
fi
bus_address="$(printf '%s\n' "$bus_info" | sed -n 1p)"
bus_pid="$(printf '%s\n' "$bus_info" | sed -n 2p)"
if [ -z "$bus_address" ] || [ -z "$bus_pid" ]; then
    echo "$0: dbus-daemon did not report its address" >&2
    exit 1
fi
export DBUS_SESSION_BUS_ADDRESS="$bus_address"
echo "D-Bus address: $bus_address" >&2

stop_bus() {
    kill "$bus_pid" 2>/dev/null || true
}
trap stop_bus EXIT

"$@" &
child=$!
trap 'kill -TERM "$child" 2>/dev/null || true' INT TERM
# wait returns early when a trapped signal arrives: wait again until the
# command has really ended.
status=0
while true; do
    wait "$child"
    status=$?
    kill -0 "$child" 2>/dev/null || break
done
exit "$status"
