# AddressSanitizer + UndefinedBehaviorSanitizer for every target, library and tests alike.
if(KPLC_SANITIZE)
  set(_kplc_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${_kplc_san})
  add_link_options(${_kplc_san})
endif()
