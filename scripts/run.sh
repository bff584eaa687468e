#!/usr/bin/env bash
# Builds Tilvane and runs the service in the foreground, logging to the
# terminal, until Ctrl-C. Its databases live under the data folder
# (TILVANE_PLATFORM_ROOT, default ./tilvane-data); the tiles database is
# <data folder>/opt/dbspace/.preview.db. The service joins the session bus, or
# a private bus started for it (its address is printed for a second terminal).
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TILVANE_BUILD_DIR:-$top/build/run}"

"$top/scripts/install-deps.sh"

cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTILVANE_BUILD_TESTS=OFF -DTILVANE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target tilvane tilvanectl

export TILVANE_PLATFORM_ROOT="${TILVANE_PLATFORM_ROOT:-$PWD/tilvane-data}"
export TILVANE_LOG_LEVEL="${TILVANE_LOG_LEVEL:-D}"
export TILVANE_APP_ID="${TILVANE_APP_ID:-com.quillon.px.tilvane}"
mkdir -p "$TILVANE_PLATFORM_ROOT"

# A workstation runs every process as one user: the development identity mode,
# chosen explicitly (no security boundary; docs/security.md). An existing
# configuration of the data folder is left as it is.
if [ -z "${TILVANE_CONFIG:-}" ] && [ ! -e "$TILVANE_PLATFORM_ROOT/etc/tilvane.conf" ]; then
    mkdir -p "$TILVANE_PLATFORM_ROOT/etc"
    cp "$top/data/tilvane-development.conf" "$TILVANE_PLATFORM_ROOT/etc/tilvane.conf"
    echo "Identity mode: development (written to $TILVANE_PLATFORM_ROOT/etc/tilvane.conf)."
fi

# The sample setup: the example applications, installed in the platform's
# registry (installing again replaces them).
for manifest in "$top"/examples/apps/*.manifest; do
    TILVANE_APP_ID=tilvanectl TILVANE_LOG_LEVEL=W "$build/tools/tilvanectl" app install "$manifest" >/dev/null
done
echo "Installed the example applications of examples/apps (tilvanectl app list shows them)."

echo "Data folder: $TILVANE_PLATFORM_ROOT"
echo "Tiles database: $TILVANE_PLATFORM_ROOT/opt/dbspace/.preview.db"
echo "Service application id: $TILVANE_APP_ID"
echo "Client: $build/tools/tilvanectl (same TILVANE_PLATFORM_ROOT and bus address)"
echo "Stop with Ctrl-C."
exec "$top/scripts/with-bus.sh" "$build/tilvane" "$@"
