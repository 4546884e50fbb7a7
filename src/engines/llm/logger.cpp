#include "engines/llm/logger.hpp"

#include <memory>
#include <string>
#include <tuple>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

namespace tovren_mapstead::engines::llm {
namespace {

const std::string NAME = "tovren_mapstead.engines.llm";

// Not registered under its name, or a host that registers its own later would fail. The registry is
// made beforehand all the same, so that it outlives every call.
const auto FALLBACK = [] {
  std::ignore = spdlog::get(NAME);
  return std::make_shared<spdlog::logger>(NAME, std::make_shared<spdlog::sinks::stderr_sink_mt>());
}();

}  // namespace

void warn(std::string_view text) noexcept {
  try {
    const auto hosts = spdlog::get(NAME);
    (hosts ? hosts : FALLBACK)->warn("{}", text);
  } catch (...) {  // a call is worth more than a line about it
  }
}

}  // namespace tovren_mapstead::engines::llm
