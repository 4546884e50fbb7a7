// Builds the client from the command line.
#pragma once

#include <memory>

#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/engines/llm.hpp"

#include "ask/demo.hpp"
#include "ask/options.hpp"

namespace ask {

constexpr const char* COPILOT = "copilot";

/// Returns a client for the endpoint of `options`, or for `demo` if that is not null, whose
/// requests go through `transport`. Throws std::invalid_argument for a base URL that is none.
tovren_mapstead::engines::llm::LLMClient build_client(
    const Options& options, const Demo* demo,
    std::shared_ptr<tovren_mapstead::engines::http::Transport> transport);

/// Returns how the client reaches its endpoint, for a user.
const char* transport_name(const Options& options);

}  // namespace ask
