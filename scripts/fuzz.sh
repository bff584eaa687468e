#!/usr/bin/env bash
# Runs every libFuzzer target of tests/fuzz for a bounded time.
#   scripts/fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]
# BUILD_DIR is a build configured with CC=clang CXX=clang++ and
# -DTILVANE_BUILD_FUZZERS=ON (scripts/test.sh makes one). Each target starts
# from the checked-in corpus (tests/fuzz/corpus/<target>, read only) and works
# in BUILD_DIR/fuzz-corpus/<target>; a crash is written to
# BUILD_DIR/crashes/<target>/ and fails the run: fix it, then add the file to
# the checked-in corpus, which the unit tests replay.
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:?usage: scripts/fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]}"
seconds="${2:-20}"
targets=(BundleDecode RowDecode ManifestParse JsonLinesRead)

cmake --build "$build" --target "${targets[@]/#/fuzz_}"

status=0
for target in "${targets[@]}"; do
    work="$build/fuzz-corpus/$target"
    crashes="$build/crashes/$target"
    mkdir -p "$work" "$crashes"
    echo "==> fuzzing $target for ${seconds}s"
    if ! ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
        "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 \
        -artifact_prefix="$crashes/" "$work" "$top/tests/fuzz/corpus/$target" 2>"$build/fuzz-$target.log"; then
        echo "fuzz_$target failed; see $build/fuzz-$target.log and $crashes/" >&2
        tail -n 30 "$build/fuzz-$target.log" >&2
        status=1
    else
        tail -n 2 "$build/fuzz-$target.log"
    fi
done
exit $status
