SUMMARY = "USB hotplug daemon: USB disc mounts and hub-and-port device links"
DESCRIPTION = "Mounts USB disc partitions read-only under /mnt/usb, keeps links \
under /ravo500/devs and writes the cascading Ethernet adapter's info file."
HOMEPAGE = "https://git.ravo500.example/device_hotplug_handler"
SECTION = "base"
LICENSE = "CLOSED"

# The release's repository. To build a checkout instead, the integrator's
# local.conf (not this recipe) says:
#   INHERIT += "externalsrc"
#   EXTERNALSRC:pn-device-hotplug-handler = "/path/to/device_hotplug_handler"
SRC_URI = "git://git.ravo500.example/device_hotplug_handler.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

inherit cmake systemd update-rc.d

# "capture": hotplug_capture, the field tool, in a package of its own.
PACKAGECONFIG ??= "capture"
PACKAGECONFIG[capture] = "-DDHH_BUILD_CAPTURE=ON,-DDHH_BUILD_CAPTURE=OFF"

# The board's /ravo500/devs/usbH-P directories, blank-separated, e.g.
# DHH_PORT_DIRECTORIES = "usb1-1 usb1-2 usb2-1" in a bbappend or local.conf.
# Empty: the project's default, usb1-1 to usb1-7.
DHH_PORT_DIRECTORIES ??= ""

# The image brings its own hardening flags, and the package split strips the
# daemon and keeps its symbols for the -dbg package.
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DDHH_HARDENING=OFF \
    -DDHH_INSTALL_RUNTIME_DIRECTORIES=ON \
    -DDHH_SYSTEMD_UNITDIR=${systemd_system_unitdir} \
    -DDHH_TMPFILESDIR=${nonarch_libdir}/tmpfiles.d \
    ${@'-DDHH_PORT_DIRECTORIES=\'%s\'' % d.getVar('DHH_PORT_DIRECTORIES') if d.getVar('DHH_PORT_DIRECTORIES') else ''}"

do_install:append() {
    install -D -m 0755 ${S}/packaging/sysvinit/device-hotplug-handler \
        ${D}${sysconfdir}/init.d/device-hotplug-handler
}

PACKAGE_BEFORE_PN = "${PN}-capture"

FILES:${PN} += "/mnt/usb /ravo500 ${nonarch_libdir}/tmpfiles.d"
FILES:${PN}-capture = "${sbindir}/hotplug_capture ${mandir}/man8/hotplug_capture.8"

# The respawn line below needs /etc/inittab in place before the postinst runs.
RDEPENDS:${PN} += "${@bb.utils.contains('VIRTUAL-RUNTIME_init_manager', 'sysvinit', 'sysvinit-inittab', '', d)} \
    ${@bb.utils.contains('VIRTUAL-RUNTIME_init_manager', 'busybox', 'busybox-inittab', '', d)}"

# Both are always installed; the systemd class removes the init script from
# images without sysvinit and the unit from images without systemd. With both
# in DISTRO_FEATURES, systemd prefers the unit of the same name.
SYSTEMD_SERVICE:${PN} = "device-hotplug-handler.service"
INITSCRIPT_NAME = "device-hotplug-handler"
INITSCRIPT_PARAMS = "defaults 50"

# Under sysvinit or BusyBox init, init restarts the daemon one second after it
# exits (it exits by design and relies on that); the init script then leaves
# it to init. systemd ignores /etc/inittab.
pkg_postinst:${PN}() {
    inittab=$D${sysconfdir}/inittab
    line='${@'::respawn:' if d.getVar('VIRTUAL-RUNTIME_init_manager') == 'busybox' else 'dhh:2345:respawn:'}/bin/sh -c "sleep 1; exec ${sbindir}/device_hotplug_handler"'
    if [ -f "$inittab" ] && ! grep -qxF "$line" "$inittab"; then
        echo "$line" >>"$inittab"
    fi
}

pkg_postrm:${PN}() {
    inittab=$D${sysconfdir}/inittab
    if [ -f "$inittab" ]; then
        sed -i '/:respawn:.*device_hotplug_handler/d' "$inittab"
    fi
}
