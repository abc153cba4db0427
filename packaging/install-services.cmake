# Installs the registrar's service files. They name the installed kestrd, so
# they are made now, for the prefix of this install (`--prefix`, /usr in a
# package). Run by `cmake --install` with KESTR_* set by CMakeLists.txt.
set(KESTRD "${CMAKE_INSTALL_PREFIX}/${KESTR_SBINDIR}/kestrd")
# System configuration lives in /etc for the prefix /usr, in PREFIX/etc
# otherwise (as GNUInstallDirs has it).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(etc /etc)
else()
  set(etc "${CMAKE_INSTALL_PREFIX}/etc")
endif()
configure_file(${KESTR_SOURCE_DIR}/packaging/kestrd-registrar.init.in
               ${KESTR_BINARY_DIR}/packaging/kestrd-registrar @ONLY)
file(INSTALL ${KESTR_BINARY_DIR}/packaging/kestrd-registrar DESTINATION "${etc}/init.d"
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                      WORLD_READ WORLD_EXECUTE)
if(KESTR_WITH_UNIT)
  configure_file(${KESTR_SOURCE_DIR}/packaging/kestrd-registrar.service.in
                 ${KESTR_BINARY_DIR}/packaging/kestrd-registrar.service @ONLY)
  file(INSTALL ${KESTR_BINARY_DIR}/packaging/kestrd-registrar.service
       DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
endif()
