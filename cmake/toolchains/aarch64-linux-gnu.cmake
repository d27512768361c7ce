# 64-bit ARM Linux with Debian's cross compilers (g++-aarch64-linux-gnu).
# Programs built here run on the build machine under qemu-user when it is
# installed (package qemu-user).
set(KPLC_CROSS_TRIPLE aarch64-linux-gnu)
set(KPLC_CROSS_QEMU qemu-aarch64)
set(KPLC_CROSS_DEB_ARCH arm64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
