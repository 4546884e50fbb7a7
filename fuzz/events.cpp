// Bodies of a hostile server, cut into reads at random: as an event stream, as a whole reply, as
// that of an error and as the reply to a request for a Copilot token. No cut changes an outcome,
// and that of a stream is the outcome of a reader which does plainly what the rules say: all lines
// first, then one after the other. It counts no tokens.
#include "engines/llm/reply/reasoning.hpp"
#include "fuzz.hpp"
#include "text/quote.hpp"
#include "text/trim.hpp"

namespace {

using namespace fuzz;

const http::Secrets SECRETS{"sk-\"1/"};

// The answer, or the error's text.
std::string outcome(const char* provider, const http::PlaybackReply& reply) {
  const auto transport = std::make_shared<http::PlaybackTransport>(std::vector{reply});
  const llm::LLMClient client({.provider = provider,
                               .base_url = "http://h",
                               .model = "m",
                               .api_key = SECRETS[0],
                               .max_retries = 0},
                              {.transport = transport});
  try {
    const llm::LLMResult result = client.chat({});
    return clean(result.content() + "\n" + result.model() + "\n" +
                     result.finish_reason().value_or("absent") + "\n" +
                     std::to_string(result.total_tokens()),
                 "\xFF");
  } catch (const llm::LLMError& error) {
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
      return end < body.size() ? "LLM stream is not valid UTF-8" : throw Unsure();
    }
    const std::string_view payload = http::trim(line.starts_with("data:") ? line.substr(5) : "");
    if (payload == "[DONE]") break;
    const Json chunk = decoded(payload);
    const Json reported = member(chunk, "error");
    std::string text = text_of(member(reported, "message"));
    if (text.empty()) text = text_of(reported);
    if (!text.empty()) {
      error = text;
      continue;
    }
    if (text = text_of(member(chunk, "model")); !text.empty()) model = text;
    const Json choices = member(chunk, "choices");
    const Json first = choices.is_array() && !choices.empty() ? choices[0] : Json();
    content += text_of(member(member(first, "delta"), "content"));
    if (text = text_of(member(first, "finish_reason")); !text.empty()) finish_reason = text;
  }
  content = llm::_strip_reasoning(content);
  if (!finish_reason && (content.empty() || !error.empty())) {
    const std::string failure = error.empty() ? "empty stream (no content received)"
                                              : "stream error: " + http::redact(error, SECRETS);
    return http::quote("LLM call failed after 1 attempt (no retries); last failure: " + failure,
                       SECRETS, 700);
  }
  return content + "\n" + model + "\n" + finish_reason.value_or("absent") + "\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  setenv("COPILOT_GITHUB_TOKEN", SECRETS[0].c_str(), 1);
  const auto seen_of = [&](const char* provider, http::PlaybackReply reply) {
    reply.pieces = {input.body};
    std::string seen = outcome(provider, reply);
    reply.pieces = input.cut(input.shape % 32 + 1);
    require(outcome(provider, reply) == seen, seen);
    return seen;
  };
  seen_of("openai", {});
  seen_of("openai", {.status = 401});
  seen_of("copilot", {});
  const std::string seen = seen_of("openai", {.content_type = "text/event-stream"});
  // The other reader refuses half of a surrogate pair.
  if (http::lower_case(input.body).find("\\ud") != std::string::npos) return 0;
  try {
    require(seen.starts_with(expected(input.body)), seen);
  } catch (const Unsure&) {
  }
  return 0;
}
