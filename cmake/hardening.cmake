# Limits what a mistake in this project, or in what it is linked with, can be made to do. For programs
# that are built here: what the toolchain or a distribution's flags do already is left as it is.
include(CheckCXXSourceCompiles)

# tovren_lacks(VARIABLE MACRO...): whether none of the macros is defined. Some compilers define them by
# themselves, and only where they optimise.
function(tovren_lacks variable)
  set(CMAKE_REQUIRED_FLAGS -O2)
  list(JOIN ARGN ") || defined(" macros)
  check_cxx_source_compiles("
    #if defined(${macros})
    #error
    #endif
    int main() {}" ${variable})
endfunction()

tovren_lacks(TOVREN_LACKS_STACK_PROTECTOR __SSP_STRONG__ __SSP_ALL__)
if(TOVREN_LACKS_STACK_PROTECTOR)
  target_compile_options(tovren_build_flags INTERFACE -fstack-protector-strong)
endif()
tovren_lacks(TOVREN_LACKS_FORTIFY_SOURCE _FORTIFY_SOURCE)
if(TOVREN_LACKS_FORTIFY_SOURCE AND NOT TOVREN_SANITIZE)
  target_compile_definitions(tovren_build_flags INTERFACE  # means nothing without optimisation
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:_FORTIFY_SOURCE=2>)
endif()
target_link_options(tovren_build_flags INTERFACE LINKER:-z,relro LINKER:-z,now)
