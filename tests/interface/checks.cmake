# Checks of the shared library as a host process sees it.
add_executable(c_dlopen_consumer ${CMAKE_CURRENT_SOURCE_DIR}/interface/dlopen_consumer.c)
target_include_directories(c_dlopen_consumer PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(c_dlopen_consumer PRIVATE ${CMAKE_DL_LIBS})
add_test(NAME interface.c_dlopen_consumer COMMAND c_dlopen_consumer $<TARGET_FILE:kplc>)

add_executable(c_interpose_host ${CMAKE_CURRENT_SOURCE_DIR}/interface/interpose_host.c)
target_link_libraries(c_interpose_host PRIVATE kplc ${CMAKE_DL_LIBS})
# Export the host's definitions so they could interpose, as in a real runtime.
target_link_options(c_interpose_host PRIVATE -rdynamic)
add_test(NAME interface.c_interpose_host COMMAND c_interpose_host)

# Read with the target's own nm (the cross one in cross builds).
add_test(NAME interface.exported_symbols
  COMMAND ${CMAKE_COMMAND} -E env NM=${CMAKE_NM}
    sh ${CMAKE_CURRENT_SOURCE_DIR}/interface/check_exports.sh $<TARGET_FILE:kplc> ${KPLC_EXPORTS_LIST})

# The record layouts for 32-bit ARM (ILP32), checked by the cross compiler on
# the same static assertions the native build checks for LP64.
find_program(KPLC_ARM32_CXX arm-linux-gnueabihf-g++)
if(KPLC_ARM32_CXX)
  add_test(NAME interface.record_layout_ilp32
    COMMAND ${KPLC_ARM32_CXX} -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror
      -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/src
      ${PROJECT_SOURCE_DIR}/src/interface/layout_checks.cpp)
  add_test(NAME interface.c_headers_ilp32
    COMMAND arm-linux-gnueabihf-gcc -std=c11 -fsyntax-only -Wall -Wextra -Wpedantic -Werror
      -I${PROJECT_SOURCE_DIR}/include ${CMAKE_CURRENT_SOURCE_DIR}/interface/dlopen_consumer.c)
endif()
