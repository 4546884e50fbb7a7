#include "loopback/server.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <tuple>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "loopback/wire.hpp"

namespace loopback {
namespace {

// `port` 0 takes a free one; it is set to the one taken.
int open_listener(int backlog, std::uint16_t& port, std::uint32_t host = INADDR_LOOPBACK) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(host);
  address.sin_port = htons(port);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (listener < 0 || bind(listener, generic, size) != 0 || listen(listener, backlog) != 0 ||
      getsockname(listener, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot listen on loopback");
  }
  port = ntohs(address.sin_port);
  return listener;
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

// A certificate made on the spot, for this machine unless it shall be another's.
struct Server::Tls {
  explicit Tls(Certificate kind) {
    constexpr long HOUR_S = 3600;
    const std::unique_ptr<EVP_PKEY, decltype([](EVP_PKEY* key) { EVP_PKEY_free(key); })> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::unique_ptr<X509, decltype([](X509* x509) { X509_free(x509); })> x509(X509_new());
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_set_version(x509.get(), X509_VERSION_3);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), -2 * HOUR_S);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()),
                    kind == Certificate::expired ? -HOUR_S : HOUR_S);
    X509_set_pubkey(x509.get(), key.get());
    X509_NAME* const name = X509_get_subject_name(x509.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(x509.get(), name);
    const char* const names =
        kind == Certificate::of_another_host ? "DNS:another.example" : "DNS:localhost,IP:127.0.0.1";
    X509_EXTENSION* const hosts =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names);
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

bool Exchange::send(std::string_view bytes) {
  return _wire.send(bytes);
}

void Exchange::reply(int status, std::string_view body, std::string_view type,
                     std::string_view headers) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  text.append("Content-Type: ").append(type).append("\r\nContent-Length: ");
  text.append(std::to_string(body.size())).append("\r\n").append(headers);
  text.append("\r\n").append(body);
  send(text);
}

void Exchange::start_stream(std::string_view type) {
  send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Type: " + std::string(type) +
       "\r\n\r\n");
}

bool Exchange::chunk(std::string_view bytes) {
  std::array<char, 24> size{};
  const int digits = std::snprintf(size.data(), size.size(), "%zx\r\n", bytes.size());
  std::string framed(size.data(), static_cast<std::size_t>(digits));
  return send(framed.append(bytes).append("\r\n"));
}

void Exchange::end_stream() {
  send("0\r\n\r\n");
}

void Exchange::stall() {
  _wire.stall();
}

void Exchange::pause(std::chrono::milliseconds period) {
  const auto end = std::chrono::steady_clock::now() + period;
  while (!_wire.stopping() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::min(period, std::chrono::milliseconds(5)));
  }
}

void Exchange::close() {
  _wire.close();
}

void Exchange::cut() {
  _wire.close(Farewell::fin);
}

void Exchange::reset() {
  _wire.close(Farewell::rst);
}

void Exchange::close_notify() {
  _wire.close_notify();
}

void Exchange::ticket() {
  _wire.ticket();
}

Server::Server(Handler handler, Options options)
    : _handler(std::move(handler)), _greeting(std::move(options.greeting)) {
  if (options.tls) {
    _tls = std::make_unique<Tls>(options.certificate);
    _certificate = _tls->certificate;
  }
  _listener = open_listener(128, _port);
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
  // TLS writes ask for no shield; on this thread the signal may wait for ever.
  sigset_t sigpipe;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
  Wire wire(socket, _tls ? _tls->context.get() : nullptr, _stopping);
  if (!wire.greet()) return;
  if (_greeting) {
    Exchange exchange(wire, {});
    _greeting(exchange);
    if (wire.closed()) return;
  }
  while (auto request = wire.next_request()) {
    ++_requests;
    Exchange exchange(wire, std::move(*request));
    _handler(exchange);
    if (wire.closed()) return;
  }
}

BlackHole::BlackHole(bool connects, std::uint32_t host, std::uint16_t port) : _port(port) {
  _listener = open_listener(connects ? 64 : 0, _port, host);
  if (connects) return;
  // With its queue full, the kernel drops what else wants to connect.
  for (int i = 0; i < 8; ++i) {
    const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (filler < 0) throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(_port);
    std::ignore = connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof address);
    _fillers.push_back(filler);
  }
}

BlackHole::~BlackHole() {
  for (const int filler : _fillers) close(filler);
  close(_listener);
}

std::string BlackHole::address() const {
  return local_address(_port);
}

std::string refused_url() {
  std::uint16_t port = 0;
  close(open_listener(1, port));
  return "http://" + local_address(port);
}

}  // namespace loopback
