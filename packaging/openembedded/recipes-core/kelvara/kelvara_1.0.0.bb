# SPDX-License-Identifier: MIT
SUMMARY = "Toolkit of resident daemons"
DESCRIPTION = "Logging with rotation, a local server that broadcasts to its clients, a watchdog \
client, containers, codecs and small system helpers for the daemons of an embedded unit."
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=2f7850c1e9bebb5b78d8e95337c76ed1"

# libconfig comes with meta-oe.
DEPENDS = "libevent libconfig"

inherit cmake externalsrc

# The layer is part of the tree that it builds.
EXTERNALSRC = "${THISDIR}/../../../.."
EXTERNALSRC_BUILD = "${WORKDIR}/build"

EXTRA_OECMAKE = "-DKELVARA_BUILD_TESTS=OFF -DKELVARA_WERROR=OFF"

# glibc loads libgcc_s when a thread ends, and aborts the process without it.
RDEPENDS:${PN} += "libgcc"

# The library alone for the units; the tools for a development image.
PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir} ${datadir}/kelvara ${sysconfdir}/kelvara ${nonarch_libdir}/systemd"
CONFFILES:${PN}-tools = "${sysconfdir}/kelvara/gnssd.conf"
