// Maps the errors of libcurl to TransportError: whether a retry may help, and what the user can do.
#pragma once

#include <string_view>

#include <curl/curl.h>

#include "engines/http/curl/connection.hpp"

namespace tovren_mapstead::engines::http {

/// A failed transfer.
struct Failure {
  CURLcode code;
  std::string_view text;  ///< Error text of libcurl; may be empty.
  bool sent;              ///< Whether the server may have received the request.
  int proxy_status;       ///< Status of a proxy's reply to CONNECT; 0 without one.
};

/// Throws the TransportError for `failure`. Redacts the credential of a proxy.
[[noreturn]] void throw_failure(const Failure& failure, const Route& route);

}  // namespace tovren_mapstead::engines::http
