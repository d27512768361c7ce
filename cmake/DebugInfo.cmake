# Debug information for what the packages ship, in every build type: the
# package build splits it off into the -dbgsym packages, and the interface
# check (Abi.cmake) reads the library's types from it. -g does not change the
# code generated, only what the object files carry beside it.
#
# Outside Debug builds (which a debugger reads from the build tree), source
# paths in it are relative to the project's root, as dpkg-buildflags'
# -ffile-prefix-map makes them, so the shipped binaries and the interface
# description do not depend on where the tree was checked out.
#
# The library is built without identical-code folding: GCC's -fipa-icf merges
# routines whose bodies compile alike and keeps the debug information of one,
# so the description of the interface would lose the others' signatures.
foreach(_target kplc_objects kplc_sim_core kplc-sim kplc_cli_core kplc-cli)
  if(TARGET ${_target})
    target_compile_options(${_target} PRIVATE -g
      $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)
  endif()
endforeach()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND TARGET kplc_objects)
  target_compile_options(kplc_objects PRIVATE -fno-ipa-icf)
endif()
