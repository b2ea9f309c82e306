// Sizes of what a tuner lets operations write to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string>

namespace kevra::tune {

inline bool is_half(int prec) {
  return prec == 0 || prec == 3;
}

// Bytes of a real element.
inline int64_t element_bytes(int prec) {
  return prec == 2 ? 8 : is_half(prec) ? 2 : 4;
}

// The product of positive factors.
inline size_t bytes_of(const char* op, std::initializer_list<int64_t> factors) {
  int64_t product = 1;
  for (int64_t factor : factors) {
    if (factor != 0 && product > std::numeric_limits<int64_t>::max() / factor) {
      throw std::invalid_argument(std::string(op) +
                                  ": the result has more than 2^63 bytes; tune a smaller batch");
    }
    product *= factor;
  }
  return static_cast<size_t>(product);
}

}  // namespace kevra::tune
