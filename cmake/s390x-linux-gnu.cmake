# Cross build for s390x, a big-endian 64-bit processor, with the Debian cross
# compiler and the s390x libraries installed through multiarch
# (`scripts/install-deps s390x`). Test programs run under qemu-user, so the
# whole suite can run big-endian on a PC:
#
#   cmake -S . -B build-s390x -DCMAKE_TOOLCHAIN_FILE=cmake/s390x-linux-gnu.cmake
#   cmake --build build-s390x -j2
#   cd build-s390x && KESTR_TEST_NO_NAMESPACES=1 ctest -LE e2e
#
# `make test-bigendian` does exactly this.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)

set(KESTR_CROSS_TRIPLE s390x-linux-gnu)
set(CMAKE_C_COMPILER ${KESTR_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KESTR_CROSS_TRIPLE}-g++)

# Multiarch: the s390x packages put their libraries and CMake package files
# under /usr/lib/s390x-linux-gnu, next to the host's own; the cross
# compiler already searches /usr/include/s390x-linux-gnu and /usr/include.
# pkg-config must answer for s390x too, or FindOpenSSL takes the host's
# library.
set(CMAKE_LIBRARY_ARCHITECTURE ${KESTR_CROSS_TRIPLE})
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${KESTR_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# CTest and test discovery run every test program through the emulator. It
# takes the dynamic loader and C library from the multiarch libc6:s390x,
# the same tree as the other s390x libraries. (Not `-L /usr/s390x-linux-gnu`:
# that loader, from the cross compiler's own C library, would pick up the
# multiarch libc through the loader cache, and a loader and libc of
# different builds crash before main.)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x)
