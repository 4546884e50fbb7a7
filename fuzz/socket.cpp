// Whatever a server may send, as bytes on a real socket, through the engine's own transport. What
// must hold: a reply or one of the engine's errors, soon; a good reply to the request after it,
// so that no connection out of step serves again; and no descriptor more than before.
#include <filesystem>
#include <iterator>
#include <mutex>

#include <nlohmann/json.hpp>

#include "fuzz.hpp"
#include "loopback/server.hpp"

namespace {

using namespace fuzz;

constexpr double SILENCE_S = 0.05;

std::size_t descriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

std::string ask(http::Transport& transport, const std::string& url, double timeout_s, bool lines) {
  const http::RetryPolicy policy{.max_body_bytes = 1 << 20, .max_line_bytes = 1 << 20};
  const auto read = [&](http::Response& reply) {
    std::string text;
    if (!lines) return reply.read_rest(policy.max_body_bytes);
    for (const std::string_view line : reply) text += line;
    return text;
  };
  return http::send(url, {.policy = policy, .timeout_s = timeout_s, .body = {}, .headers = {}, .secrets = {}, .transport = &transport}, read);
}

// A server keeps a thread for each connection it ever had, so now and then there is a new one.
struct Round {
  void answer(loopback::Exchange& exchange) {
    if (exchange.request().target == "/good") return exchange.reply(200, "good");
    const Input input = [&] { return std::scoped_lock(mutex), script; }();
    for (const std::string& piece : cut(input.body, input.shape >= 128 ? 16 : input.body.size() + 1)) exchange.send(piece);
    if (input.shape % 4 == 0) exchange.reset();
    if (input.shape % 4 != 1) exchange.close();
  }

  std::mutex mutex;
  Input script;
  int left = 500;
  std::shared_ptr<http::Transport> transport = http::make_transport();
  std::size_t open_before = 0;
  loopback::Server server{[this](loopback::Exchange& exchange) { answer(exchange); }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::unique_ptr<Round> round;
  const Input input(data, size);
  if (!round || --round->left == 0) {
    round.reset();
    round = std::make_unique<Round>();
    ask(*round->transport, round->server.url() + "/good", 10, false);
    round->open_before = descriptors();
  }
  std::scoped_lock(round->mutex), round->script = input;
  const auto start = http::Clock::now();
  try {
    ask(*round->transport, round->server.url() + "/", SILENCE_S, input.shape % 8 >= 4);
  } catch (const http::Error& error) {
    require_clean(error.what(), {});
  }
  require(http::Clock::now() - start < std::chrono::seconds(5));
  std::string good;
  for (int tries = 3; tries > 0 && good.empty(); --tries) {
    try {
      good = ask(*round->transport, round->server.url() + "/good", 10, false);
    } catch (const http::Retryable&) {  // the server closes just now a connection that was good
    }
  }
  require(good == "good", input.body);
  require(descriptors() <= round->open_before + 8);
  return 0;
}
