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
    dhh_system_benchmark hotplug_capture dhh_capture_benchmark
cmake -S . -B build/bench-m32 -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake >/dev/null
cmake --build build/bench-m32 -j "$jobs" --target device_hotplug_handler
# The daemon without two of its choices, to show what each is worth: the
# pause after a read, and the C++ runtime linked in.
cmake -S . -B build/bench-no-pause -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCMAKE_CXX_FLAGS=-DDHH_LISTENER_PAUSE_US=0 >/dev/null
cmake --build build/bench-no-pause -j "$jobs" --target device_hotplug_handler
cmake -S . -B build/bench-shared-runtime -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DDHH_STATIC_LIBSTDCXX=OFF >/dev/null
cmake --build build/bench-shared-runtime -j "$jobs" --target device_hotplug_handler

# Medians of five runs: a shared machine's other load moves single runs.
micro=$(build/bench/benchmarks/dhh_micro_benchmarks --benchmark_min_time=0.2 \
    --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2>/dev/null |
    grep -E '^(-|Benchmark|BM_.*_median)')
benchmark=build/bench/benchmarks/dhh_system_benchmark
system=$($benchmark build/bench/daemon/device_hotplug_handler \
    build/bench-m32/daemon/device_hotplug_handler)
no_pause=$($benchmark --only=burst build/bench-no-pause/daemon/device_hotplug_handler)
shared_runtime=$($benchmark --only=idle build/bench-shared-runtime/daemon/device_hotplug_handler)
# DHH_CAPTURE_BEFORE="LABEL=PATH": an earlier hotplug_capture, measured beside this one.
capture=$(build/bench/benchmarks/dhh_capture_benchmark \
    "this build=build/bench/capture/hotplug_capture" ${DHH_CAPTURE_BEFORE:+"$DHH_CAPTURE_BEFORE"})

{
    echo "# Performance"
    echo
    echo "Written by \`bash scripts/benchmark.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'):"
    echo "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores,"
    echo "Linux $(uname -r), $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo)."
    echo "Release build (-O3), the daemon's records received by BusyBox syslogd in the sandbox."
    echo
    cat <<'EOF'
How to read the tables:

- Paced runs send what is due every 100 µs in one `sendmmsg`; "sent" is the rate reached. The
  daemon's listener runs at real-time priority and takes the CPU from a sender that shares its
  core, as it would from the kernel's emitting thread, so the rate reached can stay below the one
  aimed at: it is the rate the daemon had to keep up with. The highest such rate without a loss
  closes the table.
- events/s: from the first send to the last link present (adds) or gone (removes), 10,000 each.
- The unpaced sender, one datagram per system call flat out, can outrun what any listener drains
  from the socket's receive buffer (its size is measured below); the overflow ends the daemon as
  designed (its restart's scan brings the links back).
- floor: the work per event that cannot go (lstat, symlink or unlink, two records to syslogd)
  done by a bare loop in one process. BusyBox syslogd, at 6 to 8 µs per record, takes most of one
  core at these rates, so the floor is about the rate syslogd sustains.
- VmRSS counts the C library's pages in full although every process shares them; the figures in
  brackets (proportional set) show the daemon's own share.
EOF
    echo
    echo "## Micro-benchmarks"
    echo
    echo '```'
    echo "$micro"
    echo '```'
    echo
    echo "$system"
    echo
    echo "## Without the pause after a read"
    echo
    echo "The same bursts with a daemon built without the listener's 0.2 ms pause after a read"
    echo "(\`-DDHH_LISTENER_PAUSE_US=0\`): at real-time priority the listener then takes the CPU from"
    echo "the sender for every datagram, and the paced sender falls behind the rate aimed at."
    echo "$no_pause" | grep -v '^## '
    echo
    echo "## With the shared C++ runtime"
    echo
    echo "A daemon built with \`-DDHH_STATIC_LIBSTDCXX=OFF\`, for comparison with the footprint above:"
    echo
    echo "$shared_runtime"
    echo
    echo "## hotplug_capture"
    echo
    echo "CPU time of the capture tool per datagram, taking a burst of 5,000 serial-adapter adds"
    echo "queued while it stood still: what it costs beside the daemon during a fault"
    echo "(\`benchmarks/CaptureBenchmark.cpp\`, system calls included)."
    echo
    echo "$capture"
} >docs/performance.md
cat docs/performance.md
