#include "soak/plan.hpp"

#include <algorithm>
#include <array>
#include <numeric>

namespace soak {
namespace {

constexpr std::uint64_t GOLDEN = 0x9E3779B97F4A7C15;

// More often than not all is well. A stall is drawn only where something ends it.
Kind draw_kind(Dice& dice) {
  constexpr std::array FAULTS{
      Kind::reset,   Kind::close,   Kind::cut,      Kind::cut,         Kind::short_length,
      Kind::no_http, Kind::no_json, Kind::status,   Kind::status,      Kind::status,
      Kind::in_band, Kind::hollow,  Kind::redirect, Kind::refuse_json, Kind::refuse_stream,
      Kind::status,  Kind::in_band, Kind::cut,      Kind::refuse_json, Kind::refuse_stream,
      Kind::status,  Kind::reset,   Kind::close,    Kind::long_length, Kind::bad_chunk};
  if (dice.below(100) < 55) return Kind::answer;
  return FAULTS.at(static_cast<std::size_t>(dice.below(FAULTS.size())));
}

Step draw_step(Dice& dice) {
  constexpr std::array STATUSES{429, 503, 500, 408, 409, 502, 504, 401, 403, 404, 422, 501};
  return {.kind = draw_kind(dice),
          .status = STATUSES.at(static_cast<std::size_t>(dice.below(STATUSES.size()))),
          .seed = dice.next()};
}

bool worth_another_try(int status) {
  constexpr std::array WORTH{408, 409, 429, 500, 502, 503, 504};
  return std::ranges::find(WORTH, status) != WORTH.end();
}

}  // namespace

std::uint64_t Dice::next() {
  std::uint64_t z = _state += GOLDEN;
  z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27U)) * 0x94D049BB133111EB;
  return z ^ (z >> 31U);
}

int Dice::below(int end) {
  return static_cast<int>(next() % static_cast<std::uint64_t>(end));
}

Effect effect_of(const Step& step, Road road, bool json, bool streamed) {
  switch (step.kind) {
    case Kind::answer:
      return Effect::answer;
    case Kind::no_http:
    case Kind::no_json:
    case Kind::redirect:
      return Effect::failure;
    case Kind::status:
      return worth_another_try(step.status) ? Effect::again : Effect::failure;
    case Kind::refuse_json:
      return json ? Effect::without_json : Effect::failure;
    case Kind::refuse_stream:
      return streamed ? Effect::without_stream : Effect::failure;
    case Kind::in_band:
    case Kind::hollow:
      return streamed ? Effect::again : Effect::failure;
    case Kind::stall:
      return road == Road::impatient ? Effect::again : Effect::never;
    default:
      return Effect::again;
  }
}

Call draw(std::uint64_t seed, std::uint64_t id) {
  constexpr std::array WORDS{"moss",    "quarry", "naïve",  "“river”", "\n\n",        "日本語",
                             "lantern", "\\",     "\"it\"", "😀",       "data: [DONE]"};
  Dice dice(Dice(seed ^ (id * GOLDEN)).next());
  Call call{.id = id, .model = "model-" + std::to_string(id)};
  call.road = dice.one_in(50) ? Road::impatient : static_cast<Road>(dice.below(ROADS - 1));
  call.json = dice.one_in(3);
  call.prompt =
      std::to_string(id) + ' ' + std::string(static_cast<std::size_t>(dice.below(300)), 'p');
  if (dice.one_in(20)) call.prompt.append(50'000, 'q');
  const int words = dice.one_in(20) ? 600 : 1 + dice.below(40);
  call.pieces.emplace_back("So,");
  for (int i = 0; i < words; ++i) {
    call.pieces.emplace_back(" ").append(
        WORDS.at(static_cast<std::size_t>(dice.below(WORDS.size()))));
  }
  call.pieces.emplace_back(" it is.");
  while (call.steps.size() < MOST_REQUESTS) call.steps.push_back(draw_step(dice));
  if (call.road == Road::impatient) {
    for (Step& step : call.steps) step.kind = Kind::stall;
  } else if (dice.one_in(6)) {
    const std::chrono::milliseconds moment(1 + dice.below(200));
    (dice.one_in(2) ? call.deadline : call.stop) = moment;
    if (dice.one_in(2)) call.steps.at(static_cast<std::size_t>(dice.below(3))).kind = Kind::stall;
  }
  return call;
}

Outcome outcome_of(const Call& call) {
  bool json = call.json;
  bool streamed = call.road != Road::whole;
  int tries = 0;
  for (int request = 0;; ++request) {
    const Step& step = call.steps.at(static_cast<std::size_t>(request));
    switch (effect_of(step, call.road, json, streamed)) {
      case Effect::answer:
        return {Outcome::Kind::answer,
                std::accumulate(call.pieces.begin(), call.pieces.end(), std::string()),
                request + 1};
      case Effect::failure:
        return {Outcome::Kind::error,
                step.kind == Kind::status ? "HTTP " + std::to_string(step.status) : "LLM re",
                request + 1};
      case Effect::again:
        // The next try would begin a second later, when each of the deadlines has passed.
        if (call.deadline) return {Outcome::Kind::timeout, "ran out of time", request + 1};
        if (++tries == TRIES) return {Outcome::Kind::error, "after 3 attempts; ", request + 1};
        json = call.json;
        streamed = call.road != Road::whole;
        break;
      case Effect::without_json:
        json = false;
        break;
      case Effect::without_stream:
        streamed = false;
        break;
      case Effect::never:
        return {Outcome::Kind::never, "", request + 1};
    }
  }
}

std::string secret(std::uint64_t seed) {
  Dice dice(seed);
  std::string text;
  for (int i = 0; i < 20; ++i) {
    text += static_cast<char>('A' + dice.below(26));
    text += static_cast<char>('0' + dice.below(10));
  }
  return text;
}

bool holds_secret(std::string_view text) {
  const auto is_capital = [](char c) { return c >= 'A' && c <= 'Z'; };
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  int run = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool first = is_capital(text[i]) || is_digit(text[i]);
    const bool follows = i > 0 && ((is_capital(text[i]) && is_digit(text[i - 1])) ||
                                   (is_digit(text[i]) && is_capital(text[i - 1])));
    run = follows ? run + 1 : first ? 1 : 0;
    if (run > 4) return true;
  }
  int escapes = 0;
  for (std::size_t at = text.find("\\u00"); at != std::string_view::npos;
       at = text.find("\\u00", at + 1)) {
    const std::size_t slash = text.find('\\', at + 1);
    escapes = slash == at + 6 ? escapes + 1 : 0;
    if (escapes >= 4) return true;
  }
  return false;
}

std::string escaped(std::string_view text) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string out;
  for (const char character : text) {
    const auto c = static_cast<unsigned char>(character);
    out.append("\\u00").append(1, DIGITS[c >> 4U]).append(1, DIGITS[c & 15U]);
  }
  return out;
}

}  // namespace soak
