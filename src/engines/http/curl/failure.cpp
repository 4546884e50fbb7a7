#include "engines/http/curl/failure.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace tovren_mapstead::engines::http {
namespace {

struct Meaning {
  CURLcode code;
  bool transient;
  std::string_view text;
  std::string_view advice;
};

constexpr std::string_view CHECK_SERVER = "check the URL and that the server runs";
constexpr std::string_view CHECK_URL = "check the URL";
constexpr std::string_view TRY_LATER = "try again later";

// Of libcurl 8.6 and later: more than 5,000 header lines, 300 KB of them, or 100 KB in one of them.
constexpr auto TOO_LARGE = static_cast<CURLcode>(100);

constexpr std::array<Meaning, 14> MEANINGS{{
    {CURLE_COULDNT_CONNECT, true, "cannot connect to", CHECK_SERVER},
    {CURLE_OPERATION_TIMEDOUT, true, "timed out connecting to", CHECK_SERVER},
    {CURLE_SEND_ERROR, true, "the connection broke while sending to", TRY_LATER},
    {CURLE_RECV_ERROR, true, "the connection broke while reading from", TRY_LATER},
    {CURLE_GOT_NOTHING, true, "empty reply from", CHECK_SERVER},
    {CURLE_PARTIAL_FILE, true, "the reply breaks off from", TRY_LATER},
    // Only for a SOCKS proxy that needs an address in place of the name.
    {CURLE_COULDNT_RESOLVE_HOST, true, "cannot resolve",
     "check the URL, or let the proxy resolve names (socks4a, socks5h)"},
    {CURLE_PROXY, false, "cannot connect through the proxy to", "check the proxy variables"},
    {CURLE_PEER_FAILED_VERIFICATION, false, "cannot trust the TLS certificate of",
     "check the host name, or set SSL_CERT_FILE to a file of trusted authorities"},
    {CURLE_SSL_CONNECT_ERROR, false, "cannot agree on TLS with", "check that it speaks https"},
    {CURLE_URL_MALFORMAT, false, "malformed URL:", CHECK_URL},
    {TOO_LARGE, false, "too large headers in the reply from", CHECK_URL},
    // libcurl before 8.6 reports a header line of more than 100 KB like this.
    {CURLE_OUT_OF_MEMORY, false, "out of memory or too large headers in the reply from", CHECK_URL},
    {CURLE_WEIRD_SERVER_REPLY, false, "no HTTP server answers at", CHECK_URL},
}};

// Not retried, because its cause is unknown.
constexpr Meaning UNKNOWN{CURLE_OK, false, "cannot finish the request to", CHECK_SERVER};

// RFC 9110, section 15.
std::string_view advice_for(int status) {
  switch (status) {
    case 403:
      return "it does not allow this connection";
    case 407:
      return "it wants a user name and password; put them into the proxy variable";
    case 502:
    case 503:
    case 504:
      return "it cannot reach the server; try again later";
    default:
      return "check the proxy variables";
  }
}

}  // namespace

void throw_failure(const Failure& failure, const Route& route) {
  const std::string& origin = route.origin;
  if (failure.proxy_status >= 300) {
    throw TransportError("the proxy refuses to connect to " + origin + ": HTTP " +
                             std::to_string(failure.proxy_status) + ", " +
                             std::string(advice_for(failure.proxy_status)),
                         false, failure.proxy_status);
  }
  // libcurl tried to reconnect and to send the request again, which Connection does not allow.
  if (failure.code == CURLE_COULDNT_CONNECT && failure.sent) {
    throw TransportError("the connection broke before a reply of " + origin + "; try again later",
                         true);
  }
  // libcurl uses this code for a URL as well.
  const bool strange = failure.code == CURLE_UNSUPPORTED_PROTOCOL && failure.sent;
  const CURLcode code = strange ? CURLE_WEIRD_SERVER_REPLY : failure.code;
  const std::string reason(failure.text.empty() ? curl_easy_strerror(code) : failure.text);
  const auto* const known = std::ranges::find(MEANINGS, code, &Meaning::code);
  const Meaning& meaning = known == MEANINGS.end() ? UNKNOWN : *known;
  std::string text(meaning.text);
  text.append(" ").append(origin).append(" (").append(reason).append("); ").append(meaning.advice);
  // A handshake that the peer broke off without an alert may succeed the next time.
  constexpr std::array BREAKS{"Recv failure", "Send failure", "SSL_ERROR_SYSCALL",
                              "unexpected eof"};
  const bool broken =
      code == CURLE_SSL_CONNECT_ERROR && std::ranges::any_of(BREAKS, [&](const char* piece) {
        return reason.find(piece) != std::string::npos;
      });
  const Secrets secrets = route.proxy ? route.proxy->secrets : Secrets();
  throw TransportError(redact(text, secrets), meaning.transient || broken);
}

}  // namespace tovren_mapstead::engines::http
