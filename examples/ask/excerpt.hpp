// Cuts a text down to its most telling lines.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace ask {

/// Returns how much a line says about the question; 0 for nothing.
using LineWeight = std::function<double(std::string_view line)>;

/// Returns `text`, or, if it has more than `most` bytes, whole lines around those with the largest
/// weights, each run below a line such as "[lines 20-41 of 323]". The result is empty if nothing
/// fits.
std::string excerpt(std::string_view text, std::size_t most, const LineWeight& weight);

}  // namespace ask
