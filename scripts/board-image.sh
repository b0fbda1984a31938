#!/usr/bin/env bash
# Assembles the emulated boards the board tests boot. Everything comes from
# Debian's armhf packages, fetched with an apt of its own (the host's
# architectures stay untouched) from the archive the host's apt uses, plus the
# ARM daemon and hotplug_capture installed with `cmake --install --strip` as an
# integrator installs them:
# - images/vmlinuz and images/initramfs.gz: Debian's armmp kernel; the
#   initramfs loads the USB, SCSI, virtio and file system modules, then either
#   runs the board under BusyBox init and syslogd, or switches to a disc;
# - images/INIT.ext4, the discs, one per init: Debian's systemd, sysvinit with
#   the inittab's respawn line (sysvinit), sysvinit with the init script alone
#   (sysvinit-script) and OpenRC under supervise-daemon (openrc), each enabled
#   the way an integrator enables it.
# Downloads are kept in the build folder between runs.
# Usage: board-image.sh [BUILD-DIR]   (default build/board)
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
out=$(realpath -m "${1:-build/board}")
images=$out/images
mkdir -p "$images"

# --- Debian's armhf packages, with an apt state of their own
apt_dir=$out/apt
debs=$out/debs
mkdir -p "$apt_dir/state/lists/partial" "$apt_dir/cache/archives/partial" "$debs/partial"
touch "$apt_dir/status"
apt_options=(-o "Dir::State=$apt_dir/state" -o "Dir::State::status=$apt_dir/status"
             -o "Dir::Cache=$apt_dir/cache" -o "Dir::Cache::archives=$debs/"
             -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=/dev/null"
             -o "Dir::Etc::Preferences=/dev/null" -o "Dir::Etc::PreferencesParts=/dev/null"
             -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
             -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root")
board_apt() { apt-get "${apt_options[@]}" "$@"; }

# The host's own archive for its release (a company's mirror, say), so the
# project names none.
# shellcheck source=/dev/null
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
# shellcheck disable=SC2016
archive=$(apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE)' \
              'Identifier: Packages' | awk -v release="$release" '$2 == release { print $1; exit }')
[ -n "$archive" ] || { echo "board-image: the host's apt has no source for '$release'" >&2; exit 1; }
sources="deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $archive $release main"
update() { echo "$sources" >"$apt_dir/sources.list"; board_apt update -qq; }
if [ "$(cat "$apt_dir/sources.list" 2>/dev/null)" != "$sources" ] ||
   ! compgen -G "$apt_dir/state/lists/*_Packages" >/dev/null; then
    update
fi

# What installing PACKAGES on an empty system brings: NAME VERSION lines.
closure() { board_apt -s install --no-install-recommends "$@" | sed -n 's/^Inst \([^ ]*\) (\([^ ]*\) .*/\1 \2/p'; }
# Into $debs; the lists are read again once if the archive has moved on.
fetch() {
    board_apt install --download-only -y -qq --no-install-recommends "$@" >/dev/null ||
        { update; board_apt install --download-only -y -qq --no-install-recommends "$@" >/dev/null; }
}
deb() { find "$debs" -maxdepth 1 -name "${1}_${2//:/%3a}_*.deb" | sort -V | tail -n 1; }
extract() { dpkg-deb --fsys-tarfile "$1" | tar -x --keep-directory-symlink -C "$2" "${@:3}"; }

kernel_package=$(apt-cache "${apt_options[@]}" depends linux-image-armmp |
                 awk '/Depends: linux-image-/ { print $2; exit }')
# Taken apart by hand, without what they depend on.
singles=("$kernel_package" busybox-static acct)
have() {
    local package
    for package; do [ -n "$(deb "$package" "*")" ] || return 1; done
}
have "${singles[@]}" ||
    (cd "$debs" && { board_apt download -qq "${singles[@]}" ||
                     { update; board_apt download -qq "${singles[@]}"; }; })

# --- kernel and modules
kernel_tree=$out/kernel/$kernel_package
if [ ! -d "$kernel_tree/boot" ]; then
    rm -rf "$kernel_tree.tmp"
    mkdir -p "$kernel_tree.tmp"
    extract "$(deb "$kernel_package" "*")" "$kernel_tree.tmp"
    mv "$kernel_tree.tmp" "$kernel_tree"
fi
version=$(basename "$(ls -d "$kernel_tree"/lib/modules/*)")
depmod -b "$kernel_tree" "$version"
cp "$kernel_tree/boot/vmlinuz-$version" "$images/vmlinuz"

# --- the daemon and hotplug_capture for ARM, installed as the README tells
arm_build=$out/armhf
cmake -S "$source" -B "$arm_build" -DCMAKE_TOOLCHAIN_FILE="$source/cmake/toolchain-armhf.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DDHH_WERROR=ON >/dev/null
cmake --build "$arm_build" -j "$(nproc)" >/dev/null
# Images without tmpfiles.d get the directories from the install, as the recipes
# have it; the option touches install rules only, so nothing is rebuilt.
install_daemon() {
    cmake -DDHH_INSTALL_RUNTIME_DIRECTORIES="${2:-OFF}" "$arm_build" >/dev/null
    DESTDIR=$1 cmake --install "$arm_build" --strip >/dev/null
}

busybox_links() {
    local applet
    for applet in $(qemu-arm "$1/bin/busybox" --list-full); do
        [ -e "$1/$applet" ] || [ -L "$1/$applet" ] && continue
        mkdir -p "$1/$(dirname "$applet")"
        ln -s /bin/busybox "$1/$applet"
    done
}

# --- the initramfs: BusyBox, the modules, the first stage; the BusyBox board
root=$out/root
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,etc/init.d,proc,sys,dev,tmp,run,var/log,lib,mnt,root}
install_daemon "$root"

# The libraries the ARM programs link, from the cross toolchain's C library.
arm_lib=/usr/arm-linux-gnueabihf/lib
needed() { arm-linux-gnueabihf-readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
for program in "$root"/usr/sbin/* "$root"/usr/bin/*; do
    [ -f "$program" ] || continue
    for library in $(needed "$program") ld-linux-armhf.so.3; do
        cp -L "$arm_lib/$library" "$root/lib/"
    done
done

# Modules with their dependencies, in load order.
modules=(xhci-pci usb-storage sd_mod ftdi_sio cdc_ether msdos vfat nls_cp437 nls_ascii ext4
         exfat nls_utf8 virtio_mmio virtio_blk)
for module in "${modules[@]}"; do
    modprobe -d "$kernel_tree" -S "$version" --show-depends "$module"
done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' |
while read -r path; do
    relative=${path#"$kernel_tree"/}
    mkdir -p "$root/$(dirname "$relative")"
    cp "$path" "$root/$relative"
    echo "/$relative"
done >"$root/etc/modules.order"

extract "$(deb busybox-static "*")" "$root" ./bin/busybox
busybox_links "$root"
install -m 755 "$source/tests/board/boot" "$root/init"

# BusyBox init: the respawn line exactly as packaging/ ships it.
respawn=$(grep -m 1 '^::respawn:.*device_hotplug_handler' "$source/packaging/sysvinit/inittab")
cat >"$root/etc/inittab" <<EOF
::sysinit:/etc/init.d/rcS
::respawn:/sbin/syslogd -n -O /var/log/messages
$respawn
ttyAMA0::respawn:/sbin/board-agent
EOF
install -m 755 "$source/tests/board/rcS" "$root/etc/init.d/rcS"
install -m 755 "$source/tests/board/board-agent" "$root/sbin/board-agent"
(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet | gzip -1) >"$images/initramfs.gz"

# --- the discs
# Debian's packages for one init, unpacked into a merged-/usr tree as
# debootstrap lays it out; no maintainer script runs, so what they would set up
# is done below as each init's own tools do it.
unpack() {
    local tree=$out/trees/$1 list name version
    shift
    list=$(closure "$@")
    [ -f "$tree.list" ] && [ "$(cat "$tree.list")" = "$list" ] && return
    fetch "$@"
    list=$(closure "$@")  # the fetch may have read newer lists
    rm -rf "$tree"
    mkdir -p "$tree"/usr/{bin,sbin,lib}
    for directory in bin sbin lib; do ln -s "usr/$directory" "$tree/$directory"; done
    while read -r name version; do
        extract "$(deb "$name" "$version")" "$tree"
    done <<<"$list"
    busybox_links "$tree"
    for file in passwd group; do
        cp "$tree/usr/share/base-passwd/$file.master" "$tree/etc/$file"
    done
    echo board >"$tree/etc/hostname"
    echo "# UNCONFIGURED FSTAB FOR BASE SYSTEM" >"$tree/etc/fstab"
    echo "$list" >"$tree.list"
}

disc() {
    local name=$1 tree=$out/trees/$2 disc_root=$out/discs/$1 megabytes
    rm -rf "$disc_root"
    mkdir -p "$(dirname "$disc_root")"
    cp -a "$tree" "$disc_root"
    install_daemon "$disc_root" "$3"
    install -m 755 "$source/tests/board/board-agent" "$disc_root/sbin/board-agent"
    configure_"${name//-/_}" "$disc_root"
    megabytes=$(( $(du -sm "$disc_root" | cut -f 1) + 32 ))
    rm -f "$images/$name.ext4"
    mke2fs -q -t ext4 -d "$disc_root" -L "$name" "$images/$name.ext4" "${megabytes}M" >/dev/null
}

configure_systemd() {
    local unit=device-hotplug-handler.service
    [ -f "$1/usr/lib/systemd/system/$unit" ] || { echo "board-image: no $unit installed" >&2; exit 1; }
    install -m 644 "$source/tests/board/board-agent.service" "$1/etc/systemd/system/"
    systemctl --root="$1" --quiet enable "$unit" board-agent.service
    systemctl --root="$1" --quiet set-default multi-user.target
    # The console is the host's framed shell, not a login prompt.
    systemctl --root="$1" --quiet mask getty.target
    systemd-machine-id-setup --root="$1" >/dev/null 2>&1
}

# Debian's inittab as sysvinit-core's postinst installs it, without gettys; the
# host's shell on the console once runlevel 2 has been entered.
debian_inittab() {
    sed '/^[1-6]:[0-9]*:respawn:.*getty/d' "$1/usr/share/sysvinit/inittab" >"$1/etc/inittab"
    mkdir -p "$1/etc/inittab.d"
    echo "T0:2345:respawn:/sbin/board-agent" >>"$1/etc/inittab"
    extract "$(deb acct "*")" "$1" ./usr/sbin/accton
    # Debian's BusyBox syslogd, writing a file as on the BusyBox board.
    echo 'SYSLOG_OPTS="-O /var/log/messages"' >"$1/etc/default/busybox-syslogd"
}

configure_sysvinit_script() {
    debian_inittab "$1"
    install -m 755 "$source/packaging/sysvinit/device-hotplug-handler" "$1/etc/init.d/"
    mkdir -p "$1/etc/rc2.d"
    ln -s ../init.d/busybox-syslogd "$1/etc/rc2.d/S01busybox-syslogd"
    ln -s ../init.d/device-hotplug-handler "$1/etc/rc2.d/S02device-hotplug-handler"
}

configure_sysvinit() {
    configure_sysvinit_script "$1"
    # The sysvinit form of the respawn line, as packaging/ gives it.
    grep -m 1 '^# dhh:[0-9]*:respawn:.*device_hotplug_handler' \
        "$source/packaging/sysvinit/inittab" | sed 's/^# //' >>"$1/etc/inittab"
}

configure_openrc() {
    debian_inittab "$1"
    install -m 755 "$source/packaging/openrc/device-hotplug-handler" "$1/etc/init.d/"
    # What `rc-update add` makes, as openrc's postinst and an integrator run it.
    ln -s /etc/init.d/cgroups "$1/etc/runlevels/sysinit/cgroups"
    ln -s /etc/init.d/busybox-syslogd "$1/etc/runlevels/default/busybox-syslogd"
    ln -s /etc/init.d/device-hotplug-handler "$1/etc/runlevels/default/device-hotplug-handler"
}

# usr-is-merged: the tree is merged already, and usrmerge would bring in Perl.
common=(base-files base-passwd usr-is-merged busybox-static)
unpack systemd "${common[@]}" systemd systemd-sysv
unpack sysvinit "${common[@]}" sysvinit-core busybox-syslogd
unpack openrc "${common[@]}" sysvinit-core openrc busybox-syslogd
disc systemd systemd OFF
disc sysvinit sysvinit ON
disc sysvinit-script sysvinit ON
disc openrc openrc ON
