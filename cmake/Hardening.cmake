# Hardening, the set Debian's dpkg-buildflags gives with hardening=+all:
# stack protector, fortified libc calls, format checks, full RELRO with
# immediate binding, and position-independent executables. Applied to every
# target of the project (library, tools, tests), so that what the tests run is
# what the packages ship. Sanitizer builds go without: _FORTIFY_SOURCE hides
# overflows from AddressSanitizer behind its own checks.
option(KPLC_HARDENING "Build with Debian's hardening flags" ON)
if(KPLC_HARDENING AND NOT KPLC_SANITIZE)
  add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
  # _FORTIFY_SOURCE needs the optimiser (glibc warns without it, an error here).
  add_compile_definitions($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
endif()
