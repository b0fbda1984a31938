#!/usr/bin/env bash
# Builds the daemon and shows it at work in the sandbox, as on the device: the
# replay of a capture in which a USB stick with a partition, a two-port serial
# adapter and the cascading Ethernet adapter are plugged in and out
# (demo/plug-and-unplug.capture). Needs root (namespaces, mounts, loop devices).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build/native -DDHH_WERROR=ON >/dev/null
cmake --build build/native -j "$(nproc)" --target device_hotplug_handler hotplug_replay >/dev/null
exec build/native/replay/hotplug_replay demo/plug-and-unplug.capture \
    --daemon "$PWD/build/native/daemon/device_hotplug_handler"
