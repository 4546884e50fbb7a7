// What the documentation says in tables and not in code, tried out.
#include <algorithm>
#include <cmath>
#include <string_view>

#include "faults/faults.hpp"
#include "snippets/snippets.hpp"

namespace snippets {
namespace {

using faults::Outcome;

// Makes calls, and keeps what each failure comes to.
class Failures {
 public:
  std::vector<Outcome> all;

  // The faults of the catalogue that end by themselves or by a timeout.
  void provoke_catalogue() {
    for (const faults::Fault& fault : faults::catalogue()) {
      const bool times_out = fault.streamed.end == faults::End::timeout;
      const bool ends = times_out || fault.streamed.end == faults::End::soon;
      if (fault.act == faults::Act::flood || !ends) continue;
      serve([&](auto& exchange) { play(exchange, fault); });
      ask({.base_url = server.url(), .timeout_s = times_out ? 0.1 : 10, .max_retries = 0});
    }
  }

  // Settings, and what is asked.
  void provoke_settings() {
    const loopback::Server tls([](auto& exchange) { exchange.close(); }, {.tls = true});
    for (const std::string& url :
         {std::string(), std::string("ftp://h"), std::string("http://a b"), tls.url(),
          "https" + server.url().substr(4), loopback::refused_url(),
          "http://" + std::string(70, 'x') + ".invalid"}) {  // too long to be looked up
      ask({.base_url = url});
    }
    ask({.base_url = server.url(), .api_key = "sk-made-up\n"});
    ask({.base_url = server.url()}, {}, {llm::user("\xff")});
    ask({.base_url = server.url()}, {.temperature = std::nan("")});
  }

  // A second attempt, and bounds.
  void provoke_bounds() {
    const llm::LLMConfig::Fields fields{.base_url = server.url(), .max_retries = 1};
    serve(endpoint::sending(503, "busy"));  // leaves a connection behind for the second attempt
    server.does([](auto& exchange) { exchange.reset(); });
    ask(fields);
    keep([] {  // a second before the next attempt is too long
      return client.chat({}, {.deadline = http::Clock::now() + 300ms}).content();
    });
    serve([](auto& exchange) { exchange.stall(); });
    ask(fields, {.deadline = http::Clock::now()});
    ask(fields, {.deadline = http::Clock::now() + 100ms});
    ask(fields, {.should_stop = [] { return true; }});
    ask(fields, {.should_stop = [asked = 0]() mutable { return ++asked > 5; }});
  }

  // Copilot, and a proxy that refuses or is not there.
  void provoke_others() {
    for (const int status : {401, 403, 418, 503, 200}) {
      serve(endpoint::sending(401, "no"));
      if (status != 200) server.exchanges(status, "no");
      ask({.provider = "copilot", .base_url = "https://h"}, {}, {}, loopback::detour(server.url()));
    }
    const loopback::Server proxy([](auto& exchange) { exchange.reply(503, ""); });
    for (const std::string& url : {proxy.url(), loopback::refused_url()}) {
      setenv("https_proxy", url.c_str(), 1);
      ask({.base_url = "https://h"});
      unsetenv("https_proxy");
    }
  }

 private:
  static void serve(const endpoint::Handler& handler) {
    server.forget();
    server.does(handler);
  }

  void keep(const std::function<std::string()>& call) {
    const Outcome seen = faults::outcome_of(call);
    if (seen.end != "answer") all.push_back(seen);
  }

  void ask(llm::LLMConfig::Fields fields, const llm::ChatOptions& options = {},
           const llm::Messages& about = {},
           const std::shared_ptr<http::Transport>& transport = http::make_transport()) {
    fields.model = "m";
    if (!fields.api_key) fields.api_key = "sk-made-up-key";
    keep([&] {
      return llm::LLMClient(fields, {.transport = transport, .wait = [](double, auto&, auto) {}})
          .chat(about, options)
          .content();
    });
  }
};

// A row of a table that begins with an error's text, "…" for what varies.
struct Row {
  std::vector<std::string> cells;
  int line;
  bool seen = false;

  [[nodiscard]] bool shows(const std::string& text) const {
    const std::string any = "…";
    const std::string& pattern = cells[0];
    if (pattern.find(any) == std::string::npos) return text == pattern;
    return text.starts_with(pattern.substr(0, pattern.find(any))) &&
           text.ends_with(pattern.substr(pattern.rfind(any) + any.size()));
  }
};

// The rows of docs/errors.md: those of errors have three cells, those of last failures two.
std::vector<Row> rows() {
  std::vector<Row> found;
  std::ifstream page(ERRORS_PAGE);
  int number = 0;
  for (std::string line; ++number, std::getline(page, line);) {
    if (!line.starts_with("| `") || line.find("::") < line.find(" |")) continue;
    Row row{.cells = {}, .line = number};
    for (std::size_t begin = 2, end = 0; (end = line.find(" |", begin)) != std::string::npos;) {
      row.cells.push_back(line.substr(begin, end - begin));
      begin = end + 3;
    }
    std::erase(row.cells[0], '`');
    found.push_back(row);
  }
  return found;
}

}  // namespace

void every_row_is_provoked() {
  Failures failures;
  failures.provoke_catalogue();
  failures.provoke_settings();
  failures.provoke_bounds();
  failures.provoke_others();
  std::vector<Row> rows = snippets::rows();
  const auto show = [&](const std::string& text, const std::string& end) {
    const auto row = std::ranges::find_if(rows, [&](const Row& each) {
      return each.cells.size() == (end.empty() ? 2 : 3) && each.shows(text);
    });
    check(row != rows.end(), "no row shows: " + text.substr(0, 300));
    check(end.empty() || row->cells[1] == end, end, row->line);
    row->seen = true;
  };
  const std::string words = "last failure: ";
  for (const Outcome& failure : failures.all) {
    show(failure.text, failure.end);
    const std::size_t at = failure.text.find(words);
    if (at != std::string::npos) show(failure.text.substr(at + words.size()), "");
  }
  for (const Row& row : rows) check(row.seen, "nothing shows the row", row.line);
}

}  // namespace snippets
