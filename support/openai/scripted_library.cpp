// An OpenAI client library that misbehaves as the name of the model says. Counts its clients.
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "tovren_mapstead/openai.hpp"

namespace {

using namespace tovren_mapstead::openai;  // NOLINT(google-build-using-namespace)

std::atomic<int> opened = 0;
std::atomic<int> closed = 0;

struct Foreign : std::exception {  // a type that the program does not know

  [[nodiscard]] const char* what() const noexcept override { return "foreign sk-KEY-1"; }
};

class Stream final : public ChunkStream {
 public:
  explicit Stream(std::string model) : _model(std::move(model)) {}

  std::optional<Chunk> next() override {
    const int step = _step++;
    Chunk chunk;
    if (step == 1 && _model == "breaks") throw APIConnectionError("broken sk-KEY-1");
    if (step == 1 && _model == "breaks oddly") throw 7;
    if (step < 2) chunk.choices = {{Message{step == 0 ? "Hel" : "lo"}, {}}};
    if (step == 3 && _model == "no delta") chunk = {"x", {{{{}, "stop"}}}, Usage{7, "8"}, ""};
    return step < 4 ? std::optional(chunk) : std::nullopt;
  }

 private:
  std::string _model;
  int _step = 0;
};

class Client final : public OpenAI {
 public:
  using Whole = std::variant<Completion, std::unique_ptr<ChunkStream>>;

  explicit Client(ClientArguments arguments) : _made_with(std::move(arguments)) { ++opened; }

  ~Client() override { ++closed; }

  Whole create_chat_completion(const CreateArguments& asked) override {
    const std::string& model = asked.model;
    if (model == "arguments") {
      throw OpenAIError(_made_with.base_url + " " + std::to_string(_made_with.timeout) + " " +
                        std::to_string(_made_with.max_retries) + (asked.stream ? " stream" : "") +
                        (asked.stream_options ? " options" : "") +
                        (asked.response_format ? " json" : ""));
    }
    if (model == "foreign") throw Foreign();
    if (model == "unknown") throw 7;
    if (model == "501") throw APIStatusError("501 sk-KEY-1", 501);
    if (model == "timeout") throw APITimeoutError("late");
    if (model == "rejects all") throw APIStatusError("no response_format, no streams", 400);
    if (model == "null stream") return std::unique_ptr<ChunkStream>();
    if (asked.stream.value_or(false) != (model == "wrong kind"))
      return std::make_unique<Stream>(model);
    Completion whole{.model = {}, .choices = {}, .usage = {}, .text = "all of sk-KEY-1"};
    if (model != "no choices") whole.choices.emplace();
    if (model == "no message") whole.choices->push_back({});
    if (model == "nulls") whole.choices->push_back({Message{}, {}});
    if (model == "numbers") whole = {5, {{{Message{2.5}, true}}}, Usage{7.9, "x"}, ""};
    return whole;
  }

 private:
  ClientArguments _made_with;
};

}  // namespace

#ifdef FAKE_VERSION
extern "C" const Library* tovren_openai_library() {
  static constexpr Library LIBRARY{FAKE_VERSION,
                                   [](const ClientArguments& with) -> std::unique_ptr<OpenAI> {
                                     if (with.base_url == "http://no.client") return nullptr;
                                     return std::make_unique<Client>(with);
                                   }};
  return &LIBRARY;
}
#endif

extern "C" void fake_counts(int* all, int* gone) {
  *all = opened;
  *gone = closed;
}
