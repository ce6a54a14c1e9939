SUMMARY = "Remote access of a network camera"
DESCRIPTION = "Makes a network camera reachable from the internet through its remote-access service."
SECTION = "net"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=d708138118e47f802f10991bdd855d61"

# This layer is part of the source.
inherit externalsrc
EXTERNALSRC = "${@os.path.realpath(d.getVar('THISDIR') + '/../../../..')}"

inherit cmake update-rc.d systemd

# What the daemon is linked with: the folder of the camera's four libraries, "stubs" for empty ones made of their names,
# or nothing where a recipe in KESTREL_PLATFORM_RECIPE has put them into the sysroot.
KESTREL_PLATFORM ?= "stubs"
KESTREL_PLATFORM_RECIPE ?= ""
DEPENDS += "${KESTREL_PLATFORM_RECIPE}"
# Without that recipe no package is known to have the libraries.
INSANE_SKIP:${PN} += "${@'' if d.getVar('KESTREL_PLATFORM_RECIPE') else 'file-rdeps'}"
INSANE_SKIP:${PN}-platform-check += "${@'' if d.getVar('KESTREL_PLATFORM_RECIPE') else 'file-rdeps'}"

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=MinSizeRel -DKESTREL_DESK=OFF -DKESTREL_PLATFORM=${KESTREL_PLATFORM}"

do_install:append() {
    if ${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'true', 'false', d)}; then
        install -D -m 0755 ${S}/packaging/sysv/kestreld ${D}${sysconfdir}/init.d/kestreld
    fi
    if ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'true', 'false', d)}; then
        install -D -m 0644 ${S}/packaging/systemd/kestreld.service ${D}${systemd_system_unitdir}/kestreld.service
    fi
}

PACKAGES =+ "${PN}-platform-check"
FILES:${PN}-platform-check = "${bindir}/kestrel-platform-check"

# killall, by which a changed domain is taken; setsid, flock, logger and pidof of the init script.
RRECOMMENDS:${PN} = "busybox"

INITSCRIPT_NAME = "kestreld"
INITSCRIPT_PARAMS = "defaults 95 5"
SYSTEMD_SERVICE:${PN} = "kestreld.service"
