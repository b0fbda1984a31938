#!/usr/bin/env bash
# Builds everything and runs every check CI runs, stage by stage, printing each
# stage's duration: static checks; the tests as a native 64-bit program; the
# packaging (install tree, unit, init script, recipes) checked against that
# build with the build systems' own tools; the tests as a 32-bit x86 program
# (-m32, the device's word size) and for 32-bit ARM (the device's
# architecture), both through qemu-user; the ARM daemon on an emulated board
# with a real kernel's USB stack under BusyBox init, systemd, sysvinit and
# OpenRC; under AddressSanitizer with UndefinedBehaviorSanitizer and under
# ThreadSanitizer; the system tests against the 32-bit x86 and ARM daemons
# (binfmt_misc and qemu); and the fuzzers for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
durations=()

stage() {
    local name=$1; shift
    local started=$SECONDS
    echo "=== $name"
    "$@"
    durations+=("$(printf '%-10s %4ds' "$name" $((SECONDS - started)))")
    echo "=== $name: done in $((SECONDS - started))s"
}

# suite DIR CTEST-ARGS -- CMAKE-ARGS: configure, build, run the tests.
suite() {
    local dir=$1; shift
    local ctest_args=()
    while [ $# -gt 0 ] && [ "$1" != -- ]; do ctest_args+=("$1"); shift; done
    shift
    cmake -S . -B "$dir" -DDHH_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" "${ctest_args[@]}"
}

# The emulated ARM board under each init: the images from Debian's packages and
# what we install, the scenarios driven through QMP, a capture replayed with the
# native replay.
board() {
    bash scripts/board-image.sh build/board
    python3 tests/board/board_test.py build/board/images build/board/work \
        build/native/replay/hotplug_replay
}

# The packaging checks, then once more from a bare clone, which has no
# Buildroot linter beside it: that check is skipped and said so, the rest run.
packaging() {
    bash scripts/check-packaging.sh build/native
    local clone output
    clone=$(mktemp -d /tmp/dhh-bare-XXXXXX)
    git clone -q . "$clone/device_hotplug_handler"
    output=$(env -u DHH_BUILDROOT_CHECK_PACKAGE CI= \
             bash "$clone/device_hotplug_handler/scripts/check-packaging.sh" build/native 2>&1) ||
        { echo "$output"; rm -rf "$clone"; return 1; }
    rm -rf "$clone"
    grep -q "^SKIPPED: Buildroot's linter" <<<"$output" ||
        { echo "$output"; echo "FAIL: a bare clone does not say the linter was skipped"; return 1; }
    echo "bare clone: every packaging check passed, the linter skipped with a note"
}

stage setup bash scripts/setup.sh
stage lint bash scripts/lint.sh
stage native suite build/native --
stage packaging packaging
stage m32 suite build/m32 -- -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake
stage armhf suite build/armhf -- -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
stage board board
# valgrind and the sanitizers' runtimes do not mix: the storm test runs natively only.
stage sys32 bash scripts/system-tests-32bit.sh m32 armhf
stage asan suite build/asan -LE valgrind -- -DDHH_SANITIZE=address,undefined
stage tsan suite build/tsan -LE valgrind -- -DDHH_SANITIZE=thread
stage fuzz bash scripts/fuzz.sh "${DHH_FUZZ_SECONDS:-60}"

echo
echo "All stages passed:"
printf '  %s\n' "${durations[@]}"
