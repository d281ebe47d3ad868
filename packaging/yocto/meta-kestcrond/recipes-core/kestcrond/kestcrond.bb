# Tested with a parser other than bitbake, including the step that installs files; not yet built.

SUMMARY = "Job scheduler daemon for embedded Linux appliances"
DESCRIPTION = "Runs the jobs of the system, its packages and their accounts on time. Jobs are \
defined in JSON files."
SECTION = "base"
# Not licensed yet: all rights reserved by the owner.
LICENSE = "CLOSED"

# There is no download location: the source is the tree that contains this layer. For a copy of the layer
# elsewhere, set the path of the source in local.conf:
#   EXTERNALSRC:pn-kestcrond = "/somewhere/kestcrond"
EXTERNALSRC ?= "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../../..'))}"
EXTERNALSRC_BUILD ?= "${WORKDIR}/build"

# The version is defined in CMakeLists.txt only.
def kestcrond_version(d):
    import re
    path = os.path.join(d.getVar('EXTERNALSRC'), 'CMakeLists.txt')
    bb.parse.mark_dependency(d, path)
    with open(path) as file:
        return re.search(r'^project\(kestcrond VERSION ([0-9.]+) ', file.read(), re.M)[1]

PV = "${@kestcrond_version(d)}"

# Programs are copied with "/usr/bin/cp".
REQUIRED_DISTRO_FEATURES = "usrmerge"

inherit externalsrc cmake pkgconfig features_check systemd update-rc.d

# Only headers of boost are used.
DEPENDS = "boost jsoncpp"

PACKAGECONFIG ??= "ctl"
PACKAGECONFIG[ctl] = "-DKESTCROND_BUILD_CTL=ON,-DKESTCROND_BUILD_CTL=OFF,cli11"
PACKAGECONFIG[small] = "-DKESTCROND_SMALL=ON,-DKESTCROND_SMALL=OFF"

# The libraries that replace src/platform/posix, separated by semicolons, and the recipes that provide them;
# docs/porting.md describes what they must provide.
KESTCROND_PLATFORM_LIBRARIES ?= ""
KESTCROND_PLATFORM_DEPENDS ?= ""
DEPENDS += "${KESTCROND_PLATFORM_DEPENDS}"

# 64-bit times on 32-bit machines need no option: the program selects them with glibc, and musl has no others.
EXTRA_OECMAKE = "-DKESTCROND_BUILD_TESTS=OFF -DKESTCROND_BUILD_FUZZERS=OFF \
    '-DKESTCROND_PLATFORM_LIBRARIES=${KESTCROND_PLATFORM_LIBRARIES}'"

# The classes remove the files that a distribution without systemd or without init scripts does not need.
SYSTEMD_SERVICE:${PN} = "kestcrond.service"
INITSCRIPT_NAME = "kestcrond"
INITSCRIPT_PARAMS = "defaults 60"

# Includes the directories of job files. Their parents are open to all, because packages and accounts reach
# their job files through them.
do_install:append() {
    install -D -m 0644 ${S}/packaging/default/kestcrond ${D}${sysconfdir}/default/kestcrond
    install -D -m 0644 ${S}/packaging/logrotate/kestcrond ${D}${sysconfdir}/logrotate.d/kestcrond
    install -D -m 0755 ${S}/packaging/init.d/kestcrond ${D}${sysconfdir}/init.d/kestcrond
    install -D -m 0644 ${S}/packaging/systemd/kestcrond.service \
        ${D}${systemd_system_unitdir}/kestcrond.service
    install -D -m 0644 ${S}/packaging/tmpfiles.d/kestcrond.conf \
        ${D}/usr/lib/tmpfiles.d/kestcrond.conf
    install -D -m 0755 ${S}/packaging/lib/mount-programs ${D}/usr/lib/kestcrond/mount-programs
    install -d -m 0755 ${D}/usr/kest ${D}/usr/kest/share ${D}/usr/kest/etc
    install -d -m 0755 ${D}/usr/local ${D}/usr/local/etc ${D}/usr/local/etc/kestcron_nonroot.d
    install -d -m 0750 ${D}/usr/kest/share/kestcron.d ${D}/usr/kest/etc/kestcron.d
    install -d -m 0750 ${D}/usr/local/etc/kestcron.d
}

PACKAGES =+ "${PN}-ctl ${PN}-examples"
FILES:${PN}-ctl = "${bindir}/kestcronctl ${datadir}/bash-completion/completions/kestcronctl \
    ${datadir}/kestcrond/kestcronctl.schema.json ${datadir}/kestcrond/prometheus"
FILES:${PN}-examples = "${datadir}/kestcrond/examples"
FILES:${PN} += "/usr/kest /usr/local /usr/lib/kestcrond /usr/lib/tmpfiles.d"
CONFFILES:${PN} = "${sysconfdir}/default/kestcrond ${sysconfdir}/logrotate.d/kestcrond"
