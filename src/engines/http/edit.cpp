#include "tovren_mapstead/engines/http/edit.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>

#include "tovren_mapstead/engines/http/json.hpp"

#include "engines/http/forwarding.hpp"
#include "engines/http/request.hpp"

namespace tovren_mapstead::engines::http {
namespace {

class EditedExchange final : public ForwardingExchange {
 public:
  EditedExchange(std::unique_ptr<Exchange> inner, Secrets secrets)
      : ForwardingExchange(std::move(inner)), _secrets(std::move(secrets)) {}

  [[nodiscard]] Secrets secrets() const override {
    Secrets all = ForwardingExchange::secrets();
    std::ranges::copy(_secrets, std::back_inserter(all));
    return all;
  }

 private:
  const Secrets _secrets;
};

class EditingTransport final : public Transport {
 public:
  EditingTransport(RequestEdit edit, std::shared_ptr<Transport> transport, Secrets secrets)
      : _edit(std::move(edit)), _transport(std::move(transport)), _secrets(std::move(secrets)) {}

  std::unique_ptr<Exchange> open(Request request, Watch& watch) override {
    _edit(request);
    require_safe(request.url, request.headers);
    Secrets secrets = secrets_of(request.headers);
    std::ranges::copy(_secrets, std::back_inserter(secrets));
    auto exchange = forward(_transport, std::move(request), watch, secrets);
    return std::make_unique<EditedExchange>(std::move(exchange), std::move(secrets));
  }

 private:
  const RequestEdit _edit;
  const std::shared_ptr<Transport> _transport;
  const Secrets _secrets;
};

// Where the members of a JSON object stand in its text. Names are compared as they are written.
class Members {
 public:
  explicit Members(std::string_view text) : _text(text) {}

  // A member: from its name's quotation mark to the end of its value.
  struct Member {
    std::size_t begin;
    std::size_t value;
    std::size_t end;
  };

  // Returns the first member of that name. Nothing if there is none or the text is no object.
  std::optional<Member> find(std::string_view name) {
    if (!accept('{')) return std::nullopt;
    do {
      skip_blanks();
      Member member{.begin = _at, .value = 0, .end = 0};
      if (!skip_string()) return std::nullopt;
      const std::string_view found = _text.substr(member.begin + 1, _at - member.begin - 2);
      if (!accept(':')) return std::nullopt;
      skip_blanks();
      member.value = _at;
      skip_value();
      member.end = _at;
      if (found == name) return member;
    } while (accept(','));
    return std::nullopt;
  }

 private:
  void skip_blanks() { _at = std::min(_text.find_first_not_of(" \t\r\n", _at), _text.size()); }

  bool accept(char c) {
    skip_blanks();
    if (_at == _text.size() || _text[_at] != c) return false;
    ++_at;
    return true;
  }

  bool skip_string() {
    if (_at == _text.size() || _text[_at] != '"') return false;
    for (++_at; _at < _text.size(); ++_at) {
      if (_text[_at] == '\\') {
        ++_at;
      } else if (_text[_at] == '"') {
        ++_at;
        return true;
      }
    }
    _at = _text.size();
    return false;
  }

  // Skips up to the comma or bracket after the value.
  void skip_value() {
    for (std::size_t depth = 0; _at < _text.size();) {
      const char c = _text[_at];
      if (c == '"') {
        skip_string();
        continue;
      }
      if (depth == 0 && (c == ',' || c == '}' || c == ']')) return;
      if (c == '{' || c == '[') ++depth;
      if (c == '}' || c == ']') --depth;
      ++_at;
    }
  }

  std::string_view _text;
  std::size_t _at = 0;
};

}  // namespace

std::shared_ptr<Transport> edit_requests(RequestEdit edit, std::shared_ptr<Transport> transport,
                                         Secrets secrets) {
  return std::make_shared<EditingTransport>(std::move(edit), std::move(transport),
                                            std::move(secrets));
}

bool set_member(std::string& body, std::string_view name, std::string_view json) {
  if (!JsonReader().parse(json).present()) {
    throw std::invalid_argument("the value for the member " + std::string(name) + " is not JSON");
  }
  if (const auto member = Members(body).find(name)) {
    body.replace(member->value, member->end - member->value, json);
    return true;
  }
  const std::size_t open = body.find_first_not_of(" \t\r\n");
  const std::size_t close = body.find_last_not_of(" \t\r\n");
  if (open == std::string::npos || body[open] != '{' || body[close] != '}') return false;
  const bool first = body.find_first_not_of(" \t\r\n", open + 1) == close;
  std::string member(first ? "\"" : ",\"");
  body.insert(close, member.append(name).append("\":").append(json));
  return true;
}

bool rename_member(std::string& body, std::string_view name, std::string_view new_name) {
  const auto member = Members(body).find(name);
  if (!member) return false;
  body.replace(member->begin + 1, name.size(), new_name);
  return true;
}

bool remove_member(std::string& body, std::string_view name) {
  const auto member = Members(body).find(name);
  if (!member) return false;
  // With the comma after it, or before it if it is the last.
  std::size_t begin = member->begin;
  std::size_t end = std::min(body.find_first_not_of(" \t\r\n", member->end), body.size());
  if (end < body.size() && body[end] == ',') {
    ++end;
  } else {
    const std::size_t before = body.find_last_not_of(" \t\r\n", begin - 1);
    if (before != std::string::npos && body[before] == ',') begin = before;
  }
  body.erase(begin, end - begin);
  return true;
}

}  // namespace tovren_mapstead::engines::http
