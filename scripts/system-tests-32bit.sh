#!/usr/bin/env bash
# The system tests against the device's builds of the daemon: the 32-bit x86
# one (m32) and the 32-bit ARM one (armhf, linked statically so that it needs
# no ARM libraries inside the sandbox's root). The kernel starts them through
# binfmt_misc and qemu-user-static; the test programs themselves stay native,
# and so does the valgrind storm. Usage: system-tests-32bit.sh [m32|armhf]...
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
bash scripts/binfmt.sh
# The native test program serves every daemon; built already when the native stage ran.
cmake -S . -B build/native -DDHH_WERROR=ON >/dev/null
cmake --build build/native -j "$jobs" --target daemon_system_tests
[ $# -gt 0 ] || set -- m32 armhf
for arch in "$@"; do
    case $arch in
        m32) dir=build/m32 options=() ;;
        armhf) dir=build/armhf-daemon options=(-DBUILD_TESTING=OFF -DCMAKE_EXE_LINKER_FLAGS=-static) ;;
        *) echo "unknown architecture: $arch" >&2; exit 2 ;;
    esac
    echo "--- system tests against the $arch daemon"
    cmake -S . -B "$dir" -DDHH_WERROR=ON -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch.cmake" \
        "${options[@]}" >/dev/null
    cmake --build "$dir" -j "$jobs" --target device_hotplug_handler
    DHH_SYSTEM_TEST_DAEMON="$PWD/$dir/daemon/device_hotplug_handler" \
        build/native/tests/system/daemon_system_tests
done
