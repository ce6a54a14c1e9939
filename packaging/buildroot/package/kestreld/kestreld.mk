################################################################################
#
# kestreld
#
################################################################################

KESTRELD_VERSION = 1.2.0
# This folder is part of the source.
KESTRELD_SITE = $(realpath $(BR2_EXTERNAL_KESTREL_PATH)/../..)
KESTRELD_SITE_METHOD = local
KESTRELD_LICENSE = MIT
KESTRELD_LICENSE_FILES = LICENSE
KESTRELD_SUPPORTS_IN_SOURCE_BUILD = NO

KESTRELD_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DKESTREL_DESK=OFF \
	-DKESTREL_PLATFORM=$(call qstrip,$(BR2_PACKAGE_KESTRELD_PLATFORM))

ifeq ($(BR2_PACKAGE_KESTRELD_PLATFORM_CHECK),)
define KESTRELD_REMOVE_PLATFORM_CHECK
	$(RM) $(TARGET_DIR)/usr/bin/kestrel-platform-check
endef
KESTRELD_POST_INSTALL_TARGET_HOOKS += KESTRELD_REMOVE_PLATFORM_CHECK
endif

# The supervisor that the daemon counts on is in the script, and in the unit.
define KESTRELD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysv/kestreld \
		$(TARGET_DIR)/etc/init.d/S95kestreld
endef

define KESTRELD_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/systemd/kestreld.service \
		$(TARGET_DIR)/usr/lib/systemd/system/kestreld.service
endef

$(eval $(cmake-package))
