// What one chat call asks, and what is left out of it when a provider rejects a feature.
#pragma once

#include <optional>
#include <string_view>

#include "tovren_mapstead/engines/llm/message.hpp"
#include "tovren_mapstead/openai.hpp"

namespace tovren_mapstead::engines::llm {

/// The features of a request that some providers reject.
struct Features {
  bool response_json = false;
  bool stream = false;
};

/// What one chat call asks, after its overrides. Borrows the caller's messages for the call.
struct Prompt {
  const Messages& messages;
  double temperature = 0;
  int max_tokens = 0;
  bool response_json = false;
};

/// Returns the arguments of a request to `model`. They borrow the messages of `prompt`.
[[nodiscard]] openai::CreateArguments arguments_of(const Prompt& prompt, const std::string& model,
                                                   const Features& features);

/// Removes the feature that a provider rejected, with this status and text, from `features` and
/// logs it. Returns false if the failure is no such rejection.
[[nodiscard]] bool drop_rejected(Features& features, std::optional<int> status,
                                 std::string_view text);

}  // namespace tovren_mapstead::engines::llm
