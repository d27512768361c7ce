# The binary interface of libkplc.so.0, guarded against accidental change.
#
# abi/libkplc.so.0.<arch>.abi describes the exported interface (the routines,
# their signatures, the records they take) as libabigail's abidw reads it from
# the library's debug information. The test interface.abi compares the library
# of every build with the description of its architecture by abidiff and fails
# on any difference. A change made on purpose is recorded by rewriting the
# description from a build of that architecture:
#   cmake --build <build> --target abi-update
find_program(KPLC_ABIDW abidw)
find_program(KPLC_ABIDIFF abidiff)
if(NOT TARGET kplc OR NOT KPLC_DEB_ARCH)
  return()
endif()
set(KPLC_ABI_DESCRIPTION ${PROJECT_SOURCE_DIR}/abi/libkplc.so.${PROJECT_VERSION_MAJOR}.${KPLC_DEB_ARCH}.abi)
if(KPLC_ABIDW)
  add_custom_target(abi-update
    COMMAND ${KPLC_ABIDW} --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs
      --out-file ${KPLC_ABI_DESCRIPTION} $<TARGET_FILE:kplc>
    DEPENDS kplc
    COMMENT "Describing the interface of the library in ${KPLC_ABI_DESCRIPTION}")
endif()
# Only GCC builds: they are the ones the descriptions were made from (clang's
# debug information names some types differently).
if(KPLC_BUILD_TESTS AND KPLC_ABIDIFF AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND EXISTS ${KPLC_ABI_DESCRIPTION})
  add_test(NAME interface.abi
    COMMAND sh ${PROJECT_SOURCE_DIR}/cmake/abi-check.sh ${KPLC_ABIDIFF} ${KPLC_ABI_DESCRIPTION}
      $<TARGET_FILE:kplc>)
  set_tests_properties(interface.abi PROPERTIES LABELS interface)
endif()
