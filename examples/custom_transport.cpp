// Tests code that calls a model, without network and without waits: the transport returns prepared
// replies and records requests, and the wait function records waits. The client does not use the
// transport if an OpenAI client library is installed.
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>
#include <tovren_mapstead/engines/llm.hpp>

namespace {

namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;

// A reply whose body is returned by one read.
struct Reply final : http::Exchange {
  Reply(int status, std::string text) : body(std::move(text)) { top.status = status; }

  [[nodiscard]] const http::Head& head() const noexcept override { return top; }

  bool read(std::string& into, http::Watch&) override {
    into += body;
    return !std::exchange(body, "").empty();
  }

  http::Head top{.content_type = "application/json"};
  std::string body;
};

// For one thread at a time, which is enough for a test.
struct Script final : http::Transport {
  std::unique_ptr<http::Exchange> open(http::Request request, http::Watch& watch) override {
    watch.check("waiting for the reply of", "the script");  // checks the stop test and the deadline
    requests.push_back(std::move(request));
    if (requests.size() > replies.size()) throw http::TransportError("no reply is left", false);
    return std::move(replies[requests.size() - 1]);
  }

  std::vector<std::unique_ptr<Reply>> replies;
  std::vector<http::Request> requests;
};

// The code under test, which gets its client as an argument.
std::string title_of(const llm::LLMClient& client, const std::string& text) {
  return client.chat({llm::user("A title for: " + text)}).content();
}

void expect(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error("not so: " + what);
}

}  // namespace

int main() {
  try {
    const auto script = std::make_shared<Script>();
    script->replies.push_back(std::make_unique<Reply>(503, "busy"));
    script->replies.push_back(
        std::make_unique<Reply>(200, R"({"choices": [{"message": {"content": "On Patience"}}]})"));
    std::vector<double> waits;
    const auto wait = [&waits](double s, auto&, auto) { waits.push_back(s); };
    const llm::LLMClient client({.base_url = "http://any/v1", .model = "m", .api_key = "k"},
                                {.transport = script, .wait = wait});

    expect(title_of(client, "a tale") == "On Patience", "the second attempt has the answer");
    expect(waits == std::vector{1.0}, "a second passes between the two");
    const auto sent = nlohmann::json::parse(script->requests.at(1).body);
    expect(sent["messages"][0]["content"] == "A title for: a tale", "the text is in the prompt");
  } catch (const std::exception& error) {
    std::cerr << "custom_transport: " << error.what() << "\n";
    return 1;
  }
}
