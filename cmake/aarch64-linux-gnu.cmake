# Cross build for AArch64 with Debian's cross compiler and the arm64 builds of
# the dependencies (multiarch: /usr/lib/aarch64-linux-gnu). Programs built
# here run under user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries, headers and package files come from the multiarch directories
# under /usr, never from the host's /usr/lib/x86_64-linux-gnu.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The loader and the C library at run time are both the arm64 multiarch
# packages' (libc6:arm64, beside the other libraries): the cross compiler's
# own copy under /usr/aarch64-linux-gnu is often another Debian revision of
# glibc, and its loader with the multiarch libc.so.6 hangs the first thread.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;/)

# pkg-config (through which FindOpenSSL looks) reads the target's package
# files, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
