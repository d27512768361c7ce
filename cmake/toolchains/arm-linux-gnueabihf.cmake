# 32-bit ARM Linux (hard-float EABI) with Debian's cross compilers
# (g++-arm-linux-gnueabihf), the panels' usual target. Programs built here run
# on the build machine under qemu-user when it is installed (package qemu-user).
set(KPLC_CROSS_TRIPLE arm-linux-gnueabihf)
set(KPLC_CROSS_QEMU qemu-arm)
set(KPLC_CROSS_DEB_ARCH armhf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)

# 64-bit file offsets, as on the 64-bit targets: stat, fopen and truncate keep
# working on files of 2 GiB and more instead of failing with EOVERFLOW. No
# public record holds an off_t, so the runtime's interface does not change.
set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
set(CMAKE_CXX_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
