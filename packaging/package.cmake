# The Debian package of an installed tree: `make package` runs cpack on a
# build configured this way. It holds what `cmake --install` puts under /usr
# and the init script in /etc/init.d (a conffile); nothing starts the
# registrar on installation, since a running registrar gives its settings
# away.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kestrd developers <kestrd@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "clone the Wi-Fi settings of one access point onto another over IEEE 1905.1")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "kestrd runs the IEEE 1905.1 AP-autoconfiguration exchange and Wi-Fi Simple
Configuration M1/M2 between an enrollee and a registrar, and saves the
settings the enrollee receives in the device's configuration database.
The package holds kestrd, the stand-in configuration database xmldbd and
its client xmldbc, their manual pages, and the registrar's systemd unit and
init script, which open a cloning window of limited length.")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/conffiles)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KESTR_TARGET})
endif()
include(CPack)
