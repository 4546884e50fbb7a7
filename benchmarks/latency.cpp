// How long a call takes to return once it can, or must.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tovren_mapstead/engines/llm.hpp"

#include "endpoint.hpp"
#include "figure.hpp"
#include "measure.hpp"

namespace bench {
namespace {

namespace llm = tovren_mapstead::engines::llm;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int CALLS = 50;
const llm::Messages MESSAGES{llm::user("hello")};

llm::LLMClient client_of(const std::string& url) {
  return llm::LLMClient({.base_url = url, .model = "m", .api_key = "k"});
}

double ms_since(Clock::time_point moment) {
  return std::chrono::duration<double, std::milli>(Clock::now() - moment).count();
}

struct Times {
  double middle, most, spread;  // ms, but for the spread
};

// Of what `once` returns.
template <class Once>
Times of_many(Once once) {
  std::vector<double> values;
  for (int i = 0; i < CALLS; ++i) values.push_back(once(i));
  return {median(values), std::ranges::max(values), spread(values)};
}

// From the moment when the server sends the last byte of a reply, which is what the reply says, to
// the return, although the terminating chunk comes later.
double first_answer(const llm::LLMClient& client) {
  const std::string sent = client.chat(MESSAGES).content();
  const double took = ms_since(Clock::time_point(Clock::duration(std::atoll(sent.c_str()))));
  std::this_thread::sleep_for(30ms);  // for the terminating chunk
  return took;
}

double stop(const llm::LLMClient& client, int round) {
  std::atomic<bool> flag = false;
  Clock::time_point moment;
  const std::jthread setter([&] {
    std::this_thread::sleep_for(40ms + round * 1ms);  // anywhere between two looks at the flag
    moment = Clock::now();
    flag = true;
  });
  try {
    std::ignore = client.chat(MESSAGES, {.should_stop = [&] { return flag.load(); }});
  } catch (const llm::LLMStopped&) {
  }
  return ms_since(moment);
}

double deadline(const llm::LLMClient& client, int round) {
  const auto moment = Clock::now() + 40ms + round * 1ms;
  try {
    std::ignore = client.chat(MESSAGES, {.deadline = moment});
  } catch (const llm::LLMTimeout&) {
  }
  return ms_since(moment);
}

}  // namespace

void measure_latency(const Endpoint& endpoint, const Wanted& wanted, const Report& report) {
  constexpr double MEDIAN_LIMIT = 15;
  constexpr double LIMIT = 30;
  const auto late = client_of(endpoint.url() + "/late/20");
  const auto silent = client_of(endpoint.url() + "/silence");
  if (wanted("first_answer")) {
    const auto [middle, most, apart] = of_many([&](int) { return first_answer(late); });
    report({.name = "first_answer", .ours = middle, .unit = "ms", .limit = 1, .spread = apart});
  }
  if (wanted("stop_latency")) {
    const auto [middle, most, apart] = of_many([&](int round) { return stop(silent, round); });
    report({.name = "stop_latency",
            .ours = middle,
            .unit = "ms",
            .limit = MEDIAN_LIMIT,
            .spread = apart});
    report(
        {.name = "stop_latency_max", .ours = most, .unit = "ms", .limit = LIMIT, .spread = apart});
  }
  if (wanted("deadline_latency")) {
    const auto [middle, most, apart] = of_many([&](int round) { return deadline(silent, round); });
    report({.name = "deadline_latency",
            .ours = middle,
            .unit = "ms",
            .limit = MEDIAN_LIMIT,
            .spread = apart});
    report({.name = "deadline_latency_max",
            .ours = most,
            .unit = "ms",
            .limit = LIMIT,
            .spread = apart});
  }
}

}  // namespace bench
