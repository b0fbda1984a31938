#!/usr/bin/env bash
# What a firmware team takes into its image, checked with the build systems'
# own tools: install tree, man pages, systemd unit and tmpfiles.d entry, init
# scripts, Buildroot package, Yocto recipe, a device configure, the built
# daemon's hardening and version. Runs in seconds, as root.
# Usage: check-packaging.sh BUILD_DIR (a native build of this checkout)
# The grep matches looped over below hold no blanks: word splitting is meant.
# The ${...} in single quotes are BitBake's or a child shell's: not expanded here.
# shellcheck disable=SC2013,SC2016
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/.." && pwd)
build_dir=$(cd "${1:?usage: check-packaging.sh BUILD_DIR}" && pwd)
daemon=$build_dir/daemon/device_hotplug_handler
# Buildroot's utils/check-package: the copy beside the checkout in CI, or one
# named by DHH_BUILDROOT_CHECK_PACKAGE; a bare clone has neither and skips it.
linter=${DHH_BUILDROOT_CHECK_PACKAGE:-$source_dir/../shared/tools/buildroot-check-package/check-package}

scratch=$(mktemp -d /tmp/dhh-packaging-XXXXXX)
cleanup() {
    for pid in $(cat "$scratch"/*.pid 2>/dev/null); do kill "$pid" 2>/dev/null || true; done
    rm -rf "$scratch"
}
trap cleanup EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# grep -q on a pipe: it stops reading at the first match, and with pipefail
# the writer's SIGPIPE would turn the match into a failure.
has() { grep "$@" >/dev/null; }
die() { echo "FAIL: $*"; exit 1; }
[ "$(id -u)" -eq 0 ] || die "needs root (a private mount namespace hides qemu-user)"
for tool in readelf strings man mandoc systemd-analyze systemd-tmpfiles busybox make cc unshare flake8; do
    command -v "$tool" >/dev/null || die "$tool is not installed (scripts/setup.sh installs it)"
done
# Debian's python3, which has the linter's modules, whatever python3 is first on PATH.
python=/usr/bin/python3
"$python" -c 'import magic' 2>/dev/null || die "python3-magic is not installed (scripts/setup.sh installs it)"
if [ ! -f "$linter" ] && [ "${CI:-}" = true ]; then
    die "Buildroot's linter is not at $linter"
fi
[ -x "$daemon" ] || die "no daemon in $build_dir: build it first"
cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$build_dir/CMakeCache.txt"; }
version=$(cache_value CMAKE_PROJECT_VERSION)

echo "--- install into a DESTDIR: the unit's ExecStart follows the prefix"
expected="/usr/sbin/device_hotplug_handler /usr/share/man/man8/device_hotplug_handler.8
    /usr/lib/systemd/system/device-hotplug-handler.service
    /usr/lib/tmpfiles.d/device-hotplug-handler.conf"
absent_on_host=$(for file in $expected; do [ -e "$file" ] || echo "$file"; done)
# Three prefixes: the configured one (no --prefix), the image's and another.
for prefix in "" /opt/dhh /usr; do
    dest=$scratch/dest${prefix//\//-}
    DESTDIR=$dest cmake --install "$build_dir" ${prefix:+--prefix "$prefix"} --strip \
        >"$scratch/install.log" || die "install (prefix ${prefix:-as configured}): $(cat "$scratch/install.log")"
    for file in $(cat "$build_dir/install_manifest.txt"); do
        [ -f "$dest$file" ] || fail "not installed under the DESTDIR: $file"
    done
    unit_file=$(find "$dest" -name device-hotplug-handler.service)
    exec_start=$(sed -n 's/^ExecStart=//p' "$unit_file")
    [ -x "$dest$exec_start" ] ||
        fail "prefix ${prefix:-as configured}: the unit starts $exec_start, which the install tree lacks"
done
for file in $absent_on_host; do
    [ ! -e "$file" ] || fail "the install wrote the host's $file"
done

for file in /usr/sbin/device_hotplug_handler /usr/share/man/man8/device_hotplug_handler.8 \
        /usr/lib/systemd/system/device-hotplug-handler.service \
        /usr/lib/tmpfiles.d/device-hotplug-handler.conf; do
    [ -f "$dest$file" ] || fail "not installed under the DESTDIR: $file"
done
installed=$dest/usr/sbin/device_hotplug_handler
if readelf -S "$installed" | has -E '\.symtab|\.debug'; then
    fail "cmake --install --strip left the daemon's symbols in"
fi
strings "$installed" | has -x "device_hotplug_handler $version" ||
    fail "strings does not show \"device_hotplug_handler $version\" in the installed daemon"

echo "--- man pages: man and mandoc's lint find nothing to warn about"
for page in "$source_dir"/docs/*.[1-8]; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$(basename "$page"): man warns: $warnings"
    warnings=$(mandoc -Tlint -Wwarning "$page" 2>&1) || fail "$(basename "$page"): mandoc: $warnings"
done

echo "--- systemd unit"
unit=$dest/usr/lib/systemd/system/device-hotplug-handler.service
# Options that give the service a mount namespace of its own (its mounts would
# be invisible to the rest of the system), a device policy (mounting /dev/sdX
# fails) or no real-time priority for the listener.
banned='ProtectSystem|ProtectHome|Private[A-Za-z]*|ProtectKernel[A-Za-z]*|ProtectControlGroups'
banned+='|ProtectProc|ProcSubset|ReadOnlyPaths|ReadWritePaths|InaccessiblePaths|ExecPaths'
banned+='|NoExecPaths|TemporaryFileSystem|BindPaths|BindReadOnlyPaths|RootDirectory|RootImage'
banned+='|MountImages|ExtensionImages|ExtensionDirectories|MountFlags|MountAPIVFS|LogNamespace'
banned+='|DynamicUser|DeviceAllow|DevicePolicy|ProtectClock|RestrictRealtime'
if grep -nE "^($banned)=" "$unit"; then fail "the unit sets an option it must not (above)"; fi
for line in '^Type=exec$' '^Restart=always$' '^RestartSec=1s$' \
        '^CapabilityBoundingSet=.*CAP_SYS_ADMIN' '^CapabilityBoundingSet=.*CAP_SYS_NICE'; do
    grep -qE "$line" "$unit" || fail "the unit lacks $line"
done
sed -n '/^\[Unit\]/,/^\[/p' "$unit" | has -x 'StartLimitIntervalSec=0' ||
    fail "the unit's [Unit] section lacks StartLimitIntervalSec=0: systemd gives up restarting"
# verify wants ExecStart to exist: point it at the DESTDIR's daemon.
sed "s|^ExecStart=|ExecStart=$dest|" "$unit" >"$scratch/device-hotplug-handler.service"
verify=$(systemd-analyze verify --man=no "$scratch/device-hotplug-handler.service" 2>&1) ||
    fail "systemd-analyze verify: $verify"
if grep -q 'device-hotplug-handler' <<<"$verify"; then fail "systemd-analyze verify: $verify"; fi
security=$(systemd-analyze security --offline=true --threshold=45 "$unit" 2>&1) ||
    fail "systemd-analyze security: exposure above 4.5: $(tail -1 <<<"$security")"

echo "--- tmpfiles.d entry holds the build's port directories"
systemd-tmpfiles --create --root="$scratch/root" "$dest/usr/lib/tmpfiles.d/device-hotplug-handler.conf" ||
    fail "systemd-tmpfiles rejects the entry"
for port in $(cache_value DHH_PORT_DIRECTORIES | tr ';' ' ') cascade; do
    [ -d "$scratch/root/ravo500/devs/$port" ] || fail "tmpfiles.d does not make /ravo500/devs/$port"
done
[ -d "$scratch/root/mnt/usb" ] || fail "tmpfiles.d does not make /mnt/usb"

echo "--- Buildroot's linter"
br=$scratch/br
mkdir -p "$br/package"
cp -r "$source_dir"/packaging/buildroot/{external.desc,Config.in,external.mk} "$br/"
cp -r "$source_dir"/packaging/buildroot/package/device-hotplug-handler "$br/package/"
install -m 0644 "$source_dir/packaging/sysvinit/device-hotplug-handler" \
    "$br/package/device-hotplug-handler/S50device_hotplug_handler"
if [ -f "$linter" ]; then
    lint=$(cd "$br" && "$python" "$linter" -b external.desc Config.in external.mk package/device-hotplug-handler/* 2>&1) ||
        fail "Buildroot's linter: $lint"
    grep -q '^0 warnings generated' <<<"$lint" || fail "Buildroot's linter: $lint"
else
    echo "SKIPPED: Buildroot's linter, not found at $linter; set DHH_BUILDROOT_CHECK_PACKAGE to Buildroot's utils/check-package to run it"
fi

# The recipes' own make and shell, run outside Buildroot: a stub for what the
# package infrastructure would add.
cat >"$scratch/buildroot.mk" <<EOF
BR2_EXTERNAL_DEVICE_HOTPLUG_HANDLER_PATH = $source_dir/packaging/buildroot
qstrip = \$(strip \$(subst ",,\$(1)))
define sep


endef
include \$(BR2_EXTERNAL_DEVICE_HOTPLUG_HANDLER_PATH)/external.mk
finalize:
	\$(foreach hook,\$(DEVICE_HOTPLUG_HANDLER_TARGET_FINALIZE_HOOKS),\$(\$(hook))\$(sep))
conf-opts:
	@printf '%s\n' \$(DEVICE_HOTPLUG_HANDLER_CONF_OPTS)
EOF
# The init script as on the device, but with its paths in the scratch folder.
init_script() {
    sed -e "s|/usr/sbin/|$scratch/usr/sbin/|g" -e "s|/var/run/|$scratch/|g" \
        -e "s|/etc/inittab|$1|g" "$source_dir/packaging/sysvinit/device-hotplug-handler"
}
printf '#include <unistd.h>\nint main(void) { for (;;) pause(); }\n' >"$scratch/standin.c"
mkdir -p "$scratch/usr/sbin" "$scratch/busybox"
cc -o "$scratch/usr/sbin/device_hotplug_handler" "$scratch/standin.c"
for applet in sh start-stop-daemon grep rm printf sleep cat echo; do
    ln -s "$(command -v busybox)" "$scratch/busybox/$applet"
done
bb() { PATH=$scratch/busybox:$PATH busybox sh "$@"; }
running_standins() {
    local count=0 exe
    for exe in /proc/[0-9]*/exe; do
        [ "$(readlink "$exe" 2>/dev/null)" != "$scratch/usr/sbin/device_hotplug_handler" ] || count=$((count + 1))
    done
    echo "$count"
}

echo "--- inittab: the recipes add the respawn line once, and the init script sees it"
inittab_sample='::sysinit:/etc/init.d/rcS
console::respawn:/sbin/getty -L console 0 vt100
::shutdown:/etc/init.d/rcK'
yocto_postinst=$(sed -n '/^pkg_postinst:${PN}() {$/,/^}$/p' "$source_dir/packaging/yocto/"*.bb | sed '1d;$d')
[ -n "$yocto_postinst" ] || fail "no pkg_postinst in the Yocto recipe"
for init in buildroot-busybox buildroot-sysv yocto-sysvinit yocto-busybox; do
    target=$scratch/target-$init
    mkdir -p "$target/etc"
    echo "$inittab_sample" >"$target/etc/inittab"
    for run in 1 2; do
        case $init in
            buildroot-busybox) make -s -f "$scratch/buildroot.mk" finalize TARGET_DIR="$target" BR2_INIT_BUSYBOX=y ;;
            buildroot-sysv) make -s -f "$scratch/buildroot.mk" finalize TARGET_DIR="$target" BR2_INIT_SYSV=y ;;
            yocto-*)
                action='dhh:2345:respawn:'
                [ "$init" = yocto-busybox ] && action='::respawn:'
                # What BitBake expands before the shell runs.
                D=$target bb -c "$(sed -e 's|${sysconfdir}|/etc|g' -e 's|${sbindir}|/usr/sbin|g' \
                    -e "s|\${@[^}]*}|$action|g" <<<"$yocto_postinst")" ;;
        esac || fail "$init: the inittab step failed (run $run)"
    done
    lines=$(grep -c 'device_hotplug_handler' "$target/etc/inittab" || true)
    [ "$lines" -eq 1 ] || fail "$init: $lines respawn lines after two runs, not 1"
    case $init in
        *busybox) format='^::respawn:' ;;
        *) format='^[a-z0-9]{1,4}:2345:respawn:' ;;
    esac
    grep -E "$format" "$target/etc/inittab" | has 'sleep 1; exec /usr/sbin/device_hotplug_handler' ||
        fail "$init: no respawn line for this init's format, one second apart"
    init_script "$target/etc/inittab" >"$scratch/init-$init"
    bb "$scratch/init-$init" start >/dev/null
    [ "$(running_standins)" -eq 0 ] || fail "$init: the init script started a daemon that init owns"
done

echo "--- Yocto recipe: the rules of oelint-adv (not packaged for Debian) that it once broke"
recipe=$(echo "$source_dir"/packaging/yocto/*.bb)
for variable in HOMEPAGE SRC_URI; do
    has -q "^$variable = " "$recipe" || fail "the recipe has no $variable"
done
! has -qE '^inherit .*externalsrc' "$recipe" || fail "the recipe inherits externalsrc: that is local.conf's"
files_line=$(grep -n '^FILES:' "$recipe" | head -n 1 | cut -d: -f1)
rdepends_line=$(grep -n '^RDEPENDS:' "$recipe" | head -n 1 | cut -d: -f1)
if [ -z "$files_line" ] || [ -z "$rdepends_line" ] || [ "$files_line" -gt "$rdepends_line" ]; then
    fail "the recipe's FILES must come before its RDEPENDS"
fi
has -q 'busybox-inittab' "$recipe" || fail "under BusyBox init the recipe does not pull in /etc/inittab"
has -q '^FILES:${PN}-capture = .*hotplug_capture' "$recipe" || fail "hotplug_capture is not a package of its own"
for recipe_file in "$recipe" "$source_dir"/packaging/buildroot/package/*/*.mk; do
    has -q 'DHH_BUILD_CAPTURE=OFF' "$recipe_file" || fail "$(basename "$recipe_file") cannot leave the capture tool out"
done
openrc=$source_dir/packaging/openrc/device-hotplug-handler
has -q '^DEVICE_HOTPLUG_HANDLER_INSTALL_INIT_OPENRC\|^define DEVICE_HOTPLUG_HANDLER_INSTALL_INIT_OPENRC' \
    "$source_dir"/packaging/buildroot/package/*/*.mk || fail "Buildroot with OpenRC falls back to the SysV script"
for setting in '^supervisor=supervise-daemon$' '^respawn_delay=1$' '^respawn_max=0$' '^command=/usr/sbin/device_hotplug_handler$'; do
    has -q "$setting" "$openrc" || fail "the OpenRC script lacks $setting"
done
minimum=$(sed -n 's/^cmake_minimum_required(VERSION \([0-9]*\)\.\([0-9]*\)).*/\1_\2/p' "$source_dir/CMakeLists.txt")
has -q "select BR2_HOST_CMAKE_AT_LEAST_$minimum" "$source_dir"/packaging/buildroot/package/*/Config.in ||
    fail "Buildroot's package does not select a host CMake of at least ${minimum/_/.}"

echo "--- init script under BusyBox: a stale pid file and a reused pid"
init_script /nonexistent >"$scratch/init"
pidfile=$scratch/device_hotplug_handler.pid
sleep 600 &
unrelated=$!
echo "$unrelated" >"$scratch/unrelated.pid"
echo "$unrelated" >"$pidfile"
if status=$(bb "$scratch/init" status); then fail "status with a reused pid says: $status"; fi
bb "$scratch/init" start >/dev/null || fail "start refused with a reused pid in the pid file"
[ "$(running_standins)" -eq 1 ] || fail "start did not start the daemon"
started=$(cat "$pidfile")
[ "$started" != "$unrelated" ] || fail "start kept the stale pid file"
cp "$pidfile" "$scratch/standin.pid"
bb "$scratch/init" status >/dev/null || fail "status after start says not running"
if bb "$scratch/init" start >/dev/null; then fail "a second start did not refuse"; fi
[ "$(running_standins)" -eq 1 ] || fail "a second start started a second daemon"
bb "$scratch/init" force-reload >/dev/null || fail "force-reload, which Debian's tools send, failed"
[ "$(running_standins)" -eq 1 ] || fail "force-reload left $(running_standins) daemons"
cp "$pidfile" "$scratch/standin.pid"
bb "$scratch/init" stop >/dev/null || fail "stop failed"
kill -0 "$unrelated" 2>/dev/null || fail "stop killed the unrelated process that reused the pid"
[ "$(running_standins)" -eq 0 ] || fail "stop left the daemon running"
echo "$unrelated" >"$pidfile"
bb "$scratch/init" stop >/dev/null || fail "stop with a reused pid in the pid file failed"
kill -0 "$unrelated" 2>/dev/null || fail "stop with a reused pid killed the unrelated process"

echo "--- device configures without qemu-user, as the recipes configure"
mapfile -t buildroot_options < <(make -s -f "$scratch/buildroot.mk" conf-opts \
    BR2_PACKAGE_DEVICE_HOTPLUG_HANDLER_PORT_DIRECTORIES='"usb1-2 usb2-4"')
: >"$scratch/not-a-program"
# A private mount namespace where every qemu binary is an empty, non-executable file.
if ! configure=$(unshare --mount --propagation private bash -euc '
        for emulator in /usr/bin/qemu-*; do mount --bind "$1" "$emulator"; done
        shift
        cmake -S "$1" -B "$2/armhf" -DCMAKE_TOOLCHAIN_FILE="$1/cmake/toolchain-armhf.cmake" "${@:3}"
        cmake -S "$1" -B "$2/m32" -DCMAKE_TOOLCHAIN_FILE="$1/cmake/toolchain-m32.cmake" \
            -DBUILD_TESTING=OFF' \
        configure "$scratch/not-a-program" "$source_dir" "$scratch/device" "${buildroot_options[@]}" 2>&1); then
    fail "device configure without qemu-user: $configure"
fi
for cache in armhf/CMakeCache.txt:DHH_QEMU_ARM m32/CMakeCache.txt:DHH_QEMU_I386; do
    grep -qx "${cache#*:}:FILEPATH=${cache#*:}-NOTFOUND" "$scratch/device/${cache%:*}" 2>/dev/null ||
        fail "the device configure still found qemu-user (${cache#*:})"
done
ports=$(sed -n 's|^d /ravo500/devs/\(usb[^ ]*\) .*|\1|p' "$scratch/device/armhf/packaging/device-hotplug-handler.conf" \
    2>/dev/null | tr '\n' ' ')
[ "$ports" = "usb1-2 usb2-4 " ] || fail "Buildroot's port directories reach tmpfiles.d as \"$ports\""

echo "--- hotplug_replay configures and installs alone, without GoogleTest"
if ! configure=$(cmake -S "$source_dir" -B "$scratch/replay" -DBUILD_TESTING=OFF -DDHH_BUILD_REPLAY=ON \
        -DDHH_GOOGLETEST_SOURCE_DIR=/nonexistent 2>&1); then
    fail "replay-alone configure: $configure"
fi
for installed in '/bin" TYPE EXECUTABLE FILES .*/hotplug_replay"' '/man1" TYPE FILE FILES .*/hotplug_replay\.1"'; do
    grep -q "$installed" "$scratch/replay/replay/cmake_install.cmake" 2>/dev/null ||
        fail "the replay-alone build does not install what matches $installed"
done

echo "--- recipes name what the project and the install tree have"
for recipe in "$source_dir"/packaging/buildroot/package/*/* "$source_dir"/packaging/yocto/*.bb; do
    for path in $(grep -oE 'packaging/[A-Za-z0-9_./-]+' "$recipe" | sort -u); do
        [ -e "$source_dir/$path" ] || fail "$(basename "$recipe") names $path, which the project lacks"
    done
    for name in $(grep -oE 'device[-_]hotplug[-_]handler[A-Za-z0-9_.-]*\.(service|conf)' "$recipe" | sort -u); do
        [ -n "$(find "$dest" -name "$name")" ] || fail "$(basename "$recipe") names $name, which the install tree lacks"
    done
    for path in $(grep -oE 'usr/[A-Za-z0-9_./-]*[A-Za-z0-9_]' "$recipe" | sort -u); do
        [ -e "$dest/$path" ] || fail "$(basename "$recipe") names $path, which the install tree lacks"
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
