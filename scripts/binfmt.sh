#!/usr/bin/env bash
# Lets this machine's kernel start 32-bit x86 and 32-bit ARM programs through
# qemu-user-static, also inside a chroot (flag F: the interpreter is opened
# now, not at exec), so the sandbox can run the device's builds of the daemon.
# Idempotent.
set -euo pipefail

binfmt=/proc/sys/fs/binfmt_misc
if [ ! -e "$binfmt/register" ]; then
    mount -t binfmt_misc binfmt_misc "$binfmt"
fi
register() {
    local name=$1 magic=$2 mask=$3 interpreter=$4
    [ -e "$binfmt/$name" ] && return 0
    echo ":$name:M::$magic:$mask:$interpreter:F" >"$binfmt/register"
    echo "binfmt: $name programs now run through $interpreter"
}
register qemu-i386 \
    '\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00' \
    '\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff' \
    /usr/bin/qemu-i386-static
register qemu-arm \
    '\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00' \
    '\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff' \
    /usr/bin/qemu-arm-static
