// The chat-completions client: everything a caller needs.
#pragma once

#include "tovren_mapstead/engines/llm/client.hpp"  // IWYU pragma: export
#include "tovren_mapstead/engines/llm/config.hpp"  // IWYU pragma: export
#include "tovren_mapstead/engines/llm/errors.hpp"  // IWYU pragma: export
#include "tovren_mapstead/engines/llm/result.hpp"  // IWYU pragma: export
