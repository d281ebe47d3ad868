################################################################################
#
# kestcrond
#
# Tested with make, including its commands for files; not yet built in Buildroot.
#
################################################################################

# There is no download location, and therefore no hash: the source is the tree that
# contains this file. For a copy of this file elsewhere, set the path of the source in
# local.mk:
#   KESTCROND_SITE = /somewhere/kestcrond
KESTCROND_SITE ?= $(abspath $(BR2_EXTERNAL_KESTCROND_PATH)/../..)
KESTCROND_SITE_METHOD = local
KESTCROND_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
# The version is defined in CMakeLists.txt only.
KESTCROND_VERSION := $(shell sed -n 's/^project.kestcrond VERSION \([0-9.]*\) .*/\1/p' \
	$(KESTCROND_SITE)/CMakeLists.txt)

# Not licensed yet: all rights reserved by the owner.
KESTCROND_LICENSE = PROPRIETARY
KESTCROND_LICENSE_FILES = packaging/debian/copyright
KESTCROND_REDISTRIBUTE = NO

# Only headers of boost are used.
KESTCROND_DEPENDENCIES += host-pkgconf boost jsoncpp

# 64-bit times on 32-bit machines need no option: the program selects them with glibc,
# and musl has no others.
KESTCROND_CONF_OPTS = \
	-DKESTCROND_BUILD_TESTS=OFF \
	-DKESTCROND_BUILD_FUZZERS=OFF

ifeq ($(BR2_PACKAGE_KESTCROND_CTL),y)
KESTCROND_DEPENDENCIES += cli11
KESTCROND_CONF_OPTS += -DKESTCROND_BUILD_CTL=ON
else
KESTCROND_CONF_OPTS += -DKESTCROND_BUILD_CTL=OFF
endif

ifeq ($(BR2_PACKAGE_KESTCROND_SMALL),y)
KESTCROND_CONF_OPTS += -DKESTCROND_SMALL=ON
else
KESTCROND_CONF_OPTS += -DKESTCROND_SMALL=OFF
endif

# Hardening includes the stack protector, which needs support of the C library.
ifeq ($(BR2_TOOLCHAIN_HAS_SSP),y)
KESTCROND_CONF_OPTS += -DKESTCROND_HARDENING=ON
else
KESTCROND_CONF_OPTS += -DKESTCROND_HARDENING=OFF
endif

KESTCROND_PLATFORM_LIBRARIES = $(call qstrip,$(BR2_PACKAGE_KESTCROND_PLATFORM_LIBRARIES))
ifneq ($(KESTCROND_PLATFORM_LIBRARIES),)
KESTCROND_CONF_OPTS += -DKESTCROND_PLATFORM_LIBRARIES="$(KESTCROND_PLATFORM_LIBRARIES)"
endif

define KESTCROND_INSTALL_DEFAULTS
	$(INSTALL) -D -m 0644 $(@D)/packaging/default/kestcrond \
		$(TARGET_DIR)/etc/default/kestcrond
	$(INSTALL) -D -m 0755 $(@D)/packaging/lib/mount-programs \
		$(TARGET_DIR)/usr/lib/kestcrond/mount-programs
endef
KESTCROND_POST_INSTALL_TARGET_HOOKS += KESTCROND_INSTALL_DEFAULTS

ifeq ($(BR2_PACKAGE_LOGROTATE),y)
define KESTCROND_INSTALL_LOGROTATE
	$(INSTALL) -D -m 0644 $(@D)/packaging/logrotate/kestcrond \
		$(TARGET_DIR)/etc/logrotate.d/kestcrond
endef
KESTCROND_POST_INSTALL_TARGET_HOOKS += KESTCROND_INSTALL_LOGROTATE
endif

# An appliance does not need the examples.
define KESTCROND_REMOVE_EXAMPLES
	rm -rf $(TARGET_DIR)/usr/share/kestcrond/examples
endef
KESTCROND_POST_INSTALL_TARGET_HOOKS += KESTCROND_REMOVE_EXAMPLES

define KESTCROND_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/init.d/kestcrond \
		$(TARGET_DIR)/etc/init.d/S60kestcrond
endef

define KESTCROND_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/systemd/kestcrond.service \
		$(TARGET_DIR)/usr/lib/systemd/system/kestcrond.service
	$(INSTALL) -D -m 0644 $(@D)/packaging/tmpfiles.d/kestcrond.conf \
		$(TARGET_DIR)/usr/lib/tmpfiles.d/kestcrond.conf
endef

# The directories of job files. Their parents are open to all, because packages and
# accounts reach their job files through them.
define KESTCROND_PERMISSIONS
	/usr/kest d 0755 0 0 - - - - -
	/usr/kest/share d 0755 0 0 - - - - -
	/usr/kest/share/kestcron.d d 0750 0 0 - - - - -
	/usr/kest/etc d 0755 0 0 - - - - -
	/usr/kest/etc/kestcron.d d 0750 0 0 - - - - -
	/usr/local d 0755 0 0 - - - - -
	/usr/local/etc d 0755 0 0 - - - - -
	/usr/local/etc/kestcron.d d 0750 0 0 - - - - -
	/usr/local/etc/kestcron_nonroot.d d 0755 0 0 - - - - -
endef

$(eval $(cmake-package))
