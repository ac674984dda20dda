# Cross-compiling for 64-bit ARM Linux with a GNU toolchain (aarch64-linux-gnu-gcc/g++).
#
# Debian multiarch (libraries installed as :arm64 packages under /usr/lib/aarch64-linux-gnu):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64-linux-gnu.cmake
# Any other GNU toolchain with a sysroot holding the target's libraries and headers:
#   cmake ... -DZEL_CROSS_PREFIX=/opt/tc/bin/aarch64-linux-gnu- -DZEL_SYSROOT=/path/to/sysroot
# Test programs run through qemu-aarch64-static (QEMU_LD_PREFIX is the sysroot, / on Debian).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ZEL_CROSS_PREFIX "aarch64-linux-gnu-" CACHE STRING "prefix of the cross compiler's programs")
set(ZEL_SYSROOT "" CACHE PATH "target root file system; empty for Debian multiarch")
# try_compile projects see these too
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZEL_CROSS_PREFIX ZEL_SYSROOT)

set(CMAKE_C_COMPILER ${ZEL_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${ZEL_CROSS_PREFIX}g++)

if(ZEL_SYSROOT)
    set(CMAKE_SYSROOT ${ZEL_SYSROOT})
    set(ENV{PKG_CONFIG_SYSROOT_DIR} ${ZEL_SYSROOT})
    set(ENV{PKG_CONFIG_LIBDIR}
        "${ZEL_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${ZEL_SYSROOT}/usr/lib/pkgconfig:${ZEL_SYSROOT}/usr/share/pkgconfig")
    set(_zel_ld_prefix ${ZEL_SYSROOT})
else()
    # Debian multiarch: the target's .pc files are beside its libraries
    set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
    set(_zel_ld_prefix /)
endif()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(NOT ZEL_SYSROOT)
    set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
    set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
    set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
    set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
endif()

find_program(ZEL_QEMU qemu-aarch64-static)
if(ZEL_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEL_QEMU};-L;${_zel_ld_prefix})
endif()
