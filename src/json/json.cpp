#include "tovren_mapstead/engines/http/json.hpp"

#include <algorithm>
#include <bit>
#include <new>

#include <simdjson.h>

#include "tovren_mapstead/engines/http/utf8.hpp"

#include "json/json_members.hpp"
#include "json/json_mend.hpp"

namespace tovren_mapstead::engines::http {
namespace {

using simdjson::dom::element;

static_assert(JsonReader::PADDING >= simdjson::SIMDJSON_PADDING);

}  // namespace

bool JsonValue::holds_nothing() const {
  const auto is_empty = [](const auto& container) { return container.begin() == container.end(); };
  switch (_kind) {
    case Kind::array:
      return is_empty(JsonAccess::as<simdjson::dom::array>(*this));
    case Kind::object:
      return is_empty(JsonAccess::as<simdjson::dom::object>(*this));
    default:  // boolean or number
      return !boolean() && real() == 0;
  }
}

void JsonValue::collect(std::span<const std::string_view> names, std::span<JsonValue> found) const {
  for_each_member(*this, [&](std::string_view key, const auto& value) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (key == names[i]) found[i] = value();
    }
  });
}

JsonValue JsonValue::operator[](std::string_view name) const {
  return members<1>({name})[0];
}

JsonValue JsonValue::front() const {
  if (_kind != Kind::array) return {};
  const auto array = JsonAccess::as<simdjson::dom::array>(*this);
  if (array.begin() == array.end()) return {};
  return JsonAccess::value(*array.begin(), _mended);
}

bool JsonValue::boolean() const {
  return JsonAccess::as<bool>(*this);
}

std::optional<std::int64_t> JsonValue::integer() const {
  if (_kind != Kind::integer || !std::bit_cast<element>(_place).is<std::int64_t>()) return {};
  return JsonAccess::as<std::int64_t>(*this);
}

double JsonValue::real() const {
  return JsonAccess::as<double>(*this);
}

void JsonValue::append_other(std::string& out) const {
  if (_kind == Kind::absent) return;
  const std::string text = _kind == Kind::string ? std::string(bytes())
                                                 : simdjson::minify(std::bit_cast<element>(_place));
  if (_mended) {
    append_unmended(out, text);
  } else {
    out += text;
  }
}

void JsonValue::assign_other(std::string& out) const {
  out.clear();
  append_other(out);
  if (_mended) join_halves(out);
}

std::string JsonValue::text() const {
  std::string out;
  assign_text(out);
  return out;
}

struct JsonReader::Parser {
  JsonValue parse(std::string_view padded, bool mended) {
    if (padded.size() > parser.capacity()) {
      // Doubles, so that a stream of slowly growing events does not allocate for each. The depth is
      // limited by the size of the text, which saves memory. The minimum of 64 is needed because
      // simdjson enlarges a parser for fewer than 32 bytes itself, but not its depth.
      const std::size_t capacity =
          std::max({padded.size(), 2 * parser.capacity(), std::size_t{64}});
      require_memory(parser.allocate(capacity, std::min(capacity, simdjson::DEFAULT_MAX_DEPTH)));
    }
    element root;
    const simdjson::error_code error = parser.parse(padded.data(), padded.size(), false).get(root);
    require_memory(error);
    return error == simdjson::SUCCESS ? JsonAccess::value(root, mended) : JsonValue();
  }

  // A parser that failed to allocate some of its memory does not notice later, so it is replaced.
  void require_memory(simdjson::error_code outcome) {
    if (outcome != simdjson::MEMALLOC) return;
    parser = simdjson::dom::parser();
    throw std::bad_alloc();
  }

  simdjson::dom::parser parser;
};

JsonReader::JsonReader() : _parser(std::make_unique<Parser>()) {}

JsonReader::JsonReader(JsonReader&&) noexcept = default;
JsonReader& JsonReader::operator=(JsonReader&&) noexcept = default;
JsonReader::~JsonReader() = default;

JsonValue JsonReader::parse(std::string_view text) {
  std::string padded(text);
  padded.append(PADDING, '\0');
  return parse_padded({padded.data(), text.size()});
}

JsonValue JsonReader::parse_padded(std::string_view text) {
  const JsonValue value = _parser->parse(text, false);
  if (value.present()) return value;
  // The error code for a number out of range or half of a surrogate pair depends on simdjson's
  // version, so it is ignored: a text that `mend` does not change is not JSON.
  std::string padded = mend(text);
  if (padded == text) return value;
  const std::size_t size = padded.size();
  padded.append(PADDING, '\0');
  return _parser->parse({padded.data(), size}, true);
}

}  // namespace tovren_mapstead::engines::http
