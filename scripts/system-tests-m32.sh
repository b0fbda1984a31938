#!/usr/bin/env bash
# The system tests against the 32-bit daemon, the device's word size: the -m32
# daemon runs in the sandbox through binfmt_misc and qemu-i386-static; the
# test programs themselves stay native. The valgrind storm stays native too.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
bash scripts/binfmt-i386.sh
cmake -S . -B build/m32 -DDHH_WERROR=ON -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake >/dev/null
cmake --build build/m32 -j "$jobs" --target device_hotplug_handler
daemon=$PWD/build/m32/daemon/device_hotplug_handler
cmake -S . -B build/sys32 -DDHH_WERROR=ON -DDHH_SYSTEM_TEST_DAEMON="$daemon" >/dev/null
cmake --build build/sys32 -j "$jobs" --target daemon_system_tests
build/sys32/tests/system/daemon_system_tests
