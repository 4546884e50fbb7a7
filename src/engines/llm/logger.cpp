#include "engines/llm/logger.hpp"

#include <memory>
#include <tuple>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "engines/http/process.hpp"

namespace tovren_mapstead::engines::llm {
namespace {

using Logger = std::shared_ptr<spdlog::logger>;

constexpr const char* NAME = "tovren_mapstead.engines.llm";

// spdlog's registry is made when the library is loaded, so that it outlives all calls.
[[maybe_unused]] const bool REGISTRY_MADE = [] {
  std::ignore = spdlog::get(NAME);
  return true;
}();

// It is not registered under its name: a host that registers its own later would fail.
constinit http::Once<Logger> fallback;

Logger make_fallback() {
  return std::make_shared<spdlog::logger>(NAME, std::make_shared<spdlog::sinks::stderr_sink_mt>());
}

}  // namespace

void warn(std::string_view text) noexcept {
  try {
    const http::ForkGuard guard;  // spdlog has locks, which a child must not find locked
    const Logger hosts = spdlog::get(NAME);
    (hosts ? hosts : fallback.get(make_fallback))->warn("{}", text);
  } catch (...) {  // a lost line in the log is better than a lost call
  }
}

}  // namespace tovren_mapstead::engines::llm
