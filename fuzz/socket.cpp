// Whatever a server may send, as bytes on a real socket, through the engine's own transport. What
// must hold: a reply or one of the engine's errors, soon; a good reply to the request after it, so
// that no connection out of step serves again; and no descriptor more than before.
#include "faults/faults.hpp"
#include "fuzz.hpp"
#include "loopback/server.hpp"

namespace {

using namespace fuzz;

void serve(loopback::Exchange& exchange, const Input& input) {
  if (exchange.request().target == "/good") return exchange.reply(200, "good");
  for (const std::string& piece : input.cut(input.shape >= 128 ? 16 : 9999)) exchange.send(piece);
  if (input.shape % 4 == 0) exchange.reset();
  if (input.shape % 4 != 1) exchange.close();
}

// What comes of a request: the body, or the error in words.
std::string ask(http::Transport& transport, const std::string& url, double timeout_s) {
  const http::RetryPolicy policy{.max_body_bytes = 1 << 20, .max_line_bytes = 1 << 20};
  const auto read = [](http::Response& reply) {
    return std::string(reply.next_line().value_or("")) + reply.read_rest(1 << 20);
  };
  try {
    return http::send(url,
                      {.policy = policy,
                       .timeout_s = timeout_s,
                       .body = {},
                       .headers = {},
                       .secrets = {},
                       .transport = &transport},
                      read);
  } catch (const http::Error& error) {
    // The server may be closing a connection that was good when it was taken.
    return clean((dynamic_cast<const http::Retryable*>(&error) != nullptr ? "again: " : "") +
                     std::string(error.what()),
                 "\xFF");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Input input(data, size);
  // Of replies that break off or name two, libcurl 7.88 never frees the Location.
  if (http::lower_case(input.body).find("location:") != std::string::npos) return 0;
  const auto before = faults::entries();
  const auto start = http::Clock::now();
  {
    const auto transport = http::make_transport();
    const loopback::Server server([&](loopback::Exchange& exchange) { serve(exchange, input); });
    ask(*transport, server.url(), 0.05);
    std::string good = "again";
    for (int attempts = 3; attempts > 0 && good.starts_with("again"); --attempts)
      good = ask(*transport, server.url() + "/good", 5);
    require(good == "good", good);
  }
  require(http::Clock::now() - start < std::chrono::seconds(5));
  require(faults::entries() <= before, input.body);
  return 0;
}
