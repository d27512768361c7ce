# The Debian architecture of the binaries this build makes (amd64, armhf,
# arm64, ...), which names the interface description of the library
# (Abi.cmake). It follows from the compiler's multiarch triple, so a cross
# build is recognised whether it comes from the project's cross presets or
# from dpkg-buildpackage --host-arch, whose CMake setup names only the
# compilers.
set(_kplc_deb_arch "")
if(CMAKE_LIBRARY_ARCHITECTURE)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE _kplc_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT _kplc_deb_arch AND KPLC_CROSS_DEB_ARCH)
  set(_kplc_deb_arch ${KPLC_CROSS_DEB_ARCH})
endif()
set(KPLC_DEB_ARCH "${_kplc_deb_arch}" CACHE INTERNAL "Debian architecture of this build")
