#!/usr/bin/env bash
# Assembles the emulated board the board tests boot: Debian's armmp kernel and
# the USB, SCSI and file system modules it needs, BusyBox init and syslogd, and
# the ARM daemon and hotplug_capture installed with `cmake --install --strip` as
# an integrator installs them, with the C libraries they link. Everything comes
# from Debian's armhf packages, fetched with an apt of its own so the host's
# architectures stay untouched. Downloads and the image are kept in the build
# folder between runs. Usage: board-image.sh [BUILD-DIR]   (default build/board)
# Prints the paths of the kernel and the initramfs.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
out=$(realpath -m "${1:-build/board}")
mkdir -p "$out"

# --- Debian's armhf packages, with an apt state of their own
apt_dir=$out/apt
apt_options=(-o "Dir::State=$apt_dir/state" -o "Dir::Cache=$apt_dir/cache"
             -o "Dir::Etc::SourceList=$apt_dir/sources.list" -o "Dir::Etc::SourceParts=/dev/null"
             -o "Dir::Etc::Preferences=/dev/null" -o "Dir::Etc::PreferencesParts=/dev/null"
             -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
             -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root")
debs=$out/debs
if ! ls "$debs"/linux-image-*-armmp_*.deb "$debs"/busybox-static_*.deb >/dev/null 2>&1; then
    mkdir -p "$apt_dir/state/lists/partial" "$apt_dir/cache/archives/partial" "$debs"
    echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
         "http://deb.debian.org/debian bookworm main" >"$apt_dir/sources.list"
    apt-get "${apt_options[@]}" update -qq
    kernel_package=$(apt-cache "${apt_options[@]}" depends linux-image-armmp |
                     awk '/Depends: linux-image-/ { print $2; exit }')
    (cd "$debs" && apt-get "${apt_options[@]}" download -qq "$kernel_package" busybox-static)
fi

# --- kernel and modules
kernel_tree=$out/kernel
if [ ! -d "$kernel_tree/boot" ]; then
    rm -rf "$kernel_tree.tmp"
    dpkg-deb -x "$(find "$debs" -name "linux-image-*-armmp_*.deb" | head -n 1)" "$kernel_tree.tmp"
    mv "$kernel_tree.tmp" "$kernel_tree"
fi
version=$(basename "$(ls -d "$kernel_tree"/lib/modules/*)")
depmod -b "$kernel_tree" "$version"

# --- the daemon and hotplug_capture for ARM, installed as the README tells
arm_build=$out/armhf
cmake -S "$source" -B "$arm_build" -DCMAKE_TOOLCHAIN_FILE="$source/cmake/toolchain-armhf.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=/usr \
    -DDHH_WERROR=ON >/dev/null
cmake --build "$arm_build" -j "$(nproc)" >/dev/null

root=$out/root
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,etc/init.d,proc,sys,dev,tmp,run,var/log,lib,mnt,root}
DESTDIR=$root cmake --install "$arm_build" --strip >/dev/null

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
modules=(xhci-pci usb-storage sd_mod ftdi_sio cdc_ether msdos vfat nls_cp437 nls_ascii ext4)
for module in "${modules[@]}"; do
    modprobe -d "$kernel_tree" -S "$version" --show-depends "$module"
done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' |
while read -r path; do
    relative=${path#"$kernel_tree"/}
    mkdir -p "$root/$(dirname "$relative")"
    cp "$path" "$root/$relative"
    echo "/$relative"
done >"$root/etc/modules.order"

dpkg-deb --fsys-tarfile "$(find "$debs" -name "busybox-static_*.deb" | head -n 1)" |
    tar -x -O ./bin/busybox >"$root/bin/busybox"
chmod 755 "$root/bin/busybox"
ln -s bin/busybox "$root/init"
for applet in $(qemu-arm "$root/bin/busybox" --list-full); do
    [ -e "$root/$applet" ] && continue
    mkdir -p "$root/$(dirname "$applet")"
    ln -s /bin/busybox "$root/$applet"
done

# --- init: the respawn line exactly as packaging/ ships it for BusyBox init
respawn=$(grep -m 1 '^::respawn:.*device_hotplug_handler' "$source/packaging/sysvinit/inittab")
cat >"$root/etc/inittab" <<EOF
::sysinit:/etc/init.d/rcS
::respawn:/sbin/syslogd -n -O /var/log/messages
$respawn
ttyAMA0::respawn:/sbin/board-agent
EOF
install -m 755 "$source/tests/board/rcS" "$root/etc/init.d/rcS"
install -m 755 "$source/tests/board/board-agent" "$root/sbin/board-agent"

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet | gzip -1) >"$out/initramfs.gz"
echo "$kernel_tree/boot/vmlinuz-$version"
echo "$out/initramfs.gz"
