// The interface of the optional OpenAI client library. To bind a client library of your own,
// implement `OpenAI` and `ChunkStream`, define the entry point, and build a shared object named
// libtovren_openai.so where the dynamic loader finds it. This header needs the standard library
// only; the object needs the same one as the program that loads it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

/// The interface of the optional OpenAI client library.
namespace tovren_mapstead::openai {

/// Increases with every change to what follows. An object of another version is not used.
inline constexpr std::uint32_t INTERFACE_VERSION = 2;

/// The name of the shared object.
inline constexpr const char* LIBRARY_NAME = "libtovren_openai.so";

/// The name of its entry point.
inline constexpr const char* ENTRY_POINT = "tovren_openai_library";

/// A member of a reply as it came; the first alternative stands for absent and null.
/// Strings are UTF-8. That of a chunk may begin or end with half of a surrogate pair, in the three
/// bytes of its number, where a server cut a character in two.
using Scalar = std::variant<std::monostate, bool, std::int64_t, double, std::string>;

/// Token counts, as the provider reports them.
struct Usage {
  Scalar prompt_tokens;      ///< Of the messages.
  Scalar completion_tokens;  ///< Of the answer.
};

/// A message, or a piece of one.
struct Message {
  Scalar content;  ///< Its text.
};

/// One of the answers. The client uses the first.
struct Choice {
  std::optional<Message> message;  ///< The answer.
  Scalar finish_reason;            ///< Why it ends here.
};

/// A whole reply.
struct Completion {
  Scalar model;                                ///< The model that answered.
  std::optional<std::vector<Choice>> choices;  ///< The answers.
  std::optional<Usage> usage;                  ///< Token counts.
  std::string text;  ///< A readable rendering of all of it, for error texts.
};

/// The next piece of one of the answers.
struct ChunkChoice {
  std::optional<Message> delta;  ///< What is added to it.
  Scalar finish_reason;          ///< Why it ends here; absent before its end.
};

/// A piece of a streamed reply.
struct Chunk {
  Scalar model;                                     ///< The model that answers.
  std::optional<std::vector<ChunkChoice>> choices;  ///< Pieces of the answers.
  std::optional<Usage> usage;                       ///< Token counts; in the last chunk.
  std::string text;                                 ///< As for `Completion`; may be empty.
};

/// A streamed reply, read once from start to end.
class ChunkStream {
 public:
  ChunkStream() = default;
  ChunkStream(const ChunkStream&) = delete;
  ChunkStream& operator=(const ChunkStream&) = delete;
  virtual ~ChunkStream() = default;

  /// Returns the next chunk, or nothing at the end. Blocks for no longer than the client's timeout
  /// between two pieces of the reply. Throws an OpenAIError.
  virtual std::optional<Chunk> next() = 0;
};

/// The first member of a record that is made by field name only.
struct ByName {
  /// Returns true.
  bool operator==(const ByName&) const = default;
};

/// One message of a request, made by field name: `{.role = "user", .content = text}`. Without
/// names, `{{"role", "user"}, ...}` would make a string of two pointers.
struct RequestMessage {
  [[no_unique_address]] ByName by_name{};                     ///< Keeps other forms out.
  std::string role;                                           ///< "system", "user" or "assistant".
  std::string content;                                        ///< UTF-8.
  std::vector<std::pair<std::string, std::string>> others{};  ///< Further members, in order.

  /// Returns whether all members are equal.
  bool operator==(const RequestMessage&) const = default;
};

/// The arguments of one request, in the order in which they are sent. Absent ones are not sent.
struct CreateArguments {
  /// What a stream holds beside the answer.
  struct StreamOptions {
    bool include_usage = true;  ///< Token counts, in the last chunk.
  };

  /// The form of the answer.
  struct ResponseFormat {
    std::string type;  ///< "json_object".
  };

  std::string model;                                ///< The model that is asked.
  std::span<const RequestMessage> messages;         ///< Borrowed for the time of the request.
  double temperature = 0;                           ///< Sampling temperature.
  int max_tokens = 0;                               ///< Most tokens of the answer.
  std::optional<bool> stream{};                     ///< Asks for the answer in pieces.
  std::optional<StreamOptions> stream_options{};    ///< With `stream` only.
  std::optional<ResponseFormat> response_format{};  ///< Absent: any text.
};

/// What a client is made with.
struct ClientArguments {
  std::string base_url;  ///< What "/chat/completions" is appended to.
  std::string api_key;   ///< A secret; must not be in any error text.
  double timeout = 0;    ///< Bounds every wait of a request, in seconds; 0 means no limit.
  int max_retries = 0;   ///< 0 means one attempt.
};

/// A client of one endpoint. Its destructor closes it and what it holds. Used by one thread.
class OpenAI {
 public:
  OpenAI() = default;
  OpenAI(const OpenAI&) = delete;
  OpenAI& operator=(const OpenAI&) = delete;
  virtual ~OpenAI() = default;

  /// Calls `chat.completions.create`. Returns the whole reply, or its stream if `arguments.stream`
  /// is true. The stream is destroyed before the client. Throws an OpenAIError.
  virtual std::variant<Completion, std::unique_ptr<ChunkStream>> create_chat_completion(
      const CreateArguments& arguments) = 0;
};

/// Any failure of a request. The text quotes what the provider says.
class [[gnu::visibility("default")]] OpenAIError : public std::runtime_error {
 public:
  /// `message` should hold no secret. The client that catches the error removes its own secrets.
  explicit OpenAIError(const std::string& message, std::optional<int> status = std::nullopt)
      : std::runtime_error(message), _status(status) {}

  /// Returns the HTTP status of the reply, if there was one.
  [[nodiscard]] std::optional<int> status() const noexcept {
    return _status;
  }

 private:
  std::optional<int> _status;
};

/// The provider answered with a status that is no success.
class [[gnu::visibility("default")]] APIStatusError : public OpenAIError {
 public:
  using OpenAIError::OpenAIError;
};

/// The provider could not be reached, or the connection or the stream broke off.
class [[gnu::visibility("default")]] APIConnectionError : public OpenAIError {
 public:
  using OpenAIError::OpenAIError;
};

/// The provider was silent for longer than the timeout.
class [[gnu::visibility("default")]] APITimeoutError : public APIConnectionError {
 public:
  using APIConnectionError::APIConnectionError;
};

/// What the entry point returns.
struct Library {
  std::uint32_t interface_version;  ///< INTERFACE_VERSION of the header it was built with.
  /// Makes a client. Throws an OpenAIError.
  std::unique_ptr<OpenAI> (*open)(const ClientArguments& arguments);
};

/// The type of the entry point, which is declared in the object as
/// `extern "C" const tovren_mapstead::openai::Library* tovren_openai_library();`
using EntryPoint = const Library* (*)();

}  // namespace tovren_mapstead::openai
