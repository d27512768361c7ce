# The command-line tool's tests: its pure parts are linked in from the tool's
# own static library, and the end-to-end tests run the built tool against the
# built simulator, so both must be there before test_tools runs.
if(TARGET test_tools)
  if(TARGET kplc_cli_core)
    target_link_libraries(test_tools PRIVATE kplc_cli_core)
    add_dependencies(test_tools kplc-cli)
    if(TARGET kplc-sim)
      add_dependencies(test_tools kplc-sim)
    endif()
  else()
    # Tools not configured (KPLC_BUILD_TOOLS=OFF): leave the tool's tests out.
    get_target_property(_tools_sources test_tools SOURCES)
    list(FILTER _tools_sources EXCLUDE REGEX "/cli_[^/]*\\.cpp$")
    set_property(TARGET test_tools PROPERTY SOURCES ${_tools_sources})
  endif()
endif()
