# Install rules: the shared library with its SONAME links, the public headers,
# the tools, a CMake package (find_package(kplc) -> kplc::kplc) and kplc.pc.
#
# Components, which the Debian packages follow (debian/*.install):
#   runtime      libkplc.so.<version> and the libkplc.so.<major> link
#   development  headers, the unversioned libkplc.so link, CMake package, kplc.pc
#   tools        kplc and kplc-sim, their manual pages (man/*.1) and bash
#                completions (completion/*)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The version macros of include/kplc/api.h are what a consumer compiles
# against; they must name the version the library is built as.
file(STRINGS ${PROJECT_SOURCE_DIR}/include/kplc/api.h _kplc_version_lines
  REGEX "^#define KPLC_VERSION_(MAJOR|MINOR|PATCH) ")
foreach(_part MAJOR MINOR PATCH)
  set(_header_value "")
  foreach(_line IN LISTS _kplc_version_lines)
    if(_line MATCHES "^#define KPLC_VERSION_${_part} +([0-9]+)")
      set(_header_value ${CMAKE_MATCH_1})
    endif()
  endforeach()
  if(NOT _header_value STREQUAL "${PROJECT_VERSION_${_part}}")
    message(FATAL_ERROR "include/kplc/api.h: KPLC_VERSION_${_part} is '${_header_value}', "
      "the project version is ${PROJECT_VERSION}; update one of them")
  endif()
endforeach()

# The version as text inside the library, in a section of its own, so that
# `readelf -p .kplc.version libkplc.so.0` (or `strings`) tells which build a
# panel carries. It is not a symbol: the exported interface stays the list of
# documented routines, and the run-time query is kplc_driver_info.
set(_kplc_ident ${PROJECT_BINARY_DIR}/generated/kplc_version_ident.c)
file(CONFIGURE OUTPUT ${_kplc_ident} CONTENT [[
/* Generated at configure time from the project version. */
__attribute__((used, section(".kplc.version")))
static const char kplc_version_ident[] = "libkplc @PROJECT_VERSION@";
]] @ONLY)
target_sources(kplc PRIVATE ${_kplc_ident})

install(TARGETS kplc EXPORT kplcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kplc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN "*.h")

foreach(_tool kplc-cli kplc-sim)
  if(TARGET ${_tool})
    install(TARGETS ${_tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()

if(TARGET kplc-cli OR TARGET kplc-sim)
  file(GLOB _kplc_man_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
  file(GLOB _kplc_completions CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/completion/*)
  install(FILES ${_kplc_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${_kplc_completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    COMPONENT tools)
endif()

set(_kplc_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kplc)
install(EXPORT kplcTargets NAMESPACE kplc:: DESTINATION ${_kplc_cmake_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kplcConfig.cmake.in
  ${PROJECT_BINARY_DIR}/generated/kplcConfig.cmake INSTALL_DESTINATION ${_kplc_cmake_dir})
# The SONAME carries the major version, so any 0.x library serves a 0.y consumer.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/generated/kplcConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/generated/kplcConfig.cmake ${PROJECT_BINARY_DIR}/generated/kplcConfigVersion.cmake
  DESTINATION ${_kplc_cmake_dir} COMPONENT development)

# kplc.pc finds its prefix from its own place (${pcfiledir}), so the same file
# is right in /usr, in a staging prefix and in an unpacked package tree.
file(RELATIVE_PATH KPLC_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KPLC_PC_TO_PREFIX "${KPLC_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kplc.pc.in ${PROJECT_BINARY_DIR}/generated/kplc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/generated/kplc.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The integrator's consumer (tests/package) also runs inside the build tree,
# linked to the library just built: in a cross build it runs on the target's
# emulator and so checks the record layout at run time on that target.
if(KPLC_BUILD_TESTS)
  add_executable(kplc_package_consumer ${PROJECT_SOURCE_DIR}/tests/package/consumer.c)
  target_compile_definitions(kplc_package_consumer PRIVATE KPLC_EXPECTED_VERSION="${PROJECT_VERSION}")
  target_link_libraries(kplc_package_consumer PRIVATE kplc ${CMAKE_DL_LIBS})
  add_test(NAME package.consumer COMMAND kplc_package_consumer $<TARGET_FILE_DIR:kplc>)
  set_tests_properties(package.consumer PROPERTIES LABELS package)
endif()
