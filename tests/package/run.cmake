# Takes the library in as its users do, by the README's words, and runs what they would build.
# ROOT: the project; BUILD: a build tree, static; DEBIAN: where to keep a shared one, or nothing;
# WORK: a folder to work in; ENDPOINT: a program that runs others beside an endpoint; CXX; FLAGS
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGV} OUTPUT_VARIABLE told ERROR_VARIABLE told RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    list(JOIN ARGV " " line)
    message(FATAL_ERROR "${line}\n${told}")
  endif()
  set(told "${told}" PARENT_SCOPE)
endfunction()

# The block of a page after the comment that names it, written to a file.
function(extract page name file)
  file(READ ${ROOT}/${page} text)
  if(NOT text MATCHES "<!-- ${name} -->\n```[a-z]+\n([^`]*)```")
    message(FATAL_ERROR "${page}: no block ${name}")
  endif()
  file(WRITE ${file} "${CMAKE_MATCH_1}")
endfunction()

# ask(PROGRAM [VARIABLE=VALUE]...): what a consumer built answers, beside an endpoint.
function(ask program)
  run(${CMAKE_COMMAND} -E env ${ARGN} ${ENDPOINT} ${program} {url} some-model "Are you there?")
  if(NOT told MATCHES "Are you there\\?")
    message(FATAL_ERROR "${program}: ${told}")
  endif()
  set(told "${told}" PARENT_SCOPE)
endfunction()

# consume(NAME BLOCK [OPTION]...): builds the quickstart by that block of the README, and runs it.
function(consume name block)
  set(folder ${WORK}/${name})
  extract(README.md ${block} ${folder}/CMakeLists.txt)
  configure_file(${ROOT}/examples/quickstart.cpp ${folder}/main.cpp COPYONLY)
  run(${CMAKE_COMMAND} -G Ninja -S ${folder} -B ${folder}/build -DCMAKE_CXX_COMPILER=${CXX}
      -DCMAKE_CXX_FLAGS=${FLAGS} ${ARGN})
  run(${CMAKE_COMMAND} --build ${folder}/build)
  ask(${folder}/build/app)
endfunction()

# consume_bare(NAME PREFIX [VARIABLE=VALUE]...): the same by its line for pkg-config.
function(consume_bare name prefix)
  set(folder ${WORK}/${name})
  extract(README.md pkg-config ${folder}/build.sh)
  configure_file(${ROOT}/examples/quickstart.cpp ${folder}/main.cpp COPYONLY)
  file(GLOB_RECURSE pc ${prefix}/*/tovren_mapstead_llm.pc)
  cmake_path(GET pc PARENT_PATH pc)
  file(RELATIVE_PATH pc ${folder} ${pc})  # without the blanks that the path to here may have
  run(${CMAKE_COMMAND} -E chdir ${folder} ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc} "CXX=${CXX} ${FLAGS}" sh -e build.sh)
  ask(${folder}/app ${ARGN})
endfunction()

file(REMOVE_RECURSE ${WORK}/static)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/static)
consume(from_static find_package -DCMAKE_PREFIX_PATH=${WORK}/static)
consume_bare(from_static_bare ${WORK}/static)

set(folder ${WORK}/binding)
extract(docs/binding.md binding ${folder}/CMakeLists.txt)
configure_file(${BUILD}/tests/docs/binding/module1.cpp ${folder}/binding.cpp COPYONLY)
run(${CMAKE_COMMAND} -G Ninja -S ${folder} -B ${folder}/build -DCMAKE_PREFIX_PATH=${WORK}/static
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${FLAGS} -I'${ROOT}/support/snippets'")
run(${CMAKE_COMMAND} --build ${folder}/build)
ask(${WORK}/from_static/build/app LD_LIBRARY_PATH=${folder}/build)
if(NOT told MATCHES "You said")
  message(FATAL_ERROR "not by way of the binding: ${told}")
endif()
if(NOT DEBIAN)
  return()
endif()

file(GLOB old ${DEBIAN}/*.deb)
file(REMOVE_RECURSE ${WORK}/shared ${WORK}/deb ${old})
run(${CMAKE_COMMAND} -E chdir ${ROOT} ${CMAKE_COMMAND} --preset debian -B ${DEBIAN}
    -DCMAKE_CXX_COMPILER=${CXX} -DTOVREN_WERROR=ON)
run(${CMAKE_COMMAND} --build ${DEBIAN})

run(${CMAKE_COMMAND} --install ${DEBIAN} --prefix ${WORK}/shared)
file(GLOB objects ${WORK}/shared/lib*/lib*.so ${WORK}/shared/lib/*/lib*.so)
foreach(object IN LISTS objects)
  cmake_path(GET object FILENAME name)
  run(readelf --dynamic --wide ${object})
  if(NOT told MATCHES "SONAME[^\n]*\\[${name}\\.[0-9]+\\.[0-9]+\\]")
    message(SEND_ERROR "${object}: ${told}")
  endif()
  run(nm --dynamic --defined-only --format=posix ${object})
  string(REGEX REPLACE "(^|\n)_Z[A-Z]+(St4hashIN)?15tovren_mapstead[^\n]*" "" foreign "${told}")
  string(STRIP "${foreign}" foreign)
  if(foreign OR told STREQUAL "")
    message(SEND_ERROR "${object} shows what is not its own:\n${foreign}")
  endif()
endforeach()
list(GET objects 0 object)
cmake_path(GET object PARENT_PATH libraries)
set(ENV{PKG_CONFIG_LIBDIR} /usr/share/pkgconfig)  # no library's own: its users need none of them
consume_bare(from_shared_bare ${WORK}/shared LD_LIBRARY_PATH=${libraries})
unset(ENV{PKG_CONFIG_LIBDIR})

run(cpack --config ${DEBIAN}/CPackConfig.cmake -B ${DEBIAN})
file(GLOB packages ${DEBIAN}/*.deb)
file(GLOB binding ${DEBIAN}/*openai*.deb)
list(LENGTH packages count)
if(NOT count EQUAL 3 OR NOT binding)
  message(FATAL_ERROR "packages: ${packages}")
endif()
list(REMOVE_ITEM packages ${binding})
# Into a root of their own, where nothing that they depend on is installed, nor a shell to run their
# scripts, which are ldconfig's.
file(MAKE_DIRECTORY ${WORK}/deb/var/lib/dpkg/updates ${WORK}/deb/var/lib/dpkg/info)
file(TOUCH ${WORK}/deb/var/lib/dpkg/status)
set(dpkg dpkg --root=${WORK}/deb --force-depends,not-root,bad-path --unpack)
run(${dpkg} ${packages})
file(GLOB_RECURSE library ${WORK}/deb/*/libtovren_mapstead_http.so)
cmake_path(GET library PARENT_PATH libraries)
set(ENV{LD_LIBRARY_PATH} ${libraries})  # the loader knows them where they are installed for good
consume(from_deb find_package -DCMAKE_PREFIX_PATH=${WORK}/deb/usr)
run(${dpkg} ${binding})
ask(${WORK}/from_deb/build/app LD_BIND_NOW=1 LD_DEBUG=files)
if(NOT told MATCHES "calling init: [^\n]*/libtovren_openai\\.so")
  message(FATAL_ERROR "not by way of the binding: ${told}")
endif()
unset(ENV{LD_LIBRARY_PATH})

consume(from_source fetch_content -DFETCHCONTENT_SOURCE_DIR_TOVREN_MAPSTEAD=${ROOT})
file(STRINGS ${WORK}/from_source/build/CMakeCache.txt leaks
     REGEX "^(BUILD_TESTING|CMAKE_BUILD_TYPE:[^=]*=.+|TOVREN_(DEVELOPER|INSTALL).*=ON)")
file(GLOB_RECURSE tests ${WORK}/from_source/build/CTestTestfile.cmake)
file(STRINGS ${WORK}/from_source/build/cmake_install.cmake installs REGEX "TYPE ")
if(leaks OR tests OR installs)
  message(SEND_ERROR "a parent project gets ${leaks} ${tests} ${installs}")
endif()
