// What the ways in which libcurl fails mean to a caller: whether another attempt may fare better,
// and what the user can do.
#pragma once

#include <string_view>

#include <curl/curl.h>

#include "engines/http/curl/connection.hpp"

namespace tovren_mapstead::engines::http {

/// A transfer that libcurl could not finish.
struct Failure {
  CURLcode code;
  std::string_view text;  ///< libcurl's own; empty: none.
  bool sent;              ///< The server may have got the request.
  int proxy_status;       ///< Of a proxy's reply to CONNECT; 0: none came.
};

/// Throws the TransportError of `failure`, without the credential of a proxy.
[[noreturn]] void throw_failure(const Failure& failure, const Route& route);

}  // namespace tovren_mapstead::engines::http
