#include "engines/llm/reply/token_count.hpp"

#include <charconv>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

#include "openai/protocol.hpp"
#include "text/trim.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

struct ToInt {
  std::int64_t fallback;

  std::int64_t operator()(std::monostate) const { return fallback; }

  std::int64_t operator()(bool truth) const { return truth ? 1 : 0; }

  std::int64_t operator()(std::int64_t number) const { return number; }

  std::int64_t operator()(double number) const {
    constexpr double LIMIT = 0x1p63;  // the first that does not fit
    return number >= -LIMIT && number < LIMIT ? static_cast<std::int64_t>(number) : fallback;
  }

  std::int64_t operator()(const std::string& string) const {
    std::string_view text = http::trim(string);
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stop == end ? number : fallback;
  }
};

}  // namespace

std::int64_t _as_int(const openai::Scalar& value, std::int64_t fallback) {
  return std::visit(ToInt{fallback}, value);
}

std::int64_t _as_int(const http::JsonValue& value, std::int64_t fallback) {
  return _as_int(openai::to_scalar(value), fallback);
}

}  // namespace tovren_mapstead::engines::llm
