// The only file that names libcurl.
#include "engines/http/connection.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <exception>
#include <new>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "engines/http/text.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// A fast sender is held back once so much of a body waits to be taken.
constexpr std::size_t PAUSE_BYTES = std::size_t{48} << 10U;

// libcurl reads 16 KB at a time. Where a read brought much less, nothing more has come yet.
constexpr std::size_t HALF_READ_BYTES = std::size_t{8} << 10U;

// No honest head is larger.
constexpr std::size_t MAX_HEAD_BYTES = std::size_t{256} << 10U;

// To save a connection, so much is read past that follows what the caller wanted.
constexpr std::size_t MAX_DRAIN_BYTES = std::size_t{64} << 10U;

// The JSON reader of a larger reply is not kept: idle connections would hold its memory.
constexpr std::size_t MAX_KEPT_TEXT = std::size_t{32} << 10U;

// How a transfer ended that libcurl could not finish, whether another may fare better, and what the
// user can do. What is not listed is final: repeating what is not understood helps nobody.
struct Outcome {
  CURLcode code;
  bool transient;
  std::string_view text;
  std::string_view advice;
};

constexpr std::string_view CHECK_NETWORK = "check the URL and the network";
constexpr std::string_view CHECK_SERVER = "check the URL and that the server runs";
constexpr std::string_view CHECK_URL = "check the URL";
constexpr std::string_view TRY_LATER = "try again later";

constexpr std::array<Outcome, 16> OUTCOMES{{
    {CURLE_COULDNT_RESOLVE_HOST, true, "cannot resolve the name of", CHECK_NETWORK},
    {CURLE_COULDNT_RESOLVE_PROXY, true, "cannot resolve the proxy to", "check the proxy variables"},
    {CURLE_COULDNT_CONNECT, true, "cannot connect to", CHECK_SERVER},
    {CURLE_OPERATION_TIMEDOUT, true, "timed out connecting to", CHECK_SERVER},
    {CURLE_SEND_ERROR, true, "the connection broke while sending to", TRY_LATER},
    {CURLE_RECV_ERROR, true, "the connection broke while reading from", TRY_LATER},
    {CURLE_GOT_NOTHING, true, "empty reply from", CHECK_SERVER},
    {CURLE_PARTIAL_FILE, true, "the reply breaks off from", TRY_LATER},
    {CURLE_HTTP2, true, "the HTTP/2 connection failed with", TRY_LATER},
    {CURLE_HTTP2_STREAM, true, "the HTTP/2 stream failed from", TRY_LATER},
    {CURLE_PEER_FAILED_VERIFICATION, false, "cannot trust the TLS certificate of",
     "check the host name; SSL_CERT_FILE may name a file of the authorities to trust"},
    {CURLE_SSL_CONNECT_ERROR, false, "cannot agree on TLS with", "check that it speaks https"},
    {CURLE_URL_MALFORMAT, false, "malformed URL:", CHECK_URL},
    {CURLE_UNSUPPORTED_PROTOCOL, false, "only http and https are spoken, unlike", CHECK_URL},
    // What libcurl also says of a header line of more than 100 KB.
    {CURLE_OUT_OF_MEMORY, false, "out of memory, or a header line is too large, reading from",
     CHECK_URL},
    {CURLE_WEIRD_SERVER_REPLY, false, "no HTTP server answers at", CHECK_URL},
}};

[[noreturn]] void refuse(const char* reason) {
  throw TransportError(std::string("libcurl cannot be set up: ") + reason, false);
}

void require(CURLcode code) {
  if (code != CURLE_OK) refuse(curl_easy_strerror(code));
}

void require(CURLMcode code) {
  if (code != CURLM_OK) refuse(curl_multi_strerror(code));
}

void initialise_libcurl() {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  require(ready);
  static const std::string_view tls = curl_version_info(CURLVERSION_NOW)->ssl_version;
  if (!tls.starts_with("OpenSSL/")) refuse("it is built without OpenSSL");
}

}  // namespace

std::string origin_of(std::string_view url) {
  const std::size_t colon = url.find("://");
  const std::size_t start = colon == std::string_view::npos ? 0 : colon + 3;
  const auto ends = [](char c) { return c == '/' || c == '?' || c == '#' || c == '\\'; };
  std::string_view authority = url.substr(start);
  authority = {authority.begin(), std::ranges::find_if(authority, ends)};
  const std::size_t at = authority.find_last_of('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  // What is no port can be the start of a password with a slash in it that was not escaped.
  const std::size_t bracket = authority.find(']');  // of an IPv6 address
  const std::size_t port = std::min(
      authority.find(':', bracket == std::string_view::npos ? 0 : bracket), authority.size());
  if (authority.find_first_not_of("0123456789", port + 1) != std::string_view::npos) {
    authority = authority.substr(0, port);
  }
  return lower_case(url.substr(0, start)).append(authority);
}

struct Connection::Handles {
  // Delegates, so that what has been made is freed if the other has not.
  Handles() : Handles(curl_multi_init(), curl_easy_init()) {
    if (multi == nullptr || easy == nullptr) throw std::bad_alloc();
  }

  Handles(CURLM* multi_in, CURL* easy_in) : multi(multi_in), easy(easy_in) {}

  Handles(const Handles&) = delete;
  Handles& operator=(const Handles&) = delete;

  ~Handles() {
    curl_easy_cleanup(easy);  // takes itself out of the multi handle
    curl_multi_cleanup(multi);
    curl_slist_free_all(lines);
  }

  template <class Value>
  void set(CURLoption option, Value value) {
    require(curl_easy_setopt(easy, option, value));
  }

  // A call's headers are mostly those of the call before.
  void set_headers(Headers wanted) {
    if (lines != nullptr && wanted == headers) return;
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> list(nullptr, curl_slist_free_all);
    const auto add = [&](const std::string& line) {
      curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
      if (longer == nullptr) throw std::bad_alloc();
      std::ignore = list.release();
      list.reset(longer);
    };
    for (const auto& [name, value] : wanted) {
      std::string line = name;
      add(value.empty() ? line.append(";") : line.append(": ").append(value));  // ";": no value
    }
    add("Expect:");  // to wait for leave to send costs a round trip, or a second where none comes
    set(CURLOPT_HTTPHEADER, list.get());
    curl_slist_free_all(std::exchange(lines, list.release()));
    headers = std::move(wanted);
  }

  CURLM* multi;
  CURL* easy;
  Headers headers;
  curl_slist* lines = nullptr;  // the headers, as libcurl wants them
  CURLcode result = CURLE_OK;
  std::array<char, CURL_ERROR_SIZE> error{};
};

// Called from C code, which no exception may cross.
struct Connection::Callbacks {
  static std::size_t body(const char* bytes, std::size_t, std::size_t count, Connection* self) {
    try {
      return self->take_body({bytes, count});
    } catch (...) {
      self->_thrown = std::current_exception();
      return 0;
    }
  }

  static std::size_t head(const char* bytes, std::size_t, std::size_t count, Connection* self) {
    try {
      self->_head_bytes += count;
      if (!self->_head_complete) self->take_head_line({bytes, count});  // else it is a trailer
      return self->_head_bytes > MAX_HEAD_BYTES ? 0 : count;
    } catch (...) {
      self->_thrown = std::current_exception();
      return 0;
    }
  }

  // libcurl would send a request again, unasked, when a kept connection turns out to be closed. The
  // first copy may have reached the server by then, and each can cost money.
  static int begin(Connection* self, char*, char*, int, int) {
    if (!std::exchange(self->_begun, true)) return CURL_PREREQFUNC_OK;
    self->_broken = true;
    return CURL_PREREQFUNC_ABORT;
  }

  // A program that the application starts inherits no connection: it would keep it open.
  static curl_socket_t open_socket(void*, curlsocktype, curl_sockaddr* to) {
    return socket(to->family, to->socktype | SOCK_CLOEXEC, to->protocol);
  }

  static CURLcode trust(CURL*, void* tls, Connection* self) {
    try {
      SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(tls), self->_trust->store());
      return CURLE_OK;
    } catch (...) {
      self->_thrown = std::current_exception();
      return CURLE_ABORTED_BY_CALLBACK;
    }
  }
};

Connection::Connection(std::shared_ptr<Trust> trust) : _trust(std::move(trust)) {
  initialise_libcurl();
  _handles = std::make_unique<Handles>();
  Handles& curl = *_handles;
  // One connection a pair: more would only keep some that no request asks for again.
  require(curl_multi_setopt(curl.multi, CURLMOPT_MAXCONNECTS, 1L));
  // Threads forbid signals. No write raises SIGPIPE either: libcurl, TLS records included, sends
  // with MSG_NOSIGNAL.
  curl.set(CURLOPT_NOSIGNAL, 1L);
  curl.set(CURLOPT_PROTOCOLS_STR, "http,https");
  // A connection carries one request at a time, so HTTP/2 would gain nothing, and libcurl 7.88 may
  // wait without end there for a reply that has come already.
  curl.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl.set(CURLOPT_FOLLOWLOCATION, 0L);
  curl.set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // libcurl would read the authorities' certificates for every connection.
  curl.set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  curl.set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  curl.set(CURLOPT_PREREQFUNCTION, &Callbacks::begin);
  curl.set(CURLOPT_PREREQDATA, this);
  curl.set(CURLOPT_OPENSOCKETFUNCTION, &Callbacks::open_socket);
  curl.set(CURLOPT_SSL_CTX_FUNCTION, &Callbacks::trust);
  curl.set(CURLOPT_SSL_CTX_DATA, this);
  curl.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT_MAX));  // the watch bounds it
  curl.set(CURLOPT_QUICK_EXIT, 1L);  // a stopped call does not wait for a name server
  curl.set(CURLOPT_TCP_KEEPALIVE, 1L);
  curl.set(CURLOPT_ERRORBUFFER, curl.error.data());
  curl.set(CURLOPT_WRITEFUNCTION, &Callbacks::body);
  curl.set(CURLOPT_WRITEDATA, this);
  curl.set(CURLOPT_HEADERFUNCTION, &Callbacks::head);
  curl.set(CURLOPT_HEADERDATA, this);
}

Connection::~Connection() = default;

void Connection::start(Request request, std::string origin) {
  Handles& curl = *_handles;
  curl.result = CURLE_OK;
  curl.error.front() = '\0';
  _origin = std::move(origin);
  _body = std::move(request.body);
  _head = {};
  _head_bytes = _drained = 0;
  _head_complete = _failed = _begun = _broken = _paused = _draining = _has_to_wait = false;
  _room = PAUSE_BYTES;
  _sink = nullptr;
  _early.clear();
  curl.set(CURLOPT_URL, request.url.c_str());
  curl.set_headers(std::move(request.headers));
  if (request.method == Method::get) {
    curl.set(CURLOPT_HTTPGET, 1L);
  } else {
    curl.set(CURLOPT_POST, 1L);
    curl.set(CURLOPT_POSTFIELDS, _body.data());
    curl.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(_body.size()));
  }
  require(curl_multi_add_handle(curl.multi, curl.easy));
  _under_way = true;
}

void Connection::perform() {
  Handles& curl = *_handles;
  int running = 0;
  _taken = 0;
  require(curl_multi_perform(curl.multi, &running));
  _has_to_wait = _taken < HALF_READ_BYTES;
  int queued = 0;
  while (const CURLMsg* const message = curl_multi_info_read(curl.multi, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    curl.result = message->data.result;
    // A peer that closes in the middle of its head has ended it well in libcurl's eyes.
    _failed = curl.result != CURLE_OK || !_head_complete;
    _under_way = false;
    curl_multi_remove_handle(curl.multi, curl.easy);  // and ends the life of the message
    return;
  }
}

bool Connection::poll(std::chrono::milliseconds longest) {
  int ready = 0;
  _has_to_wait = false;
  require(curl_multi_poll(_handles->multi, nullptr, 0, static_cast<int>(longest.count()), &ready));
  return ready > 0;
}

void Connection::save_memory() {
  if (_reader.capacity() > MAX_KEPT_TEXT) _reader = {};
}

void Connection::resume() {
  if (!std::exchange(_paused, false)) return;
  _has_to_wait = false;
  curl_easy_pause(_handles->easy, CURLPAUSE_CONT);  // hands over what it holds at once
}

void Connection::pour_into(std::string* sink) {
  _sink = sink;
  _room = PAUSE_BYTES;
  if (sink == nullptr) return;
  if (_early.empty()) return resume();
  if (sink->empty()) {
    sink->swap(_early);
  } else {
    sink->append(_early);
    _early.clear();
  }
}

bool Connection::drain() {
  _draining = true;
  if (_under_way) resume();
  if (_under_way) perform();
  return in_good_order();
}

std::size_t Connection::take_body(std::string_view bytes) {
  if (_draining) {
    _drained += bytes.size();
    return _drained > MAX_DRAIN_BYTES ? 0 : bytes.size();
  }
  _taken += bytes.size();
  (_sink != nullptr ? *_sink : _early).append(bytes);
  _room -= std::min(_room, bytes.size());
  if (_room == 0 && !std::exchange(_paused, true)) {
    // What libcurl holds already, 16 KB at most, still comes. To refuse it would make a copy of it.
    curl_easy_pause(_handles->easy, CURLPAUSE_RECV);
  }
  return bytes.size();
}

void Connection::take_head_line(std::string_view line) {
  const auto value_of = [&](std::string_view name) -> std::optional<std::string> {
    if (!equal_in_any_case(line.substr(0, name.size()), name)) return std::nullopt;
    const std::size_t begin = line.find_first_not_of(" \t\r\n", name.size());
    if (begin == std::string_view::npos) return "";
    return std::string(line.substr(begin, line.find_last_not_of(" \t\r\n") + 1 - begin));
  };
  if (line.starts_with("HTTP/")) {
    _head = {};  // whatever came before was an interim reply
  } else if (line == "\r\n" || line == "\n") {
    long status = 0;
    require(curl_easy_getinfo(_handles->easy, CURLINFO_RESPONSE_CODE, &status));
    _head.status = static_cast<int>(status);
    _head_complete = status >= 200 || status == 101;  // no interim reply, though it looks like one
  } else if (auto type = value_of("content-type:")) {
    _head.content_type = std::move(*type);
  } else if (auto location = value_of("location:")) {
    _head.location = std::move(*location);
  }
}

void Connection::check() const {
  if (_thrown) std::rethrow_exception(_thrown);
  if (!_failed) return;
  if (_broken) throw TransportError("the connection broke before a reply of " + _origin, true);
  if (_head_bytes > MAX_HEAD_BYTES) {
    throw TransportError("the head of the reply is too large from " + _origin, false);
  }
  const Handles& curl = *_handles;
  if (curl.result == CURLE_OK) {
    throw TransportError("the head of the reply breaks off from " + _origin, true);
  }
  // Of a proxy libcurl quotes the whole variable, password included.
  const std::string told = curl.error.data();
  const bool secret =
      curl.result == CURLE_COULDNT_RESOLVE_PROXY || told.starts_with("Unsupported proxy");
  const std::string reason = told.empty() || secret ? curl_easy_strerror(curl.result) : told;
  // libcurl has one code for a URL and for a reply that are not HTTP's.
  const bool strange = curl.result == CURLE_UNSUPPORTED_PROTOCOL && _begun;
  const CURLcode code = strange ? CURLE_WEIRD_SERVER_REPLY : curl.result;
  const auto* const known = std::ranges::find(OUTCOMES, code, &Outcome::code);
  if (known == OUTCOMES.end()) {
    throw TransportError("the exchange failed with " + _origin + " (" + reason + ")", false);
  }
  std::string text(known->text);
  text.append(" ").append(_origin).append(" (").append(reason).append("); ").append(known->advice);
  // Without the peer's word on what is wrong, a handshake has not failed but broken off.
  const bool dropped = curl.result == CURLE_SSL_CONNECT_ERROR &&
                       (told.find("Recv failure") != std::string::npos ||
                        told.find("Send failure") != std::string::npos ||
                        told.find("SSL_ERROR_SYSCALL") != std::string::npos);
  throw TransportError(text, known->transient || dropped);
}

}  // namespace tovren_mapstead::engines::http
