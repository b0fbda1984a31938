################################################################################
#
# device-hotplug-handler
#
################################################################################

DEVICE_HOTPLUG_HANDLER_VERSION = 1.0
# The project's checkout this tree sits in; point it at a release tarball for
# production images.
DEVICE_HOTPLUG_HANDLER_SITE = $(BR2_EXTERNAL_DEVICE_HOTPLUG_HANDLER_PATH)/../..
DEVICE_HOTPLUG_HANDLER_SITE_METHOD = local
# Build folders of the checkout stay out of the copy.
DEVICE_HOTPLUG_HANDLER_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude='/build*'
DEVICE_HOTPLUG_HANDLER_LICENSE = Proprietary
DEVICE_HOTPLUG_HANDLER_REDISTRIBUTE = NO

# Buildroot brings its own hardening flags and strips the target itself.
DEVICE_HOTPLUG_HANDLER_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DDHH_HARDENING=OFF \
	-DDHH_INSTALL_RUNTIME_DIRECTORIES=ON

DEVICE_HOTPLUG_HANDLER_PORT_DIRECTORIES = \
	$(call qstrip,$(BR2_PACKAGE_DEVICE_HOTPLUG_HANDLER_PORT_DIRECTORIES))
ifeq ($(BR2_PACKAGE_DEVICE_HOTPLUG_HANDLER_CAPTURE),y)
DEVICE_HOTPLUG_HANDLER_CONF_OPTS += -DDHH_BUILD_CAPTURE=ON
else
DEVICE_HOTPLUG_HANDLER_CONF_OPTS += -DDHH_BUILD_CAPTURE=OFF
endif

ifneq ($(DEVICE_HOTPLUG_HANDLER_PORT_DIRECTORIES),)
DEVICE_HOTPLUG_HANDLER_CONF_OPTS += \
	-DDHH_PORT_DIRECTORIES="$(DEVICE_HOTPLUG_HANDLER_PORT_DIRECTORIES)"
endif

# For systemd the install step brings the unit and the tmpfiles.d entry.
define DEVICE_HOTPLUG_HANDLER_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/device-hotplug-handler \
		$(TARGET_DIR)/etc/init.d/S50device_hotplug_handler
endef

# OpenRC would fall back to the SysV script, which restarts nothing:
# supervise-daemon respawns it instead.
define DEVICE_HOTPLUG_HANDLER_INSTALL_INIT_OPENRC
	$(INSTALL) -D -m 0755 $(@D)/packaging/openrc/device-hotplug-handler \
		$(TARGET_DIR)/etc/init.d/device-hotplug-handler
endef

# The daemon exits by design and relies on a restart: init respawns it, one
# second after it exits. The start script leaves a daemon that init owns alone.
ifeq ($(BR2_INIT_BUSYBOX),y)
DEVICE_HOTPLUG_HANDLER_RESPAWN = ::respawn:/bin/sh -c "sleep 1; exec /usr/sbin/device_hotplug_handler"
else ifeq ($(BR2_INIT_SYSV),y)
DEVICE_HOTPLUG_HANDLER_RESPAWN = dhh:2345:respawn:/bin/sh -c "sleep 1; exec /usr/sbin/device_hotplug_handler"
endif

ifneq ($(DEVICE_HOTPLUG_HANDLER_RESPAWN),)
# Finalising runs on every make: the line goes in once.
define DEVICE_HOTPLUG_HANDLER_ADD_RESPAWN
	grep -qxF '$(DEVICE_HOTPLUG_HANDLER_RESPAWN)' $(TARGET_DIR)/etc/inittab || \
		echo '$(DEVICE_HOTPLUG_HANDLER_RESPAWN)' >>$(TARGET_DIR)/etc/inittab
endef
DEVICE_HOTPLUG_HANDLER_TARGET_FINALIZE_HOOKS += DEVICE_HOTPLUG_HANDLER_ADD_RESPAWN
endif

$(eval $(cmake-package))
