// Event streams, cut into reads at random. Whatever the cuts, the outcome is that of a reader which
// does plainly what the rules say: all lines first, then one after the other. It counts no tokens.
#include "engines/llm/reply/reasoning.hpp"
#include "engines/llm/reply/stream.hpp"
#include "fuzz.hpp"
#include "text/trim.hpp"

namespace {

using namespace fuzz;

const http::Secrets SECRETS{"KEY-1"};

std::string outcome(std::vector<std::string> pieces) {
  http::PlaybackTransport transport({{.pieces = std::move(pieces)}});
  const http::RetryPolicy policy{};
  const auto read = [](http::Response& reply) { return llm::_parse_sse_stream(reply, "m"); };
  try {
    const llm::LLMResult result = http::send(
        "http://h",
        {.policy = policy, .body = {}, .headers = {}, .secrets = SECRETS, .transport = &transport},
        read);
    return clean(result.content() + "\n" + result.model() + "\n" +
                     result.finish_reason().value_or("absent") + "\n" +
                     std::to_string(result.total_tokens()),
                 "\xFF");
  } catch (const std::runtime_error& error) {
    require(dynamic_cast<const http::Retryable*>(&error) != nullptr ||
                dynamic_cast<const llm::LLMError*>(&error) != nullptr ||
                dynamic_cast<const http::HttpFailure*>(&error) != nullptr,
            error.what());
    return clean(error.what(), SECRETS[0]);
  }
}

// Thrown where two right readers may differ.
struct Unsure {};

Json decoded(std::string_view payload) {
  // The other reader ends at a NUL and passes over a byte order mark.
  if (payload.find('\0') != std::string_view::npos || payload.starts_with("\uFEFF")) return {};
  const auto shallow = [](int depth, Json::parse_event_t, const Json&) {
    return depth < 1000 ? true : throw Unsure();
  };
  try {
    return Json::parse(payload, shallow);
  } catch (const Json::parse_error&) {
    return {};
  } catch (const Json::out_of_range&) {  // a number that no double holds
    throw Unsure();
  }
}

// The text of a value, nothing if it is empty in any way.
std::string text_of(const Json& value) {
  if (value.is_string()) return value;
  if (value.empty() || value == false || (value.is_number() && value == 0)) return "";
  // How a real is written, and which of several members of one name, is nobody's rule.
  return value.is_structured() || value.is_number_float() ? throw Unsure() : value.dump();
}

Json member(const Json& object, const char* name) {
  return object.is_object() && object.contains(name) ? object[name] : Json();
}

std::string expected(const std::string& body) {
  std::string content;
  std::string error;
  std::string model = "m";
  std::optional<std::string> finish_reason;
  std::size_t end = 0;
  for (std::size_t at = body.starts_with("\uFEFF") ? 3 : 0; at < body.size(); at = end + 1) {
    end = std::min(body.find_first_of("\r\n", at), body.size());
    const std::string_view line = http::trim(std::string_view(body).substr(at, end - at));
    if (!http::is_utf8(line)) {
      // The end of the body may cut a character.
      return end < body.size() ? "stream is not valid UTF-8" : throw Unsure();
    }
    const std::string_view payload = http::trim(line.starts_with("data:") ? line.substr(5) : "");
    if (payload == "[DONE]") break;
    const Json chunk = decoded(payload);
    const Json reported = member(chunk, "error");
    std::string text = text_of(member(reported, "message"));
    if (text.empty()) text = text_of(reported);
    if (!text.empty()) {
      error = http::redact(text, SECRETS);
      continue;
    }
    if (text = text_of(member(chunk, "model")); !text.empty()) model = text;
    const Json choices = member(chunk, "choices");
    const Json first = choices.is_array() && !choices.empty() ? choices[0] : Json();
    content += text_of(member(member(first, "delta"), "content"));
    if (text = text_of(member(first, "finish_reason")); !text.empty()) finish_reason = text;
  }
  content = llm::_strip_reasoning(content);
  if (!finish_reason && !error.empty()) return "stream error: " + error;
  if (!finish_reason && content.empty()) return "empty stream (no content received)";
  return content + "\n" + model + "\n" + finish_reason.value_or("absent") + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  const std::string seen = outcome(std::vector{input.body});
  require(outcome(input.cut(input.shape % 32 + 1)) == seen, seen);
  // The other reader refuses half of a surrogate pair.
  if (http::lower_case(input.body).find("\\ud") != std::string::npos) return 0;
  try {
    require(seen.starts_with(expected(input.body)), seen);
  } catch (const Unsure&) {
  }
  return 0;
}
