// Carries requests for other hosts to a server on loopback.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tovren_mapstead/engines/http/edit.hpp"

namespace loopback {

/// Returns a transport that sends every request to `to`, which is scheme, host and port, with its
/// path. `note` is called with the origin that a request was meant for.
[[nodiscard]] inline std::shared_ptr<tovren_mapstead::engines::http::Transport> detour(
    std::string to,
    std::shared_ptr<tovren_mapstead::engines::http::Transport> over =
        tovren_mapstead::engines::http::make_transport(),
    std::function<void(const std::string&)> note = {}) {
  const auto edit = [to = std::move(to), note = std::move(note)](auto& request) {
    const std::size_t path = request.url.find('/', request.url.find("://") + 3);
    if (note) note(request.url.substr(0, path));
    request.url.replace(0, path, to);
  };
  return tovren_mapstead::engines::http::edit_requests(edit, std::move(over));
}

}  // namespace loopback
