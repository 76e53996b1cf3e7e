# Cross-build for 64-bit ARM Linux (glibc) with Debian's cross compiler and
# the arm64 multiarch packages (libssl-dev:arm64, libgtest-dev:arm64, ...).
# Test programs run under qemu user-mode emulation, so gtest_discover_tests
# and ctest work on an x86-64 host without binfmt_misc.
#
#   cmake -S . -B build-aarch64 -G Ninja \
#       -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VT_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${VT_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VT_CROSS_TRIPLE}-g++)
# Multiarch: the arm64 libraries and their CMake packages live in
# /usr/lib/aarch64-linux-gnu beside the host's, not in a separate sysroot.
set(CMAKE_LIBRARY_ARCHITECTURE ${VT_CROSS_TRIPLE})

# Test programs run against the arm64 multiarch C library (libc6:arm64, the
# loader /lib/ld-linux-aarch64.so.1), the same place the libraries they load
# come from. Not "-L /usr/aarch64-linux-gnu": that loader, of the cross
# toolchain's glibc build, finds the multiarch libc.so.6 first in its search
# path (/lib/aarch64-linux-gnu), and with that mixed pair new threads hang. "-L /" also keeps
# qemu from a default prefix (/etc/qemu-binfmt/aarch64) that points there.
find_program(VT_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VT_QEMU_AARCH64} -L /)

# pkg-config is the host's program, but must describe the arm64 libraries:
# FindOpenSSL takes its library directory from it.
set(VT_CROSS_PKG_CONFIG_LIBDIR /usr/lib/${VT_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${VT_CROSS_PKG_CONFIG_LIBDIR})

# The device build links verify_tool and crl_info statically (VT_STATIC; the
# README says why). -DVT_STATIC=OFF on the command line wins, as a Debian
# package of the cross build needs.
set(VT_STATIC ON CACHE BOOL "Link verify_tool and crl_info statically")
