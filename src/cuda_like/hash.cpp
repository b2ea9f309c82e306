#include "cuda_like/hash.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kevra {
namespace {

constexpr size_t kHeadWords = 512;
constexpr size_t kSamples = 512;

size_t sample_step(size_t words) {
  return std::max<size_t>(words / kSamples, 1);
}

}  // namespace

uint64_t content_hash(const void* data, size_t bytes) {
  uint64_t h = 0x14650fb0739d0383;
  const auto* p = static_cast<const unsigned char*>(data);
  for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * 0x100000001b3;
  return h;
}

uint64_t matrix_hash(const double* data, size_t rows, size_t cols) {
  const size_t n = rows * cols;
  const size_t bytes = n * sizeof(double);
  uint64_t h = content_hash(data, std::min(bytes, kHeadWords * sizeof(double)));
  if (n > kHeadWords) {
    for (size_t i = 0; i < n; i += sample_step(n)) h = combine(h, std::bit_cast<uint64_t>(data[i]));
  }
  return h ^ ((h << 6) + bytes + (h >> 2) + kHashMix);
}

uint64_t MatrixHashMemo::hash(const double* data, size_t rows, size_t cols) {
  if (rows == rows_ && cols == cols_ && is_known(data)) return hash_;
  hash_ = matrix_hash(data, rows, cols);
  rows_ = rows;
  cols_ = cols;
  const size_t n = rows * cols;
  head_.resize(std::min(n, kHeadWords));
  std::memcpy(head_.data(), data, head_.size() * sizeof(double));
  samples_.clear();
  if (n > kHeadWords) {
    for (size_t i = 0; i < n; i += sample_step(n)) {
      samples_.push_back(std::bit_cast<uint64_t>(data[i]));
    }
  }
  return hash_;
}

bool MatrixHashMemo::is_known(const double* data) const {
  if (std::memcmp(data, head_.data(), head_.size() * sizeof(double)) != 0) return false;
  const size_t step = sample_step(rows_ * cols_);
  uint64_t differing = 0;  // no branch, so that the loads overlap
  for (size_t i = 0; i < samples_.size(); ++i) {
    differing |= samples_[i] ^ std::bit_cast<uint64_t>(data[i * step]);
  }
  return differing == 0;
}

}  // namespace kevra
