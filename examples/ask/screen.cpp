#include "ask/screen.hpp"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <iostream>

#include <sys/ioctl.h>
#include <unistd.h>

#include "ask/text.hpp"

namespace ask {
namespace {

namespace http = tovren_mapstead::engines::http;

struct Size {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

Size size_of_terminal() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
    return {};
  }
  return {.rows = size.ws_row, .columns = size.ws_col};
}

// Returns how many rows below its first the text ends, on a terminal with so many columns.
std::size_t rows_below(std::string_view text, std::size_t columns) {
  std::size_t rows = 0;
  std::size_t column = 0;
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t character = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the state is local
    const std::size_t got = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool readable = got >= 1 && got <= text.size();
    text.remove_prefix(readable ? got : 1);
    if (character == L'\n') {
      ++rows;
      column = 0;
      continue;
    }
    const int width = readable ? wcwidth(character) : 1;
    const std::size_t cells = character == L'\t' ? 8 - column % 8
                              : width < 0        ? 1
                                                 : static_cast<std::size_t>(width);
    if (column + cells > columns && character != L'\t') {  // a tab stops at the last column
      ++rows;
      column = 0;
    }
    column = std::min(column + cells, columns);
  }
  return rows;
}

bool write(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

}  // namespace

Screen::Screen()
    : _answer_on_terminal(isatty(STDOUT_FILENO) == 1),
      _progress_on_terminal(isatty(STDERR_FILENO) == 1) {}

Screen::~Screen() {
  erase_progress();
  if (!_shown.empty()) write("\n");
}

void Screen::observe(const http::ExchangeEvent& event) {
  if (event.kind == http::ExchangeEvent::Kind::request) {
    erase_shown();
    _draft = {};
    _events = {};
  }
  if (event.kind != http::ExchangeEvent::Kind::body) return;
  _bytes += event.text.size();
  if (!event.content_type.starts_with("text/event-stream")) return;
  _events.feed(event.text);
  for (auto next = _events.next(); next.present(); next = _events.next()) {
    const http::JsonValue content = next["choices"].front()["delta"]["content"];
    if (content.kind() != http::JsonValue::Kind::string) continue;
    std::string piece;
    content.append_text(piece);
    show(piece);
  }
}

void Screen::show(std::string_view piece) {
  const std::string text = _draft.add(piece);
  if (!_answer_on_terminal || text.empty()) return;
  erase_progress();
  write(text);
  _shown += text;
}

void Screen::tick() {
  const auto now = Clock::now();
  const bool due = now - _drawn >= std::chrono::milliseconds(100);
  if (!_progress_on_terminal || !_shown.empty() || !due) return;
  _drawn = now;
  _progress_drawn = true;
  const std::chrono::duration<double> passed = now - _begun;
  std::fprintf(stderr, "\r\x1b[K%s: %.1f s, %s bytes received",
               _draft.thinking() ? "thinking" : "waiting for the answer", passed.count(),
               grouped(_bytes).c_str());
  std::fflush(stderr);
}

void Screen::erase_progress() {
  if (!_progress_drawn) return;
  _progress_drawn = false;
  std::fputs("\r\x1b[K", stderr);
  std::fflush(stderr);
}

void Screen::erase_shown() {
  if (_shown.empty()) return;
  const Size terminal = size_of_terminal();
  const std::size_t rows = rows_below(_shown, terminal.columns);
  if (rows >= terminal.rows) {  // its start has left the screen
    write("\n\n---- replaced by: ----\n\n");
  } else {
    write("\r" + (rows > 0 ? "\x1b[" + std::to_string(rows) + "A" : "") + "\x1b[J");
  }
  _shown.clear();
}

bool Screen::finish(const std::string& answer) {
  erase_progress();
  if (!_answer_on_terminal) {
    std::cout << answer << std::endl;
    return static_cast<bool>(std::cout);
  }
  const std::string text = printable(answer, Lines::keep);
  if (!text.starts_with(_shown)) erase_shown();
  const std::size_t known = std::exchange(_shown, {}).size();
  return write(text.substr(known) + "\n");
}

}  // namespace ask
