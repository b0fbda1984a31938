#!/usr/bin/env bash
# Installs what building and testing need on a fresh Debian machine; quick when
# everything is there already.
set -euo pipefail

# qemu-system-arm, dosfstools, exfatprogs, mtools, kmod and cpio: the emulated
# boards and the sticks plugged into them (scripts/board-image.sh, tests/board).
# python3-magic and flake8: Buildroot's package linter; mandoc: the man pages' lint
# (scripts/check-packaging.sh).
# g++-12-multilib rather than g++-multilib: the latter conflicts with the ARM
# cross compiler (cmake/toolchain-m32.cmake makes up for the header it carries).
packages=(cmake g++ g++-12-multilib g++-arm-linux-gnueabihf googletest libgtest-dev
          libbenchmark-dev qemu-user qemu-user-static clang clang-tidy clang-format cppcheck
          libclang-rt-14-dev valgrind busybox shellcheck systemd man-db groff-base
          e2fsprogs fdisk util-linux mount iproute2 make python3-magic flake8
          qemu-system-arm dosfstools exfatprogs mtools kmod cpio python3 mandoc)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
