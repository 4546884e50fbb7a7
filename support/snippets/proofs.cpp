// What the documentation says in tables and not in code, tried out.
#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "faults/faults.hpp"
#include "snippets/snippets.hpp"

namespace snippets {
namespace {

using faults::Fault;
using faults::Outcome;

llm::LLMConfig::Fields fields(const std::string& url, double timeout_s = 10, int max_retries = 0) {
  return {.base_url = url,
          .model = "m",
          .api_key = "sk-made-up-key",
          .timeout_s = timeout_s,
          .max_retries = max_retries};
}

Outcome ask(const llm::LLMConfig& config, const llm::ChatOptions& options = {},
            const llm::Messages& about = {}, std::shared_ptr<http::Transport> transport = {}) {
  if (!transport) transport = http::make_transport();
  const llm::ClientOptions parts{.transport = transport, .wait = [](double, auto&, auto) {}};
  return faults::outcome_of(
      [&] { return llm::LLMClient(config, parts).chat(about, options).content(); });
}

// Of the faults of the catalogue that end by themselves or by a timeout.
void provoke_catalogue(std::vector<Outcome>& failures) {
  for (const Fault& fault : faults::catalogue()) {
    const faults::End end = fault.streamed.end;
    const bool times_out = end == faults::End::timeout;
    if (fault.act == faults::Act::flood || (end != faults::End::soon && !times_out)) continue;
    server.forget();
    server.does([&](auto& exchange) { play(exchange, fault); });
    const Outcome seen = ask(fields(server.url(), times_out ? 0.1 : 10));
    const Outcome due = faults::predict({&fault}, {.attempts = 1});
    check(seen.end == due.end && seen.text.find(due.text) != std::string::npos,
          fault.name + ": " + seen.text);
    if (seen.end != "answer") failures.push_back(seen);
  }
}

// Of settings and of what is asked.
void provoke_settings(std::vector<Outcome>& failures) {
  const loopback::Server tls([](auto& exchange) { exchange.close(); }, {.tls = true});
  for (const std::string& url :
       {std::string(), std::string("ftp://h"), std::string("http://a b"), tls.url(),
        "https" + server.url().substr(4), loopback::refused_url(),
        "http://" + std::string(70, 'x') + ".invalid"}) {  // too long to be looked up
    failures.push_back(ask(fields(url)));
  }
  llm::LLMConfig::Fields line_break = fields(server.url());
  *line_break.api_key += "\n";
  failures.push_back(ask(line_break));
  failures.push_back(ask(fields(server.url()), {}, {llm::user("\xff")}));
  failures.push_back(ask(fields(server.url()), {.temperature = std::nan("")}));
}

// Of a second attempt, and of bounds.
void provoke_bounds(std::vector<Outcome>& failures) {
  server.forget();
  server.replies(503, "busy");
  failures.push_back(ask(fields(server.url(), 10, 2)));
  failures.push_back(faults::outcome_of(  // a second before the next attempt is too long
      [] { return client.chat({}, {.deadline = http::Clock::now() + 300ms}).content(); }));
  server.forget();
  server.replies(503, "busy");  // leaves a connection behind, which the second attempt takes
  server.does([](auto& exchange) { exchange.reset(); });
  failures.push_back(ask(fields(server.url(), 10, 1)));
  server.forget();
  server.does([](auto& exchange) { exchange.stall(); });
  const llm::LLMConfig config = fields(server.url());
  failures.push_back(ask(config, {.deadline = http::Clock::now()}));
  failures.push_back(ask(config, {.deadline = http::Clock::now() + 100ms}));
  failures.push_back(ask(config, {.should_stop = [] { return true; }}));
  failures.push_back(ask(config, {.should_stop = [asked = 0]() mutable { return ++asked > 5; }}));
}

// Of Copilot, and of a proxy that refuses or is not there.
void provoke_others(std::vector<Outcome>& failures) {
  for (const int status : {401, 403, 418, 503, 200}) {
    server.forget();
    server.replies(401, "no");
    if (status != 200) server.exchanges(status, "no");
    llm::LLMConfig::Fields copilot = fields("https://h");
    copilot.provider = "copilot";
    failures.push_back(ask(copilot, {}, {}, loopback::detour(server.url())));
  }
  const loopback::Server proxy([](auto& exchange) { exchange.reply(503, ""); });
  for (const std::string& url : {proxy.url(), loopback::refused_url()}) {
    setenv("https_proxy", url.c_str(), 1);
    failures.push_back(ask(fields("https://h")));
    unsetenv("https_proxy");
  }
}

std::vector<Outcome> provoke() {
  std::vector<Outcome> failures;
  provoke_catalogue(failures);
  provoke_settings(failures);
  provoke_bounds(failures);
  provoke_others(failures);
  return failures;
}

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

// Those rows of docs/errors.md that have so many cells.
std::vector<Row> rows(std::size_t cells) {
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
    if (row.cells.size() == cells) found.push_back(row);
  }
  return found;
}

// Each failure is shown by a row, each row shows a failure that no row before it does.
void match(std::vector<Row> rows, const std::vector<Outcome>& failures) {
  for (const Outcome& failure : failures) {
    const auto row =
        std::ranges::find_if(rows, [&](const Row& each) { return each.shows(failure.text); });
    check(row != rows.end(), "no row shows: " + failure.text.substr(0, 300));
    check(row->cells.size() < 3 || row->cells[1] == failure.end, failure.end, row->line);
    row->seen = true;
  }
  for (const Row& row : rows) check(row.seen, "nothing shows the row", row.line);
}

}  // namespace

void every_row_is_provoked() {
  match(rows(3), provoke());
}

void every_failure_is_provoked() {
  std::vector<Outcome> last;
  const std::string words = "last failure: ";
  for (const Outcome& failure : provoke()) {
    const std::size_t at = failure.text.find(words);
    if (at != std::string::npos) last.push_back({"", failure.text.substr(at + words.size())});
  }
  match(rows(2), last);
}

void budgets_are_kept() {
  struct Budget {
    std::chrono::milliseconds deadline;
    const char* end;
    const char* text;
    double ends_s;
    std::string problem{};
  };

  std::array budgets{
      Budget{.deadline = 1h, .end = "LLMError", .text = "failed after 3 attempts", .ends_s = 4.5},
      Budget{.deadline = 4400ms, .end = "LLMTimeout", .text = "the deadline passed", .ends_s = 4.4},
      Budget{.deadline = 3500ms, .end = "LLMTimeout", .text = "no attempt could", .ends_s = 2.0}};
  server.does([](auto& exchange) { exchange.stall(); });
  {
    std::vector<std::jthread> calls;
    for (Budget& budget : budgets) {
      calls.emplace_back([&budget] {
        const llm::LLMClient silent(fields(server.url(), 0.5, 2));
        const auto deadline = http::Clock::now() + budget.deadline;
        const Outcome seen =
            faults::outcome_of([&] { return silent.chat({}, {.deadline = deadline}).content(); });
        const double late_s = seen.seconds - budget.ends_s;
        const bool good = seen.end == budget.end && late_s > -0.1 && late_s < 0.9 &&
                          seen.text.find(budget.text) != std::string::npos;
        if (!good) budget.problem = seen.text + ", " + std::to_string(late_s) + " s late";
      });
    }
  }
  for (const Budget& budget : budgets) check(budget.problem.empty(), budget.problem);
}

}  // namespace snippets
