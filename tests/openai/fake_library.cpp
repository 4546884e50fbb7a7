// A client library that misbehaves as the name of the model says. Counts its clients.
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "tovren_mapstead/openai.hpp"

namespace {

using namespace tovren_mapstead::openai;

std::atomic<int> opened = 0;
std::atomic<int> closed = 0;

class Foreign : public std::exception {  // a type that the program does not know
 public:
  [[nodiscard]] const char* what() const noexcept override { return "foreign sk-KEY-1"; }
};

Chunk chunk_of(const std::string& content) {
  return {.model = {}, .choices = std::vector{ChunkChoice{Message{content}, {}}}, .usage = {}, .text = {}};
}

class Stream final : public ChunkStream {
 public:
  explicit Stream(std::string model) : _model(std::move(model)) {}

  std::optional<Chunk> next() override {
    const int step = _step++;
    if (step == 0) return chunk_of("Hel");
    if (_model == "breaks") throw APIConnectionError("broken sk-KEY-1");
    if (_model == "breaks in an unknown way") throw 7;
    if (step == 1) return chunk_of("lo");
    if (step == 2) return Chunk{};
    if (step == 3 && _model == "no delta") {
      return Chunk{.model = "x", .choices = std::vector{ChunkChoice{{}, "stop"}}, .usage = Usage{7, "8"}, .text = {}};
    }
    return std::nullopt;
  }

 private:
  std::string _model;
  int _step = 0;
};

class Client final : public OpenAI {
 public:
  explicit Client(ClientArguments arguments) : _arguments(std::move(arguments)) { ++opened; }
  ~Client() override { ++closed; }

  std::variant<Completion, std::unique_ptr<ChunkStream>> create_chat_completion(
      const CreateArguments& asked) override {
    const std::string& model = asked.model;
    if (model == "arguments") {
      throw OpenAIError(_arguments.base_url + " " + std::to_string(_arguments.timeout) + " " +
                        std::to_string(_arguments.max_retries) + " " +
                        std::to_string(asked.stream.value_or(false)) +
                        std::to_string(asked.stream_options.has_value()) +
                        (asked.response_format ? asked.response_format->type : ""));
    }
    if (model == "foreign") throw Foreign();
    if (model == "unknown") throw 7;
    if (model == "501") throw APIStatusError("501 sk-KEY-1", 501);
    if (model == "timeout") throw APITimeoutError("late");
    if (model == "rejects all") throw APIStatusError("no response_format, no streams", 400);
    if (model == "null stream") return std::unique_ptr<ChunkStream>();
    if (model == "wrong kind") return asked.stream ? Whole(Completion{}) : Whole(std::make_unique<Stream>(model));
    if (asked.stream) return std::make_unique<Stream>(model);
    Completion whole{.model = {}, .choices = {}, .usage = {}, .text = "all of sk-KEY-1"};
    if (model != "no choices") whole.choices.emplace();
    if (model == "no message") whole.choices->push_back({});
    if (model == "nulls") whole.choices->push_back({.message = Message{}, .finish_reason = {}});
    if (model == "numbers") {
      whole = {.model = 5, .choices = std::vector{Choice{Message{2.5}, true}}, .usage = Usage{7.9, "x"}, .text = {}};
    }
    return whole;
  }

 private:
  using Whole = std::variant<Completion, std::unique_ptr<ChunkStream>>;
  ClientArguments _arguments;
};

}  // namespace

#ifdef FAKE_VERSION
extern "C" const Library* tovren_openai_library() {
  static constexpr Library LIBRARY{
      .interface_version = FAKE_VERSION,
      .open = [](const ClientArguments& arguments) -> std::unique_ptr<OpenAI> {
        if (arguments.base_url == "http://no.client") return nullptr;
        return std::make_unique<Client>(arguments);
      }};
  return &LIBRARY;
}
#endif

extern "C" void fake_counts(int* all, int* gone) {
  *all = opened;
  *gone = closed;
}
