# Debian packages, one per install component (see Install.cmake):
#   libkplc0      runtime       the driver a panel image needs
#   libkplc-dev   development   headers, CMake package, pkg-config file
#   kplc-tools    tools         kplc (tag read/write/watch) and kplc-sim
# `cpack -G DEB` in a build folder writes them there. The architecture is the
# build machine's, or the cross toolchain's (armhf, arm64).
# Build with -DCMAKE_INSTALL_PREFIX=/usr so that the library lands in Debian's
# multiarch folder (/usr/lib/<triple>).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kplc)
set(CPACK_PACKAGE_VENDOR "kplc")
set(CPACK_PACKAGE_CONTACT "kplc maintainers <kplc@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
if(KPLC_CROSS_DEB_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KPLC_CROSS_DEB_ARCH})
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkplc0)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkplc-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kplc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "PLC tag-name driver for operator panels (shared library)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "PLC tag-name driver for operator panels (development files)")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "PLC tag-name driver: command-line tool and PLC simulator")
# The unversioned libkplc.so that the tool loads by default is in the
# development package; the tools need the library of the same build.
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime development)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)

# dpkg-shlibdeps reads the dependencies from the binaries, but only for the
# build machine's architecture; a cross build names them itself (the C and
# C++ runtimes of Debian 12's GCC 12 toolchain).
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1 (>= 3.5)")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1 (>= 3.5)")
else()
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
