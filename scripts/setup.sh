#!/usr/bin/env bash
# Installs what building and testing need on a fresh Debian machine; quick when
# everything is there already.
set -euo pipefail

packages=(cmake g++ g++-multilib googletest libgtest-dev qemu-user
          e2fsprogs fdisk util-linux mount iproute2)
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
