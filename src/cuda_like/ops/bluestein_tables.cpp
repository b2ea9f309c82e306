#include "cuda_like/ops/bluestein_tables.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <optional>

#include "cuda_like/hash.h"
#include "cuda_like/tables.h"
#include "host_fft/host_fft.h"
#include "host_fft/parallel_for.h"

namespace kevra::ops {
namespace {

constexpr uint64_t kChirpSeed = 51;
constexpr uint64_t kFilterSeed = 52;

// Rounded once from extended precision: the transform multiplies by the chirp twice and by its
// spectrum once, so that roundings of the angle would count threefold.
template <class T>
std::vector<std::complex<T>> chirp_of(int n, bool inverse) {
  constexpr int kChunk = 4096;  // some half a millisecond
  std::vector<std::complex<T>> chirp(n);
  const long double step = (inverse ? 1 : -1) * std::numbers::pi_v<long double> / n;
  const T mirrored_sign = n % 2 == 0 ? 1 : -1;  // (n - k)^2 is k^2 + n^2 modulo 2 n
  const int count = n / 2 + 1;
  host_fft::parallel_for((count - 1) / kChunk + 1, [&](int chunk) {
    const int64_t end = std::min<int64_t>((chunk + int64_t{1}) * kChunk, count);
    for (int64_t k = int64_t{chunk} * kChunk; k < end; ++k) {
      // Reduced to one turn as an integer; in floating point the square would eat the angle.
      const long double angle = step * static_cast<long double>(k * k % (2 * int64_t{n}));
      chirp[k] = {static_cast<T>(std::cos(angle)), static_cast<T>(std::sin(angle))};
      if (k != 0) chirp[n - k] = mirrored_sign * chirp[k];
    }
  });
  return chirp;
}

uint64_t table_key(uint64_t seed, int n, int m, bool inverse, size_t scalar_bytes, int side) {
  return key_of(
      {seed, uint64_t(n), uint64_t(m), uint64_t(inverse), uint64_t(scalar_bytes), uint64_t(side)});
}

// Value k1 n2 + k2 at k2 n1 + k1.
template <class T>
std::vector<T> transposed(const std::vector<T>& values, int n1, int n2) {
  std::vector<T> result(values.size());
  for (int k2 = 0; k2 < n2; ++k2) {
    for (int k1 = 0; k1 < n1; ++k1) {
      result[int64_t{k2} * n1 + k1] = values[int64_t{k1} * n2 + k2];
    }
  }
  return result;
}

template <class T>
devptr_t upload(const char* name, const std::vector<std::complex<T>>& table) {
  return device_table(name, table.data(), table.size() * sizeof table[0]);
}

}  // namespace

template <class T>
BluesteinArrays<T> bluestein_arrays(int n, int m, bool inverse) {
  BluesteinArrays<T> arrays{chirp_of<T>(n, inverse), std::vector<std::complex<T>>(m)};
  std::vector<std::complex<T>> mirrored(m);
  mirrored[0] = std::conj(arrays.chirp[0]);
  for (int k = 1; k < n; ++k) mirrored[k] = mirrored[m - k] = std::conj(arrays.chirp[k]);
  host_fft::host_fft(reinterpret_cast<const T*>(mirrored.data()),
                     reinterpret_cast<T*>(arrays.filter.data()), m);
  return arrays;
}

template <class T>
BluesteinTables bluestein_tables(int n, int m, bool inverse, std::pair<int, int> sides) {
  std::optional<BluesteinArrays<T>> arrays;  // made on the first miss, for both
  const auto made = [&]() -> const BluesteinArrays<T>& {
    if (!arrays) arrays = bluestein_arrays<T>(n, m, inverse);
    return *arrays;
  };
  const auto [n1, n2] = sides;
  char name[80];
  BluesteinTables tables;
  tables.chirp = device_table_built(table_key(kChirpSeed, n, m, inverse, sizeof(T), 0), [&] {
    std::snprintf(name, sizeof name, "blueb_%d_%d_%zu", n, inverse ? 1 : 0, sizeof(T));
    return upload(name, made().chirp);
  });
  tables.filter = device_table_built(table_key(kFilterSeed, n, m, inverse, sizeof(T), n1), [&] {
    const int length =
        std::snprintf(name, sizeof name, "bluef_%d_%d_%d_%zu", n, m, inverse ? 1 : 0, sizeof(T));
    if (n1 == 0) return upload(name, made().filter);
    std::snprintf(name + length, sizeof name - length, "_%d", n1);
    return upload(name, transposed(made().filter, n1, n2));
  });
  return tables;
}

template BluesteinArrays<float> bluestein_arrays(int, int, bool);
template BluesteinArrays<double> bluestein_arrays(int, int, bool);
template BluesteinTables bluestein_tables<float>(int, int, bool, std::pair<int, int>);
template BluesteinTables bluestein_tables<double>(int, int, bool, std::pair<int, int>);

}  // namespace kevra::ops
