# The Debian package: run `cpack` in a build directory of the preset deb or armhf-deb.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "The developers of kestcrond <developers@kestcrond.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"One process runs the jobs of an appliance on time: those of the system, of
its packages, and of their accounts. Jobs are defined in JSON files. Times
can be drawn at random, so that a thousand machines do not call one server
in the same minute; missed runs can be made up for; a passive machine starts
only selected jobs; and a broken job file affects no other.
.
kestcronctl checks job files, shows past and coming runs, and helps to
find out why a job did not run.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "logrotate")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL arm-linux-gnueabihf)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()

# Files of the Debian package only: other systems install these in their own way.
if(KESTCROND_DEBIAN)
    set(debian ${PROJECT_BINARY_DIR}/debian)
    configure_file(packaging/debian/changelog.in ${debian}/changelog.Debian @ONLY)
    configure_file(CHANGELOG.md ${debian}/changelog COPYONLY)
    install_compressed(${debian}/changelog.Debian ${CMAKE_INSTALL_DOCDIR})
    install_compressed(${debian}/changelog ${CMAKE_INSTALL_DOCDIR})
    install(FILES packaging/debian/copyright README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
    install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})
    install(FILES packaging/systemd/kestcrond.service DESTINATION /usr/lib/systemd/system)
    install(FILES packaging/tmpfiles.d/kestcrond.conf DESTINATION /usr/lib/tmpfiles.d)
    install(PROGRAMS packaging/lib/mount-programs DESTINATION /usr/lib/kestcrond)
    install(FILES packaging/default/kestcrond DESTINATION /etc/default)
    install(FILES packaging/logrotate/kestcrond DESTINATION /etc/logrotate.d)
    install(PROGRAMS packaging/init.d/kestcrond DESTINATION /etc/init.d)
    install(PROGRAMS packaging/ocf/kestcrond DESTINATION /usr/lib/ocf/resource.d/kestcrond)
    install(FILES packaging/debian/lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME kestcrond)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
        ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
        ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
        ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
        ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
endif()
include(CPack)
