# What was built is hardened, and what users of the package get says nothing of it.
# READELF; LIBRARY: a static one; PROGRAMS; MODULE: a shared object; EXPORTED: folder of the package's targets
cmake_minimum_required(VERSION 3.25)

function(require file what)
  execute_process(COMMAND ${READELF} -W ${ARGN} ${file}
    OUTPUT_VARIABLE told ERROR_VARIABLE complaint COMMAND_ERROR_IS_FATAL ANY)
  if(NOT told MATCHES "${what}")
    message(SEND_ERROR "${file}: no ${what}")
  endif()
endfunction()

foreach(file IN LISTS PROGRAMS MODULE)
  require(${file} "BIND_NOW|FLAGS_1[^\n]* NOW" --dynamic)
  require(${file} "GNU_RELRO" --program-headers)
endforeach()
foreach(file IN LISTS PROGRAMS)
  require(${file} "Type: +DYN" --file-header)
  require(${file} "FLAGS_1[^\n]* PIE" --dynamic)
endforeach()
foreach(file IN LISTS PROGRAMS MODULE LIBRARY)
  require(${file} "__stack_chk_fail" --symbols)
endforeach()

file(GLOB_RECURSE files ${EXPORTED}/*.cmake)
if(NOT files)
  message(SEND_ERROR "no exported targets in ${EXPORTED}")
endif()
foreach(file IN LISTS files)
  file(STRINGS ${file} leaks REGEX "stack-protector|FORTIFY|GLIBCXX_ASSERTIONS|relro|-Werror|tovren_build_flags")
  if(leaks)
    message(SEND_ERROR "${file}: ${leaks}")
  endif()
endforeach()
