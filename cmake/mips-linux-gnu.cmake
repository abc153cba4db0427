# Firmware build for a big-endian MIPS access point: a template to copy into
# the firmware tree and adjust (README, "Building for a device").
#
#   cmake -S kestrd -B build-mips \
#         -DCMAKE_TOOLCHAIN_FILE=kestrd/cmake/mips-linux-gnu.cmake \
#         -DKESTR_STAGING_DIR=/firmware/staging \
#         -DCMAKE_BUILD_TYPE=MinSizeRel -DKESTR_BUILD_TESTS=OFF -DKESTR_INSTALL_XMLDB=OFF
#   cmake --build build-mips -j2
#   DESTDIR=/firmware/rootfs cmake --install build-mips --prefix /usr --strip
#
# Two things are the firmware's own:
#   KESTR_CROSS_PREFIX  the prefix of its compiler's programs, including any
#                       directory: /opt/toolchain/bin/mips-linux-uclibc-
#                       (default: Debian's mips-linux-gnu- cross compiler);
#   KESTR_STAGING_DIR   the directory where the firmware build installed the
#                       target's libraries and headers (usr/lib, usr/include);
#                       kestrd needs OpenSSL's libcrypto from there.
# Libraries are searched only in the staging directory, never on the build
# machine; programs (pkg-config, the compiler) only on the build machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(KESTR_CROSS_PREFIX "mips-linux-gnu-" CACHE STRING
    "Prefix of the firmware toolchain's programs (path and triplet, ending in -)")
set(KESTR_STAGING_DIR "" CACHE PATH
    "Firmware staging directory with the target's libraries (OpenSSL) under usr/")
# CMake reads this file again for its compiler checks; hand the two on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTR_CROSS_PREFIX KESTR_STAGING_DIR)

set(CMAKE_C_COMPILER ${KESTR_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${KESTR_CROSS_PREFIX}g++)
# Processor flags the firmware uses for everything else belong here too,
# e.g. -march=24kc -mtune=24kc, or -msoft-float:
# set(CMAKE_C_FLAGS_INIT "-march=24kc")
# set(CMAKE_CXX_FLAGS_INIT "-march=24kc")

if(NOT KESTR_STAGING_DIR)
  message(FATAL_ERROR "Set KESTR_STAGING_DIR to the firmware's staging directory "
                      "(the one whose usr/lib holds the target's libcrypto)")
endif()
set(CMAKE_FIND_ROOT_PATH ${KESTR_STAGING_DIR})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config answers from the staging directory too, or FindOpenSSL would
# take the build machine's library.
set(ENV{PKG_CONFIG_LIBDIR} "${KESTR_STAGING_DIR}/usr/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KESTR_STAGING_DIR}")

# FindOpenSSL takes the headers from the staging directory and hands them
# on with the library. The linker must find what libcrypto itself needs
# (libc, libpthread, libatomic) in the staging directory as well.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${KESTR_STAGING_DIR}/usr/lib -Wl,-rpath-link,${KESTR_STAGING_DIR}/lib")

# A quick look at the result on the build machine, if the staging directory
# also holds the target's loader and C library:
#   qemu-mips -L /firmware/staging build-mips/bin/kestrd help
