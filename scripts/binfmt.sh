#!/usr/bin/env bash
# Lets this machine's kernel start 32-bit x86 programs through qemu-i386-static,
# also inside a chroot (flag F: the interpreter is opened now, not at exec), so
# the sandbox can run the 32-bit daemon. Idempotent.
set -euo pipefail

binfmt=/proc/sys/fs/binfmt_misc
if [ ! -e "$binfmt/register" ]; then
    mount -t binfmt_misc binfmt_misc "$binfmt"
fi
if [ -e "$binfmt/qemu-i386" ]; then
    exit 0
fi
magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00'
mask='\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
echo ":qemu-i386:M::$magic:$mask:/usr/bin/qemu-i386-static:F" >"$binfmt/register"
echo "binfmt: 32-bit x86 programs now run through qemu-i386-static"
