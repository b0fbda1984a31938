SUMMARY = "USB hotplug daemon: USB disc mounts and hub-and-port device links"
DESCRIPTION = "Mounts USB disc partitions read-only under /mnt/usb, keeps links \
under /ravo500/devs and writes the cascading Ethernet adapter's info file."
LICENSE = "CLOSED"

# Built from the project's checkout this recipe sits in; for a release, drop
# externalsrc and set SRC_URI to the release's git or tarball.
inherit externalsrc cmake systemd update-rc.d
EXTERNALSRC = "${THISDIR}/../.."

# The package split strips the daemon and keeps its symbols for the -dbg package.
EXTRA_OECMAKE = "-DDHH_BUILD_TESTS=OFF -DDHH_INSTALL_STRIP=OFF \
    -DDHH_SYSTEMD_UNITDIR=${systemd_system_unitdir} \
    -DDHH_TMPFILESDIR=${nonarch_libdir}/tmpfiles.d"

SYSTEMD_SERVICE:${PN} = "device-hotplug-handler.service"
INITSCRIPT_NAME = "device-hotplug-handler"
INITSCRIPT_PARAMS = "defaults 50"

# The install step brings the daemon, the man page, the unit and the tmpfiles.d
# entry (packaging/systemd/device-hotplug-handler.service,
# packaging/tmpfiles.d/device-hotplug-handler.conf); the systemd class drops
# the unit from images without systemd.
do_install:append() {
    if ! ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'true', 'false', d)}; then
        install -D -m 0755 ${S}/packaging/sysvinit/device-hotplug-handler \
            ${D}${sysconfdir}/init.d/device-hotplug-handler
        # No tmpfiles.d without systemd: the image carries the directories.
        install -d -m 0755 ${D}/mnt/usb ${D}/ravo500/devs/cascade
        for port in 1 2 3 4 5 6 7; do
            install -d -m 0755 ${D}/ravo500/devs/usb1-$port
        done
    fi
}

FILES:${PN} += "/mnt/usb /ravo500 ${nonarch_libdir}/tmpfiles.d"
