// Event streams, cut into reads at random. Whatever the cuts, the outcome is that of a reader which
// does plainly what the rules say: all lines first, then one after the other.
#include <algorithm>

#include <nlohmann/json.hpp>

#include "engines/http/text.hpp"
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/token_count.hpp"
#include "engines/llm/reply/white_space.hpp"
#include "engines/llm/stream/sse.hpp"
#include "fuzz.hpp"

namespace {

using namespace fuzz;
using Json = nlohmann::ordered_json;

const http::Secrets SECRETS{"KEY-1"};

std::string outcome(const llm::LLMResult& result) {
  require(http::is_utf8(result.content) && http::is_utf8(result.model) && http::is_utf8(result.finish_reason.value_or("")));
  const std::string counts = std::to_string(result.prompt_tokens) + "," + std::to_string(result.completion_tokens);
  return result.content + "\n" + result.model + "\n" + counts + "\n" + result.finish_reason.value_or("absent");
}

std::string outcome(std::vector<std::string> pieces) {
  playback::Playback transport({{.pieces = std::move(pieces)}});
  std::string told;
  try {
    const http::RetryPolicy policy{};
    const auto read = [](http::Response& reply) { return llm::_parse_sse_stream(reply, "m", {.secrets = SECRETS}); };
    return outcome(http::send("http://h", {.policy = policy, .body = {}, .headers = {}, .secrets = SECRETS, .transport = &transport}, read));
  } catch (const http::Retryable& error) {
    told = error.what();
  } catch (const llm::LLMError& error) {
    told = error.what();
  }
  require_clean(told, SECRETS);
  return told;
}

// Thrown where two right readers may differ.
struct Unsure {};

// Half of a surrogate pair, which this JSON reader refuses, goes by this mark and its digits.
constexpr std::string_view HALF = "\uFDD0";

std::string with_marks(std::string_view json) {
  std::string out;
  while (!json.empty()) {
    const auto [code_point, width] = http::read_escape(json);
    const bool half = width == 6 && (http::is_high_half(code_point) || http::is_low_half(code_point));
    const std::size_t taken = std::max<std::size_t>(width, 1);
    half ? out.append(HALF).append(http::lower_case(json.substr(2, 4))) : out.append(json.substr(0, taken));
    json.remove_prefix(taken);
  }
  return out;
}

std::string without_marks(std::string text) {
  for (std::size_t at = text.find(HALF); at != std::string::npos; at = text.find(HALF, at)) {
    const auto digits = [&](std::size_t from) { return std::stoul(text.substr(from + HALF.size(), 4), nullptr, 16); };
    const std::size_t next = at + HALF.size() + 4;
    const bool pair = text[at + HALF.size() + 1] < 'c' && text.compare(next, HALF.size(), HALF) == 0 && text[next + HALF.size() + 1] >= 'c';
    std::string character;
    http::append_utf8(character, pair ? http::join_pair(static_cast<std::uint32_t>(digits(at)), static_cast<std::uint32_t>(digits(next))) : 0xFFFD);
    text.replace(at, pair ? 2 * (next - at) : next - at, character);
  }
  return text;
}

Json decoded(std::string_view payload) {
  // This reader ends at a NUL and passes over a byte order mark.
  if (payload.find('\0') != std::string_view::npos || payload.starts_with("\uFEFF")) return {};
  const auto deep = [](int depth, Json::parse_event_t, const Json&) { return depth < 1000 ? true : throw Unsure(); };
  try {
    return Json::parse(with_marks(payload), deep);
  } catch (const Json::parse_error&) {
    return {};
  } catch (const Json::out_of_range&) {  // a number that no double holds
    throw Unsure();
  }
}

bool is_empty(const Json& value) {
  return value.is_number() ? value == 0 : value.is_string() ? value == "" : value.is_boolean() ? value == false : value.empty();
}

std::string text_of(const Json& value) {
  if (value.is_string()) return value;
  // How a number is written, and which of several members of one name, is nobody's rule.
  if (value.is_structured() || value.is_number_float()) throw Unsure();
  return value.dump();
}

Json member(const Json& object, const char* name) {
  return object.is_object() && object.contains(name) ? object[name] : Json();
}

std::int64_t count(const Json& value, std::int64_t known) {
  http::JsonReader reader;
  return llm::_as_int(*reader.parse(value.dump()), known);
}

std::string expected(std::string body) {
  if (body.starts_with("\uFEFF")) body.erase(0, 3);
  replace_all(body, "\r\n", "\n");
  replace_all(body, "\r", "\n");
  std::string content;
  std::string model = "m";
  std::optional<std::string> finish_reason;
  std::int64_t asked = 0;
  std::int64_t answered = 0;
  std::string error;
  for (std::size_t at = 0, end = 0; at < body.size(); at = end + 1) {
    end = std::min(body.find('\n', at), body.size());
    const std::string line(llm::trim(std::string_view(body).substr(at, end - at)));
    if (!http::is_utf8(body.substr(at, end - at))) return "LLM stream is not valid UTF-8";
    if (!line.starts_with("data:")) continue;
    const std::string payload(llm::trim(line.substr(5)));
    if (payload == "[DONE]") break;
    const Json chunk = decoded(payload);
    if (!chunk.is_object()) continue;
    if (const Json told = member(chunk, "error"); !is_empty(told)) {
      const Json message = member(told, "message");
      error = http::redact(without_marks(text_of(is_empty(message) ? told : message)), SECRETS);
      continue;
    }
    if (const Json name = member(chunk, "model"); !is_empty(name)) model = without_marks(text_of(name));
    const Json choices = member(chunk, "choices");
    const Json first = choices.is_array() && !choices.empty() ? choices[0] : Json();
    if (const Json piece = member(member(first, "delta"), "content"); !is_empty(piece)) content += text_of(piece);
    if (const Json reason = member(first, "finish_reason"); !is_empty(reason)) finish_reason = without_marks(text_of(reason));
    if (const Json usage = member(chunk, "usage"); usage.is_object()) {
      asked = count(member(usage, "prompt_tokens"), asked);
      answered = count(member(usage, "completion_tokens"), answered);
    }
  }
  content = llm::_strip_reasoning(without_marks(content));
  if (!finish_reason && !error.empty()) return "stream error: " + error;
  if (!finish_reason && content.empty()) return "empty stream (no content received)";
  return outcome({content, model, asked, answered, finish_reason});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [shape, body] = Input(data, size);
  const std::string told = outcome(std::vector{body});
  require(outcome(cut(body, shape % 32 + 1)) == told, told);
  std::string lower = http::lower_case(body);
  if (lower.find(HALF) != std::string::npos || lower.find("\\ufdd0") != std::string::npos) return 0;
  try {
    require(told.starts_with(expected(body)), told);
  } catch (const Unsure&) {
  }
  return 0;
}
