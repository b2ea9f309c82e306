// The 64-bit hashes that name cached objects, tables and plans.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace kevra {

// FNV-1a with a start value of our own.
uint64_t content_hash(const void* data, size_t bytes);
inline uint64_t content_hash(std::string_view text) {
  return content_hash(text.data(), text.size());
}

// Of a row-major matrix that may be large: its first 4096 bytes and some 512 samples of the rest.
uint64_t matrix_hash(const double* data, size_t rows, size_t cols);

// matrix_hash for a caller that comes again and again with one matrix. Each byte of the hash waits
// for the one before, microseconds in all; comparing what the hash reads with what it read last
// time takes a tenth of that.
class MatrixHashMemo {
 public:
  uint64_t hash(const double* data, size_t rows, size_t cols);

 private:
  bool is_known(const double* data) const;

  size_t rows_ = 0;
  size_t cols_ = 0;
  std::vector<uint64_t> head_;
  std::vector<uint64_t> samples_;
  uint64_t hash_ = 0;
};

// Mixes one more value into a key. The constant is 2^64 over the golden ratio.
constexpr uint64_t kHashMix = 0x9e3779b97f4a7c15;
constexpr uint64_t combine(uint64_t h, uint64_t v) {
  return h ^ (v + kHashMix + (h << 6) + (h >> 2));
}

// One key of several values, for whatever is looked up by the key alone. A chain of combine() does
// not do: small values cancel out, and one window of 320 samples had the key of another of 256.
inline uint64_t key_of(std::initializer_list<uint64_t> values) {
  return content_hash(values.begin(), values.size() * sizeof(uint64_t));
}

}  // namespace kevra
