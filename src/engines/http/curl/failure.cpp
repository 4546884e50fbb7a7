#include "engines/http/curl/failure.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "tovren_mapstead/engines/http/transport.hpp"

namespace tovren_mapstead::engines::http {
namespace {

// What is not listed is final: repeating what is not understood helps nobody.
struct Meaning {
  CURLcode code;
  bool transient;
  std::string_view text;
  std::string_view advice;
};

constexpr std::string_view CHECK_SERVER = "check the URL and that the server runs";
constexpr std::string_view CHECK_URL = "check the URL";
constexpr std::string_view TRY_LATER = "try again later";

// Since 8.6; a head of more than 5,000 lines or 300 KB, or a line of more than 100 KB.
constexpr auto TOO_LARGE = static_cast<CURLcode>(100);

constexpr std::array<Meaning, 14> MEANINGS{{
    {CURLE_COULDNT_CONNECT, true, "cannot connect to", CHECK_SERVER},
    {CURLE_OPERATION_TIMEDOUT, true, "timed out connecting to", CHECK_SERVER},
    {CURLE_SEND_ERROR, true, "the connection broke while sending to", TRY_LATER},
    {CURLE_RECV_ERROR, true, "the connection broke while reading from", TRY_LATER},
    {CURLE_GOT_NOTHING, true, "empty reply from", CHECK_SERVER},
    {CURLE_PARTIAL_FILE, true, "the reply breaks off from", TRY_LATER},
    {CURLE_COULDNT_RESOLVE_HOST, true, "a SOCKS proxy needs the address of", CHECK_URL},
    {CURLE_PROXY, false, "the proxy does not connect to", "check the proxy variables"},
    {CURLE_PEER_FAILED_VERIFICATION, false, "cannot trust the TLS certificate of",
     "check the host name; SSL_CERT_FILE may name a file of the authorities to trust"},
    {CURLE_SSL_CONNECT_ERROR, false, "cannot agree on TLS with", "check that it speaks https"},
    {CURLE_URL_MALFORMAT, false, "malformed URL:", CHECK_URL},
    {TOO_LARGE, false, "the head of the reply is too large from", CHECK_URL},
    // What libcurl before 8.6 also says of a header line of more than 100 KB.
    {CURLE_OUT_OF_MEMORY, false, "out of memory, or a header line is too large, reading from",
     CHECK_URL},
    {CURLE_WEIRD_SERVER_REPLY, false, "no HTTP server answers at", CHECK_URL},
}};

// RFC 9110, section 15: what a proxy says with its status.
std::string_view in_words(int status) {
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

bool contains(std::string_view text, std::string_view piece) {
  return text.find(piece) != std::string_view::npos;
}

}  // namespace

void throw_failure(const Failure& failure, const Route& route) {
  const std::string& origin = route.origin;
  if (failure.proxy_status >= 300) {
    throw TransportError("the proxy refuses to connect to " + origin + ": HTTP " +
                             std::to_string(failure.proxy_status) + ", " +
                             std::string(in_words(failure.proxy_status)),
                         false, failure.proxy_status);
  }
  // The socket was there already: libcurl has asked for another, to send the request again.
  if (failure.code == CURLE_COULDNT_CONNECT && failure.sent) {
    throw TransportError("the connection broke before a reply of " + origin, true);
  }
  // libcurl has one code for a URL and for a reply that are not HTTP's.
  const bool strange = failure.code == CURLE_UNSUPPORTED_PROTOCOL && failure.sent;
  const CURLcode code = strange ? CURLE_WEIRD_SERVER_REPLY : failure.code;
  const std::string reason(failure.text.empty() ? curl_easy_strerror(code) : failure.text);
  const auto* const known = std::ranges::find(MEANINGS, code, &Meaning::code);
  const bool listed = known != MEANINGS.end();
  std::string text(listed ? known->text : "the exchange failed with");
  text.append(" ").append(origin).append(" (").append(reason).append(")");
  if (listed) text.append("; ").append(known->advice);
  // Without the peer's word on what is wrong, a handshake has not failed but broken off.
  const bool dropped =
      code == CURLE_SSL_CONNECT_ERROR &&
      (contains(reason, "Recv failure") || contains(reason, "Send failure") ||
       contains(reason, "SSL_ERROR_SYSCALL") || contains(reason, "unexpected eof"));
  const Secrets secrets = route.proxy ? route.proxy->secrets : Secrets();
  throw TransportError(redact(text, secrets), (listed && known->transient) || dropped);
}

}  // namespace tovren_mapstead::engines::http
