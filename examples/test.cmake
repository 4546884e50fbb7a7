# Uses the example NAME as its reader would, beside an endpoint.
# PROGRAM: the example; WITH: with_endpoint
cmake_minimum_required(VERSION 3.25)
set(ENV ${CMAKE_COMMAND} -E env)

# expect(STATUS STDOUT STDERR COMMAND...): what a command has to exit with and, as expressions, print.
function(expect status stdout stderr)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE ended OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT ended STREQUAL status OR NOT out MATCHES "${stdout}" OR NOT err MATCHES "${stderr}")
    message(SEND_ERROR "${ARGN}\nexit status: ${ended}, not ${status}\nstdout:\n${out}\nnot ${stdout}"
                       "\nstderr:\n${err}\nnot ${stderr}")
  endif()
endfunction()

if(NAME STREQUAL with_endpoint)
  expect(7 "^http://127.0.0.1:[0-9]+/v1\n$" "^$" ${WITH} sh -c "echo $1 && exit 7" sh {url})
  expect(143 "^$" "^$" ${WITH} sh -c "kill -TERM $$")
  expect(127 "^$" "^no/such/command: " ${WITH} no/such/command)

elseif(NAME STREQUAL quickstart)
  expect(0 "^m was asked: Why\\?\n$" "^$" ${WITH} ${PROGRAM} {url} m Why?)
  expect(1 "^$" "^quickstart: LLM request failed with HTTP 401[^\n]*\n$"
         ${WITH} ${ENV} TOVREN_LLM_API_KEY=another ${PROGRAM} {url} m)
  expect(1 "^$" "^quickstart: [^\n]*not configured[^\n]*\n$" ${ENV} TOVREN_LLM_API_KEY= ${PROGRAM} http://h m)
  expect(1 "^$" "^quickstart: [^\n]*http[^\n]*\n$" ${PROGRAM} ftp://h m)
  expect(2 "^$" "^usage: " ${PROGRAM} http://h)

elseif(NAME STREQUAL json_mode)
  expect(0 "^m was asked: a tale\n- demo\n- loopback\n$" "^$" ${WITH} ${PROGRAM} {url} m "a tale")
  string(REPEAT "x" 6001 long)
  foreach(case "not an object:is not JSON" "[]:another shape" "{\"summary\": 7}:another shape"
               "{\"summary\": \"s\", \"tags\": [1]}:another shape" "${long}:broke off at 1500 tokens")
    string(REGEX MATCH "^(.*):([^:]*)$" all "${case}")
    expect(1 "^$" "^json_mode: the answer [^\n]*${CMAKE_MATCH_2}[^\n]*\n$"
           ${ENV} "ENDPOINT_ANSWER=${CMAKE_MATCH_1}" ${WITH} ${PROGRAM} {url} m "a tale")
  endforeach()

elseif(NAME STREQUAL custom_transport)
  expect(0 "^$" "^$" ${PROGRAM})

elseif(NAME STREQUAL event_loop)
  expect(0 "^(m was asked: [abcdef]\n)(m was asked: [abcdef]\n)*$" "^(tick\n)*$" ${WITH} ${PROGRAM} {url} m 60 a b c d e f)
  expect(1 "^m was asked: [^\n]*\n$" "^tick\ntick\n.*5 calls were stopped\n$"
         ${ENV} ENDPOINT_LIMIT=1 ${WITH} ${PROGRAM} {url} m 1 a b c d e f)

endif()
