#include "ask/input.hpp"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tovren_mapstead/engines/http/utf8.hpp"

#include "ask/text.hpp"

namespace ask {
namespace {

constexpr int PATIENCE_MS = 3000;

bool may_hold_text() {
  struct stat status {};

  if (fstat(STDIN_FILENO, &status) != 0) return false;
  if (S_ISREG(status.st_mode)) return true;
  if (!S_ISFIFO(status.st_mode) && !S_ISSOCK(status.st_mode)) return false;
  pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  return poll(&input, 1, PATIENCE_MS) > 0;
}

}  // namespace

Piped read_piped(std::size_t most, const std::function<bool()>& should_stop) {
  Piped piped;
  if (!may_hold_text()) return piped;
  std::array<char, 65536> buffer{};
  while (!should_stop() && piped.text.size() <= most) {
    const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw std::system_error(errno, std::generic_category(), "standard input");
    if (got == 0) break;
    piped.text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  piped.cut = piped.text.size() > most;
  if (piped.cut) {
    piped.text.resize(whole_characters(std::string_view(piped.text).substr(0, most)).size());
    if (const auto end = piped.text.rfind('\n'); end != std::string::npos)
      piped.text.resize(end + 1);
  }
  if (piped.text.find('\0') != std::string::npos ||
      !tovren_mapstead::engines::http::is_utf8(piped.text)) {
    throw std::invalid_argument("standard input is not UTF-8 text; pipe text, or use < /dev/null");
  }
  return piped;
}

}  // namespace ask
