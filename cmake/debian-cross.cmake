# Cross build with a Debian cross compiler and the target's own libraries,
# installed through multiarch next to the build machine's
# (`scripts/install-deps TARGET`). KESTR_TARGET is a Debian architecture:
#
#   armhf   32-bit ARM, hard float        arm64   64-bit ARM
#   mipsel  32-bit MIPS, little-endian    s390x   64-bit, big-endian
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/debian-cross.cmake \
#         -DKESTR_TARGET=armhf
#
# `make cross TARGET=...` builds and stages a target this way; `make
# test-cross` also runs each target's tests under qemu-user, the emulator
# named in CMAKE_CROSSCOMPILING_EMULATOR (CTest and test discovery go
# through it).
set(KESTR_TARGET "" CACHE STRING "Debian architecture to build for: armhf arm64 mipsel s390x")
# CMake reads this file again for its compiler checks; hand the target on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTR_TARGET)

set(_kestr_targets armhf arm64 mipsel s390x)
set(_kestr_triplets arm-linux-gnueabihf aarch64-linux-gnu mipsel-linux-gnu s390x-linux-gnu)
set(_kestr_processors arm aarch64 mipsel s390x)
set(_kestr_emulators qemu-arm qemu-aarch64 qemu-mipsel qemu-s390x)
list(FIND _kestr_targets "${KESTR_TARGET}" _kestr_index)
if(_kestr_index EQUAL -1)
  string(REPLACE ";" " " _kestr_list "${_kestr_targets}")
  message(FATAL_ERROR "KESTR_TARGET='${KESTR_TARGET}': set -DKESTR_TARGET= to one of ${_kestr_list}")
endif()
list(GET _kestr_triplets ${_kestr_index} KESTR_CROSS_TRIPLE)
list(GET _kestr_processors ${_kestr_index} _kestr_processor)
list(GET _kestr_emulators ${_kestr_index} _kestr_emulator)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${_kestr_processor})

find_program(_kestr_cxx ${KESTR_CROSS_TRIPLE}-g++)
if(NOT _kestr_cxx)
  message(FATAL_ERROR "no ${KESTR_CROSS_TRIPLE}-g++: run scripts/install-deps ${KESTR_TARGET}")
endif()
set(CMAKE_C_COMPILER ${KESTR_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KESTR_CROSS_TRIPLE}-g++)

# Multiarch: the target's packages put their libraries and CMake package
# files under /usr/lib/TRIPLET, next to the build machine's own; the cross
# compiler already searches /usr/include/TRIPLET and /usr/include. pkg-config
# must answer for the target too, or FindOpenSSL takes the build machine's
# library.
set(CMAKE_LIBRARY_ARCHITECTURE ${KESTR_CROSS_TRIPLE})
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KESTR_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The emulator takes the program's loader from /lib and the C library from
# the multiarch libc6:TARGET, the same tree as the other target libraries.
# (Not `-L /usr/TRIPLET`: that loader, from the cross compiler's own C
# library, would pick up the multiarch libc through the loader cache, and a
# loader and libc of different builds crash before main.)
set(CMAKE_CROSSCOMPILING_EMULATOR ${_kestr_emulator})
