# Includes run one way: llm -> copilot -> http -> the standard library and third parties. Public
# headers include public headers only, and neither libcurl nor RE2 nor spdlog; one folder names libcurl.
# ROOT: the project
cmake_minimum_required(VERSION 3.25)
file(GLOB_RECURSE files RELATIVE ${ROOT} ${ROOT}/include/*.hpp ${ROOT}/src/*.hpp ${ROOT}/src/*.cpp)

function(forbid place pattern)
  foreach(file IN LISTS files)
    if(file MATCHES "${place}")
      file(STRINGS ${ROOT}/${file} lines REGEX "^#include .*(${pattern})")
      foreach(line IN LISTS lines)
        message(SEND_ERROR "${file}: ${line}")
      endforeach()
    endif()
  endforeach()
endfunction()

forbid("/engines/http/" "engines/(llm|copilot)|tovren_mapstead/config")
forbid("/engines/http/([^c]|c[^l]).*$" "tovren_mapstead/openai")  # its classifier alone knows it
forbid("/openai" "engines/")
forbid("/engines/copilot" "engines/llm|tovren_mapstead/config")
forbid("^include/" "\"engines/|<(curl|openssl|re2|spdlog)/|<simdjson")
# Who only asks a client compiles no third party's header.
forbid("^include/.*(copilot|llm.*|classify|errors|retry|secrets|transport)\\.hpp" "http/(send|json)\\.hpp|<nlohmann/")
forbid("^src/engines/llm/(reply|stream)/" "<thread>|<mutex>|<sys/|engines/http/transport|engines/llm/client")
list(FILTER files EXCLUDE REGEX "^src/engines/http/curl/")
forbid("." "<curl/|engines/http/curl/")
