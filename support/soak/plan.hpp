// What one call of a soak run asks, what the endpoint serves it, and what it has to come to: all of
// it drawn from the seed of the run and the number of the call.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace soak {

/// Draws numbers, the same for a seed on every machine (splitmix64).
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : _state(seed) {}

  /// A number below `end`.
  int below(int end);

  bool one_in(int chances) { return below(chances) == 0; }

  std::uint64_t next();

 private:
  std::uint64_t _state;
};

/// The ways to an endpoint, a client for each. The last has a time limit that is soon over.
enum class Road : std::uint8_t { streamed, whole, tls, copilot, impatient };
inline constexpr int ROADS = 5;

inline constexpr int TRIES = 3;
inline constexpr int MOST_REQUESTS = 3 * TRIES;  // each without JSON mode, then without streaming
inline constexpr double IMPATIENT_S = 0.25;

/// What the endpoint does with one request.
enum class Kind : std::uint8_t {
  answer,         ///< As it should.
  reset,          ///< Resets the connection instead.
  close,          ///< Closes it instead.
  cut,            ///< Breaks off in the body, and closes or resets.
  short_length,   ///< Announces fewer bytes than the JSON has.
  long_length,    ///< Announces more, and closes.
  bad_chunk,      ///< Gives a chunk a length that is no number.
  no_http,        ///< Says something that is not HTTP.
  no_json,        ///< Sends a page.
  status,         ///< Fails with `Step::status`.
  redirect,       ///< Sends elsewhere.
  refuse_json,    ///< Does not know JSON mode.
  refuse_stream,  ///< Does not stream.
  in_band,        ///< Reports an error inside a reply of status 200.
  hollow,         ///< Replies without an answer.
  stall,          ///< Falls silent somewhere, or never comes to an end.
};

struct Step {
  Kind kind = Kind::answer;
  int status = 0;
  std::uint64_t seed = 0;  ///< Of what is drawn while it is served.
};

/// What an endpoint can bring about in an attempt.
enum class Effect : std::uint8_t { answer, failure, again, without_json, without_stream, never };

[[nodiscard]] Effect effect_of(const Step& step, Road road, bool json, bool streamed);

struct Call {
  std::uint64_t id = 0;
  Road road = Road::streamed;
  bool json = false;
  std::optional<std::chrono::milliseconds> deadline{};
  std::optional<std::chrono::milliseconds> stop{};
  std::string prompt{};  ///< Starts with the id.
  std::string model{};
  std::vector<std::string> pieces{};  ///< Of the answer.
  std::vector<Step> steps{};          ///< For one request after the other.
};

[[nodiscard]] Call draw(std::uint64_t seed, std::uint64_t id);

struct Outcome {
  enum class Kind : std::uint8_t { answer, error, timeout, stopped, never } kind = Kind::never;
  std::string text{};  ///< The answer, or what the error has to say.
  int requests = 0;    ///< That the call takes.
};

/// What `call` comes to when neither its stop test nor its deadline comes in between; `never`: one
/// of them has to.
[[nodiscard]] Outcome outcome_of(const Call& call);

/// A credential, unlike any other text here: capitals and digits in turn.
[[nodiscard]] std::string secret(std::uint64_t seed);

/// Whether more than four characters of a credential stand in `text`, as they are or as escapes.
[[nodiscard]] bool holds_secret(std::string_view text);

/// `text` with each of its characters as a JSON escape.
[[nodiscard]] std::string escaped(std::string_view text);

}  // namespace soak
