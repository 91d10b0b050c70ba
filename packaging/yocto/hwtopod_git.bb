# SPDX-License-Identifier: Apache-2.0
#
# Example recipe for taking hwtopod into a BMC image. The machine layer
# copies it and sets SRC_URI and SRCREV to the repository and commit it has
# tested. tests/sim/check_image.py checks it against an image build of this
# tree made with EXTRA_OEMESON as written here: every file that build
# installs is claimed below, every dependency the build looks up is in
# DEPENDS, SYSTEMD_SERVICE is the installed unit, and PV is the project's
# version.
SUMMARY = "Hardware topology daemon of the management controller"
DESCRIPTION = "Reads the FPGA registers and the VPD service's objects, \
matches boards against JSON rule files, publishes what it finds on D-Bus \
as com.halvex.hwtopod, in /var/configuration and as I2C links in /dev, and \
writes Redfish event records to the journal."
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

SRC_URI = "git://git.halvex.example/bmc/hwtopod.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
PV = "0.1.0+git"
S = "${WORKDIR}/git"

inherit meson pkgconfig systemd

# libfpga is the platform's closed FPGA register library; its recipe puts
# libfpga.so into the sysroot, where the build finds it by name.
DEPENDS = " \
    boost \
    libfpga \
    libgpiod \
    nlohmann-json \
    sdbus-c++ \
    systemd \
"

# Only what the image installs: no tests, no stand-ins, no simulator, no
# benchmarks. A machine whose VPD service's unit is not vpdd.service names
# it with -Dvpd_unit=NAME, for the ordering drop-in.
EXTRA_OEMESON = " \
    -Dtests=disabled \
    -Dsimulator=disabled \
"

# The daemon records libfpga.so.0 by its soname; the platform's package
# provides it at run time.
RDEPENDS:${PN} += "libfpga"

SYSTEMD_SERVICE:${PN} = "hwtopod.service"

# The rule files, PSU configuration and message registry go to a fixed
# directory, which the daemon reads whatever the prefix.
FILES:${PN} += " \
    ${bindir}/hwtopod \
    ${bindir}/hwtopod-inspect \
    ${libexecdir}/hwtopod-start-status \
    ${systemd_system_unitdir}/hwtopod.service \
    ${systemd_system_unitdir}/*.service.d/after-hwtopod.conf \
    ${nonarch_libdir}/tmpfiles.d/hwtopod.conf \
    ${datadir}/dbus-1/system.d/com.halvex.hwtopod.conf \
    ${datadir}/vantarack-bmc-apps/hwtopod \
"
