#!/usr/bin/env bash
# What a firmware team takes into its image, checked: the install tree under a
# DESTDIR (stripped daemon, man page, unit, tmpfiles), the man page rendering
# without warnings, the systemd unit, the init script, the recipes' paths and
# the hardening of the built daemon.
# Usage: check_packaging.sh SOURCE_DIR BUILD_DIR DAEMON_BINARY
# The grep matches looped over below hold no blanks: word splitting is meant.
# shellcheck disable=SC2013
set -euo pipefail
source_dir=$1 build_dir=$2 daemon=$3

scratch=$(mktemp -d /tmp/dhh-packaging-XXXXXX)
trap 'kill "$(cat "$scratch/pid" 2>/dev/null)" 2>/dev/null || true; rm -rf "$scratch"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
need() { command -v "$1" >/dev/null || { echo "FAIL: $1 is not installed (scripts/setup.sh installs it)"; exit 1; }; }
for tool in readelf man shellcheck systemd-analyze; do need "$tool"; done

echo "--- install into a DESTDIR"
dest=$scratch/dest
expected="/usr/sbin/device_hotplug_handler /usr/share/man/man8/device_hotplug_handler.8
    /usr/lib/systemd/system/device-hotplug-handler.service
    /usr/lib/tmpfiles.d/device-hotplug-handler.conf"
absent_on_host=$(for file in $expected; do [ -e "$file" ] || echo "$file"; done)
DESTDIR=$dest cmake --install "$build_dir" --prefix /usr >"$scratch/install.log"
for file in $expected $(cat "$build_dir/install_manifest.txt"); do
    [ -f "$dest$file" ] || fail "not installed under the DESTDIR: $file"
done
for file in $absent_on_host; do
    [ ! -e "$file" ] || fail "the install wrote the host's $file"
done
if readelf -S "$dest/usr/sbin/device_hotplug_handler" | grep -qE '\.symtab|\.debug'; then
    fail "the installed daemon is not stripped"
fi

echo "--- man page"
warnings=$(MANWIDTH=80 man --warnings -l "$dest/usr/share/man/man8/device_hotplug_handler.8" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man page warnings: $warnings"

echo "--- systemd unit"
# Verified as installed, but with ExecStart at the DESTDIR's binary (verify wants it to exist).
unit=$scratch/device-hotplug-handler.service
sed "s|^ExecStart=/usr/sbin/|ExecStart=$dest/usr/sbin/|" \
    "$source_dir/packaging/systemd/device-hotplug-handler.service" >"$unit"
grep -q '^Restart=always' "$unit" || fail "the unit does not restart the daemon"
verify=$(systemd-analyze verify --man=no "$unit" 2>&1) || fail "systemd-analyze verify: $verify"
if echo "$verify" | grep -q 'device-hotplug-handler'; then fail "systemd-analyze verify: $verify"; fi

echo "--- init script"
script=$source_dir/packaging/sysvinit/device-hotplug-handler
shellcheck "$script" || fail "shellcheck found problems in the init script"
# A stand-in daemon: the script must keep one instance and say so on a second start.
printf '#!/bin/sh\nexec sleep 600\n' >"$scratch/daemon" && chmod +x "$scratch/daemon"
export DAEMON=$scratch/daemon PIDFILE=$scratch/pid
first=$(sh "$script" start)
second=$(sh "$script" start)
case $first in *started*) ;; *) fail "first start: $first" ;; esac
case $second in *"already running"*) ;; *) fail "second start did not find the running one: $second" ;; esac
sh "$script" status >/dev/null || fail "status after start"
sh "$script" stop >/dev/null || fail "stop"
if sh "$script" status >/dev/null; then fail "status after stop says running"; fi

echo "--- recipes"
for recipe in "$source_dir"/packaging/buildroot/*/* "$source_dir"/packaging/yocto/*.bb; do
    for path in $(grep -oE 'packaging/[A-Za-z0-9_./-]+' "$recipe" | sort -u); do
        [ -e "$source_dir/$path" ] || fail "$(basename "$recipe") names $path, which the project lacks"
    done
    for name in $(grep -oE '(device[-_]hotplug[-_]handler[A-Za-z0-9_.-]*\.(service|conf))' "$recipe" | sort -u); do
        [ -n "$(find "$dest" -name "$name")" ] || fail "$(basename "$recipe") names $name, which the install tree lacks"
    done
    for path in $(grep -oE 'usr/[A-Za-z0-9_./-]*[A-Za-z0-9_]' "$recipe" | sort -u); do
        [ -e "$dest/$path" ] || fail "$(basename "$recipe") names $path, which the install tree lacks"
    done
done
for file in "$source_dir"/packaging/systemd/*.service "$source_dir"/packaging/sysvinit/*; do
    for path in $(grep -oE '/usr/sbin/[A-Za-z0-9_]+' "$file" | sort -u); do
        [ -e "$dest$path" ] || fail "$(basename "$file") starts $path, which the install tree lacks"
    done
done

echo "--- hardening of $daemon"
headers=$(readelf -W -h -l -d --dyn-syms "$daemon")
if ! grep -q 'Type:.*DYN' <<<"$headers" || ! grep -q 'FLAGS_1.*PIE' <<<"$headers"; then
    fail "not a PIE"
fi
grep -q 'GNU_RELRO' <<<"$headers" || fail "no RELRO segment"
grep -qE 'BIND_NOW|FLAGS.*NOW' <<<"$headers" || fail "no BIND_NOW: RELRO is partial"
grep -q '__stack_chk_fail' <<<"$headers" || fail "no stack protector"
grep -qE '__[a-z]+_chk@' <<<"$headers" || fail "no _FORTIFY_SOURCE checked functions"

[ "$failures" -eq 0 ] || { echo "$failures packaging check(s) failed"; exit 1; }
echo "packaging: all checks passed"
