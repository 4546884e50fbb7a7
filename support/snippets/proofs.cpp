// What the documentation says in tables and not in code, tried out.
#include <algorithm>
#include <cmath>
#include <iterator>

#include "faults/faults.hpp"
#include "snippets/snippets.hpp"

namespace snippets {
namespace {

using faults::Asked;
using faults::Bound;
using faults::Call;
using faults::End;
using faults::Outcome;
using loopback::Exchange;

// How calls end that fail in all the ways which docs/errors.md tells of.
std::vector<Outcome> outcomes() {
  const auto refusing = [](int status) {
    return [status](Exchange& exchange) { exchange.reply(status, "no"); };
  };
  const auto stalling = [](Exchange& exchange) { exchange.stall(); };
  // Leaves a connection behind for the second attempt.
  const auto resetting_the_second = [first = true](Exchange& exchange) mutable {
    std::exchange(first, false) ? exchange.reply(503, "busy") : exchange.reset();
  };
  const auto refusing_its_token = [](Exchange& exchange) {
    const bool asks_for_token = exchange.request().method == "GET";
    exchange.reply(asks_for_token ? 200 : 401, R"({"token":"made-up","expires_at":9e9})");
  };
  std::vector<Call> calls{
      {.name = "odd URL", .url = "http://a b"},
      {.name = "no server", .url = loopback::refused_url()},
      {.name = "too long to look up", .url = "http://" + std::string(70, 'x') + ".invalid"},
      {.name = "untrusted", .options = {.tls = true}, .trusted = false},
      {.name = "no TLS", .host = "localhost"},
      {.name = "busy, then reset", .serve = resetting_the_second},
      {.name = "no next attempt",
       .serve = refusing(503),
       .bound = Bound::deadline,
       .until = 300ms,
       .wait = http::wait_unless_stopped},
      {.name = "too late", .bound = Bound::deadline, .until = 0ms},
      {.name = "stopped", .bound = Bound::stop, .until = 0ms},
      {.name = "late", .serve = stalling, .bound = Bound::deadline},
      {.name = "stopped meanwhile", .serve = stalling, .bound = Bound::stop},
      {.name = "refused token", .serve = refusing_its_token, .asked = Asked::token}};
  for (const int status : {401, 403, 418, 503}) {
    calls.push_back({.name = "no token", .serve = refusing(status), .asked = Asked::token});
  }
  // The faults of the catalogue that end by themselves or by a timeout.
  for (const faults::Fault& fault : faults::catalogue()) {
    const End end = fault.streamed.end;
    if (fault.act == faults::Act::flood || (end != End::soon && end != End::timeout)) continue;
    calls.push_back({.name = fault.name,
                     .serve = [&](Exchange& exchange) { play(exchange, fault); },
                     .timeout_s = end == End::timeout ? 0.1 : 10,
                     .attempts = 1});
  }
  const auto without = [](const char* key) {
    const llm::LLMClient caller({.base_url = server.url(), .model = "m", .api_key = key});
    return faults::outcome_of([&] { return caller.chat({}).content(); });
  };
  std::vector<Outcome> all{
      without(""), without("sk-made-up\n"),
      faults::outcome_of([] { return llm::LLMClient({.base_url = "ftp://h"}).model(); }),
      faults::outcome_of([] { return client.chat({llm::user("\xff")}).content(); }),
      faults::outcome_of([] { return client.chat({}, {.temperature = NAN}).content(); })};
  std::ranges::transform(calls, std::back_inserter(all), faults::make);
  const loopback::Server proxy(refusing(503));
  for (const std::string& url : {proxy.url(), loopback::refused_url()}) {
    setenv("https_proxy", url.c_str(), 1);
    all.push_back(faults::make({.name = "proxy", .url = "https://h"}));
  }
  return all;
}

// A row of a table that begins with a text, "…" for what varies. The table of errors has their
// type in the second column.
struct Row {
  std::string pattern, second;
  int line;
  bool seen = false;

  [[nodiscard]] bool shows(const std::string& text) const {
    const std::string any = "…";
    const std::size_t first = pattern.find(any);
    if (first == std::string::npos) return text == pattern;
    return text.starts_with(pattern.substr(0, first)) &&
           text.ends_with(pattern.substr(pattern.rfind(any) + any.size()));
  }
};

std::vector<Row> rows() {
  std::vector<Row> found;
  std::ifstream page(ERRORS_PAGE);
  int number = 0;
  for (std::string line; ++number, std::getline(page, line);) {
    const std::size_t first = line.find(" |", 1);
    if (!line.starts_with("| `") || line.find("::") < first) continue;
    Row row{.pattern = line.substr(2, first - 2),
            .second = line.substr(first + 3, line.find(" |", first + 3) - first - 3),
            .line = number};
    std::erase(row.pattern, '`');
    found.push_back(row);
  }
  return found;
}

}  // namespace

void every_row_is_provoked() {
  std::vector<Row> rows = snippets::rows();
  const auto show = [&](const std::string& text, const std::string& type) {
    const auto row = std::ranges::find_if(rows, [&](const Row& each) {
      return each.shows(text) && (type.empty() || each.second == type);
    });
    check(row != rows.end(), "no row shows: " + type + ": " + text.substr(0, 300));
    row->seen = true;
  };
  const std::string words = "last failure: ";
  for (const Outcome& outcome : outcomes()) {
    if (outcome.end == "answer") continue;
    show(outcome.text, outcome.end);
    const std::size_t at = outcome.text.find(words);
    if (at != std::string::npos) show(outcome.text.substr(at + words.size()), "");
  }
  for (const Row& row : rows) check(row.seen, "nothing shows the row", row.line);
}

}  // namespace snippets
