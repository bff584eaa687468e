#!/usr/bin/env bash
# Builds Tilvane and its launcher preview, runs the service with sample
# content on a private bus (or the session bus when one answers) and serves
# the preview: open the address it prints in a browser. Ctrl-C stops it all.
#
# The data folder is a fresh temporary one, removed at the end, unless
# TILVANE_PLATFORM_ROOT names one (the sample is then published into it
# again). TILVANE_PREVIEW_PORT chooses the port (default 8470).
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

TILVANE_APP_ID=com.quillon.px.tilvane TILVANE_LOG_LEVEL=D "$build/tilvane" >"$work/service.log" 2>&1 &
service_pid=$!
for _ in $(seq 1 300); do
    grep -q "local port preview-event-receiver registered" "$work/service.log" && break
    kill -0 "$service_pid" 2>/dev/null || { cat "$work/service.log" >&2; echo "$0: the service stopped" >&2; exit 1; }
    sleep 0.1
done

python3 "$top/tools/tilvane-preview/sample_content.py" "$build/tools/tilvanectl" "$top"
echo "Data folder: $TILVANE_PLATFORM_ROOT"
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
