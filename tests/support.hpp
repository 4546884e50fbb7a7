// What several tests need: short ways to call and to look at what came out.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tovren_mapstead/engines/copilot.hpp"
#include "tovren_mapstead/engines/http/playback.hpp"
#include "tovren_mapstead/engines/http/send.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "loopback/detour.hpp"
#include "loopback/server.hpp"

namespace support {

namespace copilot = tovren_mapstead::engines::copilot;
namespace http = tovren_mapstead::engines::http;
namespace llm = tovren_mapstead::engines::llm;
using Json = nlohmann::ordered_json;
using llm::LLMClient;
using llm::LLMResult;
using loopback::Exchange;
using loopback::Server;
using Playback = http::PlaybackTransport;
using Reply = http::PlaybackReply;
using namespace std::chrono_literals;

inline const http::RetryPolicy POLICY{.retry_statuses = {429, 503}};
inline const http::Secrets NO_SECRETS{};

/// The options of a request over `transport`.
inline http::SendOptions over(http::Transport& transport, const http::RetryPolicy& policy = POLICY,
                              const http::Secrets& secrets = NO_SECRETS) {
  return {.policy = policy, .body = {}, .headers = {}, .secrets = secrets, .transport = &transport};
}

/// Plays `reply` to one POST and returns what `read` makes of it.
template <class Read>
auto play(Reply reply, Read read, const http::RetryPolicy& policy = POLICY,
          const http::Secrets& secrets = NO_SECRETS) {
  Playback transport({std::move(reply)});
  return http::send("http://host.example/x", over(transport, policy, secrets), read);
}

/// The text of the `Error` that `act` throws; anything else fails the test.
template <class Error, class Act>
std::string text_of(Act act) {  // NOLINT(performance-unnecessary-value-param): may be mutable
  try {
    act();
    ADD_FAILURE() << "no error";
  } catch (const Error& error) {
    return error.what();
  } catch (const std::exception& error) {
    ADD_FAILURE() << "another error: " << error.what();
  }
  return "";
}

/// Runs `act` on so many threads at once and waits for them.
template <class Act>
void in_threads(int count, Act act) {
  std::latch all(count);  // none is done before the last has begun
  std::vector<std::jthread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back([&, act] { all.arrive_and_wait(), act(); });
}

inline bool contains(std::string_view text, std::string_view piece) {
  return text.find(piece) != std::string_view::npos;
}

inline double seconds_since(http::Clock::time_point start) {
  return std::chrono::duration<double>(http::Clock::now() - start).count();
}

}  // namespace support
