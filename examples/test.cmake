# Runs the example NAME against a test endpoint.
# PROGRAM: the example; WITH: with_endpoint; SOURCE: this repository; WORK: a folder to work in
cmake_minimum_required(VERSION 3.25)
set(ENV ${CMAKE_COMMAND} -E env)

# expect(STATUS STDOUT STDERR COMMAND...): checks a command's exit status, and its output by regular expressions.
function(expect status stdout stderr)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE ended OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT ended STREQUAL status OR NOT out MATCHES "${stdout}" OR NOT err MATCHES "${stderr}")
    message(SEND_ERROR "${ARGN}\nexit status: ${ended}, not ${status}\nstdout:\n${out}\nnot ${stdout}"
                       "\nstderr:\n${err}\nnot ${stderr}")
  endif()
endfunction()

# expect_pages(FOLDER PAGE...): checks the pages below FOLDER, and the links in its index.
function(expect_pages folder)
  file(GLOB_RECURSE pages RELATIVE ${folder} ${folder}/wiki.md)
  file(STRINGS ${folder}/index.md links)
  list(TRANSFORM links REPLACE "^- \\[(.*)\\]\\(<\\./(.*)>\\)$" "\\2")
  list(SORT links)
  if(NOT pages STREQUAL "${ARGN}" OR NOT links STREQUAL "${ARGN}")
    message(SEND_ERROR "${folder} has the pages ${pages}\nand the links ${links}\nnot ${ARGN}")
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
  expect(1 "^$" "^quickstart: cannot write[^\n]*\n$" ${WITH} sh -c "\"$0\" $1 m >/dev/full" ${PROGRAM} {url})
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
  string(REPEAT "m was asked: [abcdef]\n" 6 answers)
  expect(0 "^${answers}$" "^(tick\n)*$" ${WITH} ${PROGRAM} {url} m 60 a b c d e f)
  expect(0 "^failed: LLM is not configured" "^(tick\n)*$" ${ENV} TOVREN_LLM_API_KEY= ${PROGRAM} http://h m 60 a)
  expect(1 "^m was asked: [^\n]*\n$" "^tick\ntick\n.*5 calls were stopped\n$"
         ${ENV} ENDPOINT_LIMIT=1 ${WITH} ${PROGRAM} {url} m 1 a b c d e f)

elseif(NAME STREQUAL wiki)
  file(REMOVE_RECURSE ${WORK})
  expect(0 "^$" "\\[#* *\\].*\n([0-9]+) of [0-9]+ pages\n$" ${WITH} ${PROGRAM} {url} m ${SOURCE} ${WORK}/own)
  file(STRINGS ${WORK}/own/src/openai/wiki.md page)
  file(READ ${WORK}/own/index.md index)
  if(NOT page MATCHES "^m was asked: .*=== ./src/openai/" OR index MATCHES "/(build|\\.ci|\\.git)/")
    message(SEND_ERROR "src/openai: ${page}\nindex: ${index}")
  endif()

  # A tree with files that are not text, loops of links, and hidden files.
  set(tree ${WORK}/tree)
  foreach(path IN ITEMS a.txt b/b.txt "e f/\"e\".txt" .hidden/h.txt build/CMakeCache.txt build/x/x.txt)
    file(WRITE "${tree}/${path}" "text\n")
  endforeach()
  string(REPEAT "é" 3000 long)
  file(WRITE ${tree}/c/d/d.txt "text\n${long}")  # its excerpt would end in the middle of a character
  string(ASCII 255 254 10 bytes)
  file(WRITE ${tree}/b/latin1.txt "${bytes}")
  file(WRITE "${tree}/b/${bytes}.txt" "text\n")
  file(COPY ${PROGRAM} DESTINATION ${tree}/b)
  file(MAKE_DIRECTORY ${tree}/links)
  file(CREATE_LINK .. ${tree}/links/up SYMBOLIC)
  file(CREATE_LINK loop ${tree}/links/loop SYMBOLIC)
  file(CREATE_LINK ../a.txt ${tree}/links/a.txt SYMBOLIC)
  expect(1 "^$" "HTTP 401.*\n0 of 4 pages\n$"
         ${WITH} ${ENV} TOVREN_LLM_API_KEY=another ${PROGRAM} {url} m ${tree} ${WORK}/none)
  expect_pages(${WORK}/none)
  expect(1 "^$" "^[^\n]*cannot[^\n]*\n$" ${PROGRAM} http://h m ${WORK}/no/such/tree ${WORK}/none)

  # Sends SIGINT after three pages. The endpoint never answers the fourth call.
  set(interrupt [[
    log=$1
    shift
    "$@" 2>"$log" &
    tries=0
    until grep -q '#\{30\} ' "$log" || test $((tries += 1)) -gt 400
    do sleep 0.05
    done
    kill -INT $!
    wait $!
    status=$?
    cat "$log" >&2
    exit $status]])
  expect(130 "^$" "stop.*\n3 of 4 pages\n$"
         ${ENV} ENDPOINT_LIMIT=3 ${WITH} sh -c "${interrupt}" sh ${WORK}/log ${PROGRAM} {url} m ${tree} ${WORK}/part)
  file(GLOB_RECURSE pages RELATIVE ${WORK}/part ${WORK}/part/wiki.md)
  expect_pages(${WORK}/part ${pages})

  foreach(run IN ITEMS first second)  # the second must not describe the pages of the first
    expect(0 "^$" "4 of 4 pages\n$" ${WITH} ${PROGRAM} {url} m ${tree} ${tree}/wiki)
    expect_pages(${tree}/wiki b/wiki.md c/d/wiki.md "e f/wiki.md" wiki.md)
  endforeach()
  foreach(file IN ITEMS c/d/d.txt "e f/\"e\".txt" a.txt)
    cmake_path(GET file PARENT_PATH folder)
    file(READ "${tree}/wiki/${folder}/wiki.md" page)
    if(NOT page STREQUAL "m was asked: Describe this: === ./${file} text\n")
      message(SEND_ERROR "${folder}: ${page}")
    endif()
  endforeach()
endif()
