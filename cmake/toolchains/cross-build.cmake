# Project include of the cross presets (CMAKE_PROJECT_kplc_INCLUDE): runs right
# after project(kplc), before the project's warning flags.
#
# 1. GoogleTest for the target, built from Debian's source package `googletest`
#    (/usr/src/googletest, which libgtest-dev depends on), so that a cross build
#    needs no foreign-architecture packages. OVERRIDE_FIND_PACKAGE makes the test
#    suite's find_package(GTest) resolve to these targets; the GTest:: names are
#    the ones the installed package defines.
# 2. Launchers for the tools. Test programs start kplc and kplc-sim as
#    processes by their build-tree paths; under qemu-user (without binfmt_misc)
#    an emulated process cannot exec another target binary. So the tools are
#    linked into tools/emulated/ and their usual paths hold shell scripts that
#    run them under the emulator, which the host kernel can exec.
set(KPLC_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources to build for the target")
if(KPLC_BUILD_TESTS)
  if(NOT EXISTS ${KPLC_GOOGLETEST_SOURCE}/CMakeLists.txt)
    message(FATAL_ERROR "No GoogleTest sources in ${KPLC_GOOGLETEST_SOURCE}: install the Debian package googletest")
  endif()
  include(FetchContent)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  FetchContent_Declare(GTest SOURCE_DIR ${KPLC_GOOGLETEST_SOURCE} OVERRIDE_FIND_PACKAGE)
  FetchContent_MakeAvailable(GTest)
  foreach(_lib gtest gtest_main gmock gmock_main)
    if(TARGET ${_lib} AND NOT TARGET GTest::${_lib})
      add_library(GTest::${_lib} ALIAS ${_lib})
    endif()
  endforeach()
endif()

function(kplc_emulated_tool_launchers)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    return()
  endif()
  set(_emulator "")
  foreach(_word IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
    string(APPEND _emulator " '${_word}'")
  endforeach()
  foreach(_tool kplc-cli kplc-sim)
    if(NOT TARGET ${_tool})
      continue()
    endif()
    get_target_property(_dir ${_tool} BINARY_DIR)
    get_target_property(_name ${_tool} OUTPUT_NAME)
    if(NOT _name)
      set(_name ${_tool})
    endif()
    # Two levels below the build folder, so the tool's "../../src" search for
    # the driver finds the library of this build, as from its usual place.
    set_target_properties(${_tool} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools/emulated)
    file(GENERATE OUTPUT ${_dir}/${_name}
      CONTENT "#!/bin/sh\n# Runs the ${CMAKE_SYSTEM_PROCESSOR} build of ${_name} under the emulator.\nexec${_emulator} '$<TARGET_FILE:${_tool}>' \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endforeach()
endfunction()
cmake_language(DEFER CALL kplc_emulated_tool_launchers)
