// What the documentation says in tables and not in code, tried out.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "snippets/prelude.hpp"

namespace snippets {

/// How a call failed: the name of the error's type, and its text.
struct Failure {
  std::string type;
  std::string text;
};

template <class Act>
Failure failure_of(Act act) {
  try {
    std::ignore = act();
  } catch (const llm::LLMStopped& error) {
    return {"LLMStopped", error.what()};
  } catch (const llm::LLMTimeout& error) {
    return {"LLMTimeout", error.what()};
  } catch (const llm::LLMError& error) {
    return {"LLMError", error.what()};
  } catch (const std::invalid_argument& error) {
    return {"invalid_argument", error.what()};
  }
  return {"none", ""};
}

/// Every failure that can be had on one machine.
inline std::vector<Failure> failures() {
  const http::Wait no_wait = [](double, auto&, auto) {};
  const auto ask = [&](const std::string& url, double timeout_s = 10, int max_retries = 0,
                       const std::string& key = "sk-made-up-key") {
    return failure_of([&] {
      return llm::LLMClient({.base_url = url,
                             .model = "m",
                             .api_key = key,
                             .timeout_s = timeout_s,
                             .max_retries = max_retries},
                            {.transport = http::make_transport(), .wait = no_wait})
          .chat({});
    });
  };
  const auto after = [&](const Endpoint::Handler& handler, double timeout_s = 10,
                         int max_retries = 0) {
    endpoint.forget();
    if (max_retries == 1) endpoint.replies(503, "busy");  // leaves a connection behind
    endpoint.does(handler);
    return ask(endpoint.url(), timeout_s, max_retries);
  };
  const auto reply = [](int status, const char* body, const char* type = "application/json") {
    return [=](loopback::Exchange& exchange) { exchange.reply(status, body, type); };
  };
  const auto bounded = [](const llm::ChatOptions& options, const llm::Messages& about = {}) {
    return failure_of([&] { return client.chat(about, options); });
  };
  const loopback::Server tls([](loopback::Exchange& exchange) { exchange.close(); }, {.tls = true});
  const std::string port = endpoint.url().substr(endpoint.url().rfind(':'));
  std::vector<Failure> failures{
      failure_of([] { return llm::LLMClient(llm::LLMConfig()).chat({}); }),
      failure_of([] { return llm::LLMClient({.base_url = "ftp://h"}).chat({}); }),
      ask(tls.url()),
      ask("https://127.0.0.1" + port),
      ask("http://a b"),
      ask(endpoint.url(), 1, 0, "sk-made-up-key\n"),
      ask(loopback::refused_url()),
      ask("http://" + std::string(70, 'x') + ".invalid"),  // too long to be looked up
      after(reply(200, "<html>")),
      after(reply(200, R"({"error":"told"})")),
      after(reply(200, "[]")),
      after(reply(200, R"({"choices":[)")),
      after(reply(200, "data: \xff\n", "text/event-stream")),
      after(reply(200, "", "text/event-stream")),
      after(reply(200, "data: {\"error\":{\"message\":\"told\"}}\n", "text/event-stream")),
      after(reply(503, "busy"), 10, 2),
      after(reply(429, "insufficient_quota")),
      after([](auto& exchange) {
        exchange.reply(302, "", "text/plain", "Location: https://other.example/v1\r\n");
      }),
      after([](auto& exchange) { exchange.reset(); }),
      after([](auto& exchange) { exchange.reset(); }, 10, 1),
      after([](auto& exchange) { exchange.close(); }),
      after([](auto& exchange) { exchange.start_stream(), exchange.close(); }),
      after(
          [](auto& exchange) {
            for (exchange.start_stream(); exchange.chunk(": still there\n");) exchange.pause(20ms);
          },
          0.2),
      after([](auto& exchange) { exchange.stall(); }, 0.2)};
  for (const int status : {400, 401, 402, 403, 404, 407, 413, 418, 429, 503}) {
    failures.push_back(after(reply(status, "told")));
  }
  failures.push_back(bounded({}, {llm::user("\xff")}));
  failures.push_back(bounded({.temperature = std::nan("")}));
  failures.push_back(bounded({.deadline = http::Clock::now() + 300ms}));  // the 503 still stands
  endpoint.forget();
  endpoint.stalls();
  failures.push_back(bounded({.deadline = http::Clock::now()}));
  failures.push_back(bounded({.deadline = http::Clock::now() + 100ms}));
  failures.push_back(bounded({.should_stop = [] { return true; }}));
  failures.push_back(bounded({.should_stop = [asked = 0]() mutable { return ++asked > 5; }}));
  for (const int status : {401, 403, 418, 503, 200}) {
    endpoint.forget();
    endpoint.replies(401, "told");
    if (status != 200) endpoint.exchanges(status, "told");
    const auto detour = std::make_shared<playback::Detour>(endpoint.url());
    const llm::LLMConfig copilot(
        {.provider = "copilot", .base_url = "https://h", .model = "m", .max_retries = 0});
    failures.push_back(
        failure_of([&] { return llm::LLMClient(copilot, {.transport = detour}).chat({}); }));
  }
  // Transports read the variables of a proxy when they are made: one refuses, the other is not
  // there.
  loopback::Server proxy([](loopback::Exchange& exchange) { exchange.reply(503, ""); });
  for (const std::string& url : {proxy.url(), loopback::refused_url()}) {
    setenv("https_proxy", url.c_str(), 1);
    const auto transport = http::make_transport();
    unsetenv("https_proxy");
    const llm::LLMConfig config(
        {.base_url = "https://h", .model = "m", .api_key = "sk-made-up-key", .max_retries = 0});
    failures.push_back(
        failure_of([&] { return llm::LLMClient(config, {.transport = transport}).chat({}); }));
  }
  return failures;
}

/// A row of a table that begins with an error's text, "…" for what varies.
struct Row {
  std::vector<std::string> cells;  // of the text without its backticks
  int line;
  bool seen = false;

  [[nodiscard]] bool shows(const std::string& text) const {
    const std::string_view any = "…";
    std::string_view pattern = cells[0];
    std::size_t at = 0;
    for (bool first = true;; first = false) {
      const std::string_view piece = pattern.substr(0, pattern.find(any));
      const std::size_t found = text.find(piece, at);
      if (found == std::string::npos || (first && found != 0)) return false;
      at = found + piece.size();
      if (piece.size() == pattern.size()) return piece.empty() || text.ends_with(piece);
      pattern.remove_prefix(piece.size() + any.size());
    }
  }
};

/// Those rows of the page that have so many cells.
inline std::vector<Row> rows(std::size_t cells) {
  std::vector<Row> found;
  std::ifstream page(SNIPPETS_PAGE);
  int number = 0;
  for (std::string line; ++number, std::getline(page, line);) {
    if (!line.starts_with("| `")) continue;
    Row row{.cells = {}, .line = number};
    for (std::size_t begin = 2, end = 0; (end = line.find(" |", begin)) != std::string::npos;) {
      row.cells.push_back(line.substr(begin, end - begin));
      begin = end + 3;
    }
    row.cells[0] = row.cells[0].substr(1, row.cells[0].size() - 2);
    if (row.cells.size() == cells && row.cells[0].find("::") == std::string::npos) {
      found.push_back(row);
    }
  }
  return found;
}

/// Each failure is shown by a row, each row by the failures that no row before it shows.
inline void match(std::vector<Row> rows, const std::vector<Failure>& failures) {
  for (const Failure& failure : failures) {
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& candidate) {
      return candidate.shows(failure.text);
    });
    if (row == rows.end()) throw std::logic_error("no row shows: " + failure.text);
    if (row->cells.size() > 2 && row->cells[1] != failure.type) {
      throw std::logic_error("line " + std::to_string(row->line) + ": it is " + failure.type);
    }
    row->seen = true;
  }
  for (const Row& row : rows) {
    if (!row.seen) throw std::logic_error("nothing shows line " + std::to_string(row.line));
  }
}

inline void every_row_is_provoked() {
  match(rows(3), failures());
}

inline void every_failure_is_provoked() {
  std::vector<Failure> last;
  const std::string words = "last failure: ";
  for (const Failure& failure : failures()) {
    const std::size_t at = failure.text.find(words);
    if (at != std::string::npos) last.push_back({"", failure.text.substr(at + words.size())});
  }
  match(rows(2), last);
}

/// The worked budget, with a `timeout_s` of 0.5: what ends each call, and when.
inline void budgets_are_kept() {
  const std::tuple<double, const char*, const char*, double> cases[] = {
      {1e6, "LLMError", "failed after 3 attempts", 4.5},
      {4.4, "LLMTimeout", "the deadline passed", 4.4},
      {3.5, "LLMTimeout", "no attempt could begin", 2.0}};
  std::array<std::string, std::size(cases)> told;
  endpoint.stalls();
  {
    std::vector<std::jthread> calls;
    for (std::size_t i = 0; i < std::size(cases); ++i) {
      calls.emplace_back([&told = told[i], &c = cases[i]] {
        const auto& [deadline_s, type, text, ends_s] = c;
        const auto start = http::Clock::now();
        const auto deadline = start + std::chrono::milliseconds(std::lround(deadline_s * 1000));
        const llm::LLMClient silent({.base_url = endpoint.url(),
                                     .model = "m",
                                     .api_key = "sk-made-up-key",
                                     .timeout_s = 0.5,
                                     .max_retries = 2});
        const Failure end = failure_of([&] { return silent.chat({}, {.deadline = deadline}); });
        const double late_s = seconds_since(start) - ends_s;
        const bool good = end.type == type && end.text.find(text) != std::string::npos &&
                          late_s > -0.1 && late_s < 0.9;
        if (!good) told = end.type + ": " + end.text + ", " + std::to_string(late_s) + " s late";
      });
    }
  }
  for (const std::string& problem : told) check(problem.empty(), problem);
}

}  // namespace snippets
