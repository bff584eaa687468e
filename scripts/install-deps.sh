#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing Tilvane need.
# As root it runs apt-get itself; otherwise it prints the command to run.
set -euo pipefail

PACKAGES=(
    g++ cmake ninja-build pkg-config
    libsqlite3-dev libglib2.0-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    dbus-daemon dbus-bin util-linux sqlite3 curl
    bsdutils python3
    libsoup-3.0-dev libsystemd-dev
    chromium chromium-driver python3-selenium fonts-dejavu-core
    systemd
    clang libfuzzer-14-dev libclang-rt-14-dev
    dpkg-dev debhelper lintian
)

missing=()
for package in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "Tilvane needs these Debian packages: ${missing[*]}" >&2
    echo "Install them as root with:" >&2
    echo "  apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
fi

echo "Installing: ${missing[*]}"
apt-get update
DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
