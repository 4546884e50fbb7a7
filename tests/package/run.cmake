# Installs the build into an empty folder and builds the README's examples against it, as a user
# would. BUILD: the build tree; WORK: a folder to work in; SOURCE: this folder; README; GENERATOR; CXX; FLAGS
file(REMOVE_RECURSE ${WORK})
file(READ ${README} readme)
foreach(name IN ITEMS main.cpp binding.cpp)
  string(FIND "${readme}" "builds this as ${name}" begin)
  string(SUBSTRING "${readme}" ${begin} -1 rest)
  string(FIND "${rest}" "```cpp\n" begin)
  math(EXPR begin "${begin} + 7")
  string(SUBSTRING "${rest}" ${begin} -1 rest)
  string(FIND "${rest}" "```" end)
  string(SUBSTRING "${rest}" 0 ${end} code)
  file(WRITE ${WORK}/source/${name} "${code}")
endforeach()
file(COPY ${SOURCE}/CMakeLists.txt DESTINATION ${WORK}/source)
file(WRITE ${WORK}/source/my/client.hpp [[
#pragma once
#include <string>
namespace my {
struct Client {  // stands for somebody's client library
  Client(std::string, std::string) {}
  std::string ask(const std::string& model, const auto&) { return model; }
};
}
]])
foreach(command IN ITEMS
    "${CMAKE_COMMAND};--install;${BUILD};--prefix;${WORK}/root;--component;library"
    "${CMAKE_COMMAND};-G;${GENERATOR};-S;${WORK}/source;-B;${WORK}/build;-DCMAKE_PREFIX_PATH=${WORK}/root;-DCMAKE_CXX_COMPILER=${CXX};-DCMAKE_CXX_FLAGS=${FLAGS}"
    "${CMAKE_COMMAND};--build;${WORK}/build"
    "${CMAKE_COMMAND};-E;env;TOVREN_LLM_API_KEY=;${WORK}/build/consumer")
  execute_process(COMMAND ${command} COMMAND_ERROR_IS_FATAL ANY ERROR_VARIABLE told
                  ECHO_ERROR_VARIABLE)
endforeach()
if(NOT told MATCHES "LLM is not configured")
  message(FATAL_ERROR "the example did not run: ${told}")
endif()
