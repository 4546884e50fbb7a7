# Limits what a mistake in this project, or in what it is linked with, can be made to do. For programs
# that are built here: a distribution's own flags are meant to come first, and are never lowered.
include(CheckCXXSourceCompiles)

target_compile_options(tovren_build_flags INTERFACE -fstack-protector-strong)
target_link_options(tovren_build_flags INTERFACE LINKER:-z,relro LINKER:-z,now)

# Some compilers define it by themselves, and only where they optimise.
set(CMAKE_REQUIRED_FLAGS -O2)
check_cxx_source_compiles("
  #ifdef _FORTIFY_SOURCE
  #error
  #endif
  int main() {}" TOVREN_LACKS_FORTIFY_SOURCE)
unset(CMAKE_REQUIRED_FLAGS)
if(TOVREN_LACKS_FORTIFY_SOURCE AND NOT TOVREN_SANITIZE)
  target_compile_definitions(tovren_build_flags INTERFACE  # means nothing without optimisation
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=2>)
endif()
