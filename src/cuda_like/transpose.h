// Host arrays turned round on their way to the device.
#pragma once

#include <algorithm>
#include <cstdint>

namespace kevra {

// (items, rows, columns) to (items, columns, rows), by squares that stay in the nearest cache.
template <class T>
void transpose(const T* from, T* to, int64_t items, int64_t rows, int64_t columns) {
  constexpr int64_t kSquare = 32;
  for (int64_t item = 0; item < items; ++item, from += rows * columns, to += rows * columns) {
    for (int64_t r0 = 0; r0 < rows; r0 += kSquare) {
      for (int64_t c0 = 0; c0 < columns; c0 += kSquare) {
        const int64_t r1 = std::min(r0 + kSquare, rows);
        const int64_t c1 = std::min(c0 + kSquare, columns);
        for (int64_t c = c0; c < c1; ++c) {
          for (int64_t r = r0; r < r1; ++r) to[c * rows + r] = from[r * columns + c];
        }
      }
    }
  }
}

}  // namespace kevra
