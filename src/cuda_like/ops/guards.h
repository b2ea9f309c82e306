// Checks that operations share. Each throws std::invalid_argument before anything is queued; the
// text names the operation, the value received and the bound.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

namespace kevra::ops {

inline void require_at_least(const char* op, const char* what, int64_t value, int64_t least) {
  if (value < least) {
    throw std::invalid_argument(std::string(op) + ": " + what + " is " + std::to_string(value) +
                                ", must be at least " + std::to_string(least));
  }
}

inline void require_at_most(const char* op, const char* what, int64_t value, int64_t most) {
  if (value > most) {
    throw std::invalid_argument(std::string(op) + ": " + what + " is " + std::to_string(value) +
                                ", must be at most " + std::to_string(most));
  }
}

// Rows of n elements each, queued as many at once as a launch takes. No device's memory holds more:
// they would be queued for years.
inline void require_rows(const char* op, const char* what, int64_t rows, int64_t n) {
  constexpr int64_t kMostElements = int64_t{1} << 40;
  require_at_most(op, what, rows, kMostElements / std::max<int64_t>(n, 1));
}

// A kernel takes the value as a 32-bit int.
inline int require_int32(const char* op, const char* what, int64_t value, int64_t least) {
  require_at_least(op, what, value, least);
  require_at_most(op, what, value, std::numeric_limits<int>::max());
  return static_cast<int>(value);
}

}  // namespace kevra::ops
