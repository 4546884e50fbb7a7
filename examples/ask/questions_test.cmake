# Checks that `ask` finds the file that answers a question about this repository, among
# the first three.
# PROGRAM: ask; SOURCE: this repository
cmake_minimum_required(VERSION 3.25)

# expect_found(FILE QUESTION)
function(expect_found file question)
  execute_process(COMMAND ${PROGRAM} --files ${SOURCE} ${question}
                  OUTPUT_VARIABLE paths COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCH "^[^\n]*\n[^\n]*\n[^\n]*\n" first "${paths}")
  if(NOT first MATCHES "/${file}\n")
    message(SEND_ERROR "${question}\n${first}do not include ${file}")
  endif()
endfunction()

expect_found(retry.cpp       "Where are retries made?")
expect_found(redaction.cpp   "Where are secrets redacted?")
expect_found(exchange.cpp    "Where is the Copilot token exchanged?")
expect_found(reasoning.cpp   "How is reasoning removed?")
expect_found(proxies.cpp     "Where is the proxy chosen?")
expect_found(events.cpp      "How are server-sent events read?")
expect_found(pool.cpp        "Where are connections kept for reuse?")
expect_found(client.cpp      "How is the client built from the configuration?")
expect_found(loader.cpp      "How is the OpenAI client library found?")
expect_found(json_mend.cpp   "Which file fixes lone surrogates in JSON?")
expect_found(token_count.cpp "How are token counts converted?")
expect_found(process.cpp     "What happens on fork?")
