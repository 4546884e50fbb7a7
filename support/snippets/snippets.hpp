// What the code in the documentation takes as given, and what its hidden lines look with. The names
// that a reader meets (`llm`, `http`, `client`, `messages`) are those that docs/index.md explains.
#pragma once

#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint/endpoint.hpp"
#include "loopback/detour.hpp"

// A snippet shows what can be had; it need not use all of it, and may name things anew.
#pragma GCC diagnostic ignored "-Wshadow"
#pragma GCC diagnostic ignored "-Wunused-variable"

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using namespace std::chrono_literals;  // NOLINT(google-global-names-in-headers)

namespace snippets {

/// Fails the fragment, naming its line.
void check(bool holds, const std::string& about = "", int line = __builtin_LINE());

/// What every page takes as given; each fragment finds the server as it was constructed.
inline endpoint::Endpoint server;
inline const llm::LLMClient client({.base_url = server.url() + "/v1",
                                    .model = "some-model",
                                    .api_key = "sk-made-up-key"});
inline const llm::Messages messages{llm::system("You answer in JSON."),
                                    llm::user("Where are retries made?")};

/// Each row of the tables of docs/errors.md, which are for errors and for last failures, shows a
/// failure that is provoked here, and each failure that is provoked is shown by a row.
void every_row_is_provoked();

/// Runs the fragments of a page in order and says which of them fail.
int run(const std::vector<std::pair<const char*, void (*)()>>& fragments);

}  // namespace snippets

using snippets::check;
using snippets::client;
using snippets::messages;
using snippets::server;
