// The one place where the engine knows the client library's errors by name.
#include "tovren_mapstead/engines/http/classify.hpp"

#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::http {

std::optional<int> status_of(const std::exception& error) {
  const auto* const known = dynamic_cast<const openai::OpenAIError*>(&error);
  return known == nullptr ? std::nullopt : known->status();
}

bool is_transient(const std::exception& error, const StatusSet& statuses) {
  // A timeout is a kind of connection error.
  if (dynamic_cast<const openai::APIConnectionError*>(&error) != nullptr) return true;
  const auto status = status_of(error);
  return status && statuses.contains(*status);
}

}  // namespace tovren_mapstead::engines::http
