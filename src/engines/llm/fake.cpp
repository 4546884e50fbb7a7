#include "tovren_mapstead/engines/llm/fake.hpp"

#include <utility>

#include "tovren_mapstead/engines/http/json_writer.hpp"

namespace tovren_mapstead::engines::llm::fake {
namespace {

constexpr const char* MODEL = "fake-model";

// Returns one event of a stream; an empty reason is not sent.
std::string event(const std::string& content, const std::string& finish_reason) {
  http::JsonObject json;
  json.add("model", MODEL).begin_array("choices").begin_object();
  json.begin_object("delta").add("content", content).end();
  if (!finish_reason.empty()) json.add("finish_reason", finish_reason);
  return "data: " + std::move(json).text() + "\n\n";
}

}  // namespace

http::PlaybackReply answer(const std::string& content, const std::string& finish_reason) {
  http::JsonObject json;
  json.add("model", MODEL).begin_array("choices").begin_object();
  json.begin_object("message").add("role", "assistant").add("content", content).end();
  json.add("finish_reason", finish_reason);
  return {.pieces = {std::move(json).text()}};
}

http::PlaybackReply stream(const std::vector<std::string>& pieces,
                           const std::string& finish_reason) {
  http::PlaybackReply reply = broken_stream(pieces);
  reply.failure.reset();
  reply.pieces.push_back(event("", finish_reason));
  reply.pieces.emplace_back("data: [DONE]\n\n");
  return reply;
}

http::PlaybackReply broken_stream(const std::vector<std::string>& pieces) {
  http::PlaybackReply reply{
      .content_type = "text/event-stream",
      .failure = http::TransportError("the stream breaks off, as it was made to", true)};
  for (const std::string& piece : pieces) reply.pieces.push_back(event(piece, ""));
  return reply;
}

http::PlaybackReply status(int status, const std::string& message) {
  http::JsonObject json;
  json.begin_object("error").add("message", message);
  return {.status = status, .pieces = {std::move(json).text()}};
}

LLMClient client(std::shared_ptr<http::Transport> transport) {
  return LLMClient({.base_url = "http://fake.example/v1", .model = MODEL, .api_key = "fake-key"},
                   {.transport = std::move(transport), .wait = http::no_wait});
}

}  // namespace tovren_mapstead::engines::llm::fake
