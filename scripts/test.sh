#!/usr/bin/env bash
# Builds everything and runs every test, as a native 64-bit program and as a
# 32-bit one (-m32, the device's word size, run through qemu-user).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
run_suite() {
    local name=$1; shift
    local dir=build/$name
    echo "=== $name: configure and build"
    cmake -S . -B "$dir" -DDHH_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    echo "=== $name: tests"
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

run_suite native
run_suite m32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake
