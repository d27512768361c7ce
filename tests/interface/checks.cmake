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

add_test(NAME interface.exported_symbols
  COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/interface/check_exports.sh $<TARGET_FILE:kplc> ${KPLC_EXPORTS_LIST})
