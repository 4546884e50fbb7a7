// Tests code that calls a model, without network and without waits: a transport plays back replies
// and keeps the requests. The client does not use the transport if an OpenAI client library is
// installed.
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <tovren_mapstead/engines/llm/fake.hpp>

namespace {

namespace fake = tovren_mapstead::engines::llm::fake;
namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

// The code under test, which gets its client as an argument.
std::string title_of(const llm::LLMClient& client, const std::string& text) {
  return client.chat({llm::user("A title for: " + text)}).content();
}

void expect(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error("not so: " + what);
}

void check(const std::string& name, const std::vector<http::PlaybackReply>& replies) {
  const auto model = std::make_shared<http::PlaybackTransport>(replies);
  expect(title_of(fake::client(model), "a tale") == "On Patience", name + ": the title");
  const std::vector<http::Request> requests = model->requests();
  expect(requests.size() == replies.size(), name + ": a request for each reply");
  const auto sent = nlohmann::json::parse(requests.back().body);
  expect(sent["messages"][0]["content"] == "A title for: a tale", name + ": the prompt");
}

}  // namespace

int main() {
  try {
    check("an answer", {fake::answer("On Patience")});
    check("too many requests, then an answer", {fake::status(429), fake::answer("On Patience")});
    check("a stream breaks off, the next does not",
          {fake::broken_stream({"On "}), fake::stream({"On ", "Patience"})});
  } catch (const std::exception& error) {
    std::cerr << "fake: " << error.what() << "\n";
    return 1;
  }
}
