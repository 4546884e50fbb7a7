#include "engines/http/curl/transfer.hpp"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <optional>
#include <thread>
#include <utility>

#include "engines/http/curl/failure.hpp"
#include "engines/http/process.hpp"
#include "text/characters.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A transfer pauses when this much of the body has not been read.
constexpr std::size_t PAUSE_BYTES = std::size_t{48} << 10U;

// libcurl reads 16 KB at a time. A read of much less emptied the socket.
constexpr std::size_t HALF_READ_BYTES = std::size_t{8} << 10U;

constexpr std::size_t MAX_HEAD_BYTES = std::size_t{256} << 10U;

// To keep a connection, at most this much of an unwanted rest is read.
constexpr std::size_t MAX_DRAIN_BYTES = std::size_t{64} << 10U;

// How long a connection is kept idle without a Keep-Alive header: less than the 5 s of Node.js and
// uvicorn, the shortest of the common servers (load balancers: 60 s, nginx: 75 s). A request that
// is sent while the server closes is lost, and may have cost money.
constexpr double IDLE_S = 4;

// libcurl reuses no connection after 118 s.
constexpr double MAX_IDLE_S = 110;

// Returns the server's timeout minus time for the next request to arrive: 1 s, or half of a timeout
// below 2 s.
double idle_s_of(std::string_view keep_alive) {
  constexpr std::string_view TIMEOUT = "timeout=";
  const std::string text = lower_case(keep_alive);
  const std::size_t at = text.find(TIMEOUT);
  unsigned seconds = 0;
  if (at == std::string::npos) return IDLE_S;
  const char* const digits = text.data() + at + TIMEOUT.size();
  if (std::from_chars(digits, text.data() + text.size(), seconds).ec != std::errc()) return IDLE_S;
  return seconds < 2 ? seconds / 2.0 : seconds - 1.0;
}

// Returns libcurl's limit for the handshakes of TLS and of a proxy's tunnel. The watch limits
// silence, but not a peer that sends a byte now and then. The margin lets the watch report silence
// first.
long connect_ms(double timeout_s) {
  constexpr double MARGIN_MS = 50;
  const double ms = std::ceil(timeout_s * 1000) + MARGIN_MS;
  return timeout_s > 0 && ms < INT_MAX ? static_cast<long>(ms) : INT_MAX;
}

}  // namespace

// Called from C code, which no exception may cross. libcurl is told once where the connection keeps
// its transfer.
struct Transfer::Callbacks {
  static std::size_t body(const char* bytes, std::size_t, std::size_t count, Transfer** current) {
    Transfer& self = **current;
    try {
      return self.take_body({bytes, count});
    } catch (...) {
      self._connection->_thrown = std::current_exception();
      return 0;
    }
  }

  static std::size_t head(const char* bytes, std::size_t, std::size_t count, Transfer** current) {
    Transfer& self = **current;
    try {
      self._received += count;
      self._head_bytes += count;
      if (!self.head_complete()) self.take_head_line({bytes, count});  // trailers are ignored
      return self._head_bytes > MAX_HEAD_BYTES ? 0 : count;
    } catch (...) {
      self._connection->_thrown = std::current_exception();
      return 0;
    }
  }

  // Called when the connection is set up, TLS included. From here on the server may get the
  // request.
  static int sending(Transfer** current, char*, char*, int, int) {
    Transfer& self = **current;
    if (std::exchange(self._phase, Phase::sent) != Phase::connecting) return CURL_PREREQFUNC_ABORT;
    Connection& connection = *self._connection;
    const bool nested = connection._route.proxy && connection._route.proxy->over_tls;
    curl_tlssessioninfo* tls = nullptr;
    if (connection._route.tls && !nested && connection._tls == nullptr &&
        curl_easy_getinfo(connection._easy.get(), CURLINFO_TLS_SSL_PTR, &tls) == CURLE_OK &&
        tls != nullptr && tls->backend == CURLSSLBACKEND_OPENSSL) {
      connection._tls = static_cast<SSL*>(tls->internals);
    }
    return CURL_PREREQFUNC_OK;
  }

  // libcurl discards bytes that arrive after the last chunk, and reports them in its log only.
  // After a body with a length it closes the connection. Text of libcurl 7.88 to 8.14.
  static int log(CURL*, curl_infotype type, const char* text, std::size_t size,
                 Transfer** current) {
    if (type == CURLINFO_TEXT &&
        std::string_view(text, size).starts_with("Leftovers after chunking")) {
      (*current)->_excess = true;
    }
    return 0;
  }

  // libcurl reads the reply to CONNECT in one call, however long it takes, and calls this
  // meanwhile.
  static int progress(Transfer** current, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Transfer& self = **current;
    if (self._phase != Phase::connecting) return 0;
    try {
      self._watch.check("waiting for the proxy to connect to", self.route().origin);
      return 0;
    } catch (...) {
      self._connection->_thrown = std::current_exception();
      return 1;
    }
  }
};

Transfer::Transfer(std::unique_ptr<Connection> connection, Request request, const Watch& watch)
    : _connection(std::move(connection)),
      _request(std::move(request)),
      _watch(watch),
      _idle_s(IDLE_S),
      _room(PAUSE_BYTES) {
  const ForkGuard guard;
  Connection& curl = *_connection;
  curl._thrown = nullptr;
  curl._error.front() = '\0';
  curl._transfer = this;
  if (!curl._used) {
    curl.set(CURLOPT_WRITEFUNCTION, &Callbacks::body);
    curl.set(CURLOPT_HEADERFUNCTION, &Callbacks::head);
    curl.set(CURLOPT_PREREQFUNCTION, &Callbacks::sending);
    curl.set(CURLOPT_XFERINFOFUNCTION, &Callbacks::progress);
    curl.set(CURLOPT_DEBUGFUNCTION, &Callbacks::log);
    for (const CURLoption data : {CURLOPT_WRITEDATA, CURLOPT_HEADERDATA, CURLOPT_PREREQDATA,
                                  CURLOPT_XFERINFODATA, CURLOPT_DEBUGDATA}) {
      curl.set(data, &curl._transfer);
    }
    curl.set(CURLOPT_CONNECTTIMEOUT_MS, connect_ms(watch.timeout_s()));
    curl.set(CURLOPT_NOPROGRESS, curl._route.proxy && curl._route.tls ? 0L : 1L);
  } else if (curl._address) {
    curl.set(CURLOPT_NOPROGRESS, 1L);
    curl.set(CURLOPT_RESOLVE, static_cast<curl_slist*>(nullptr));
    curl._address.reset();
  }
  curl.set_url(_request.url);
  curl.set_headers(std::move(_request.headers));
  if (_request.method == Method::get) {
    curl.set(CURLOPT_HTTPGET, 1L);
  } else {
    curl.set(CURLOPT_POST, 1L);
    curl.set(CURLOPT_POSTFIELDS, _request.body.data());
    curl.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_request.body.size()));
  }
  require(curl_multi_add_handle(curl._multi.get(), curl._easy.get()));
}

Transfer::~Transfer() {
  if (!_connection || ended()) return;
  const ForkGuard guard;
  // If the easy handle is cleaned up first, libcurl leaks the decoders of the body.
  curl_multi_remove_handle(_connection->_multi.get(), _connection->_easy.get());
}

bool Transfer::perform() {
  bool waited = false;
  {
    const ForkGuard guard;
    const Connection& curl = *_connection;
    int running = 0;
    _received = 0;
    require(curl_multi_perform(curl._multi.get(), &running));
    waited = std::exchange(_waited, false);
    _has_to_wait = _received < HALF_READ_BYTES;
    int queued = 0;
    while (const CURLMsg* const message = curl_multi_info_read(curl._multi.get(), &queued)) {
      if (message->msg != CURLMSG_DONE) continue;
      end(message->data.result);
      return true;
    }
  }
  if (_received > 0) return true;
  if (!waited) return false;
  // Counts uploads, handshakes and parts of TLS records.
  const std::uint64_t moved = bytes_moved(_connection->_descriptor);
  if (std::exchange(_moved, moved) != moved) return true;
  // The socket is ready, but nothing moves. The sleep avoids a busy loop.
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return false;
}

void Transfer::end(CURLcode result) {
  const Connection& curl = *_connection;
  curl_socket_t socket = CURL_SOCKET_BAD;
  _result = result;
  _open = result == CURLE_OK && head_complete() && !_excess &&
          curl_easy_getinfo(curl._easy.get(), CURLINFO_ACTIVESOCKET, &socket) == CURLE_OK &&
          socket == curl._descriptor;
  curl_multi_remove_handle(curl._multi.get(), curl._easy.get());
  if (_chunked) _connection->set(CURLOPT_VERBOSE, 0L);
}

Request Transfer::take_request() {
  _request.headers = _connection->_headers;
  return std::move(_request);
}

std::unique_ptr<Connection> Transfer::release() noexcept {
  if (!_open) return nullptr;
  _open = false;
  _connection->_used = true;
  _connection->idle_until =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(std::min(_idle_s, MAX_IDLE_S)));
  return std::move(_connection);
}

void Transfer::poll(std::chrono::milliseconds longest) {
  int ready = 0;
  _has_to_wait = false;
  require(curl_multi_poll(_connection->_multi.get(), nullptr, 0, static_cast<int>(longest.count()),
                          &ready));
  _waited = ready > 0;
}

void Transfer::resume() {
  if (!std::exchange(_paused, false)) return;
  const ForkGuard guard;
  _has_to_wait = false;
  curl_easy_pause(_connection->_easy.get(), CURLPAUSE_CONT);  // delivers buffered body at once
}

void Transfer::set_sink(std::string* sink) {
  _sink = sink;
  _room = PAUSE_BYTES;
  if (sink == nullptr) return;
  if (_buffered.empty()) return resume();
  if (sink->empty()) {
    sink->swap(_buffered);
  } else {
    sink->append(_buffered);
    _buffered.clear();
  }
}

bool Transfer::drain() {
  _phase = Phase::draining;
  if (!ended()) resume();
  if (!ended()) perform();
  return ended();
}

std::size_t Transfer::take_body(std::string_view bytes) {
  if (_phase == Phase::draining) {
    _drained += bytes.size();
    return _drained > MAX_DRAIN_BYTES ? 0 : bytes.size();
  }
  _received += bytes.size();
  (_sink != nullptr ? *_sink : _buffered).append(bytes);
  _room -= std::min(_room, bytes.size());
  if (_room == 0 && !std::exchange(_paused, true)) {
    // libcurl still delivers what it has read, 16 KB at most. Refusing it would make a copy.
    curl_easy_pause(_connection->_easy.get(), CURLPAUSE_RECV);
  }
  return bytes.size();
}

void Transfer::take_head_line(std::string_view line) {
  const auto value_of = [&](std::string_view name) -> std::optional<std::string> {
    if (!equal_in_any_case(line.substr(0, name.size()), name)) return std::nullopt;
    const std::size_t begin = line.find_first_not_of(" \t\r\n", name.size());
    if (begin == std::string_view::npos) return "";
    return std::string(line.substr(begin, line.find_last_not_of(" \t\r\n") + 1 - begin));
  };
  if (line.starts_with("HTTP/")) {
    _head = {};  // the lines before were those of an interim reply
    _idle_s = IDLE_S;
    _chunked = false;
  } else if (line == "\r\n" || line == "\n") {
    long status = 0;
    require(curl_easy_getinfo(_connection->_easy.get(), CURLINFO_RESPONSE_CODE, &status));
    _head.status = static_cast<int>(status);
    if (status < 200 && status != 101) return;  // an interim reply
    _phase = Phase::body;
    if (_chunked) _connection->set(CURLOPT_VERBOSE, 1L);  // costs as much as all header lines
  } else if (auto type = value_of("content-type:")) {
    _head.content_type = std::move(*type);
  } else if (auto location = value_of("location:")) {
    _head.location = std::move(*location);
  } else if (const auto keep_alive = value_of("keep-alive:")) {
    _idle_s = idle_s_of(*keep_alive);
  } else if (value_of("transfer-encoding:")) {
    _chunked = true;
  }
}

void Transfer::check() const {
  if (_connection->_thrown) std::rethrow_exception(_connection->_thrown);
  if (!ended() || (_result == CURLE_OK && head_complete())) return;
  if (_head_bytes > MAX_HEAD_BYTES) {
    throw TransportError(
        "too large headers in the reply from " + route().origin + "; check the URL", false);
  }
  if (_result == CURLE_OK) {  // libcurl accepts this
    throw TransportError(
        "the reply breaks off from " + route().origin + " (in its headers); try again later", true);
  }
  if (_result == CURLE_SSL_CONNECT_ERROR || _result == CURLE_PEER_FAILED_VERIFICATION) {
    _connection->_trust->forget();
  }
  long proxy_status = 0;
  if (_phase == Phase::connecting) {
    curl_easy_getinfo(_connection->_easy.get(), CURLINFO_HTTP_CONNECTCODE, &proxy_status);
  }
  throw_failure({.code = *_result,
                 .text = _connection->_error.data(),
                 .sent = _phase != Phase::connecting,
                 .proxy_status = static_cast<int>(proxy_status)},
                route());
}

}  // namespace tovren_mapstead::engines::http
