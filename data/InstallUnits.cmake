# Runs at install time: fills in the binary paths of the service units under the
# install prefix and installs them (file(INSTALL) adds DESTDIR).
set(CMAKE_INSTALL_FULL_SBINDIR "${CMAKE_INSTALL_PREFIX}/${ZEL_SBINDIR}")
set(CMAKE_INSTALL_FULL_BINDIR "${CMAKE_INSTALL_PREFIX}/${ZEL_BINDIR}")
foreach(unit zelenrolld.service zelenroll-renew.service)
    configure_file("${ZEL_UNIT_SOURCE_DIR}/${unit}.in" "${ZEL_UNIT_BINARY_DIR}/${unit}" @ONLY)
    file(INSTALL "${ZEL_UNIT_BINARY_DIR}/${unit}"
         DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
endforeach()
