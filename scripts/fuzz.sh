#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time
# (seconds per target, default 60) on a scratch copy of its seed corpus, so the
# checked-in corpus never grows. Any crash, leak or sanitizer report fails,
# naming the target and the reproducer. Needs root (private mount namespace).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -DDHH_BUILD_FUZZERS=ON -DBUILD_TESTING=OFF \
    -DDHH_WERROR=ON >/dev/null
cmake --build "$dir" -j "$(nproc)"

scratch=$(mktemp -d /tmp/dhh-fuzz-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
failed=0
for corpus in fuzz/corpus/*/; do
    target=$(basename "$corpus")
    work=$scratch/$target
    mkdir -p "$work/corpus" "$work/artifacts"
    cp "$corpus"/* "$work/corpus/"
    echo "--- fuzz_$target: ${seconds}s"
    if ! "$dir/fuzz/fuzz_$target" -max_total_time="$seconds" -detect_leaks=1 -max_len=4096 \
        -rss_limit_mb=1024 -artifact_prefix="$work/artifacts/" -print_final_stats=1 \
        "$work/corpus" >"$work/log" 2>&1; then
        failed=1
        mkdir -p build/fuzz-findings
        cp -r "$work/artifacts" "build/fuzz-findings/$target"
        tail -n 60 "$work/log"
        echo "fuzz_$target FAILED; reproducer(s) in build/fuzz-findings/$target:"
        ls "build/fuzz-findings/$target"
    else
        grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$work/log" | tr '\n' ' '
        echo
    fi
done
exit $failed
