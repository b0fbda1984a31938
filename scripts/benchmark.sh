#!/usr/bin/env bash
# Builds a Release tree and the -m32 daemon, runs the micro-benchmarks and the
# system benchmark, and writes the figures with the machine to
# docs/performance.md. Needs root (the sandbox). Not part of the test command.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
jobs=$(nproc)
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DDHH_WERROR=ON >/dev/null
cmake --build build/bench -j "$jobs" --target device_hotplug_handler dhh_micro_benchmarks \
    dhh_system_benchmark
cmake -S . -B build/bench-m32 -DCMAKE_BUILD_TYPE=Release -DDHH_BUILD_TESTS=OFF \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake >/dev/null
cmake --build build/bench-m32 -j "$jobs" --target device_hotplug_handler

micro=$(build/bench/benchmarks/dhh_micro_benchmarks --benchmark_min_time=0.5 2>/dev/null)
system=$(build/bench/benchmarks/dhh_system_benchmark build/bench/daemon/device_hotplug_handler \
    build/bench-m32/daemon/device_hotplug_handler)

{
    echo "# Performance"
    echo
    echo "Written by \`bash scripts/benchmark.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'):"
    echo "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores,"
    echo "Linux $(uname -r), $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo)."
    echo "Release build (-O3), the daemon's records received by BusyBox syslogd in the sandbox."
    echo
    echo "## Micro-benchmarks"
    echo
    echo '```'
    echo "$micro"
    echo '```'
    echo
    echo "$system"
} >docs/performance.md
cat docs/performance.md
