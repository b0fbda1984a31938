#!/usr/bin/env bash
# Builds the daemon and shows it at work in the sandbox, as on the device: a USB
# stick with a real ext4 partition, a two-port serial adapter and the cascading
# Ethernet adapter are plugged in and out. Needs root (namespaces, mounts).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build/native -DDHH_WERROR=ON >/dev/null
cmake --build build/native -j "$(nproc)" --target device_hotplug_handler hotplug_demo >/dev/null
exec build/native/demo/hotplug_demo "$PWD/build/native/daemon/device_hotplug_handler"
