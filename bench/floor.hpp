// The least that a streamed or whole call can cost: libcurl, pulled, and simdjson, without a single
// check. What the client adds to it is what the benchmarks show.
#pragma once

#include <string>

#include <curl/curl.h>
#include <simdjson.h>

namespace bench {

class Floor {
 public:
  explicit Floor(const std::string& url);
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;
  ~Floor();

  /// Sends `body` and returns the contents of the streamed or whole reply.
  std::string call(const std::string& body, bool stream);

 private:
  static std::size_t take(const char* bytes, std::size_t, std::size_t count, std::string* into);
  void take_events(std::string& content);
  std::string_view content_of(std::string_view json, const char* holder);

  CURLM* const _multi = curl_multi_init();
  CURL* const _easy = curl_easy_init();
  curl_slist* _headers = nullptr;
  simdjson::dom::parser _parser;
  std::string _padded;
  std::string _buffer;
};

}  // namespace bench
