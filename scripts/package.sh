#!/usr/bin/env bash
# Builds the Debian packages (debian/) from a copy of the source tree with
# dpkg-buildpackage -b -us -uc, runs lintian on them (no error allowed), and
# checks that the packages hold exactly the files the build installed
# (debian/tmp, what `cmake --install` laid out) plus Debian's own
# (/usr/share/doc: copyright, changelog; the -dbgsym packages hold the
# programs' debugging symbols and nothing else). The packages are left in
# OUTPUT_DIR (default build/packages).
#
#   scripts/package.sh [OUTPUT_DIR]
#
# Needs debhelper, lintian and the build dependencies (scripts/install-deps.sh
# installs them).
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
out="${1:-$top/build/packages}"
work="$(mktemp -d -t tilvane-package.XXXXXX)"
trap 'rm -rf "$work"' EXIT

echo "==> copying the source tree to $work/tilvane"
mkdir -p "$work/tilvane"
tar -C "$top" --exclude=./build --exclude=./.git --exclude=./tilvane-data -cf - . | tar -C "$work/tilvane" -xf -

echo "==> dpkg-buildpackage -b -us -uc"
(cd "$work/tilvane" && DEB_BUILD_OPTIONS="nocheck parallel=$(nproc 2>/dev/null || echo 2)" \
    dpkg-buildpackage -b -us -uc)

echo "==> lintian"
lintian --fail-on error --info "$work"/tilvane_*.changes | tee "$work/lintian.txt"

echo "==> the packages hold what the build installed"
# Manual pages are packaged compressed (dh_compress).
(cd "$work/tilvane/debian/tmp" && find . \( -type f -o -type l \) | sed -e 's|^\./|/|' -e 's|^\(/usr/share/man/.*\)$|\1.gz|' |
    sort) >"$work/installed.txt"
for deb in "$work"/*.deb; do
    case "$deb" in
    *-dbgsym_*) continue ;; # the programs' debugging symbols, split off by dh_strip
    esac
    dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|' | grep -v '/$' || true
done | grep -v '^/usr/share/doc/' | sort >"$work/packaged.txt"
for deb in "$work"/*-dbgsym_*.deb; do
    if dpkg-deb --fsys-tarfile "$deb" | tar -t | sed 's|^\./|/|' | grep -v '/$' |
        grep -v -e '^/usr/lib/debug/' -e '^/usr/share/doc/'; then
        echo "package.sh: $(basename "$deb") holds more than debugging symbols" >&2
        exit 1
    fi
done
if ! diff -u "$work/installed.txt" "$work/packaged.txt"; then
    echo "package.sh: the packages and the installed tree differ (- installed only, + packaged only)" >&2
    exit 1
fi
echo "$(wc -l <"$work/installed.txt") files installed, all of them packaged"

mkdir -p "$out"
cp "$work"/*.deb "$work/lintian.txt" "$out"/
for deb in "$out"/*.deb; do
    echo "$(basename "$deb"):"
    dpkg-deb -c "$deb" | awk '{print "  " $6 ($7 ? " " $7 " " $8 : "")}'
done
echo "packages in $out"
