# Shared part of the Debian cross toolchains. The including file sets
# KPLC_CROSS_TRIPLE (GNU triple), KPLC_CROSS_QEMU (qemu-user program) and
# KPLC_CROSS_DEB_ARCH (Debian architecture of the packages built here).
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${KPLC_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KPLC_CROSS_TRIPLE}-g++)

# Debian's cross packages keep the target's headers and libraries under
# /usr/<triple>; multiarch packages (libfoo-dev:armhf) under /usr/lib/<triple>.
set(CMAKE_LIBRARY_ARCHITECTURE ${KPLC_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH /usr/${KPLC_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs (ctest, gtest_discover_tests, add_test with a target) run
# through the emulator; -L points the emulated loader at the cross
# toolchain's libc. The loader would still search the host's multiarch folder
# (/lib/<triple>, through the host's ld.so.cache) first, and where the
# target's own libc6 package is installed there (as a multiarch package build
# does) its libc is of another version than the cross loader: the two must
# match. LD_LIBRARY_PATH keeps the toolchain's libraries first.
find_program(KPLC_CROSS_QEMU_PROGRAM ${KPLC_CROSS_QEMU})
if(KPLC_CROSS_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KPLC_CROSS_QEMU_PROGRAM} -L /usr/${KPLC_CROSS_TRIPLE}
      -E LD_LIBRARY_PATH=/usr/${KPLC_CROSS_TRIPLE}/lib)
endif()
