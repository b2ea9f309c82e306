#include "cuda_like/hash.h"

#include <algorithm>
#include <bit>

namespace kevra {

uint64_t content_hash(const void* data, size_t bytes) {
  uint64_t h = 0x14650fb0739d0383;
  const auto* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * 0x100000001b3;
  return h;
}

uint64_t matrix_hash(const double* data, size_t rows, size_t cols) {
  constexpr size_t kHead = 4096;
  constexpr size_t kSamples = 512;
  const size_t n = rows * cols;
  const size_t bytes = n * sizeof(double);
  uint64_t h = content_hash(data, std::min(bytes, kHead));
  if (bytes > kHead) {
    const size_t step = n < kSamples ? 1 : n / kSamples;
    for (size_t i = 0; i < n; i += step) h = combine(h, std::bit_cast<uint64_t>(data[i]));
  }
  return h ^ ((h << 6) + bytes + (h >> 2) + kHashMix);
}

}  // namespace kevra
