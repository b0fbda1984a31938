################################################################################
#
# device-hotplug-handler
#
################################################################################

DEVICE_HOTPLUG_HANDLER_VERSION = 1.0
# The project's checkout; point it at a release tarball for production images.
DEVICE_HOTPLUG_HANDLER_SITE = $(DEVICE_HOTPLUG_HANDLER_PKGDIR)/../../..
DEVICE_HOTPLUG_HANDLER_SITE_METHOD = local
DEVICE_HOTPLUG_HANDLER_LICENSE = Proprietary
# Buildroot strips the target itself (or keeps the symbols, BR2_STRIP_none).
DEVICE_HOTPLUG_HANDLER_CONF_OPTS = -DDHH_BUILD_TESTS=OFF -DDHH_INSTALL_STRIP=OFF

# The directories the daemon writes into and never creates.
define DEVICE_HOTPLUG_HANDLER_MAKE_DIRECTORIES
	$(INSTALL) -d -m 0755 $(TARGET_DIR)/mnt/usb $(TARGET_DIR)/ravo500/devs/cascade
	for port in 1 2 3 4 5 6 7; do \
		$(INSTALL) -d -m 0755 $(TARGET_DIR)/ravo500/devs/usb1-$$port; \
	done
endef
DEVICE_HOTPLUG_HANDLER_POST_INSTALL_TARGET_HOOKS += DEVICE_HOTPLUG_HANDLER_MAKE_DIRECTORIES

define DEVICE_HOTPLUG_HANDLER_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/device-hotplug-handler \
		$(TARGET_DIR)/etc/init.d/S50device-hotplug-handler
endef

# For systemd the install step already brings the unit and the tmpfiles.d entry:
# usr/lib/systemd/system/device-hotplug-handler.service and
# usr/lib/tmpfiles.d/device-hotplug-handler.conf.

$(eval $(cmake-package))
