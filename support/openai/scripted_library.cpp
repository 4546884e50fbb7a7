// An OpenAI client library that misbehaves as the name of the model says.
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "tovren_mapstead/openai.hpp"

namespace {

using namespace tovren_mapstead::openai;  // NOLINT(google-build-using-namespace)

struct Foreign : std::exception {  // a type that the program does not know

  explicit Foreign(const char* text_in) : text(text_in) {}

  [[nodiscard]] const char* what() const noexcept override { return text; }

  const char* text;
};

class Stream final : public ChunkStream {
 public:
  explicit Stream(std::string model) : _model(std::move(model)) {}

  std::optional<Chunk> next() override {
    const int step = _step++;
    if (step == 1 && _model == "breaks") throw APIConnectionError("broken sk-KEY-1");
    Chunk chunk;
    if (step < 2) chunk.choices = {{Message{step == 0 ? "Hel" : "lo"}, {}}, {Message{"2"}, "x"}};
    if (step == 2 && _model == "empties") chunk = {"", {{{Message{""}, ""}}}, {}, ""};
    if (step == 2 && _model == "counts") chunk = {"x", {{{{}, "stop"}}}, Usage{7, "8"}, ""};
    if (step == 3 && _model == "counts") chunk = {{}, {}, Usage{{}, "none"}, ""};
    return step < 4 ? std::optional(chunk) : std::nullopt;
  }

 private:
  std::string _model;
  int _step = 0;
};

class Client final : public OpenAI {
 public:
  using Whole = std::variant<Completion, std::unique_ptr<ChunkStream>>;

  explicit Client(ClientArguments arguments) : _made_with(std::move(arguments)) { ++alive; }

  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  ~Client() override { --alive; }

  static inline int alive = 0;

  Whole create_chat_completion(const CreateArguments& asked) override {
    const std::string& model = asked.model;
    if (model == "arguments") {
      throw OpenAIError(_made_with.base_url + " " + std::to_string(_made_with.timeout) + " " +
                        std::to_string(_made_with.max_retries) + (asked.stream ? " stream" : "") +
                        (asked.stream_options ? " options" : "") +
                        (asked.response_format ? " json" : ""));
    }
    if (model == "foreign") throw Foreign("foreign sk-KEY-1");
    if (model == "no words") throw Foreign(nullptr);
    if (model == "unknown") throw 7;
    if (const int status = std::atoi(model.c_str()); status > 0) {
      throw APIStatusError("status sk-KEY-1", status);
    }
    if (model == "timeout") throw APITimeoutError("late");
    if (model == "null stream") return std::unique_ptr<ChunkStream>();
    if (asked.stream.value_or(false) != (model == "wrong kind"))
      return std::make_unique<Stream>(model);
    Completion whole{.model = {}, .choices = {}, .usage = {}, .text = "all of sk-KEY-1"};
    if (model != "no choices") whole.choices.emplace();
    if (model == "no message") whole.choices->push_back({});
    if (model == "nulls") whole.choices->push_back({Message{}, {}});
    if (model == "empties") whole = {"", {{{Message{""}, ""}}}, Usage{}, ""};
    if (model == "numbers") whole = {5, {{{Message{2.5}, true}}}, Usage{7.9, "x"}, ""};
    return whole;
  }

 private:
  ClientArguments _made_with;
};

std::unique_ptr<OpenAI> open(const ClientArguments& with) {
  // That of an earlier attempt must be gone.
  if (with.base_url == "http://no.client" || Client::alive > 0) return nullptr;
  return std::make_unique<Client>(with);
}

}  // namespace

// Misbehaves as the variable ENTRY_POINT says.
extern "C" const Library* tovren_openai_library() {
  static constexpr Library GOOD{INTERFACE_VERSION, open};
  static constexpr Library NEWER{INTERFACE_VERSION + 1, open};
  static constexpr Library CLOSED{INTERFACE_VERSION, nullptr};
  const char* const variable = std::getenv("ENTRY_POINT");  // NOLINT(concurrency-mt-unsafe)
  const std::string_view act = variable == nullptr ? "" : variable;
  if (act == "throws") throw 7;
  if (act == "null") return nullptr;
  return act == "newer" ? &NEWER : act == "closed" ? &CLOSED : &GOOD;
}
