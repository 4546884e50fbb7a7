#include "endpoint.hpp"

#include <array>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <unistd.h>

#include "loopback/server.hpp"

namespace bench {
namespace {

using loopback::chunk;
using loopback::Exchange;
using loopback::Server;
using std::chrono::milliseconds;

constexpr std::string_view DONE = "data: [DONE]\n\n";

std::string event(const std::string& content) {
  return R"(data: {"id":"chatcmpl-9f8e7d6c5b4a39281706f5e4d3c2b1a0",)"
         R"("object":"chat.completion.chunk",)"
         R"("created":1763800000,"model":"some-model-2026-01-01",)"
         R"("system_fingerprint":"fp_0123456789",)"
         R"("choices":[{"index":0,"delta":{"content":")" +
         content +
         R"("},"logprobs":null,"finish_reason":null}],"usage":null})"
         "\n\n";
}

std::string last_event() {
  return R"(data: {"id":"chatcmpl-9f8e7d6c5b4a39281706f5e4d3c2b1a0",)"
         R"("object":"chat.completion.chunk",)"
         R"("created":1763800000,"model":"some-model-2026-01-01","choices":[{"index":0,"delta":{},)"
         R"("finish_reason":"stop"}],"usage":{"prompt_tokens":9,"completion_tokens":1000}})"
         "\n\n";
}

std::string whole(const std::string& content) {
  return R"({"id":"chatcmpl-9f8e7d6c5b4a","object":"chat.completion","created":1763800000,)"
         R"("model":"some-model-2026-01-01","choices":[{"index":0,"message":{"role":"assistant",)"
         R"("content":")" +
         content +
         R"("},"logprobs":null,"finish_reason":"stop"}],)"
         R"("usage":{"prompt_tokens":9,"completion_tokens":9,"total_tokens":18}})";
}

// A stream as most servers send one, a chunk an event, but all of it at once.
const std::string& stream_of(int events) {
  static std::mutex mutex;
  static std::map<int, std::string> made;
  const std::lock_guard lock(mutex);
  std::string& bytes = made[events];
  if (bytes.empty()) {
    for (int i = 0; i < events; ++i) bytes += chunk(event(" word" + std::to_string(i % 10)));
    bytes += chunk(last_event()) + chunk(DONE) + "0\r\n\r\n";
  }
  return bytes;
}

std::string text_of(int bytes) {
  std::string text;
  while (text.size() < static_cast<std::size_t>(bytes)) text += "Some words of an answer.\\n";
  return text;
}

std::string now() {
  return std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

void answer(Exchange& exchange, int connections) {
  const std::string& target = exchange.request().target;
  const std::size_t slash = target.find('/', 1);
  const std::string what = target.substr(1, slash - 1);
  const int number = std::atoi(target.c_str() + std::min(slash + 1, target.size()));
  if (what == "stream") {
    exchange.start_stream();
    exchange.send(stream_of(number));
  } else if (what == "paced") {
    exchange.start_stream();
    for (int i = 0; i < number; ++i) {
      exchange.pause(milliseconds(2));
      exchange.chunk(event(" word"));
    }
    exchange.chunk(last_event() + std::string(DONE));
    exchange.end_stream();
  } else if (what == "slow") {
    exchange.start_stream();
    for (int i = 0; i < number; ++i) {
      std::this_thread::sleep_for(milliseconds(20));
      exchange.chunk(event(" word"));
    }
    exchange.chunk(last_event() + std::string(DONE));
    exchange.end_stream();
  } else if (what == "late") {
    exchange.start_stream();
    exchange.chunk(event(now()) + last_event() + std::string(DONE));
    if (number > 0) exchange.pause(milliseconds(number));
    exchange.end_stream();
  } else if (what == "whole") {
    exchange.reply(200, whole(text_of(number)));
  } else if (what == "once") {
    exchange.reply(200, whole(text_of(number)), "application/json", "Connection: close\r\n");
    exchange.close();
  } else if (what == "connections") {
    exchange.reply(200, whole(std::to_string(connections)));
  } else {
    exchange.stall();
  }
}

}  // namespace

int serve() {
  std::atomic<const Server*> self = nullptr;
  Server server([&](Exchange& exchange) { answer(exchange, self.load()->connections()); });
  self = &server;
  Server tls([&](Exchange& exchange) { answer(exchange, self.load()->connections()); },
             {.tls = true});
  std::cout << server.url() << '\n' << tls.url() << '\n' << tls.certificate() << std::flush;
  pollfd reader{.fd = STDOUT_FILENO, .events = 0, .revents = 0};
  while (poll(&reader, 1, -1) < 1) {
  }
  return 0;
}

Endpoint::Endpoint()
    : _pipe(
          popen(("exec '" + std::filesystem::read_symlink("/proc/self/exe").string() + "' --serve")
                    .c_str(),
                "r")),
      _url(line()),
      _tls_url(line()) {
  while (!_certificate.ends_with("-----END CERTIFICATE-----\n")) _certificate += line() + "\n";
}

std::string Endpoint::line() {
  std::array<char, 200> text{};
  if (!_pipe || std::fgets(text.data(), text.size(), _pipe.get()) == nullptr) {
    throw std::runtime_error("the server of the benchmarks does not start");
  }
  const std::string_view all(text.data());
  return std::string(all.substr(0, all.find('\n')));
}

}  // namespace bench
