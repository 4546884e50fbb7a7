// Reads the events of a stream that differ from an earlier one in their text only.
#pragma once

#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/json.hpp"

namespace tovren_mapstead::engines::llm {

/// Most events of a stream repeat the bytes of the one before, except for a piece of the answer.
/// The bytes around that piece are learnt from one event; a later event with the same bytes around
/// a JSON string has the same members, so that its string can be read without parsing the rest.
class RepeatedEvent {
 public:
  /// Returns the text of an event; absent if it has none.
  using TextOf = http::JsonValue (*)(const http::JsonValue& event);

  explicit RepeatedEvent(TextOf text_of) : _text_of(text_of) {}

  /// Appends the text of the event with this payload to `out`. Returns false, and leaves `out` as
  /// it is, unless the event differs from the learnt one in its text only.
  bool append_text(std::string_view payload, std::string& out);

  /// Learns an event in place of the one before. Finds out where its text is by parsing a variant
  /// of it with `reader`; no longer does so if no event like a learnt one comes.
  void learn(std::string_view payload, const http::JsonValue& text, http::JsonReader& reader);

 private:
  TextOf _text_of;
  std::string _before;  // the payload up to its text, with the quotation mark; empty: none learnt
  std::string _after;   // the rest, from the closing quotation mark on
  int _credit = 4;      // how often to learn in vain
};

}  // namespace tovren_mapstead::engines::llm
