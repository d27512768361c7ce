# Warnings for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic)
if(KPLC_WERROR)
  add_compile_options(-Werror)
  # GCC 12's optimiser reports -Wrestrict and -Wmaybe-uninitialized inside
  # libstdc++'s own std::string code at -O2/-O3 where no fault exists (string
  # concatenation, aggregates holding strings). They stay visible as warnings.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options(-Wno-error=restrict -Wno-error=maybe-uninitialized)
  endif()
endif()
