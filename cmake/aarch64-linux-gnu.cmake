# Cross build for AArch64 with Debian's cross compiler and the arm64 libraries of multiarch
# (libjson-c-dev:arm64, libcjson-dev:arm64, libgtest-dev:arm64). Test programs run under
# qemu-user with the loader and C library of multiarch (libc6:arm64, under /). The copy of the
# cross toolchain (/usr/aarch64-linux-gnu) is not used: under qemu-user 7.2 a fork()ed child of
# a program loaded by it never runs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)

# Libraries and headers of the target only (multiarch folders and any CMAKE_PREFIX_PATH);
# programs of the build machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
