#include "engines/llm/reply/scalar.hpp"

#include <variant>

#include <nlohmann/json.hpp>

namespace tovren_mapstead::engines::llm {
namespace {

template <class Value>
constexpr bool IS_TEXT = std::is_same_v<Value, std::string>;

template <class Value>
constexpr bool IS_ABSENT = std::is_same_v<Value, std::monostate>;

}  // namespace

bool is_empty(const openai::Scalar& value) {
  return std::visit(
      []<class Held>(const Held& held) {
        if constexpr (IS_ABSENT<Held>)
          return true;
        else if constexpr (IS_TEXT<Held>)
          return held.empty();
        else
          return held == Held{};
      },
      value);
}

std::string text_of(const openai::Scalar& value) {
  return std::visit(
      []<class Held>(const Held& held) -> std::string {
        if constexpr (IS_ABSENT<Held>)
          return {};
        else if constexpr (IS_TEXT<Held>)
          return held;
        else
          return nlohmann::json(held).dump();
      },
      value);
}

}  // namespace tovren_mapstead::engines::llm
