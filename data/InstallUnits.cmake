# Runs at install time: fills in the binary paths of the service units under the
# install prefix and installs them (file(INSTALL) adds DESTDIR).
set(CMAKE_INSTALL_FULL_SBINDIR "${CMAKE_INSTALL_PREFIX}/${ZEL_SBINDIR}")
set(CMAKE_INSTALL_FULL_BINDIR "${CMAKE_INSTALL_PREFIX}/${ZEL_BINDIR}")
if(NOT IS_ABSOLUTE "${ZEL_UNIT_DIR}")
    set(ZEL_UNIT_DIR "${CMAKE_INSTALL_PREFIX}/${ZEL_UNIT_DIR}")
endif()
foreach(unit zelenrolld.service zelenroll-renew.service)
    configure_file("${ZEL_UNIT_SOURCE_DIR}/${unit}.in" "${ZEL_UNIT_BINARY_DIR}/${unit}" @ONLY)
    file(INSTALL "${ZEL_UNIT_BINARY_DIR}/${unit}" DESTINATION "${ZEL_UNIT_DIR}")
endforeach()
