// What the fuzzers share. Each defines libFuzzer's entry point; replay.cpp calls it, too.
#pragma once

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>

#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/http/playback.hpp"
#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/engines/http/utf8.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "text/characters.hpp"

// NOLINTNEXTLINE(readability-identifier-naming): libFuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using Json = nlohmann::ordered_json;

/// Ends the process, which libFuzzer takes for a find, unless `holds`.
inline void require(bool holds, const std::string& about = "", int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "line %d: %s\n", line, about.c_str());
  std::abort();
}

/// No text leaves the library that is anything but this.
inline const std::string& clean(const std::string& text, std::string_view secret) {
  require(http::is_utf8(text) && text.find(secret) == std::string::npos, text);
  return text;
}

/// An input: the first byte picks among ways to use the rest.
struct Input {
  Input(const std::uint8_t* data, std::size_t size)
      : body(data, data + size), shape(size == 0 ? 0 : *data) {
    body.erase(0, 1);
  }

  /// `body` in pieces of at most so many bytes.
  [[nodiscard]] std::vector<std::string> cut(std::size_t longest) const {
    std::mt19937 random(shape);
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at < body.size(); at += pieces.back().size())
      pieces.push_back(body.substr(at, random() % longest + 1));
    return pieces;
  }

  std::string body;
  unsigned shape;
};

}  // namespace fuzz
