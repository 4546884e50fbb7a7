#include "engines/llm/reply/token_count.hpp"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

#include "engines/llm/reply/white_space.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

std::optional<std::int64_t> whole(std::monostate) {
  return std::nullopt;
}

std::optional<std::int64_t> whole(bool truth) {
  return truth ? 1 : 0;
}

std::optional<std::int64_t> whole(std::int64_t number) {
  return number;
}

std::optional<std::int64_t> whole(double number) {
  constexpr double LIMIT = 0x1p63;  // the first that does not fit
  if (!(number >= -LIMIT && number < LIMIT)) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<std::int64_t> whole(const std::string& string) {
  std::string_view text = trim(string);
  if (text.starts_with('+')) text.remove_prefix(text.starts_with("+-") ? 0 : 1);
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return number;
}

}  // namespace

std::int64_t _as_int(const http::JsonValue& value, std::int64_t fallback) {
  using Kind = http::JsonValue::Kind;
  switch (value.kind()) {
    case Kind::boolean:
      return value.boolean() ? 1 : 0;
    case Kind::integer:
      return value.integer().value_or(fallback);
    case Kind::real:
      return whole(value.real()).value_or(fallback);
    case Kind::string:
      return whole(value.text()).value_or(fallback);
    case Kind::absent:
    case Kind::null:
    case Kind::array:
    case Kind::object:
      break;
  }
  return fallback;
}

std::int64_t _as_int(const openai::Scalar& value, std::int64_t fallback) {
  return std::visit([](const auto& held) { return whole(held); }, value).value_or(fallback);
}

}  // namespace tovren_mapstead::engines::llm
