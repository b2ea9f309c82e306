// The report of a size's default route: no hint is applied.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kevra::ops {

using RouteValue = std::variant<bool, int64_t, std::string, std::vector<int>>;
using RouteReport = std::vector<std::pair<std::string, RouteValue>>;  // in the order to show

// op: "stft", "mel", "istft", "fft" or "rfft". Throws std::invalid_argument for any other.
RouteReport route_explain(const std::string& op, int64_t n_fft, int prec, int device);

}  // namespace kevra::ops
