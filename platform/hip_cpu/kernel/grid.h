// Numbers and indices of blocks and threads: x runs fastest.
#pragma once

#include <cstdint>
#include <string>

#include "kernel/launch.h"

namespace kevra_cpu {

inline uint64_t count_of(const Dim3& size) {
  return uint64_t(size.x) * size.y * size.z;
}

inline Dim3 index_of(uint64_t number, const Dim3& size) {
  return {uint32_t(number % size.x), uint32_t(number / size.x % size.y),
          uint32_t(number / size.x / size.y)};
}

inline uint64_t number_of(const Dim3& index, const Dim3& size) {
  return (uint64_t(index.z) * size.y + index.y) * size.x + index.x;
}

inline std::string as_text(const Dim3& d) {
  return "(" + std::to_string(d.x) + "," + std::to_string(d.y) + "," + std::to_string(d.z) + ")";
}

}  // namespace kevra_cpu
