// The least that a call can cost: libcurl, pulled, simdjson, and no check that the answer does not
// depend on. What the client adds to it is what the benchmarks show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <curl/curl.h>
#include <simdjson.h>

namespace bench {

/// What a client keeps of a reply.
struct Answer {
  std::string content;
  std::string model;
  std::optional<std::string> finish_reason;
  std::int64_t prompt_tokens = 0;
  std::int64_t completion_tokens = 0;
};

/// One kept-alive connection to one URL.
class Floor {
 public:
  Floor(const std::string& url, bool stream);
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;
  ~Floor();

  /// Asks one question and reads the streamed or whole reply.
  Answer call(std::string_view prompt);

 private:
  static std::size_t take(const char* bytes, std::size_t, std::size_t count, Floor* self);
  void reserve(std::size_t room);
  void take_events(Answer& answer);
  void take_json(std::size_t start, std::size_t size, std::string_view holder, Answer& answer);

  CURLM* const _multi = curl_multi_init();
  CURL* const _easy = curl_easy_init();
  curl_slist* _headers = nullptr;
  const bool _stream;
  simdjson::dom::parser _parser;
  std::string _request;
  // The reply's bytes, always with room for the parser to read past them.
  std::unique_ptr<char[]> _buffer;
  std::size_t _capacity = 0;
  std::size_t _start = 0;
  std::size_t _size = 0;
};

}  // namespace bench
