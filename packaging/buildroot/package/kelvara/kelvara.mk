# SPDX-License-Identifier: MIT
################################################################################
#
# kelvara
#
################################################################################

KELVARA_VERSION = 1.0.0
# The external tree is part of the tree that it builds.
KELVARA_SITE = $(BR2_EXTERNAL_KELVARA_PATH)/../..
KELVARA_SITE_METHOD = local
KELVARA_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
KELVARA_LICENSE = MIT
KELVARA_LICENSE_FILES = LICENSE
KELVARA_INSTALL_STAGING = YES
KELVARA_DEPENDENCIES = libconfig libevent
KELVARA_CONF_OPTS = -DKELVARA_BUILD_TESTS=OFF -DKELVARA_WERROR=OFF

ifeq ($(BR2_PACKAGE_KELVARA_TOOLS),y)
KELVARA_CONF_OPTS += -DKELVARA_BUILD_EXAMPLES=ON
else
KELVARA_CONF_OPTS += -DKELVARA_BUILD_EXAMPLES=OFF
endif

$(eval $(cmake-package))
