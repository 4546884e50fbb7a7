#include "loopback/server.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <system_error>
#include <tuple>
#include <utility>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace loopback {
namespace {

sockaddr_in address_of(std::uint32_t host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(host);
  address.sin_port = htons(port);
  return address;
}

// A socket that is bound to an address of this machine, and listens unless `backlog` is negative.
// `port` 0 takes a free one and is set to it.
int bound_socket(int backlog, std::uint16_t& port, std::uint32_t host = INADDR_LOOPBACK) {
  const int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = address_of(host, port);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bound < 0 || bind(bound, generic, size) != 0 || getsockname(bound, generic, &size) != 0 ||
      (backlog >= 0 && listen(bound, backlog) != 0)) {
    throw std::system_error(errno, std::generic_category(), "cannot listen on loopback");
  }
  port = ntohs(address.sin_port);
  return bound;
}

std::string local_address(std::uint16_t port) {
  return "127.0.0.1:" + std::to_string(port);
}

std::string pem_of(X509* certificate) {
  const std::unique_ptr<BIO, decltype([](BIO* bio) { BIO_free(bio); })> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), certificate);
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

}  // namespace

std::string chunk(std::string_view bytes) {
  std::ostringstream text;
  text << std::hex << bytes.size() << "\r\n" << bytes << "\r\n";
  return text.str();
}

Exchange::Exchange(int socket, SSL_CTX* context, const std::atomic<bool>& stopping)
    : _socket(socket), _stopping(stopping) {
  const timeval moment{.tv_sec = 0, .tv_usec = 20'000};  // then `stopping` is looked at
  setsockopt(_socket, SOL_SOCKET, SO_RCVTIMEO, &moment, sizeof moment);
  setsockopt(_socket, SOL_SOCKET, SO_SNDTIMEO, &moment, sizeof moment);
  const int on = 1;
  setsockopt(_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (context == nullptr) return;
  _ssl.reset(SSL_new(context), SSL_free);
  SSL_set_fd(_ssl.get(), _socket);
  SSL_set_accept_state(_ssl.get());
}

Exchange::~Exchange() {
  close();
}

// Repeats `act`, which returns what a system call or OpenSSL's counterpart returns, until it has
// moved something. Returns 0 or less when the peer has gone or the server stops.
template <class Act>
long Exchange::attempt(Act act) {
  while (!_closed && !_stopping) {
    const long result = act();
    if (result > 0) return result;
    if (_ssl) {
      const int error = SSL_get_error(_ssl.get(), static_cast<int>(result));
      if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return 0;
    } else if (result == 0 || (errno != EAGAIN && errno != EINTR)) {
      return 0;
    }
  }
  return 0;
}

bool Exchange::handshake() {
  return !_ssl || attempt([&] { return SSL_do_handshake(_ssl.get()); }) > 0;
}

bool Exchange::read_some() {
  std::array<char, 16384> bytes{};
  const long count = attempt([&]() -> long {
    if (_ssl) return SSL_read(_ssl.get(), bytes.data(), static_cast<int>(bytes.size()));
    return recv(_socket, bytes.data(), bytes.size(), 0);
  });
  if (count > 0) _buffer.append(bytes.data(), static_cast<std::size_t>(count));
  return count > 0;
}

bool Exchange::send(std::string_view bytes) {
  constexpr std::size_t MOST = std::size_t{1} << 20U;
  while (!bytes.empty()) {
    const std::string_view some = bytes.substr(0, MOST);
    const long count = attempt([&]() -> long {
      if (_ssl) return SSL_write(_ssl.get(), some.data(), static_cast<int>(some.size()));
      return ::send(_socket, some.data(), some.size(), MSG_NOSIGNAL);
    });
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return !_closed;
}

// Reads the next request; returns false when the peer has gone or speaks no HTTP.
bool Exchange::next_request() {
  std::size_t end = 0;
  while ((end = _buffer.find("\r\n\r\n")) == std::string::npos) {
    if (!read_some()) return false;
    if (std::isalpha(static_cast<unsigned char>(_buffer.front())) == 0) {  // TLS, most likely
      send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
      return false;
    }
  }
  _request = {};
  std::istringstream head(_buffer.substr(0, end));
  head >> _request.method >> _request.target;
  std::string line;
  for (std::getline(head, line, '\r'); std::getline(head, line, '\r');) {
    const std::size_t colon = line.find(':');
    std::string name = line.substr(1, colon - 1);  // after the line feed
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    _request.headers[name] =
        line.substr(std::min(line.find_first_not_of(" :", colon), line.size()));
  }
  _buffer.erase(0, end + 4);
  const std::size_t length = std::strtoull(_request.headers["content-length"].c_str(), nullptr, 10);
  while (_buffer.size() < length) {
    if (!read_some()) return false;
  }
  _request.body = _buffer.substr(0, length);
  _buffer.erase(0, length);
  return true;
}

void Exchange::reply(int status, std::string_view body, std::string_view type,
                     std::string_view headers) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  text.append("Content-Type: ").append(type).append("\r\nContent-Length: ");
  text.append(std::to_string(body.size())).append("\r\n").append(headers);
  send(text.append("\r\n").append(body));
}

void Exchange::start_stream() {
  send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Type: text/event-stream\r\n\r\n");
}

void Exchange::stall() {
  while (read_some()) {
  }
  close();
}

void Exchange::pause(std::chrono::milliseconds period) {
  const auto end = std::chrono::steady_clock::now() + period;
  while (!_stopping && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::min(period, std::chrono::milliseconds(5)));
  }
}

void Exchange::close() {
  if (!_closed) close_notify();
  cut();
}

void Exchange::cut() {
  if (!std::exchange(_closed, true)) ::close(_socket);  // once: the number may be another's by now
}

void Exchange::reset() {
  const linger at_once{.l_onoff = 1, .l_linger = 0};
  if (!_closed) setsockopt(_socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  cut();
}

void Exchange::close_notify() {
  if (_ssl) SSL_shutdown(_ssl.get());
}

void Exchange::ticket() {
  if (!_ssl) return;
  SSL_new_session_ticket(_ssl.get());  // goes out with the next handshake step
  SSL_do_handshake(_ssl.get());
}

// A certificate made on the spot, which is its own authority.
struct Server::Tls {
  Tls() {
    constexpr long HOUR_S = 3600;
    const std::unique_ptr<EVP_PKEY, decltype([](EVP_PKEY* key) { EVP_PKEY_free(key); })> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::unique_ptr<X509, decltype([](X509* x509) { X509_free(x509); })> x509(X509_new());
    X509_set_version(x509.get(), X509_VERSION_3);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), -2 * HOUR_S);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), HOUR_S);
    X509_set_pubkey(x509.get(), key.get());
    X509_NAME* const name = X509_get_subject_name(x509.get());  // libcurl wants one
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("x"), -1, -1, 0);
    X509_set_issuer_name(x509.get(), name);
    X509_EXTENSION* const hosts =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
    X509_add_ext(x509.get(), hosts, -1);
    X509_EXTENSION_free(hosts);
    X509_sign(x509.get(), key.get(), EVP_sha256());
    SSL_CTX_use_certificate(context.get(), x509.get());
    SSL_CTX_use_PrivateKey(context.get(), key.get());
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE);
    certificate = pem_of(x509.get());
  }

  std::unique_ptr<SSL_CTX, decltype([](SSL_CTX* ctx) { SSL_CTX_free(ctx); })> context{
      SSL_CTX_new(TLS_server_method())};
  std::string certificate;
};

Server::Server(Handler handler, Options options)
    : _handler(std::move(handler)), _greeting(std::move(options.greeting)) {
  if (options.tls) {
    _tls = std::make_unique<Tls>();
    _certificate = _tls->certificate;
  }
  _listener = bound_socket(SOMAXCONN, _port);
  _acceptor = std::thread([this] { accept_all(); });
}

Server::~Server() {
  _stopping = true;
  _acceptor.join();
  _peers.clear();  // waits for their threads
  close(_listener);
}

std::string Server::url() const {
  return _tls ? "https://localhost:" + std::to_string(_port) : "http://" + local_address(_port);
}

void Server::accept_all() {
  pollfd entry{.fd = _listener, .events = POLLIN, .revents = 0};
  while (!_stopping) {
    if (poll(&entry, 1, 20) <= 0) continue;
    const int socket = accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    ++_connections;
    std::erase_if(_peers, [](const Peer& peer) { return peer.gone.load(); });
    Peer& peer = _peers.emplace_back();
    peer.thread = std::jthread([this, socket, &peer] {
      serve(socket);
      peer.gone = true;
    });
  }
}

void Server::serve(int socket) {
  // SSL_write has no MSG_NOSIGNAL.
  sigset_t sigpipe;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
  Exchange exchange(socket, _tls ? _tls->context.get() : nullptr, _stopping);
  if (!exchange.handshake()) return;
  if (_greeting) _greeting(exchange);
  while (exchange.next_request()) {
    ++_requests;
    _handler(exchange);
  }
}

BlackHole::BlackHole(std::uint32_t host, std::uint16_t port) : _port(port) {
  _sockets.push_back(bound_socket(0, _port, host));
  // With its queue full, the kernel drops what else wants to connect.
  for (int i = 0; i < 8; ++i) {
    _sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_in address = address_of(host, _port);
    std::ignore =
        connect(_sockets.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
}

BlackHole::~BlackHole() {
  for (const int socket : _sockets) close(socket);
}

std::string BlackHole::address() const {
  return local_address(_port);
}

std::string refused_url() {
  // Bound without listening, and for good: nobody else can take the port and answer.
  static const std::uint16_t port = [] {
    std::uint16_t bound = 0;
    bound_socket(-1, bound);
    return bound;
  }();
  return "http://" + local_address(port);
}

}  // namespace loopback
