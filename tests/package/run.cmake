# Installs the build into an empty folder, builds a user's project against it and runs that.
# BUILD: the build tree; WORK: a folder to work in; SOURCE: this folder; FLAGS: of the compiler
file(REMOVE_RECURSE ${WORK})
foreach(command IN ITEMS
    "${CMAKE_COMMAND};--install;${BUILD};--prefix;${WORK}/root;--component;library"
    "${CMAKE_COMMAND};-S;${SOURCE};-B;${WORK}/build;-DCMAKE_PREFIX_PATH=${WORK}/root;-DCMAKE_CXX_COMPILER=${CXX};-DCMAKE_CXX_FLAGS=${FLAGS}"
    "${CMAKE_COMMAND};--build;${WORK}/build"
    "${WORK}/build/consumer")
  execute_process(COMMAND ${command} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
