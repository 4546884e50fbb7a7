// The chat-completions client: all that a caller needs.
#pragma once

#include "tovren_mapstead/engines/llm/client.hpp"   // IWYU pragma: export
#include "tovren_mapstead/engines/llm/config.hpp"   // IWYU pragma: export
#include "tovren_mapstead/engines/llm/errors.hpp"   // IWYU pragma: export
#include "tovren_mapstead/engines/llm/message.hpp"  // IWYU pragma: export
#include "tovren_mapstead/engines/llm/result.hpp"   // IWYU pragma: export
