# Runs the example NAME against a test endpoint.
# PROGRAM: the example; WITH: with_endpoint; SOURCE: this repository; WORK: a folder to work in
cmake_minimum_required(VERSION 3.25)
set(run ${WITH} ${PROGRAM} {url} m)

# expect(STATUS STDOUT STDERR COMMAND...): checks a command's exit status, and its output by regular
# expressions.
function(expect status stdout stderr)
  execute_process(COMMAND ${ARGN} INPUT_FILE /dev/null
                  RESULT_VARIABLE ended OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT ended STREQUAL status OR NOT out MATCHES "${stdout}" OR NOT err MATCHES "${stderr}")
    message(SEND_ERROR "${ARGN}\n${ended}, not ${status}\n${out}\nnot ${stdout}"
                       "\n${err}\nnot ${stderr}")
  endif()
endfunction()

# expect_no_description(ANSWER WHY): checks how `json_mode` refuses an answer.
function(expect_no_description answer why)
  set(ENV{ENDPOINT_ANSWER} ${answer})
  expect(1 "^$" "^json_mode: the answer [^\n]*${why}[^\n]*\n$" ${run} "a tale")
endfunction()

# expect_on_terminal(ANSWER SHOWN): checks what `ask` shows of an answer.
function(expect_on_terminal answer shown)
  set(ENV{ENDPOINT_ANSWER} ${answer})
  expect(0 "${shown}\nmodel=" "^$"
         script -qec "${WITH} ${PROGRAM} --base-url {url} --model m --prompt Why?" /dev/null)
endfunction()

if(NAME STREQUAL quickstart)
  expect(0 "^m was asked: Why\\?\n$" "^$" ${run} Why?)
  expect(1 "^$" "^quickstart: cannot write[^\n]*\n$"
         ${WITH} sh -c "\"$0\" $1 m >/dev/full" ${PROGRAM} {url})

elseif(NAME STREQUAL json_mode)
  expect(0 "^m was asked: a tale\n- demo\n- loopback\n$" "^$" ${run} "a tale")
  string(REPEAT "x" 6001 long)
  expect_no_description("text" "is not JSON")
  expect_no_description("{\"summary\": \"s\", \"tags\": [1]}" "another shape")
  expect_no_description("${long}" "broke off at 1500 tokens")

elseif(NAME STREQUAL fake)
  expect(0 "^$" "^$" ${PROGRAM})

elseif(NAME STREQUAL ask)
  file(REMOVE_RECURSE ${WORK})
  string(ASCII 233 latin1)
  file(WRITE "${WORK}/caf${latin1}.txt" "coffee\n")
  file(WRITE "${WORK}/.env" "coffee\n")
  string(ASCII 27 escape)
  set(ask ${WITH} ${PROGRAM} --base-url {url} --model m)
  expect(0 "^caf${latin1}.txt\n$" "^$" ${PROGRAM} --files ${WORK} Coffee?)
  expect(0 "(all files).* caf�.txt" "sent 1 of 1 files, [0-9]+ tokens\n" ${ask} ${WORK} Coffee?)
  expect(0 "^m was asked: Question: Why[?]  === .standard input. .3 bytes. a b\n$"
         "sent standard input"
         sh -c "printf 'a b' | \"$@\"" sh ${ask} Why?)
  expect(2 "^$" "ask: standard input is not UTF-8" sh -c "printf '\\377' | \"$@\"" sh ${ask} Why?)
  expect_on_terminal("<think>no</think> yes" "${escape}.Kyes")
  expect_on_terminal("no</think>yes" "no</think>yes\r${escape}.Jyes")
  expect_on_terminal("a${escape}cb" "${escape}.Ka�cb")

elseif(NAME STREQUAL event_loop)
  string(REPEAT "m was asked: [abcdef]\n" 6 answers)
  expect(0 "^${answers}$" "^(tick\n)*$" ${run} 60 a b c d e f)
  set(ENV{ENDPOINT_LIMIT} 1)
  expect(1 "^m was asked: [^\n]*\n$" "^tick\ntick\n.*5 calls were stopped\n$"
         ${run} 1 a b c d e f)

elseif(NAME STREQUAL wiki)
  # A tree with files that are not text, a loop of links, and hidden files.
  file(REMOVE_RECURSE ${WORK})
  set(tree ${WORK}/tree)
  string(ASCII 255 bytes)
  foreach(path IN ITEMS a.txt b/b.txt "b/${bytes}.txt" "e f/\"e\".txt" .h/h.txt
          build/CMakeCache.txt build/x/x.txt)
    file(WRITE "${tree}/${path}" "text\n")
  endforeach()
  string(REPEAT "é" 3000 long)
  # Its excerpt would end in the middle of a character.
  file(WRITE ${tree}/c/d/d.txt "text\n${long}")
  file(WRITE ${tree}/b/latin1.txt "${bytes}\n")
  file(CREATE_LINK . ${tree}/loop SYMBOLIC)
  expect(1 "^$" "^\n[^\n]*HTTP 401[^\n]*\n\n0 of 4 pages\n$"
         ${WITH} env TOVREN_LLM_API_KEY=another ${PROGRAM} {url} m ${tree} ${WORK}/none)
  # The endpoint never answers the fourth call.
  set(ENV{ENDPOINT_LIMIT} 3)
  expect(130 "^$" "\n3 of 4 pages\n$"
         timeout --preserve-status -s INT 2 ${run} ${tree} ${WORK}/part)
  unset(ENV{ENDPOINT_LIMIT})
  foreach(time IN ITEMS first second)  # the second must not describe the pages of the first
    expect(0 "^$" "4 of 4 pages\n$" ${run} ${tree} ${tree}/wiki)
    file(READ ${tree}/wiki/index.md index)
    string(REGEX MATCHALL "<[^>]*>" links "${index}")
    if(NOT links STREQUAL "<./wiki.md>;<./b/wiki.md>;<./c/d/wiki.md>;<./e f/wiki.md>")
      message(SEND_ERROR "${time}: ${links}")
    endif()
  endforeach()
  file(READ ${tree}/wiki/c/d/wiki.md page)
  if(NOT page STREQUAL "m was asked: Describe this: === ./c/d/d.txt text\n")
    message(SEND_ERROR "${page}")
  endif()
endif()
