#!/usr/bin/env bash
# Checks that the host platform's includes run only down its layers, builds
# Tilvane from scratch and runs the whole test suite in a normal build,
# a short run of the benchmarks to show they work, each libFuzzer target for a
# bounded time (skip with TILVANE_SKIP_FUZZ=1), the Debian packages built,
# checked by lintian and against the installed tree (skip with
# TILVANE_SKIP_PACKAGES=1), and the suite once more under AddressSanitizer and
# UBSan (skip that with TILVANE_SKIP_SANITIZE=1).
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
builds="${TILVANE_BUILD_ROOT:-$top/build}"
jobs="$(nproc 2>/dev/null || echo 2)"

"$top/scripts/install-deps.sh"

echo "==> the layers of the host platform (scripts/check-layers.py)"
python3 "$top/scripts/check-layers.py"

run_suite() {
    local dir="$1"; shift
    echo "==> configuring $dir"
    cmake -S "$top" -B "$dir" -G Ninja -DTILVANE_BUILD_TESTS=ON "$@" >/dev/null
    echo "==> building $dir"
    cmake --build "$dir" -j "$jobs"
    echo "==> testing $dir"
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure
}

run_suite "$builds/test" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTILVANE_BUILD_BENCHMARKS=ON

echo "==> benchmarks (short run)"
"$builds/test/bench/tilvane_bench" --short

if [ "${TILVANE_SKIP_FUZZ:-0}" != "1" ]; then
    echo "==> fuzzing every decoder of bus input (bounded time per target)"
    CC=clang CXX=clang++ cmake -S "$top" -B "$builds/fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTILVANE_BUILD_FUZZERS=ON -DTILVANE_SANITIZE=ON -DTILVANE_BUILD_TESTS=OFF -DTILVANE_BUILD_BENCHMARKS=OFF >/dev/null
    "$top/scripts/fuzz.sh" "$builds/fuzz" "${TILVANE_FUZZ_SECONDS:-20}"
fi

if [ "${TILVANE_SKIP_PACKAGES:-0}" != "1" ]; then
    echo "==> Debian packages (dpkg-buildpackage, lintian, contents)"
    "$top/scripts/package.sh" "$builds/packages"
fi

if [ "${TILVANE_SKIP_SANITIZE:-0}" != "1" ]; then
    ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        run_suite "$builds/sanitize" -DCMAKE_BUILD_TYPE=Debug -DTILVANE_SANITIZE=ON -DTILVANE_BUILD_BENCHMARKS=OFF
fi
