#include "floor.hpp"

namespace bench {

Floor::Floor(const std::string& url) {
  for (const char* const header :
       {"Content-Type: application/json", "Authorization: Bearer k", "Expect:"}) {
    _headers = curl_slist_append(_headers, header);
  }
  curl_easy_setopt(_easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(_easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, _headers);
  curl_easy_setopt(_easy, CURLOPT_WRITEFUNCTION, &Floor::take);
  curl_easy_setopt(_easy, CURLOPT_WRITEDATA, &_buffer);
}

Floor::~Floor() {
  curl_easy_cleanup(_easy);
  curl_multi_cleanup(_multi);
  curl_slist_free_all(_headers);
}

std::size_t Floor::take(const char* bytes, std::size_t, std::size_t count, std::string* into) {
  into->append(bytes, count);
  return count;
}

std::string_view Floor::content_of(std::string_view json, const char* holder) {
  _padded.assign(json).append(simdjson::SIMDJSON_PADDING, '\0');
  simdjson::dom::element root;
  std::string_view content;
  if (_parser.parse(_padded.data(), json.size(), false).get(root) != simdjson::SUCCESS) return {};
  if (root["choices"].at(0)[holder]["content"].get(content) != simdjson::SUCCESS) return {};
  return content;
}

void Floor::take_events(std::string& content) {
  constexpr std::string_view PREFIX = "data: ";
  std::size_t start = 0;
  for (std::size_t end = 0; (end = _buffer.find('\n', start)) != std::string::npos;) {
    const std::string_view line = std::string_view(_buffer).substr(start, end - start);
    start = end + 1;
    if (line.starts_with(PREFIX)) content += content_of(line.substr(PREFIX.size()), "delta");
  }
  _buffer.erase(0, start);
}

std::string Floor::call(const std::string& body, bool stream) {
  curl_easy_setopt(_easy, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_multi_add_handle(_multi, _easy);
  std::string content;
  _buffer.clear();
  for (int running = 1; running > 0;) {
    curl_multi_perform(_multi, &running);
    if (stream) take_events(content);
    if (running > 0) curl_multi_poll(_multi, nullptr, 0, 1000, nullptr);
  }
  curl_multi_remove_handle(_multi, _easy);
  if (!stream) content = content_of(_buffer, "message");
  return content;
}

}  // namespace bench
