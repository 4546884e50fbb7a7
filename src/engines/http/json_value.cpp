#include <algorithm>
#include <bit>
#include <new>

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include "tovren_mapstead/engines/http/json.hpp"

#include "engines/http/json_members.hpp"
#include "engines/http/json_mend.hpp"
#include "engines/http/quote.hpp"

namespace tovren_mapstead::engines::http {
namespace {

using simdjson::dom::element;

static_assert(Response::PADDING >= simdjson::SIMDJSON_PADDING);

}  // namespace

bool is_utf8(std::string_view text) noexcept {
  return simdjson::validate_utf8(text.data(), text.size());
}

bool JsonValue::holds_nothing() const {
  switch (_kind) {
    case Kind::absent:
    case Kind::null:
      return true;
    case Kind::boolean:
      return !boolean();
    case Kind::integer:
      return integer() == 0;
    case Kind::real:
      return real() == 0;
    case Kind::string:
      return bytes().empty();
    case Kind::array: {
      const auto array = JsonAccess::taken<simdjson::dom::array>(*this);
      return array.begin() == array.end();
    }
    case Kind::object:
      break;
  }
  const auto object = JsonAccess::taken<simdjson::dom::object>(*this);
  return object.begin() == object.end();
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
  const auto array = JsonAccess::taken<simdjson::dom::array>(*this);
  if (array.begin() == array.end()) return {};
  return JsonAccess::value(*array.begin(), _mended);
}

bool JsonValue::boolean() const {
  return JsonAccess::taken<bool>(*this);
}

std::optional<std::int64_t> JsonValue::integer() const {
  if (_kind != Kind::integer || !std::bit_cast<element>(_place).is<std::int64_t>()) return {};
  return JsonAccess::taken<std::int64_t>(*this);
}

double JsonValue::real() const {
  return JsonAccess::taken<double>(*this);
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
      // Twice as much each time, or a stream of slowly growing events would allocate for each.
      // A small text cannot be deep: it needs little memory. (simdjson makes a parser for fewer
      // than 32 bytes larger by itself, but not deeper.)
      const std::size_t capacity =
          std::max({padded.size(), 2 * parser.capacity(), std::size_t{64}});
      require_memory(parser.allocate(capacity, std::min(capacity, simdjson::DEFAULT_MAX_DEPTH)));
    }
    element root;
    const simdjson::error_code error = parser.parse(padded.data(), padded.size(), false).get(root);
    require_memory(error);
    return error == simdjson::SUCCESS ? JsonAccess::value(root, mended) : JsonValue();
  }

  // A parser that got only some of its memory takes it for all.
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
  padded.append(Response::PADDING, '\0');
  return parse_padded({padded.data(), text.size()});
}

JsonValue JsonReader::parse_padded(std::string_view text) {
  const JsonValue value = _parser->parse(text, false);
  if (value.present()) return value;
  // Which error code a number out of range or half a character gets depends on simdjson's version.
  // Whatever the code: a text in which nothing can be mended is wrong.
  std::string padded = mend(text);
  if (padded == text) return value;
  const std::size_t size = padded.size();
  padded.append(Response::PADDING, '\0');
  return _parser->parse({padded.data(), size}, true);
}

std::size_t JsonReader::capacity() const noexcept {
  return _parser->parser.capacity();
}

JsonValue read_json(Response& reply, const RetryPolicy& policy, const Secrets& secrets) {
  constexpr std::string_view BYTE_ORDER_MARK = "\uFEFF";
  std::string body = reply.read_rest(policy.max_body_bytes);
  const std::size_t size = body.size();
  body.append(Response::PADDING, '\0');  // so that it is read where it lies
  std::string_view text(body.data(), size);
  if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
  const JsonValue root = reply.reader().parse_padded(text);
  if (root.present()) return root;
  constexpr const char* WRONG =
      "request failed: the reply is not JSON; check that the URL is that of an API";
  const std::string mended = mend(text);
  // A second reader, which says where it stopped: at the end, the text is cut, not wrong.
  std::string what = "request failed: the JSON of the reply is nested too deeply";
  try {
    const auto keep_nothing = [](auto&&...) { return false; };
    [[maybe_unused]] const auto nothing = nlohmann::json::parse(mended, keep_nothing);
  } catch (const nlohmann::json::parse_error& error) {
    if (error.byte > mended.size()) throw Retryable("reply breaks off in the middle of its JSON");
    what = WRONG;
  } catch (const nlohmann::json::exception&) {  // a number out of range that was not mended
    what = WRONG;
  }
  throw HttpFailure(redact(what, secrets), reply.head().status,
                    quote(text.substr(0, QUOTED_BYTES), secrets, detail_limit(policy)));
}

}  // namespace tovren_mapstead::engines::http
