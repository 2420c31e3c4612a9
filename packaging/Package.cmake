# The Debian package (cpack -G DEB, see scripts/package.sh): everything the install rules put under
# the prefix, which the package script sets to /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvo)
set(CPACK_PACKAGE_VENDOR "The Kelvo developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "fan control with a live dashboard")
set(CPACK_PACKAGE_DESCRIPTION
    "Kelvo keeps the computer's fans under an adaptive control loop and shows, live,\n"
    "what the loop and the hardware do, in a dashboard window and a tray item.\n"
    "\n"
    "Fan writes go through kelvo-helperd, a small root daemon started by systemd\n"
    "that only root and members of the kelvo group may use, and that gives every fan\n"
    "back to the firmware when Kelvo exits, crashes or is killed. The package also\n"
    "holds kelvoctl, a command-line client, and kelvo-simhw, a simulated machine\n"
    "served as a sysfs tree through FUSE.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
# The project's committer identity.
set(KELVO_PACKAGE_MAINTAINER
    "Seed 603a26a3 maintainers <maintainers@users.noreply.c-seed-603a26a3.example>"
    CACHE STRING "Maintainer field of the Debian package")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KELVO_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# Library dependencies come from dpkg-shlibdeps. What it cannot see: the QML modules the
# dashboard loads at run time (QtQuick imports QtQml.WorkerScript, the controls their
# templates), and a tool to create the kelvo group in postinst. The clean-root test
# (tests/packaging/clean-root.sh) installs the package where only these bring anything.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(KELVO_QML_MODULES
    qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtqml-workerscript
    qml6-module-qtquick-controls qml6-module-qtquick-templates qml6-module-qtquick-layouts)
list(JOIN KELVO_QML_MODULES ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", systemd | adduser")
# kelvo-simhw mounts through fusermount3 when it does not run as root.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "fuse3")

set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
