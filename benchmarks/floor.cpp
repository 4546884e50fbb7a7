#include "floor.hpp"

#include <array>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include <emmintrin.h>

namespace bench {
namespace {

constexpr std::array<char, 256> ESCAPES = [] {
  std::array<char, 256> table{};
  for (std::size_t c = 0; c < 0x20; ++c) table.at(c) = 'u';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}();

// Appends `text` as the inside of a JSON string, sixteen bytes at a time.
void escape(std::string_view text, std::string& out) {
  const std::size_t before = out.size();
  out.resize(before + 6 * text.size() + sizeof(__m128i));
  char* to = out.data() + before;
  const char* from = text.data();
  const char* const end = from + text.size();
  while (from < end) {
    if (end - from >= 16) {
      const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
      const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
      const __m128i quote = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
      const __m128i slash = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
      const auto found = static_cast<unsigned>(
          _mm_movemask_epi8(_mm_or_si128(control, _mm_or_si128(quote, slash))));
      const int clean = std::countr_zero(found | 0x10000U);
      from += clean;
      to += clean;
      if (clean == 16) continue;
    }
    const auto byte = static_cast<unsigned char>(*from++);
    const char letter = ESCAPES[byte];
    if (letter == 0) {
      *to++ = static_cast<char>(byte);
      continue;
    }
    *to++ = '\\';
    *to++ = letter;
    if (letter == 'u') to += std::snprintf(to, 5, "%04x", byte);
  }
  out.resize(static_cast<std::size_t>(to - out.data()));
}

void take_choice(const simdjson::dom::element& choices, std::string_view holder, Answer& answer) {
  simdjson::dom::array list;
  simdjson::dom::object choice;
  std::string_view text;
  if (choices.get(list) != simdjson::SUCCESS) return;
  if (list.at(0).get(choice) != simdjson::SUCCESS) return;
  for (const auto& [name, value] : choice) {
    if (name == holder) {
      if (value["content"].get(text) == simdjson::SUCCESS) answer.content += text;
    } else if (name == "finish_reason" && value.get(text) == simdjson::SUCCESS) {
      answer.finish_reason = text;
    }
  }
}

}  // namespace

Floor::Floor(const std::string& url, bool stream) : _stream(stream) {
  for (const char* const header : {"Authorization: Bearer k", "Content-Type: application/json",
                                   "User-Agent: tovren-mapstead/0.1.0", "Expect:"}) {
    _headers = curl_slist_append(_headers, header);
  }
  if (stream) _headers = curl_slist_append(_headers, "Accept: text/event-stream");
  curl_easy_setopt(_easy, CURLOPT_URL, (url + "/chat/completions").c_str());
  curl_easy_setopt(_easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(_easy, CURLOPT_HTTPHEADER, _headers);
  curl_easy_setopt(_easy, CURLOPT_WRITEFUNCTION, &Floor::take);
  curl_easy_setopt(_easy, CURLOPT_WRITEDATA, this);
}

Floor::~Floor() {
  curl_easy_cleanup(_easy);
  curl_multi_cleanup(_multi);
  curl_slist_free_all(_headers);
}

std::size_t Floor::take(const char* bytes, std::size_t, std::size_t count, Floor* self) {
  self->reserve(count);
  std::memcpy(self->_buffer.get() + self->_size, bytes, count);
  self->_size += count;
  return count;
}

void Floor::reserve(std::size_t room) {
  const std::size_t needed = _size + room + simdjson::SIMDJSON_PADDING;
  if (needed <= _capacity) return;
  _capacity = 2 * needed;
  auto larger = std::make_unique<char[]>(_capacity);
  std::memcpy(larger.get(), _buffer.get(), _size);
  _buffer = std::move(larger);
}

void Floor::take_json(std::size_t start, std::size_t size, std::string_view holder,
                      Answer& answer) {
  simdjson::dom::object root;
  std::string_view text;
  if (_parser.parse(_buffer.get() + start, size, false).get(root) != simdjson::SUCCESS) return;
  for (const auto& [name, value] : root) {
    if (name == "choices") {
      take_choice(value, holder, answer);
    } else if (name == "model") {
      if (value.get(text) == simdjson::SUCCESS) answer.model = text;
    } else if (name == "usage" && value.is_object()) {
      std::ignore = value["prompt_tokens"].get(answer.prompt_tokens);
      std::ignore = value["completion_tokens"].get(answer.completion_tokens);
    }
  }
}

void Floor::take_events(Answer& answer) {
  constexpr std::string_view PREFIX = "data: ";
  while (_start < _size) {
    const char* const line = _buffer.get() + _start;
    const void* const end = std::memchr(line, '\n', _size - _start);
    if (end == nullptr) break;
    const auto size = static_cast<std::size_t>(static_cast<const char*>(end) - line);
    if (std::string_view(line, size).starts_with(PREFIX)) {
      take_json(_start + PREFIX.size(), size - PREFIX.size(), "delta", answer);
    }
    _start += size + 1;
  }
  std::memmove(_buffer.get(), _buffer.get() + _start, _size - _start);
  _size -= _start;
  _start = 0;
}

Answer Floor::call(std::string_view prompt) {
  _request = R"({"model":"m","messages":[{"role":"user","content":")";
  if (!simdjson::validate_utf8(prompt.data(), prompt.size())) return {};
  escape(prompt, _request);
  _request += R"("}],"temperature":0.2,"max_tokens":4096)";
  if (_stream) _request += R"(,"stream":true,"stream_options":{"include_usage":true})";
  _request += '}';
  curl_easy_setopt(_easy, CURLOPT_POSTFIELDS, _request.data());
  curl_easy_setopt(_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_request.size()));
  curl_multi_add_handle(_multi, _easy);
  Answer answer;
  _size = _start = 0;
  for (int running = 1; running > 0;) {
    curl_multi_perform(_multi, &running);
    if (_stream) take_events(answer);
    if (running > 0) curl_multi_poll(_multi, nullptr, 0, 1000, nullptr);
  }
  int queued = 0;
  const CURLMsg* const message = curl_multi_info_read(_multi, &queued);
  long status = 0;
  curl_easy_getinfo(_easy, CURLINFO_RESPONSE_CODE, &status);
  const bool good = message != nullptr && message->data.result == CURLE_OK && status == 200;
  curl_multi_remove_handle(_multi, _easy);
  if (!good) throw std::runtime_error("the floor's request has failed");
  if (!_stream) take_json(0, _size, "message", answer);
  return answer;
}

}  // namespace bench
