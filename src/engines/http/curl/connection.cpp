#include "engines/http/curl/connection.hpp"

#include <array>
#include <atomic>
#include <new>
#include <string_view>
#include <tuple>
#include <utility>

#include <openssl/err.h>

#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::http {
namespace {

[[noreturn]] void fail(const char* reason) {
  throw TransportError(
      std::string("cannot set up libcurl (") + reason + "); check its installation", false);
}

void start_libcurl() {
  static std::atomic<bool> started = false;
  if (started) return;
  require(curl_global_init(CURL_GLOBAL_DEFAULT));  // safe from any thread since 7.84
  const std::string_view tls = curl_version_info(CURLVERSION_NOW)->ssl_version;
  if (!tls.starts_with("OpenSSL/")) fail("it is built without OpenSSL");
  started = true;
}

CURLM* make_multi() {
  const ForkGuard guard;
  start_libcurl();
  CURLM* const multi = curl_multi_init();
  if (multi == nullptr) throw std::bad_alloc();
  return multi;
}

CURL* make_easy() {
  const ForkGuard guard;
  CURL* const easy = curl_easy_init();
  if (easy == nullptr) throw std::bad_alloc();
  return easy;
}

}  // namespace

void require(CURLcode code) {
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) fail(curl_easy_strerror(code));
}

void require(CURLMcode code) {
  if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLM_OK) fail(curl_multi_strerror(code));
}

// Called from C code, which no exception may cross.
struct Connection::Callbacks {
  // Fails from the second call on. libcurl calls again to reconnect if it finds the socket closed,
  // even after it has sent the request. Only the retry loop may repeat a request.
  static curl_socket_t open_socket(Connection* self, curlsocktype, curl_sockaddr*) {
    return self->_socket.release();
  }

  static int connected(void*, curl_socket_t, curlsocktype) {
    return CURL_SOCKOPT_ALREADY_CONNECTED;
  }

  static CURLcode trust(CURL*, void* tls, Connection* self) {
    try {
      auto* const context = static_cast<SSL_CTX*>(tls);
      SSL_CTX_set1_cert_store(context, self->_trust->store().get());
#ifdef SSL_OP_IGNORE_UNEXPECTED_EOF
      // A body that ends with the connection is complete only after close_notify (RFC 9112, section
      // 9.8).
      SSL_CTX_clear_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
#endif
      return CURLE_OK;
    } catch (...) {
      self->_thrown = std::current_exception();
      return CURLE_ABORTED_BY_CALLBACK;
    }
  }
};

Connection::Connection(Route route, TcpConnection tcp, std::shared_ptr<Trust> trust)
    : _route(std::move(route)),
      _trust(std::move(trust)),
      _socket(std::move(tcp.socket)),
      _descriptor(_socket.get()),
      _multi(make_multi()),
      _easy(make_easy()) {
  const ForkGuard guard;
  // Each pair of handles has one connection.
  require(curl_multi_setopt(_multi.get(), CURLMOPT_MAXCONNECTS, 1L));
  // Signals are not safe with threads. SIGPIPE is not raised: libcurl sends with MSG_NOSIGNAL, for
  // TLS as well.
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  // HTTP/2 gains nothing with one request at a time, and libcurl 7.88 may wait forever for an
  // HTTP/2 reply that has already arrived.
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_FOLLOWLOCATION, 0L);
  set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  // Otherwise libcurl reads the certificate authorities for every connection; see Callbacks::trust.
  set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
  set(CURLOPT_ERRORBUFFER, _error.data());
  set(CURLOPT_SSL_CTX_FUNCTION, &Callbacks::trust);
  set(CURLOPT_SSL_CTX_DATA, this);
  set(CURLOPT_OPENSOCKETFUNCTION, &Callbacks::open_socket);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_SOCKOPTFUNCTION, &Callbacks::connected);
  // Empty strings keep libcurl from reading the proxy variables of the environment.
  set(CURLOPT_PROXY, _route.proxy ? _route.proxy->url.c_str() : "");
  set(CURLOPT_NOPROXY, "");
  const std::string at = _route.service.host + ":" + std::to_string(_route.service.port) + ":";
  _address.reset(curl_slist_append(nullptr, (at + tcp.address).c_str()));
  if (!_address) throw std::bad_alloc();
  set(CURLOPT_RESOLVE, _address.get());
}

void Connection::Close::operator()(CURLM* multi) const noexcept {
  const ForkGuard guard;
  curl_multi_cleanup(multi);
}

void Connection::Clean::operator()(CURL* easy) const noexcept {
  const ForkGuard guard;
  curl_easy_cleanup(easy);
}

bool Connection::is_idle() noexcept {
  const ForkGuard guard;
  try {
    return _tls == nullptr ? is_silent(_descriptor) : is_tls_idle();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// libcurl peeks at the socket only, which does not tell a session ticket from a close_notify.
// OpenSSL can tell them apart, but libcurl's BIOs work during a transfer only.
bool Connection::is_tls_idle() {
  std::unique_ptr<BIO, Free> in(BIO_new_socket(_descriptor, BIO_NOCLOSE));
  std::unique_ptr<BIO, Free> out(BIO_new(BIO_s_mem()));  // for what OpenSSL would answer
  if (!in || !out) throw std::bad_alloc();
  BIO* const answer = out.get();
  BIO_up_ref(answer);
  const std::unique_ptr<BIO, Free> kept(answer);
  BIO* const libcurl_in = SSL_get_rbio(_tls);
  BIO* const libcurl_out = SSL_get_wbio(_tls);
  BIO_up_ref(libcurl_in);
  BIO_up_ref(libcurl_out);
  SSL_set0_rbio(_tls, in.release());
  SSL_set0_wbio(_tls, out.release());
  // libcurl's callback stores the session of a ticket, but works during a transfer only.
  SSL_CTX* const context = SSL_get_SSL_CTX(_tls);
  const auto keep_session = SSL_CTX_sess_get_new_cb(context);
  SSL_CTX_sess_set_new_cb(context, nullptr);
  ERR_clear_error();
  char byte = 0;
  const int result = SSL_peek(_tls, &byte, 1);
  const bool silent = result <= 0 && SSL_get_error(_tls, result) == SSL_ERROR_WANT_READ &&
                      SSL_has_pending(_tls) == 0 && BIO_pending(answer) == 0;
  ERR_clear_error();  // libcurl reads this queue, which belongs to the thread
  SSL_CTX_sess_set_new_cb(context, keep_session);
  SSL_set0_rbio(_tls, libcurl_in);
  SSL_set0_wbio(_tls, libcurl_out);
  return silent;
}

// Most calls have the same URL as the call before. libcurl would parse and write it anew each time,
// for a tenth of what a small call costs.
void Connection::set_url(const std::string& wanted) {
  if (_parsed_url && wanted == _url) return;
  Url parsed = parse_url_to(_route.origin, wanted);
  set(CURLOPT_CURLU, parsed.get());
  _parsed_url = std::move(parsed);
  _url = wanted;
}

// Most calls have the same headers as the call before.
void Connection::set_headers(Headers wanted) {
  if (_lines && wanted == _headers) return;
  List list;
  const auto add = [&](const std::string& line) {
    curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    std::ignore = list.release();
    list.reset(longer);
  };
  for (const auto& [name, value] : wanted) {
    std::string line = name;
    add(value.empty() ? line.append(";") : line.append(": ").append(value));  // ";": an empty value
  }
  add("Expect:");  // a wait for 100 Continue costs a round trip, or 1 s without a reply
  set(CURLOPT_HTTPHEADER, list.get());
  _lines = std::move(list);
  _headers = std::move(wanted);
}

}  // namespace tovren_mapstead::engines::http
