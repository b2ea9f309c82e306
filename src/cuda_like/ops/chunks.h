// Rows of a grid: more than it has take several launches.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

inline constexpr int64_t kRowsOfALaunch = 65535;  // block index y is a 16-bit quantity

// Calls `launch(first, rows)` for all rows, as many at once as a launch takes.
template <class Launch>
void in_chunks(int64_t rows, const Launch& launch) {
  for (int64_t first = 0; first < rows; first += kRowsOfALaunch) {
    launch(first, std::min(rows - first, kRowsOfALaunch));
  }
}

// The address of an element, `size` bytes each.
inline char* at(devptr_t p, int64_t elements, size_t size) {
  return static_cast<char*>(p) + static_cast<size_t>(elements) * size;
}

}  // namespace kevra::ops
