// What the fuzzers share. Each defines libFuzzer's entry point; replay.cpp calls it, too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tovren_mapstead/engines/http/json.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "playback/playback.hpp"

// NOLINTNEXTLINE(readability-identifier-naming): libFuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

/// Ends the process, which libFuzzer takes for a find, unless `holds`.
inline void require(bool holds, std::string_view about = "", int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "line %d: %.*s\n", line, static_cast<int>(about.size()), about.data());
  std::abort();
}

/// The first byte of an input, which picks among ways to use the rest.
struct Input {
  Input() = default;

  Input(const std::uint8_t* data, std::size_t size)
      : shape(size == 0 ? 0 : *data), body(reinterpret_cast<const char*>(data) + (size == 0 ? 0 : 1), size == 0 ? 0 : size - 1) {}

  unsigned shape = 0;
  std::string body;
};

/// `body` cut at random into pieces of `longest` bytes at most.
inline std::vector<std::string> cut(std::string_view body, std::size_t longest) {
  std::mt19937 random(static_cast<unsigned>(longest));
  std::vector<std::string> pieces;
  while (!body.empty()) {
    pieces.emplace_back(body.substr(0, random() % longest + 1));
    body.remove_prefix(pieces.back().size());
  }
  return pieces;
}

/// No text that leaves the library, be it a result or an error, is anything but this.
inline void require_clean(std::string_view text, const http::Secrets& secrets) {
  require(http::is_utf8(text), text);
  for (const std::string& secret : secrets) require(text.find(secret) == std::string_view::npos, text);
}

inline void replace_all(std::string& text, std::string_view what, std::string_view by) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
    text.replace(at, what.size(), by);
  }
}

}  // namespace fuzz
