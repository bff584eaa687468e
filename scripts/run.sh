#!/usr/bin/env bash
# Builds Tilvane and runs the service in the foreground, logging to the
# terminal, until Ctrl-C. Its databases live under the data folder
# (TILVANE_PLATFORM_ROOT, default ./tilvane-data); the tiles database is
# <data folder>/opt/dbspace/.preview.db.
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${TILVANE_BUILD_DIR:-$top/build/run}"

"$top/scripts/install-deps.sh"

cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTILVANE_BUILD_TESTS=OFF -DTILVANE_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" --target tilvane

export TILVANE_PLATFORM_ROOT="${TILVANE_PLATFORM_ROOT:-$PWD/tilvane-data}"
export TILVANE_LOG_LEVEL="${TILVANE_LOG_LEVEL:-D}"
mkdir -p "$TILVANE_PLATFORM_ROOT"

echo "Data folder: $TILVANE_PLATFORM_ROOT"
echo "Tiles database: $TILVANE_PLATFORM_ROOT/opt/dbspace/.preview.db"
echo "Stop with Ctrl-C."
exec "$build/tilvane" "$@"
