# Includes run one way, from a layer to those below it:
#   text -> json -> engines/http -> engines/http/curl -> engines/copilot, openai -> engines/llm
# Public headers include public headers only, and no third party's. One folder names libcurl.
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

# Every file belongs to a layer. What a layer must not name: the layers above it.
foreach(file IN LISTS files)
  if(NOT file MATCHES "^(include|src/(text|json|openai|engines/(http|copilot|llm)))/")
    message(SEND_ERROR "${file} is in no layer")
  endif()
endforeach()
# The public headers of the engine belong to three layers.
set(http "engines/http/(bounds|errors|response|retry|send|transport)")
forbid("^src/text/" "\"(json|engines|openai)/|engines/http/json|${http}")
forbid("^src/json/" "\"(engines|openai)/|${http}")
forbid("^src/engines/http/" "engines/(copilot|llm)|\"openai/|mapstead/config")
forbid("^src/openai/" "\"engines/|engines/(copilot|llm)|mapstead/config")
forbid("^src/engines/copilot/" "engines/llm|\"openai/|mapstead/(config|openai)")
forbid("engines/http/(secrets|utf8)" "engines/")
forbid("^include/.*http/json" "${http}")
forbid("^include/.*engines/http/" "engines/(llm|copilot)|mapstead/(config|openai)")
forbid("^include/.*engines/copilot" "engines/llm|mapstead/config")
forbid("^include/tovren_mapstead/(openai|config)" "tovren")
forbid("^include/" "\"(engines|json|openai|text)/|<(curl|openssl|re2|spdlog|simdjson|nlohmann)")
forbid("^src/engines/llm/reply/" "<thread>|<mutex>|<sys/|engines/http/transport|engines/llm/client")
list(FILTER files EXCLUDE REGEX "^src/engines/http/curl/")
forbid("." "<curl/|engines/http/curl/")
