# Warnings for every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic)
if(KPLC_WERROR)
  add_compile_options(-Werror)
endif()
