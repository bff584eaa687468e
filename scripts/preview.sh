#!/usr/bin/env bash
# Builds Tilvane and its launcher preview, runs the service with sample
# content and serves the preview: open the address it prints in a browser.
# Ctrl-C stops it all.
#
# Its own bus and data folder: a private dbus-daemon (unless the session bus
# in DBUS_SESSION_BUS_ADDRESS answers), whose address it prints, and a fresh
# temporary data folder, removed at the end, unless TILVANE_PLATFORM_ROOT
# names one (the sample is then published into it again). Neither is the
# one of scripts/run.sh. TILVANE_PREVIEW_PORT chooses the port (default
# 8470); TILVANE_BUILD_DIR the build folder (default build/run).
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TILVANE_BUILD_DIR:-$top/build/run}"

if [ "${1:-}" != "--on-bus" ]; then
    "$top/scripts/install-deps.sh"
    cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTILVANE_BUILD_TESTS=OFF -DTILVANE_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$build" --target tilvane tilvanectl tilvane-preview
    exec "$top/scripts/with-bus.sh" "$0" --on-bus
fi

# On the bus: the service, the sample content, then the preview in the foreground.
work="$(mktemp -d -t tilvane-preview.XXXXXX)"
if [ -z "${TILVANE_PLATFORM_ROOT:-}" ]; then
    export TILVANE_PLATFORM_ROOT="$work/root"
fi
mkdir -p "$TILVANE_PLATFORM_ROOT"
# One user runs every process here: the development identity mode, chosen
# explicitly (no security boundary; docs/security.md).
if [ -z "${TILVANE_CONFIG:-}" ] && [ ! -e "$TILVANE_PLATFORM_ROOT/etc/tilvane.conf" ]; then
    mkdir -p "$TILVANE_PLATFORM_ROOT/etc"
    cp "$top/data/tilvane-development.conf" "$TILVANE_PLATFORM_ROOT/etc/tilvane.conf"
fi
service_pid=""
stop_all() {
    if [ -n "$service_pid" ]; then
        kill -TERM "$service_pid" 2>/dev/null || true
        wait "$service_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap stop_all EXIT
trap 'exit 130' INT TERM

: >"$work/service.log"
TILVANE_APP_ID=com.quillon.px.tilvane TILVANE_LOG_LEVEL=D "$build/tilvane" >>"$work/service.log" 2>&1 &
service_pid=$!
# The service says "ready: serving requests" once every request interface and
# port is up; the sample is published only then.
ready=""
for _ in $(seq 1 300); do
    if grep -q "ready: serving requests" "$work/service.log"; then
        ready=yes
        break
    fi
    kill -0 "$service_pid" 2>/dev/null || { cat "$work/service.log" >&2; echo "$0: the service stopped" >&2; exit 1; }
    sleep 0.1
done
if [ -z "$ready" ]; then
    cat "$work/service.log" >&2
    echo "$0: the service did not get ready within 30 s" >&2
    exit 1
fi

python3 "$top/tools/tilvane-preview/sample_content.py" "$build/tools/tilvanectl" "$top"
echo "Data folder: $TILVANE_PLATFORM_ROOT (the service's log: $work/service.log)"
echo "Publish more with: $build/tools/tilvanectl --app-id org.example.videos.main data insert tiles --bulk FILE"
echo "(same TILVANE_PLATFORM_ROOT and DBUS_SESSION_BUS_ADDRESS); the page follows every change."
echo "Open the address below in a browser; Ctrl-C stops the preview and the service."
"$build/tools/tilvane-preview" --port "${TILVANE_PREVIEW_PORT:-8470}" &
preview_pid=$!
trap 'kill -TERM "$preview_pid" 2>/dev/null || true' INT TERM
status=0
while true; do
    wait "$preview_pid" || status=$?
    kill -0 "$preview_pid" 2>/dev/null || break
done
exit "$status"
